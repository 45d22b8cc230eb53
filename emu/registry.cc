// Shared state of confd-emu: daemons, registrations, transactions, requests, notification log.
#include "registry.h"

#include <chrono>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

#include "confd_lib.h"
#include "keypath.h"

namespace emu
{

Conn::Conn(int fd, uint32_t id, std::string peer, uint16_t peer_port)
    : fd_(fd), id_(id), peer_(std::move(peer)), peer_port_(peer_port)
{
}

Conn::~Conn()
{
    ::close(fd_);
}

bool Conn::send(const std::string &payload)
{
    std::string frame;
    frame.reserve(payload.size() + 4);
    if (!confd_wire::append_frame(frame, payload)) return false;
    return send_frames(frame);
}

bool Conn::send_frames(const std::string &frames)
{
    std::lock_guard<std::mutex> lk(send_mu_);
    if (broken_) return false;
    if (confd_wire::send_bytes(fd_, frames)) return true;
    // Part of the frame may have gone out: the stream is out of step for good. A peer that has
    // not read its replies for the send time-out ends here too (EAGAIN).
    std::fprintf(stderr, "confd-emu: closing connection %u from %s:%u: send: %s\n", id_,
                 peer_.c_str(), peer_port_, std::strerror(errno));
    broken_ = true;
    shut();
    return false;
}

void Conn::shut()
{
    ::shutdown(fd_, SHUT_RDWR);
}

void Registry::add_conn(const ConnPtr &c)
{
    std::lock_guard<std::mutex> lk(mu_);
    conns_[c->id()] = c;
    if (stopping_) c->shut();
}

void Registry::conn_closed(const ConnPtr &c, confd_wire::ConnKind kind)
{
    using confd_wire::ConnKind;
    std::lock_guard<std::mutex> lk(mu_);
    conns_.erase(c->id());
    fail_pending_locked(c->id());
    switch (kind) {
    case ConnKind::Control:
        for (auto &d : daemons_)
            if (d.second.control == c) {
                kill_locked(d.first, "");
                break;
            }
        break;
    case ConnKind::Worker:
        for (auto &d : daemons_)
            for (auto it = d.second.workers.begin(); it != d.second.workers.end(); ++it)
                if (it->second == c) {
                    d.second.workers.erase(it);
                    break;
                }
        break;
    case ConnKind::Maapi:
        maapi_.erase(c->id());
        for (auto &t : trans_)
            t.second.attached.erase(c->id());
        break;
    case ConnKind::Events:
        subscribers_.erase(c->id());
        // A subscriber that goes away counts as done with every commit it was told about.
        for (auto &w : diff_waits_)
            w.second.erase(c->id());
        cv_.notify_all();
        break;
    default:
        break;
    }
}

void Registry::stop()
{
    std::lock_guard<std::mutex> lk(mu_);
    stopping_ = true;
    for (auto &w : conns_)
        if (ConnPtr c = w.second.lock()) c->shut();
    cv_.notify_all();
}

uint32_t Registry::add_daemon(const std::string &name, const ConnPtr &control, uint32_t maxdepth,
                              uint32_t maxkeylen)
{
    std::lock_guard<std::mutex> lk(mu_);
    Daemon d;
    d.id = next_daemon_++;
    d.name = name;
    d.control = control;
    d.maxdepth = maxdepth;
    d.maxkeylen = maxkeylen;
    uint32_t id = d.id;
    daemons_.emplace(id, std::move(d));
    return id;
}

Registry::Daemon *Registry::daemon_locked(uint32_t id)
{
    auto it = daemons_.find(id);
    return it == daemons_.end() ? nullptr : &it->second;
}

int Registry::add_worker(uint32_t daemon_id, const ConnPtr &worker, uint32_t &worker_id,
                         std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    Daemon *d = daemon_locked(daemon_id);
    if (!d) {
        err = "no daemon with id " + std::to_string(daemon_id);
        return CONFD_ERR_NOEXISTS;
    }
    worker_id = next_worker_++;
    d->workers[worker_id] = worker;
    return 0;
}

int Registry::registering_locked(uint32_t daemon_id, Daemon *&d, std::string &err)
{
    d = daemon_locked(daemon_id);
    if (!d) {
        err = "daemon is gone";
        return CONFD_ERR_NOEXISTS;
    }
    if (d->done) {
        err = "registration after confd_register_done";
        return CONFD_ERR_PROTOUSAGE;
    }
    return 0;
}

int Registry::reg_trans(uint32_t daemon_id, uint32_t mask, std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    Daemon *d = nullptr;
    int rc = registering_locked(daemon_id, d, err);
    if (rc) return rc;
    d->trans_registered = true;
    d->trans_mask = mask;
    return 0;
}

int Registry::reg_data(uint32_t daemon_id, const std::string &callpoint, uint32_t mask,
                       std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    Daemon *d = nullptr;
    int rc = registering_locked(daemon_id, d, err);
    if (rc) return rc;
    auto owner = cp_owner_.find(callpoint);
    if (owner != cp_owner_.end() && owner->second != daemon_id) {
        Daemon *other = daemon_locked(owner->second);
        err = "callpoint " + callpoint + " already registered by " +
              (other ? other->name : std::string("another daemon"));
        return CONFD_ERR_ALREADY_EXISTS;
    }
    cp_owner_[callpoint] = daemon_id;
    if (!d->data_masks.count(callpoint)) d->callpoints.push_back(callpoint);
    d->data_masks[callpoint] = mask;
    return 0;
}

int Registry::reg_snmp(uint32_t daemon_id, uint32_t worker_id, const std::string &notify_name,
                       const std::string &ctx_name, uint32_t &nctx_id, std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    Daemon *d = daemon_locked(daemon_id);
    if (!d) {
        err = "daemon is gone";
        return CONFD_ERR_NOEXISTS;
    }
    if (!d->workers.count(worker_id)) {
        err = "worker " + std::to_string(worker_id) + " is not connected for daemon " + d->name;
        return CONFD_ERR_NOEXISTS;
    }
    nctx_id = next_nctx_++;
    d->nctxs.push_back({nctx_id, worker_id, notify_name, ctx_name});
    return 0;
}

int Registry::reg_done(uint32_t daemon_id, std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    Daemon *d = daemon_locked(daemon_id);
    if (!d) {
        err = "daemon is gone";
        return CONFD_ERR_NOEXISTS;
    }
    d->done = true;
    return 0;
}

bool Registry::route(const std::string &callpoint, Route &out, std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    auto it = cp_owner_.find(callpoint);
    Daemon *d = it == cp_owner_.end() ? nullptr : daemon_locked(it->second);
    if (!d) {
        err = "no daemon has registered callpoint " + callpoint;
        return false;
    }
    if (!d->done) {
        err = "daemon " + d->name + " has not finished registering (callpoint " + callpoint + ")";
        return false;
    }
    if (!d->trans_registered) {
        err = "daemon " + d->name + " registered no transaction callbacks";
        return false;
    }
    out.daemon_id = d->id;
    out.daemon = d->name;
    out.control = d->control;
    out.trans_mask = d->trans_mask;
    out.data_mask = d->data_masks[callpoint];
    return true;
}

ConnPtr Registry::worker(uint32_t daemon_id, uint32_t worker_id)
{
    std::lock_guard<std::mutex> lk(mu_);
    Daemon *d = daemon_locked(daemon_id);
    if (!d) return nullptr;
    auto it = d->workers.find(worker_id);
    return it == d->workers.end() ? nullptr : it->second;
}

void Registry::kill_daemon(uint32_t daemon_id, const std::string &why)
{
    std::lock_guard<std::mutex> lk(mu_);
    kill_locked(daemon_id, why);
}

void Registry::kill_locked(uint32_t daemon_id, const std::string &why)
{
    auto it = daemons_.find(daemon_id);
    if (it == daemons_.end()) return;
    Daemon &d = it->second;
    if (!why.empty()) {
        std::fprintf(stderr, "confd-emu: closing daemon %s: %s\n", d.name.c_str(), why.c_str());
        killed_++;
    }
    d.control->shut();
    fail_pending_locked(d.control->id());
    for (auto &w : d.workers) {
        w.second->shut();
        fail_pending_locked(w.second->id());
    }
    for (auto cp = cp_owner_.begin(); cp != cp_owner_.end();)
        cp = cp->second == daemon_id ? cp_owner_.erase(cp) : std::next(cp);
    daemons_.erase(it);
}

bool Registry::drop(const std::string &what)
{
    std::lock_guard<std::mutex> lk(mu_);
    if (what == "control") {
        for (auto &d : daemons_)
            d.second.control->shut();
    } else if (what == "worker") {
        for (auto &d : daemons_)
            for (auto &w : d.second.workers)
                w.second->shut();
    } else if (what == "notifications") {
        for (auto &s : subscribers_)
            s.second.first->shut();
    } else {
        return false;
    }
    return true;
}

uint32_t Registry::new_rid()
{
    std::lock_guard<std::mutex> lk(mu_);
    uint32_t rid = next_rid_++;
    if (next_rid_ == 0) next_rid_ = 1;
    return rid;
}

CallStatus Registry::call(const ConnPtr &conn, uint32_t rid, const std::string &payload,
                          std::string &reply)
{
    CallStatus failed;
    if (!send_requests(conn, {{rid, payload}}, failed)) return failed;
    return await_reply(rid, reply);
}

bool Registry::send_requests(const ConnPtr &conn, const std::vector<Request> &reqs,
                             CallStatus &failed)
{
    std::string frames;
    for (const Request &r : reqs)
        if (!confd_wire::append_frame(frames, r.second)) {
            failed = CallStatus::Closed;
            return false;
        }
    {
        std::lock_guard<std::mutex> lk(mu_);
        failed = stopping_ ? CallStatus::Stopped : CallStatus::Closed;
        // A connection whose reader has ended would never deliver the answer.
        if (stopping_ || !conns_.count(conn->id())) return false;
        for (const Request &r : reqs)
            pending_[r.first].conn_id = conn->id();
    }
    // Sent outside the lock: a daemon that does not read must not stall everybody else.
    if (conn->send_frames(frames)) return true;
    std::lock_guard<std::mutex> lk(mu_);
    for (const Request &r : reqs)
        pending_.erase(r.first);
    return false;
}

CallStatus Registry::await_reply(uint32_t rid, std::string &reply)
{
    std::unique_lock<std::mutex> lk(mu_);
    auto it = pending_.find(rid);
    if (it == pending_.end()) return CallStatus::Closed;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms_);
    bool woke = cv_.wait_until(lk, deadline, [&] { return it->second.done || stopping_; });
    CallStatus st;
    if (!woke)
        st = CallStatus::TimedOut;
    else if (it->second.done && !it->second.closed)
        st = CallStatus::Replied;
    else if (it->second.done)
        st = CallStatus::Closed;
    else
        st = CallStatus::Stopped;
    if (st == CallStatus::Replied) reply = std::move(it->second.reply);
    pending_.erase(it);
    return st;
}

