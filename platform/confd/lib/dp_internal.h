// Private state behind confd_daemon_ctx, confd_trans_ctx and confd_notification_ctx (internal interface).
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "confd_lib.h"
#include "confd_dp.h"
#include "convert.h"
#include "wire.h"

namespace libconfd {

// Takes the replies of an in-process transaction in place of a socket. Only
// the test-only in-process library (inproc.cc) makes one, so the library
// itself never refers to that code.
struct ReplySink {
    virtual ~ReplySink() = default;
    virtual void take(const std::string &payload) = 0;
};

// Which callback a pending request belongs to: data callbacks by their
// confd_wire::DataCb number, transaction callbacks from kTransBase on.
constexpr int kTransBase = 100;

// A request that waits for its reply.
struct Pending {
    bool active = false;
    uint32_t rid = 0;
    int fd = -1;
    int cb = -1; // DataCb number, or kTransBase + TransCb
    // A get_next asked for several rows: its answers are gathered here and
    // sent together. drop: the reply belongs to a request already answered.
    std::vector<std::string> *gather = nullptr;
    bool drop = false;
};

// Library state of one transaction (tctx->lib_internal).
struct TransState {
    struct confd_daemon_ctx *dx = nullptr;
    confd_user_info uinfo{};
    Pending pending;
    bool free_after_reply = false; // finish() answered later: free after that reply
    bool error_set = false;        // confd_trans_seterr*() was called since the last error reply
    std::string error_text;        // what tctx->error.str points at while error_set
    std::unique_ptr<ReplySink> capture; // set for in-process transactions
};

// Decodes a UserInfo (layout in wire.h) into u; rd.ok() tells whether it was whole.
void read_user_info(confd_wire::Reader &rd, confd_user_info &u);

// Library state of one SNMP notification sender (nctx->lib_internal).
struct NotifState {
    uint32_t id = 0;
    std::mutex mu; // guards the names and src_addr against concurrent senders
    std::string notify_name;
    std::string ctx_name;
    struct confd_ip src_addr {};
    bool has_src_addr = false;
};

// Library state of one daemon (dx->lib_internal).
struct DaemonState {
    uint32_t daemon_id = 0;
    int ctl_fd = -1;
    std::map<int, uint32_t> workers; // worker fd -> worker id from the server
    bool have_trans_cbs = false;
    struct confd_trans_cbs trans_cbs {};
    // Registered callpoints; the structs never move once stored.
    std::map<std::string, std::unique_ptr<struct confd_data_cbs>> data_cbs;
    std::map<int, struct confd_trans_ctx *> transactions; // by thandle
    std::vector<std::unique_ptr<struct confd_notification_ctx>> notif_ctxs;
    std::vector<struct confd_notification_snmp_inform_cbs> inform_cbs;
    bool registration_done = false;
    ValueStore store; // values handed to the callback being served
};

// State of a daemon context, or nullptr for a context this library did not make.
DaemonState *daemon_state(struct confd_daemon_ctx *dx);
// State of a transaction context, or nullptr.
TransState *trans_state(struct confd_trans_ctx *tctx);

// Allocates a transaction context bound to dx (not yet in its table).
struct confd_trans_ctx *new_trans(struct confd_daemon_ctx *dx);
// Frees a transaction context made by new_trans() (and removes it from dx's table).
void free_trans(struct confd_trans_ctx *tctx);

// Name of a pending callback number ("get_elem", "init", ...).
const char *cb_name(int cb);

// True for the data callbacks that change data (answered Done on CONFD_OK).
bool is_write_cb(int cb);

// Starts a Reply frame for request rid.
confd_wire::Writer reply_frame(uint32_t rid, confd_wire::ReplyKind kind);

// Error reply for request rid: result code, the error class and text set
// with confd_trans_seterr*() (or `fallback`), which is then cleared. The
// text used is returned in `text`.
std::string error_reply(uint32_t rid, int result, struct confd_trans_ctx *tctx,
                        const std::string &fallback, std::string &text);

// Sends a reply for the pending request of tctx (or captures it for an
// in-process transaction) and clears the pending state. CONFD_OK, or
// CONFD_ERR with CONFD_ERR_OS when the send failed.
int deliver(struct confd_trans_ctx *tctx, const std::string &payload);

// The Reply that ends a successful transaction callback: TransInitDone with
// the worker id of tctx->fd for init, Done otherwise.
std::string trans_ok_reply(struct confd_trans_ctx *tctx, uint32_t rid, int cb);

// Frees the library state and names of a notification context (at release).
void free_notif_state(struct confd_notification_ctx *nctx);

// Makes a notification sender on fd with the given id, owned by dx.
struct confd_notification_ctx *make_notif_ctx(struct confd_daemon_ctx *dx, int fd, uint32_t id,
                                              const char *notify_name, const char *ctx_name);

} // namespace libconfd
