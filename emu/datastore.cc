// confd-emu's datastore: the running configuration tree, transactions, reads, writes, XPath, diffs.
#include "datastore.h"

#include <libyang/libyang.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <set>

#include "confd_lib.h"
#include "data_value.h"
#include "xpath_text.h"

namespace emu
{

using confd_wire::KeyPath;
using confd_wire::Value;

namespace
{

lyd_node *dup_tree(const lyd_node *tree)
{
    lyd_node *d = nullptr;
    if (tree) lyd_dup_siblings(tree, nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS, &d);
    return d;
}

// Frees one node (and its subtree) of a tree whose first top-level sibling is `tree`.
void free_node(lyd_node *&tree, lyd_node *node)
{
    if (node == tree) tree = tree->next;
    lyd_free_tree(node);
}

const lyd_node *siblings_below(const lyd_node *tree, const lyd_node *parent)
{
    return parent ? lyd_child(parent) : tree;
}

// A node of another tree that stands for the same data as target (same list keys, same leaf),
// ignoring implicit default nodes. Null when there is none.
const lyd_node *counterpart(const lyd_node *siblings, const lyd_node *target)
{
    if (!siblings) return nullptr;
    lyd_node *m = nullptr;
    // List entries match by their keys; a leaf or container by its schema node alone (the leaf's
    // value may well differ).
    LY_ERR r = target->schema->nodetype == LYS_LIST
                   ? lyd_find_sibling_first(siblings, target, &m)
                   : lyd_find_sibling_val(siblings, target->schema, nullptr, 0, &m);
    if (r != LY_SUCCESS || !m) return nullptr;
    return (m->flags & LYD_DEFAULT) ? nullptr : m;
}

bool quote_key(const std::string &text, std::string &out)
{
    char q = text.find('\'') == std::string::npos ? '\'' : '"';
    if (q == '"' && text.find('"') != std::string::npos) return false;
    out = q + text + q;
    return true;
}

bool is_keyed_list(const SchemaNode *n)
{
    return n->kind == NodeKind::List && !n->keys.empty();
}

bool presence_container(const SchemaNode *n)
{
    return n->kind == NodeKind::Container && n->lys && !lysc_is_np_cont(n->lys);
}

// Every list on the path must name its entry, except the last step when last_open is set.
int check_keys(const ParsedPath &p, bool last_open, std::string &err)
{
    for (size_t i = 0; i < p.steps.size(); i++) {
        const PathStep &st = p.steps[i];
        if (st.node->kind != NodeKind::List || st.has_keys) continue;
        if (last_open && i + 1 == p.steps.size()) continue;
        err = "list " + st.node->name + " needs its keys";
        return CONFD_ERR_BADPATH;
    }
    return 0;
}

int parse(const Schema &s, const std::string &text, ParsedPath &p, std::string &err)
{
    if (!parse_keypath(s, text, p, err)) return CONFD_ERR_BADPATH;
    if (p.steps.empty()) {
        err = "empty path";
        return CONFD_ERR_BADPATH;
    }
    return 0;
}

} // namespace

void write_user_info(confd_wire::Writer &w, const UserInfo &u)
{
    w.str(u.user).str(u.context).u8(u.proto);
    w.u8(u.ip.size() == 16 ? AF_INET6 : AF_INET).str(u.ip);
    w.u16(u.port).i32(u.usid).str("");
}

Datastore::Datastore(const Schema &s) : schema_(s)
{
    // libyang's messages are collected per request and handed back to the client, not printed.
    ly_log_options(LY_LOSTORE);
}

Datastore::~Datastore()
{
    for (auto &t : txns_)
        lyd_free_all(t.second.work);
    lyd_free_all(running_);
}

std::string Datastore::ly_error() const
{
    std::string out;
    for (const ly_err_item *e = ly_err_first(schema_.ctx()); e; e = e->next) {
        if (e->level != LY_LLERR || !e->msg) continue;
        if (!out.empty()) out += "; ";
        out += e->msg;
    }
    ly_err_clean(schema_.ctx(), nullptr);
    return out.empty() ? "libyang failed" : out;
}

bool Datastore::load(const std::string &file, std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    lyd_node *tree = nullptr;
    LY_ERR r = LY_SUCCESS;
    if (!file.empty())
        r = lyd_parse_data_path(schema_.ctx(), file.c_str(), LYD_XML, LYD_PARSE_STRICT, 0, &tree);
    if (r == LY_SUCCESS && !tree) r = lyd_validate_all(&tree, schema_.ctx(), 0, nullptr);
    if (r != LY_SUCCESS) {
        err = (file.empty() ? std::string("empty configuration") : file) + ": " + ly_error();
        lyd_free_all(tree);
        return false;
    }
    lyd_free_all(running_);
    running_ = tree ? lyd_first_sibling(tree) : nullptr;
    return true;
}

bool Datastore::lookup(uint32_t th, Txn *&t, int &rc, std::string &err)
{
    // Messages libyang kept from earlier requests of this thread (warnings of a request that
    // succeeded) are of no use any more.
    ly_err_clean(schema_.ctx(), nullptr);
    t = nullptr;
    if (th == 0) return true;
    auto it = txns_.find(th);
    if (it == txns_.end()) {
        rc = CONFD_ERR_NOEXISTS;
        err = "no transaction " + std::to_string(th);
        return false;
    }
    t = &it->second;
    return true;
}

lyd_node *Datastore::tree_of(const Txn *t) const
{
    return t && t->mode == CONFD_READ_WRITE ? t->work : running_;
}

int Datastore::begin(uint32_t th, int mode, const UserInfo &u, std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    auto it = txns_.find(th);
    if (it != txns_.end() && it->second.adopted && it->second.mode == mode) {
        it->second.user = u;
        it->second.adopted = false;
        return 0;
    }
    if (th == 0 || it != txns_.end()) {
        err = "transaction " + std::to_string(th) + " exists already";
        return CONFD_ERR_ALREADY_EXISTS;
    }
    if (mode != CONFD_READ && mode != CONFD_READ_WRITE) {
        err = "bad transaction mode " + std::to_string(mode);
        return CONFD_ERR_PROTOUSAGE;
    }
    Txn &t = txns_[th];
    t.mode = mode;
    t.user = u;
    if (mode == CONFD_READ_WRITE) {
        t.work = dup_tree(running_);
        t.attrs = running_attrs_;
    }
    return 0;
}

void Datastore::adopt(uint32_t th, int mode)
{
    std::lock_guard<std::mutex> lk(mu_);
    if (th == 0 || txns_.count(th) || (mode != CONFD_READ && mode != CONFD_READ_WRITE)) return;
    Txn &t = txns_[th];
    t.mode = mode;
    t.adopted = true;
    if (mode == CONFD_READ_WRITE) {
        t.work = dup_tree(running_);
        t.attrs = running_attrs_;
    }
}

bool Datastore::has(uint32_t th)
{
    std::lock_guard<std::mutex> lk(mu_);
    return txns_.count(th) != 0;
}

void Datastore::end(uint32_t th)
{
    std::lock_guard<std::mutex> lk(mu_);
    auto it = txns_.find(th);
    if (it == txns_.end()) return;
    lyd_free_all(it->second.work);
    txns_.erase(it);
}

UserInfo Datastore::user(uint32_t th)
{
    std::lock_guard<std::mutex> lk(mu_);
    auto it = txns_.find(th);
    return it == txns_.end() ? UserInfo() : it->second.user;
}

// ---- finding nodes ----

bool Datastore::keys_of(const lyd_node *entry, const SchemaNode *list,
                        std::vector<Value> &keys) const
{
    keys.clear();
    for (const SchemaNode *k : list->keys) {
        const lyd_node *c = lyd_child(entry);
        while (c && c->schema != k->lys)
            c = c->next;
        Value v;
        std::string ignored;
        if (!c || !value_from_data(k, c, v, ignored)) return false;
        keys.push_back(std::move(v));
    }
    return true;
}

const lyd_node *Datastore::find(const lyd_node *tree, const ParsedPath &p, size_t steps,
                                bool first_unkeyed, size_t *matched) const
{
    const lyd_node *cur = nullptr;
    for (size_t i = 0; i < steps; i++) {
        const PathStep &st = p.steps[i];
        const lyd_node *hit = nullptr;
        for (const lyd_node *s = siblings_below(tree, cur); s && !hit; s = s->next) {
            if (s->schema != st.node->lys) continue;
            if (st.node->kind == NodeKind::List && st.has_keys) {
                std::vector<Value> keys;
                if (!keys_of(s, st.node, keys) || keys.size() != st.keys.size()) continue;
                bool same = true;
                for (size_t k = 0; k < keys.size() && same; k++)
                    same = same_value(keys[k], st.keys[k]);
                if (!same) continue;
            } else if (st.node->kind == NodeKind::List && !first_unkeyed && i + 1 < steps) {
                break;
            }
            hit = s;
        }
        if (!hit) {
            if (matched) *matched = i;
            return cur;
        }
        cur = hit;
    }
    if (matched) *matched = steps;
    return cur;
}

std::string Datastore::lypath(const ParsedPath &p, size_t steps, std::string &err) const
{
    std::string out;
    const SchemaNode *prev = nullptr;
    for (size_t i = 0; i < steps && i < p.steps.size(); i++) {
        const PathStep &st = p.steps[i];
        out += "/";
        if (!prev || prev->module != st.node->module) out += st.node->module + ":";
        out += st.node->name;
        if (st.node->kind == NodeKind::List && st.has_keys) {
            for (size_t k = 0; k < st.keys.size() && k < st.node->keys.size(); k++) {
                std::string text, quoted;
                if (!value_to_data_text(schema_, st.node->keys[k], st.keys[k], text, err) ||
                    !quote_key(text, quoted)) {
                    if (err.empty()) err = "key of " + st.node->name + " holds both quote marks";
                    return std::string();
                }
                out += "[" + st.node->keys[k]->name + "=" + quoted + "]";
            }
        }
        prev = st.node;
    }
    return out;
}

KeyPath Datastore::keypath_of(const lyd_node *n) const
{
    KeyPath rows; // deepest first
    for (const lyd_node *x = n; x; x = lyd_parent(x)) {
        const SchemaNode *sn = schema_.from_lys(x->schema);
        if (!sn) continue;
        if (sn->kind == NodeKind::List) {
            std::vector<Value> keys;
            if (sn->keys.empty()) {
                // A list without keys: its entries are numbered from 1, as ConfD's pseudo key.
                Value pos;
                pos.type = vt::INT64;
                pos.i = 1;
                for (const lyd_node *s = lyd_first_sibling(x); s && s != x; s = s->next)
                    if (s->schema == x->schema) pos.i++;
                keys.push_back(pos);
            } else {
                keys_of(x, sn, keys);
            }
            rows.push_back(std::move(keys));
        }
        Value tag;
        tag.type = vt::XMLTAG;
        tag.a = sn->tag;
        tag.b = sn->ns;
        rows.push_back({tag});
    }
    return rows;
}

// ---- reads ----

int Datastore::readable(uint32_t th, const std::string &path, bool last_open, ParsedPath &p,
                        Txn *&t, std::string &err)
{
    int rc = 0;
    if (!lookup(th, t, rc, err)) return rc;
    if ((rc = parse(schema_, path, p, err))) return rc;
    return check_keys(p, last_open, err);
}

int Datastore::get_elem(uint32_t th, const std::string &path, Value &out, std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    ParsedPath p;
    Txn *t = nullptr;
    int rc = readable(th, path, false, p, t, err);
    if (rc) return rc;
    const SchemaNode *leaf = p.steps.back().node;
    if (leaf->kind != NodeKind::Leaf && leaf->kind != NodeKind::LeafList) {
        err = path + " is not a leaf";
        return CONFD_ERR_BADPATH;
    }
    size_t m = 0;
    const lyd_node *node = find(tree_of(t), p, p.steps.size(), false, &m);
    if (m < p.steps.size()) {
        err = path + " does not exist";
        return CONFD_ERR_NOEXISTS;
    }
    if (leaf->kind == NodeKind::LeafList) {
        out = Value();
        out.type = vt::LIST;
        for (const lyd_node *s = node; s; s = s->next) {
            if (s->schema != node->schema) continue;
            Value v;
            if (!value_from_data(leaf, s, v, err)) return CONFD_ERR_INTERNAL;
            out.list.push_back(std::move(v));
        }
        return 0;
    }
    return value_from_data(leaf, node, out, err) ? 0 : CONFD_ERR_INTERNAL;
}

int Datastore::exists(uint32_t th, const std::string &path, bool &out, std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    ParsedPath p;
    Txn *t = nullptr;
    int rc = readable(th, path, true, p, t, err);
    if (rc) return rc;
    size_t m = 0;
    find(tree_of(t), p, p.steps.size(), true, &m);
    size_t n = p.steps.size();
    // A non-presence container is there whenever its parent is.
    out = m == n || (m + 1 == n && p.steps.back().node->kind == NodeKind::Container &&
                     !presence_container(p.steps.back().node));
    return 0;
}

int Datastore::num_instances(uint32_t th, const std::string &path, uint32_t &out,
                             std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    ParsedPath p;
    Txn *t = nullptr;
    int rc = readable(th, path, true, p, t, err);
    if (rc) return rc;
    const PathStep &last = p.steps.back();
    if (!(last.node->kind == NodeKind::List && !last.has_keys) &&
        last.node->kind != NodeKind::LeafList) {
        err = path + " is not a list or leaf-list";
        return CONFD_ERR_BADPATH;
    }
    out = 0;
    size_t m = 0;
    const lyd_node *tree = tree_of(t);
    const lyd_node *parent = find(tree, p, p.steps.size() - 1, false, &m);
    if (m + 1 < p.steps.size()) return 0;
    for (const lyd_node *s = siblings_below(tree, parent); s; s = s->next)
        if (s->schema == last.node->lys && !(s->flags & LYD_DEFAULT)) out++;
    return 0;
}

int Datastore::next_keys(uint32_t th, const std::string &list_path, const std::vector<Value> *after,
                         bool or_same, std::vector<Value> &keys, std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    keys.clear();
    ParsedPath p;
    Txn *t = nullptr;
    int rc = readable(th, list_path, true, p, t, err);
    if (rc) return rc;
    const PathStep &last = p.steps.back();
    if (!is_keyed_list(last.node) || last.has_keys) {
        err = list_path + " is not a keyed list given without its keys";
        return CONFD_ERR_BADPATH;
    }
    const lyd_node *tree = tree_of(t);
    size_t m = 0;
    const lyd_node *parent = find(tree, p, p.steps.size() - 1, false, &m);
    if (m + 1 < p.steps.size()) return 0; // the list's parent entry is gone: nothing to walk
    std::vector<std::vector<Value>> entries;
    for (const lyd_node *s = siblings_below(tree, parent); s; s = s->next) {
        std::vector<Value> k;
        if (s->schema == last.node->lys && keys_of(s, last.node, k)) entries.push_back(k);
    }
    auto less = [](const std::vector<Value> &a, const std::vector<Value> &b) {
        for (size_t i = 0; i < a.size() && i < b.size(); i++) {
            int c = compare_values(a[i], b[i]);
            if (c) return c < 0;
        }
        return a.size() < b.size();
    };
    bool user_order = lysc_is_userordered(last.node->lys);
    if (!user_order) std::stable_sort(entries.begin(), entries.end(), less);
    if (!after) {
        if (!entries.empty()) keys = entries.front();
        return 0;
    }
    if (user_order) {
        // Stored order: the entry after the one with these keys.
        for (size_t i = 0; i < entries.size(); i++) {
            bool same = entries[i].size() == after->size();
            for (size_t k = 0; same && k < after->size(); k++)
                same = same_value(entries[i][k], (*after)[k]);
            if (!same) continue;
            size_t at = or_same ? i : i + 1;
            if (at < entries.size()) keys = entries[at];
            return 0;
        }
        return 0;
    }
    for (const auto &e : entries)
        if (less(*after, e) || (or_same && !less(e, *after))) {
            keys = e;
            return 0;
        }
    return 0;
}

int Datastore::xpath_select(uint32_t th, const std::string &expr, const std::string &ctx_path,
                            ly_set *&set, std::string &err)
{
    set = nullptr;
    Txn *t;
    int rc = 0;
    if (!lookup(th, t, rc, err)) return rc;
    const lyd_node *tree = tree_of(t);
    const lyd_node *ctx_node = nullptr;
    if (!ctx_path.empty()) {
        ParsedPath p;
        if ((rc = parse(schema_, ctx_path, p, err))) return rc;
        ctx_node = find(tree, p, p.steps.size(), true);
    }
    if (!tree) return 0;
    std::string x = xpath_module_names(schema_, expr);
    if (lyd_find_xpath3(ctx_node, tree, x.c_str(), nullptr, &set) != LY_SUCCESS) {
        err = "XPath " + expr + ": " + ly_error();
        ly_set_free(set, nullptr);
        set = nullptr;
        return CONFD_ERR_XPATH;
    }
    return 0;
}

int Datastore::xpath_string(uint32_t th, const std::string &expr, const std::string &ctx_path,
                            bool &found, std::string &text, std::string &err)
{
    found = false;
    text.clear();
    std::string xml, ctx_expr;
    {
        std::lock_guard<std::mutex> lk(mu_);
        Txn *t;
        int rc = 0;
        if (!lookup(th, t, rc, err)) return rc;
        const lyd_node *tree = tree_of(t);
        if (!ctx_path.empty()) {
            ParsedPath p;
            if ((rc = parse(schema_, ctx_path, p, err))) return rc;
            if (const lyd_node *n = find(tree, p, p.steps.size(), true)) {
                char *path = lyd_path(n, LYD_PATH_STD, nullptr, 0);
                if (path) ctx_expr = xpath_without_prefixes(schema_, path);
                free(path);
            }
        }
        // Expressions of any kind (string(), count(), comparisons) need a full XPath 1.0
        // engine; libyang's data API selects node sets only, so libxml2 evaluates over the
        // tree printed as XML, defaults included as ConfD's reads see them.
        char *printed = nullptr;
        if (tree && lyd_print_mem(&printed, tree, LYD_XML,
                                  LYD_PRINT_WITHSIBLINGS | LYD_PRINT_SHRINK | LYD_PRINT_WD_ALL) !=
                        LY_SUCCESS) {
            err = "printing the configuration: " + ly_error();
            return CONFD_ERR_INTERNAL;
        }
        if (printed) xml = printed;
        free(printed);
    }
    return xpath_text(xml, xpath_without_prefixes(schema_, expr), ctx_expr, found, text, err);
}

int Datastore::xpath_nodes(uint32_t th, const std::string &expr, const std::string &ctx_path,
                           std::vector<std::pair<KeyPath, Value>> &out, std::string &err)
{
    out.clear();
    std::lock_guard<std::mutex> lk(mu_);
    ly_set *set = nullptr;
    int rc = xpath_select(th, expr, ctx_path, set, err);
    if (rc || !set) return rc;
    for (uint32_t i = 0; i < set->count; i++) {
        const lyd_node *n = set->dnodes[i];
        const SchemaNode *sn = n->schema ? schema_.from_lys(n->schema) : nullptr;
        if (!sn) continue;
        Value v;
        if (sn->kind == NodeKind::Leaf || sn->kind == NodeKind::LeafList) {
            std::string ignored;
            value_from_data(sn, n, v, ignored);
        }
        out.emplace_back(keypath_of(n), std::move(v));
    }
    ly_set_free(set, nullptr);
    return 0;
}

// ---- writes ----

int Datastore::writable(uint32_t th, const std::string &path, ParsedPath &p, Txn *&t,
                        std::string &err)
{
    int rc = 0;
    if (!lookup(th, t, rc, err)) return rc;
    if (!t || t->mode != CONFD_READ_WRITE) {
        err = "transaction " + std::to_string(th) + " is read-only";
        return CONFD_ERR_NOT_WRITABLE;
    }
    if ((rc = parse(schema_, path, p, err))) return rc;
    for (const PathStep &st : p.steps)
        if (!st.node->config) {
            err = path + " is operational data";
            return CONFD_ERR_NOT_WRITABLE;
        }
    const SchemaNode *owner = schema_.callpoint_owner(p.steps.back().node);
    if (owner && owner->cpkind != CpKind::SetHook) {
        err = path + " is served by the provider of callpoint " + owner->callpoint;
        return CONFD_ERR_NOT_WRITABLE;
    }
    return 0;
}

int Datastore::apply(lyd_node *&tree, const Edit &e, std::string &err) const
{
    const ly_ctx *ctx = schema_.ctx();
    auto new_path = [&](const char *value, uint32_t opts) {
        lyd_node *created = nullptr;
        LY_ERR r = lyd_new_path(tree, ctx, e.lypath.c_str(), value, opts, &created);
        if (r == LY_SUCCESS && !tree && created) {
            lyd_node *top = created;
            while (lyd_parent(top))
                top = lyd_parent(top);
            tree = top;
        }
        if (tree) tree = lyd_first_sibling(tree);
        return r;
    };
    LY_ERR r = LY_SUCCESS;
    switch (e.kind) {
    case Edit::Set:
        if (e.leaflist) {
            ly_set *set = nullptr;
            if (tree && lyd_find_xpath3(nullptr, tree, e.lypath.c_str(), nullptr, &set) == LY_SUCCESS)
                for (uint32_t i = 0; i < set->count; i++)
                    free_node(tree, set->dnodes[i]);
            ly_set_free(set, nullptr);
            ly_err_clean(const_cast<ly_ctx *>(ctx), nullptr);
            for (const std::string &v : e.values)
                if ((r = new_path(v.c_str(), 0)) != LY_SUCCESS) break;
        } else {
            r = new_path(e.values.empty() ? "" : e.values[0].c_str(), LYD_NEW_PATH_UPDATE);
        }
        if (r != LY_SUCCESS) {
            err = ly_error();
            return r == LY_EEXIST ? CONFD_ERR_ALREADY_EXISTS : CONFD_ERR_BADTYPE;
        }
        break;
    case Edit::Create:
        r = new_path(nullptr, 0);
        if (r != LY_SUCCESS) {
            err = ly_error();
            return r == LY_EEXIST ? CONFD_ERR_ALREADY_EXISTS : CONFD_ERR_BADPATH;
        }
        break;
    case Edit::Delete: {
        lyd_node *node = nullptr;
        if (!tree || lyd_find_path(tree, e.lypath.c_str(), 0, &node) != LY_SUCCESS || !node ||
            (node->flags & LYD_DEFAULT)) {
            ly_err_clean(const_cast<ly_ctx *>(ctx), nullptr);
            err = e.lypath + " does not exist";
            return CONFD_ERR_NOEXISTS;
        }
        free_node(tree, node);
        break;
    }
    case Edit::Move: {
        lyd_node *node = nullptr, *anchor = nullptr;
        if (!tree || lyd_find_path(tree, e.lypath.c_str(), 0, &node) != LY_SUCCESS || !node ||
            (!e.anchor.empty() &&
             (lyd_find_path(tree, e.anchor.c_str(), 0, &anchor) != LY_SUCCESS || !anchor))) {
            ly_err_clean(const_cast<ly_ctx *>(ctx), nullptr);
            err = (node ? e.anchor : e.lypath) + " does not exist";
            return CONFD_ERR_NOEXISTS;
        }
        if (anchor == node) break;
        if (anchor) {
            r = lyd_insert_after(anchor, node);
        } else {
            lyd_node *first = lyd_first_sibling(node);
            while (first->schema != node->schema)
                first = first->next;
            if (first != node) r = lyd_insert_before(first, node);
        }
        if (r != LY_SUCCESS) {
            err = ly_error();
            return CONFD_ERR_NOTMOVABLE;
        }
        if (tree) tree = lyd_first_sibling(tree);
        break;
    }
    case Edit::Attr: {
        // Attributes live beside the tree; the node only has to be there.
        lyd_node *node = nullptr;
        if (!tree || lyd_find_path(tree, e.lypath.c_str(), 0, &node) != LY_SUCCESS || !node) {
            ly_err_clean(const_cast<ly_ctx *>(ctx), nullptr);
            err = e.lypath + " does not exist";
            return CONFD_ERR_NOEXISTS;
        }
        break;
    }
    }
    // Defaults come back where explicit values went away, and appear in new list entries.
    lyd_new_implicit_all(&tree, ctx, 0, nullptr);
    if (tree) tree = lyd_first_sibling(tree);
    return 0;
}

namespace
{

void apply_attr(Attrs &attrs, const std::string &lypath, uint32_t attr,
                const std::vector<std::string> &values)
{
    if (!values.empty()) {
        attrs[lypath][attr] = values.front();
        return;
    }
    auto it = attrs.find(lypath);
    if (it == attrs.end()) return;
    it->second.erase(attr);
    if (it->second.empty()) attrs.erase(it);
}

} // namespace

int Datastore::record(Txn *t, const Edit &e, std::string &err)
{
    int rc = apply(t->work, e, err);
    if (rc == 0 && e.kind == Edit::Attr) apply_attr(t->attrs, e.lypath, e.attr, e.values);
    if (rc == 0) t->edits.push_back(e);
    return rc;
}

int Datastore::replay(const Txn *t, lyd_node *&tree, Attrs &attrs, std::string &err) const
{
    tree = dup_tree(running_);
    attrs = running_attrs_;
    for (const Edit &e : t->edits) {
        int rc = apply(tree, e, err);
        if (rc) return rc;
        if (e.kind == Edit::Attr) apply_attr(attrs, e.lypath, e.attr, e.values);
    }
    // The attributes of nodes the edits deleted go with them.
    for (auto it = attrs.begin(); it != attrs.end();) {
        lyd_node *node = nullptr;
        bool gone = !tree || lyd_find_path(tree, it->first.c_str(), 0, &node) != LY_SUCCESS;
        it = gone ? attrs.erase(it) : std::next(it);
    }
    ly_err_clean(const_cast<ly_ctx *>(schema_.ctx()), nullptr);
    return 0;
}

int Datastore::set_locked(Txn *t, const ParsedPath &p, const Value &v, std::string &err)
{
    int rc = check_keys(p, false, err);
    if (rc) return rc;
    const SchemaNode *leaf = p.steps.back().node;
    if (leaf->kind != NodeKind::Leaf && leaf->kind != NodeKind::LeafList) {
        err = pp_path(schema_, p) + " is not a leaf";
        return CONFD_ERR_BADPATH;
    }
    Edit e;
    e.lypath = lypath(p, p.steps.size(), err);
    if (e.lypath.empty()) return CONFD_ERR_BADPATH;
    if (v.type == vt::NOEXISTS) {
        // Setting "no value" removes the leaf, if it is there.
        size_t m = 0;
        find(t->work, p, p.steps.size(), false, &m);
        if (m < p.steps.size()) return 0;
        e.kind = Edit::Delete;
        return record(t, e, err);
    }
    if (leaf->kind == NodeKind::LeafList) {
        e.leaflist = true;
        std::vector<Value> items = v.type == vt::LIST ? v.list : std::vector<Value>{v};
        for (const Value &item : items) {
            std::string text;
            if (!value_to_data_text(schema_, leaf, item, text, err)) return CONFD_ERR_BADTYPE;
            e.values.push_back(text);
        }
    } else {
        std::string text;
        if (!value_to_data_text(schema_, leaf, v, text, err)) return CONFD_ERR_BADTYPE;
        e.values.push_back(text);
    }
    return record(t, e, err);
}

int Datastore::set_elem(uint32_t th, const std::string &path, const Value &v, std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    ParsedPath p;
    Txn *t = nullptr;
    int rc = writable(th, path, p, t, err);
    return rc ? rc : set_locked(t, p, v, err);
}

int Datastore::set_elem_text(uint32_t th, const std::string &path, const std::string &text,
                             std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    ParsedPath p;
    Txn *t = nullptr;
    int rc = writable(th, path, p, t, err);
    if (rc) return rc;
    const SchemaNode *leaf = p.steps.back().node;
    Value v;
    std::string ignored;
    if ((leaf->kind == NodeKind::Leaf || leaf->kind == NodeKind::LeafList) &&
        value_from_text(leaf, text, v, ignored))
        return set_locked(t, p, v, err);
    // Forms only libyang knows (a base64 binary, ...): handed over as they are.
    if ((rc = check_keys(p, false, err))) return rc;
    if (leaf->kind != NodeKind::Leaf && leaf->kind != NodeKind::LeafList) {
        err = path + " is not a leaf";
        return CONFD_ERR_BADPATH;
    }
    Edit e;
    e.lypath = lypath(p, p.steps.size(), err);
    if (e.lypath.empty()) return CONFD_ERR_BADPATH;
    e.values.push_back(text);
    e.leaflist = leaf->kind == NodeKind::LeafList;
    return record(t, e, err);
}

int Datastore::create(uint32_t th, const std::string &path, std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    ParsedPath p;
    Txn *t = nullptr;
    int rc = writable(th, path, p, t, err);
    if (rc || (rc = check_keys(p, false, err))) return rc;
    const SchemaNode *last = p.steps.back().node;
    if (!is_keyed_list(last) && !presence_container(last)) {
        err = path + " is not a list entry or presence container";
        return CONFD_ERR_BADPATH;
    }
    Edit e;
    e.kind = Edit::Create;
    e.lypath = lypath(p, p.steps.size(), err);
    if (e.lypath.empty()) return CONFD_ERR_BADPATH;
    return record(t, e, err);
}

int Datastore::remove(uint32_t th, const std::string &path, std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    ParsedPath p;
    Txn *t = nullptr;
    int rc = writable(th, path, p, t, err);
    if (rc || (rc = check_keys(p, false, err))) return rc;
    if (p.steps.back().node->is_key) {
        err = path + " is a list key";
        return CONFD_ERR_NOTDELETABLE;
    }
    size_t m = 0;
    const lyd_node *node = find(t->work, p, p.steps.size(), false, &m);
    if (m < p.steps.size() || (node->flags & LYD_DEFAULT)) {
        err = path + " does not exist";
        return CONFD_ERR_NOEXISTS;
    }
    Edit e;
    e.kind = Edit::Delete;
    e.lypath = lypath(p, p.steps.size(), err);
    if (e.lypath.empty()) return CONFD_ERR_BADPATH;
    return record(t, e, err);
}

int Datastore::move_after(uint32_t th, const std::string &path, const std::string &anchor_path,
                          std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    ParsedPath p;
    Txn *t = nullptr;
    int rc = writable(th, path, p, t, err);
    if (rc || (rc = check_keys(p, false, err))) return rc;
    const SchemaNode *list = p.steps.back().node;
    if (!is_keyed_list(list) || !lysc_is_userordered(list->lys)) {
        err = path + " is not an entry of a list ordered by the user";
        return CONFD_ERR_NOTMOVABLE;
    }
    Edit e;
    e.kind = Edit::Move;
    e.lypath = lypath(p, p.steps.size(), err);
    if (e.lypath.empty()) return CONFD_ERR_BADPATH;
    if (!anchor_path.empty()) {
        ParsedPath a;
        if ((rc = parse(schema_, anchor_path, a, err)) || (rc = check_keys(a, false, err)))
            return rc;
        if (a.steps.back().node != list) {
            err = anchor_path + " is not an entry of the same list";
            return CONFD_ERR_BADPATH;
        }
        e.anchor = lypath(a, a.steps.size(), err);
        if (e.anchor.empty()) return CONFD_ERR_BADPATH;
    }
    return record(t, e, err);
}

int Datastore::set_attr(uint32_t th, const std::string &path, uint32_t attr,
                        const std::string *value, std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    ParsedPath p;
    Txn *t = nullptr;
    int rc = writable(th, path, p, t, err);
    if (rc || (rc = check_keys(p, false, err))) return rc;
    Edit e;
    e.kind = Edit::Attr;
    e.attr = attr;
    e.lypath = lypath(p, p.steps.size(), err);
    if (e.lypath.empty()) return CONFD_ERR_BADPATH;
    if (value) e.values.push_back(*value);
    return record(t, e, err);
}

// ---- changes ----

void Datastore::attr_changes(const Attrs &old_attrs, const Attrs &new_attrs,
                             const lyd_node *tree, std::vector<DiffItem> &out) const
{
    static const std::map<uint32_t, std::string> none;
    auto of = [](const Attrs &a, const std::string &path) -> const std::map<uint32_t, std::string> & {
        auto it = a.find(path);
        return it == a.end() ? none : it->second;
    };
    std::set<std::string> paths;
    for (const auto &a : old_attrs)
        paths.insert(a.first);
    for (const auto &a : new_attrs)
        paths.insert(a.first);
    for (const std::string &path : paths) {
        lyd_node *node = nullptr;
        if (!tree || lyd_find_path(tree, path.c_str(), 0, &node) != LY_SUCCESS || !node) continue;
        const auto &before = of(old_attrs, path), &after = of(new_attrs, path);
        std::set<uint32_t> names;
        for (const auto &a : before)
            names.insert(a.first);
        for (const auto &a : after)
            names.insert(a.first);
        for (uint32_t attr : names) {
            auto o = before.find(attr), n = after.find(attr);
            if (o != before.end() && n != after.end() && o->second == n->second) continue;
            DiffItem item;
            item.op = MOP_ATTR_SET;
            item.kp = keypath_of(node);
            item.value.type = vt::LIST;
            Value name, value;
            name.type = vt::UINT32;
            name.u = attr;
            if (n != after.end()) {
                value.type = vt::BUF;
                value.bytes = n->second;
            }
            item.value.list = {name, value};
            out.push_back(std::move(item));
        }
    }
    ly_err_clean(const_cast<ly_ctx *>(schema_.ctx()), nullptr);
}

void Datastore::moved(const lyd_node *ofirst, const lyd_node *nfirst, const lyd_node *n,
                      uint32_t depth, std::vector<DiffItem> &out) const
{
    auto before = [](const lyd_node *first, const lyd_node *entry) {
        const lyd_node *prev = nullptr;
        for (const lyd_node *s = first; s && s != entry; s = s->next)
            if (s->schema == entry->schema) prev = s;
        return prev;
    };
    const lyd_node *o = counterpart(ofirst, n);
    const lyd_node *nprev = before(nfirst, n), *oprev = o ? before(ofirst, o) : nullptr;
    if (!o || (nprev ? counterpart(ofirst, nprev) == oprev : !oprev)) return;
    DiffItem item;
    item.op = MOP_MOVED_AFTER;
    item.depth = depth;
    item.kp = keypath_of(n);
    if (nprev) {
        item.value.type = vt::LIST;
        keys_of(nprev, schema_.from_lys(n->schema), item.value.list);
    }
    out.push_back(std::move(item));
}

void Datastore::leaflist_change(const lyd_node *ofirst, const lyd_node *nfirst,
                                const lyd_node *any, uint32_t depth,
                                std::vector<DiffItem> &out) const
{
    auto values = [&](const lyd_node *first, std::vector<const lyd_node *> &nodes) {
        std::vector<std::string> texts;
        for (const lyd_node *s = first; s; s = s->next)
            if (s->schema == any->schema && !(s->flags & LYD_DEFAULT)) {
                nodes.push_back(s);
                const char *v = lyd_get_value(s);
                texts.push_back(v ? v : "");
            }
        return texts;
    };
    std::vector<const lyd_node *> onodes, nnodes;
    if (values(ofirst, onodes) == values(nfirst, nnodes)) return;
    const SchemaNode *sn = schema_.from_lys(any->schema);
    DiffItem item;
    item.depth = depth;
    if (nnodes.empty()) {
        item.op = MOP_DELETED;
        item.kp = keypath_of(onodes.front());
    } else {
        item.op = MOP_VALUE_SET;
        item.kp = keypath_of(nnodes.front());
        item.value.type = vt::LIST;
        for (const lyd_node *n : nnodes) {
            Value v;
            std::string ignored;
            value_from_data(sn, n, v, ignored);
            item.value.list.push_back(std::move(v));
        }
    }
    out.push_back(std::move(item));
}

void Datastore::created(const lyd_node *n, uint32_t depth, std::vector<DiffItem> &out) const
{
    std::set<const lysc_node *> leaflists;
    for (const lyd_node *c = lyd_child(n); c; c = c->next) {
        if (!c->schema || (c->flags & LYD_DEFAULT)) continue;
        const SchemaNode *sc = schema_.from_lys(c->schema);
        if (!sc) continue;
        DiffItem item;
        item.depth = depth;
        switch (sc->kind) {
        case NodeKind::Leaf: {
            if (sc->is_key) break;
            item.op = MOP_VALUE_SET;
            item.kp = keypath_of(c);
            std::string ignored;
            value_from_data(sc, c, item.value, ignored);
            out.push_back(std::move(item));
            break;
        }
        case NodeKind::LeafList:
            if (leaflists.insert(c->schema).second)
                leaflist_change(nullptr, lyd_child(n), c, depth, out);
            break;
        case NodeKind::List:
        case NodeKind::Container:
            if (sc->kind == NodeKind::Container && !presence_container(sc)) {
                created(c, depth, out);
                break;
            }
            item.op = MOP_CREATED;
            item.kp = keypath_of(c);
            out.push_back(std::move(item));
            created(c, depth + 1, out);
            break;
        }
    }
}

void Datastore::diff_siblings(const lyd_node *ofirst, const lyd_node *nfirst, uint32_t depth,
                              std::vector<DiffItem> &out) const
{
    std::set<const lysc_node *> leaflists;
    auto push = [&](int op, const lyd_node *node, const SchemaNode *sn) {
        DiffItem item;
        item.op = op;
        item.depth = depth;
        item.kp = keypath_of(node);
        if (op == MOP_VALUE_SET) {
            std::string ignored;
            value_from_data(sn, node, item.value, ignored);
        }
        out.push_back(std::move(item));
    };
    for (const lyd_node *n = nfirst; n; n = n->next) {
        if (!n->schema || (n->flags & LYD_DEFAULT)) continue;
        const SchemaNode *sn = schema_.from_lys(n->schema);
        if (!sn) continue;
        const lyd_node *o = counterpart(ofirst, n);
        switch (sn->kind) {
        case NodeKind::Leaf:
            if (!o || lyd_compare_single(o, n, 0) != LY_SUCCESS) push(MOP_VALUE_SET, n, sn);
            break;
        case NodeKind::LeafList:
            if (leaflists.insert(n->schema).second) leaflist_change(ofirst, nfirst, n, depth, out);
            break;
        case NodeKind::List:
        case NodeKind::Container:
            if (sn->kind == NodeKind::Container && !presence_container(sn)) {
                diff_siblings(o ? lyd_child(o) : nullptr, lyd_child(n), depth, out);
            } else if (!o) {
                push(MOP_CREATED, n, sn);
                created(n, depth + 1, out);
            } else {
                size_t mark = out.size();
                push(MOP_MODIFIED, n, sn);
                diff_siblings(lyd_child(o), lyd_child(n), depth + 1, out);
                if (out.size() == mark + 1) out.pop_back();
                // Every entry whose predecessor changed is reported as moved after its new one.
                if (lysc_is_userordered(n->schema)) moved(ofirst, nfirst, n, depth, out);
            }
            break;
        }
    }
    for (const lyd_node *o = ofirst; o; o = o->next) {
        if (!o->schema || (o->flags & LYD_DEFAULT)) continue;
        const SchemaNode *sn = schema_.from_lys(o->schema);
        if (!sn) continue;
        if (sn->kind == NodeKind::LeafList) {
            if (leaflists.insert(o->schema).second) leaflist_change(ofirst, nfirst, o, depth, out);
            continue;
        }
        if (counterpart(nfirst, o)) continue;
        if (sn->kind == NodeKind::Container && !presence_container(sn))
            diff_siblings(lyd_child(o), nullptr, depth, out);
        else
            push(MOP_DELETED, o, sn);
    }
}

void Datastore::diff_trees(const lyd_node *old_tree, const lyd_node *new_tree,
                           std::vector<DiffItem> &out) const
{
    diff_siblings(old_tree, new_tree, 0, out);
}

int Datastore::diff(uint32_t th, const std::string &subtree, std::vector<DiffItem> &out,
                    std::string &err)
{
    out.clear();
    std::lock_guard<std::mutex> lk(mu_);
    Txn *t;
    int rc = 0;
    if (!lookup(th, t, rc, err)) return rc;
    if (!t) {
        err = "no transaction 0";
        return CONFD_ERR_NOEXISTS;
    }
    KeyPath sub;
    if (!subtree.empty()) {
        ParsedPath p;
        if ((rc = parse(schema_, subtree, p, err))) return rc;
        sub = to_hkeypath(p);
    }
    std::vector<DiffItem> all;
    if (t->committed && t->edits.empty()) {
        all = t->changes;
    } else if (t->mode == CONFD_READ_WRITE) {
        // What committing now would change: the edits replayed onto the running tree.
        lyd_node *copy = nullptr;
        Attrs attrs;
        if ((rc = replay(t, copy, attrs, err))) {
            lyd_free_all(copy);
            return rc;
        }
        diff_trees(running_, copy, all);
        attr_changes(running_attrs_, attrs, copy, all);
        lyd_free_all(copy);
    }
    if (sub.empty()) {
        out = std::move(all);
        return 0;
    }
    // Only the changes at or below the subtree, their depths counted from it.
    auto below = [&](const KeyPath &kp) {
        if (kp.size() < sub.size()) return false;
        size_t off = kp.size() - sub.size();
        for (size_t i = 0; i < sub.size(); i++) {
            const auto &a = kp[off + i], &b = sub[i];
            if (a.size() != b.size()) return false;
            for (size_t k = 0; k < a.size(); k++)
                if (!same_value(a[k], b[k])) return false;
        }
        return true;
    };
    uint32_t min_depth = UINT32_MAX;
    for (DiffItem &d : all)
        if (below(d.kp)) {
            min_depth = std::min(min_depth, d.depth);
            out.push_back(std::move(d));
        }
    for (DiffItem &d : out)
        d.depth -= min_depth;
    return 0;
}

int Datastore::commit(uint32_t th, std::vector<DiffItem> &changes, std::string &err)
{
    changes.clear();
    std::lock_guard<std::mutex> lk(mu_);
    Txn *t;
    int rc = 0;
    if (!lookup(th, t, rc, err)) return rc;
    if (!t || t->mode != CONFD_READ_WRITE) {
        err = "transaction " + std::to_string(th) + " is read-only";
        return CONFD_ERR_NOT_WRITABLE;
    }
    lyd_node *copy = nullptr;
    Attrs attrs;
    if ((rc = replay(t, copy, attrs, err))) {
        lyd_free_all(copy);
        err = "commit: " + err;
        return rc;
    }
    if (lyd_validate_all(&copy, schema_.ctx(), 0, nullptr) != LY_SUCCESS) {
        const ly_err_item *e = ly_err_first(schema_.ctx());
        bool keyref =
            e && (e->vecode == LYVE_REFERENCE || (e->msg && std::strstr(e->msg, "leafref")));
        err = "validation failed: " + ly_error();
        lyd_free_all(copy);
        return keyref ? CONFD_ERR_BAD_KEYREF : CONFD_ERR_BAD_CONFIG;
    }
    if (copy) copy = lyd_first_sibling(copy);
    diff_trees(running_, copy, changes);
    attr_changes(running_attrs_, attrs, copy, changes);
    lyd_free_all(running_);
    running_ = copy;
    running_attrs_ = std::move(attrs);
    t->committed = true;
    t->changes = changes;
    t->edits.clear();
    lyd_free_all(t->work);
    t->work = dup_tree(running_);
    t->attrs = running_attrs_;
    return 0;
}

} // namespace emu
