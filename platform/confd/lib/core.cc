// Library set-up (confd_init, debug level and stream), debug output and framed request/answer I/O.
#include "lib_core.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unordered_map>
#include <unistd.h>

using confd_wire::Op;

namespace libconfd {

namespace {

std::atomic<int> g_debug{CONFD_SILENT};
std::atomic<FILE *> g_stream{nullptr};
std::mutex g_name_mu;
char g_name[MAX_DAEMON_NAME_LEN] = "libconfd";

const char *level_tag(int level)
{
    switch (level) {
    case CONFD_DEBUG: return "DEBUG";
    case CONFD_TRACE: return "TRACE";
    default: return "PROTO";
    }
}

const char *op_text(Op op)
{
    switch (op) {
    case Op::Hello: return "Hello";
    case Op::Ok: return "Ok";
    case Op::Err: return "Err";
    case Op::RegTrans: return "RegTrans";
    case Op::RegData: return "RegData";
    case Op::RegSnmpNotif: return "RegSnmpNotif";
    case Op::RegDone: return "RegDone";
    case Op::TransInit: return "TransInit";
    case Op::TransCall: return "TransCall";
    case Op::DataCall: return "DataCall";
    case Op::Reply: return "Reply";
    case Op::SnmpNotif: return "SnmpNotif";
    case Op::Maapi: return "Maapi";
    case Op::Event: return "Event";
    case Op::Cli: return "Cli";
    }
    return nullptr;
}

// One lock per fd for sending. A single send() is not enough on its own:
// when the socket buffer fills, the kernel waits for room with the socket
// unlocked, and another thread's send() on the same socket (a notification
// sender sharing the worker socket) could then put its bytes in between.
std::mutex g_send_locks_mu;
std::unordered_map<int, std::unique_ptr<std::mutex>> g_send_locks;

std::mutex &send_lock(int fd)
{
    std::lock_guard<std::mutex> lock(g_send_locks_mu);
    auto &m = g_send_locks[fd];
    if (!m)
        m = std::make_unique<std::mutex>();
    return *m;
}

// What a socket has received beyond the frames read so far; reset when the fd is connected again.
struct SocketReader {
    std::mutex mu;
    confd_wire::FrameReader frames;
};
std::mutex g_readers_mu;
std::unordered_map<int, std::unique_ptr<SocketReader>> g_readers;

SocketReader &reader_of(int fd)
{
    std::lock_guard<std::mutex> lock(g_readers_mu);
    auto &r = g_readers[fd];
    if (!r)
        r = std::make_unique<SocketReader>();
    return *r;
}

} // namespace

int debug_level() { return g_debug.load(std::memory_order_relaxed); }

bool debug_on(int level)
{
    return level > CONFD_SILENT && debug_level() >= level &&
           g_stream.load(std::memory_order_relaxed) != nullptr;
}

void logf(int level, const char *fmt, ...)
{
    if (!debug_on(level))
        return;
    char text[1024];
    va_list ap;
    va_start(ap, fmt);
    if (vsnprintf(text, sizeof text, fmt, ap) < 0)
        text[0] = '\0';
    va_end(ap);
    std::lock_guard<std::mutex> lock(g_name_mu);
    FILE *out = g_stream.load();
    if (out == nullptr)
        return;
    // One fprintf per line: stdio locks the stream, so lines from several
    // threads never mix.
    fprintf(out, "%s %s %s\n", level_tag(level), g_name, text);
    fflush(out);
}

std::string op_name(const std::string &payload)
{
    if (payload.empty())
        return "empty";
    Op op = static_cast<Op>(static_cast<uint8_t>(payload[0]));
    const char *t = op_text(op);
    if (t != nullptr)
        return t;
    return "Op<" + std::to_string(static_cast<unsigned>(static_cast<uint8_t>(payload[0]))) + ">";
}

namespace {
// The batch of the socket this thread is serving in confd_fd_ready, if any.
thread_local ReplyBatch *t_batch = nullptr;
} // namespace

ReplyBatch::ReplyBatch(int fd) : fd_(fd), outer_(t_batch) { t_batch = this; }

ReplyBatch::~ReplyBatch()
{
    flush();
    t_batch = outer_;
}

ReplyBatch *ReplyBatch::of(int fd) { return t_batch != nullptr && t_batch->fd_ == fd ? t_batch : nullptr; }

bool ReplyBatch::flush()
{
    if (bytes_.empty())
        return true;
    std::lock_guard<std::mutex> lock(send_lock(fd_));
    bool ok = confd_wire::send_bytes(fd_, bytes_);
    bytes_.clear();
    return ok;
}

bool send_payload(int fd, const std::string &payload)
{
    if (debug_on(CONFD_PROTO_TRACE))
        logf(CONFD_PROTO_TRACE, "fd %d send %s (%zu bytes)", fd, op_name(payload).c_str(),
             payload.size());
    if (ReplyBatch *batch = ReplyBatch::of(fd))
        return batch->queue(payload);
    std::lock_guard<std::mutex> lock(send_lock(fd));
    return confd_wire::send_frame(fd, payload);
}

int recv_payload(int fd, std::string &payload, int timeout_ms, bool read_ahead)
{
    SocketReader &rd = reader_of(fd);
    std::lock_guard<std::mutex> lock(rd.mu);
    int r = read_ahead || !rd.frames.empty() ? rd.frames.next(fd, payload, timeout_ms)
                                             : confd_wire::recv_frame(fd, payload, timeout_ms);
    if (r == 1 && debug_on(CONFD_PROTO_TRACE))
        logf(CONFD_PROTO_TRACE, "fd %d recv %s (%zu bytes)", fd, op_name(payload).c_str(),
             payload.size());
    else if (r == 0 && debug_on(CONFD_PROTO_TRACE))
        logf(CONFD_PROTO_TRACE, "fd %d closed by peer", fd);
    return r;
}

bool frame_pending(int fd)
{
    SocketReader &rd = reader_of(fd);
    std::lock_guard<std::mutex> lock(rd.mu);
    return rd.frames.has_frame();
}

int connect_socket(int sock, const struct sockaddr *srv, int srv_sz)
{
    {
        // A new connection on a reused descriptor: nothing of the old one is left to read.
        SocketReader &rd = reader_of(sock);
        std::lock_guard<std::mutex> lock(rd.mu);
        rd.frames.clear();
    }
    if (srv == nullptr || srv_sz <= 0)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "no server address given");
    int r;
    do {
        r = connect(sock, srv, static_cast<socklen_t>(srv_sz));
    } while (r < 0 && errno == EINTR);
    if (r < 0)
        return confd_lib_fail(CONFD_ERR_OS, "cannot connect to ConfD: %s", strerror(errno));
    // As the router's library does: requests and replies are small frames
    // sent back to back, and Nagle's algorithm against the peer's delayed
    // ACK would hold the second one for tens of milliseconds.
    int one = 1;
    setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return CONFD_OK;
}

