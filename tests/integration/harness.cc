// Integration-test harness: child processes, confd-emu and its CLI, private namespaces, files.
#include "harness.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
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

bool loopback_up(std::string &why)
{
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct ifreq ifr = {};
    snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", "lo");
    bool ok = s >= 0 && ioctl(s, SIOCGIFFLAGS, &ifr) == 0;
    ifr.ifr_flags |= IFF_UP;
    ok = ok && ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
    if (!ok) why = std::string("bringing up lo: ") + strerror(errno);
    if (s >= 0) close(s);
    return ok;
}

// Mounts an empty tmpfs on dir. The source and build trees stay visible when they live below dir
// (a checkout under /tmp, as on CI machines): each is held open across the mount and bound back at
// its old path.
bool fresh_tmpfs_keeping_tree(const char *dir, std::string &why)
{
    std::vector<std::pair<std::string, int>> kept;
    std::string prefix = std::string(dir) + "/";
    for (std::string tree : {LEISOBEK_SOURCE_TREE, LEISOBEK_BUILD_TREE}) {
        if (tree.compare(0, prefix.size(), prefix) != 0) continue;
        int fd = open(tree.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (fd >= 0) kept.emplace_back(tree, fd);
    }
    bool ok = mount("tmpfs", dir, "tmpfs", 0, "mode=1777") == 0;
    if (!ok) why = std::string("tmpfs on ") + dir + ": " + strerror(errno);
    for (auto &[path, fd] : kept) {
        std::string from = "/proc/self/fd/" + std::to_string(fd);
        for (size_t at = path.find('/', 1); ok; at = path.find('/', at + 1)) {
            mkdir(path.substr(0, at).c_str(), 0755); // like mkdir -p
            if (at == std::string::npos) break;
        }
        if (ok && mount(from.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
            why = "keeping " + path + " visible: " + strerror(errno);
            ok = false;
        }
        close(fd);
    }
    return ok;
}

// Moves the calling process into fresh network and mount namespaces with lo up and empty tmpfs on
// /tmp and /mnt; its next child starts a fresh pid namespace.
bool enter_private_namespaces(std::string &why)
{
    if (unshare(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWPID) != 0) {
        why = std::string("unshare(CLONE_NEWNET|CLONE_NEWNS|CLONE_NEWPID): ") + strerror(errno);
        return false;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        why = std::string("making mounts private: ") + strerror(errno);
        return false;
    }
    return loopback_up(why) && fresh_tmpfs_keeping_tree("/tmp", why) &&
           fresh_tmpfs_keeping_tree("/mnt", why);
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

sockaddr_in loopback(int port)
{
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sa.sin_port = htons(static_cast<uint16_t>(port));
    return sa;
}

std::string read_file(const std::string &path)
{
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

pid_t spawn(const std::vector<std::string> &argv, int out_fd, int err_fd,
            const std::vector<std::string> &env_extra)
{
    std::vector<char *> args, envp;
    for (const std::string &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    for (const std::string &e : env_extra)
        envp.push_back(const_cast<char *>(e.c_str()));
    for (char **e = environ; *e != nullptr; ++e) {
        bool replaced = false;
        for (const std::string &x : env_extra)
            replaced = replaced || strncmp(*e, x.c_str(), x.find('=') + 1) == 0;
        if (!replaced) envp.push_back(*e);
    }
    envp.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&fa, out_fd, 1);
    posix_spawn_file_actions_adddup2(&fa, err_fd, 2);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, args[0], &fa, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&fa);
    return rc == 0 ? pid : -1;
}

int wait_code(pid_t pid)
{
    int st = 0;
    while (waitpid(pid, &st, 0) < 0)
        if (errno != EINTR) return -1;
    return status_code(st);
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
    int64_t deadline = now_ms() + timeout_ms;
    struct pollfd pfd[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string *sink[2] = {&res.out, &res.err};
    int open_fds = pid < 0 ? 0 : 2;
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
    if (pid > 0) res.exit_code = wait_code(pid);
    return res;
}

int run_in_namespaces(const std::function<int()> &body)
{
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        std::string why;
        if (!enter_private_namespaces(why)) {
            fprintf(stderr, "%s\n", why.c_str());
            _exit(kNoNamespaces);
        }
        // The body runs as the first process of the new pid namespace: when it ends, the kernel
        // kills everything it started.
        pid_t inner = fork();
        if (inner == 0) {
            // A /proc of the new pid namespace, so that pids read there (LeakSanitizer walks
            // /proc/PID/task) are the processes' own.
            if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
                fprintf(stderr, "mounting /proc: %s\n", strerror(errno));
                _exit(kNoNamespaces);
            }
            int code = body();
            fflush(stdout);
            fflush(stderr);
            _exit(code);
        }
        _exit(inner < 0 ? 1 : wait_code(inner));
    }
    return wait_code(pid);
}

Emu::Emu(std::vector<std::string> extra_args) : extra_(std::move(extra_args)) {}

Emu::~Emu()
{
    stop();
    if (!dir_.empty()) {
        for (const char *f : {"/port", "/port.tmp", "/log"})
            unlink((dir_ + f).c_str());
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
    for (int64_t deadline = now_ms() + 20000; now_ms() < deadline; usleep(20000)) {
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
    }
    err = "confd-emu did not start listening: " + log();
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
