// What the benchmarks share: confd-emu on port 4565 and the leisobek process in private namespaces,
// the daemon's CPU time as /proc shows it, and the 3-second refresh rhythm of its tables.
#pragma once

#include "harness.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <functional>
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

// Starts confd-emu on 127.0.0.1:4565; false, with the reason on stderr, when it did not start.
inline bool start_emu(harness::Emu &emu, const char *bench)
{
    std::string why;
    if (emu.start(why)) return true;
    fprintf(stderr, "%s: confd-emu: %s\n", bench, why.c_str());
    return false;
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

    // Waits up to 10 s for the daemon's registration with confd-emu; false, with the daemon's
    // stderr, when it did not register.
    bool registered(const char *bench) const
    {
        for (int i = 0; i < 500 && pid_ > 0; i++) {
            if (cli({"status"}).out.find("\"registered\":true") != std::string::npos) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        fprintf(stderr, "%s: leisobek did not register: %s\n", bench,
                harness::read_file("/tmp/leisobek.err").c_str());
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

// The daemon main thread's CPU for one confd-emu-cli request, in ms; the answer goes to answer.
inline double request_ms(pid_t daemon, const std::vector<std::string> &args,
                         harness::CmdResult *answer = nullptr)
{
    double before = main_thread_ms(daemon);
    harness::CmdResult r = cli(args);
    double spent = main_thread_ms(daemon) - before;
    if (answer) *answer = r;
    return spent;
}

// This process's CPU time so far, in ms.
inline double process_cpu_ms()
{
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
}

// Sleeps until a get_next starting a walk is sure to refresh: the daemon keeps the whole second of
// its last refresh, which was at most refreshed_at.
inline void wait_until_due(time_t refreshed_at)
{
    while (time(nullptr) < refreshed_at + 3)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

// The positive numbers of a comma-separated list ("1000,10000").
inline std::vector<int> parse_sizes(const std::string &list)
{
    std::vector<int> sizes;
    std::stringstream in(list);
    for (std::string item; std::getline(in, item, ',');)
        if (std::atoi(item.c_str()) > 0) sizes.push_back(std::atoi(item.c_str()));
    return sizes;
}

// Runs body in private network, mount and pid namespaces: port 4565 is free there and the daemon
// sees only the benchmark's sockets. Returns body's 0 or 1, 77 when namespaces are not permitted, 2
// for anything else.
inline int run_isolated(const char *bench, const std::function<int()> &body)
{
    int code = harness::run_in_namespaces(body);
    if (code == harness::kNoNamespaces) {
        fprintf(stderr, "%s: private namespaces not permitted (run as root)\n", bench);
        return code;
    }
    return code == 0 || code == 1 ? code : 2;
}

} // namespace bench
