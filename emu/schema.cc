// Loads the YANG models with libyang into confd-emu's schema view (tags, callpoints, types).
#include "schema.h"

#include <libyang/libyang.h>

#include <algorithm>
#include <deque>
#include <dirent.h>
#include <unordered_map>

#include "nshash.h"

namespace emu
{

namespace
{

constexpr const char *kExtModule = "leisobek-ext";

struct VtName {
    int vt;
    const char *name;
};
constexpr VtName kVtNames[] = {
    {1, "C_NOEXISTS"},   {2, "C_XMLTAG"},     {3, "C_SYMBOL"},         {4, "C_STR"},
    {5, "C_BUF"},        {6, "C_INT8"},       {7, "C_INT16"},          {8, "C_INT32"},
    {9, "C_INT64"},      {10, "C_UINT8"},     {11, "C_UINT16"},        {12, "C_UINT32"},
    {13, "C_UINT64"},    {14, "C_DOUBLE"},    {15, "C_IPV4"},          {16, "C_IPV6"},
    {17, "C_BOOL"},      {18, "C_QNAME"},     {19, "C_DATETIME"},      {20, "C_DATE"},
    {23, "C_TIME"},      {27, "C_DURATION"},  {28, "C_ENUM_VALUE"},    {29, "C_BIT32"},
    {30, "C_BIT64"},     {31, "C_LIST"},      {32, "C_XMLBEGIN"},      {33, "C_XMLEND"},
    {34, "C_OBJECTREF"}, {35, "C_UNION"},     {36, "C_PTR"},           {37, "C_CDBBEGIN"},
    {38, "C_OID"},       {39, "C_BINARY"},    {40, "C_IPV4PREFIX"},    {41, "C_IPV6PREFIX"},
    {42, "C_DEFAULT"},   {43, "C_DECIMAL64"}, {44, "C_IDENTITYREF"},   {45, "C_XMLBEGINDEL"},
    {46, "C_DQUAD"},     {47, "C_HEXSTR"},    {48, "C_IPV4_AND_PLEN"}, {49, "C_IPV6_AND_PLEN"},
    {50, "C_BITBIG"},
};

// Typedefs of the IETF type modules whose values ConfD carries in a dedicated value type rather
// than the type of the typedef's base (addresses are strings in YANG but C_IPV4 on the wire, and so
// on).
struct SpecialType {
    const char *module, *name;
    int vt;
    int vt2;
};
constexpr SpecialType kSpecialTypes[] = {
    {"ietf-inet-types", "ipv4-address", vt::IPV4, 0},
    {"ietf-inet-types", "ipv4-address-no-zone", vt::IPV4, 0},
    {"ietf-inet-types", "ipv6-address", vt::IPV6, 0},
    {"ietf-inet-types", "ipv6-address-no-zone", vt::IPV6, 0},
    {"ietf-inet-types", "ip-address", vt::IPV4, vt::IPV6},
    {"ietf-inet-types", "ip-address-no-zone", vt::IPV4, vt::IPV6},
    {"ietf-inet-types", "ipv4-prefix", vt::IPV4PREFIX, 0},
    {"ietf-inet-types", "ipv6-prefix", vt::IPV6PREFIX, 0},
    {"ietf-inet-types", "ip-prefix", vt::IPV4PREFIX, vt::IPV6PREFIX},
    {"ietf-yang-types", "object-identifier", vt::OID, 0},
    {"ietf-yang-types", "object-identifier-128", vt::OID, 0},
    {"ietf-yang-types", "phys-address", vt::BINARY, 0},
    {"ietf-yang-types", "mac-address", vt::BINARY, 0},
    {"ietf-yang-types", "date-and-time", 19, 0},
    {"ietf-yang-types", "dotted-quad", 46, 0},
    {"ietf-yang-types", "hex-string", 47, 0},
};

// Value type of a built-in YANG type (bits and leafref are settled by the caller).
int builtin_vtype(LY_DATA_TYPE t)
{
    switch (t) {
    case LY_TYPE_BINARY:
        return vt::BINARY;
    case LY_TYPE_UINT8:
        return vt::UINT8;
    case LY_TYPE_UINT16:
        return vt::UINT16;
    case LY_TYPE_UINT32:
        return vt::UINT32;
    case LY_TYPE_UINT64:
        return vt::UINT64;
    case LY_TYPE_STRING:
        return vt::BUF;
    case LY_TYPE_BITS:
        return vt::BIT32;
    case LY_TYPE_BOOL:
        return vt::BOOL;
    case LY_TYPE_DEC64:
        return vt::DECIMAL64;
    case LY_TYPE_EMPTY:
        return vt::XMLTAG;
    case LY_TYPE_ENUM:
        return vt::ENUM_VALUE;
    case LY_TYPE_IDENT:
        return vt::IDENTITYREF;
    case LY_TYPE_INST:
        return 34; // C_OBJECTREF
    case LY_TYPE_LEAFREF:
        return 0;
    case LY_TYPE_UNION:
        return 35; // C_UNION, only when no member could be typed
    case LY_TYPE_INT8:
        return vt::INT8;
    case LY_TYPE_INT16:
        return vt::INT16;
    case LY_TYPE_INT32:
        return vt::INT32;
    case LY_TYPE_INT64:
        return vt::INT64;
    default:
        return 0;
    }
}

const char *builtin_name(LY_DATA_TYPE t)
{
    switch (t) {
    case LY_TYPE_BINARY:
        return "binary";
    case LY_TYPE_UINT8:
        return "uint8";
    case LY_TYPE_UINT16:
        return "uint16";
    case LY_TYPE_UINT32:
        return "uint32";
    case LY_TYPE_UINT64:
        return "uint64";
    case LY_TYPE_STRING:
        return "string";
    case LY_TYPE_BITS:
        return "bits";
    case LY_TYPE_BOOL:
        return "boolean";
    case LY_TYPE_DEC64:
        return "decimal64";
    case LY_TYPE_EMPTY:
        return "empty";
    case LY_TYPE_ENUM:
        return "enumeration";
    case LY_TYPE_IDENT:
        return "identityref";
    case LY_TYPE_INST:
        return "instance-identifier";
    case LY_TYPE_LEAFREF:
        return "leafref";
    case LY_TYPE_UNION:
        return "union";
    case LY_TYPE_INT8:
        return "int8";
    case LY_TYPE_INT16:
        return "int16";
    case LY_TYPE_INT32:
        return "int32";
    case LY_TYPE_INT64:
        return "int64";
    default:
        return "unknown";
    }
}

bool is_builtin_name(const char *n)
{
    static const char *const names[] = {
        "binary",  "bits",        "boolean",     "decimal64",
        "empty",   "enumeration", "identityref", "instance-identifier",
        "int8",    "int16",       "int32",       "int64",
        "leafref", "string",      "uint8",       "uint16",
        "uint32",  "uint64",      "union"};
    for (const char *b : names)
        if (std::string_view(n) == b) return true;
    return false;
}

std::string_view strip_prefix(std::string_view n)
{
    size_t c = n.find(':');
    return c == std::string_view::npos ? n : n.substr(c + 1);
}

// The typedef a parsed type names, looked up in the scope of the parsed node (nested typedefs
// first), then in the module the prefix points to (with its submodules). Null for built-ins and
// typedefs not found.
const lysp_tpdf *find_typedef(const lysp_type *t, const lysp_node *scope, const lys_module **owner)
{
    if (!t || !t->name || is_builtin_name(t->name)) return nullptr;
    std::string_view full(t->name), name = strip_prefix(full);
    const lysp_module *pmod = t->pmod;
    if (!pmod) return nullptr;
    const lys_module *mod = pmod->mod;
    size_t c = full.find(':');
    if (c != std::string_view::npos) {
        std::string_view pfx = full.substr(0, c);
        if (pfx != mod->prefix) {
            mod = nullptr;
            LY_ARRAY_COUNT_TYPE i;
            LY_ARRAY_FOR(pmod->imports, i)
            {
                if (pfx == pmod->imports[i].prefix) mod = pmod->imports[i].module;
            }
            if (!mod) return nullptr;
            scope =
                nullptr; // nested typedefs are never reachable through a prefix of another module
        }
    }
    for (const lysp_node *s = scope; s; s = s->parent) {
        const lysp_tpdf *tds = lysp_node_typedefs(s);
        LY_ARRAY_COUNT_TYPE i;
        LY_ARRAY_FOR(tds, i)
        {
            if (name == tds[i].name) {
                *owner = mod;
                return &tds[i];
            }
        }
    }
    if (!mod->parsed) return nullptr;
    auto search = [&](const lysp_tpdf *tds) -> const lysp_tpdf * {
        LY_ARRAY_COUNT_TYPE i;
        LY_ARRAY_FOR(tds, i)
        {
            if (name == tds[i].name) return &tds[i];
        }
        return nullptr;
    };
    if (const lysp_tpdf *td = search(mod->parsed->typedefs)) {
        *owner = mod;
        return td;
    }
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(mod->parsed->includes, i)
    {
        const lysp_submodule *sm = mod->parsed->includes[i].submodule;
        if (sm) {
            if (const lysp_tpdf *td = search(sm->typedefs)) {
                *owner = mod;
                return td;
            }
        }
    }
    return nullptr;
}

// Walks the typedef chain of a parsed type; returns the special value types (vt2 may be 0) of the
// first IETF typedef on it that ConfD maps to a dedicated type, or {0,0}.
std::pair<int, int> special_vtype(const lysp_type *t, const lysp_node *scope)
{
    for (int depth = 0; t && depth < 32; ++depth) {
        const lys_module *owner = nullptr;
        const lysp_tpdf *td = find_typedef(t, scope, &owner);
        if (!td) return {0, 0};
        for (const SpecialType &s : kSpecialTypes)
            if (std::string_view(owner->name) == s.module && std::string_view(td->name) == s.name)
                return {s.vt, s.vt2};
        t = &td->type;
        scope = nullptr; // module-level typedefs refer on to module-level ones
    }
    return {0, 0};
}

int bits_vtype(const lysc_type *t)
{
    auto *b = reinterpret_cast<const lysc_type_bits *>(t);
    uint32_t maxpos = 0;
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(b->bits, i) maxpos = std::max(maxpos, b->bits[i].position);
    return maxpos < 32 ? vt::BIT32 : maxpos < 64 ? vt::BIT64 : vt::BITBIG;
}

// Value types of a type: first the main one, then the alternatives a union allows. `pt` is the
// parsed form (for typedef names), may be null.
void collect_vtypes(const lysc_type *ct, const lysp_type *pt, const lysp_node *scope,
                    std::vector<int> &out)
{
    auto sp = special_vtype(pt, scope);
    if (sp.first) {
        out.push_back(sp.first);
        if (sp.second) out.push_back(sp.second);
        return;
    }
    switch (ct->basetype) {
    case LY_TYPE_UNION: {
        auto *u = reinterpret_cast<const lysc_type_union *>(ct);
        // Member i of the compiled union is member i of the parsed union at the bottom of the
        // typedef chain.
        const lysp_type *pu = pt;
        const lysp_node *ps = scope;
        for (int d = 0; pu && LY_ARRAY_COUNT(pu->types) == 0 && d < 32; ++d) {
            const lys_module *owner = nullptr;
            const lysp_tpdf *td = find_typedef(pu, ps, &owner);
            pu = td ? &td->type : nullptr;
            ps = nullptr;
        }
        LY_ARRAY_COUNT_TYPE i;
        LY_ARRAY_FOR(u->types, i)
        {
            const lysp_type *pm = (pu && i < LY_ARRAY_COUNT(pu->types)) ? &pu->types[i] : nullptr;
            collect_vtypes(u->types[i], pm, pm ? ps : nullptr, out);
        }
        if (out.empty()) out.push_back(35);
        return;
    }
    case LY_TYPE_BITS:
        out.push_back(bits_vtype(ct));
        return;
    case LY_TYPE_LEAFREF: {
        auto *l = reinterpret_cast<const lysc_type_leafref *>(ct);
        if (l->realtype) collect_vtypes(l->realtype, nullptr, nullptr, out);
        return;
    }
    default:
        out.push_back(builtin_vtype(ct->basetype));
        return;
    }
}

// The extension instance of our module named `ext` on a compiled node, or null.
const lysc_ext_instance *find_ext(const lysc_ext_instance *exts, std::string_view ext)
{
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(exts, i)
    {
        const lysc_ext *def = exts[i].def;
        if (def && def->module && std::string_view(def->module->name) == kExtModule &&
            ext == def->name)
            return &exts[i];
    }
    return nullptr;
}

bool valid_oid(std::string_view s)
{
    if (s.empty()) return false;
    bool digit = false;
    for (char c : s) {
        if (c >= '0' && c <= '9')
            digit = true;
        else if (c == '.' && digit)
            digit = false;
        else
            return false;
    }
    return digit;
}

// Keeps libyang's messages of a load (instead of printing them) and restores the logging options
// after.
struct LogGuard {
    uint32_t saved;
    LogGuard() : saved(ly_log_options(LY_LOSTORE)) {}
    ~LogGuard() { ly_log_options(saved); }
};

// Every error libyang recorded on ctx, oldest first ("message (path); ..."), then cleared.
std::string ly_errors(ly_ctx *ctx)
{
    std::string out;
    for (const ly_err_item *e = ly_err_first(ctx); e; e = e->next) {
        if (e->level != LY_LLERR || !e->msg) continue;
        if (!out.empty()) out += "; ";
        out += e->msg;
        if (e->path) out += std::string(" (") + e->path + ")";
    }
    ly_err_clean(ctx, nullptr);
    return out.empty() ? "cannot load module" : out;
}

} // namespace

const char *vtype_name(int v)
{
    for (const VtName &n : kVtNames)
        if (n.vt == v) return n.name;
    return nullptr;
}

int vtype_from_name(std::string_view name)
{
    for (const VtName &n : kVtNames) {
        std::string_view full(n.name);
        if (name == full || name == full.substr(2)) return n.vt;
    }
    if (name == "C_ENUM_HASH" || name == "ENUM_HASH") return vt::ENUM_VALUE;
    return 0;
}

struct Schema::Impl {
    ly_ctx *ctx = nullptr;
    std::deque<SchemaNode> nodes; // stable addresses
    std::vector<const SchemaNode *> all, tops;
    std::vector<Ns> nss;
    std::vector<confd_wire::HashedName> hashed;
    std::unordered_map<uint32_t, std::string> names;
    std::unordered_map<const lysc_node *, SchemaNode *> by_lys;
    std::vector<std::pair<SchemaNode *, const lysc_node *>>
        leafrefs; // leaves typed by a leafref target

