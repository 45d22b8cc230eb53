// Schema information loaded from ConfD: the hash/name table, namespaces, cs_node trees, types and printing.
#include "schema.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <sys/socket.h>
#include <unistd.h>
#include <unordered_map>
#include <vector>

#include "convert.h"
#include "lib_core.h"
#include "pathtext.h"
#include "wire.h"

// A value type from the loaded schemas (opaque to applications).
struct confd_type {
    enum confd_vtype vtype = C_BUF; // for a leaf-list: the type of its elements
    std::string name;               // typedef or built-in type name
    std::vector<std::pair<std::string, int32_t>> enums;
};

namespace libconfd {

namespace {

using confd_wire::Op;

struct NsRec {
    uint32_t hash;
    std::string prefix, uri, module;
};

// Everything one schema load produced. Never changed after install.
struct SchemaStore {
    std::deque<NsRec> namespaces;
    std::vector<struct confd_nsinfo> nslist;
    std::unordered_map<uint32_t, std::string> names;
    std::unordered_map<std::string, uint32_t> hash_of; // first hash seen per name
    std::vector<struct confd_cs_node> nodes;
    std::deque<std::vector<uint32_t>> keys;
    std::deque<struct confd_type> types;
    std::unordered_map<uint32_t, struct confd_cs_node *> roots; // first top node per namespace
    std::vector<struct confd_cs_node *> tops;                   // all top nodes, in order
    std::map<std::pair<uint32_t, std::string>, struct confd_type *> ns_types;
};

std::mutex g_store_mu;
std::vector<std::unique_ptr<SchemaStore>> g_stores; // all loads, kept for stable pointers
std::atomic<SchemaStore *> g_current{nullptr};

SchemaStore *current() { return g_current.load(std::memory_order_acquire); }

const NsRec *find_ns(const SchemaStore *st, uint32_t hash)
{
    for (const NsRec &ns : st->namespaces)
        if (ns.hash == hash)
            return &ns;
    return nullptr;
}

// Built-in YANG types for confd_find_ns_type(0, name).
struct BuiltinType {
    const char *name;
    enum confd_vtype vtype;
};
const BuiltinType kBuiltins[] = {
    {"int8", C_INT8},       {"int16", C_INT16},       {"int32", C_INT32},
    {"int64", C_INT64},     {"uint8", C_UINT8},       {"uint16", C_UINT16},
    {"uint32", C_UINT32},   {"uint64", C_UINT64},     {"string", C_BUF},
    {"boolean", C_BOOL},    {"binary", C_BINARY},     {"decimal64", C_DECIMAL64},
    {"empty", C_XMLTAG},    {"identityref", C_IDENTITYREF}, {"ipv4-address", C_IPV4},
    {"ipv6-address", C_IPV6}, {"object-identifier", C_OID}, {"bits", C_BIT32},
};

struct confd_type *builtin_type(const char *name)
{
    static std::deque<struct confd_type> table = [] {
        std::deque<struct confd_type> t;
        for (const BuiltinType &b : kBuiltins) {
            t.emplace_back();
            t.back().vtype = b.vtype;
            t.back().name = b.name;
        }
        return t;
    }();
    for (struct confd_type &t : table)
        if (t.name == name)
            return &t;
    return nullptr;
}

std::string node_name(const SchemaStore *st, uint32_t tag)
{
    auto it = st->names.find(tag);
    return it != st->names.end() ? it->second : std::string();
}

// Parses the schema answer into a new store. false for a malformed payload.
bool parse_payload(const std::string &answer, SchemaStore &st, std::string &err)
{
    confd_wire::Reader rd(answer);
    if (rd.op() != Op::Ok) {
        err = "schema answer is not Ok";
        return false;
    }
    // Every entry takes several bytes: a count beyond the payload size is a
    // broken frame, not a reason to allocate.
    const uint32_t limit = static_cast<uint32_t>(answer.size());
    uint32_t n_ns = rd.u32();
    if (n_ns > limit) {
        err = "namespace count out of range";
        return false;
    }
    for (uint32_t i = 0; i < n_ns && rd.ok(); i++) {
        NsRec ns;
        ns.hash = rd.u32();
        ns.prefix = rd.str();
        ns.uri = rd.str();
        ns.module = rd.str();
        st.namespaces.push_back(std::move(ns));
    }
    uint32_t n_nodes = rd.u32();
    // A node takes at least 27 bytes (tag, ns, parent, kind, config, vtype,
    // an empty type name, no keys, no enums), and the node table is far
    // larger than that per entry: bound the count by what the payload can
    // hold before allocating for it.
    const uint32_t min_node_bytes = 27;
    if (!rd.ok() || n_nodes > limit / min_node_bytes) {
        err = "node count out of range";
        return false;
    }
    st.nodes.resize(n_nodes);
    std::vector<int32_t> parents(n_nodes, -1);
    std::vector<struct confd_cs_node *> last_child(n_nodes, nullptr);
    std::unordered_map<uint32_t, struct confd_cs_node *> last_top;
    for (uint32_t i = 0; i < n_nodes && rd.ok(); i++) {
        struct confd_cs_node &n = st.nodes[i];
        memset(&n, 0, sizeof n);
        n.tag = rd.u32();
        n.ns = rd.u32();
        int32_t parent = rd.i32();
        uint8_t kind = rd.u8();
        uint8_t config = rd.u8();
        uint8_t vtype = rd.u8();
        std::string type_name = rd.str();
        uint32_t nkeys = rd.u32();
        if (!rd.ok() || nkeys > limit || kind > 3 || parent >= static_cast<int32_t>(i) ||
            parent < -1 || (kind >= 2 && (vtype == 0 || vtype >= C_MAXTYPE))) {
            err = "malformed schema node " + std::to_string(i);
            return false;
        }
        std::vector<uint32_t> keys;
        for (uint32_t k = 0; k < nkeys && rd.ok(); k++)
            keys.push_back(rd.u32());
        uint32_t n_enums = rd.u32();
        if (!rd.ok() || n_enums > limit) {
            err = "malformed schema node " + std::to_string(i);
            return false;
        }
        std::vector<std::pair<std::string, int32_t>> enums;
        for (uint32_t k = 0; k < n_enums && rd.ok(); k++) {
            std::string name = rd.str();
            enums.emplace_back(std::move(name), rd.i32());
        }
        parents[i] = parent;
        n.info.flags = config ? CS_NODE_IS_WRITE : 0;
        n.info.minOccurs = 0;
        n.info.maxOccurs = 1;
        n.info.shallow_type = C_XMLTAG;
        switch (kind) {
        case 0: n.info.flags |= CS_NODE_IS_CONTAINER; break;
        case 1:
            n.info.flags |= CS_NODE_IS_DYN;
            n.info.maxOccurs = -1;
            keys.push_back(0);
            st.keys.push_back(std::move(keys));
            n.info.keys = st.keys.back().data();
            break;
        default: {
            st.types.emplace_back();
            struct confd_type &t = st.types.back();
            t.vtype = static_cast<enum confd_vtype>(vtype);
            t.name = type_name;
            t.enums = std::move(enums);
            n.info.type = &t;
            n.info.shallow_type = t.vtype;
            if (kind == 3) {
                n.info.flags |= CS_NODE_IS_LEAF_LIST;
                n.info.shallow_type = C_LIST;
                n.info.maxOccurs = -1;
            }
            if (!type_name.empty()) {
                st.ns_types.emplace(std::make_pair(n.ns, type_name), &t);
            }
            break;
        }
        }
        // Link into the tree: children and siblings in schema order; top
        // nodes chained per namespace, as each namespace has its own tree.
        if (parent >= 0) {
            struct confd_cs_node *p = &st.nodes[static_cast<size_t>(parent)];
            n.parent = p;
            if (last_child[static_cast<size_t>(parent)] == nullptr)
                p->children = &n;
            else
                last_child[static_cast<size_t>(parent)]->next = &n;
            last_child[static_cast<size_t>(parent)] = &n;
            // A key leaf is mandatory in its list entry.
            if (p->info.keys != nullptr)
                for (const uint32_t *k = p->info.keys; *k != 0; k++)
                    if (*k == n.tag)
                        n.info.minOccurs = 1;
        } else {
            st.tops.push_back(&n);
            auto it = last_top.find(n.ns);
            if (it == last_top.end())
                st.roots.emplace(n.ns, &n);
            else
                it->second->next = &n;
            last_top[n.ns] = &n;
        }
    }
    uint32_t n_names = rd.u32();
    if (!rd.ok() || n_names > limit) {
        err = "name count out of range";
        return false;
    }
    for (uint32_t i = 0; i < n_names && rd.ok(); i++) {
        uint32_t hash = rd.u32();
        std::string name = rd.str();
        st.hash_of.emplace(name, hash);
        st.names.emplace(hash, std::move(name));
    }
    if (!rd.ok()) {
        err = "truncated schema payload";
        return false;
    }
    for (const NsRec &ns : st.namespaces) {
        struct confd_nsinfo info;
        info.uri = ns.uri.c_str();
        info.prefix = ns.prefix.c_str();
        info.hash = ns.hash;
        info.revision = "";
        info.module = ns.module.c_str();
        st.nslist.push_back(info);
    }
    return true;
}

// A top node matching "name" or "prefix:name".
bool name_matches(const SchemaStore *st, const struct confd_cs_node *n, const std::string &comp)
{
    size_t colon = comp.find(':');
    std::string name = colon == std::string::npos ? comp : comp.substr(colon + 1);
    if (node_name(st, n->tag) != name)
        return false;
    if (colon == std::string::npos)
        return true;
    const NsRec *ns = find_ns(st, n->ns);
    std::string pfx = comp.substr(0, colon);
    return ns != nullptr && (ns->prefix == pfx || ns->module == pfx);
}

// Splits "a/b{k 1/2}/c" into components, leaving braces (and quotes inside
// them) intact so that a '/' in a key does not split.
std::vector<std::string> split_path(const std::string &path)
{
    std::vector<std::string> comps;
    std::string cur;
    int depth = 0;
    bool quoted = false;
    for (size_t i = 0; i < path.size(); i++) {
        char c = path[i];
        if (quoted) {
            if (c == '\\' && i + 1 < path.size())
                cur += path[++i];
            else if (c == '"')
                quoted = false;
            continue;
        }
        if (depth > 0) {
            if (c == '"')
                quoted = true;
            else if (c == '}')
                depth--;
            continue; // keys do not matter for schema navigation
        }
        if (c == '{') {
            depth++;
        } else if (c == '/') {
            if (!cur.empty())
                comps.push_back(cur);
            cur.clear();
        } else if (c == '[') {
            // An XPath predicate: skip to its end.
            while (i < path.size() && path[i] != ']')
                i++;
        } else {
            cur += c;
        }
    }
    if (!cur.empty())
        comps.push_back(cur);
    return comps;
}

std::string enum_name(const struct confd_type *t, int32_t v)
{
    for (const auto &e : t->enums)
        if (e.second == v)
            return e.first;
    return std::string();
}

// Text of a value as confd_pp_value() prints it, whatever its length.
std::string pp_text(const confd_value_t *v)
{
    char buf[256];
    int n = confd_pp_value(buf, sizeof buf, v);
    if (n < static_cast<int>(sizeof buf))
        return std::string(buf, static_cast<size_t>(n));
    std::string big(static_cast<size_t>(n) + 1, '\0');
    confd_pp_value(&big[0], n + 1, v);
    big.resize(static_cast<size_t>(n));
    return big;
}

bool parse_i64(const char *s, int64_t &out)
{
    if (*s == '\0')
        return false;
    errno = 0;
    char *end = nullptr;
    long long x = strtoll(s, &end, 0);
    if (errno != 0 || *end != '\0')
        return false;
    out = x;
    return true;
}

bool parse_u64(const char *s, uint64_t &out)
{
    if (*s == '\0' || *s == '-')
        return false;
    errno = 0;
    char *end = nullptr;
    unsigned long long x = strtoull(s, &end, 0);
    if (errno != 0 || *end != '\0')
        return false;
    out = x;
    return true;
}

int hexval(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Hex bytes, with or without ':' separators ("0a:1b" or "0a1b").
bool parse_hex(const char *s, std::string &out)
{
    out.clear();
    while (*s != '\0') {
        if (*s == ':' && !out.empty()) {
            s++;
            continue;
        }
        int hi = hexval(s[0]);
        int lo = hi < 0 ? -1 : hexval(s[1]);
        if (lo < 0)
            return false;
        out.push_back(static_cast<char>(hi * 16 + lo));
        s += 2;
    }
    return true;
}

// Decimal text "-12.345" as a decimal64 with as many fraction digits as written.
bool parse_decimal64(const char *s, struct confd_decimal64 &d)
{
    std::string digits;
    int frac = -1;
    bool neg = *s == '-';
    if (neg || *s == '+')
        s++;
    for (; *s != '\0'; s++) {
        if (*s == '.' && frac < 0) {
            frac = 0;
            continue;
        }
        if (*s < '0' || *s > '9')
            return false;
        digits += *s;
        if (frac >= 0)
            frac++;
    }
    if (digits.empty() || digits.size() > 18 || frac > 18)
        return false;
    d.value = strtoll(digits.c_str(), nullptr, 10) * (neg ? -1 : 1);
    d.fraction_digits = static_cast<uint8_t>(frac < 0 ? 0 : frac);
    return true;
}

bool parse_prefix(const char *s, int af, void *addr, uint8_t &len)
{
    const char *slash = strchr(s, '/');
    if (slash == nullptr)
        return false;
    std::string a(s, static_cast<size_t>(slash - s));
    uint64_t l = 0;
    if (inet_pton(af, a.c_str(), addr) != 1 || !parse_u64(slash + 1, l) ||
        l > (af == AF_INET ? 32u : 128u))
        return false;
    len = static_cast<uint8_t>(l);
    return true;
}

// Fills out from text for vtype; heap storage as confd_free_value() expects.
bool str_to_value(const struct confd_type *t, const char *s, confd_value_t &out)
{
    memset(&out, 0, sizeof out);
    out.type = t->vtype;
    int64_t i = 0;
    uint64_t u = 0;
    switch (t->vtype) {
    case C_BUF:
    case C_STR: {
        out.type = C_BUF;
        size_t n = strlen(s);
        out.val.buf.ptr = static_cast<unsigned char *>(malloc(n + 1));
        if (out.val.buf.ptr == nullptr)
            return false;
        memcpy(out.val.buf.ptr, s, n + 1);
        out.val.buf.size = static_cast<unsigned>(n);
        return true;
    }
    case C_BINARY:
    case C_HEXSTR: {
        std::string bytes;
        if (!parse_hex(s, bytes))
            return false;
        out.val.buf.ptr = static_cast<unsigned char *>(malloc(bytes.size() + 1));
        if (out.val.buf.ptr == nullptr)
            return false;
        memcpy(out.val.buf.ptr, bytes.data(), bytes.size());
        out.val.buf.ptr[bytes.size()] = '\0';
        out.val.buf.size = static_cast<unsigned>(bytes.size());
        return true;
    }
    case C_INT8: return parse_i64(s, i) && i >= INT8_MIN && i <= INT8_MAX && (out.val.i8 = static_cast<int8_t>(i), true);
    case C_INT16: return parse_i64(s, i) && i >= INT16_MIN && i <= INT16_MAX && (out.val.i16 = static_cast<int16_t>(i), true);
    case C_INT32: return parse_i64(s, i) && i >= INT32_MIN && i <= INT32_MAX && (out.val.i32 = static_cast<int32_t>(i), true);
    case C_INT64: return parse_i64(s, i) && (out.val.i64 = i, true);
    case C_UINT8: return parse_u64(s, u) && u <= UINT8_MAX && (out.val.u8 = static_cast<uint8_t>(u), true);
    case C_UINT16: return parse_u64(s, u) && u <= UINT16_MAX && (out.val.u16 = static_cast<uint16_t>(u), true);
    case C_UINT32: return parse_u64(s, u) && u <= UINT32_MAX && (out.val.u32 = static_cast<uint32_t>(u), true);
    case C_UINT64: return parse_u64(s, u) && (out.val.u64 = u, true);
    case C_BIT32: return parse_u64(s, u) && u <= UINT32_MAX && (out.val.b32 = static_cast<uint32_t>(u), true);
    case C_BIT64: return parse_u64(s, u) && (out.val.b64 = u, true);
    case C_DOUBLE: {
        char *end = nullptr;
        errno = 0;
        out.val.d = strtod(s, &end);
        return *s != '\0' && *end == '\0' && errno == 0;
    }
    case C_BOOL:
        if (strcmp(s, "true") == 0 || strcmp(s, "1") == 0)
            out.val.boolean = 1;
        else if (strcmp(s, "false") == 0 || strcmp(s, "0") == 0)
            out.val.boolean = 0;
        else
            return false;
        return true;
    case C_ENUM_VALUE:
        for (const auto &e : t->enums)
            if (e.first == s) {
                out.val.enumvalue = e.second;
                return true;
            }
        if (strncmp(s, "enum<", 5) == 0) {
            std::string num(s + 5);
            if (num.empty() || num.back() != '>')
                return false;
            num.pop_back();
            return parse_i64(num.c_str(), i) && i >= INT32_MIN && i <= INT32_MAX &&
                   (out.val.enumvalue = static_cast<int32_t>(i), true);
        }
        return parse_i64(s, i) && i >= INT32_MIN && i <= INT32_MAX &&
               (out.val.enumvalue = static_cast<int32_t>(i), true);
    case C_IPV4: return inet_pton(AF_INET, s, &out.val.ip) == 1;
    case C_IPV6: return inet_pton(AF_INET6, s, &out.val.ip6) == 1;
    case C_IPV4PREFIX:
    case C_IPV4_AND_PLEN:
        return parse_prefix(s, AF_INET, &out.val.ipv4prefix.ip, out.val.ipv4prefix.len);
    case C_IPV6PREFIX:
    case C_IPV6_AND_PLEN:
        return parse_prefix(s, AF_INET6, &out.val.ipv6prefix.ip6, out.val.ipv6prefix.len);
    case C_DECIMAL64: return parse_decimal64(s, out.val.d64);
    case C_OID: {
        auto *oid = static_cast<struct confd_snmp_oid *>(calloc(1, sizeof(struct confd_snmp_oid)));
        if (oid == nullptr)
            return false;
        const char *p = s;
        while (*p != '\0') {
            char *end = nullptr;
            errno = 0;
            unsigned long x = strtoul(p, &end, 10);
            if (end == p || errno != 0 || x > UINT32_MAX || oid->len >= 128 ||
                (*end != '.' && *end != '\0') || *p == '-') {
                free(oid);
                return false;
            }
            oid->oid[oid->len++] = static_cast<uint32_t>(x);
            p = *end == '.' ? end + 1 : end;
        }
        out.val.oidp = oid;
        return true;
    }
    default: return false;
    }
}

} // namespace

int install_schema_payload(const std::string &answer)
{
    auto st = std::make_unique<SchemaStore>();
    std::string err;
    if (!parse_payload(answer, *st, err))
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "bad schema data from ConfD: %s", err.c_str());
    std::lock_guard<std::mutex> lock(g_store_mu);
    g_stores.push_back(std::move(st));
    g_current.store(g_stores.back().get(), std::memory_order_release);
    logf(CONFD_TRACE, "loaded schemas: %zu namespaces, %zu nodes",
         g_stores.back()->namespaces.size(), g_stores.back()->nodes.size());
    return CONFD_OK;
}

int load_schemas_over(int sock)
{
    confd_wire::Writer w(Op::Maapi);
    w.u8(static_cast<uint8_t>(confd_wire::MaapiOp::LoadSchemas));
    std::string answer;
    if (request(sock, w.payload(), answer, "load schemas") != CONFD_OK)
        return CONFD_ERR;
    return install_schema_payload(answer);
}

} // namespace libconfd

