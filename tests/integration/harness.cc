// Integration-test harness: child processes for confd-emu and confd-emu-cli, free ports, paths.
#include "harness.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

extern char **environ;

namespace harness
{

namespace
{

int64_t now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int status_code(int st)
{
    if (WIFEXITED(st)) return WEXITSTATUS(st);
    if (WIFSIGNALED(st)) return 128 + WTERMSIG(st);
    return -1;
}

// Waits for pid up to timeout_ms; returns its status code, or -2 when it is still running.
int wait_for(pid_t pid, int timeout_ms)
{
    int64_t deadline = now_ms() + timeout_ms;
    for (;;) {
        int st = 0;
        pid_t r = waitpid(pid, &st, WNOHANG);
        if (r == pid) return status_code(st);
        if (r < 0 && errno != EINTR) return -1;
        if (now_ms() >= deadline) return -2;
        usleep(10000);
    }
}

// posix_spawn with stdin from /dev/null and stdout/stderr on the given fds.
pid_t spawn(const std::vector<std::string> &argv, int out_fd, int err_fd)
{
    std::vector<char *> args;
    for (const std::string &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&fa, out_fd, 1);
    posix_spawn_file_actions_adddup2(&fa, err_fd, 2);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, args[0], &fa, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    return rc == 0 ? pid : -1;
}

std::string read_file(const std::string &path)
{
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

} // namespace

const char *confd_emu_path()
{
    return CONFD_EMU_BIN;
}
const char *confd_emu_cli_path()
{
    return CONFD_EMU_CLI_BIN;
}

int free_port()
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return 0;
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    int port = 0;
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&sa), sizeof sa) == 0 &&
        getsockname(fd, reinterpret_cast<struct sockaddr *>(&sa), &len) == 0)
        port = ntohs(sa.sin_port);
    close(fd);
    return port;
}

CmdResult run(const std::vector<std::string> &argv, int timeout_ms)
{
    CmdResult res;
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) < 0) return res;
    if (pipe2(err, O_CLOEXEC) < 0) {
        close(out[0]);
        close(out[1]);
        return res;
    }
    pid_t pid = spawn(argv, out[1], err[1]);
    close(out[1]);
    close(err[1]);
    if (pid < 0) {
        close(out[0]);
        close(err[0]);
        return res;
    }
    int64_t deadline = now_ms() + timeout_ms;
    struct pollfd pfd[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string *sink[2] = {&res.out, &res.err};
    int open_fds = 2;
    bool killed = false;
    while (open_fds > 0) {
        int left = static_cast<int>(deadline - now_ms());
        if (left <= 0 && !killed) {
            kill(pid, SIGKILL);
            killed = true;
        }
        if (poll(pfd, 2, left > 0 ? left : 100) < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; i++) {
            if (pfd[i].fd < 0 || !pfd[i].revents) continue;
            char buf[4096];
            ssize_t n = read(pfd[i].fd, buf, sizeof buf);
            if (n > 0) {
                sink[i]->append(buf, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(pfd[i].fd);
                pfd[i].fd = -1;
                open_fds--;
            }
        }
    }
    for (auto &p : pfd)
        if (p.fd >= 0) close(p.fd);
    int st = 0;
    while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
    }
    res.exit_code = status_code(st);
    return res;
}

Emu::Emu(std::vector<std::string> extra_args) : extra_(std::move(extra_args)) {}

Emu::~Emu()
{
    stop();
    if (!dir_.empty()) {
        unlink((dir_ + "/port").c_str());
        unlink((dir_ + "/port.tmp").c_str());
        unlink((dir_ + "/log").c_str());
        rmdir(dir_.c_str());
    }
}

bool Emu::start(std::string &err)
{
    if (dir_.empty()) {
        char tmpl[] = "/tmp/confd-emu-test.XXXXXX";
        if (!mkdtemp(tmpl)) {
            err = std::string("mkdtemp: ") + std::strerror(errno);
            return false;
        }
        dir_ = tmpl;
    }
    std::string port_file = dir_ + "/port";
    unlink(port_file.c_str());
    int log_fd = open((dir_ + "/log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (log_fd < 0) {
        err = std::string("log file: ") + std::strerror(errno);
        return false;
    }
    std::vector<std::string> argv = {confd_emu_path(), "--port", "0", "--port-file", port_file};
    argv.insert(argv.end(), extra_.begin(), extra_.end());
    pid_ = spawn(argv, log_fd, log_fd);
    close(log_fd);
    if (pid_ < 0) {
        err = std::string("cannot start ") + confd_emu_path();
        return false;
    }
    int64_t deadline = now_ms() + 20000;
    while (now_ms() < deadline) {
        std::string text = read_file(port_file);
        if (!text.empty()) {
            port_ = std::atoi(text.c_str());
            return port_ > 0;
        }
        int st = 0;
        if (waitpid(pid_, &st, WNOHANG) == pid_) {
            pid_ = -1;
            err = "confd-emu exited with status " + std::to_string(status_code(st)) + ": " + log();
            return false;
        }
        usleep(20000);
    }
    err = "confd-emu did not start listening: " + this->log();
    stop();
    return false;
}

int Emu::stop()
{
    if (pid_ < 0) return -1;
    kill(pid_, SIGTERM);
    int code = wait_for(pid_, 10000);
    if (code == -2) {
        kill(pid_, SIGKILL);
        code = wait_for(pid_, 10000);
    }
    pid_ = -1;
    return code;
}

std::string Emu::log() const
{
    return dir_.empty() ? "" : read_file(dir_ + "/log");
}

CmdResult Emu::cli(const std::vector<std::string> &args, int timeout_ms) const
{
    std::vector<std::string> argv = {confd_emu_cli_path(), "--port", std::to_string(port_)};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv, timeout_ms);
}

} // namespace harness
