// Shared state of confd-emu: connections, daemons, registrations, transactions, pending requests.
//
// Every connection is served by its own thread; everything those threads share lives here, under
// one mutex. A request to a daemon is sent by the thread that needs the answer (a CLI connection's
// thread) and answered through the daemon connection's reader thread, which hands the Reply frame
// over by request id.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "wire.h"

namespace emu
{

// One accepted TCP connection. The fd is closed when the last reference goes away, so a thread that
// holds a reference can always send on it safely (a shut-down socket just fails the send).
class Conn
{
  public:
    Conn(int fd, uint32_t id, std::string peer, uint16_t peer_port);
    ~Conn();
    Conn(const Conn &) = delete;
    Conn &operator=(const Conn &) = delete;

    int fd() const { return fd_; }
    uint32_t id() const { return id_; }
    const std::string &peer() const { return peer_; }
    uint16_t peer_port() const { return peer_port_; }
    // Sends one frame; sends from several threads are serialised. False when the frame did not go
    // out (peer gone, or the send time-out passed); the connection is then shut down.
    bool send(const std::string &payload);
    // The same for frames already joined (confd_wire::append_frame), sent with one send().
    bool send_frames(const std::string &frames);
    // Shuts the socket down both ways, so the peer sees end-of-file and our reader thread wakes up.
    void shut();
    // What the connection's own thread has received; no other thread reads the socket.
    confd_wire::FrameReader &frames() { return frames_; }

  private:
    const int fd_;
    const uint32_t id_;
    const std::string peer_;
    const uint16_t peer_port_;
    std::mutex send_mu_;
    bool broken_ = false; // a send failed; guarded by send_mu_
    confd_wire::FrameReader frames_;
};
using ConnPtr = std::shared_ptr<Conn>;

// An SNMP notification as the daemon sent it.
struct Varbind {
    std::string name; // object name, dotted OID, or "column.index" for a column/row binding
    confd_wire::Value value;
};
struct Notification {
    std::string name, notify_name, ctx_name;
    std::vector<Varbind> varbinds;
};

// Where a request for a callpoint goes.
struct Route {
    uint32_t daemon_id = 0;
    std::string daemon;
    ConnPtr control;
    uint32_t trans_mask = 0; // transaction callbacks registered (bit = TransCb)
    uint32_t data_mask = 0;  // data callbacks of the callpoint (bit = DataCb)
};

// Outcome of a request sent to a daemon.
enum class CallStatus { Replied, Closed, TimedOut, Stopped };

class Registry
{
  public:
    explicit Registry(int timeout_ms) : timeout_ms_(timeout_ms) {}
    int timeout_ms() const { return timeout_ms_; }

    // --- connections ---
    // Remembers an accepted connection so that stop() can shut it down.
    void add_conn(const ConnPtr &c);
    // Forgets a connection whose thread is ending, and undoes what it stood for: a control
    // connection takes its daemon away, a worker leaves its daemon, a MAAPI connection drops its
    // attachments, a subscriber leaves. Requests still waiting for an answer on it fail at once.
    void conn_closed(const ConnPtr &c, confd_wire::ConnKind kind);
    // Shuts every connection down and fails every waiting request (server shutdown).
    void stop();

    // --- daemons (answers: 0 or a CONFD_ERR_* number with a message in err) ---
    uint32_t add_daemon(const std::string &name, const ConnPtr &control, uint32_t maxdepth,
                        uint32_t maxkeylen);
    int add_worker(uint32_t daemon_id, const ConnPtr &worker, uint32_t &worker_id,
                   std::string &err);
    int reg_trans(uint32_t daemon_id, uint32_t mask, std::string &err);
    int reg_data(uint32_t daemon_id, const std::string &callpoint, uint32_t mask, std::string &err);
    int reg_snmp(uint32_t daemon_id, uint32_t worker_id, const std::string &notify_name,
                 const std::string &ctx_name, uint32_t &nctx_id, std::string &err);
    int reg_done(uint32_t daemon_id, std::string &err);
    // The daemon serving a callpoint, once it has finished registering. False with a message
    // otherwise.
    bool route(const std::string &callpoint, Route &out, std::string &err);
    // Worker connection of a daemon by id, null when there is none.
    ConnPtr worker(uint32_t daemon_id, uint32_t worker_id);
    // Treats a daemon as dead: shuts its sockets and drops its registrations (idempotent).
    void kill_daemon(uint32_t daemon_id, const std::string &why);
    // Shuts down every control or every worker connection of every daemon, or every event
    // subscriber
    // ("control", "worker", "notifications"). False for any other word.
    bool drop(const std::string &what);

    // --- requests to daemons ---
    uint32_t new_rid();
    // Sends payload (which carries rid) on conn and waits for the Reply with that rid, at most the
    // time-out. On Replied, reply holds the frame. A frame that comes later than that is dropped.
    CallStatus call(const ConnPtr &conn, uint32_t rid, const std::string &payload,
                    std::string &reply);
    // call() in two halves, so that several requests can be outstanding on one connection:
    // send_requests registers the rids and sends their payloads with one send() (false, with the
    // reason in failed, when the connection is gone or the emulator stops; no rid stays
    // registered then); await_reply waits for one rid's Reply.
    using Request = std::pair<uint32_t, std::string>; // rid, payload
    bool send_requests(const ConnPtr &conn, const std::vector<Request> &reqs, CallStatus &failed);
    CallStatus await_reply(uint32_t rid, std::string &reply);
    // Hands a Reply frame read on conn to the request waiting for it; stale or foreign rids are
    // dropped.
    void deliver(const ConnPtr &conn, uint32_t rid, std::string payload);

