// Transactions towards data-provider daemons: TransInit, data and transaction callbacks, finish.
#include "dp_session.h"

#include <arpa/inet.h>
#include <cstdio>

#include "confd_lib.h"

namespace emu
{

using confd_wire::DataCb;
using confd_wire::Op;
using confd_wire::Reader;
using confd_wire::ReplyKind;
using confd_wire::TransCb;
using confd_wire::Writer;

const char *data_cb_name(DataCb cb)
{
    static const char *const names[] = {
        "exists_optional",  "get_elem",  "get_next",      "set_elem",   "create",
        "remove",           "find_next", "num_instances", "get_object", "get_next_object",
        "find_next_object", "get_case",  "set_case",      "get_attrs",  "set_attr",
        "move_after",       "write_all",
    };
    size_t i = static_cast<size_t>(cb);
    return i < sizeof names / sizeof names[0] ? names[i] : "data callback";
}

const char *trans_cb_name(TransCb cb)
{
    static const char *const names[] = {
        "init",  "trans_lock", "trans_unlock", "write_start", "prepare",
        "abort", "commit",     "finish",       "interrupt",
    };
    size_t i = static_cast<size_t>(cb);
    return i < sizeof names / sizeof names[0] ? names[i] : "transaction callback";
}

DpSession::DpSession(Registry &reg, const Schema &schema, int mode, std::string context,
                     std::string user)
    : reg_(reg), schema_(schema), mode_(mode), context_(std::move(context)), user_(std::move(user)),
      usid_(reg.new_usid())
{
}

DpSession::~DpSession()
{
    finish_all();
}

bool DpSession::request(Txn &txn, const ConnPtr &conn, uint32_t rid, const std::string &payload,
                        const char *what, DpReply &out, std::string &err)
{
    if (!usable(txn, conn, err)) return false;
    std::string reply;
    return settled(txn, reg_.call(conn, rid, payload, reply), what, err) &&
           decode(txn, reply, what, out, err);
}

bool DpSession::usable(Txn &txn, const ConnPtr &conn, std::string &err)
{
    if (!txn.dead && conn) return true;
    err = "daemon " + txn.route.daemon + " is gone";
    txn.dead = true;
    return false;
}

bool DpSession::settled(Txn &txn, CallStatus status, const char *what, std::string &err)
{
    switch (status) {
    case CallStatus::Replied:
        return true;
    case CallStatus::TimedOut:
        err = "daemon " + txn.route.daemon + " did not answer " + what + " within " +
              std::to_string(reg_.timeout_ms()) + " ms";
        txn.dead = true;
        // As the real management plane does with a provider that stops answering: it is
        // considered dead, its sockets are closed and its callpoints dropped.
        reg_.kill_daemon(txn.route.daemon_id, err);
        return false;
    case CallStatus::Closed:
        err = "daemon " + txn.route.daemon + " closed its connection during " + what;
        txn.dead = true;
        return false;
    case CallStatus::Stopped:
        err = "confd-emu is shutting down";
        txn.dead = true;
        return false;
    }
    return false;
}

bool DpSession::decode(Txn &txn, const std::string &reply, const char *what, DpReply &out,
                       std::string &err)
{
    Reader r(reply);
    r.op();
    r.u32(); // rid, matched already
    out = DpReply();
    out.kind = static_cast<ReplyKind>(r.u8());
    switch (out.kind) {
    case ReplyKind::Value:
        out.value = r.value();
        break;
    case ReplyKind::NextKey: {
        uint32_t n = r.u32();
        for (uint32_t i = 0; i < n && r.ok(); i++)
            out.values.push_back(r.value());
        out.next = r.i64();
        break;
    }
    case ReplyKind::ValueArray: {
        uint32_t n = r.u32();
        for (uint32_t i = 0; i < n && r.ok(); i++)
            out.values.push_back(r.value());
        break;
    }
    case ReplyKind::Error:
        out.result = r.i32();
        out.errcode = r.i32();
        out.message = r.str();
        break;
    case ReplyKind::TransInitDone:
        out.value.type = confd_wire::T_UINT32;
        out.value.u = r.u32();
        break;
    case ReplyKind::NextEnd:
        // The daemon's end-of-list cookie follows when it answered get_next.
        out.next = r.at_end() ? -1 : r.i64();
        break;
    case ReplyKind::NextRows: {
        uint32_t n = r.u32();
        for (uint32_t i = 0; i < n && r.ok(); i++) {
            DpReply row;
            row.kind = static_cast<ReplyKind>(r.u8());
            if (row.kind != ReplyKind::NextKey && (row.kind != ReplyKind::NextEnd || i + 1 < n)) {
                err = "daemon " + txn.route.daemon + " sent a malformed row list to " + what;
                return false;
            }
            uint32_t nk = row.kind == ReplyKind::NextKey ? r.u32() : 0;
            for (uint32_t k = 0; k < nk && r.ok(); k++)
                row.values.push_back(r.value());
            row.next = r.i64();
            out.rows.push_back(std::move(row));
        }
        break;
    }
    case ReplyKind::NotFound:
    case ReplyKind::Found:
    case ReplyKind::Done:
        break;
    default:
        err = "daemon " + txn.route.daemon + " sent an unknown reply kind " +
              std::to_string(static_cast<int>(out.kind)) + " to " + what;
        return false;
    }
    if (!r.ok()) {
        err = "daemon " + txn.route.daemon + " sent a malformed reply to " + what;
        return false;
    }
    return true;
}

DpSession::Txn *DpSession::txn_for(const SchemaNode *node, std::string &err, bool write)
{
    const SchemaNode *owner = schema_.callpoint_owner(node);
    if (!owner) {
        err = "no callpoint serves " + node->name;
        return nullptr;
    }
    if (owner->cpkind == CpKind::SetHook && !write) {
        err = node->name + " is stored configuration (set hook " + owner->callpoint +
              "), not served by a data provider";
        return nullptr;
    }
    Route route;
    if (!reg_.route(owner->callpoint, route, err)) return nullptr;
    auto found = txns_.find(route.daemon_id);
    if (found != txns_.end()) {
        if (found->second.dead) {
            err = "daemon " + route.daemon + " is gone";
            return nullptr;
        }
        return &found->second;
    }

    Txn txn;
    txn.route = route;
    txn.thandle = reg_.open_trans(route.daemon_id, mode_, err);
    if (txn.thandle == 0) return nullptr;
    uint32_t rid = reg_.new_rid();
    Writer w(Op::TransInit);
    w.u32(rid).u32(txn.thandle).u8(static_cast<uint8_t>(mode_)).u8(CONFD_RUNNING);
    // User info: the emulator's sessions come from the local host.
    const unsigned char lo[4] = {127, 0, 0, 1};
    w.str(user_).str(context_).u8(CONFD_PROTO_TCP).u8(AF_INET);
    w.str(std::string(reinterpret_cast<const char *>(lo), 4));
    w.u16(0).i32(usid_).str("");
    w.u32(0); // snmp request id
    DpReply rep;
    std::string what = "the transaction init";
    if (!request(txn, route.control, rid, w.payload(), what.c_str(), rep, err)) {
        reg_.close_trans(txn.thandle);
        return nullptr;
    }
    if (rep.kind == ReplyKind::Error) {
        err =
            rep.message.empty() ? "transaction init failed in daemon " + route.daemon : rep.message;
        reg_.close_trans(txn.thandle);
        return nullptr;
    }
    if (rep.kind != ReplyKind::TransInitDone) {
        err = "daemon " + route.daemon + " answered the transaction init without naming a worker";
        reg_.close_trans(txn.thandle);
        return nullptr;
    }
    txn.worker = reg_.worker(route.daemon_id, static_cast<uint32_t>(rep.value.u));
    if (!txn.worker) {
        err = "daemon " + route.daemon + " named worker " + std::to_string(rep.value.u) +
              ", which is not connected";
        // The library holds the transaction now; finishing it needs a worker, so it stays behind.
        reg_.close_trans(txn.thandle);
        return nullptr;
    }
    return &txns_.emplace(route.daemon_id, std::move(txn)).first->second;
}

bool DpSession::trans_call(Txn &txn, TransCb cb, std::string &err)
{
    uint32_t rid = reg_.new_rid();
    Writer w(Op::TransCall);
    w.u32(rid).u32(txn.thandle).u8(static_cast<uint8_t>(cb));
    DpReply rep;
    if (!request(txn, txn.worker, rid, w.payload(), trans_cb_name(cb), rep, err)) return false;
    if (rep.kind == ReplyKind::Error) {
        err = rep.message.empty()
                  ? std::string(trans_cb_name(cb)) + " failed in daemon " + txn.route.daemon
                  : rep.message;
        return false;
    }
    if (cb == TransCb::WriteStart) txn.write_started = true;
    return true;
}

bool DpSession::data_call(Txn &txn, const SchemaNode *node, DataCb cb,
                          const confd_wire::KeyPath &kp, const std::function<void(Writer &)> &extra,
                          DpReply &out, std::string &err)
{
    std::string cp;
    if (!served(txn, node, cb, cp, err)) return false;
    uint32_t rid = reg_.new_rid();
    Writer w(Op::DataCall);
    w.u32(rid).u32(txn.thandle).u8(static_cast<uint8_t>(cb)).str(cp).keypath(kp);
    if (extra) extra(w);
    return request(txn, txn.worker, rid, w.payload(), data_cb_name(cb), out, err);
}

bool DpSession::served(Txn &txn, const SchemaNode *node, DataCb cb, std::string &cp,
                       std::string &err)
{
    const SchemaNode *owner = schema_.callpoint_owner(node);
    cp = owner ? owner->callpoint : std::string();
    Route route;
    std::string ignored;
    uint32_t mask = txn.route.data_mask;
    if (reg_.route(cp, route, ignored) && route.daemon_id == txn.route.daemon_id)
        mask = route.data_mask;
    if (mask & (1u << static_cast<unsigned>(cb))) return true;
    err = "callpoint " + cp + " of daemon " + txn.route.daemon + " has no " + data_cb_name(cb) +
          " callback";
    return false;
}

bool DpSession::get_elems(Txn &txn, const SchemaNode *leaf,
                          const std::vector<confd_wire::KeyPath> &kps, std::vector<DpReply> &out,
                          std::string &err)
{
    out.assign(kps.size(), DpReply());
    std::string cp;
    if (!served(txn, leaf, DataCb::GetElem, cp, err) || !usable(txn, txn.worker, err)) return false;
    // Every request goes out, with one send(), before the first answer is awaited: the daemon
    // reads them with one recv and answers them together, so the batch costs one round trip.
    std::vector<Registry::Request> reqs;
    for (const confd_wire::KeyPath &kp : kps) {
        uint32_t rid = reg_.new_rid();
        Writer w(Op::DataCall);
        w.u32(rid).u32(txn.thandle).u8(static_cast<uint8_t>(DataCb::GetElem)).str(cp).keypath(kp);
        reqs.emplace_back(rid, w.payload());
    }
    CallStatus failed;
    if (!reg_.send_requests(txn.worker, reqs, failed)) return settled(txn, failed, "get_elem", err);
    // Every answer is collected, also after a failure, so that no request stays registered (a
    // dead daemon's are failed at once).
    bool ok = true;
    for (size_t i = 0; i < reqs.size(); i++) {
        std::string reply;
        CallStatus st = reg_.await_reply(reqs[i].first, reply);
        if (ok)
            ok = settled(txn, st, "get_elem", err) && decode(txn, reply, "get_elem", out[i], err);
    }
    return ok;
}

void DpSession::finish(Txn &txn)
{
    if (!txn.dead) {
        std::string err;
        if (!trans_call(txn, TransCb::Finish, err))
            std::fprintf(stderr, "confd-emu: finish of transaction %u: %s\n", txn.thandle,
                         err.c_str());
    }
    reg_.close_trans(txn.thandle);
}

void DpSession::finish_all()
{
    for (auto &t : txns_)
        finish(t.second);
    txns_.clear();
}

} // namespace emu
