// Event notifications: subscribing, reading audit and commit-diff events, and answering commit-diffs.
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "confd_lib.h"
#include "confd_events.h"
#include "dp_internal.h"
#include "lib_core.h"

using confd_wire::Op;
using confd_wire::Reader;
using confd_wire::Writer;

namespace libconfd {

namespace {

// The transaction context handed out with a commit-diff event, kept until
// confd_diff_notification_done() answers it.
struct EventTrans {
    struct confd_trans_ctx tctx;
    struct confd_user_info uinfo;
};

std::mutex g_mu;
std::map<const struct confd_trans_ctx *, std::unique_ptr<EventTrans>> g_trans;

} // namespace

} // namespace libconfd

using namespace libconfd;

extern "C" {

int confd_notifications_connect(int sock, const struct sockaddr *srv, int srv_sz, int mask)
try {
    if (connect_socket(sock, srv, srv_sz) != CONFD_OK) return CONFD_ERR;
    Writer hello(Op::Hello);
    hello.u8(static_cast<uint8_t>(confd_wire::ConnKind::Events)).u32(static_cast<uint32_t>(mask));
    std::string answer;
    if (request(sock, hello.payload(), answer, "confd_notifications_connect") != CONFD_OK)
        return CONFD_ERR;
    logf(CONFD_TRACE, "event socket %d subscribed with mask 0x%x", sock, mask);
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_read_notification(int sock, struct confd_notification *n)
try {
    if (n == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "confd_read_notification: NULL notification");
    std::string payload;
    int got = recv_payload(sock, payload, -1);
    if (got == 0) {
        confd_lib_fail(CONFD_ERR_EOF, "confd_read_notification: ConfD closed the socket");
        return CONFD_EOF;
    }
    if (got < 0)
        return confd_lib_fail(CONFD_ERR_OS, "confd_read_notification: %s", strerror(errno));
    Reader r(payload);
    if (r.op() != Op::Event)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "confd_read_notification: not an event (%s)",
                              op_name(payload).c_str());
    uint32_t type = r.u32();
    memset(n, 0, sizeof *n);
    n->type = static_cast<enum confd_notification_type>(type);
    switch (type) {
    case CONFD_NOTIF_AUDIT: {
        struct confd_audit_notification &a = n->n.audit;
        a.logno = r.i32();
        std::string user = r.str(), msg = r.str();
        a.usid = r.i32();
        if (!r.ok()) break;
        snprintf(a.user, sizeof a.user, "%s", user.c_str());
        snprintf(a.msg, sizeof a.msg, "%s", msg.c_str());
        logf(CONFD_TRACE, "audit event %d from %s: %s", a.logno, a.user, a.msg);
        return CONFD_OK;
    }
    case CONFD_NOTIF_COMMIT_DIFF: {
        struct confd_commit_diff_notification &c = n->n.commit_diff;
        auto et = std::make_unique<EventTrans>();
        memset(&et->tctx, 0, sizeof et->tctx);
        uint8_t db = r.u8();
        read_user_info(r, et->uinfo);
        uint32_t th = r.u32();
        c.flags = r.i32();
        std::string comment = r.str(), label = r.str();
        if (!r.ok() || th > 0x7fffffffu || db > CONFD_PRE_COMMIT_RUNNING) break;
        c.database = static_cast<enum confd_dbname>(db);
        c.uinfo = et->uinfo;
        snprintf(c.comment, sizeof c.comment, "%s", comment.c_str());
        snprintf(c.label, sizeof c.label, "%s", label.c_str());
        et->tctx.fd = -1;
        et->tctx.vfd = -1;
        et->tctx.mode = CONFD_READ_WRITE;
        et->tctx.dbname = c.database;
        et->tctx.thandle = static_cast<int>(th);
        et->tctx.uinfo = &et->uinfo;
        c.tctx = &et->tctx;
        {
            std::lock_guard<std::mutex> lock(g_mu);
            g_trans[c.tctx] = std::move(et);
        }
        logf(CONFD_TRACE, "commit-diff event for transaction %u by %s", th, c.uinfo.username);
        return CONFD_OK;
    }
    default:
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE,
                              "confd_read_notification: event type %u is not served", type);
    }
    memset(n, 0, sizeof *n);
    return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "confd_read_notification: malformed event");
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

void confd_free_notification(struct confd_notification *n)
try {
    // Audit and commit-diff events own no memory of their own; a commit-diff's transaction
    // context lives until confd_diff_notification_done().
    (void)n;
} catch (...) {
    libconfd::caught(__func__);
}

int confd_diff_notification_done(int sock, struct confd_trans_ctx *tctx)
try {
    std::unique_ptr<EventTrans> et;
    {
        std::lock_guard<std::mutex> lock(g_mu);
        auto it = g_trans.find(tctx);
        if (it == g_trans.end())
            return confd_lib_fail(CONFD_ERR_PROTOUSAGE,
                                  "confd_diff_notification_done: not the context of a "
                                  "commit-diff event, or answered already");
        et = std::move(it->second);
        g_trans.erase(it);
    }
    Writer w(Op::Event);
    w.u32(CONFD_NOTIF_COMMIT_DIFF).u32(static_cast<uint32_t>(et->tctx.thandle));
    if (!send_payload(sock, w.payload()))
        return confd_lib_fail(CONFD_ERR_OS, "confd_diff_notification_done: send failed: %s",
                              strerror(errno));
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_sync_audit_notification(int sock, int usid)
try {
    (void)sock;
    (void)usid;
    // This ConfD never sends synchronous audit events, so there is never one to release.
    return confd_lib_fail(CONFD_ERR_NOT_IMPLEMENTED, "confd_sync_audit_notification: no "
                                                     "synchronous audit events are sent");
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

} // extern "C"
