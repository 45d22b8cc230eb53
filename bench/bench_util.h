// What the benchmarks share: the leisobek process, confd-emu's CLI on port 4565 and the daemon's
// CPU time as /proc shows it.
#pragma once

#include "harness.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace bench
{

inline harness::CmdResult cli(const std::vector<std::string> &args, int timeout_ms = 600000)
{
    std::vector<std::string> argv = {harness::confd_emu_cli_path(), "--port", "4565"};
    argv.insert(argv.end(), args.begin(), args.end());
    return harness::run(argv, timeout_ms);
}

// The leisobek process, its stderr in /tmp/leisobek.err, killed when the object goes away.
class daemon_process
{
  public:
    daemon_process()
    {
        int err = open("/tmp/leisobek.err", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        pid_ = harness::spawn({LEISOBEK_BIN}, err, err);
        close(err);
    }
    ~daemon_process() { stop(); }
    void stop()
    {
        if (pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    daemon_process(const daemon_process &) = delete;
    daemon_process &operator=(const daemon_process &) = delete;
    pid_t pid() const { return pid_; }

    // Waits up to 10 s for the daemon's registration with confd-emu.
    bool registered() const
    {
        for (int i = 0; i < 500 && pid_ > 0; i++) {
            if (cli({"status"}).out.find("\"registered\":true") != std::string::npos) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

  private:
    pid_t pid_ = -1;
};

// The run time of a process's main thread so far, in ms (nanosecond-exact, /proc/<pid>/schedstat).
inline double main_thread_ms(pid_t pid)
{
    std::istringstream sched(harness::read_file("/proc/" + std::to_string(pid) + "/schedstat"));
    long long run_ns = 0;
    sched >> run_ns;
    return static_cast<double>(run_ns) / 1e6;
}

// How often needle occurs in text.
inline size_t count_of(const std::string &text, const char *needle)
{
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        n++;
    return n;
}

} // namespace bench
