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
#include <sys/stat.h>
#include <sys/prctl.h>
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

// A listener on 127.0.0.1:port and count connections to it, both ends, into held. They are reset
// rather than closed when their holder is killed, so that they leave no TIME_WAIT rows behind for
// later tables. False when one could not be made.
bool open_connections(uint16_t port, int count, std::vector<unique_fd> &held)
{
    // Connections are made in batches no larger than the accept queue, so that no SYN is ever
    // dropped (a dropped SYN costs a second).
    const int backlog = 1024, batch = 512;
    held.push_back(listen_on("127.0.0.1", port, backlog));
    int listener = held.back().get();
    bool ok = listener >= 0;
    for (int done = 0; ok && done < count; done += batch) {
        int n = std::min(batch, count - done);
        for (int i = 0; ok && i < n; i++) {
            held.push_back(connect_to("127.0.0.1", port));
            ok = static_cast<bool>(held.back());
        }
        for (int i = 0; ok && i < n; i++) {
            held.push_back(accept_one(listener));
            ok = static_cast<bool>(held.back());
        }
    }
    const linger abort_on_close = {1, 0};
    for (const unique_fd &fd : held)
        setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &abort_on_close, sizeof abort_on_close);
    return ok;
}

// Forks a child that keeps only the descriptors held open until it is killed (or this process
// ends): a copy of any other would make it one more owner of that socket, or keep a pipe open.
pid_t hold_in_child(const std::vector<unique_fd> &held)
{
    std::vector<unsigned> keep;
    for (const unique_fd &fd : held)
        keep.push_back(static_cast<unsigned>(fd.get()));
    std::sort(keep.begin(), keep.end());
    pid_t pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    unsigned from = 3;
    for (unsigned fd : keep) {
        if (fd > from) close_range(from, fd - 1, 0);
        from = fd + 1;
    }
    close_range(from, ~0u, 0);
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
    // While a worker's share is made, this process holds two descriptors per connection and a few
    // of its own. At least four workers, so that owners differ between rows.
    const long spare = 64;
    long per_worker = (raise_fd_limit(2L * total + spare) - spare) / 2;
    if (per_worker < 1) {
        why = "open-file limit too low";
        return false;
    }
    int count = std::max(4, static_cast<int>((total + per_worker - 1) / per_worker));
    for (int k = 0; k < count; k++) {
        int share = total / count + (k < total % count ? 1 : 0);
        uint16_t port = static_cast<uint16_t>(first_port + k);
        std::vector<unique_fd> held;
        pid_t pid = open_connections(port, share, held) ? hold_in_child(held) : -1;
        if (pid < 0) {
            why = "worker " + std::to_string(k) +
                  " could not hold its connections: " + strerror(errno);
            return false;
        }
        workers_.push_back({pid, port, share});
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
    std::vector<unique_fd> held;
    for (int i = 0, fd; i < count && (fd = open_udp(i % 2 ? "::1" : "127.0.0.1", 0)) >= 0; i++)
        held.emplace_back(fd);
    pid_ = hold_in_child(held);
    for (const unique_fd &fd : held)
        if (pid_ > 0) rows_.push_back(udp_row_of(fd.get(), pid_));
}

udp_holder::~udp_holder()
{
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

} // namespace sockets
