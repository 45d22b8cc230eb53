// Integration-test harness: child processes, confd-emu and its CLI, private namespaces, files.
#pragma once

#include <functional>
#include <netinet/in.h>
#include <string>
#include <sys/types.h>
#include <vector>

namespace harness
{

// Path of the built command-line client.
const char *confd_emu_cli_path();

sockaddr_in loopback(int port); // 127.0.0.1:port

// The whole text of a file, "" when it cannot be read.
std::string read_file(const std::string &path);

// How often needle occurs in text.
size_t count_of(const std::string &text, const std::string &needle);

// Starts argv (argv[0] is its path) with stdin from /dev/null and stdout and stderr on the given
// fds, and env_extra ("NAME=value") replacing inherited variables of the same name. Returns the
// pid, -1 when it could not start.
pid_t spawn(const std::vector<std::string> &argv, int out_fd, int err_fd,
            const std::vector<std::string> &env_extra = {});

struct CmdResult {
    int exit_code = -1; // 128+N when killed by signal N; -1 when it could not run
    std::string out, err;
};

// Runs a program to completion, capturing stdout and stderr. A program still running after
// timeout_ms is killed (exit_code then 128+SIGKILL).
CmdResult run(const std::vector<std::string> &argv, int timeout_ms = 30000);

constexpr int kNoNamespaces = 77; // the child could not set up its namespaces

// Runs body in a forked child that is the first process of fresh network, mount and pid namespaces
// (its own /proc, loopback up, empty tmpfs on /tmp and /mnt with the source and build trees kept
// visible), so that port 4565 is free and whatever body starts dies with it. Returns body's result
// as the child's exit status, or kNoNamespaces (the reason on stderr).
int run_in_namespaces(const std::function<int()> &body);

// One confd-emu child process on an ephemeral port, stopped when the object goes away.
class Emu
{
  public:
    // extra_args are passed after --port 0 --port-file FILE (e.g. {"--timeout-ms", "300"}); a
    // --port among them replaces the ephemeral port.
    explicit Emu(std::vector<std::string> extra_args = {});
    ~Emu();
    Emu(const Emu &) = delete;
    Emu &operator=(const Emu &) = delete;

    // Starts the server and waits until it listens. False with a message (and its log) otherwise.
    bool start(std::string &err);
    // SIGTERM, SIGKILL after 10 s: the exit status as run() gives it, -1 when it was not running.
    int stop();
    int port() const { return port_; }
    std::string log() const; // what the server wrote to stdout and stderr so far
    // Runs confd-emu-cli --port PORT args... against this server.
    CmdResult cli(const std::vector<std::string> &args, int timeout_ms = 30000) const;

  private:
    std::vector<std::string> extra_;
    std::string dir_;
    pid_t pid_ = -1;
    int port_ = 0;
};

} // namespace harness
