// confd-emu's IPC server: connection threads for daemons, MAAPI, subscribers and the CLI.
#include "server.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "confd_lib.h"
#include "confd_events.h"
#include "maapi_service.h"
#include "schema_payload.h"

namespace emu
{

using confd_wire::ConnKind;
using confd_wire::Op;
using confd_wire::Reader;
using confd_wire::Writer;

namespace
{

constexpr uint32_t kMaxCliArgs = 4096;
// Connections served at once (one thread each): past it, new ones are closed at once, so a
// client opening connections in a loop cannot exhaust the emulator's threads and memory.
constexpr size_t kMaxConns = 1000;

void log_close(const Conn &c, const std::string &why)
{
    std::fprintf(stderr, "confd-emu: closing connection %u from %s:%u: %s\n", c.id(),
                 c.peer().c_str(), c.peer_port(), why.c_str());
}

std::string ok_frame()
{
    return Writer(Op::Ok).payload();
}

std::string err_frame(int code, const std::string &msg)
{
    return Writer(Op::Err).i32(code).str(msg).payload();
}

std::string dotted(const std::vector<uint32_t> &oid)
{
    std::string s;
    for (size_t i = 0; i < oid.size(); i++)
        s += (i ? "." : "") + std::to_string(oid[i]);
    return s;
}

// Reads an OID (u32 count, sub-identifiers); false when it is longer than ConfD's 128
// sub-identifiers.
bool read_oid(Reader &r, std::vector<uint32_t> &oid)
{
    uint32_t n = r.u32();
    if (n > 128) return false;
    for (uint32_t i = 0; i < n && r.ok(); i++)
        oid.push_back(r.u32());
    return true;
}

} // namespace

namespace
{
int diff_timeout(const ServerOptions &opt)
{
    return opt.diff_timeout_ms > 0 ? opt.diff_timeout_ms : opt.timeout_ms;
}
} // namespace

Server::Server(const Schema &schema, Datastore &ds, const ServerOptions &opt)
    : schema_(schema), ds_(ds), opt_(opt), reg_(opt.timeout_ms),
      cli_env_{reg_, schema_, opt.walk_limit, &ds, diff_timeout(opt)}
{
    // A transaction that ends (a daemon's, a MAAPI client's, a command's) leaves the datastore too.
    reg_.on_trans_closed([this](uint32_t th) { ds_.end(th); });
}

Server::~Server()
{
    reg_.stop();
    reap(true);
    if (listen_fd_ >= 0) ::close(listen_fd_);
}

bool Server::listen(std::string &err)
{
    listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listen_fd_ < 0) {
        err = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    int one = 1;
    setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sa.sin_port = htons(static_cast<uint16_t>(opt_.port));
    if (::bind(listen_fd_, reinterpret_cast<struct sockaddr *>(&sa), sizeof sa) < 0 ||
        ::listen(listen_fd_, 64) < 0) {
        err = "127.0.0.1:" + std::to_string(opt_.port) + ": " + std::strerror(errno);
        return false;
    }
    socklen_t len = sizeof sa;
    getsockname(listen_fd_, reinterpret_cast<struct sockaddr *>(&sa), &len);
    port_ = ntohs(sa.sin_port);
    return true;
}

void Server::reap(bool all)
{
    for (auto it = threads_.begin(); it != threads_.end();) {
        if (all || it->done->load()) {
            it->th.join();
            it = threads_.erase(it);
        } else {
            ++it;
        }
    }
}

void Server::run(int stop_fd)
{
    for (;;) {
        struct pollfd pfd[2] = {{listen_fd_, POLLIN, 0}, {stop_fd, POLLIN, 0}};
        int n = ::poll(pfd, 2, 1000);
        if (n < 0 && errno != EINTR) break;
        reap(false);
        if (n <= 0) continue;
        if (pfd[1].revents) break;
        if (!(pfd[0].revents & POLLIN)) continue;
        struct sockaddr_in peer = {};
        socklen_t len = sizeof peer;
        int fd =
            ::accept4(listen_fd_, reinterpret_cast<struct sockaddr *>(&peer), &len, SOCK_CLOEXEC);
        if (fd < 0) {
            // Out of descriptors: the pending connection stays queued and the listening socket
            // readable, so pause instead of spinning until a connection ends.
            if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
                std::fprintf(stderr, "confd-emu: accept: %s\n", std::strerror(errno));
                ::poll(nullptr, 0, 100);
            }
            continue;
        }
        if (threads_.size() >= kMaxConns) {
            std::fprintf(stderr, "confd-emu: refusing a connection: %zu connections open\n",
                         threads_.size());
            ::close(fd);
            continue;
        }
        // A peer that stops reading must not block a sender for longer than a daemon may take
        // to answer.
        struct timeval tv = {opt_.timeout_ms / 1000, (opt_.timeout_ms % 1000) * 1000};
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        // Replies and the frames of a daemon's worker socket go out back to back, as from the
        // real server: without this the second of two small frames waits for the peer's ACK.
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        char ip[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &peer.sin_addr, ip, sizeof ip);
        auto conn = std::make_shared<Conn>(fd, next_conn_++, ip, ntohs(peer.sin_port));
        reg_.add_conn(conn);
        auto done = std::make_shared<std::atomic<bool>>(false);
        threads_.push_back({std::thread([this, conn, done] {
                                serve(conn);
                                done->store(true);
                            }),
                            done});
    }
    reg_.stop();
    reap(true);
}