    // --- transactions and MAAPI ---
    // Most transactions open at once, all clients together: a read-write one copies the whole
    // running configuration, so clients that never finish theirs must not grow the emulator
    // without bound.
    static constexpr size_t kMaxOpenTrans = 256;
    // A new transaction handle (never 0), or 0 with err set when kMaxOpenTrans are open.
    uint32_t open_trans(uint32_t daemon_id, int mode, std::string &err);
    void close_trans(uint32_t thandle);
    // MAAPI attach/detach by the given MAAPI connection; 0 or CONFD_ERR_NOEXISTS with a message.
    int attach(uint32_t thandle, uint32_t maapi_conn, std::string &err);
    int detach(uint32_t thandle, uint32_t maapi_conn, std::string &err);
    // Mode of an open transaction (CONFD_READ or CONFD_READ_WRITE), -1 when there is none.
    int trans_mode(uint32_t thandle);
    // True when the MAAPI connection maapi_conn is attached to the open transaction thandle.
    bool attached(uint32_t thandle, uint32_t maapi_conn);
    // fn is called, outside the lock, with the handle of every transaction close_trans() ends (the
    // datastore forgets its side of it then).
    void on_trans_closed(std::function<void(uint32_t)> fn);
    // A new user-session id, unique in this server.
    int32_t new_usid();
    void add_maapi(const ConnPtr &c);
    void add_subscriber(const ConnPtr &c, uint32_t mask);

    // --- event subscribers ---
    // The subscribers whose mask has any of the given bits.
    std::vector<ConnPtr> subscribers(uint32_t mask);
    // Starts waiting for the commit-diff done of the subscribers (connection ids) told about
    // thandle.
    void expect_diff_done(uint32_t thandle, const std::vector<uint32_t> &conns);
    // A subscriber's done for thandle; ignored when nobody waits for it.
    void diff_done(uint32_t thandle, uint32_t conn);
    // Waits until every subscriber told about thandle has said done or gone away, at most
    // timeout_ms, and forgets the wait. Returns the connection ids still silent.
    std::vector<uint32_t> wait_diff_done(uint32_t thandle, int timeout_ms);
    // Fault injection: the next `times` MAAPI requests of operation `op` fail.
    void set_failure(const std::string &op, int times);
    // True (and one failure used up) when the next request of `op` is to fail.
    bool take_failure(const std::string &op);

    // --- notifications and reports ---
    void add_notification(Notification n);
    // Called with every notification added from now on (outside the registry's lock); set once,
    // before any daemon connects.
    void on_notification(std::function<void(const Notification &)> hook);
    // JSON list of the notifications received, in arrival order; clear empties the log afterwards.
    std::string notifications_json(bool clear);
    // JSON object describing the connected daemons, sessions and counters.
    std::string status_json();

  private:
    struct NotifCtx {
        uint32_t id, worker_id;
        std::string notify_name, ctx_name;
    };
    struct Daemon {
        uint32_t id = 0;
        std::string name;
        ConnPtr control;
        std::map<uint32_t, ConnPtr> workers;
        bool trans_registered = false, done = false;
        uint32_t trans_mask = 0, maxdepth = 0, maxkeylen = 0;
        std::vector<std::string> callpoints; // in registration order
        std::map<std::string, uint32_t> data_masks;
        std::vector<NotifCtx> nctxs;
        uint64_t transactions = 0, attaches = 0, detaches = 0;
    };
    struct Trans {
        uint32_t daemon_id = 0;
        int mode = 0;
        std::map<uint32_t, int> attached; // MAAPI connection id -> attach count
    };
    struct Pending {
        uint32_t conn_id = 0;
        bool done = false, closed = false;
        std::string reply;
    };

    void kill_locked(uint32_t daemon_id, const std::string &why);
    void fail_pending_locked(uint32_t conn_id);
    Daemon *daemon_locked(uint32_t id);
    // The daemon while it may still register: CONFD_ERR_NOEXISTS when it is gone,
    // CONFD_ERR_PROTOUSAGE after its confd_register_done.
    int registering_locked(uint32_t daemon_id, Daemon *&d, std::string &err);

    const int timeout_ms_;
    std::mutex mu_;
    std::condition_variable cv_;
    bool stopping_ = false;
    std::map<uint32_t, std::weak_ptr<Conn>> conns_;
    std::map<uint32_t, Daemon> daemons_;
    std::map<std::string, uint32_t> cp_owner_; // callpoint -> daemon id
    std::map<uint32_t, Trans> trans_;
    std::map<uint32_t, Pending> pending_;
    std::map<uint32_t, ConnPtr> maapi_;
    std::map<uint32_t, std::pair<ConnPtr, uint32_t>> subscribers_; // conn id -> (conn, mask)
    std::map<std::string, int> failures_;
    std::map<uint32_t, std::set<uint32_t>> diff_waits_; // thandle -> subscribers not yet done
    std::function<void(uint32_t)> trans_closed_;
    std::vector<Notification> notifs_;
    std::function<void(const Notification &)> notif_hook_;
    uint32_t next_daemon_ = 1, next_worker_ = 1, next_nctx_ = 1, next_rid_ = 1, next_thandle_ = 1;
    int32_t next_usid_ = 1;
    uint64_t maapi_attaches_ = 0, notifs_total_ = 0, killed_ = 0;
    uint64_t diff_dones_ = 0; // commit-diff events a subscriber answered with its done
};

} // namespace emu
