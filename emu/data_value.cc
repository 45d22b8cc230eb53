// Typed ConfD values of the datastore's leaves, and the text forms libyang takes and gives.
#include "data_value.h"

#include <arpa/inet.h>
#include <libyang/libyang.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "keypath.h"

namespace emu
{

using confd_wire::Value;

namespace
{

const char kB64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string base64_encode(const std::string &in)
{
    std::string out;
    size_t i = 0;
    for (; i + 2 < in.size(); i += 3) {
        uint32_t n = (uint8_t(in[i]) << 16) | (uint8_t(in[i + 1]) << 8) | uint8_t(in[i + 2]);
        out += kB64[n >> 18];
        out += kB64[(n >> 12) & 63];
        out += kB64[(n >> 6) & 63];
        out += kB64[n & 63];
    }
    if (i + 1 == in.size()) {
        uint32_t n = uint8_t(in[i]) << 16;
        out += kB64[n >> 18];
        out += kB64[(n >> 12) & 63];
        out += "==";
    } else if (i + 2 == in.size()) {
        uint32_t n = (uint8_t(in[i]) << 16) | (uint8_t(in[i + 1]) << 8);
        out += kB64[n >> 18];
        out += kB64[(n >> 12) & 63];
        out += kB64[(n >> 6) & 63];
        out += '=';
    }
    return out;
}

// An address (with an optional "%zone", dropped) as 4 or 16 bytes.
bool parse_addr(std::string_view t, int af, std::string &out)
{
    size_t pct = t.find('%');
    if (pct != std::string_view::npos) t = t.substr(0, pct);
    char buf[64];
    if (t.size() >= sizeof buf) return false;
    t.copy(buf, t.size());
    buf[t.size()] = '\0';
    unsigned char a[16];
    if (inet_pton(af, buf, a) != 1) return false;
    out.assign(reinterpret_cast<char *>(a), af == AF_INET ? 4 : 16);
    return true;
}

bool parse_prefix(std::string_view t, int af, std::string &out)
{
    size_t slash = t.find('/');
    if (slash == std::string_view::npos || !parse_addr(t.substr(0, slash), af, out)) return false;
    int len = 0;
    std::string_view l = t.substr(slash + 1);
    if (l.empty() || l.size() > 3) return false;
    for (char c : l) {
        if (c < '0' || c > '9') return false;
        len = len * 10 + (c - '0');
    }
    if (len > (af == AF_INET ? 32 : 128)) return false;
    out.push_back(static_cast<char>(len));
    return true;
}

// Reads a string-typed value as the ConfD type vt (an address, an OID, ...). False when the text
// does not have that form.
bool string_as(int vt, std::string_view text, Value &out)
{
    out = Value();
    out.type = static_cast<uint8_t>(vt);
    std::string e;
    switch (vt) {
    case vt::BUF:
    case vt::STR:
        out.type = vt::BUF;
        out.bytes = std::string(text);
        return true;
    case vt::IPV4:
        return parse_addr(text, AF_INET, out.bytes);
    case vt::IPV6:
        return parse_addr(text, AF_INET6, out.bytes);
    case vt::IPV4PREFIX:
        return parse_prefix(text, AF_INET, out.bytes);
    case vt::IPV6PREFIX:
        return parse_prefix(text, AF_INET6, out.bytes);
    case vt::OID:
        return value_from_text_typed(vt::OID, text, out, e);
    case vt::BINARY:
    case 47: // C_HEXSTR
        return parse_hex(text, ":-", false, out.bytes);
    case 46: // C_DQUAD
        return parse_addr(text, AF_INET, out.bytes);
    default:
        return false;
    }
}

template <typename T> const T *value_mem(const lyd_value *v)
{
    if (sizeof(T) > LYD_VALUE_FIXED_MEM_SIZE) return static_cast<const T *>(v->dyn_mem);
    return reinterpret_cast<const T *>(v->fixed_mem);
}

std::string vt_text(int t)
{
    const char *n = vtype_name(t);
    return n ? n : "type " + std::to_string(t);
}

} // namespace

bool value_from_data(const SchemaNode *leaf, const lyd_node *node, Value &out, std::string &err)
{
    out = Value();
    if (!leaf || !node || !node->schema || !(node->schema->nodetype & (LYS_LEAF | LYS_LEAFLIST))) {
        err = "not a leaf instance";
        return false;
    }
    const auto *term = reinterpret_cast<const lyd_node_term *>(node);
    const lyd_value *v = &term->value;
    if (v->realtype->basetype == LY_TYPE_UNION && v->subvalue) v = &v->subvalue->value;
    const char *canon = lyd_get_value(node);
    std::string_view text = canon ? canon : "";
    switch (v->realtype->basetype) {
    case LY_TYPE_BOOL:
        out.type = vt::BOOL;
        out.u = v->boolean ? 1 : 0;
        return true;
    case LY_TYPE_INT8:
        out.type = vt::INT8;
        out.i = v->int8;
        return true;
    case LY_TYPE_INT16:
        out.type = vt::INT16;
        out.i = v->int16;
        return true;
    case LY_TYPE_INT32:
        out.type = vt::INT32;
        out.i = v->int32;
        return true;
    case LY_TYPE_INT64:
        out.type = vt::INT64;
        out.i = v->int64;
        return true;
    case LY_TYPE_UINT8:
        out.type = vt::UINT8;
        out.u = v->uint8;
        return true;
    case LY_TYPE_UINT16:
        out.type = vt::UINT16;
        out.u = v->uint16;
        return true;
    case LY_TYPE_UINT32:
        out.type = vt::UINT32;
        out.u = v->uint32;
        return true;
    case LY_TYPE_UINT64:
        out.type = vt::UINT64;
        out.u = v->uint64;
        return true;
    case LY_TYPE_DEC64:
        out.type = vt::DECIMAL64;
        out.i = v->dec64;
        out.u = reinterpret_cast<const lysc_type_dec *>(v->realtype)->fraction_digits;
        return true;
    case LY_TYPE_ENUM:
        out.type = vt::ENUM_VALUE;
        out.i = v->enum_item->value;
        return true;
    case LY_TYPE_IDENT:
        out.type = vt::IDENTITYREF;
        out.a = confd_wire::ns_hash(v->ident->module->ns);
        out.b = confd_wire::tag_hash(v->ident->module->ns, v->ident->name);
        return true;
    case LY_TYPE_EMPTY:
        out.type = vt::XMLTAG;
        out.a = leaf->tag;
        out.b = leaf->ns;
        return true;
    case LY_TYPE_BINARY: {
        const auto *b = value_mem<lyd_value_binary>(v);
        out.type = vt::BINARY;
        out.bytes.assign(static_cast<const char *>(b->data), b->size);
        return true;
    }
    case LY_TYPE_BITS: {
        const auto *b = value_mem<lyd_value_bits>(v);
        uint64_t mask = 0;
        std::string big;
        LY_ARRAY_COUNT_TYPE i;
        LY_ARRAY_FOR(b->items, i)
        {
            uint32_t pos = b->items[i]->position;
            if (pos < 64) mask |= uint64_t(1) << pos;
            if (big.size() <= pos / 8) big.resize(pos / 8 + 1, '\0');
            big[pos / 8] = static_cast<char>(big[pos / 8] | (1 << (pos % 8)));
        }
        out.type = static_cast<uint8_t>(leaf->vtype == vt::BIT64 || leaf->vtype == vt::BITBIG
                                            ? leaf->vtype
                                            : vt::BIT32);
        if (out.type == vt::BITBIG)
            out.bytes = big;
        else
            out.u = out.type == vt::BIT32 ? (mask & 0xffffffffu) : mask;
        return true;
    }
    case LY_TYPE_STRING: {
        // Strings may stand for addresses, OIDs, MAC addresses and the like; the leaf's value
        // types (a union's in order) say which.
        std::vector<int> cands = leaf->union_vtypes;
        if (cands.empty()) cands.push_back(leaf->vtype);
        for (int c : cands)
            if (c != vt::BUF && c != vt::STR && string_as(c, text, out)) return true;
        out = Value();
        out.type = vt::BUF;
        out.bytes = std::string(text);
        return true;
    }
    default:
        // instance-identifier and anything else without a ConfD form of its own: the text.
        out.type = vt::BUF;
        out.bytes = std::string(text);
        return true;
    }
}

bool value_to_data_text(const Schema &s, const SchemaNode *leaf, const Value &v, std::string &out,
                        std::string &err)
{
    out.clear();
    if (!leaf || (leaf->kind != NodeKind::Leaf && leaf->kind != NodeKind::LeafList)) {
        err = "not a leaf";
        return false;
    }
    if (v.type == vt::LIST || v.type == vt::NOEXISTS || !type_fits(leaf, v.type)) {
        err = "leaf " + leaf->name + " does not take a value of " + vt_text(v.type);
        return false;
    }
    char buf[64];
    switch (v.type) {
    case vt::STR:
        if (v.null_str) {
            err = "NULL string for leaf " + leaf->name;
            return false;
        }
        out = v.bytes;
        return true;
    case vt::BUF:
        out = v.bytes;
        return true;
    case vt::ENUM_VALUE:
        for (const auto &e : leaf->enums)
            if (e.second == v.i) {
                out = e.first;
                return true;
            }
        err = "leaf " + leaf->name + " has no enum with the value " + std::to_string(v.i);
        return false;
    case vt::INT8:
    case vt::INT16:
    case vt::INT32:
    case vt::INT64:
        out = std::to_string(v.i);
        return true;
    case vt::UINT8:
    case vt::UINT16:
    case vt::UINT32:
    case vt::UINT64:
        out = std::to_string(v.u);
        return true;
    case vt::BIT32:
    case vt::BIT64:
    case vt::BITBIG: {
        auto set = [&](uint32_t pos) {
            if (v.type == vt::BITBIG)
                return pos / 8 < v.bytes.size() && (uint8_t(v.bytes[pos / 8]) >> (pos % 8)) & 1;
            return pos < 64 && ((v.u >> pos) & 1) != 0;
        };
        size_t known = 0;
        for (const auto &b : leaf->bits)
            if (set(b.second)) {
                out += (out.empty() ? "" : " ") + b.first;
                known++;
            }
        size_t total = 0;
        for (uint32_t pos = 0; pos < (v.type == vt::BITBIG ? v.bytes.size() * 8 : 64); pos++)
            total += set(pos) ? 1 : 0;
        if (known != total) {
            err = "leaf " + leaf->name + " has no bit at a position that is set";
            return false;
        }
        return true;
    }
    case vt::BOOL:
        out = v.u ? "true" : "false";
        return true;
    case vt::DOUBLE:
        snprintf(buf, sizeof buf, "%.17g", v.d);
        out = buf;
        return true;
    case vt::IPV4:
    case vt::IPV6:
    case 46: { // C_DQUAD
        bool four = v.type != vt::IPV6;
        char a[INET6_ADDRSTRLEN];
        if (v.bytes.size() != (four ? 4u : 16u) ||
            !inet_ntop(four ? AF_INET : AF_INET6, v.bytes.data(), a, sizeof a)) {
            err = "malformed address value";
            return false;
        }
        out = a;
        return true;
    }
    case vt::IPV4PREFIX:
    case vt::IPV6PREFIX: {
        bool four = v.type == vt::IPV4PREFIX;
        char a[INET6_ADDRSTRLEN];
        if (v.bytes.size() != (four ? 5u : 17u) ||
            !inet_ntop(four ? AF_INET : AF_INET6, v.bytes.data(), a, sizeof a)) {
            err = "malformed prefix value";
            return false;
        }
        out = std::string(a) + "/" + std::to_string(uint8_t(v.bytes.back()));
        return true;
    }
    case vt::OID:
        out = value_to_text(v);
        return true;
    case vt::BINARY:
        // A YANG binary is base64; MAC and physical addresses are colon-separated hex strings.
        out = leaf->base_type == "binary" ? base64_encode(v.bytes) : hex_text(v.bytes, ':');
        return true;
    case 47: // C_HEXSTR
        out = hex_text(v.bytes, ':');
        return true;
    case vt::DECIMAL64: {
        int64_t x = v.i;
        unsigned fd = static_cast<unsigned>(v.u);
        bool neg = x < 0;
        uint64_t ux = neg ? 0 - static_cast<uint64_t>(x) : static_cast<uint64_t>(x);
        std::string digits = std::to_string(ux);
        if (digits.size() <= fd) digits.insert(0, fd + 1 - digits.size(), '0');
        out = (neg ? "-" : "") + digits.substr(0, digits.size() - fd);
        if (fd) out += "." + digits.substr(digits.size() - fd);
        return true;
    }
    case vt::IDENTITYREF: {
        const Schema::Ns *ns = s.ns_by_hash(v.a);
        const char *name = s.name_of(v.b);
        if (!ns || !name || confd_wire::tag_hash(ns->uri, name) != v.b) {
            err = "unknown identity {" + std::to_string(v.a) + "," + std::to_string(v.b) + "}";
            return false;
        }
        out = ns->module + ":" + name;
        return true;
    }
    case vt::XMLTAG:
        out.clear(); // an empty leaf
        return true;
    default:
        err = "values of " + vt_text(v.type) + " cannot be stored";
        return false;
    }
}

int compare_values(const Value &a, const Value &b)
{
    if (a.type != b.type) return a.type < b.type ? -1 : 1;
    auto cmp = [](auto x, auto y) { return x < y ? -1 : (y < x ? 1 : 0); };
    switch (a.type) {
    case vt::INT8:
    case vt::INT16:
    case vt::INT32:
    case vt::INT64:
    case vt::ENUM_VALUE:
    case vt::DECIMAL64:
        return cmp(a.i, b.i);
    case vt::UINT8:
    case vt::UINT16:
    case vt::UINT32:
    case vt::UINT64:
    case vt::BIT32:
    case vt::BIT64:
    case vt::BOOL:
        return cmp(a.u, b.u);
    case vt::DOUBLE:
        return cmp(a.d, b.d);
    case vt::XMLTAG:
    case vt::IDENTITYREF:
        return a.a != b.a ? cmp(a.a, b.a) : cmp(a.b, b.b);
    case vt::OID:
        return cmp(a.oid, b.oid);
    default: {
        int c = a.bytes.compare(b.bytes);
        return c < 0 ? -1 : (c > 0 ? 1 : 0);
    }
    }
}

bool same_value(const Value &a, const Value &b)
{
    if (a.type != b.type || a.null_str != b.null_str) return false;
    if (a.type == vt::LIST) {
        if (a.list.size() != b.list.size()) return false;
        for (size_t i = 0; i < a.list.size(); i++)
            if (!same_value(a.list[i], b.list[i])) return false;
        return true;
    }
    return compare_values(a, b) == 0 && a.u == b.u && a.i == b.i;
}

namespace
{

// Rewrites the module prefixes of expr: to module names, or (drop) away with their colon.
std::string rewrite_prefixes(const Schema &s, std::string_view expr, bool drop)
{
    auto name_start = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
    };
    auto name_char = [&](char c) {
        return name_start(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
    };
    std::string out;
    size_t i = 0, n = expr.size();
    while (i < n) {
        char c = expr[i];
        if (c == '\'' || c == '"') {
            size_t end = expr.find(c, i + 1);
            end = end == std::string_view::npos ? n : end + 1;
            out.append(expr.substr(i, end - i));
            i = end;
        } else if (c >= '0' && c <= '9') {
            size_t j = i;
            while (j < n && ((expr[j] >= '0' && expr[j] <= '9') || expr[j] == '.'))
                ++j;
            out.append(expr.substr(i, j - i));
            i = j;
        } else if (name_start(c)) {
            size_t j = i;
            while (j < n && name_char(expr[j]))
                ++j;
            std::string_view name = expr.substr(i, j - i);
            bool prefix = j + 1 < n && expr[j] == ':' && expr[j + 1] != ':' &&
                          (name_start(expr[j + 1]) || expr[j + 1] == '*');
            std::string_view replaced = name;
            if (prefix) {
                bool is_module = false;
                const Schema::Ns *by_prefix = nullptr;
                for (const Schema::Ns &ns : s.namespaces()) {
                    if (ns.module == name) is_module = true;
                    if (ns.prefix == name && !by_prefix) by_prefix = &ns;
                }
                if (drop && (is_module || by_prefix)) {
                    i = j + 1;
                    continue;
                }
                if (!is_module && by_prefix) replaced = by_prefix->module;
            }
            out.append(replaced);
            i = j;
        } else {
            out.push_back(c);
            ++i;
        }
    }
    return out;
}

} // namespace

std::string xpath_module_names(const Schema &s, std::string_view expr)
{
    return rewrite_prefixes(s, expr, false);
}

std::string xpath_without_prefixes(const Schema &s, std::string_view expr)
{
    return rewrite_prefixes(s, expr, true);
}

} // namespace emu
