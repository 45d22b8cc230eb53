// A test daemon on the emulated client library, and tests with a confd-emu of their own.
#pragma once

#include "confd_lib.h"
#include "confd_dp.h"
#include "confd_maapi.h"
#include "harness.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

// Data callbacks of callpoint, all unset.
inline confd_data_cbs data_cbs(const char *callpoint)
{
    confd_data_cbs cbs;
    std::memset(&cbs, 0, sizeof cbs);
    std::snprintf(cbs.callpoint, sizeof cbs.callpoint, "%s", callpoint);
    return cbs;
}

// Control, worker and MAAPI sockets to confd-emu on 127.0.0.1:port: callbacks registered on dx()
// between connect() and run(), which serves both sockets on a thread of its own as the router's
// daemon does. Everything is closed and released when the object goes away.
class EmuDaemon
{
  public:
    EmuDaemon(int port, const char *name, void *opaque) : port_(port), name_(name)
    {
        confd_init("it", nullptr, CONFD_SILENT);
        dx_ = confd_init_daemon(name_);
        if (dx_) dx_->d_opaque = opaque;
    }
    ~EmuDaemon()
    {
        stop_ = true;
        if (th_.joinable()) th_.join();
        for (int fd : {ctl_, wrk_, maapi_})
            if (fd >= 0) close(fd);
        if (dx_) confd_release_daemon(dx_);
    }
    EmuDaemon(const EmuDaemon &) = delete;
    EmuDaemon &operator=(const EmuDaemon &) = delete;

    // Connects the three sockets; false with err naming the step that failed.
    bool connect(std::string &err)
    {
        sockaddr_in sa = harness::loopback(port_);
        auto *sp = reinterpret_cast<sockaddr *>(&sa);
        for (int *fd : {&ctl_, &wrk_, &maapi_})
            *fd = socket(AF_INET, SOCK_STREAM, 0);
        if (!dx_) return fail(err, "confd_init_daemon");
        if (confd_connect(dx_, ctl_, CONTROL_SOCKET, sp, sizeof sa) != CONFD_OK)
            return fail(err, "control connect");
        if (confd_connect(dx_, wrk_, WORKER_SOCKET, sp, sizeof sa) != CONFD_OK)
            return fail(err, "worker connect");
        if (maapi_connect(maapi_, sp, sizeof sa) != CONFD_OK) return fail(err, "maapi_connect");
        return true;
    }

    // Ends the registration and starts the main loop; false with err.
    bool run(std::string &err)
    {
        if (confd_register_done(dx_) != CONFD_OK) return fail(err, "register done");
        th_ = std::thread([this] {
            struct pollfd pfd[2] = {{ctl_, POLLIN, 0}, {wrk_, POLLIN, 0}};
            std::atomic<int> *result[2] = {&control_result_, &worker_result_};
            while (!stop_ && (pfd[0].fd >= 0 || pfd[1].fd >= 0)) {
                if (poll(pfd, 2, 20) <= 0) continue;
                for (int i = 0; i < 2; i++) {
                    if (pfd[i].fd < 0 || !(pfd[i].revents & (POLLIN | POLLHUP))) continue;
                    int rc = confd_fd_ready(dx_, pfd[i].fd);
                    result[i]->store(rc);
                    if (rc == CONFD_EOF) pfd[i].fd = -1; // closed by confd-emu: stop reading it
                }
            }
        });
        return true;
    }

    // Waits until the main loop has seen the control (or worker) socket closed.
    bool wait_eof(bool control, int ms = 5000)
    {
        for (int i = 0; i < ms / 10; i++) {
            if ((control ? control_result_ : worker_result_).load() == CONFD_EOF) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    confd_daemon_ctx *dx() const { return dx_; }
    int worker() const { return wrk_; }
    int maapi() const { return maapi_; }

  private:
    bool fail(std::string &err, const char *what)
    {
        err = std::string(name_) + ": " + what + " failed: " + confd_lasterr();
        return false;
    }

    const int port_;
    const char *name_;
    confd_daemon_ctx *dx_ = nullptr;
    int ctl_ = -1, wrk_ = -1, maapi_ = -1;
    std::thread th_;
    std::atomic<bool> stop_{false};
    std::atomic<int> control_result_{CONFD_OK}, worker_result_{CONFD_OK};
};

// A test with a confd-emu of its own, which must stop cleanly at the end.
class EmuTestBase : public ::testing::Test
{
  protected:
    void start_emu(std::vector<std::string> args)
    {
        emu_ = std::make_unique<harness::Emu>(std::move(args));
        std::string err;
        ASSERT_TRUE(emu_->start(err)) << err;
    }
    void TearDown() override
    {
        if (emu_) {
            EXPECT_EQ(emu_->stop(), 0) << emu_->log();
        }
    }
    // Runs confd-emu-cli; expects it to succeed and returns its output without the newline.
    std::string cli(const std::vector<std::string> &args)
    {
        harness::CmdResult r = emu_->cli(args);
        EXPECT_EQ(r.exit_code, 0) << r.err;
        EXPECT_FALSE(r.out.empty());
        if (!r.out.empty() && r.out.back() == '\n') r.out.pop_back();
        return r.out;
    }
    int port() const { return emu_->port(); }

    std::unique_ptr<harness::Emu> emu_;
};
