// Real UDP sockets for tests and benchmarks: their udpEndpointTable rows, holder processes.
#pragma once

#include "sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace udp_sockets
{

// A socket's row as confd-emu-cli prints it: the seven index values, then
// "p" and the owning process.
typedef std::vector<std::string> row;

// udpEndpointTable index order: numbers by value, addresses (lower-case hex)
// by length first, then bytes.
inline bool index_less(const row &a, const row &b)
{
    for (size_t i = 0; i < 7 && i < a.size() && i < b.size(); i++) {
        if (a[i].size() != b[i].size()) return a[i].size() < b[i].size();
        if (a[i] != b[i]) return a[i] < b[i];
    }
    return false;
}

// A UDP socket (close-on-exec, so that no program the test runs shares it)
// bound to address:port, with SO_REUSEADDR when asked, connected to
// peer:peer_port when a peer is given. -1 on failure.
inline int open_udp(const char *address, int port, bool reuse = false, const char *peer = nullptr,
                    int peer_port = 0)
{
    bool v6 = strchr(address, ':') != nullptr;
    int fd = socket(v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int one = 1;
    if (fd >= 0 && reuse) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    auto use = [&](int (*op)(int, const sockaddr *, socklen_t), const char *text, int p) {
        sockaddr_in in = {};
        sockaddr_in6 in6 = {};
        in.sin_family = AF_INET;
        in.sin_port = htons(static_cast<uint16_t>(p));
        in6.sin6_family = AF_INET6;
        in6.sin6_port = in.sin_port;
        if (v6)
            return inet_pton(AF_INET6, text, &in6.sin6_addr) == 1 &&
                   op(fd, reinterpret_cast<sockaddr *>(&in6), sizeof in6) == 0;
        return inet_pton(AF_INET, text, &in.sin_addr) == 1 &&
               op(fd, reinterpret_cast<sockaddr *>(&in), sizeof in) == 0;
    };
    if (fd >= 0 && (!use(bind, address, port) || (peer && !use(connect, peer, peer_port)))) {
        close(fd);
        fd = -1;
    }
    return fd;
}

// The row of a bound socket held by process; an unconnected one has the
// all-zero remote address of its family and port 0, as /proc/net shows it.
inline row describe(int fd, long process)
{
    sockets::end_point local = sockets::local_end(fd);
    sockaddr_storage peer;
    socklen_t len = sizeof peer;
    bool connected = getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &len) == 0;
    sockets::end_point remote =
        connected ? sockets::remote_end(fd)
                  : sockets::end_point{local.type, std::string(local.address.size(), '0'), "0"};
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

// A child process holding count UDP sockets on the loopback addresses (every
// other one IPv6, ports chosen by the kernel) until the object goes away.
class holder
{
  public:
    explicit holder(int count)
    {
        int data[2], hold[2];
        if (pipe(data) != 0 || pipe(hold) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            // Only the two pipe ends stay open: a copy of another holder's
            // pipe would keep that holder waiting, and a copy of someone's
            // socket would make this process one of its owners.
            int low = std::min(data[1], hold[0]), high = std::max(data[1], hold[0]);
            if (low > 3) close_range(3, static_cast<unsigned>(low) - 1, 0);
            if (high > low + 1)
                close_range(static_cast<unsigned>(low) + 1, static_cast<unsigned>(high) - 1, 0);
            close_range(static_cast<unsigned>(high) + 1, ~0u, 0);
            std::string text;
            for (int i = 0, fd; i < count && (fd = open_udp(i % 2 ? "::1" : "127.0.0.1", 0)) >= 0;
                 i++) {
                for (const std::string &field : describe(fd, getpid()))
                    text += field + " ";
                text += "\n";
            }
            for (size_t done = 0; done < text.size();) {
                ssize_t n = write(data[1], text.data() + done, text.size() - done);
                if (n <= 0) _exit(1);
                done += static_cast<size_t>(n);
            }
            close(data[1]);
            char c;
            while (read(hold[0], &c, 1) > 0) {
            }
            _exit(0);
        }
        close(data[1]);
        close(hold[0]);
        hold_fd_ = hold[1];
        std::string text;
        char buf[65536];
        for (ssize_t n; (n = read(data[0], buf, sizeof buf)) > 0;)
            text.append(buf, static_cast<size_t>(n));
        close(data[0]);
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            std::istringstream fields(line);
            rows_.emplace_back();
            for (std::string f; fields >> f;)
                rows_.back().push_back(f);
        }
    }
    ~holder()
    {
        if (hold_fd_ >= 0) close(hold_fd_);
        if (pid_ > 0) waitpid(pid_, nullptr, 0);
    }
    holder(const holder &) = delete;
    holder &operator=(const holder &) = delete;

    const std::vector<row> &rows() const { return rows_; }

  private:
    pid_t pid_ = -1;
    int hold_fd_ = -1;
    std::vector<row> rows_;
};

} // namespace udp_sockets
