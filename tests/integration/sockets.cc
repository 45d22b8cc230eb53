// Real sockets for tests and benchmarks (see sockets.h).
#include "sockets.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sockets
{

namespace
{

// Fills addr from an IPv4 or IPv6 text; false for anything else.
bool make_address(const std::string &text, uint16_t port, sockaddr_storage &addr, socklen_t &len)
{
    memset(&addr, 0, sizeof addr);
    auto *v4 = reinterpret_cast<sockaddr_in *>(&addr);
    auto *v6 = reinterpret_cast<sockaddr_in6 *>(&addr);
    if (inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
        *v4 = {AF_INET, htons(port), v4->sin_addr, {}};
        len = sizeof *v4;
    } else if (inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr) == 1) {
        *v6 = {AF_INET6, htons(port), 0, v6->sin6_addr, 0};
        len = sizeof *v6;
    }
    return addr.ss_family != AF_UNSPEC;
}

std::string hex(const void *bytes, size_t n)
{
    std::string out;
    char two[3];
    for (size_t i = 0; i < n; i++) {
        snprintf(two, sizeof two, "%02x", static_cast<const unsigned char *>(bytes)[i]);
        out += two;
    }
    return out;
}

end_point end_of(const sockaddr_storage &addr)
{
    if (addr.ss_family == AF_INET) {
        const auto &v4 = reinterpret_cast<const sockaddr_in &>(addr);
        return {"1", hex(&v4.sin_addr, 4), std::to_string(ntohs(v4.sin_port))};
    }
    const auto &v6 = reinterpret_cast<const sockaddr_in6 &>(addr);
    return {"2", hex(&v6.sin6_addr, 16), std::to_string(ntohs(v6.sin6_port))};
}

// The end of fd that name (getsockname or getpeername) reports.
end_point end_by(int (*name)(int, sockaddr *, socklen_t *), int fd)
{
    sockaddr_storage addr = {};
    socklen_t len = sizeof addr;
    name(fd, reinterpret_cast<sockaddr *>(&addr), &len);
    return end_of(addr);
}

// Body of a holder process: a listener on 127.0.0.1:port and count connections to it, both ends
// kept open. Reports 'y' or 'n' on ready_fd, then waits to be killed.
[[noreturn]] void hold_connections(uint16_t port, int count, int ready_fd)
{
    std::vector<unique_fd> held;
    held.reserve(2 * static_cast<size_t>(count) + 1);
    // Connections are made in batches no larger than the accept queue, so
    // that no SYN is ever dropped (a dropped SYN costs a second).
    const int backlog = 1024;
    const int batch = 512;
    unique_fd listener = listen_on("127.0.0.1", port, backlog);
    bool ok = static_cast<bool>(listener);
    for (int done = 0; ok && done < count;) {
        int n = std::min(batch, count - done);
        for (int i = 0; ok && i < n; i++) {
            held.push_back(connect_to("127.0.0.1", port));
            ok = static_cast<bool>(held.back());
        }
        for (int i = 0; ok && i < n; i++) {
            held.push_back(accept_one(listener.get()));
            ok = static_cast<bool>(held.back());
        }
        done += n;
    }
    if (!ok) perror("holding loopback connections");
    // When the worker is killed its connections are reset rather than
    // closed, so that they leave no TIME_WAIT rows behind for later tables.
    const linger abort_on_close = {1, 0};
    for (const unique_fd &fd : held)
        setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &abort_on_close, sizeof abort_on_close);
    char answer = ok ? 'y' : 'n';
    if (write(ready_fd, &answer, 1) != 1) _exit(1);
    for (;;)
        pause();
}

// Raises this process's open-file limit (soft and, as root, hard) towards wanted. Returns the soft
// limit now in force.
long raise_fd_limit(long wanted)
{
    rlimit lim;
    if (getrlimit(RLIMIT_NOFILE, &lim) != 0) return 0;
    rlim_t want = static_cast<rlim_t>(wanted);
    if (lim.rlim_cur >= want) return static_cast<long>(lim.rlim_cur);
    rlimit raised = {want, lim.rlim_max > want ? lim.rlim_max : want};
    if (setrlimit(RLIMIT_NOFILE, &raised) != 0) {
        // Not allowed past the hard limit: take as much as it permits.
        raised = {lim.rlim_max, lim.rlim_max};
        setrlimit(RLIMIT_NOFILE, &raised);
    }
    getrlimit(RLIMIT_NOFILE, &lim);
    return static_cast<long>(lim.rlim_cur);
}

} // namespace

void unique_fd::reset()
{
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
}