int request(int fd, const std::string &payload, std::string &answer, const char *what)
{
    // An answer is awaited: what is queued for this socket, the request included, goes now.
    bool sent = send_payload(fd, payload);
    if (ReplyBatch *batch = ReplyBatch::of(fd))
        sent = batch->flush() && sent;
    if (!sent)
        return confd_lib_fail(CONFD_ERR_OS, "%s: send failed: %s", what, strerror(errno));
    int r = recv_payload(fd, answer, kAnswerTimeoutMs);
    if (r == 0)
        return confd_lib_fail(CONFD_ERR_OS, "%s: ConfD closed the connection", what);
    if (r < 0)
        return confd_lib_fail(CONFD_ERR_OS, "%s: no answer: %s", what, strerror(errno));
    confd_wire::Reader rd(answer);
    Op op = rd.op();
    if (op == Op::Ok && rd.ok())
        return CONFD_OK;
    if (op == Op::Err) {
        int code = rd.i32();
        std::string msg = rd.str();
        if (!rd.ok())
            return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: malformed error answer", what);
        if (code <= 0)
            code = CONFD_ERR_INTERNAL;
        logf(CONFD_DEBUG, "%s failed: %s", what, msg.c_str());
        return confd_lib_fail(code, "%s", msg.c_str());
    }
    return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: unexpected answer %s", what,
                          op_name(answer).c_str());
}

FdGuard::~FdGuard()
{
    if (fd_ >= 0)
        close(fd_);
}

// Stores the daemon name shown in debug lines.
static void set_name(const char *name)
{
    std::lock_guard<std::mutex> lock(g_name_mu);
    snprintf(g_name, sizeof g_name, "%s", name != nullptr ? name : "libconfd");
}

} // namespace libconfd

extern "C" {

int confd_lib_use_syslog = 0;
void (*confd_user_log_hook)(int syslogprio, const char *fmt, va_list ap) = nullptr;

void confd_init_vsn_sz(const char *name, FILE *estream, const enum confd_debug_level debug,
                       int vsn, int maxdepth, int maxkeylen)
try {
    libconfd::set_name(name);
    libconfd::g_stream.store(estream);
    libconfd::g_debug.store(static_cast<int>(debug));
    // The router's library does exactly this: a peer that goes away shows up
    // as an error from send() instead of killing the process. The setting is
    // process-wide and inherited across exec, so the scripts the daemon runs
    // start with SIGPIPE ignored on the router too; keep it that way here.
    signal(SIGPIPE, SIG_IGN);
    // Keypaths are arrays sized by these two; with other sizes the library
    // and the application would disagree on every keypath's layout.
    if (maxdepth != MAXDEPTH || maxkeylen != MAXKEYLEN) {
        confd_fatal("%s: application built with MAXDEPTH %d / MAXKEYLEN %d, library with %d / %d\n",
                    name != nullptr ? name : "libconfd", maxdepth, maxkeylen, MAXDEPTH, MAXKEYLEN);
        return;
    }
    if (vsn > CONFD_LIB_API_VSN)
        libconfd::logf(CONFD_DEBUG, "application API version 0x%08x is newer than 0x%08x", vsn,
                       CONFD_LIB_API_VSN);
} catch (...) {
    libconfd::caught(__func__);
}

int confd_set_debug(enum confd_debug_level debug, FILE *estream)
try {
    libconfd::g_stream.store(estream);
    libconfd::g_debug.store(static_cast<int>(debug));
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

} // extern "C"