void Registry::deliver(const ConnPtr &conn, uint32_t rid, std::string payload)
{
    std::lock_guard<std::mutex> lk(mu_);
    auto it = pending_.find(rid);
    if (it == pending_.end() || it->second.conn_id != conn->id() || it->second.done)
        return; // late answer to a request that timed out, or not ours: dropped
    it->second.done = true;
    it->second.reply = std::move(payload);
    cv_.notify_all();
}

void Registry::fail_pending_locked(uint32_t conn_id)
{
    bool any = false;
    for (auto &p : pending_)
        if (p.second.conn_id == conn_id && !p.second.done) {
            p.second.done = p.second.closed = true;
            any = true;
        }
    if (any) cv_.notify_all();
}

uint32_t Registry::open_trans(uint32_t daemon_id, int mode, std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    if (trans_.size() >= kMaxOpenTrans) {
        err = "too many open transactions (" + std::to_string(kMaxOpenTrans) + ")";
        return 0;
    }
    uint32_t th = next_thandle_++;
    if (th == 0) th = next_thandle_++; // 0 means "none" after the counter wraps
    Trans t;
    t.daemon_id = daemon_id;
    t.mode = mode;
    trans_[th] = std::move(t);
    if (Daemon *d = daemon_locked(daemon_id)) d->transactions++;
    return th;
}

