// In-process access for unit tests: callback lookup, transactions with captured replies, notification decoding.
#include "confd_inproc.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "dp_internal.h"
#include "lib_core.h"

using confd_wire::Op;
using confd_wire::Reader;
using confd_wire::ReplyKind;

namespace libconfd {

void capture_reply(struct Capture &cap, const std::string &payload);

// The replies of an in-process transaction, decoded for the test.
struct Capture : ReplySink {
    struct confd_inproc_capture pub {};
    ValueStore store;
    std::vector<confd_value_t> values;
    std::vector<struct xml_tag> tags;
    void take(const std::string &payload) override { capture_reply(*this, payload); }
};

// The capture of an in-process transaction (only this file sets one), or nullptr.
static Capture *capture_of(TransState *ts)
{
    return ts != nullptr ? static_cast<Capture *>(ts->capture.get()) : nullptr;
}

namespace {

void reset(Capture &cap, bool keep_count)
{
    int n = keep_count ? cap.pub.nreplies : 0;
    cap.store.clear();
    cap.values.clear();
    cap.tags.clear();
    memset(&cap.pub, 0, sizeof cap.pub);
    cap.pub.nreplies = n;
}

bool take_value(Reader &rd, Capture &cap)
{
    confd_wire::Value w = rd.value();
    confd_value_t v;
    std::string err;
    if (!rd.ok() || !from_wire(w, v, &cap.store, err))
        return false;
    cap.values.push_back(v);
    return true;
}

bool take_values(Reader &rd, Capture &cap, uint32_t n)
{
    for (uint32_t i = 0; i < n && rd.ok(); i++)
        if (!take_value(rd, cap))
            return false;
    return rd.ok();
}

bool take_tagged(Reader &rd, Capture &cap, uint32_t n)
{
    for (uint32_t i = 0; i < n && rd.ok(); i++) {
        struct xml_tag t;
        t.tag = rd.u32();
        t.ns = rd.u32();
        cap.tags.push_back(t);
        if (!take_value(rd, cap))
            return false;
    }
    return rd.ok();
}

bool decode_reply(Reader &rd, Capture &cap)
{
    struct confd_inproc_capture &p = cap.pub;
    rd.u32(); // request id: none for in-process transactions
    auto kind = static_cast<ReplyKind>(rd.u8());
    switch (kind) {
    case ReplyKind::Value: p.kind = CONFD_INPROC_VALUE; return take_value(rd, cap);
    case ReplyKind::NextKey:
        p.kind = CONFD_INPROC_NEXT_KEY;
        if (!take_values(rd, cap, rd.u32()))
            return false;
        p.next = static_cast<long>(rd.i64());
        return rd.ok();
    case ReplyKind::NextEnd:
        p.kind = CONFD_INPROC_NEXT_END;
        if (!rd.at_end())
            p.next = static_cast<long>(rd.i64());
        return rd.ok();
    case ReplyKind::NotFound: p.kind = CONFD_INPROC_NOT_FOUND; return true;
    case ReplyKind::Found: p.kind = CONFD_INPROC_FOUND; return true;
    case ReplyKind::Done: p.kind = CONFD_INPROC_DONE; return true;
    case ReplyKind::ValueArray: p.kind = CONFD_INPROC_VALUE_ARRAY; return take_values(rd, cap, rd.u32());
    case ReplyKind::TagValueArray:
        p.kind = CONFD_INPROC_TAG_VALUE_ARRAY;
        return take_tagged(rd, cap, rd.u32());
    case ReplyKind::NextObjects: {
        p.kind = CONFD_INPROC_NEXT_OBJECTS;
        uint32_t nobj = rd.u32();
        for (uint32_t i = 0; i < nobj && rd.ok(); i++) {
            bool tagged = rd.u8() != 0;
            uint32_t n = rd.u32();
            if (!(tagged ? take_tagged(rd, cap, n) : take_values(rd, cap, n)))
                return false;
            p.next = static_cast<long>(rd.i64());
        }
        p.nobjects = static_cast<int>(nobj);
        return rd.ok();
    }
    case ReplyKind::Error: {
        p.kind = CONFD_INPROC_ERROR;
        rd.i32(); // result code
        p.error_code = rd.i32();
        std::string text = rd.str();
        snprintf(p.error, sizeof p.error, "%s", text.c_str());
        return rd.ok();
    }
    case ReplyKind::TransInitDone: p.kind = CONFD_INPROC_TRANS_INIT_DONE; return true;
    case ReplyKind::NextRows: return false; // only a socket's get_next asks for several rows
    }
    return false;
}

void copy_field(char *dst, size_t size, const std::string &s) { snprintf(dst, size, "%s", s.c_str()); }

bool read_oid(Reader &rd, struct confd_snmp_oid &oid)
{
    uint32_t n = rd.u32();
    if (!rd.ok() || n > 128)
        return false;
    oid.len = static_cast<int>(n);
    for (uint32_t i = 0; i < n; i++)
        oid.oid[i] = rd.u32();
    return rd.ok();
}

bool decode_notif(Reader &rd, struct confd_inproc_snmp_notif &n)
{
    rd.u32(); // sender id
    copy_field(n.notify_name, sizeof n.notify_name, rd.str());
    copy_field(n.ctx_name, sizeof n.ctx_name, rd.str());
    copy_field(n.notification, sizeof n.notification, rd.str());
    uint32_t count = rd.u32();
    if (!rd.ok() || count > 4096)
        return false;
    n.vb = static_cast<struct confd_snmp_varbind *>(
        calloc(count == 0 ? 1 : count, sizeof(struct confd_snmp_varbind)));
    if (n.vb == nullptr)
        return false;
    for (uint32_t i = 0; i < count; i++) {
        struct confd_snmp_varbind &b = n.vb[i];
        b.val.type = C_NOEXISTS;
        uint8_t kind = rd.u8();
        if (kind < CONFD_SNMP_VARIABLE || kind > CONFD_SNMP_COL_ROW)
            return false;
        b.type = static_cast<enum confd_snmp_var_type>(kind);
        switch (b.type) {
        case CONFD_SNMP_VARIABLE: copy_field(b.var.name, sizeof b.var.name, rd.str()); break;
        case CONFD_SNMP_OID:
            if (!read_oid(rd, b.var.oid))
                return false;
            break;
        case CONFD_SNMP_COL_ROW:
            copy_field(b.var.cr.column, sizeof b.var.cr.column, rd.str());
            if (!read_oid(rd, b.var.cr.rowindex))
                return false;
            break;
        default: return false;
        }
        confd_wire::Value w = rd.value();
        std::string err;
        if (!rd.ok() || !from_wire(w, b.val, nullptr, err))
            return false;
        uint8_t vartype = rd.u8();
        b.vartype = vartype <= CONFD_SNMP_Unsigned32 ? static_cast<enum confd_snmp_type>(vartype)
                                                     : CONFD_SNMP_NULL;
        n.num_vars = static_cast<int>(i + 1);
    }
    return rd.ok() && rd.at_end();
}

} // namespace

void capture_reply(Capture &cap, const std::string &payload)
{
    reset(cap, true);
    cap.pub.nreplies++;
    Reader rd(payload);
    rd.op();
    if (!decode_reply(rd, cap)) {
        reset(cap, true);
        cap.pub.kind = CONFD_INPROC_ERROR;
        snprintf(cap.pub.error, sizeof cap.pub.error, "reply could not be decoded");
    }
    cap.pub.nvalues = static_cast<int>(cap.values.size());
    cap.pub.values = cap.values.empty() ? nullptr : cap.values.data();
    cap.pub.tags = cap.tags.empty() ? nullptr : cap.tags.data();
}

} // namespace libconfd