void Server::serve(const ConnPtr &c)
{
    std::string hello;
    // A client that connects must say who it is promptly; one that does not is dropped (and
    // forgotten, as any other connection is when it ends).
    if (int rc = c->frames().next(c->fd(), hello, opt_.timeout_ms); rc != 1) {
        if (rc < 0) log_close(*c, std::string("no hello: ") + std::strerror(errno));
        reg_.conn_closed(c, ConnKind{});
        return;
    }
    Reader r(hello);
    if (r.op() != Op::Hello) {
        log_close(*c, "it did not open with a hello");
        c->send(err_frame(CONFD_ERR_PROTOUSAGE, "a connection must open with a hello"));
        reg_.conn_closed(c, ConnKind{});
        return;
    }
    auto kind = static_cast<ConnKind>(r.u8());
    switch (kind) {
    case ConnKind::Control:
        serve_control(c, r);
        break;
    case ConnKind::Worker:
        serve_worker(c, r);
        break;
    case ConnKind::Maapi:
        serve_maapi(c);
        break;
    case ConnKind::Events:
        serve_events(c, r);
        break;
    case ConnKind::Cli:
        serve_cli(c);
        break;
    default:
        c->send(err_frame(CONFD_ERR_PROTOUSAGE, "unknown connection kind"));
        break;
    }
    reg_.conn_closed(c, kind);
}

bool Server::next_frame(const ConnPtr &c, std::string &payload)
{
    int rc = c->frames().next(c->fd(), payload, -1);
    if (rc < 0) log_close(*c, std::strerror(errno));
    return rc == 1;
}

