// The leisobek process and confd-emu on port 4565 in private namespaces, for integration tests.
#include "daemon_env.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace daemon_env
{

int run_isolated(const std::function<void()> &body)
{
    return harness::run_in_namespaces([&] {
        body();
        if (::testing::Test::HasFailure()) return 1;
        return ::testing::Test::IsSkipped() ? kSkippedInside : 0;
    });
}

void overlay_dir(const std::string &dir)
{
    static int count = 0;
    std::string layer = "/tmp/.overlay/" + std::to_string(count++);
    std::filesystem::create_directories(layer + "/upper");
    std::filesystem::create_directories(layer + "/work");
    std::string options =
        "lowerdir=" + dir + ",upperdir=" + layer + "/upper,workdir=" + layer + "/work";
    if (mount("overlay", dir.c_str(), "overlay", 0, options.c_str()) != 0)
        ADD_FAILURE() << "overlay on " << dir << ": " << strerror(errno);
}

void write_file(const std::string &path, const std::string &text, mode_t mode)
{
    std::error_code exists_or_unmakeable; // then the write below reports it
    std::filesystem::create_directories(path.substr(0, path.rfind('/')), exists_or_unmakeable);
    {
        std::ofstream out(path, std::ios::trunc);
        out << text;
        if (!out) ADD_FAILURE() << "cannot write " << path;
    }
    chmod(path.c_str(), mode);
}

void bind_text(const std::string &target, const std::string &text)
{
    static int count = 0;
    std::string source = "/tmp/.bound-" + std::to_string(count++);
    write_file(source, text);
    if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0)
        ADD_FAILURE() << "bind mount over " << target << ": " << strerror(errno);
}

void install_recorders(const std::vector<std::pair<std::string, std::string>> &scripts)
{
    overlay_dir("/usr/bin");
    write_file(kRecorded, "");
    for (const auto &[name, body] : scripts)
        write_file(
            "/usr/bin/" + name,
            "#!/bin/sh\nline=\"sh $0\"\n[ $# -gt 0 ] && line=\"$line $*\"\necho \"$line\" >> " +
                std::string(kRecorded) + "\n" +
                (body.empty() ? "cat \"/tmp/recorded/$(basename \"$0\")$1\" 2>/dev/null" : body) +
                "\n",
            0755);
}

std::vector<std::string> recorded()
{
    std::vector<std::string> out;
    std::istringstream in(harness::read_file(kRecorded));
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
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

Daemon::Daemon(std::vector<std::string> args, std::vector<std::string> env_extra,
               std::vector<std::string> program)
{
    char tmpl[] = "/tmp/leisobek-run.XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return;
    dir_ = tmpl;
    if (program.empty()) program = {LEISOBEK_BIN};
    args.insert(args.begin(), program.begin(), program.end());
    int out = open((dir_ + "/out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    int err = open((dir_ + "/err").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (out >= 0 && err >= 0) pid_ = harness::spawn(args, out, err, env_extra);
    for (int fd : {out, err})
        if (fd >= 0) close(fd);
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

Emu::Emu(std::vector<std::string> extra)
    : emu_([&] {
          extra.insert(extra.begin(), {"--port", "4565"});
          return extra;
      }())
{
}

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

std::vector<cli_json::row> Emu::walk(const std::string &path) const
{
    std::string answer = cli({"walk", path});
    std::vector<cli_json::row> rows;
    EXPECT_TRUE(cli_json::parse_walk(answer, rows)) << answer.substr(0, 400);
    return rows;
}

std::string Emu::wait_notifications(size_t n) const
{
    std::string log;
    eventually([&] {
        log = notifications();
        return harness::count_of(log, "\"varbinds\":") >= n;
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

std::unique_ptr<Daemon> Emu::start_with_daemon(std::vector<std::string> args)
{
    if (!start()) return nullptr;
    auto d = std::make_unique<Daemon>(std::move(args));
    if (!wait_registered()) {
        ADD_FAILURE() << "leisobek did not register: " << d->err();
        return nullptr;
    }
    return d;
}

} // namespace daemon_env
