// The MAAPI requests of one connection: user sessions, transactions, reads, writes, cursors, XPath, diffs.
#include "maapi_service.h"

#include <algorithm>

#include "confd_lib.h"
#include "events.h"
#include "schema_payload.h"

namespace emu
{

using confd_wire::MaapiOp;
using confd_wire::Op;
using confd_wire::Reader;
using confd_wire::Value;
using confd_wire::Writer;

namespace
{

std::string err_frame(int code, const std::string &msg)
{
    return Writer(Op::Err).i32(code).str(msg).payload();
}

// Reads u32 n and n values; false for more values than any list has keys.
bool read_values(Reader &r, std::vector<Value> &out)
{
    uint32_t n = r.u32();
    if (n > 64) return false;
    for (uint32_t i = 0; i < n && r.ok(); i++)
        out.push_back(r.value());
    return r.ok();
}

void write_values(Writer &w, const std::vector<Value> &vals)
{
    w.u32(static_cast<uint32_t>(vals.size()));
    for (const Value &v : vals)
        w.value(v);
}

} // namespace

const char *MaapiService::op_name(uint8_t op)
{
    switch (static_cast<MaapiOp>(op)) {
    case MaapiOp::Attach: return "attach";
    case MaapiOp::Detach: return "detach";
    case MaapiOp::LoadSchemas: return "load_schemas";
    case MaapiOp::StartUserSession: return "start_user_session";
    case MaapiOp::EndUserSession: return "end_user_session";
    case MaapiOp::StartTrans: return "start_trans";
    case MaapiOp::FinishTrans: return "finish_trans";
    case MaapiOp::ApplyTrans: return "apply_trans";
    case MaapiOp::SetNamespace: return "set_namespace";
    case MaapiOp::GetElem: return "get_elem";
    case MaapiOp::Exists: return "exists";
    case MaapiOp::NumInstances: return "num_instances";
    case MaapiOp::InitCursor: return "init_cursor";
    case MaapiOp::GetNext: return "get_next";
    case MaapiOp::FindNext: return "find_next";
    case MaapiOp::SetElem: return "set_elem";
    case MaapiOp::SetElemText: return "set_elem2";
    case MaapiOp::Create: return "create";
    case MaapiOp::Delete: return "delete";
    case MaapiOp::XPathEvalExpr: return "xpath_eval";
    case MaapiOp::XPathEval: return "xpath_eval";
    case MaapiOp::DiffIterate: return "diff_iterate";
    }
    return nullptr;
}

MaapiService::MaapiService(Registry &reg, Datastore &ds, const Schema &schema, ConnPtr conn,
                           int diff_timeout_ms)
    : reg_(reg), ds_(ds), schema_(schema), conn_(std::move(conn)),
      diff_timeout_ms_(diff_timeout_ms)
{
}

MaapiService::~MaapiService()
{
    while (!own_.empty())
        finish(own_.begin()->first);
}

void MaapiService::finish(uint32_t th)
{
    own_.erase(th);
    ns_.erase(th);
    reg_.close_trans(th); // the datastore forgets it through the registry's hook
    ds_.end(th);
}

int MaapiService::access(uint32_t th, std::string &err)
{
    if (own_.count(th)) return 0;
    int mode = reg_.trans_mode(th);
    if (mode < 0) {
        err = "no transaction " + std::to_string(th);
        return CONFD_ERR_NOEXISTS;
    }
    if (!reg_.attached(th, conn_->id())) {
        err = "transaction " + std::to_string(th) + " is not attached on this socket";
        return CONFD_ERR_BADSTATE;
    }
    // A daemon's transaction gets its datastore side when MAAPI first uses it.
    ds_.adopt(th, mode);
    return 0;
}

std::string MaapiService::in_ns(uint32_t th, const std::string &path) const
{
    auto it = ns_.find(th);
    if (it == ns_.end() || path.size() < 2 || path[0] != '/') return path;
    size_t end = path.find_first_of("/{", 1);
    if (path.substr(1, end == std::string::npos ? std::string::npos : end - 1).find(':') !=
        std::string::npos)
        return path;
    // Only a name the namespace has is put in it; others resolve as they are.
    const Schema::Ns *ns = schema_.ns_by_hash(it->second);
    if (!ns) return path;
    std::string prefixed = ns->prefix + ":" + path.substr(1, end == std::string::npos ? end : end - 1);
    return schema_.top(prefixed) ? "/" + ns->prefix + ":" + path.substr(1) : path;
}

std::string MaapiService::handle(uint8_t opnum, Reader &r)
{
    Writer ok(Op::Ok);
    std::string err;
    int rc = 0;
    auto malformed = [&] { return err_frame(CONFD_ERR_PROTOUSAGE, "malformed MAAPI request"); };
    switch (static_cast<MaapiOp>(opnum)) {
    case MaapiOp::Attach: {
        uint32_t th = r.u32();
        int32_t ns = r.i32();
        r.i32(); // user session: the transaction's own
        if (!r.ok()) return malformed();
        if ((rc = reg_.attach(th, conn_->id(), err))) break;
        if (ns > 0) ns_[th] = static_cast<uint32_t>(ns);
        break;
    }
    case MaapiOp::Detach: {
        uint32_t th = r.u32();
        if (!r.ok()) return malformed();
        if (!(rc = reg_.detach(th, conn_->id(), err)) && !own_.count(th)) ns_.erase(th);
        break;
    }
    case MaapiOp::LoadSchemas:
        write_schema(schema_, ok);
        break;
    case MaapiOp::StartUserSession: {
        UserInfo u;
        u.user = r.str();
        u.context = r.str();
        uint32_t ngroups = r.u32();
        for (uint32_t i = 0; i < ngroups && r.ok() && i < 1024; i++)
            r.str();
        r.u8(); // address family: the address length tells
        u.ip = r.str();
        u.port = r.u16();
        u.proto = r.u8();
        for (int i = 0; i < 4; i++)
            r.str(); // vendor, product, version, client id
        if (!r.ok() || ngroups >= 1024 || (u.ip.size() != 4 && u.ip.size() != 16))
            return malformed();
        u.usid = reg_.new_usid();
        sessions_[u.usid] = u;
        current_ = u.usid;
        ok.i32(u.usid);
        break;
    }
    case MaapiOp::EndUserSession: {
        if (!current_) {
            rc = CONFD_ERR_NOSESSION;
            err = "no user session on this socket";
            break;
        }
        // The session's transactions end with it.
        for (auto it = own_.begin(); it != own_.end();) {
            uint32_t th = it->first;
            bool mine = it->second == current_;
            ++it;
            if (mine) finish(th);
        }
        sessions_.erase(current_);
        current_ = sessions_.empty() ? 0 : sessions_.rbegin()->first;
        break;
    }
    case MaapiOp::StartTrans: {
        uint8_t db = r.u8(), mode = r.u8();
        int32_t usid = r.i32();
        r.i32(); // flags
        for (int i = 0; i < 4; i++)
            r.str();
        if (!r.ok()) return malformed();
        int32_t s = usid ? usid : current_;
        auto sess = sessions_.find(s);
        if (sess == sessions_.end()) {
            rc = CONFD_ERR_NOSESSION;
            err = s ? "no user session " + std::to_string(s) + " on this socket"
                    : "no user session on this socket";
            break;
        }
        if (db != CONFD_RUNNING && db != CONFD_OPERATIONAL) {
            rc = CONFD_ERR_PROTOUSAGE;
            err = "datastore " + std::to_string(db) + " is not kept; use running or operational";
            break;
        }
        if (mode != CONFD_READ && mode != CONFD_READ_WRITE) {
            rc = CONFD_ERR_PROTOUSAGE;
            err = "bad transaction mode " + std::to_string(mode);
            break;
        }
        if (own_.size() >= kMaxOwnTrans) {
            rc = CONFD_ERR_TOOMANYTRANS;
            err = "too many open transactions on this socket (" + std::to_string(kMaxOwnTrans) +
                  ")";
            break;
        }
        uint32_t th = reg_.open_trans(0, mode, err);
        if (th == 0) {
            rc = CONFD_ERR_TOOMANYTRANS;
            break;
        }
        if ((rc = ds_.begin(th, mode, sess->second, err))) {
            reg_.close_trans(th);
            break;
        }
        own_[th] = s;
        ok.u32(th);
        break;
    }
    case MaapiOp::FinishTrans: {
        uint32_t th = r.u32();
        if (!r.ok()) return malformed();
        if (!own_.count(th)) {
            rc = (rc = access(th, err)) ? rc : CONFD_ERR_BADSTATE;
            if (rc == CONFD_ERR_BADSTATE)
                err = "transaction " + std::to_string(th) + " was not started on this socket";
            break;
        }
        finish(th);
        break;
    }
    case MaapiOp::ApplyTrans: {
        uint32_t th = r.u32();
        r.u8(); // keepopen: the transaction stays open until finished either way
        if (!r.ok()) return malformed();
        if (!own_.count(th)) {
            rc = (rc = access(th, err)) ? rc : CONFD_ERR_BADSTATE;
            if (rc == CONFD_ERR_BADSTATE)
                err = "transaction " + std::to_string(th) + " was not started on this socket";
            break;
        }
        rc = commit_and_notify(reg_, ds_, th, diff_timeout_ms_, err);
        break;
    }
    case MaapiOp::SetNamespace: {
        uint32_t th = r.u32(), ns = r.u32();
        if (!r.ok()) return malformed();
        if ((rc = access(th, err))) break;
        if (!schema_.ns_by_hash(ns)) {
            rc = CONFD_ERR_NOEXISTS;
            err = "unknown namespace " + std::to_string(ns);
            break;
        }
        ns_[th] = ns;
        break;
    }
    case MaapiOp::GetElem:
    case MaapiOp::Exists:
    case MaapiOp::NumInstances:
    case MaapiOp::InitCursor:
    case MaapiOp::Create:
    case MaapiOp::Delete: {
        uint32_t th = r.u32();
        std::string path = r.str();
        if (!r.ok()) return malformed();
        if ((rc = access(th, err))) break;
        path = in_ns(th, path);
        switch (static_cast<MaapiOp>(opnum)) {
        case MaapiOp::GetElem: {
            Value v;
            if (!(rc = ds_.get_elem(th, path, v, err))) ok.value(v);
            break;
        }
        case MaapiOp::Exists: {
            bool e = false;
            if (!(rc = ds_.exists(th, path, e, err))) ok.u8(e ? 1 : 0);
            break;
        }
        case MaapiOp::NumInstances: {
            uint32_t n = 0;
            if (!(rc = ds_.num_instances(th, path, n, err))) ok.u32(n);
            break;
        }
        case MaapiOp::InitCursor: {
            std::vector<Value> first;
            rc = ds_.next_keys(th, path, nullptr, false, first, err);
            break;
        }
        case MaapiOp::Create:
            rc = ds_.create(th, path, err);
            break;
        default:
            rc = ds_.remove(th, path, err);
            break;
        }
        break;
    }
    case MaapiOp::GetNext:
    case MaapiOp::FindNext: {
        uint32_t th = r.u32();
        std::string path = r.str();
        bool or_same = false;
        if (static_cast<MaapiOp>(opnum) == MaapiOp::FindNext)
            or_same = r.u8() == CONFD_FIND_SAME_OR_NEXT;
        std::vector<Value> after;
        if (!read_values(r, after)) return malformed();
        if ((rc = access(th, err))) break;
        std::vector<Value> keys;
        if (!(rc = ds_.next_keys(th, in_ns(th, path), after.empty() ? nullptr : &after, or_same,
                                 keys, err)))
            write_values(ok, keys);
        break;
    }
    case MaapiOp::SetElem:
    case MaapiOp::SetElemText: {
        uint32_t th = r.u32();
        std::string path = r.str();
        Value v;
        std::string text;
        if (static_cast<MaapiOp>(opnum) == MaapiOp::SetElem)
            v = r.value();
        else
            text = r.str();
        if (!r.ok()) return malformed();
        if ((rc = access(th, err))) break;
        path = in_ns(th, path);
        rc = static_cast<MaapiOp>(opnum) == MaapiOp::SetElem ? ds_.set_elem(th, path, v, err)
                                                             : ds_.set_elem_text(th, path, text, err);
        break;
    }
    case MaapiOp::XPathEvalExpr:
    case MaapiOp::XPathEval: {
        uint32_t th = r.u32();
        std::string expr = r.str(), ctx = r.str();
        if (!r.ok()) return malformed();
        if ((rc = access(th, err))) break;
        if (!ctx.empty()) ctx = in_ns(th, ctx);
        if (static_cast<MaapiOp>(opnum) == MaapiOp::XPathEvalExpr) {
            bool found = false;
            std::string text;
            if (!(rc = ds_.xpath_string(th, expr, ctx, found, text, err)))
                ok.u8(found ? 1 : 0).str(text);
        } else {
            std::vector<std::pair<confd_wire::KeyPath, Value>> nodes;
            if (!(rc = ds_.xpath_nodes(th, expr, ctx, nodes, err))) {
                ok.u32(static_cast<uint32_t>(nodes.size()));
                for (const auto &n : nodes)
                    ok.keypath(n.first).value(n.second);
            }
        }
        break;
    }
    case MaapiOp::DiffIterate: {
        uint32_t th = r.u32();
        std::string sub = r.str();
        // Of the flags only ITER_WANT_ATTR matters: attribute changes are left out without it.
        bool want_attr = (r.i32() & ITER_WANT_ATTR) != 0;
        if (!r.ok()) return malformed();
        if ((rc = access(th, err))) break;
        std::vector<DiffItem> items;
        if (!(rc = ds_.diff(th, sub.empty() ? sub : in_ns(th, sub), items, err))) {
            if (!want_attr)
                items.erase(std::remove_if(items.begin(), items.end(),
                                           [](const DiffItem &d) { return d.op == MOP_ATTR_SET; }),
                            items.end());
            ok.u32(static_cast<uint32_t>(items.size()));
            for (const DiffItem &d : items)
                ok.u8(static_cast<uint8_t>(d.op)).u32(d.depth).keypath(d.kp).value(d.value);
        }
        break;
    }
    default:
        return err_frame(CONFD_ERR_PROTOUSAGE,
                         "MAAPI operation " + std::to_string(opnum) + " is not supported");
    }
    if (rc) return err_frame(rc, err.empty() ? "failed" : err);
    return ok.payload();
}

} // namespace emu