void Registry::close_trans(uint32_t thandle)
{
    std::function<void(uint32_t)> hook;
    {
        std::lock_guard<std::mutex> lk(mu_);
        trans_.erase(thandle);
        hook = trans_closed_;
    }
    if (hook) hook(thandle);
}

int Registry::trans_mode(uint32_t thandle)
{
    std::lock_guard<std::mutex> lk(mu_);
    auto it = trans_.find(thandle);
    return it == trans_.end() ? -1 : it->second.mode;
}

bool Registry::attached(uint32_t thandle, uint32_t maapi_conn)
{
    std::lock_guard<std::mutex> lk(mu_);
    auto it = trans_.find(thandle);
    return it != trans_.end() && it->second.attached.count(maapi_conn) != 0;
}

void Registry::on_trans_closed(std::function<void(uint32_t)> fn)
{
    std::lock_guard<std::mutex> lk(mu_);
    trans_closed_ = std::move(fn);
}

int32_t Registry::new_usid()
{
    std::lock_guard<std::mutex> lk(mu_);
    int32_t id = next_usid_++;
    if (next_usid_ <= 0) next_usid_ = 1;
    return id;
}

std::vector<ConnPtr> Registry::subscribers(uint32_t mask)
{
    std::lock_guard<std::mutex> lk(mu_);
    std::vector<ConnPtr> out;
    for (auto &s : subscribers_)
        if (s.second.second & mask) out.push_back(s.second.first);
    return out;
}

