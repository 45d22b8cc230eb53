// Real sockets for tests and benchmarks: TCP and UDP endpoints, their index values, their holders.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace sockets
{

// A file descriptor closed when the object goes away.
class unique_fd
{
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    ~unique_fd() { reset(); }
    unique_fd(unique_fd &&other) noexcept : fd_(other.release()) {}
    unique_fd &operator=(unique_fd &&other) noexcept
    {
        std::swap(fd_, other.fd_); // ours is closed with other
        return *this;
    }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release()
    {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset();

  private:
    int fd_ = -1;
};

// Invalid on failure: a TCP listener on address (IPv4 or IPv6 text, "0.0.0.0" / "::" for the
// wildcard; an IPv6 one accepts IPv6 only), a blocking connection from an ephemeral port, and the
// next connection waiting on a listener.
unique_fd listen_on(const std::string &address, uint16_t port, int backlog = 128);
unique_fd connect_to(const std::string &address, uint16_t port);
unique_fd accept_one(int listener);

// One end of a socket as the MIBs index it, in confd-emu-cli's text forms: InetAddressType ("1" or
// "2"), the address bytes in lower-case hex, and the port in decimal.
struct end_point {
    std::string type, address, port;
};
end_point local_end(int fd);
end_point remote_end(int fd);

// Worker processes that each hold a listener on 127.0.0.1 (worker k on first_port + k) and both
// ends of loopback connections to it, until the object goes away.
class connection_holders
{
  public:
    struct worker {
        pid_t pid;
        uint16_t port;
        int connections;
    };

    connection_holders() = default;
    ~connection_holders() { stop(); }
    connection_holders(const connection_holders &) = delete;
    connection_holders &operator=(const connection_holders &) = delete;

    // Opens total connections, spread over as few workers as the open-file limit allows (raising
    // it where permitted). False with why set when a worker could not open its share.
    bool start(int total, uint16_t first_port, std::string &why);
    void stop(); // kills and reaps the workers
    const std::vector<worker> &workers() const { return workers_; }

  private:
    std::vector<worker> workers_;
};

// A UDP socket's row as confd-emu-cli prints it: the seven index values, then "p" and the owner.
using udp_row = std::vector<std::string>;

// udpEndpointTable index order: numbers by value, addresses (hex) by length first, then bytes.
bool udp_index_less(const udp_row &a, const udp_row &b);

// A close-on-exec UDP socket bound to address:port, with SO_REUSEADDR when asked, connected to
// peer:peer_port when a peer is given. -1 on failure.
int open_udp(const char *address, int port, bool reuse = false, const char *peer = nullptr,
             int peer_port = 0);

// The row of a bound UDP socket held by process; an unconnected one has the all-zero remote
// address of its family and port 0, as /proc/net shows it.
udp_row udp_row_of(int fd, long process);

// A child process holding count UDP sockets on the loopback addresses (every other one IPv6, ports
// chosen by the kernel) until the object goes away.
class udp_holder
{
  public:
    explicit udp_holder(int count);
    ~udp_holder();
    udp_holder(const udp_holder &) = delete;
    udp_holder &operator=(const udp_holder &) = delete;
    const std::vector<udp_row> &rows() const { return rows_; }

  private:
    pid_t pid_ = -1;
    std::vector<udp_row> rows_;
};

} // namespace sockets
