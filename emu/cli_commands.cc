// The commands of confd-emu-cli: get, next, walk, set, notifications, drop, fail, status, ...
#include "cli_commands.h"

#include <cerrno>
#include <cstdlib>
#include <map>
#include <set>

#include "confd_lib.h"
#include "dp_session.h"
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

std::string cmd_get(CliEnv &env, const Args &a)
{
    if (a.pos.size() != 1) return error_json("usage: get PATH");
    ParsedPath p;
    std::string err;
    if (!resolve(env.schema, a.pos[0], false, p, err)) return error_json(err);
    const SchemaNode *leaf = p.steps.back().node;
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
    DpSession s(env.reg, env.schema, CONFD_READ, context_of(a));
    DpSession::Txn *t = s.txn_for(list, err);
    if (!t) return error_json(err);
    Cursor c;
    c.cookie = cookie;
    DpReply r;
    if (!step_list(s, *t, list, p, c, r, err)) return error_json(err);
    if (r.kind == ReplyKind::NextEnd) return "{\"keys\":null,\"next\":-1}";
    return "{\"keys\":" + keys_json(r.values) + ",\"next\":" + std::to_string(r.next) + "}";
}

std::string cmd_walk(CliEnv &env, const Args &a)
{
    if (a.pos.size() != 1) return error_json("usage: walk PATH [--leaves a,b]");
    ParsedPath p;
    std::string err;
    if (!resolve(env.schema, a.pos[0], true, p, err)) return error_json(err);
    const SchemaNode *list = p.steps.back().node;

    std::vector<const SchemaNode *> leaves;
    if (a.has("--leaves")) {
        const std::string &spec = a.opt.at("--leaves");
        size_t start = 0;
        while (start <= spec.size()) {
            size_t comma = spec.find(',', start);
            std::string name =
                spec.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
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

    DpSession s(env.reg, env.schema, CONFD_READ, context_of(a));
    DpSession::Txn *t = s.txn_for(list, err);
    if (!t) return error_json(err);
    std::string out = "[";
    Cursor c;
    for (size_t rows = 0;; rows++) {
        DpReply r;
        if (!step_list(s, *t, list, p, c, r, err)) return error_json(err);
        if (r.kind == ReplyKind::NextEnd) break;
        if (rows >= env.walk_limit)
            return error_json("walk of " + list->name + " stopped after " +
                              std::to_string(env.walk_limit) + " rows");
        // A daemon that hands back the cookie it was given, or the keys it gave last, would make
        // the walk go round forever.
        if (r.next != -1 && !c.use_find && r.next == c.cookie)
            return error_json("daemon " + t->route.daemon + " returned cookie " +
                              std::to_string(r.next) + " again: the walk of " + list->name +
                              " does not advance");
        if (rows > 0 && keys_json(r.values) == keys_json(c.last_keys))
            return error_json("daemon " + t->route.daemon + " returned the keys " +
                              keys_json(r.values) + " twice: the walk of " + list->name +
                              " does not advance");

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
    DpSession s(env.reg, env.schema, CONFD_READ_WRITE, context_of(a));
    DpSession::Txn *t = s.txn_for(leaf, err, true);
    if (!t) return error_json(err);
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
    ok = ok && s.trans_call(*t, TransCb::Prepare, err) && s.trans_call(*t, TransCb::Commit, err);
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

const char *const kCommands =
    "get, next, walk, set, commit, audit, notifications, drop, fail, status";

} // namespace

std::string run_cli(CliEnv &env, const std::vector<std::string> &argv)
{
    if (argv.empty()) return error_json(std::string("no command; commands: ") + kCommands);
    const std::string &cmd = argv[0];
    Args a;
    std::string err;
    std::set<std::string> valued, flags;
    if (cmd == "get" || cmd == "set")
        valued = {"--context"};
    else if (cmd == "next")
        valued = {"--context", "--cookie"};
    else if (cmd == "walk")
        valued = {"--context", "--leaves"};
    else if (cmd == "notifications")
        flags = {"--clear"};
    else if (cmd == "fail")
        valued = {"--times"};
    else if (cmd == "commit" || cmd == "audit")
        valued = {"--user", "--msg"};
    if (!parse_args(argv, valued, flags, a, err)) return error_json(err);

    if (cmd == "get") return cmd_get(env, a);
    if (cmd == "next") return cmd_next(env, a);
    if (cmd == "walk") return cmd_walk(env, a);
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
    if (cmd == "commit" || cmd == "audit") return error_json("not implemented");
    return error_json("unknown command " + cmd + "; commands: " + kCommands);
}

} // namespace emu