using namespace libconfd;

extern "C" {

const char *confd_lib_tag_name(uint32_t hash)
try {
    SchemaStore *st = current();
    if (st == nullptr)
        return nullptr;
    auto it = st->names.find(hash);
    return it != st->names.end() ? it->second.c_str() : nullptr;
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

int confd_load_schemas(const struct sockaddr *srv, int srv_sz)
try {
    if (srv == nullptr || srv_sz <= 0)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "no server address given");
    int fd = socket(srv->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return confd_lib_fail(CONFD_ERR_OS, "cannot open a socket: %s", strerror(errno));
    FdGuard guard(fd);
    if (connect_socket(fd, srv, srv_sz) != CONFD_OK)
        return CONFD_ERR;
    confd_wire::Writer hello(Op::Hello);
    hello.u8(static_cast<uint8_t>(confd_wire::ConnKind::Maapi));
    std::string answer;
    if (request(fd, hello.payload(), answer, "schema connection") != CONFD_OK)
        return CONFD_ERR;
    return load_schemas_over(fd);
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

struct confd_cs_node *confd_find_cs_root(int ns)
try {
    SchemaStore *st = current();
    if (st == nullptr)
        return nullptr;
    auto it = st->roots.find(static_cast<uint32_t>(ns));
    return it != st->roots.end() ? it->second : nullptr;
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

struct confd_cs_node *confd_find_cs_node_child(const struct confd_cs_node *parent,
                                               struct xml_tag xmltag)
try {
    if (parent == nullptr)
        return nullptr;
    for (struct confd_cs_node *c = parent->children; c != nullptr; c = c->next)
        if (c->tag == xmltag.tag && (xmltag.ns == 0 || c->ns == xmltag.ns))
            return c;
    return nullptr;
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

struct confd_cs_node *confd_find_cs_node(const confd_hkeypath_t *hkp, int len)
try {
    SchemaStore *st = current();
    if (st == nullptr || hkp == nullptr || hkp->len <= 0 || hkp->len > MAXDEPTH || len <= 0 ||
        len > hkp->len)
        return nullptr;
    const confd_value_t &top = hkp->v[hkp->len - 1][0];
    if (top.type != C_XMLTAG)
        return nullptr;
    struct confd_cs_node *node = nullptr;
    for (struct confd_cs_node *t : st->tops)
        if (t->tag == top.val.xmltag.tag && (top.val.xmltag.ns == 0 || t->ns == top.val.xmltag.ns)) {
            node = t;
            break;
        }
    for (int i = hkp->len - 2; node != nullptr && i >= hkp->len - len; i--) {
        const confd_value_t &e = hkp->v[i][0];
        if (e.type != C_XMLTAG)
            continue; // a row of keys: stays at the list node
        node = confd_find_cs_node_child(node, e.val.xmltag);
    }
    return node;
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

struct confd_cs_node *confd_cs_node_cd(const struct confd_cs_node *start, const char *fmt, ...)
{
    SchemaStore *st = current();
    if (st == nullptr || fmt == nullptr)
        return nullptr;
    std::string path, err;
    va_list ap;
    va_start(ap, fmt);
    bool ok = format_path(path, fmt, ap, err);
    va_end(ap);
    if (!ok) {
        confd_lib_fail(CONFD_ERR_BADPATH, "%s", err.c_str());
        return nullptr;
    }
    bool absolute = !path.empty() && path[0] == '/';
    const struct confd_cs_node *node = absolute ? nullptr : start;
    if (!absolute && start == nullptr)
        return nullptr;
    bool at_root = absolute;
    for (const std::string &comp : split_path(path)) {
        if (comp == ".")
            continue;
        if (comp == "..") {
            if (at_root || node == nullptr)
                return nullptr;
            node = node->parent;
            if (node == nullptr)
                at_root = true;
            continue;
        }
        const struct confd_cs_node *next = nullptr;
        if (at_root) {
            for (struct confd_cs_node *t : st->tops)
                if (name_matches(st, t, comp)) {
                    next = t;
                    break;
                }
        } else {
            for (const struct confd_cs_node *c = node->children; c != nullptr; c = c->next)
                if (name_matches(st, c, comp)) {
                    next = c;
                    break;
                }
        }
        if (next == nullptr) {
            confd_lib_fail(CONFD_ERR_BADPATH, "no node '%s' in the schema", comp.c_str());
            return nullptr;
        }
        node = next;
        at_root = false;
    }
    return const_cast<struct confd_cs_node *>(node);
}

int confd_get_nslist(struct confd_nsinfo **listp)
try {
    SchemaStore *st = current();
    if (listp == nullptr)
        return 0;
    if (st == nullptr || st->nslist.empty()) {
        *listp = nullptr;
        return 0;
    }
    *listp = st->nslist.data();
    return static_cast<int>(st->nslist.size());
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

char *confd_hash2str(uint32_t hash) { return const_cast<char *>(confd_lib_tag_name(hash)); }

uint32_t confd_str2hash(const char *str)
try {
    SchemaStore *st = current();
    if (st == nullptr || str == nullptr)
        return 0;
    auto it = st->hash_of.find(str);
    return it != st->hash_of.end() ? it->second : 0;
} catch (...) {
    return libconfd::caught(__func__, 0u);
}

char *confd_ns2prefix(uint32_t ns)
try {
    SchemaStore *st = current();
    if (st == nullptr)
        return nullptr;
    const NsRec *rec = find_ns(st, ns);
    return rec != nullptr ? const_cast<char *>(rec->prefix.c_str()) : nullptr;
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

struct confd_type *confd_find_ns_type(uint32_t nshash, const char *name)
try {
    if (name == nullptr)
        return nullptr;
    if (nshash == 0)
        return builtin_type(name);
    SchemaStore *st = current();
    if (st == nullptr)
        return nullptr;
    auto it = st->ns_types.find(std::make_pair(nshash, std::string(name)));
    return it != st->ns_types.end() ? it->second : nullptr;
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

int confd_pp_kpath(char *buf, int bufsiz, const confd_hkeypath_t *hkeypath)
try {
    if (hkeypath == nullptr)
        return copy_out("", buf, bufsiz);
    return copy_out(kpath_text(*hkeypath, hkeypath->len), buf, bufsiz);
} catch (...) {
    return libconfd::caught(__func__, 0);
}

int confd_pp_kpath_len(char *buf, int bufsiz, const confd_hkeypath_t *hkeypath, int len)
try {
    if (hkeypath == nullptr || len < 0)
        return copy_out("", buf, bufsiz);
    return copy_out(kpath_text(*hkeypath, len), buf, bufsiz);
} catch (...) {
    return libconfd::caught(__func__, 0);
}

int confd_xpath_pp_kpath(char *buf, int bufsiz, uint32_t ns, const confd_hkeypath_t *hkp)
try {
    if (hkp == nullptr)
        return copy_out("", buf, bufsiz);
    SchemaStore *st = current();
    int total = hkp->len < 0 ? 0 : (hkp->len > MAXDEPTH ? MAXDEPTH : hkp->len);
    std::string out;
    for (int i = total - 1; i >= 0; i--) {
        const confd_value_t *row = hkp->v[i];
        if (row[0].type == C_XMLTAG) {
            uint32_t tag_ns = row[0].val.xmltag.ns;
            if (tag_ns == 0) {
                const struct confd_cs_node *n = confd_find_cs_node(hkp, total - i);
                tag_ns = n != nullptr ? n->ns : ns;
            }
            const char *pfx = confd_ns2prefix(tag_ns);
            out += '/';
            if (pfx != nullptr && *pfx != '\0')
                out += std::string(pfx) + ":";
            const char *name = confd_lib_tag_name(row[0].val.xmltag.tag);
            out += name != nullptr ? name : "tag<" + std::to_string(row[0].val.xmltag.tag) + ">";
            continue;
        }
        if (row[0].type == C_NOEXISTS)
            continue;
        // Key names come from the list node just above this row.
        const struct confd_cs_node *list = confd_find_cs_node(hkp, total - i - 1);
        const uint32_t *keys = list != nullptr ? list->info.keys : nullptr;
        for (int j = 0; j < MAXKEYLEN && row[j].type != C_NOEXISTS; j++) {
            const char *kname = nullptr;
            if (keys != nullptr && st != nullptr) {
                int k = 0;
                while (k < j && keys[k] != 0)
                    k++;
                if (k == j && keys[k] != 0)
                    kname = confd_lib_tag_name(keys[k]);
            }
            std::string v = key_text(row[j]);
            if (v.size() >= 2 && v.front() == '"' && v.back() == '"')
                v = v.substr(1, v.size() - 2);
            char q = v.find('\'') == std::string::npos ? '\'' : '"';
            out += '[';
            out += kname != nullptr ? kname : "key" + std::to_string(j + 1);
            out += '=';
            out += q + v + q;
            out += ']';
        }
    }
    return copy_out(out, buf, bufsiz);
} catch (...) {
    return libconfd::caught(__func__, 0);
}

int confd_val2str(struct confd_type *type, const confd_value_t *val, char *buf, int bufsiz)
try {
    if (type == nullptr || val == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "confd_val2str: no type or value");
    if (val->type == C_ENUM_VALUE && !type->enums.empty()) {
        std::string name = enum_name(type, val->val.enumvalue);
        if (!name.empty())
            return copy_out(name, buf, bufsiz);
    }
    return copy_out(pp_text(val), buf, bufsiz);
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_str2val(struct confd_type *type, const char *str, confd_value_t *val)
try {
    if (type == nullptr || str == nullptr || val == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "confd_str2val: no type, text or value");
    if (!str_to_value(type, str, *val)) {
        val->type = C_NOEXISTS;
        return confd_lib_fail(CONFD_ERR_BADTYPE, "'%s' is not a valid %s", str,
                              type->name.empty() ? "value" : type->name.c_str());
    }
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

char *confd_val2str_ptr(struct confd_type *type, const confd_value_t *val)
try {
    if (type == nullptr || val == nullptr || val->type != C_ENUM_VALUE)
        return nullptr;
    for (auto &e : type->enums)
        if (e.second == val->val.enumvalue)
            return const_cast<char *>(e.first.c_str());
    return nullptr;
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

} // extern "C"
