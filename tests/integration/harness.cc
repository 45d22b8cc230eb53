// Integration-test harness: child processes, confd-emu and its CLI, private namespaces, files.
#include "harness.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace harness
{

namespace
{

// Reaps pid: its exit status, 128+N when killed by signal N, -1 on error.
int wait_code(pid_t pid)
{
    int st = 0;
    while (waitpid(pid, &st, 0) < 0)
        if (errno != EINTR) return -1;
    if (WIFEXITED(st)) return WEXITSTATUS(st);
    return WIFSIGNALED(st) ? 128 + WTERMSIG(st) : -1;
}

// Waits up to timeout_ms for pid to end: its status as wait_code() gives it, -2 while it runs.
int wait_for(pid_t pid, int timeout_ms)
{
    struct pollfd p = {static_cast<int>(syscall(SYS_pidfd_open, pid, 0)), POLLIN, 0};
    int ready;
    while ((ready = poll(&p, 1, timeout_ms)) < 0 && errno == EINTR) {
    }
    close(p.fd);
    return ready == 0 ? -2 : wait_code(pid);
}

// The whole content of a file written by a child, read from its start.
std::string contents(int fd)
{
    std::string text;
    char buf[65536];
    for (ssize_t n; (n = pread(fd, buf, sizeof buf, static_cast<off_t>(text.size()))) > 0;)
        text.append(buf, static_cast<size_t>(n));
    return text;
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
        std::error_code ec;
        std::filesystem::create_directories(path, ec);
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

size_t count_of(const std::string &text, const std::string &needle)
{
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        n++;
    return n;
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

CmdResult run(const std::vector<std::string> &argv, int timeout_ms)
{
    CmdResult res;
    int out = memfd_create("out", MFD_CLOEXEC), err = memfd_create("err", MFD_CLOEXEC);
    pid_t pid = out >= 0 && err >= 0 ? spawn(argv, out, err) : -1;
    if (pid > 0 && (res.exit_code = wait_for(pid, timeout_ms)) == -2) {
        kill(pid, SIGKILL);
        res.exit_code = wait_code(pid);
    }
    res.out = contents(out);
    res.err = contents(err);
    close(out);
    close(err);
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
    std::error_code ec;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
}

bool Emu::start(std::string &err)
{
    char tmpl[] = "/tmp/confd-emu-test.XXXXXX";
    if (dir_.empty() && mkdtemp(tmpl)) dir_ = tmpl;
    int log_fd = dir_.empty() ? -1
                              : open((dir_ + "/log").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (log_fd < 0) {
        err = std::string("temporary directory or log file: ") + std::strerror(errno);
        return false;
    }
    std::string port_file = dir_ + "/port";
    unlink(port_file.c_str());
    std::vector<std::string> argv = {CONFD_EMU_BIN, "--port", "0", "--port-file", port_file};
    argv.insert(argv.end(), extra_.begin(), extra_.end());
    pid_ = spawn(argv, log_fd, log_fd);
    close(log_fd);
    if (pid_ < 0) {
        err = std::string("cannot start ") + CONFD_EMU_BIN;
        return false;
    }
    for (int i = 0; i < 1000; i++) {
        std::string text = read_file(port_file);
        if (!text.empty()) {
            port_ = std::atoi(text.c_str());
            return port_ > 0;
        }
        int code = wait_for(pid_, 20);
        if (code != -2) {
            pid_ = -1;
            err = "confd-emu exited with status " + std::to_string(code) + ": " + log();
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
        code = wait_code(pid_);
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