void Registry::expect_diff_done(uint32_t thandle, const std::vector<uint32_t> &conns)
{
    std::lock_guard<std::mutex> lk(mu_);
    auto &w = diff_waits_[thandle];
    for (uint32_t c : conns)
        if (subscribers_.count(c)) w.insert(c);
}

void Registry::diff_done(uint32_t thandle, uint32_t conn)
{
    std::lock_guard<std::mutex> lk(mu_);
    auto it = diff_waits_.find(thandle);
    if (it == diff_waits_.end()) return;
    if (it->second.erase(conn)) diff_dones_++;
    cv_.notify_all();
}

std::vector<uint32_t> Registry::wait_diff_done(uint32_t thandle, int timeout_ms)
{
    std::unique_lock<std::mutex> lk(mu_);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    cv_.wait_until(lk, deadline, [&] {
        auto it = diff_waits_.find(thandle);
        return stopping_ || it == diff_waits_.end() || it->second.empty();
    });
    std::vector<uint32_t> silent;
    auto it = diff_waits_.find(thandle);
    if (it != diff_waits_.end()) {
        silent.assign(it->second.begin(), it->second.end());
        diff_waits_.erase(it);
    }
    return silent;
}

int Registry::attach(uint32_t thandle, uint32_t maapi_conn, std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    auto it = trans_.find(thandle);
    if (it == trans_.end()) {
        err = "no open transaction " + std::to_string(thandle);
        return CONFD_ERR_NOEXISTS;
    }
    it->second.attached[maapi_conn]++;
    maapi_attaches_++;
    if (Daemon *d = daemon_locked(it->second.daemon_id)) d->attaches++;
    return 0;
}

int Registry::detach(uint32_t thandle, uint32_t maapi_conn, std::string &err)
{
    std::lock_guard<std::mutex> lk(mu_);
    auto it = trans_.find(thandle);
    if (it == trans_.end()) {
        err = "no open transaction " + std::to_string(thandle);
        return CONFD_ERR_NOEXISTS;
    }
    auto a = it->second.attached.find(maapi_conn);
    if (a == it->second.attached.end()) {
        err = "transaction " + std::to_string(thandle) + " is not attached on this socket";
        return CONFD_ERR_NOEXISTS;
    }
    if (--a->second == 0) it->second.attached.erase(a);
    if (Daemon *d = daemon_locked(it->second.daemon_id)) d->detaches++;
    return 0;
}

void Registry::add_maapi(const ConnPtr &c)
{
    std::lock_guard<std::mutex> lk(mu_);
    maapi_[c->id()] = c;
}

