// The real leisobek binary in tests: a RUN_ISOLATED body runs in a child with its own network,
// mount and pid namespaces, so confd-emu takes the daemon's fixed port 4565, what the daemon
// touches lives in scratch directories and whatever the body starts dies with it.
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

// 0 when body passed in private namespaces, harness::kNoNamespaces, kSkippedInside, or another
// code when it failed (its failures printed from inside).
int run_isolated(const std::function<void()> &body);

// Inside RUN_ISOLATED only: dir writable in this namespace alone (an overlay whose upper layer is
// in its /tmp), so that fixture scripts and configuration never reach the host.
void overlay_dir(const std::string &dir);

// Writes text to path, making its directories first.
void write_file(const std::string &path, const std::string &text, mode_t mode = 0644);

// Inside RUN_ISOLATED only: the file at target (e.g. /proc/meminfo) reads as text.
void bind_text(const std::string &target, const std::string &text);

// Inside RUN_ISOLATED only: a recording script in place of each /usr/bin/<name> on an overlay of
// /usr/bin, so that the router's script (a reboot, a factory reset) can never run. It appends
// "sh /usr/bin/<name> <args>" to kRecorded, then runs the shell text given or, without any, prints
// /tmp/recorded/<name><first argument> when the test wrote one.
constexpr char kRecorded[] = "/tmp/recorded/runs";
void install_recorders(const std::vector<std::pair<std::string, std::string>> &scripts);
// The command lines the recording scripts noted, in order.
std::vector<std::string> recorded();

// Polls cond every 20 ms until it holds (true) or timeout_ms pass (false).
bool eventually(const std::function<bool()> &cond, int timeout_ms = 10000);

// One run of the leisobek binary, its output kept in files; killed when the object goes away.
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

    // Exit status once the daemon has ended within timeout_ms (128+N for signal N), or -1.
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

// confd-emu on the daemon's fixed port 4565; its CLI answers come back without the trailing
// newline, and a CLI that cannot reach it fails the test.
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
    // Waits until no daemon is connected, so that the next one is not mistaken for the last.
    bool wait_no_daemons() const;
    // Starts the server, then leisobek with args registered; null (a failure) when either fails.
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

// A test whose body runs in private namespaces as RUN_ISOLATED runs it.
#define ISOLATED_TEST(suite, name)                                                                 \
    void suite##_##name##_isolated();                                                              \
    TEST(suite, name)                                                                              \
    {                                                                                              \
        RUN_ISOLATED(suite##_##name##_isolated);                                                   \
    }                                                                                              \
    void suite##_##name##_isolated()