unique_fd listen_on(const std::string &address, uint16_t port, int backlog)
{
    sockaddr_storage addr;
    socklen_t len = 0;
    if (!make_address(address, port, addr, len)) return unique_fd();
    unique_fd s(socket(addr.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!s) return s;
    int on = 1;
    setsockopt(s.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (addr.ss_family == AF_INET6) setsockopt(s.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    if (bind(s.get(), reinterpret_cast<sockaddr *>(&addr), len) != 0 ||
        listen(s.get(), backlog) != 0)
        return unique_fd();
    return s;
}

unique_fd connect_to(const std::string &address, uint16_t port)
{
    sockaddr_storage addr;
    socklen_t len = 0;
    if (!make_address(address, port, addr, len)) return unique_fd();
    unique_fd s(socket(addr.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!s) return s;
    if (connect(s.get(), reinterpret_cast<sockaddr *>(&addr), len) != 0) return unique_fd();
    return s;
}

unique_fd accept_one(int listener)
{
    return unique_fd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
}

end_point local_end(int fd)
{
    return end_by(getsockname, fd);
}

end_point remote_end(int fd)
{
    return end_by(getpeername, fd);
}

bool connection_holders::start(int total, uint16_t first_port, std::string &why)
{
    // Each worker needs two descriptors per connection and a few of its
    // own; at least four workers, so that owners differ between rows.
    const long spare = 64;
    long limit = raise_fd_limit(2L * total + spare);
    long per_worker = (limit - spare) / 2;
    if (per_worker < 1) {
        why = "open-file limit too low: " + std::to_string(limit);
        return false;
    }
    int count = static_cast<int>((total + per_worker - 1) / per_worker);
    if (count < 4) count = 4;

    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) {
        why = std::string("pipe: ") + strerror(errno);
        return false;
    }
    unique_fd ready_read(ready[0]);
    unique_fd ready_write(ready[1]);
    for (int k = 0; k < count; k++) {
        int share = total / count + (k < total % count ? 1 : 0);
        uint16_t port = static_cast<uint16_t>(first_port + k);
        fflush(stdout);
        fflush(stderr);
        pid_t pid = fork();
        if (pid < 0) {
            why = std::string("fork: ") + strerror(errno);
            return false;
        }
        if (pid == 0) hold_connections(port, share, ready_write.get());
        workers_.push_back({pid, port, share});
    }
    ready_write.reset();
    for (int k = 0; k < count; k++) {
        pollfd p = {ready_read.get(), POLLIN, 0};
        char answer = 0;
        if (poll(&p, 1, 120000) != 1 || read(ready_read.get(), &answer, 1) != 1 || answer != 'y') {
            why = "a worker could not open its connections";
            return false;
        }
    }
    return true;
}

void connection_holders::stop()
{
    for (const worker &w : workers_)
        kill(w.pid, SIGKILL);
    for (const worker &w : workers_)
        waitpid(w.pid, nullptr, 0);
    workers_.clear();
}

bool udp_index_less(const udp_row &a, const udp_row &b)
{
    for (size_t i = 0; i < 7 && i < a.size() && i < b.size(); i++) {
        if (a[i].size() != b[i].size()) return a[i].size() < b[i].size();
        if (a[i] != b[i]) return a[i] < b[i];
    }
    return false;
}

int open_udp(const char *address, int port, bool reuse, const char *peer, int peer_port)
{
    sockaddr_storage addr;
    socklen_t len = 0;
    if (!make_address(address, static_cast<uint16_t>(port), addr, len)) return -1;
    unique_fd s(socket(addr.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    int one = 1;
    if (s && reuse) setsockopt(s.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (!s || bind(s.get(), reinterpret_cast<sockaddr *>(&addr), len) != 0) return -1;
    if (peer && (!make_address(peer, static_cast<uint16_t>(peer_port), addr, len) ||
                 connect(s.get(), reinterpret_cast<sockaddr *>(&addr), len) != 0))
        return -1;
    return s.release();
}

udp_row udp_row_of(int fd, long process)
{
    end_point local = local_end(fd);
    sockaddr_storage peer;
    socklen_t len = sizeof peer;
    end_point remote = getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &len) == 0
                           ? end_of(peer)
                           : end_point{local.type, std::string(local.address.size(), '0'), "0"};
    struct stat st = {};
    fstat(fd, &st);
    return {local.type,
            local.address,
            local.port,
            remote.type,
            remote.address,
            remote.port,
            std::to_string(st.st_ino),
            "p" + std::to_string(process)};
}

udp_holder::udp_holder(int count)
{
    std::vector<int> fds;
    for (int i = 0, fd; i < count && (fd = open_udp(i % 2 ? "::1" : "127.0.0.1", 0)) >= 0; i++)
        fds.push_back(fd);
    int hold[2];
    if (pipe2(hold, O_CLOEXEC) == 0 && (pid_ = fork()) == 0) {
        // Only the sockets and the pipe's read end stay open: a copy of another holder's pipe
        // would keep that holder waiting, and a copy of someone's socket would make this process
        // one of its owners.
        std::vector<int> keep = fds;
        keep.push_back(hold[0]);
        std::sort(keep.begin(), keep.end());
        unsigned from = 3;
        for (int fd : keep) {
            if (static_cast<unsigned>(fd) > from)
                close_range(from, static_cast<unsigned>(fd) - 1, 0);
            from = static_cast<unsigned>(fd) + 1;
        }
        close_range(from, ~0u, 0);
        char c;
        while (read(hold[0], &c, 1) > 0) {
        }
        _exit(0);
    }
    // From here on the child is the sockets' only owner.
    for (int fd : fds) {
        if (pid_ > 0) rows_.push_back(udp_row_of(fd, pid_));
        close(fd);
    }
    if (pid_ < 0) return;
    close(hold[0]);
    hold_fd_ = hold[1];
}

udp_holder::~udp_holder()
{
    if (hold_fd_ >= 0) close(hold_fd_);
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
}

} // namespace sockets
