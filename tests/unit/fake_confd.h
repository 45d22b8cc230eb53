// A scripted stand-in for the ConfD server side of the frame protocol, for the client library's
// unit tests.
#pragma once

#include <arpa/inet.h>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "wire.h"

// Listens on 127.0.0.1 (ephemeral port). Answers Hello, registrations and MAAPI itself; every other
// frame the client sends (replies, notifications) is queued for the test, which drives the daemon
// side by sending requests on the server ends.
class FakeConfd
{
  public:
    static constexpr uint32_t kDaemonId = 7;

    FakeConfd()
    {
        lfd_ = socket(AF_INET, SOCK_STREAM, 0);
        addr_.sin_family = AF_INET;
        addr_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr_.sin_port = 0;
        bind(lfd_, reinterpret_cast<sockaddr *>(&addr_), sizeof addr_);
        socklen_t len = sizeof addr_;
        getsockname(lfd_, reinterpret_cast<sockaddr *>(&addr_), &len);
        listen(lfd_, 16);
        acceptor_ = std::thread([this] { accept_loop(); });
    }

    ~FakeConfd()
    {
        stop_ = true;
        acceptor_.join();
        for (auto &t : threads_)
            t.join();
        for (int fd : fds_)
            close(fd);
        close(lfd_);
    }

    const sockaddr *addr() const { return reinterpret_cast<const sockaddr *>(&addr_); }
    int addrlen() const { return sizeof addr_; }

    // Server end of the n-th connection that said Hello with this kind; -1 if it did not arrive
    // within a second.
    int conn(confd_wire::ConnKind kind, size_t n = 0)
    {
        std::unique_lock<std::mutex> lock(mu_);
        cv_.wait_for(lock, std::chrono::seconds(1), [&] { return find(kind, n) >= 0; });
        return find(kind, n);
    }

    // Next unanswered frame the client sent; false after two seconds.
    bool next(std::string &payload)
    {
        std::unique_lock<std::mutex> lock(mu_);
        if (!cv_.wait_for(lock, std::chrono::seconds(2), [&] { return !queue_.empty(); }))
            return false;
        payload = queue_.front();
        queue_.pop_front();
        return true;
    }

    void send(int fd, const confd_wire::Writer &w) { confd_wire::send_frame(fd, w.payload()); }

  private:
    int find(confd_wire::ConnKind kind, size_t n)
    {
        for (auto &c : kinds_)
            if (c.second == kind && n-- == 0) return c.first;
        return -1;
    }

    void accept_loop()
    {
        while (!stop_) {
            pollfd p = {lfd_, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) continue;
            int fd = accept(lfd_, nullptr, nullptr);
            if (fd < 0) continue;
            std::lock_guard<std::mutex> lock(mu_);
            fds_.push_back(fd);
            threads_.emplace_back([this, fd] { serve(fd); });
        }
    }

    void answer_ok(int fd, std::initializer_list<uint32_t> fields)
    {
        confd_wire::Writer w(confd_wire::Op::Ok);
        for (uint32_t f : fields)
            w.u32(f);
        send(fd, w);
    }

    void serve(int fd)
    {
        using confd_wire::Op;
        while (!stop_) {
            std::string p;
            int r = confd_wire::recv_frame(fd, p, 50);
            if (r == 0 || (r < 0 && errno != ETIMEDOUT)) return;
            if (r < 0) continue;
            confd_wire::Reader rd(p);
            Op op = rd.op();
            if (op == Op::Hello) {
                auto kind = static_cast<confd_wire::ConnKind>(rd.u8());
                {
                    std::lock_guard<std::mutex> lock(mu_);
                    kinds_.emplace_back(fd, kind);
                }
                cv_.notify_all();
                if (kind == confd_wire::ConnKind::Control)
                    answer_ok(fd, {kDaemonId});
                else if (kind == confd_wire::ConnKind::Worker)
                    answer_ok(fd, {100u + static_cast<uint32_t>(fd)});
                else
                    answer_ok(fd, {});
            } else if (op == Op::RegTrans || op == Op::RegData || op == Op::RegSnmpNotif ||
                       op == Op::RegDone) {
                if (op == Op::RegSnmpNotif)
                    answer_ok(fd, {42});
                else
                    answer_ok(fd, {});
            } else if (op == Op::Maapi) {
                answer_ok(fd, {}); // no fields: a malformed answer to any request
            } else {
                {
                    std::lock_guard<std::mutex> lock(mu_);
                    queue_.push_back(p);
                }
                cv_.notify_all();
            }
        }
    }

    int lfd_ = -1;
    sockaddr_in addr_{};
    std::atomic<bool> stop_{false};
    std::thread acceptor_;
    std::mutex mu_;
    std::condition_variable cv_;
    std::vector<std::thread> threads_;
    std::vector<int> fds_;
    std::vector<std::pair<int, confd_wire::ConnKind>> kinds_;
    std::deque<std::string> queue_;
};