void Registry::add_subscriber(const ConnPtr &c, uint32_t mask)
{
    std::lock_guard<std::mutex> lk(mu_);
    subscribers_[c->id()] = {c, mask};
}

void Registry::set_failure(const std::string &op, int times)
{
    std::lock_guard<std::mutex> lk(mu_);
    if (times <= 0)
        failures_.erase(op);
    else
        failures_[op] = times;
}

bool Registry::take_failure(const std::string &op)
{
    std::lock_guard<std::mutex> lk(mu_);
    auto it = failures_.find(op);
    if (it == failures_.end()) return false;
    if (--it->second <= 0) failures_.erase(it);
    return true;
}

void Registry::add_notification(Notification n)
{
    if (notif_hook_) notif_hook_(n);
    std::lock_guard<std::mutex> lk(mu_);
    notifs_.push_back(std::move(n));
    notifs_total_++;
}

void Registry::on_notification(std::function<void(const Notification &)> hook)
{
    notif_hook_ = std::move(hook);
}

std::string Registry::notifications_json(bool clear)
{
    std::lock_guard<std::mutex> lk(mu_);
    std::string out = "[";
    for (size_t i = 0; i < notifs_.size(); i++) {
        const Notification &n = notifs_[i];
        out += i ? ",{\"name\":" : "{\"name\":";
        out += json_quote(n.name);
        out += ",\"varbinds\":[";
        for (size_t k = 0; k < n.varbinds.size(); k++) {
            if (k) out += ',';
            // {"name":..., then the value's own "type"/"value" members.
            std::string v = value_to_json(n.varbinds[k].value);
            out += "{\"name\":" + json_quote(n.varbinds[k].name);
            if (v.size() > 2)
                out += "," + v.substr(1);
            else
                out += "}";
        }
        out += "]}";
    }
    out += "]";
    if (clear) notifs_.clear();
    return out;
}

std::string Registry::status_json()
{
    std::lock_guard<std::mutex> lk(mu_);
    std::map<uint32_t, int> open; // daemon id -> open transactions
    for (auto &t : trans_)
        open[t.second.daemon_id]++;
    std::string out = "{\"daemons\":[";
    bool first = true;
    for (auto &e : daemons_) {
        const Daemon &d = e.second;
        out += first ? "{" : ",{";
        first = false;
        out += "\"name\":" + json_quote(d.name) + ",\"id\":" + std::to_string(d.id);
        out += ",\"callpoints\":[";
        for (size_t i = 0; i < d.callpoints.size(); i++)
            out += (i ? "," : "") + json_quote(d.callpoints[i]);
        out += "],\"registered\":";
        out += d.done ? "true" : "false";
        out += ",\"trans_callbacks\":";
        out += d.trans_registered ? "true" : "false";
        out += ",\"open_transactions\":" + std::to_string(open[d.id]);
        out += ",\"transactions\":" + std::to_string(d.transactions);
        out += ",\"workers\":" + std::to_string(d.workers.size());
        out += ",\"notification_contexts\":" + std::to_string(d.nctxs.size());
        out += ",\"maapi_attaches\":" + std::to_string(d.attaches);
        out += ",\"maapi_detaches\":" + std::to_string(d.detaches);
        out += "}";
    }
    out += "],\"open_transactions\":" + std::to_string(trans_.size());
    out += ",\"maapi_sessions\":" + std::to_string(maapi_.size());
    out += ",\"maapi_attaches\":" + std::to_string(maapi_attaches_);
    out += ",\"subscribers\":" + std::to_string(subscribers_.size());
    out += ",\"diff_notifications_done\":" + std::to_string(diff_dones_);
    out += ",\"notifications\":" + std::to_string(notifs_.size());
    out += ",\"notifications_total\":" + std::to_string(notifs_total_);
    out += ",\"daemons_closed\":" + std::to_string(killed_);
    out += ",\"failures\":{";
    first = true;
    for (auto &f : failures_) {
        out += (first ? "" : ",") + json_quote(f.first) + ":" + std::to_string(f.second);
        first = false;
    }
    out += "}}";
    return out;
}

} // namespace emu