using namespace libconfd;

extern "C" {

const struct confd_data_cbs *confd_inproc_data_cbs(struct confd_daemon_ctx *dx,
                                                   const char *callpoint)
try {
    DaemonState *st = daemon_state(dx);
    if (st == nullptr || callpoint == nullptr)
        return nullptr;
    auto it = st->data_cbs.find(callpoint);
    return it != st->data_cbs.end() ? it->second.get() : nullptr;
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

const struct confd_trans_cbs *confd_inproc_trans_cbs(struct confd_daemon_ctx *dx)
try {
    DaemonState *st = daemon_state(dx);
    return st != nullptr && st->have_trans_cbs ? &st->trans_cbs : nullptr;
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

struct confd_trans_ctx *confd_inproc_trans(struct confd_daemon_ctx *dx, enum confd_trans_mode mode,
                                           enum confd_dbname dbname, int thandle)
try {
    if (daemon_state(dx) == nullptr)
        return nullptr;
    struct confd_trans_ctx *tctx = new_trans(dx);
    TransState *ts = trans_state(tctx);
    ts->capture.reset(new Capture());
    snprintf(ts->uinfo.username, sizeof ts->uinfo.username, "%s", "admin");
    snprintf(ts->uinfo.context, sizeof ts->uinfo.context, "%s", "system");
    ts->uinfo.af = AF_INET;
    ts->uinfo.ip.v4.s_addr = htonl(INADDR_LOOPBACK);
    ts->uinfo.proto = CONFD_PROTO_TCP;
    ts->uinfo.usid = 1;
    ts->uinfo.logintime = time(nullptr);
    tctx->mode = mode;
    tctx->dbname = dbname;
    tctx->thandle = thandle;
    return tctx;
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

const struct confd_inproc_capture *confd_inproc_captured(struct confd_trans_ctx *tctx)
try {
    Capture *cap = capture_of(trans_state(tctx));
    return cap != nullptr ? &cap->pub : nullptr;
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

void confd_inproc_reset(struct confd_trans_ctx *tctx)
try {
    if (Capture *cap = capture_of(trans_state(tctx)))
        reset(*cap, false);
} catch (...) {
    libconfd::caught(__func__);
}

void confd_inproc_free_trans(struct confd_trans_ctx *tctx)
try {
    TransState *ts = trans_state(tctx);
    if (ts != nullptr && ts->capture)
        free_trans(tctx);
} catch (...) {
    libconfd::caught(__func__);
}

struct confd_notification_ctx *confd_inproc_notification_ctx(struct confd_daemon_ctx *dx, int fd,
                                                             const char *notify_name,
                                                             const char *ctx_name)
try {
    if (daemon_state(dx) == nullptr)
        return nullptr;
    return make_notif_ctx(dx, fd, 0, notify_name, ctx_name);
} catch (...) {
    return libconfd::caught(__func__, nullptr);
}

int confd_inproc_recv_snmp_notif(int fd, int timeout_ms, struct confd_inproc_snmp_notif *n)
try {
    if (n == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "no notification buffer");
    memset(n, 0, sizeof *n);
    std::string payload;
    int r = recv_payload(fd, payload, timeout_ms);
    if (r == 0)
        return CONFD_EOF;
    if (r < 0)
        return confd_lib_fail(CONFD_ERR_OS, "reading socket %d: %s", fd, strerror(errno));
    Reader rd(payload);
    if (rd.op() != Op::SnmpNotif)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "expected SnmpNotif, got %s",
                              op_name(payload).c_str());
    if (!decode_notif(rd, *n)) {
        confd_inproc_free_snmp_notif(n);
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "malformed SnmpNotif frame");
    }
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

void confd_inproc_free_snmp_notif(struct confd_inproc_snmp_notif *n)
try {
    if (n == nullptr || n->vb == nullptr)
        return;
    for (int i = 0; i < n->num_vars; i++)
        confd_free_value(&n->vb[i].val);
    free(n->vb);
    n->vb = nullptr;
    n->num_vars = 0;
} catch (...) {
    libconfd::caught(__func__);
}

} // extern "C"
