// Data-provider daemon: contexts, connecting the control and worker sockets, registrations, request dispatch.
#include <cerrno>
#include <cstring>
#include <sys/socket.h>

#include "dp_internal.h"
#include "lib_core.h"
#include "pathtext.h"

using confd_wire::DataCb;
using confd_wire::Op;
using confd_wire::Reader;
using confd_wire::ReplyKind;
using confd_wire::TransCb;
using confd_wire::Writer;

namespace libconfd {

namespace {

const char *const kDataCbNames[] = {
    "exists_optional", "get_elem",   "get_next",    "set_elem",         "create",
    "remove",          "find_next",  "num_instances", "get_object",     "get_next_object",
    "find_next_object", "get_case",  "set_case",    "get_attrs",        "set_attr",
    "move_after",      "write_all",
};
constexpr int kNumDataCbs = sizeof kDataCbNames / sizeof kDataCbNames[0];

const char *const kTransCbNames[] = {
    "init", "trans_lock", "trans_unlock", "write_start", "prepare",
    "abort", "commit",    "finish",       "interrupt",
};
constexpr int kNumTransCbs = sizeof kTransCbNames / sizeof kTransCbNames[0];

uint32_t trans_mask(const struct confd_trans_cbs &t)
{
    const void *cbs[] = {
        reinterpret_cast<const void *>(t.init),        reinterpret_cast<const void *>(t.trans_lock),
        reinterpret_cast<const void *>(t.trans_unlock), reinterpret_cast<const void *>(t.write_start),
        reinterpret_cast<const void *>(t.prepare),     reinterpret_cast<const void *>(t.abort),
        reinterpret_cast<const void *>(t.commit),      reinterpret_cast<const void *>(t.finish),
        reinterpret_cast<const void *>(t.interrupt),
    };
    uint32_t mask = 0;
    for (int i = 0; i < kNumTransCbs; i++)
        if (cbs[i] != nullptr)
            mask |= 1u << i;
    return mask;
}

uint32_t data_mask(const struct confd_data_cbs &d)
{
    const void *cbs[] = {
        reinterpret_cast<const void *>(d.exists_optional),
        reinterpret_cast<const void *>(d.get_elem),
        reinterpret_cast<const void *>(d.get_next),
        reinterpret_cast<const void *>(d.set_elem),
        reinterpret_cast<const void *>(d.create),
        reinterpret_cast<const void *>(d.remove),
        reinterpret_cast<const void *>(d.find_next),
        reinterpret_cast<const void *>(d.num_instances),
        reinterpret_cast<const void *>(d.get_object),
        reinterpret_cast<const void *>(d.get_next_object),
        reinterpret_cast<const void *>(d.find_next_object),
        reinterpret_cast<const void *>(d.get_case),
        reinterpret_cast<const void *>(d.set_case),
        reinterpret_cast<const void *>(d.get_attrs),
        reinterpret_cast<const void *>(d.set_attr),
        reinterpret_cast<const void *>(d.move_after),
        reinterpret_cast<const void *>(d.write_all),
    };
    uint32_t mask = 0;
    for (int i = 0; i < kNumDataCbs; i++)
        if (cbs[i] != nullptr)
            mask |= 1u << i;
    return mask;
}

std::string callpoint_of(const struct confd_data_cbs &d)
{
    return std::string(d.callpoint, strnlen(d.callpoint, sizeof d.callpoint));
}

int send_reg_trans(DaemonState *st)
{
    Writer w(Op::RegTrans);
    w.u32(trans_mask(st->trans_cbs));
    std::string answer;
    return request(st->ctl_fd, w.payload(), answer, "register transaction callbacks");
}

int send_reg_data(DaemonState *st, const struct confd_data_cbs &d)
{
    Writer w(Op::RegData);
    std::string cp = callpoint_of(d);
    w.str(cp).u32(data_mask(d));
    std::string answer;
    std::string what = "register callpoint " + cp;
    return request(st->ctl_fd, w.payload(), answer, what.c_str());
}

// A request the library cannot serve: tell the server (so it does not wait)
// and report a protocol error to the caller of confd_fd_ready().
int reject(int fd, uint32_t rid, const std::string &text)
{
    Writer w = reply_frame(rid, ReplyKind::Error);
    w.i32(CONFD_ERR).i32(CONFD_ERRCODE_PROTO_USAGE).str(text);
    send_payload(fd, w.payload());
    logf(CONFD_DEBUG, "%s", text.c_str());
    return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s", text.c_str());
}


// Ends a transaction callback: reply by its result, free the context when
// the transaction is over, and turn the result into fd_ready's.
int after_trans_cb(struct confd_daemon_ctx *dx, struct confd_trans_ctx *tctx, int cb, int ret)
{
    DaemonState *st = daemon_state(dx);
    TransState *ts = trans_state(tctx);
    bool ends = cb == kTransBase + static_cast<int>(TransCb::Finish);
    if (ret == CONFD_DELAYED_RESPONSE) {
        ts->free_after_reply = ends;
        return CONFD_OK;
    }
    int result = CONFD_OK;
    if (ret == CONFD_OK && cb == kTransBase + static_cast<int>(TransCb::Init) &&
        st->workers.count(tctx->fd) == 0) {
        std::string text = "init() did not choose a worker socket of this daemon "
                           "with confd_trans_set_fd()";
        reject(ts->pending.fd, ts->pending.rid, text);
        ts->pending.active = false;
        free_trans(tctx);
        return CONFD_ERR;
    }
    if (ret == CONFD_OK) {
        if (ts->pending.active && deliver(tctx, trans_ok_reply(tctx, ts->pending.rid, cb)) != CONFD_OK)
            result = CONFD_ERR;
    } else {
        std::string text;
        std::string fallback = std::string(cb_name(cb)) + "() failed";
        std::string payload = error_reply(ts->pending.rid, ret, tctx, fallback, text);
        bool was_pending = ts->pending.active;
        if (was_pending && deliver(tctx, payload) != CONFD_OK)
            result = CONFD_ERR;
        else
            result = confd_lib_fail(CONFD_ERR_EXTERNAL, "%s", text.c_str());
        // A transaction whose init failed does not exist for ConfD.
        if (cb == kTransBase + static_cast<int>(TransCb::Init))
            ends = true;
    }
    if (ends)
        free_trans(tctx);
    return result;
}

int serve_trans_init(struct confd_daemon_ctx *dx, DaemonState *st, int fd, Reader &rd)
{
    uint32_t rid = rd.u32();
    uint32_t thandle = rd.u32();
    uint8_t mode = rd.u8();
    uint8_t dbname = rd.u8();
    confd_user_info uinfo;
    read_user_info(rd, uinfo);
    uint32_t snmp_rid = rd.u32();
    if (!rd.ok() || (mode != CONFD_READ && mode != CONFD_READ_WRITE) ||
        dbname > CONFD_PRE_COMMIT_RUNNING)
        return reject(fd, rid, "malformed TransInit request");
    if (fd != st->ctl_fd)
        return reject(fd, rid, "TransInit arrived on a worker socket");
    if (!st->have_trans_cbs || st->trans_cbs.init == nullptr)
        return reject(fd, rid, "the daemon registered no init() transaction callback");
    int th = static_cast<int>(thandle);
    auto old = st->transactions.find(th);
    if (old != st->transactions.end())
        free_trans(old->second); // ConfD reuses a handle only after the old transaction ended
    struct confd_trans_ctx *tctx = new_trans(dx);
    TransState *ts = trans_state(tctx);
    ts->uinfo = uinfo;
    tctx->mode = static_cast<enum confd_trans_mode>(mode);
    tctx->dbname = static_cast<enum confd_dbname>(dbname);
    tctx->thandle = th;
    tctx->request_data.snmp.request_id = snmp_rid;
    st->transactions[th] = tctx;
    int cb = kTransBase + static_cast<int>(TransCb::Init);
    ts->pending = Pending{true, rid, fd, cb};
    logf(CONFD_TRACE, "CALL init(thandle=%d, user=%s, db=%d)", th, uinfo.username, dbname);
    int ret = st->trans_cbs.init(tctx);
    return after_trans_cb(dx, tctx, cb, ret);
}

int serve_trans_call(struct confd_daemon_ctx *dx, DaemonState *st, int fd, Reader &rd)
{
    uint32_t rid = rd.u32();
    int th = static_cast<int>(rd.u32());
    uint8_t which = rd.u8();
    if (!rd.ok() || which >= kNumTransCbs || which == static_cast<uint8_t>(TransCb::Init))
        return reject(fd, rid, "malformed TransCall request");
    auto it = st->transactions.find(th);
    if (it == st->transactions.end())
        return reject(fd, rid, "TransCall for unknown transaction " + std::to_string(th));
    struct confd_trans_ctx *tctx = it->second;
    TransState *ts = trans_state(tctx);
    int cb = kTransBase + which;
    ts->pending = Pending{true, rid, fd, cb};
    logf(CONFD_TRACE, "CALL %s(thandle=%d)", cb_name(cb), th);
    const struct confd_trans_cbs &t = st->trans_cbs;
    int (*fn)(struct confd_trans_ctx *) = nullptr;
    switch (static_cast<TransCb>(which)) {
    case TransCb::TransLock: fn = t.trans_lock; break;
    case TransCb::TransUnlock: fn = t.trans_unlock; break;
    case TransCb::WriteStart: fn = t.write_start; break;
    case TransCb::Prepare: fn = t.prepare; break;
    case TransCb::Abort: fn = t.abort; break;
    case TransCb::Commit: fn = t.commit; break;
    case TransCb::Finish: fn = t.finish; break;
    case TransCb::Interrupt:
        if (t.interrupt != nullptr)
            t.interrupt(tctx);
        break;
    default: break;
    }
    // A callback the daemon did not register answers CONFD_OK.
    int ret = fn != nullptr ? fn(tctx) : CONFD_OK;
    return after_trans_cb(dx, tctx, cb, ret);
}

// Most rows one get_next request may ask for.
constexpr uint32_t kMaxRows = 1024;

// Arguments of a data callback beyond tctx and the keypath.
struct DataArgs {
    long next = -1;
    uint32_t rows = 1; // get_next: entries wanted in one answer
    confd_value_t v1{}, v2{};
    uint8_t find_type = 0;
    confd_value_t *keys = nullptr;
    int nkeys = 0;
    std::vector<uint32_t> attrs;
    uint32_t attr = 0;
};

bool read_value(Reader &rd, confd_value_t &out, ValueStore &store, std::string &err)
{
    confd_wire::Value w = rd.value();
    if (!rd.ok()) {
        err = "truncated value";
        return false;
    }
    return from_wire(w, out, &store, err);
}

bool read_values(Reader &rd, confd_value_t *&out, int &n, ValueStore &store, std::string &err)
{
    uint32_t cnt = rd.u32();
    if (!rd.ok() || cnt > static_cast<uint32_t>(MAXKEYLEN)) {
        err = "bad key count";
        return false;
    }
    n = static_cast<int>(cnt);
    out = store.values(cnt + 1); // C_NOEXISTS-terminated, as ConfD hands over key arrays
    for (uint32_t i = 0; i < cnt; i++)
        if (!read_value(rd, out[i], store, err))
            return false;
    return true;
}

bool read_data_args(Reader &rd, DataCb cb, DataArgs &a, ValueStore &store, std::string &err)
{
    switch (cb) {
    case DataCb::GetNext:
        a.next = static_cast<long>(rd.i64());
        if (!rd.at_end())
            a.rows = rd.u32();
        if (a.rows < 1 || a.rows > kMaxRows) {
            err = "bad row count";
            return false;
        }
        break;
    case DataCb::GetNextObject: a.next = static_cast<long>(rd.i64()); break;
    case DataCb::SetElem:
    case DataCb::GetCase: return read_value(rd, a.v1, store, err);
    case DataCb::SetCase:
        return read_value(rd, a.v1, store, err) && read_value(rd, a.v2, store, err);
    case DataCb::FindNext:
    case DataCb::FindNextObject:
        a.find_type = rd.u8();
        if (a.find_type > CONFD_FIND_SAME_OR_NEXT) {
            err = "bad find_next type";
            return false;
        }
        return read_values(rd, a.keys, a.nkeys, store, err);
    case DataCb::GetAttrs: {
        uint32_t n = rd.u32();
        if (!rd.ok() || n > 1024) {
            err = "bad attribute count";
            return false;
        }
        for (uint32_t i = 0; i < n; i++)
            a.attrs.push_back(rd.u32());
        break;
    }
    case DataCb::SetAttr:
        a.attr = rd.u32();
        return read_value(rd, a.v1, store, err);
    case DataCb::MoveAfter:
        if (!read_values(rd, a.keys, a.nkeys, store, err))
            return false;
        if (a.nkeys == 0)
            a.keys = nullptr; // move to the front of the list
        break;
    default: break;
    }
    if (!rd.ok()) {
        err = "truncated request";
        return false;
    }
    return true;
}

// Calls the data callback; -100 when it is not registered.
constexpr int kNoCallback = -100;

int call_data_cb(const struct confd_data_cbs &d, DataCb cb, struct confd_trans_ctx *tctx,
                 confd_hkeypath_t *kp, DataArgs &a)
{
    auto ft = static_cast<enum confd_find_next_type>(a.find_type);
    switch (cb) {
    case DataCb::ExistsOptional: return d.exists_optional ? d.exists_optional(tctx, kp) : kNoCallback;
    case DataCb::GetElem: return d.get_elem ? d.get_elem(tctx, kp) : kNoCallback;
    case DataCb::GetNext: return d.get_next ? d.get_next(tctx, kp, a.next) : kNoCallback;
    case DataCb::SetElem: return d.set_elem ? d.set_elem(tctx, kp, &a.v1) : kNoCallback;
    case DataCb::Create: return d.create ? d.create(tctx, kp) : kNoCallback;
    case DataCb::Remove: return d.remove ? d.remove(tctx, kp) : kNoCallback;
    case DataCb::FindNext:
        return d.find_next ? d.find_next(tctx, kp, ft, a.keys, a.nkeys) : kNoCallback;
    case DataCb::NumInstances: return d.num_instances ? d.num_instances(tctx, kp) : kNoCallback;
    case DataCb::GetObject: return d.get_object ? d.get_object(tctx, kp) : kNoCallback;
    case DataCb::GetNextObject:
        return d.get_next_object ? d.get_next_object(tctx, kp, a.next) : kNoCallback;
    case DataCb::FindNextObject:
        return d.find_next_object ? d.find_next_object(tctx, kp, ft, a.keys, a.nkeys) : kNoCallback;
    case DataCb::GetCase: return d.get_case ? d.get_case(tctx, kp, &a.v1) : kNoCallback;
    case DataCb::SetCase: return d.set_case ? d.set_case(tctx, kp, &a.v1, &a.v2) : kNoCallback;
    case DataCb::GetAttrs:
        return d.get_attrs ? d.get_attrs(tctx, kp, a.attrs.data(), static_cast<int>(a.attrs.size()))
                           : kNoCallback;
    case DataCb::SetAttr: return d.set_attr ? d.set_attr(tctx, kp, a.attr, &a.v1) : kNoCallback;
    case DataCb::MoveAfter: return d.move_after ? d.move_after(tctx, kp, a.keys) : kNoCallback;
    case DataCb::WriteAll: return d.write_all ? d.write_all(tctx, kp) : kNoCallback;
    }
    return kNoCallback;
}

// Traces a data callback about to be called.
void trace_call(uint8_t which, int th, const confd_hkeypath_t &kp, long next)
{
    if (!debug_on(CONFD_TRACE))
        return;
    std::string path = kpath_text(kp, kp.len);
    if (which == static_cast<uint8_t>(DataCb::GetNext) ||
        which == static_cast<uint8_t>(DataCb::GetNextObject))
        logf(CONFD_TRACE, "CALL %s(thandle=%d, %s, next=%ld)", kDataCbNames[which], th,
             path.c_str(), next);
    else
        logf(CONFD_TRACE, "CALL %s(thandle=%d, %s)", kDataCbNames[which], th, path.c_str());
}

// The cookie of a gathered get_next answer; false when it ends the walk (the end of the list,
// or no cookie, so that ConfD goes on with find_next).
bool next_cookie(const std::string &answer, long &next)
{
    Reader r(answer);
    r.op();
    r.u32();
    if (static_cast<ReplyKind>(r.u8()) != ReplyKind::NextKey)
        return false;
    uint32_t n = r.u32();
    for (uint32_t i = 0; i < n && r.ok(); i++)
        r.value();
    next = static_cast<long>(r.i64());
    return r.ok() && next != -1;
}

// The rest of a get_next that asked for several rows: get_next is called again with each cookie
// it answered until rows entries are gathered or the walk ends, and the answers go out as one
// NextRows reply. A call that fails or answers nothing ends the batch with what it has; the
// walk's next request meets the failure again. A delayed answer ends it too, and is dropped
// when it comes: its entry is asked for again.
int serve_more_rows(const struct confd_data_cbs &d, struct confd_trans_ctx *tctx,
                    confd_hkeypath_t *kp, int th, uint32_t rows, std::vector<std::string> &got)
{
    TransState *ts = trans_state(tctx);
    Pending first = ts->pending;
    long next;
    while (got.size() < rows && next_cookie(got.back(), next)) {
        ts->pending = first;
        ts->pending.active = true;
        size_t before = got.size();
        trace_call(static_cast<uint8_t>(DataCb::GetNext), th, *kp, next);
        int ret = d.get_next(tctx, kp, next);
        if (ret == CONFD_DELAYED_RESPONSE) {
            ts->pending.gather = nullptr;
            ts->pending.drop = true;
            break;
        }
        if (got.size() == before) {
            // Its error text belongs to no reply.
            tctx->error = confd_error{};
            ts->error_set = false;
            ts->error_text.clear();
            ts->pending = Pending{};
            break;
        }
    }
    if (!ts->pending.drop)
        ts->pending = Pending{};
    Writer w = reply_frame(first.rid, ReplyKind::NextRows);
    w.u32(static_cast<uint32_t>(got.size()));
    for (const std::string &a : got)
        w.raw(std::string_view(a).substr(5)); // past op and rid
    if (!send_payload(first.fd, w.payload()))
        return confd_lib_fail(CONFD_ERR_OS, "sending a reply on socket %d: %s", first.fd,
                              strerror(errno));
    return CONFD_OK;
}

int serve_data_call(DaemonState *st, int fd, Reader &rd)
{
    uint32_t rid = rd.u32();
    int th = static_cast<int>(rd.u32());
    uint8_t which = rd.u8();
    std::string cp = rd.str();
    confd_wire::KeyPath wkp = rd.keypath();
    if (!rd.ok() || which >= kNumDataCbs)
        return reject(fd, rid, "malformed DataCall request");
    auto cb = static_cast<DataCb>(which);
    auto it = st->transactions.find(th);
    if (it == st->transactions.end())
        return reject(fd, rid, "DataCall for unknown transaction " + std::to_string(th));
    struct confd_trans_ctx *tctx = it->second;
    auto reg = st->data_cbs.find(cp);
    if (reg == st->data_cbs.end())
        return reject(fd, rid, "no callbacks registered for callpoint " + cp);
    st->store.clear();
    confd_hkeypath_t kp;
    std::string err;
    if (!keypath_from_wire(wkp, kp, &st->store, err))
        return reject(fd, rid, "bad keypath for " + cp + ": " + err);
    DataArgs args;
    if (!read_data_args(rd, cb, args, st->store, err))
        return reject(fd, rid, "bad " + std::string(kDataCbNames[which]) + " request: " + err);
    TransState *ts = trans_state(tctx);
    tctx->cb_opaque = reg->second->cb_opaque;
    ts->pending = Pending{true, rid, fd, which};
    std::vector<std::string> got; // answers of a get_next for several rows
    if (args.rows > 1 && !ts->capture)
        ts->pending.gather = &got;
    trace_call(which, th, kp, args.next);
    int ret = call_data_cb(*reg->second, cb, tctx, &kp, args);
    ts->pending.gather = nullptr;
    if (ret == kNoCallback) {
        ts->pending.active = false;
        return reject(fd, rid, "callpoint " + cp + " has no " + kDataCbNames[which] + "() callback");
    }
    if (ret == CONFD_DELAYED_RESPONSE)
        return CONFD_OK;
    if (!got.empty()) {
        ts->pending.gather = &got;
        return serve_more_rows(*reg->second, tctx, &kp, th, args.rows, got);
    }
    if (ret == CONFD_OK || ret == CONFD_ACCUMULATE) {
        if (!ts->pending.active)
            return CONFD_OK;
        if (is_write_cb(which)) {
            Writer w = reply_frame(rid, ReplyKind::Done);
            return deliver(tctx, w.payload());
        }
        // ConfD waits for a reply that never comes and times the request out.
        logf(CONFD_DEBUG, "%s() for %s returned CONFD_OK without replying", kDataCbNames[which],
             cp.c_str());
        ts->pending.active = false;
        return CONFD_OK;
    }
    std::string text;
    std::string payload = error_reply(rid, ret == CONFD_ERR ? CONFD_ERR : ret, tctx,
                                      std::string(kDataCbNames[which]) + "() failed for " + cp, text);
    if (ts->pending.active && deliver(tctx, payload) != CONFD_OK)
        return CONFD_ERR;
    ts->pending.active = false;
    return confd_lib_fail(CONFD_ERR_EXTERNAL, "%s", text.c_str());
}

} // namespace

void read_user_info(Reader &rd, confd_user_info &u)
{
    std::string user = rd.str();
    std::string context = rd.str();
    uint8_t proto = rd.u8();
    uint8_t af = rd.u8();
    std::string ip = rd.str();
    uint16_t port = rd.u16();
    int32_t usid = rd.i32();
    std::string v3ctx = rd.str();
    memset(&u, 0, sizeof u);
    snprintf(u.username, sizeof u.username, "%s", user.c_str());
    snprintf(u.context, sizeof u.context, "%s", context.c_str());
    snprintf(u.snmp_v3_ctx, sizeof u.snmp_v3_ctx, "%s", v3ctx.c_str());
    u.proto = proto <= CONFD_PROTO_UDP ? static_cast<enum confd_proto>(proto) : CONFD_PROTO_UNKNOWN;
    // The address length decides the family; af is only a fallback.
    if (ip.size() == 16) {
        u.af = AF_INET6;
        memcpy(&u.ip.v6, ip.data(), 16);
    } else if (ip.size() == 4) {
        u.af = AF_INET;
        memcpy(&u.ip.v4, ip.data(), 4);
    } else {
        u.af = af;
    }
    u.port = port;
    u.usid = usid;
    u.logintime = time(nullptr);
}

const char *cb_name(int cb)
{
    if (cb >= 0 && cb < kNumDataCbs)
        return kDataCbNames[cb];
    if (cb >= kTransBase && cb < kTransBase + kNumTransCbs)
        return kTransCbNames[cb - kTransBase];
    return "callback";
}

bool is_write_cb(int cb)
{
    if (cb < 0 || cb >= kNumDataCbs)
        return false;
    switch (static_cast<DataCb>(cb)) {
    case DataCb::SetElem:
    case DataCb::Create:
    case DataCb::Remove:
    case DataCb::SetCase:
    case DataCb::SetAttr:
    case DataCb::MoveAfter:
    case DataCb::WriteAll: return true;
    default: return false;
    }
}

DaemonState *daemon_state(struct confd_daemon_ctx *dx)
{
    return dx != nullptr ? static_cast<DaemonState *>(dx->lib_internal) : nullptr;
}

TransState *trans_state(struct confd_trans_ctx *tctx)
{
    return tctx != nullptr ? static_cast<TransState *>(tctx->lib_internal) : nullptr;
}

struct confd_trans_ctx *new_trans(struct confd_daemon_ctx *dx)
{
    auto *tctx = new confd_trans_ctx();
    auto *ts = new TransState();
    ts->dx = dx;
    tctx->lib_internal = ts;
    tctx->dx = dx;
    tctx->fd = -1;
    tctx->vfd = -1;
    tctx->uinfo = &ts->uinfo;
    return tctx;
}

void free_trans(struct confd_trans_ctx *tctx)
{
    if (tctx == nullptr)
        return;
    TransState *ts = trans_state(tctx);
    DaemonState *st = ts != nullptr ? daemon_state(ts->dx) : nullptr;
    if (st != nullptr) {
        auto it = st->transactions.find(tctx->thandle);
        if (it != st->transactions.end() && it->second == tctx)
            st->transactions.erase(it);
    }
    delete ts;
    delete tctx;
}

} // namespace libconfd

