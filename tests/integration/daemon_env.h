// Running the real leisobek binary in tests: private namespaces, the process, confd-emu.
//
// A test body given to RUN_ISOLATED runs in a forked child with its own
// network, mount and pid namespaces (harness::run_in_namespaces): confd-emu
// can take the daemon's fixed port 4565, files the daemon reads or removes
// live in scratch directories, and whatever the body leaves running dies with
// it. Where namespaces are not permitted the test is skipped.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

#include "cli_json.h"
#include "harness.h"

namespace daemon_env
{

constexpr int kSkippedInside = 78; // the body skipped itself

// confd-emu-cli's answers to a successful write and to a read of a value that does not exist.
constexpr char kOk[] = "{\"result\":\"ok\"}";
constexpr char kNoExists[] = "{\"type\":\"C_NOEXISTS\"}";

// Runs body in private namespaces. Returns 0 when it passed, harness::kNoNamespaces,
// kSkippedInside, or another code when it failed (its failures are printed from inside).
int run_isolated(const std::function<void()> &body);

// Inside a RUN_ISOLATED body only. Makes dir writable in this namespace alone:
// an overlay whose upper layer lives in the namespace's /tmp, so that fixture
// scripts (/usr/bin/...) and configuration (/etc/config/..., made below an
// overlaid /etc) never reach the host. A test failure when it cannot.
void overlay_dir(const std::string &dir);

// Writes text to path, making its directories first, with the given mode.
void write_file(const std::string &path, const std::string &text, mode_t mode = 0644);

// Inside a RUN_ISOLATED body only: the file at target (e.g. /proc/meminfo)
// reads as text in this namespace. A test failure when it cannot.
void bind_text(const std::string &target, const std::string &text);

// Inside a RUN_ISOLATED body only: overlays /usr/bin and puts a recording script in place of each
// /usr/bin/<name> given. It appends its command line ("sh /usr/bin/<name> <args>") to kRecorded,
// then runs the shell text given with the name or, without any, prints the file
// /tmp/recorded/<name><first argument> when the test wrote one. The router's script (a reboot, a
// factory reset) can never run: the overlay is this namespace's alone, and a test fails when
// recorded() lacks the line it expects.
constexpr char kRecorded[] = "/tmp/recorded/runs";
void install_recorders(const std::vector<std::pair<std::string, std::string>> &scripts);
// The command lines the recording scripts noted, in order.
std::vector<std::string> recorded();

// Polls cond every 20 ms until it holds (true) or timeout_ms pass (false).
bool eventually(const std::function<bool()> &cond, int timeout_ms = 10000);

// One run of the leisobek binary with stdin from /dev/null and stdout and
// stderr kept in files; killed when the object goes away if still running.
class Daemon
{
  public:
    // env_extra ("NAME=value") replaces inherited variables of the same name; program, when
    // given, is the command that runs the daemon instead of this build's binary.
    explicit Daemon(std::vector<std::string> args, std::vector<std::string> env_extra = {},
                    std::vector<std::string> program = {});
    ~Daemon() { stop(); }
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    // Exit status once the daemon has ended within timeout_ms (128+N for
    // signal N), or -1 while it keeps running.
    int wait_exit(int timeout_ms = 10000);
    bool running() { return wait_exit(0) < 0; }
    // Kills the daemon if it still runs and reaps it.
    void stop();
    std::string err() const { return harness::read_file(dir_ + "/err"); }
    pid_t pid() const { return pid_; }

  private:
    std::string dir_;
    pid_t pid_ = -1;
    int status_ = -1;
};

// confd-emu on the daemon's fixed port 4565 (extra arguments after it); its
// CLI answers come back without the trailing newline, and a CLI that cannot
// reach it fails the test.
class Emu
{
  public:
    explicit Emu(std::vector<std::string> extra = {});
    // Starts the server; false (and a test failure) when it does not come up.
    bool start();
    std::string cli(const std::vector<std::string> &args) const;
    // The rows of a walk of path; a test failure when the answer is not a walk.
    std::vector<cli_json::row> walk(const std::string &path) const;
    std::string notifications() const { return cli({"notifications"}); }
    std::string status() const { return cli({"status"}); }
    // Waits until the notification log holds at least n notifications; returns it.
    std::string wait_notifications(size_t n) const;
    // Waits until the daemon "leisobek" has completed its registration.
    bool wait_registered() const;
    // Waits until no daemon is connected, so that the next one run cannot be
    // mistaken for the last.
    bool wait_no_daemons() const;
    // Starts the server, then leisobek with args, and waits for its registration; null (and a
    // test failure) when either does not come up.
    std::unique_ptr<Daemon> start_with_daemon(std::vector<std::string> args = {});

  private:
    harness::Emu emu_;
};

} // namespace daemon_env

#define RUN_ISOLATED(...)                                                                          \
    do {                                                                                           \
        int code_ = ::daemon_env::run_isolated(__VA_ARGS__);                                       \
        if (code_ == ::harness::kNoNamespaces)                                                     \
            GTEST_SKIP() << "network, mount and pid namespaces are not permitted here";            \
        if (code_ == ::daemon_env::kSkippedInside)                                                 \
            GTEST_SKIP() << "skipped inside its namespace (reason above)";                         \
        EXPECT_EQ(code_, 0) << "the test failed inside its namespace (details above)";             \
    } while (0)
