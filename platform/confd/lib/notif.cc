// SNMP notification senders: registration on the control socket and one SnmpNotif frame per notification.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "dp_internal.h"
#include "lib_core.h"

using confd_wire::Op;
using confd_wire::Reader;
using confd_wire::Writer;

namespace libconfd {

namespace {

NotifState *notif_state(struct confd_notification_ctx *nctx)
{
    return nctx != nullptr ? static_cast<NotifState *>(nctx->lib_internal) : nullptr;
}

// A fixed-size name field of a varbind, up to its NUL or its size.
std::string field(const char *p, size_t size) { return std::string(p, strnlen(p, size)); }

bool put_oid(Writer &w, const struct confd_snmp_oid &oid, std::string &err)
{
    if (oid.len < 0 || oid.len > 128) {
        err = "OID length " + std::to_string(oid.len) + " out of range";
        return false;
    }
    w.u32(static_cast<uint32_t>(oid.len));
    for (int i = 0; i < oid.len; i++)
        w.u32(oid.oid[i]);
    return true;
}

// Encodes the whole notification; false with a reason for a bad varbind.
bool encode(Writer &w, NotifState *ns, const char *notification,
            const struct confd_snmp_varbind *vb, int n, std::string &err)
{
    {
        std::lock_guard<std::mutex> lock(ns->mu);
        w.u32(ns->id).str(ns->notify_name).str(ns->ctx_name);
    }
    w.str(notification != nullptr ? notification : "").u32(static_cast<uint32_t>(n));
    for (int i = 0; i < n; i++) {
        const struct confd_snmp_varbind &b = vb[i];
        w.u8(static_cast<uint8_t>(b.type));
        switch (b.type) {
        case CONFD_SNMP_VARIABLE: w.str(field(b.var.name, sizeof b.var.name)); break;
        case CONFD_SNMP_OID:
            if (!put_oid(w, b.var.oid, err))
                return false;
            break;
        case CONFD_SNMP_COL_ROW:
            w.str(field(b.var.cr.column, sizeof b.var.cr.column));
            if (!put_oid(w, b.var.cr.rowindex, err))
                return false;
            break;
        default: err = "varbind " + std::to_string(i) + " has an unknown kind"; return false;
        }
        confd_wire::Value v;
        if (!to_wire(b.val, v, err)) {
            err = "varbind " + std::to_string(i) + ": " + err;
            return false;
        }
        w.value(v).u8(static_cast<uint8_t>(b.vartype));
    }
    return true;
}

int send_notification(struct confd_notification_ctx *nctx, const char *notification,
                      const struct confd_snmp_varbind *varbinds, int num_vars, const char *fn)
{
    NotifState *ns = notif_state(nctx);
    if (ns == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: not a notification context", fn);
    if (num_vars < 0 || (num_vars > 0 && varbinds == nullptr))
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: bad varbind array", fn);
    Writer w(Op::SnmpNotif);
    std::string err;
    if (!encode(w, ns, notification, varbinds, num_vars, err))
        return confd_lib_fail(CONFD_ERR_BADTYPE, "%s: %s", fn, err.c_str());
    logf(CONFD_TRACE, "SEND snmp notification %s (%d varbinds)",
         notification != nullptr ? notification : "", num_vars);
    // One frame, one send(): other threads may send on the same socket.
    if (!send_payload(nctx->fd, w.payload()))
        return confd_lib_fail(CONFD_ERR_OS, "%s: sending on socket %d: %s", fn, nctx->fd,
                              strerror(errno));
    return CONFD_OK;
}

} // namespace

void free_notif_state(struct confd_notification_ctx *nctx)
{
    if (nctx == nullptr)
        return;
    delete notif_state(nctx);
    nctx->lib_internal = nullptr;
    free(nctx->name);
    free(nctx->ctx_name);
    nctx->name = nullptr;
    nctx->ctx_name = nullptr;
}

struct confd_notification_ctx *make_notif_ctx(struct confd_daemon_ctx *dx, int fd, uint32_t id,
                                              const char *notify_name, const char *ctx_name)
{
    DaemonState *st = daemon_state(dx);
    auto nctx = std::make_unique<struct confd_notification_ctx>();
    auto *ns = new NotifState();
    ns->id = id;
    ns->notify_name = notify_name != nullptr ? notify_name : "";
    ns->ctx_name = ctx_name != nullptr ? ctx_name : "";
    nctx->name = strdup(ns->notify_name.c_str());
    nctx->ctx_name = strdup(ns->ctx_name.c_str());
    nctx->fd = fd;
    nctx->dx = dx;
    nctx->lib_internal = ns;
    st->notif_ctxs.push_back(std::move(nctx));
    return st->notif_ctxs.back().get();
}

} // namespace libconfd

using namespace libconfd;

extern "C" {

int confd_register_snmp_notification(struct confd_daemon_ctx *dx, int fd, const char *notify_name,
                                     const char *ctx_name, struct confd_notification_ctx **nctx)
try {
    const char *fn = "confd_register_snmp_notification";
    DaemonState *st = daemon_state(dx);
    if (st == nullptr || nctx == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: missing argument", fn);
    if (st->ctl_fd < 0)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: the control socket is not connected", fn);
    auto worker = st->workers.find(fd);
    if (worker == st->workers.end())
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: fd %d is not a connected worker socket",
                              fn, fd);
    Writer w(Op::RegSnmpNotif);
    w.u32(worker->second)
        .str(notify_name != nullptr ? notify_name : "")
        .str(ctx_name != nullptr ? ctx_name : "");
    std::string answer;
    if (request(st->ctl_fd, w.payload(), answer, "register SNMP notification sender") != CONFD_OK)
        return CONFD_ERR;
    Reader rd(answer);
    rd.op();
    uint32_t id = rd.u32();
    if (!rd.ok())
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: malformed answer", fn);
    *nctx = make_notif_ctx(dx, fd, id, notify_name, ctx_name);
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_notification_send_snmp(struct confd_notification_ctx *nctx, const char *notification,
                                 struct confd_snmp_varbind *varbinds, int num_vars)
try {
    return send_notification(nctx, notification, varbinds, num_vars,
                             "confd_notification_send_snmp");
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_notification_send_snmp_inform(struct confd_notification_ctx *nctx,
                                        const char *notification,
                                        struct confd_snmp_varbind *varbinds, int num_vars,
                                        const char *cb_id, int ref)
try {
    // The emulated agent keeps no inform state: the notification goes out as
    // a trap would, and the inform callbacks are never called.
    (void)cb_id;
    (void)ref;
    return send_notification(nctx, notification, varbinds, num_vars,
                             "confd_notification_send_snmp_inform");
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_register_notification_snmp_inform_cb(struct confd_daemon_ctx *dx,
                                               const struct confd_notification_snmp_inform_cbs *cb)
try {
    DaemonState *st = daemon_state(dx);
    if (st == nullptr || cb == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE,
                              "confd_register_notification_snmp_inform_cb: missing argument");
    st->inform_cbs.push_back(*cb);
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

void confd_notification_set_snmp_src_addr(struct confd_notification_ctx *nctx,
                                          const struct confd_ip *src_addr)
try {
    NotifState *ns = notif_state(nctx);
    if (ns == nullptr)
        return;
    std::lock_guard<std::mutex> lock(ns->mu);
    ns->has_src_addr = src_addr != nullptr;
    if (src_addr != nullptr)
        ns->src_addr = *src_addr;
} catch (...) {
    libconfd::caught(__func__);
}

int confd_notification_set_snmp_notify_name(struct confd_notification_ctx *nctx,
                                            const char *notify_name)
try {
    NotifState *ns = notif_state(nctx);
    if (ns == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE,
                              "confd_notification_set_snmp_notify_name: not a notification context");
    std::lock_guard<std::mutex> lock(ns->mu);
    ns->notify_name = notify_name != nullptr ? notify_name : "";
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_notification_flush(struct confd_notification_ctx *nctx)
try {
    // Every notification went out in one send() of its own: nothing is queued.
    if (notif_state(nctx) == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "confd_notification_flush: not a notification context");
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

} // extern "C"