using namespace libconfd;

extern "C" {

struct confd_daemon_ctx *confd_init_daemon(const char *name)
try {
    if (name == nullptr) {
        confd_lib_fail(CONFD_ERR_PROTOUSAGE, "confd_init_daemon: no name");
        return nullptr;
    }
    auto *dx = new confd_daemon_ctx();
    snprintf(dx->name, sizeof dx->name, "%s", name);
    dx->lib_internal = new DaemonState();
    return dx;
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

int confd_set_daemon_flags(struct confd_daemon_ctx *dx, int flags)
try {
    if (daemon_state(dx) == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "confd_set_daemon_flags: no daemon context");
    dx->flags = flags;
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

void confd_release_daemon(struct confd_daemon_ctx *dx)
try {
    DaemonState *st = daemon_state(dx);
    if (st == nullptr)
        return;
    while (!st->transactions.empty())
        free_trans(st->transactions.begin()->second);
    for (auto &n : st->notif_ctxs)
        free_notif_state(n.get());
    delete st;
    delete dx;
} catch (...) {
    libconfd::caught(__func__);
}

int confd_connect(struct confd_daemon_ctx *dx, int sock, enum confd_sock_type type,
                  const struct sockaddr *srv, int addrsz)
try {
    DaemonState *st = daemon_state(dx);
    if (st == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "confd_connect: no daemon context");
    if (type == CONTROL_SOCKET && st->ctl_fd >= 0)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "daemon %s already has a control socket",
                              dx->name);
    if (type == WORKER_SOCKET && st->ctl_fd < 0)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE,
                              "connect the control socket before a worker socket");
    if (type != CONTROL_SOCKET && type != WORKER_SOCKET)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "confd_connect: bad socket type %d", type);
    if (connect_socket(sock, srv, addrsz) != CONFD_OK)
        return CONFD_ERR;
    Writer hello(Op::Hello);
    std::string answer;
    if (type == CONTROL_SOCKET) {
        hello.u8(static_cast<uint8_t>(confd_wire::ConnKind::Control))
            .str(dx->name)
            .u32(CONFD_LIB_API_VSN)
            .u32(MAXDEPTH)
            .u32(MAXKEYLEN)
            .u32(static_cast<uint32_t>(debug_level()));
        if (request(sock, hello.payload(), answer, "control socket hello") != CONFD_OK)
            return CONFD_ERR;
        Reader rd(answer);
        rd.op();
        uint32_t id = rd.u32();
        if (!rd.ok())
            return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "malformed answer to the control hello");
        st->daemon_id = id;
        st->ctl_fd = sock;
        logf(CONFD_TRACE, "control socket %d connected, daemon id %u", sock, id);
        // Registrations made before connecting are announced now.
        if (st->have_trans_cbs && send_reg_trans(st) != CONFD_OK) {
            st->ctl_fd = -1;
            return CONFD_ERR;
        }
        for (auto &reg : st->data_cbs)
            if (send_reg_data(st, *reg.second) != CONFD_OK) {
                st->ctl_fd = -1;
                return CONFD_ERR;
            }
        return CONFD_OK;
    }
    hello.u8(static_cast<uint8_t>(confd_wire::ConnKind::Worker)).u32(st->daemon_id);
    if (request(sock, hello.payload(), answer, "worker socket hello") != CONFD_OK)
        return CONFD_ERR;
    Reader rd(answer);
    rd.op();
    uint32_t id = rd.u32();
    if (!rd.ok())
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "malformed answer to the worker hello");
    st->workers[sock] = id;
    logf(CONFD_TRACE, "worker socket %d connected, worker id %u", sock, id);
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_register_trans_cb(struct confd_daemon_ctx *dx, const struct confd_trans_cbs *trans)
try {
    DaemonState *st = daemon_state(dx);
    if (st == nullptr || trans == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "confd_register_trans_cb: missing argument");
    if (st->registration_done)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "registration after confd_register_done()");
    st->trans_cbs = *trans;
    st->have_trans_cbs = true;
    if (st->ctl_fd >= 0)
        return send_reg_trans(st);
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_register_data_cb(struct confd_daemon_ctx *dx, const struct confd_data_cbs *data)
try {
    DaemonState *st = daemon_state(dx);
    if (st == nullptr || data == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "confd_register_data_cb: missing argument");
    std::string cp = callpoint_of(*data);
    if (cp.empty())
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "confd_register_data_cb: empty callpoint");
    if (cp.size() >= MAX_CALLPOINT_LEN)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "callpoint name not terminated");
    if (st->registration_done)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "registration after confd_register_done()");
    if (st->ctl_fd >= 0 && send_reg_data(st, *data) != CONFD_OK)
        return CONFD_ERR;
    st->data_cbs[cp] = std::make_unique<struct confd_data_cbs>(*data);
    logf(CONFD_TRACE, "registered callpoint %s%s", cp.c_str(),
         st->ctl_fd >= 0 ? "" : " (not connected: local only)");
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_register_range_data_cb(struct confd_daemon_ctx *dx, const struct confd_data_cbs *data,
                                 const confd_value_t *lower, const confd_value_t *upper,
                                 int numkeys, const char *fmt, ...)
{
    if (numkeys < 0 || numkeys >= MAXKEYLEN || (numkeys > 0 && (lower == nullptr || upper == nullptr)))
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "confd_register_range_data_cb: bad key range");
    std::string path, err;
    va_list ap;
    va_start(ap, fmt);
    bool ok = format_path(path, fmt, ap, err);
    va_end(ap);
    if (!ok)
        return confd_lib_fail(CONFD_ERR_BADPATH, "confd_register_range_data_cb: %s", err.c_str());
    // The emulated server routes by callpoint only, so a range registration
    // serves the whole callpoint, as a plain one does.
    logf(CONFD_TRACE, "range registration at %s served as a plain registration", path.c_str());
    return confd_register_data_cb(dx, data);
}

