// ConfD keypath parsing, hkeypath building and value text/JSON forms for confd-emu.
#include "keypath.h"

#include <arpa/inet.h>
#include <libyang/libyang.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace emu
{

using confd_wire::Value;

namespace
{

bool parse_i64(std::string_view t, int64_t lo, int64_t hi, int64_t &out)
{
    if (t.empty() || t.size() > 32) return false;
    char buf[40];
    t.copy(buf, t.size());
    buf[t.size()] = '\0';
    if (buf[0] == ' ' || buf[0] == '\t') return false;
    errno = 0;
    char *end = nullptr;
    long long v = strtoll(buf, &end, 10);
    if (errno != 0 || *end != '\0' || end == buf || v < lo || v > hi) return false;
    out = v;
    return true;
}

bool parse_u64(std::string_view t, uint64_t hi, uint64_t &out, int base = 10)
{
    if (t.empty() || t.size() > 32 || t[0] == '-' || t[0] == '+' || t[0] == ' ' || t[0] == '\t')
        return false;
    char buf[40];
    t.copy(buf, t.size());
    buf[t.size()] = '\0';
    errno = 0;
    char *end = nullptr;
    unsigned long long v = strtoull(buf, &end, base);
    if (errno != 0 || *end != '\0' || end == buf || v > hi) return false;
    out = v;
    return true;
}

int hexval(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

struct IntRange {
    int vt;
    int64_t lo, hi;
};
constexpr IntRange kSigned[] = {
    {vt::INT8, INT8_MIN, INT8_MAX},         {vt::INT16, INT16_MIN, INT16_MAX},
    {vt::INT32, INT32_MIN, INT32_MAX},      {vt::INT64, INT64_MIN, INT64_MAX},
    {vt::ENUM_VALUE, INT32_MIN, INT32_MAX},
};
struct UintRange {
    int vt;
    uint64_t hi;
};
constexpr UintRange kUnsigned[] = {
    {vt::UINT8, UINT8_MAX},   {vt::UINT16, UINT16_MAX}, {vt::UINT32, UINT32_MAX},
    {vt::UINT64, UINT64_MAX}, {vt::BIT32, UINT32_MAX},  {vt::BIT64, UINT64_MAX},
};

std::string tname(int t)
{
    const char *n = vtype_name(t);
    return n ? n : "type " + std::to_string(t);
}

// Identity `text` ("name" or "prefix:name") among those an identityref leaf accepts, as {ns, id}
// hashes.
bool identity_from_text(const SchemaNode *leaf, std::string_view text, Value &out)
{
    if (!leaf || !leaf->lys || !(leaf->lys->nodetype & (LYS_LEAF | LYS_LEAFLIST))) return false;
    const lysc_type *t = leaf->lys->nodetype == LYS_LEAF
                             ? reinterpret_cast<const lysc_node_leaf *>(leaf->lys)->type
                             : reinterpret_cast<const lysc_node_leaflist *>(leaf->lys)->type;
    if (t->basetype == LY_TYPE_LEAFREF)
        t = reinterpret_cast<const lysc_type_leafref *>(t)->realtype;
    if (!t || t->basetype != LY_TYPE_IDENT) return false;
    std::string_view pfx, name = text;
    size_t c = text.find(':');
    if (c != std::string_view::npos) {
        pfx = text.substr(0, c);
        name = text.substr(c + 1);
    }
    std::vector<const lysc_ident *> todo;
    auto *it = reinterpret_cast<const lysc_type_identityref *>(t);
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(it->bases, i) todo.push_back(it->bases[i]);
    for (size_t k = 0; k < todo.size() && k < 10000; ++k) {
        const lysc_ident *id = todo[k];
        LY_ARRAY_FOR(id->derived, i)
        {
            const lysc_ident *d = id->derived[i];
            if (name == d->name &&
                (pfx.empty() || pfx == d->module->prefix || pfx == d->module->name)) {
                out.type = vt::IDENTITYREF;
                out.a = confd_wire::ns_hash(d->module->ns);
                out.b = confd_wire::tag_hash(d->module->ns, d->name);
                return true;
            }
            todo.push_back(d);
        }
    }
    return false;
}

// A key must be quoted when the parser would not read it back as the same text: empty, with
// separators or escapes, or in the "C_TYPE:text" form that forces a type (see parse_key).
bool needs_quotes(const std::string &s)
{
    if (s.empty() || (s.compare(0, 2, "C_") == 0 && s.find(':') != std::string::npos))
        return true;
    for (char c : s)
        if (c == ' ' || c == '\t' || c == '\n' || c == '"' || c == '\\' || c == '{' || c == '}' ||
            c == '/')
            return true;
    return false;
}

std::string quote_key(const std::string &s)
{
    if (!needs_quotes(s)) return s;
    std::string q = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') q.push_back('\\');
        q.push_back(c);
    }
    q.push_back('"');
    return q;
}

struct KeyToken {
    std::string text;
    bool quoted = false;
};

// Splits the text between braces into blank-separated keys; "..." quotes with \" and \\ escapes.
bool split_keys(std::string_view in, std::vector<KeyToken> &out, std::string &err)
{
    size_t i = 0;
    while (true) {
        while (i < in.size() && (in[i] == ' ' || in[i] == '\t'))
            ++i;
        if (i >= in.size()) return true;
        KeyToken tok;
        if (in[i] == '"') {
            tok.quoted = true;
            ++i;
            bool closed = false;
            while (i < in.size()) {
                char c = in[i++];
                if (c == '\\' && i < in.size()) {
                    tok.text.push_back(in[i++]);
                } else if (c == '"') {
                    closed = true;
                    break;
                } else {
                    tok.text.push_back(c);
                }
            }
            if (!closed) {
                err = "unterminated quoted key";
                return false;
            }
            if (i < in.size() && in[i] != ' ' && in[i] != '\t') {
                err = "blank expected after quoted key";
                return false;
            }
        } else {
            while (i < in.size() && in[i] != ' ' && in[i] != '\t')
                tok.text.push_back(in[i++]);
        }
        out.push_back(std::move(tok));
    }
}

// Parses one key for key leaf `leaf`, honouring a forced "C_TYPE:" prefix on an unquoted key.
bool parse_key(const SchemaNode *leaf, const KeyToken &tok, Value &out, std::string &err)
{
    if (!tok.quoted && tok.text.compare(0, 2, "C_") == 0) {
        size_t c = tok.text.find(':');
        if (c != std::string::npos) {
            std::string_view tn = std::string_view(tok.text).substr(0, c);
            int forced = vtype_from_name(tn);
            if (!forced) {
                err = "unknown value type '" + std::string(tn) + "'";
                return false;
            }
            return value_from_text_typed(forced, std::string_view(tok.text).substr(c + 1), out,
                                         err);
        }
    }
    return value_from_text(leaf, tok.text, out, err);
}

void append_json_number(std::string &s, double d)
{
    if (!std::isfinite(d)) {
        s += "null";
        return;
    }
    char buf[64];
    snprintf(buf, sizeof buf, "%.17g", d);
    s += buf;
}

// The two-character JSON escape of c, or null when it has none.
const char *json_short_escape(uint8_t c)
{
    switch (c) {
    case '"': return "\\\"";
    case '\\': return "\\\\";
    case '\n': return "\\n";
    case '\t': return "\\t";
    case '\r': return "\\r";
    default: return nullptr;
    }
}

} // namespace

bool parse_hex(std::string_view t, std::string_view seps, bool every, std::string &out)
{
    out.clear();
    size_t i = 0;
    while (i < t.size()) {
        if (i + 1 >= t.size()) return false;
        int h = hexval(t[i]), l = hexval(t[i + 1]);
        if (h < 0 || l < 0) return false;
        out.push_back(static_cast<char>(h * 16 + l));
        i += 2;
        if (i == t.size()) break;
        if (seps.find(t[i]) != std::string_view::npos) {
            if (++i == t.size()) return false;
        } else if (every) {
            return false;
        }
    }
    return true;
}

std::string hex_text(const std::string &b, char sep)
{
    static const char d[] = "0123456789abcdef";
    std::string s;
    s.reserve(b.size() * 3);
    for (size_t i = 0; i < b.size(); ++i) {
        if (sep && i) s.push_back(sep);
        auto c = static_cast<uint8_t>(b[i]);
        s.push_back(d[c >> 4]);
        s.push_back(d[c & 15]);
    }
    return s;
}

bool value_from_text_typed(int t, std::string_view text, Value &out, std::string &err)
{
    out = Value();
    out.type = static_cast<uint8_t>(t);
    auto bad = [&](const char *what) {
        err = "'" + std::string(text) + "' is not " + what + " (" + tname(t) + ")";
        return false;
    };
    for (const IntRange &r : kSigned)
        if (r.vt == t)
            return parse_i64(text, r.lo, r.hi, out.i) ? true : bad("an integer in range");
    for (const UintRange &r : kUnsigned) {
        if (r.vt != t) continue;
        bool hex = (t == vt::BIT32 || t == vt::BIT64) && text.size() > 2 && text[0] == '0' &&
                   (text[1] == 'x' || text[1] == 'X');
        bool ok = hex ? parse_u64(text.substr(2), r.hi, out.u, 16) : parse_u64(text, r.hi, out.u);
        return ok ? true : bad("an unsigned integer in range");
    }
    switch (t) {
    case vt::NOEXISTS:
        if (!text.empty()) return bad("empty");
        return true;
    case vt::STR:
    case vt::BUF:
        out.bytes = std::string(text);
        return true;
    case vt::BINARY:
        return parse_hex(text, "", false, out.bytes) ? true : bad("hex octets");
    case 47: // C_HEXSTR
        return parse_hex(text, ":", true, out.bytes) ? true : bad("colon-separated hex octets");
    case vt::BOOL:
        if (text == "true")
            out.u = 1;
        else if (text == "false")
            out.u = 0;
        else
            return bad("true or false");
        return true;
    case vt::DOUBLE: {
        if (text.empty() || text.size() > 64) return bad("a number");
        char buf[72];
        text.copy(buf, text.size());
        buf[text.size()] = '\0';
        char *end = nullptr;
        errno = 0;
        out.d = strtod(buf, &end);
        if (errno != 0 || *end != '\0' || end == buf) return bad("a number");
        return true;
    }
    case vt::IPV4:
    case vt::IPV6: {
        if (text.size() > 63) return bad("an address");
        char buf[64];
        text.copy(buf, text.size());
        buf[text.size()] = '\0';
        unsigned char a[16];
        int af = t == vt::IPV4 ? AF_INET : AF_INET6;
        if (inet_pton(af, buf, a) != 1)
            return bad(t == vt::IPV4 ? "an IPv4 address" : "an IPv6 address");
        out.bytes.assign(reinterpret_cast<char *>(a), t == vt::IPV4 ? 4 : 16);
        return true;
    }
    case vt::OID: {
        if (text.empty()) return bad("a dotted OID");
        size_t i = 0;
        while (i <= text.size()) {
            size_t dot = text.find('.', i);
            if (dot == std::string_view::npos) dot = text.size();
            uint64_t v;
            if (!parse_u64(text.substr(i, dot - i), UINT32_MAX, v) || out.oid.size() >= 128)
                return bad("a dotted OID");
            out.oid.push_back(static_cast<uint32_t>(v));
            i = dot + 1;
        }
        return true;
    }
    case vt::XMLTAG:
    case vt::IDENTITYREF: {
        // Raw form "A:B" (tag:ns for a tag, ns:id for an identity), for tests of odd values.
        size_t c = text.find(':');
        uint64_t a, b;
        if (c == std::string_view::npos || !parse_u64(text.substr(0, c), UINT32_MAX, a) ||
            !parse_u64(text.substr(c + 1), UINT32_MAX, b))
            return bad("two numbers A:B");
        out.a = static_cast<uint32_t>(a);
        out.b = static_cast<uint32_t>(b);
        return true;
    }
    default:
        err = "values of " + tname(t) + " cannot be given as text";
        return false;
    }
}

bool value_from_text(const SchemaNode *leaf, std::string_view text, Value &out, std::string &err)
{
    if (!leaf || (leaf->kind != NodeKind::Leaf && leaf->kind != NodeKind::LeafList)) {
        err = "not a leaf";
        return false;
    }
    if (!leaf->union_vtypes.empty()) {
        std::string first_err;
        for (int t : leaf->union_vtypes) {
            std::string e;
            if (t == vt::ENUM_VALUE) continue; // enumeration members need the names, tried below
            if (value_from_text_typed(t, text, out, e)) return true;
            if (first_err.empty()) first_err = e;
        }
        if (leaf->union_vtypes.end() !=
            std::find(leaf->union_vtypes.begin(), leaf->union_vtypes.end(), int(vt::ENUM_VALUE))) {
            for (const auto &e : leaf->enums) {
                if (text == e.first) {
                    out = Value();
                    out.type = vt::ENUM_VALUE;
                    out.i = e.second;
                    return true;
                }
            }
            if (value_from_text_typed(vt::ENUM_VALUE, text, out, first_err)) return true;
        }
        err = leaf->name + ": '" + std::string(text) + "' fits no member of its union";
        return false;
    }
    if (leaf->vtype == vt::ENUM_VALUE) {
        for (const auto &e : leaf->enums) {
            if (text == e.first) {
                out = Value();
                out.type = vt::ENUM_VALUE;
                out.i = e.second;
                return true;
            }
        }
    }
    if (leaf->vtype == vt::IDENTITYREF) {
        out = Value();
        if (identity_from_text(leaf, text, out)) return true;
    }
    if (leaf->vtype == 0) {
        err = leaf->name + ": leaf type '" + leaf->type_name + "' has no value type";
        return false;
    }
    std::string e;
    if (!value_from_text_typed(leaf->vtype, text, out, e)) {
        err = leaf->name + ": " + e;
        return false;
    }
    return true;
}

bool parse_keypath(const Schema &s, std::string_view text, ParsedPath &out, std::string &err)
{
    out.steps.clear();
    if (text.empty() || text[0] != '/') {
        err = "keypath must start with '/': '" + std::string(text) + "'";
        return false;
    }
    size_t i = 1;
    const SchemaNode *parent = nullptr;
    while (i <= text.size()) {
        size_t j = i;
        while (j < text.size() && text[j] != '/' && text[j] != '{' && text[j] != '}')
            ++j;
        std::string_view name = text.substr(i, j - i);
        if (name.empty()) {
            if (j == text.size() && !out.steps.empty()) break; // one trailing '/'
            err = "empty node name at offset " + std::to_string(i) + " in '" + std::string(text) +
                  "'";
            return false;
        }
        const SchemaNode *n = s.child(parent, name);
        if (!n && name.size() > 5 && name.compare(0, 4, "tag<") == 0 && name.back() == '>') {
            // "tag<N>": a node by its hash, as clients print names they have no schema for.
            uint64_t hash = 0;
            if (parse_u64(name.substr(4, name.size() - 5), UINT32_MAX, hash))
                n = s.by_tag(parent, static_cast<uint32_t>(hash));
        }
        if (!n) {
            err = "no node '" + std::string(name) + "' " +
                  (parent ? "below '" + pp_path(s, out) + "'" : std::string("at the top level"));
            return false;
        }
        PathStep step;
        step.node = n;
        if (j < text.size() && text[j] == '}') {
            err = "unexpected '}' after '" + std::string(name) + "'";
            return false;
        }
        if (j < text.size() && text[j] == '{') {
            // Find the closing brace, skipping quoted keys.
            size_t k = j + 1;
            bool inq = false;
            for (; k < text.size(); ++k) {
                if (inq && text[k] == '\\') {
                    ++k;
                    continue;
                }
                if (text[k] == '"')
                    inq = !inq;
                else if (!inq && text[k] == '}')
                    break;
            }
            if (k >= text.size()) {
                err = "missing '}' after the keys of '" + std::string(name) + "'";
                return false;
            }
            if (n->kind != NodeKind::List || n->keys.empty()) {
                err = "'" + n->name + "' is not a keyed list and takes no keys";
                return false;
            }
            std::vector<KeyToken> toks;
            if (!split_keys(text.substr(j + 1, k - j - 1), toks, err)) {
                err = n->name + ": " + err;
                return false;
            }
            if (toks.size() != n->keys.size()) {
                err = "list '" + n->name + "' has " + std::to_string(n->keys.size()) + " key(s), " +
                      std::to_string(toks.size()) + " given";
                return false;
            }
            for (size_t q = 0; q < toks.size(); ++q) {
                Value v;
                std::string e;
                if (!parse_key(n->keys[q], toks[q], v, e)) {
                    err = "key " + std::to_string(q + 1) + " of '" + n->name + "': " + e;
                    return false;
                }
                step.keys.push_back(std::move(v));
            }
            step.has_keys = true;
            j = k + 1;
            if (j < text.size() && text[j] != '/') {
                err = "'/' expected after the keys of '" + n->name + "'";
                return false;
            }
        }
        out.steps.push_back(std::move(step));
        parent = n;
        i = j + 1;
    }
    return true;
}

std::vector<std::vector<Value>> to_hkeypath(const ParsedPath &p)
{
    std::vector<std::vector<Value>> rows;
    for (const PathStep &st : p.steps) {
        Value tag;
        tag.type = vt::XMLTAG;
        tag.a = st.node->tag;
        tag.b = st.node->ns;
        rows.push_back({tag});
        if (st.has_keys) rows.push_back(st.keys);
    }
    std::reverse(rows.begin(), rows.end());
    return rows;
}

std::string value_to_text(const Value &v)
{
    switch (v.type) {
    case vt::INT8:
    case vt::INT16:
    case vt::INT32:
    case vt::INT64:
    case vt::ENUM_VALUE:
        return std::to_string(v.i);
    case vt::UINT8:
    case vt::UINT16:
    case vt::UINT32:
    case vt::UINT64:
    case vt::BIT32:
    case vt::BIT64:
        return std::to_string(v.u);
    case vt::BOOL:
        return v.u ? "true" : "false";
    case vt::STR:
    case vt::BUF:
        return v.bytes;
    case vt::BINARY:
        return hex_text(v.bytes, 0);
    case 47:
        return hex_text(v.bytes, ':');
    case vt::IPV4:
    case vt::IPV6: {
        char buf[INET6_ADDRSTRLEN];
        bool four = v.type == vt::IPV4;
        if (v.bytes.size() != (four ? 4u : 16u) ||
            !inet_ntop(four ? AF_INET : AF_INET6, v.bytes.data(), buf, sizeof buf))
            return hex_text(v.bytes, 0);
        return buf;
    }
    case vt::OID: {
        std::string s;
        for (size_t i = 0; i < v.oid.size(); ++i) {
            if (i) s.push_back('.');
            s += std::to_string(v.oid[i]);
        }
        return s;
    }
    case vt::DOUBLE: {
        char buf[64];
        snprintf(buf, sizeof buf, "%.17g", v.d);
        return buf;
    }
    case vt::XMLTAG:
    case vt::IDENTITYREF:
        return std::to_string(v.a) + ":" + std::to_string(v.b);
    case vt::NOEXISTS:
        return "";
    case vt::LIST: {
        std::string s;
        for (size_t i = 0; i < v.list.size(); ++i) {
            if (i) s.push_back(' ');
            s += quote_key(value_to_text(v.list[i]));
        }
        return s;
    }
    default:
        return "<" + tname(v.type) + ">";
    }
}

std::string json_quote(std::string_view s)
{
    std::string o = "\"";
    size_t i = 0;
    auto esc = [&](unsigned c) {
        char buf[8];
        snprintf(buf, sizeof buf, "\\u%04x", c);
        o += buf;
    };
    while (i < s.size()) {
        auto c = static_cast<uint8_t>(s[i]);
        size_t n = 1;
        if (const char *e = json_short_escape(c)) {
            o += e;
        } else if (c < 0x20 || c == 0x7f) {
            esc(c);
        } else if (c < 0x80) {
            o.push_back(static_cast<char>(c));
        } else {
            // Pass a well-formed UTF-8 sequence through; escape stray bytes one by one.
            n = (c & 0xe0) == 0xc0 ? 2 : (c & 0xf0) == 0xe0 ? 3 : (c & 0xf8) == 0xf0 ? 4 : 0;
            bool ok = n > 0 && i + n <= s.size() && !(c == 0xc0 || c == 0xc1 || c > 0xf4);
            for (size_t k = 1; ok && k < n; ++k)
                ok = (static_cast<uint8_t>(s[i + k]) & 0xc0) == 0x80;
            if (ok) {
                o.append(s.substr(i, n));
            } else {
                esc(c);
                n = 1;
            }
        }
        i += n;
    }
    o.push_back('"');
    return o;
}

std::string value_to_json(const Value &v)
{
    const char *n = vtype_name(v.type);
    std::string s = "{\"type\":";
    s += n ? json_quote(n) : json_quote("C_" + std::to_string(v.type));
    if (v.type == vt::NOEXISTS) return s + "}";
    s += ",\"value\":";
    switch (v.type) {
    case vt::INT8:
    case vt::INT16:
    case vt::INT32:
    case vt::INT64:
    case vt::ENUM_VALUE:
        s += std::to_string(v.i);
        break;
    case vt::UINT8:
    case vt::UINT16:
    case vt::UINT32:
    case vt::UINT64:
    case vt::BIT32:
    case vt::BIT64:
        s += std::to_string(v.u);
        break;
    case vt::BOOL:
        s += v.u ? "true" : "false";
        break;
    case vt::DOUBLE:
        append_json_number(s, v.d);
        break;
    case vt::STR:
        s += v.null_str ? "null" : json_quote(v.bytes);
        break;
    case vt::XMLTAG:
    case vt::XMLBEGIN:
    case vt::XMLEND:
        s += "{\"tag\":" + std::to_string(v.a) + ",\"ns\":" + std::to_string(v.b) + "}";
        break;
    case vt::IDENTITYREF:
        s += "{\"ns\":" + std::to_string(v.a) + ",\"id\":" + std::to_string(v.b) + "}";
        break;
    case vt::LIST:
        s += "[";
        for (size_t i = 0; i < v.list.size(); ++i) {
            if (i) s += ",";
            s += value_to_json(v.list[i]);
        }
        s += "]";
        break;
    default:
        s += json_quote(value_to_text(v));
        break;
    }
    return s + "}";
}

std::string pp_keypath(const Schema &s, const std::vector<std::vector<Value>> &hkp)
{
    std::string out;
    const SchemaNode *node = nullptr; // last node printed
    bool known = true;                // every node so far resolved
    for (size_t r = hkp.size(); r-- > 0;) {
        const std::vector<Value> &row = hkp[r];
        if (row.empty()) continue;
        bool tag_row = row.size() == 1 && row[0].type == vt::XMLTAG;
        // Right below a list's tag comes its keys row, unless that row is the tag of one of its
        // children.
        bool keys_row = node && node->kind == NodeKind::List &&
                        !(tag_row && s.by_tag(node, row[0].a) != nullptr);
        if (!keys_row && !known) keys_row = !tag_row;
        if (keys_row) {
            out += "{";
            for (size_t k = 0; k < row.size(); ++k) {
                if (row[k].type == vt::NOEXISTS && k > 0) break;
                if (k) out += " ";
                const Value &kv = row[k];
                if (kv.type == vt::IDENTITYREF && s.name_of(kv.b))
                    out += quote_key(s.name_of(kv.b));
                else
                    out += quote_key(value_to_text(kv));
            }
            out += "}";
            continue;
        }
        if (!tag_row) {
            out += "/<" + quote_key(value_to_text(row[0])) + ">";
            node = nullptr;
            known = false;
            continue;
        }
        const SchemaNode *n = known ? s.by_tag(node, row[0].a) : nullptr;
        if (n && row[0].b && n->ns != row[0].b) n = nullptr;
        if (n) {
            out += "/" + n->name;
        } else {
            const char *nm = s.name_of(row[0].a);
            out += "/" + (nm ? std::string(nm) : "tag" + std::to_string(row[0].a));
            known = false;
        }
        node = n;
    }
    return out.empty() ? "/" : out;
}

std::string pp_path(const Schema &s, const ParsedPath &p)
{
    return pp_keypath(s, to_hkeypath(p));
}

} // namespace emu
