// Library-wide settings, debug output and framed request/answer I/O shared by the libconfd sources.
#pragma once

#include <cstdio>
#include <string>

#include "confd_lib.h"
#include "lib_internal.h"
#include "wire.h"

namespace libconfd {

// How long a request waits for the server's answer before it fails with
// CONFD_ERR_OS (a hung server must not hang the caller forever).
constexpr int kAnswerTimeoutMs = 60000;

// Debug level and stream set by confd_init_vsn_sz() / confd_set_debug().
int debug_level();
// True when level is enabled and there is a stream to print to.
bool debug_on(int level);

// Prints one line "<TAG> <libname> <text>" to the debug stream when level is
// enabled (TAG is DEBUG, TRACE or PROTO by level). Safe from any thread.
void logf(int level, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Name of a frame's op for traces ("Hello", "Reply", ...); "Op<N>" if unknown.
std::string op_name(const std::string &payload);

// Sends one frame (single send(), serialised per fd so that frames from
// several threads never mix) and traces it. false with errno on failure.
// While a ReplyBatch of fd lives on the calling thread the frame is queued
// in it instead.
bool send_payload(int fd, const std::string &payload);

// The replies to the requests that one recv brought: confd_fd_ready holds one
// while it serves those frames, and they leave together with one send() at
// flush() or when the batch ends, so a request costs one poll, one recv and
// one send at most. Only frames of fd sent from this thread are queued
// (a delayed reply from another thread goes out at once).
class ReplyBatch
{
  public:
    explicit ReplyBatch(int fd);
    ~ReplyBatch(); // flushes; a failure there is not reported
    ReplyBatch(const ReplyBatch &) = delete;
    ReplyBatch &operator=(const ReplyBatch &) = delete;
    // Sends what is queued. false with errno on failure (the queue is dropped).
    bool flush();
    // The batch of fd on this thread, if one lives.
    static ReplyBatch *of(int fd);
    // Queues a frame. false (EMSGSIZE) when it is too large.
    bool queue(const std::string &payload) { return confd_wire::append_frame(bytes_, payload); }

  private:
    int fd_;
    ReplyBatch *outer_;
    std::string bytes_;
};

// Receives one frame and traces it. 1 frame, 0 peer closed, -1 error/time-out.
// With read_ahead one recv takes whatever has arrived, and bytes of later
// frames are kept for the next call: only for a socket whose reader drains
// frame_pending() before it polls again (the daemon's sockets in
// confd_fd_ready). Otherwise frames are read with exact-sized recvs, so that
// an application's poll() on the socket sees every frame not yet read.
int recv_payload(int fd, std::string &payload, int timeout_ms, bool read_ahead = false);

// A whole frame of fd is already received (see recv_payload).
bool frame_pending(int fd);

// connect() that retries EINTR. CONFD_OK, or CONFD_ERR with CONFD_ERR_OS.
int connect_socket(int sock, const struct sockaddr *srv, int srv_sz);

// Sends a request and waits for the server's Ok or Err. On Ok returns
// CONFD_OK with the answer payload in `answer` (a Reader on it must skip the
// op byte). On Err sets confd_errno and the last-error text from the server
// and returns CONFD_ERR; on I/O failure CONFD_ERR with CONFD_ERR_OS.
// `what` names the request in error texts.
int request(int fd, const std::string &payload, std::string &answer, const char *what);

// Closes a file descriptor when it goes out of scope.
class FdGuard {
  public:
    explicit FdGuard(int fd) : fd_(fd) {}
    ~FdGuard();
    FdGuard(const FdGuard &) = delete;
    FdGuard &operator=(const FdGuard &) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

} // namespace libconfd