void Server::serve_control(const ConnPtr &c, Reader &hello)
{
    std::string name = hello.str();
    hello.u32(); // api version
    uint32_t maxdepth = hello.u32(), maxkeylen = hello.u32();
    hello.u32(); // debug level
    if (!hello.ok()) {
        c->send(err_frame(CONFD_ERR_PROTOUSAGE, "malformed control hello"));
        return;
    }
    uint32_t depth, keys;
    schema_extent(schema_, depth, keys);
    // MAXDEPTH and MAXKEYLEN count one slot more than the longest keypath and the most keys.
    if ((maxdepth && depth >= maxdepth) || (maxkeylen && keys >= maxkeylen)) {
        c->send(err_frame(CONFD_ERR_PROTOUSAGE,
                          "the data model needs MAXDEPTH > " + std::to_string(depth) +
                              " and MAXKEYLEN > " + std::to_string(keys) + ", library has " +
                              std::to_string(maxdepth) + " and " + std::to_string(maxkeylen)));
        return;
    }
    uint32_t id = reg_.add_daemon(name, c, maxdepth, maxkeylen);
    if (!c->send(Writer(Op::Ok).u32(id).payload())) return;

    std::string payload;
    while (next_frame(c, payload)) {
        Reader r(payload);
        Op op = r.op();
        std::string err;
        int rc = -1;
        Writer ok(Op::Ok);
        // `fail register_data_cb` and friends: named after the library call that sent the frame.
        const char *reg_name = op == Op::RegTrans       ? "register_trans_cb"
                               : op == Op::RegData      ? "register_data_cb"
                               : op == Op::RegSnmpNotif ? "register_snmp_notification"
                               : op == Op::RegDone      ? "register_done"
                                                        : nullptr;
        if (reg_name != nullptr && reg_.take_failure(reg_name)) {
            if (!c->send(err_frame(CONFD_ERR_INTERNAL, std::string("injected failure: ") + reg_name)))
                break;
            continue;
        }
        switch (op) {
        case Op::RegTrans: {
            uint32_t mask = r.u32();
            if (r.ok()) rc = reg_.reg_trans(id, mask, err);
            break;
        }
        case Op::RegData: {
            std::string cp = r.str();
            uint32_t mask = r.u32();
            if (!r.ok()) break;
            if (schema_.callpoint_nodes(cp).empty()) {
                rc = CONFD_ERR_NOEXISTS;
                err = "callpoint " + cp + " not in the schema";
            } else {
                rc = reg_.reg_data(id, cp, mask, err);
            }
            break;
        }
        case Op::RegSnmpNotif: {
            uint32_t worker = r.u32();
            std::string nn = r.str(), cn = r.str();
            uint32_t nctx = 0;
            if (r.ok() && (rc = reg_.reg_snmp(id, worker, nn, cn, nctx, err)) == 0) ok.u32(nctx);
            break;
        }
        case Op::RegDone:
            rc = reg_.reg_done(id, err);
            break;
        default:
            read_daemon_frame(c, false, op, r, payload);
            continue;
        }
        if (rc == -1) {
            rc = CONFD_ERR_PROTOUSAGE;
            err = "malformed registration";
        }
        if (!c->send(rc == 0 ? ok.payload() : err_frame(rc, err))) break;
    }
}

void Server::serve_worker(const ConnPtr &c, Reader &hello)
{
    uint32_t daemon_id = hello.u32();
    uint32_t worker_id = 0;
    std::string err;
    int rc = hello.ok() ? reg_.add_worker(daemon_id, c, worker_id, err) : CONFD_ERR_PROTOUSAGE;
    if (rc != 0) {
        c->send(err_frame(rc, err.empty() ? "malformed worker hello" : err));
        return;
    }
    if (!c->send(Writer(Op::Ok).u32(worker_id).payload())) return;
    std::string payload;
    while (next_frame(c, payload)) {
        Reader r(payload);
        Op op = r.op();
        read_daemon_frame(c, true, op, r, payload);
    }
}

void Server::read_daemon_frame(const ConnPtr &c, bool worker, Op op, Reader &r,
                               const std::string &payload)
{
    if (op == Op::Reply) {
        uint32_t rid = r.u32();
        if (r.ok()) reg_.deliver(c, rid, payload);
    } else if (op == Op::SnmpNotif && worker) {
        // Notifications go out on a worker socket only, as the daemon registered them.
        snmp_notification(r);
    } else {
        std::fprintf(stderr, "confd-emu: unexpected frame %d from a daemon, ignored\n",
                     static_cast<int>(op));
    }
}

