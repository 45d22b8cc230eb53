// Integration-test harness: runs confd-emu as a child process and confd-emu-cli against it.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace harness
{

// Paths of the built programs (compiled in by the build).
const char *confd_emu_path();
const char *confd_emu_cli_path();

// A TCP port on 127.0.0.1 that was free a moment ago (0 when none could be had).
int free_port();

struct CmdResult {
    int exit_code = -1; // exit status; 128+N when killed by signal N; -1 when it could not run
    std::string out, err;
};

// Runs a program (argv[0] is its path) to completion, capturing stdout and stderr. A program still
// running after timeout_ms is killed (exit_code then 128+SIGKILL).
CmdResult run(const std::vector<std::string> &argv, int timeout_ms = 30000);

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
    // Sends SIGTERM and waits (SIGKILL after a few seconds). Returns the exit status as run() does,
    // or -1 when it was not running.
    int stop();
    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    // What the server wrote to stdout and stderr so far.
    std::string log() const;
    // Runs confd-emu-cli --port PORT args... against this server.
    CmdResult cli(const std::vector<std::string> &args, int timeout_ms = 30000) const;

  private:
    std::vector<std::string> extra_;
    std::string dir_;
    pid_t pid_ = -1;
    int port_ = 0;
};

} // namespace harness
