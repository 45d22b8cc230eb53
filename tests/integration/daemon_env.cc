// Private namespaces, the leisobek process and confd-emu on port 4565 for integration tests.
#include "daemon_env.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <net/if.h>
#include <sched.h>
#include <spawn.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace daemon_env
{

namespace
{

bool loopback_up(std::string &why)
{
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) {
        why = std::string("socket: ") + strerror(errno);
        return false;
    }
    struct ifreq ifr = {};
    snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", "lo");
    bool ok = ioctl(s, SIOCGIFFLAGS, &ifr) == 0;
    ifr.ifr_flags |= IFF_UP;
    ok = ok && ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
    if (!ok) why = std::string("bringing up lo: ") + strerror(errno);
    close(s);
    return ok;
}

// Creates the directories of path, like mkdir -p.
void make_dirs(const std::string &path)
{
    for (size_t at = path.find('/', 1); ; at = path.find('/', at + 1)) {
        mkdir(path.substr(0, at).c_str(), 0755);
        if (at == std::string::npos) break;
    }
}

// Mounts an empty tmpfs on dir. The source and build trees stay visible
// when they live below dir (a checkout under /tmp, as on CI machines): each
// is held open across the mount and bound back at its old path.
bool fresh_tmpfs_keeping_tree(const char *dir, std::string &why)
{
    std::vector<std::pair<std::string, int>> kept;
    std::string prefix = std::string(dir) + "/";
    for (const char *tree : {LEISOBEK_SOURCE_TREE, LEISOBEK_BUILD_TREE}) {
        std::string t = tree;
        if (t.compare(0, prefix.size(), prefix) != 0) continue;
        int fd = open(t.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (fd >= 0) kept.emplace_back(t, fd);
    }
    bool ok = mount("tmpfs", dir, "tmpfs", 0, "mode=1777") == 0;
    if (!ok) why = std::string("tmpfs on ") + dir + ": " + strerror(errno);
    for (auto &[path, fd] : kept) {
        std::string from = "/proc/self/fd/" + std::to_string(fd);
        if (ok) {
            make_dirs(path);
            if (mount(from.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
                why = "keeping " + path + " visible: " + strerror(errno);
                ok = false;
            }
        }
        close(fd);
    }
    return ok;
}

// Moves the calling process into fresh network and mount namespaces with lo
// up and empty tmpfs on /tmp and /mnt; its next child starts a fresh pid
// namespace.
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
    if (!loopback_up(why)) return false;
    for (const char *dir : {"/tmp", "/mnt"}) {
        if (!fresh_tmpfs_keeping_tree(dir, why)) return false;
    }
    return true;
}

int wait_code(pid_t pid)
{
    int st = 0;
    while (waitpid(pid, &st, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

} // namespace

int run_isolated(const std::function<void()> &body)
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
        // The body runs as the first process of the new pid namespace: when
        // it ends, the kernel kills everything it started.
        pid_t inner = fork();
        if (inner == 0) {
            // A /proc of the new pid namespace, so that pids read there
            // (LeakSanitizer walks /proc/PID/task) are the processes' own.
            if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
                fprintf(stderr, "mounting /proc: %s\n", strerror(errno));
                _exit(kNoNamespaces);
            }
            body();
            fflush(stdout);
            fflush(stderr);
            if (::testing::Test::HasFailure()) _exit(1);
            _exit(::testing::Test::IsSkipped() ? kSkippedInside : 0);
        }
        _exit(inner < 0 ? 1 : wait_code(inner));
    }
    return wait_code(pid);
}

std::string read_text(const std::string &path)
{
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

bool eventually(const std::function<bool()> &cond, int timeout_ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!cond()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

Daemon::Daemon(std::vector<std::string> args, std::vector<std::string> env_extra)
{
    char tmpl[] = "/tmp/leisobek-run.XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return;
    dir_ = tmpl;
    args.insert(args.begin(), LEISOBEK_BIN);
    std::vector<char *> argv;
    for (auto &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<char *> envp;
    for (auto &e : env_extra)
        envp.push_back(e.data());
    for (char **e = environ; *e != nullptr; ++e) {
        bool replaced = false;
        for (auto &x : env_extra)
            replaced = replaced || strncmp(*e, x.c_str(), x.find('=') + 1) == 0;
        if (!replaced) envp.push_back(*e);
    }
    envp.push_back(nullptr);

    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 1, (dir_ + "/out").c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    posix_spawn_file_actions_addopen(&fa, 2, (dir_ + "/err").c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    if (posix_spawn(&pid_, argv[0], &fa, nullptr, argv.data(), envp.data()) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&fa);
}

int Daemon::wait_exit(int timeout_ms)
{
    eventually(
        [this] {
            if (pid_ <= 0) return true;
            int st = 0;
            if (waitpid(pid_, &st, WNOHANG) != pid_) return false;
            status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
            pid_ = -1;
            return true;
        },
        timeout_ms);
    return status_;
}

void Daemon::stop()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

Emu::Emu() : emu_({"--port", "4565"}) {}

bool Emu::start()
{
    std::string err;
    bool ok = emu_.start(err);
    EXPECT_TRUE(ok) << err;
    return ok;
}

std::string Emu::cli(const std::vector<std::string> &args) const
{
    harness::CmdResult r = emu_.cli(args);
    EXPECT_EQ(r.exit_code, 0) << r.err;
    while (!r.out.empty() && r.out.back() == '\n')
        r.out.pop_back();
    return r.out;
}

std::string Emu::wait_notifications(size_t n) const
{
    std::string log;
    eventually([&] {
        log = notifications();
        size_t count = 0;
        for (size_t at = log.find("\"varbinds\":"); at != std::string::npos;
             at = log.find("\"varbinds\":", at + 1))
            ++count;
        return count >= n;
    });
    return log;
}

bool Emu::wait_registered() const
{
    bool ok = eventually([&] {
        std::string st = status();
        return st.find("\"name\":\"leisobek\"") != std::string::npos &&
               st.find("\"registered\":true") != std::string::npos;
    });
    EXPECT_TRUE(ok) << status();
    return ok;
}

bool Emu::wait_no_daemons() const
{
    bool ok = eventually([&] { return status().find("\"daemons\":[]") != std::string::npos; });
    EXPECT_TRUE(ok) << status();
    return ok;
}

} // namespace daemon_env