void Server::snmp_notification(Reader &r)
{
    Notification n;
    r.u32(); // notification context id
    n.notify_name = r.str();
    n.ctx_name = r.str();
    n.name = r.str();
    uint32_t count = r.u32();
    bool good = true;
    for (uint32_t i = 0; i < count && r.ok() && good; i++) {
        Varbind vb;
        std::vector<uint32_t> oid;
        switch (r.u8()) {
        case 1: // CONFD_SNMP_VARIABLE: an object name
            vb.name = r.str();
            break;
        case 2: // CONFD_SNMP_OID: the full instance OID
            good = read_oid(r, oid);
            vb.name = dotted(oid);
            break;
        case 3: // CONFD_SNMP_COL_ROW: column name plus row index
            vb.name = r.str();
            good = read_oid(r, oid);
            if (!oid.empty()) vb.name += "." + dotted(oid);
            break;
        default:
            good = false;
            break;
        }
        vb.value = r.value();
        r.u8(); // SNMP type, ignored as ConfD does when sending
        n.varbinds.push_back(std::move(vb));
    }
    if (!r.ok() || !good) {
        std::fprintf(stderr, "confd-emu: malformed SNMP notification dropped\n");
        return;
    }
    reg_.add_notification(std::move(n));
}

void Server::serve_maapi(const ConnPtr &c)
{
    if (!c->send(ok_frame())) return;
    reg_.add_maapi(c);
    MaapiService svc(reg_, ds_, schema_, c, diff_timeout(opt_));
    std::string payload;
    while (next_frame(c, payload)) {
        Reader r(payload);
        std::string answer;
        if (r.op() != Op::Maapi) {
            answer = err_frame(CONFD_ERR_PROTOUSAGE, "not a MAAPI request");
        } else {
            uint8_t op = r.u8();
            const char *name = MaapiService::op_name(op);
            if (!name)
                answer = err_frame(CONFD_ERR_PROTOUSAGE,
                                   "MAAPI operation " + std::to_string(op) + " is not supported");
            else if (reg_.take_failure(name))
                answer = err_frame(CONFD_ERR_INTERNAL, std::string("injected failure: ") + name);
            else
                answer = svc.handle(op, r);
        }
        if (!c->send(answer)) break;
    }
}

void Server::serve_events(const ConnPtr &c, Reader &hello)
{
    uint32_t mask = hello.u32();
    if (!hello.ok()) {
        c->send(err_frame(CONFD_ERR_PROTOUSAGE, "malformed subscriber hello"));
        return;
    }
    if (!c->send(ok_frame())) return;
    reg_.add_subscriber(c, mask);
    // Events flow to the subscriber; what comes back are the done messages of commit-diff
    // events, which need no answer.
    std::string payload;
    while (next_frame(c, payload)) {
        Reader r(payload);
        if (r.op() != Op::Event) continue;
        uint32_t type = r.u32();
        uint32_t th = r.u32();
        if (r.ok() && type == CONFD_NOTIF_COMMIT_DIFF) reg_.diff_done(th, c->id());
    }
}

void Server::serve_cli(const ConnPtr &c)
{
    if (!c->send(ok_frame())) return;
    std::string payload;
    while (next_frame(c, payload)) {
        Reader r(payload);
        std::string answer;
        if (r.op() != Op::Cli) {
            answer = err_frame(CONFD_ERR_PROTOUSAGE, "not a command");
        } else {
            uint32_t argc = r.u32();
            std::vector<std::string> argv;
            for (uint32_t i = 0; i < argc && i < kMaxCliArgs && r.ok(); i++)
                argv.push_back(r.str());
            if (!r.ok() || argc > kMaxCliArgs)
                answer = err_frame(CONFD_ERR_PROTOUSAGE, "malformed command");
            else {
                std::string failure, json = run_cli(cli_env_, argv, failure);
                answer = failure.empty() ? Writer(Op::Ok).str(json).payload()
                                         : err_frame(CONFD_ERR_EXTERNAL, failure);
            }
        }
        if (!c->send(answer)) break;
    }
}

} // namespace emu