int confd_register_done(struct confd_daemon_ctx *dx)
try {
    DaemonState *st = daemon_state(dx);
    if (st == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "confd_register_done: no daemon context");
    if (st->registration_done)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "confd_register_done() called twice");
    if (st->ctl_fd >= 0) {
        Writer w(Op::RegDone);
        std::string answer;
        if (request(st->ctl_fd, w.payload(), answer, "registration done") != CONFD_OK)
            return CONFD_ERR;
    }
    st->registration_done = true;
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_fd_ready(struct confd_daemon_ctx *dx, int fd)
try {
    DaemonState *st = daemon_state(dx);
    if (st == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "confd_fd_ready: no daemon context");
    if (fd < 0 || (fd != st->ctl_fd && st->workers.count(fd) == 0))
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "fd %d is not a socket of daemon %s", fd,
                              dx->name);
    // One recv takes whatever has arrived; every whole frame it brought is served before the
    // caller polls again, since the socket is no longer readable for them.
    std::string payload;
    int ret = CONFD_OK;
    ReplyBatch replies(fd);
    do {
        int r = recv_payload(fd, payload, -1, true);
        if (r == 0) {
            confd_lib_fail(CONFD_ERR_EOF, "ConfD closed socket %d", fd);
            return CONFD_EOF;
        }
        if (r < 0)
            return confd_lib_fail(CONFD_ERR_OS, "reading socket %d: %s", fd, strerror(errno));
        Reader rd(payload);
        int rc;
        switch (rd.op()) {
        case Op::TransInit: rc = serve_trans_init(dx, st, fd, rd); break;
        case Op::TransCall: rc = serve_trans_call(dx, st, fd, rd); break;
        case Op::DataCall: rc = serve_data_call(st, fd, rd); break;
        default:
            rc = confd_lib_fail(CONFD_ERR_PROTOUSAGE, "unexpected %s frame on socket %d",
                                op_name(payload).c_str(), fd);
        }
        // A failed callback does not leave the frames behind it unserved; the last failure is
        // what the caller sees.
        if (rc != CONFD_OK) ret = rc;
    } while (ret != CONFD_EOF && frame_pending(fd));
    if (!replies.flush())
        return confd_lib_fail(CONFD_ERR_OS, "sending replies on socket %d: %s", fd,
                              strerror(errno));
    return ret;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

} // extern "C"
