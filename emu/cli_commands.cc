// The commands of confd-emu-cli: get, next, walk, set, notifications, drop, fail, status, ...
#include "cli_commands.h"

#include <cerrno>
#include <cstdlib>
#include <map>
#include <set>
#include <unordered_set>

#include "confd_lib.h"
#include "dp_session.h"
#include "events.h"
#include "keypath.h"

namespace emu
{

using confd_wire::DataCb;
using confd_wire::ReplyKind;
using confd_wire::TransCb;
using confd_wire::Value;
using confd_wire::Writer;

namespace
{

std::string error_json(const std::string &msg)
{
    return "{\"error\":" + json_quote(msg) + "}";
}

const std::string kOk = "{\"result\":\"ok\"}";

// Command-line options of one command: which take a value, which are plain flags.
struct Args {
    std::vector<std::string> pos;
    std::map<std::string, std::string> opt;
    bool has(const std::string &k) const { return opt.count(k) != 0; }
};

// Splits argv[1..] into positionals and options ("--name value" or "--flag"); "--" ends the
// options.
bool parse_args(const std::vector<std::string> &argv, const std::set<std::string> &valued,
                const std::set<std::string> &flags, Args &out, std::string &err)
{
    bool opts = true;
    for (size_t i = 1; i < argv.size(); i++) {
        const std::string &a = argv[i];
        if (opts && a == "--") {
            opts = false;
        } else if (opts && a.size() > 2 && a.compare(0, 2, "--") == 0) {
            if (valued.count(a)) {
                if (i + 1 >= argv.size()) {
                    err = "option " + a + " needs a value";
                    return false;
                }
                out.opt[a] = argv[++i];
            } else if (flags.count(a)) {
                out.opt[a] = "";
            } else {
                err = "unknown option " + a + " for " + argv[0];
                return false;
            }
        } else {
            out.pos.push_back(a);
        }
    }
    return true;
}

bool parse_int(const std::string &s, long long &out)
{
    if (s.empty()) return false;
    errno = 0;
    char *end = nullptr;
    out = std::strtoll(s.c_str(), &end, 10);
    return errno == 0 && *end == '\0';
}

// "C_UINT32 (counter32)" or "C_IPV4 or C_IPV6 (ip-address)": what a leaf accepts, for messages.
std::string expected_types(const SchemaNode *n)
{
    auto name = [](int vt) {
        const char *s = vtype_name(vt);
        return s ? std::string(s) : "type " + std::to_string(vt);
    };
    std::string out;
    if (!n->union_vtypes.empty()) {
        for (size_t i = 0; i < n->union_vtypes.size(); i++)
            out += (i ? " or " : "") + name(n->union_vtypes[i]);
    } else {
        out = name(n->vtype);
    }
    if (!n->type_name.empty()) out += " (" + n->type_name + ")";
    return out;
}

std::string got_type(int vt)
{
    const char *s = vtype_name(vt);
    return s ? s : "unknown type " + std::to_string(vt);
}

// Checks a reply value against its leaf; false with a message naming the leaf and both types.
bool check_value(const SchemaNode *leaf, const Value &v, std::string &err)
{
    bool fits = type_fits(leaf, v.type);
    if (fits && v.type == confd_wire::T_LIST) {
        for (const Value &e : v.list)
            if (e.type == confd_wire::T_LIST || !type_fits(leaf, e.type)) {
                err = "leaf-list " + leaf->name + " expects elements of " + expected_types(leaf) +
                      ", daemon replied an element of " + got_type(e.type);
                return false;
            }
    }
    if (!fits)
        err = "leaf " + leaf->name + " expects " + expected_types(leaf) + ", daemon replied " +
              got_type(v.type);
    return fits;
}

// Checks next_key keys against the list's keys: their count and each one's type.
bool check_keys(const SchemaNode *list, const std::vector<Value> &keys, std::string &err)
{
    if (keys.size() != list->keys.size()) {
        err = "list " + list->name + " has " + std::to_string(list->keys.size()) +
              " keys, daemon replied " + std::to_string(keys.size());
        return false;
    }
    for (size_t i = 0; i < keys.size(); i++)
        if (keys[i].type == confd_wire::T_NOEXISTS || !type_fits(list->keys[i], keys[i].type)) {
            err = "key " + list->keys[i]->name + " expects " + expected_types(list->keys[i]) +
                  ", daemon replied " + got_type(keys[i].type);
            return false;
        }
    return true;
}

// A string key travels in keypaths as the management plane keeps it: C_BUF, however it was sent.
Value keypath_key(const SchemaNode *key, Value v)
{
    if (v.type == confd_wire::T_STR && key->vtype == vt::BUF) {
        v.type = confd_wire::T_BUF;
        v.null_str = false;
    }
    return v;
}

std::string keys_json(const std::vector<Value> &keys)
{
    std::string out = "[";
    for (size_t i = 0; i < keys.size(); i++)
        out += (i ? "," : "") + value_to_json(keys[i]);
    return out + "]";
}

// Parses PATH and checks its shape: every list on the way has its keys, and the last node is a leaf
// (want_list false) or a list given without keys (want_list true).
bool resolve(const Schema &s, const std::string &text, bool want_list, ParsedPath &p,
             std::string &err)
{
    if (!parse_keypath(s, text, p, err)) return false;
    if (p.steps.empty()) {
        err = "empty path";
        return false;
    }
    const SchemaNode *n = p.steps.back().node;
    if (want_list && n->kind != NodeKind::List) {
        err = text + " is not a list";
        return false;
    }
    if (!want_list && n->kind != NodeKind::Leaf && n->kind != NodeKind::LeafList) {
        err = text + " is not a leaf";
        return false;
    }
    for (size_t i = 0; i < p.steps.size(); i++) {
        const PathStep &st = p.steps[i];
        bool last = i + 1 == p.steps.size();
        if (st.node->kind != NodeKind::List) continue;
        if (last && want_list) {
            if (st.has_keys) {
                err = text + ": give the list without keys";
                return false;
            }
        } else if (!st.has_keys) {
            err = text + ": list " + st.node->name + " needs its keys";
            return false;
        }
    }
    return true;
}

std::string context_of(const Args &a)
{
    return a.has("--context") ? a.opt.at("--context") : "cli";
}

std::string user_of(const Args &a)
{
    return a.has("--user") ? a.opt.at("--user") : "admin";
}

// Data the datastore answers for: no callpoint above it, or a set hook (which is told of writes
// but does not serve reads).
bool stored(const CliEnv &env, const SchemaNode *n)
{
    if (!env.ds) return false;
    const SchemaNode *owner = env.schema.callpoint_owner(n);
    return !owner || owner->cpkind == CpKind::SetHook;
}

// Ends a transaction the command opened itself (the datastore forgets it with the registry).
struct TransGuard {
    Registry &reg;
    uint32_t th;
    ~TransGuard() { reg.close_trans(th); }
};

// The keys of every entry of a stored list, in the list's order (at most limit + 1 of them).
bool stored_entries(CliEnv &env, const std::string &list, std::vector<std::vector<Value>> &out,
                    std::string &err)
{
    std::vector<Value> keys, prev;
    for (;;) {
        int rc = env.ds->next_keys(0, list, out.empty() ? nullptr : &prev, false, keys, err);
        if (rc) return false;
        if (keys.empty() || out.size() > env.walk_limit) return true;
        out.push_back(keys);
        prev = keys;
    }
}

// One change of a command-line commit.
struct Change {
    enum Kind { Set, Create, Delete, Move, Attr } kind = Set;
    std::string path;
    Value value;        // Set
    std::string anchor; // Move: keypath of the entry it goes after, empty for the first place
    uint32_t attr = 0;  // Attr: which attribute, with text as its value (removed when !has_text)
    std::string text;
    bool has_text = false;
};

// One transaction of the command line's own: the changes written and committed, commit-diff
// subscribers told. {"result":"ok"} or an error.
std::string commit_changes(CliEnv &env, const Args &a, const std::vector<Change> &changes)
{
    std::string err;
    uint32_t th = env.reg.open_trans(0, CONFD_READ_WRITE, err);
    if (th == 0) return error_json(err);
    TransGuard guard{env.reg, th};
    UserInfo u;
    u.user = user_of(a);
    u.context = context_of(a);
    u.usid = env.reg.new_usid();
    int rc = env.ds->begin(th, CONFD_READ_WRITE, u, err);
    for (size_t i = 0; i < changes.size() && !rc; i++) {
        const Change &c = changes[i];
        switch (c.kind) {
        case Change::Set: rc = env.ds->set_elem(th, c.path, c.value, err); break;
        case Change::Create:
            if ((rc = env.ds->create(th, c.path, err)) == CONFD_ERR_ALREADY_EXISTS) rc = 0;
            break;
        case Change::Delete: rc = env.ds->remove(th, c.path, err); break;
        case Change::Move: rc = env.ds->move_after(th, c.path, c.anchor, err); break;
        case Change::Attr:
            rc = env.ds->set_attr(th, c.path, c.attr, c.has_text ? &c.text : nullptr, err);
            break;
        }
        if (rc) err = c.path + ": " + err;
    }
    if (!rc) rc = commit_and_notify(env.reg, *env.ds, th, env.diff_timeout_ms, err);
    return rc ? error_json(err) : kOk;
}

std::string cmd_get(CliEnv &env, const Args &a)
{
    if (a.pos.size() != 1) return error_json("usage: get PATH");
    ParsedPath p;
    std::string err;
    if (!resolve(env.schema, a.pos[0], false, p, err)) return error_json(err);
    const SchemaNode *leaf = p.steps.back().node;
    if (stored(env, leaf)) {
        Value v;
        int rc = env.ds->get_elem(0, a.pos[0], v, err);
        if (rc == CONFD_ERR_NOEXISTS) return "{\"reply\":\"not-found\"}";
        return rc ? error_json(err) : value_to_json(v);
    }
    DpSession s(env.reg, env.schema, CONFD_READ, context_of(a));
    DpSession::Txn *t = s.txn_for(leaf, err);
    if (!t) return error_json(err);
    DpReply r;
    if (!s.data_call(*t, leaf, DataCb::GetElem, to_hkeypath(p), nullptr, r, err))
        return error_json(err);
    switch (r.kind) {
    case ReplyKind::Value:
        if (!check_value(leaf, r.value, err)) return error_json(err);
        return value_to_json(r.value);
    case ReplyKind::NotFound:
        return "{\"reply\":\"not-found\"}";
    case ReplyKind::Error:
        return error_json(r.message.empty() ? "get_elem failed" : r.message);
    default:
        return error_json("daemon " + t->route.daemon + " answered get_elem with a reply of kind " +
                          std::to_string(static_cast<int>(r.kind)));
    }
}

// One step of a list traversal: get_next with the cookie, or find_next after the keys when the
// daemon asked for it (cookie -1 in its previous answer).
struct Cursor {
    int64_t cookie = -1;
    bool use_find = false;
    std::vector<Value> last_keys;
};

bool step_list(DpSession &s, DpSession::Txn &t, const SchemaNode *list, const ParsedPath &p,
               Cursor &c, DpReply &r, std::string &err)
{
    confd_wire::KeyPath kp = to_hkeypath(p);
    if (c.use_find) {
        std::vector<Value> keys = c.last_keys;
        auto extra = [&](Writer &w) {
            w.u8(0 /* CONFD_FIND_NEXT */).u32(static_cast<uint32_t>(keys.size()));
            for (const Value &k : keys)
                w.value(k);
        };
        if (!s.data_call(t, list, DataCb::FindNext, kp, extra, r, err)) return false;
    } else {
        int64_t cookie = c.cookie;
        auto extra = [&](Writer &w) { w.i64(cookie); };
        if (!s.data_call(t, list, DataCb::GetNext, kp, extra, r, err)) return false;
    }
    if (r.kind == ReplyKind::Error) {
        err = r.message.empty() ? "get_next on " + list->name + " failed" : r.message;
        return false;
    }
    if (r.kind == ReplyKind::NextEnd) return true;
    if (r.kind != ReplyKind::NextKey) {
        err = "daemon " + t.route.daemon + " answered get_next with a reply of kind " +
              std::to_string(static_cast<int>(r.kind));
        return false;
    }
    if (!check_keys(list, r.values, err)) return false;
    for (size_t i = 0; i < r.values.size(); i++)
        r.values[i] = keypath_key(list->keys[i], r.values[i]);
    return true;
}

std::string cmd_next(CliEnv &env, const Args &a)
{
    long long cookie = -1;
    if (a.pos.size() != 1 || (a.has("--cookie") && !parse_int(a.opt.at("--cookie"), cookie)))
        return error_json("usage: next PATH [--cookie N]");
    ParsedPath p;
    std::string err;
    if (!resolve(env.schema, a.pos[0], true, p, err)) return error_json(err);
    const SchemaNode *list = p.steps.back().node;
    if (stored(env, list)) {
        // The cookie of a stored list is the position of the entry it asks for.
        std::vector<std::vector<Value>> entries;
        if (!stored_entries(env, a.pos[0], entries, err)) return error_json(err);
        size_t at = cookie < 0 ? 0 : static_cast<size_t>(cookie);
        if (at >= entries.size()) return "{\"keys\":null,\"next\":-1}";
        return "{\"keys\":" + keys_json(entries[at]) + ",\"next\":" + std::to_string(at + 1) +
               "}";
    }
    DpSession s(env.reg, env.schema, CONFD_READ, context_of(a));
    DpSession::Txn *t = s.txn_for(list, err);
    if (!t) return error_json(err);
    Cursor c;
    c.cookie = cookie;
    DpReply r;
    if (!step_list(s, *t, list, p, c, r, err)) return error_json(err);
    if (r.kind == ReplyKind::NextEnd)
        return "{\"keys\":null,\"next\":" + std::to_string(r.next) + "}";
    return "{\"keys\":" + keys_json(r.values) + ",\"next\":" + std::to_string(r.next) + "}";
}

std::string cmd_walk(CliEnv &env, const Args &a, std::string &failure)
{
    long long limit = static_cast<long long>(env.walk_limit);
    if (a.pos.size() != 1 ||
        (a.has("--limit") && (!parse_int(a.opt.at("--limit"), limit) || limit < 1)))
        return error_json("usage: walk PATH [--leaves a,b] [--limit N]");
    ParsedPath p;
    std::string err;
    if (!resolve(env.schema, a.pos[0], true, p, err)) return error_json(err);
    const SchemaNode *list = p.steps.back().node;

    std::vector<const SchemaNode *> leaves;
    if (a.has("--leaves")) {
        const std::string &names = a.opt.at("--leaves");
        size_t start = 0;
        while (start <= names.size()) {
            size_t comma = names.find(',', start);
            std::string name =
                names.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
            const SchemaNode *l = env.schema.child(list, name);
            if (!l || (l->kind != NodeKind::Leaf && l->kind != NodeKind::LeafList))
                return error_json("list " + list->name + " has no leaf " + json_quote(name));
            leaves.push_back(l);
            if (comma == std::string::npos) break;
            start = comma + 1;
        }
    } else {
        for (const SchemaNode *c : list->children)
            if (c->kind == NodeKind::Leaf && !c->is_key) leaves.push_back(c);
    }

    if (stored(env, list)) {
        std::vector<std::vector<Value>> entries;
        if (!stored_entries(env, a.pos[0], entries, err)) return error_json(err);
        if (entries.size() > static_cast<unsigned long long>(limit)) {
            failure = "walk of " + list->name + " stopped after " + std::to_string(limit) +
                      " rows (--limit)";
            return "";
        }
        std::string out = "[";
        for (size_t i = 0; i < entries.size(); i++) {
            ParsedPath entry = p;
            entry.steps.back().keys = entries[i];
            entry.steps.back().has_keys = true;
            entry.steps.push_back(PathStep{});
            std::string row = "{\"keys\":" + keys_json(entries[i]) + ",\"leaves\":{";
            bool first = true;
            for (const SchemaNode *leaf : leaves) {
                entry.steps.back().node = leaf;
                Value v;
                std::string lerr;
                int rc = env.ds->get_elem(0, pp_path(env.schema, entry), v, lerr);
                if (rc == CONFD_ERR_NOEXISTS) continue;
                row += (first ? "" : ",") + json_quote(leaf->name) + ":" +
                       (rc ? error_json(lerr) : value_to_json(v));
                first = false;
            }
            out += (i ? "," : "") + row + "}}";
        }
        return out + "]";
    }
    DpSession s(env.reg, env.schema, CONFD_READ, context_of(a));
    DpSession::Txn *t = s.txn_for(list, err);
    if (!t) return error_json(err);
    std::string out = "[";
    Cursor c;
    // The walk follows the daemon's cookies, as ConfD does. Keys may repeat while the cookie
    // advances (several tables of the router list the same keys more than once), so only a
    // cookie handed back a second time proves a loop.
    std::unordered_set<int64_t> cookies;
    for (long long rows = 0;; rows++) {
        DpReply r;
        if (!step_list(s, *t, list, p, c, r, err)) return error_json(err);
        if (r.kind == ReplyKind::NextEnd) break;
        if (rows >= limit) {
            failure = "walk of " + list->name + " stopped after " + std::to_string(limit) +
                      " rows (--limit)";
            return "";
        }
        if (r.next != -1 && !cookies.insert(r.next).second) {
            failure = "daemon " + t->route.daemon + " returned cookie " + std::to_string(r.next) +
                      " again after " + std::to_string(rows + 1) + " rows: the walk of " +
                      list->name + " does not advance";
            return "";
        }
        // Stepping by keys (find_next after the last ones), the same keys again are a loop.
        if (rows > 0 && c.use_find && keys_json(r.values) == keys_json(c.last_keys)) {
            failure = "daemon " + t->route.daemon + " returned the keys " + keys_json(r.values) +
                      " twice: the walk of " + list->name + " does not advance";
            return "";
        }

        ParsedPath entry = p;
        entry.steps.back().keys = r.values;
        entry.steps.back().has_keys = true;
        entry.steps.push_back(PathStep{});
        std::string row = "{\"keys\":" + keys_json(r.values) + ",\"leaves\":{";
        bool first = true;
        for (const SchemaNode *leaf : leaves) {
            entry.steps.back().node = leaf;
            std::string cell, lerr;
            DpSession::Txn *lt = s.txn_for(leaf, lerr);
            DpReply lr;
            if (!lt ||
                !s.data_call(*lt, leaf, DataCb::GetElem, to_hkeypath(entry), nullptr, lr, lerr)) {
                cell = error_json(lerr);
            } else if (lr.kind == ReplyKind::Value) {
                cell =
                    check_value(leaf, lr.value, lerr) ? value_to_json(lr.value) : error_json(lerr);
            } else if (lr.kind == ReplyKind::NotFound) {
                continue;
            } else if (lr.kind == ReplyKind::Error) {
                cell = error_json(lr.message.empty() ? "get_elem failed" : lr.message);
            } else {
                cell = error_json("reply of kind " + std::to_string(static_cast<int>(lr.kind)) +
                                  " to get_elem");
            }
            row += (first ? "" : ",") + json_quote(leaf->name) + ":" + cell;
            first = false;
        }
        out += (rows ? "," : "") + row + "}}";

        c.use_find = r.next == -1;
        c.cookie = r.next;
        c.last_keys = r.values;
    }
    return out + "]";
}

std::string cmd_set(CliEnv &env, const Args &a)
{
    if (a.pos.size() != 2) return error_json("usage: set PATH VALUE");
    ParsedPath p;
    std::string err;
    if (!resolve(env.schema, a.pos[0], false, p, err)) return error_json(err);
    const SchemaNode *leaf = p.steps.back().node;
    Value v;
    if (!value_from_text(leaf, a.pos[1], v, err)) return error_json(err);
    bool keep = stored(env, leaf);
    if (keep) {
        // Stored data is written and committed by the management plane itself; a registered
        // set hook is told of the write inside that transaction.
        const SchemaNode *owner = env.schema.callpoint_owner(leaf);
        Route route;
        std::string ignored;
        if (!owner || !env.reg.route(owner->callpoint, route, ignored))
        {
            Change c;
            c.path = a.pos[0];
            c.value = v;
            return commit_changes(env, a, {c});
        }
    }
    DpSession s(env.reg, env.schema, CONFD_READ_WRITE, context_of(a), user_of(a));
    DpSession::Txn *t = s.txn_for(leaf, err, true);
    if (!t) return error_json(err);
    if (env.ds) {
        // The datastore side of the daemon's transaction: what the daemon writes through MAAPI
        // while it runs goes there, and is committed with it.
        UserInfo u;
        u.user = user_of(a);
        u.context = context_of(a);
        u.usid = s.usid();
        if (env.ds->begin(t->thandle, CONFD_READ_WRITE, u, err)) return error_json(err);
    }
    if (!s.trans_call(*t, TransCb::TransLock, err)) return error_json(err);
    if (!s.trans_call(*t, TransCb::WriteStart, err)) {
        std::string ignored;
        if (!t->dead) s.trans_call(*t, TransCb::TransUnlock, ignored);
        return error_json(err);
    }
    DpReply r;
    bool ok = s.data_call(
        *t, leaf, DataCb::SetElem, to_hkeypath(p), [&](Writer &w) { w.value(v); }, r, err);
    if (ok && r.kind == ReplyKind::Error) {
        err = r.message.empty() ? "set_elem failed" : r.message;
        ok = false;
    }
    if (ok && keep) {
        int rc = env.ds->set_elem(t->thandle, a.pos[0], v, err);
        ok = rc == 0;
    }
    ok = ok && s.trans_call(*t, TransCb::Prepare, err);
    if (ok && env.ds)
        ok = commit_and_notify(env.reg, *env.ds, t->thandle, env.diff_timeout_ms, err) == 0;
    ok = ok && s.trans_call(*t, TransCb::Commit, err);
    if (!ok) {
        std::string ignored;
        if (!t->dead) s.trans_call(*t, TransCb::Abort, ignored);
        return error_json(err);
    }
    return kOk;
}

std::string cmd_fail(CliEnv &env, const Args &a)
{
    long long times = 1;
    if (a.pos.size() != 1 || a.pos[0].empty() ||
        (a.has("--times") && (!parse_int(a.opt.at("--times"), times) || times < 0)))
        return error_json("usage: fail OP [--times N]");
    env.reg.set_failure(a.pos[0], times > 1000000000 ? 1000000000 : static_cast<int>(times));
    return kOk;
}

// Position of the first (with last, the last) mark in arg outside braces, skipping quoted keys
// inside them; npos when there is none.
size_t outside_braces(const std::string &arg, char mark, bool last)
{
    size_t at = std::string::npos;
    int depth = 0;
    bool quoted = false;
    for (size_t i = 0; i < arg.size(); i++) {
        char c = arg[i];
        if (quoted) {
            if (c == '\\')
                i++;
            else if (c == '"')
                quoted = false;
        } else if (c == '"' && depth > 0) {
            quoted = true;
        } else if (c == '{') {
            depth++;
        } else if (c == '}') {
            depth--;
        } else if (c == mark && depth == 0) {
            at = i;
            if (!last) break;
        }
    }
    return at;
}

// "PATH=VALUE" split at the first '=' outside braces and quotes; false when there is none.
bool split_change(const std::string &arg, std::string &path, std::string &value)
{
    size_t eq = outside_braces(arg, '=', false);
    path = arg.substr(0, eq);
    if (eq == std::string::npos) return false;
    value = arg.substr(eq + 1);
    return true;
}

// The attribute numbers of ConfD by the names the command line takes.
bool attr_number(const std::string &name, uint32_t &out)
{
    static const std::map<std::string, uint32_t> attrs = {
        {"tags", 0x80000000u}, {"annotation", 0x80000001u}, {"inactive", 0u}};
    auto it = attrs.find(name);
    if (it == attrs.end()) return false;
    out = it->second;
    return true;
}

const char kCommitUsage[] =
    "usage: commit [--user U] CHANGE... where a CHANGE is PATH=VALUE, PATH (creates a list "
    "entry), !PATH (deletes the node), PATH^ or PATH^{KEYS} (moves a user-ordered entry first or "
    "after the entry with KEYS), PATH@ATTR=TEXT or !PATH@ATTR (sets or removes the attribute "
    "tags, annotation or inactive)";

// One command-line change in Change form; false with err.
bool parse_change(CliEnv &env, const std::string &arg, Change &c, std::string &err)
{
    std::string item = arg;
    bool negate = item.compare(0, 1, "!") == 0;
    if (negate) item = item.substr(1);
    // The marks count in the path only, before a value.
    std::string head, text;
    bool has_value = split_change(item, head, text);
    size_t at = outside_braces(head, '@', true), move = outside_braces(head, '^', true);
    bool ok = true;
    if (at != std::string::npos) {
        c.kind = Change::Attr;
        c.path = head.substr(0, at);
        c.has_text = has_value;
        c.text = text;
        ok = attr_number(head.substr(at + 1), c.attr) && has_value != negate;
    } else if (move != std::string::npos) {
        c.kind = Change::Move;
        c.path = head.substr(0, move);
        std::string keys = head.substr(move + 1);
        if (!keys.empty()) c.anchor = c.path.substr(0, c.path.rfind('{')) + keys;
        ok = !negate && !has_value;
    } else if (negate) {
        c.kind = Change::Delete;
        c.path = head;
        ok = !has_value;
    } else {
        c.kind = has_value ? Change::Set : Change::Create;
        c.path = head;
    }
    if (!ok) {
        err = arg + ": " + kCommitUsage;
        return false;
    }
    ParsedPath p;
    if (!parse_keypath(env.schema, c.path, p, err) || p.steps.empty()) {
        err = c.path + ": " + (err.empty() ? "empty path" : err);
        return false;
    }
    if (c.kind != Change::Set) return true;
    const SchemaNode *n = p.steps.back().node;
    if (n->kind != NodeKind::Leaf && n->kind != NodeKind::LeafList) {
        err = c.path + " is not a leaf";
        return false;
    }
    if (!value_from_text(n, text, c.value, err)) {
        err = c.path + ": " + err;
        return false;
    }
    return true;
}

std::string cmd_commit(CliEnv &env, const Args &a)
{
    if (a.pos.empty() || a.has("--msg")) return error_json(kCommitUsage);
    if (!env.ds) return error_json("no datastore");
    std::vector<Change> changes(a.pos.size());
    for (size_t i = 0; i < a.pos.size(); i++) {
        std::string err;
        if (!parse_change(env, a.pos[i], changes[i], err)) return error_json(err);
    }
    return commit_changes(env, a, changes);
}

std::string cmd_audit(CliEnv &env, const Args &a)
{
    if (a.pos.size() != 1) return error_json("usage: audit SYMBOL [--user U] [--msg TEXT]");
    int logno = log_symbol_number(a.pos[0]);
    if (logno < 0) return error_json("unknown log symbol " + a.pos[0]);
    const char *name = log_symbol_name(logno);
    std::string msg = a.has("--msg") ? a.opt.at("--msg") : std::string(name ? name : a.pos[0]);
    send_audit(env.reg, logno, user_of(a), msg, 0);
    return kOk;
}

const char *const kCommands =
    "get, next, walk, set, commit, audit, notifications, drop, fail, status";

} // namespace

std::string run_cli(CliEnv &env, const std::vector<std::string> &argv, std::string &failure)
{
    if (argv.empty()) return error_json(std::string("no command; commands: ") + kCommands);
    const std::string &cmd = argv[0];
    Args a;
    std::string err;
    std::set<std::string> valued, flags;
    if (cmd == "get")
        valued = {"--context"};
    else if (cmd == "set")
        valued = {"--context", "--user"};
    else if (cmd == "next")
        valued = {"--context", "--cookie"};
    else if (cmd == "walk")
        valued = {"--context", "--leaves", "--limit"};
    else if (cmd == "notifications")
        flags = {"--clear"};
    else if (cmd == "fail")
        valued = {"--times"};
    else if (cmd == "commit" || cmd == "audit")
        valued = {"--user", "--msg"};
    if (!parse_args(argv, valued, flags, a, err)) return error_json(err);

    if (cmd == "get") return cmd_get(env, a);
    if (cmd == "next") return cmd_next(env, a);
    if (cmd == "walk") return cmd_walk(env, a, failure);
    if (cmd == "set") return cmd_set(env, a);
    if (cmd == "notifications") {
        if (!a.pos.empty()) return error_json("usage: notifications [--clear]");
        return env.reg.notifications_json(a.has("--clear"));
    }
    if (cmd == "drop") {
        if (a.pos.size() != 1 || !env.reg.drop(a.pos[0]))
            return error_json("usage: drop control|worker|notifications");
        return kOk;
    }
    if (cmd == "fail") return cmd_fail(env, a);
    if (cmd == "status") {
        if (!a.pos.empty()) return error_json("usage: status");
        return env.reg.status_json();
    }
    if (cmd == "commit") return cmd_commit(env, a);
    if (cmd == "audit") return cmd_audit(env, a);
    return error_json("unknown command " + cmd + "; commands: " + kCommands);
}

} // namespace emu