    ~Impl()
    {
        if (ctx) ly_ctx_destroy(ctx);
    }

    bool build(const lysc_node *ln, SchemaNode *parent, std::string &err);
    bool annotate(SchemaNode &n, const lysc_node *ln, std::string &err);
    void type_leaf(SchemaNode &n, const lysc_node *ln);
    void hash_names(const lysc_node *ln);
};

void Schema::Impl::type_leaf(SchemaNode &n, const lysc_node *ln)
{
    const lysc_type *ct = (ln->nodetype == LYS_LEAF)
                              ? reinterpret_cast<const lysc_node_leaf *>(ln)->type
                              : reinterpret_cast<const lysc_node_leaflist *>(ln)->type;
    // LY_CTX_SET_PRIV_PARSED: priv is the parsed node this one was compiled from.
    auto *pn = static_cast<const lysp_node *>(ln->priv);
    const lysp_type *pt = nullptr;
    if (pn && pn->nodetype == LYS_LEAF)
        pt = &reinterpret_cast<const lysp_node_leaf *>(pn)->type;
    else if (pn && pn->nodetype == LYS_LEAFLIST)
        pt = &reinterpret_cast<const lysp_node_leaflist *>(pn)->type;

    n.base_type = builtin_name(ct->basetype);
    n.type_name = pt && pt->name ? std::string(strip_prefix(pt->name)) : n.base_type;

    std::vector<int> vts;
    collect_vtypes(ct, pt, pn ? pn->parent : nullptr, vts);
    if (ct->basetype == LY_TYPE_LEAFREF && special_vtype(pt, pn ? pn->parent : nullptr).first == 0)
        leafrefs.emplace_back(&n, ln);
    n.vtype = vts.empty() ? 0 : vts.front();
    if (vts.size() > 1) n.union_vtypes = vts;

    const lysc_type *et = ct;
    if (et->basetype == LY_TYPE_LEAFREF)
        et = reinterpret_cast<const lysc_type_leafref *>(et)->realtype;
    if (et && et->basetype == LY_TYPE_ENUM) {
        auto *e = reinterpret_cast<const lysc_type_enum *>(et);
        LY_ARRAY_COUNT_TYPE i;
        LY_ARRAY_FOR(e->enums, i) n.enums.emplace_back(e->enums[i].name, e->enums[i].value);
    } else if (et && et->basetype == LY_TYPE_BITS) {
        auto *b = reinterpret_cast<const lysc_type_bits *>(et);
        LY_ARRAY_COUNT_TYPE i;
        LY_ARRAY_FOR(b->bits, i) n.bits.emplace_back(b->bits[i].name, b->bits[i].position);
    }
}

bool Schema::Impl::annotate(SchemaNode &n, const lysc_node *ln, std::string &err)
{
    static const std::pair<const char *, CpKind> kinds[] = {{"callpoint", CpKind::Plain},
                                                            {"transform", CpKind::Transform},
                                                            {"set-hook", CpKind::SetHook}};
    for (const auto &k : kinds) {
        const lysc_ext_instance *e = find_ext(ln->exts, k.first);
        if (!e) continue;
        if (n.cpkind != CpKind::None) {
            err = n.module + ": node '" + n.name + "' carries more than one callpoint";
            return false;
        }
        if (!e->argument || !*e->argument) {
            err = n.module + ": node '" + n.name + "': empty callpoint name";
            return false;
        }
        n.callpoint = e->argument;
        n.cpkind = k.second;
    }
    if (const lysc_ext_instance *e = find_ext(ln->exts, "snmp-oid")) {
        if (!e->argument || !valid_oid(e->argument)) {
            err = n.module + ": node '" + n.name + "': bad snmp-oid '" +
                  (e->argument ? e->argument : "") + "'";
            return false;
        }
        n.oid = e->argument;
    }
    n.not_accessible = find_ext(ln->exts, "snmp-not-accessible") != nullptr;
    return true;
}

bool Schema::Impl::build(const lysc_node *ln, SchemaNode *parent, std::string &err)
{
    NodeKind kind;
    switch (ln->nodetype) {
    case LYS_CONTAINER:
        kind = NodeKind::Container;
        break;
    case LYS_LIST:
        kind = NodeKind::List;
        break;
    case LYS_LEAF:
        kind = NodeKind::Leaf;
        break;
    case LYS_LEAFLIST:
        kind = NodeKind::LeafList;
        break;
    default:
        return true; // anydata/anyxml: no ConfD value
    }
    nodes.emplace_back();
    SchemaNode &n = nodes.back();
    n.name = ln->name;
    n.module = ln->module->name;
    n.prefix = ln->module->prefix;
    n.uri = ln->module->ns;
    n.tag = confd_wire::tag_hash(n.uri, n.name);
    n.ns = confd_wire::ns_hash(n.uri);
    n.kind = kind;
    n.config = !(ln->flags & LYS_CONFIG_R);
    n.parent = parent;
    n.is_key = lysc_is_key(ln);
    n.lys = ln;
    if (!annotate(n, ln, err)) return false;
    if (n.is_key && n.cpkind != CpKind::None) {
        err = n.module + ": key leaf '" + n.name + "' may not carry its own callpoint";
        return false;
    }
    if (kind == NodeKind::Leaf || kind == NodeKind::LeafList) type_leaf(n, ln);
    by_lys[ln] = &n;
    all.push_back(&n);
    if (parent)
        parent->children.push_back(&n);
    else
        tops.push_back(&n);

    for (const lysc_node *c = lys_getnext(nullptr, ln, nullptr, 0); c;
         c = lys_getnext(c, ln, nullptr, 0))
        if (!build(c, &n, err)) return false;
    if (kind == NodeKind::List)
        for (const SchemaNode *c : n.children)
            if (c->is_key) n.keys.push_back(c);
    return true;
}

// Records the names of every schema node below ln (data, choice/case, actions, notifications) for
// hashing.
void Schema::Impl::hash_names(const lysc_node *ln)
{
    for (; ln; ln = ln->next) {
        hashed.push_back({ln->module->ns, ln->name, 0});
        if (ln->nodetype & (LYS_RPC | LYS_ACTION)) {
            auto *a = reinterpret_cast<const lysc_node_action *>(ln);
            hash_names(a->input.child);
            hash_names(a->output.child);
            continue;
        }
        hash_names(lysc_node_child(ln));
        hash_names(reinterpret_cast<const lysc_node *>(lysc_node_actions(ln)));
        hash_names(reinterpret_cast<const lysc_node *>(lysc_node_notifs(ln)));
    }
}

Schema::Schema() : impl_(new Impl) {}
Schema::~Schema() = default;

bool Schema::load(const std::string &models_dir, std::string &err)
{
    if (impl_->ctx) {
        err = "schema already loaded";
        return false;
    }
    std::vector<std::string> files;
    {
        DIR *d = opendir(models_dir.c_str());
        if (!d) {
            err = "cannot open models directory '" + models_dir + "'";
            return false;
        }
        while (dirent *e = readdir(d)) {
            std::string f = e->d_name;
            if (f.size() > 5 && f.compare(f.size() - 5, 5, ".yang") == 0) files.push_back(f);
        }
        closedir(d);
    }
    std::sort(files.begin(), files.end());
    if (files.empty()) {
        err = "no *.yang modules in '" + models_dir + "'";
        return false;
    }

    LogGuard log_guard;
    ly_ctx *ctx = nullptr;
    const uint16_t opts =
        LY_CTX_NO_YANGLIBRARY | LY_CTX_DISABLE_SEARCHDIR_CWD | LY_CTX_SET_PRIV_PARSED;
    if (ly_ctx_new(models_dir.c_str(), opts, &ctx) != LY_SUCCESS) {
        err = "libyang: cannot create a context for '" + models_dir + "'";
        if (ctx) ly_ctx_destroy(ctx);
        return false;
    }
    impl_->ctx = ctx;
    for (const std::string &f : files) {
        std::string path = models_dir + "/" + f;
        lys_module *mod = nullptr;
        if (lys_parse_path(ctx, path.c_str(), LYS_IN_YANG, &mod) != LY_SUCCESS) {
            err = f + ": " + ly_errors(ctx);
            return false;
        }
    }

    ly_err_clean(ctx, nullptr); // warnings of the load; the datastore starts with a clean record

    // Our modules are the implemented ones read from files; libyang's internal ones have no file.
    uint32_t idx = 0;
    std::vector<const lys_module *> mods;
    while (const lys_module *m = ly_ctx_get_module_iter(ctx, &idx))
        if (m->implemented && m->filepath && m->compiled) mods.push_back(m);

    for (const lys_module *m : mods) {
        Ns ns{confd_wire::ns_hash(m->ns), m->prefix, m->ns, m->name};
        impl_->nss.push_back(ns);
        impl_->hashed.push_back({m->ns, "", 0});
        for (const lysc_node *c = lys_getnext(nullptr, nullptr, m->compiled, 0); c;
             c = lys_getnext(c, nullptr, m->compiled, 0))
            if (!impl_->build(c, nullptr, err)) return false;
        impl_->hash_names(m->compiled->data);
        impl_->hash_names(reinterpret_cast<const lysc_node *>(m->compiled->rpcs));
        impl_->hash_names(reinterpret_cast<const lysc_node *>(m->compiled->notifs));
        LY_ARRAY_COUNT_TYPE i;
        LY_ARRAY_FOR(m->identities, i) impl_->hashed.push_back({m->ns, m->identities[i].name, 0});
    }

    // A leafref leaf carries the value type of the leaf it points to.
    for (int pass = 0; pass < 8; ++pass) {
        for (auto &lr : impl_->leafrefs) {
            auto *l = reinterpret_cast<const lysc_type_leafref *>(
                reinterpret_cast<const lysc_node_leaf *>(lr.second)->type);
            if (lr.second->nodetype == LYS_LEAFLIST)
                l = reinterpret_cast<const lysc_type_leafref *>(
                    reinterpret_cast<const lysc_node_leaflist *>(lr.second)->type);
            ly_set *set = nullptr;
            if (lys_find_expr_atoms(lr.second, lr.second->module, l->path, l->prefixes, 0, &set) !=
                LY_SUCCESS)
                continue;
            const SchemaNode *target = nullptr;
            for (uint32_t k = set->count; k-- > 0 && !target;) {
                const lysc_node *a = set->snodes[k];
                if (a != lr.second && (a->nodetype & (LYS_LEAF | LYS_LEAFLIST))) {
                    auto it = impl_->by_lys.find(a);
                    if (it != impl_->by_lys.end()) target = it->second;
                }
            }
            ly_set_free(set, nullptr);
            if (target && target->vtype) {
                lr.first->vtype = target->vtype;
                lr.first->union_vtypes = target->union_vtypes;
            }
        }
    }
    impl_->leafrefs.clear();

    for (auto &h : impl_->hashed)
        h.hash = h.name.empty() ? confd_wire::ns_hash(h.uri) : confd_wire::tag_hash(h.uri, h.name);
    if (confd_wire::find_hash_collision(impl_->hashed, err)) return false;
    for (const auto &h : impl_->hashed)
        impl_->names.emplace(h.hash, h.name);
    for (const Ns &ns : impl_->nss)
        impl_->names[ns.hash] = ns.module;
    return true;
}

const SchemaNode *Schema::top(std::string_view name) const
{
    return child(nullptr, name);
}

const SchemaNode *Schema::child(const SchemaNode *parent, std::string_view name) const
{
    std::string_view pfx;
    size_t c = name.find(':');
    if (c != std::string_view::npos) {
        pfx = name.substr(0, c);
        name = name.substr(c + 1);
    }
    const auto &list = parent ? parent->children : impl_->tops;
    for (const SchemaNode *n : list)
        if (n->name == name && (pfx.empty() || n->prefix == pfx || n->module == pfx)) return n;
    return nullptr;
}

const SchemaNode *Schema::by_tag(const SchemaNode *parent, uint32_t tag) const
{
    const auto &list = parent ? parent->children : impl_->tops;
    for (const SchemaNode *n : list)
        if (n->tag == tag) return n;
    return nullptr;
}

const SchemaNode *Schema::callpoint_owner(const SchemaNode *n) const
{
    for (; n; n = n->parent)
        if (n->cpkind != CpKind::None) return n;
    return nullptr;
}

const std::vector<const SchemaNode *> &Schema::all() const
{
    return impl_->all;
}
const std::vector<const SchemaNode *> &Schema::tops() const
{
    return impl_->tops;
}
const std::vector<Schema::Ns> &Schema::namespaces() const
{
    return impl_->nss;
}
const std::vector<confd_wire::HashedName> &Schema::hashed_names() const
{
    return impl_->hashed;
}

const Schema::Ns *Schema::ns_by_hash(uint32_t hash) const
{
    for (const Ns &ns : impl_->nss)
        if (ns.hash == hash) return &ns;
    return nullptr;
}

const char *Schema::name_of(uint32_t hash) const
{
    auto it = impl_->names.find(hash);
    return it == impl_->names.end() ? nullptr : it->second.c_str();
}

std::vector<const SchemaNode *> Schema::callpoint_nodes(std::string_view cp) const
{
    std::vector<const SchemaNode *> out;
    for (const SchemaNode *n : impl_->all)
        if (n->cpkind != CpKind::None && n->callpoint == cp) out.push_back(n);
    return out;
}

const SchemaNode *Schema::from_lys(const lysc_node *n) const
{
    auto it = impl_->by_lys.find(n);
    return it == impl_->by_lys.end() ? nullptr : it->second;
}

ly_ctx *Schema::ctx() const
{
    return impl_->ctx;
}

bool type_fits(const SchemaNode *n, int v)
{
    if (!n || (n->kind != NodeKind::Leaf && n->kind != NodeKind::LeafList)) return false;
    if (v == vt::NOEXISTS) return true;
    if (v == vt::LIST) return n->kind == NodeKind::LeafList; // elements are checked one by one
    auto fits_one = [](int want, int got) {
        if (want == got) return true;
        if (want == vt::BUF && got == vt::STR) return true; // strings may be sent as C_STR
        return false;
    };
    if (!n->union_vtypes.empty()) {
        for (int w : n->union_vtypes)
            if (fits_one(w, v)) return true;
        return false;
    }
    return fits_one(n->vtype, v);
}

} // namespace emu
