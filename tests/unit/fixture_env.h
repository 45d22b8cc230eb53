// A fixture tree in place of the router's fixed paths and scripts, for in-process tests.
//
// While a FixtureEnv lives, the daemon's fixed paths resolve below a fresh temporary root, and
// every command it runs is recorded and run by /bin/sh with "/usr/bin/" rewritten to the root's
// usr/bin and that directory first on PATH. A command naming a /usr/bin script that the test did
// not provide cannot start (the shell finds no such file), so no real router script runs.
#pragma once

#include "core/sysenv.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

class FixtureEnv
{
  public:
    FixtureEnv()
    {
        char dir[] = "/tmp/leisobek-fixture-XXXXXX";
        if (mkdtemp(dir) == nullptr) ADD_FAILURE() << "mkdtemp failed";
        root_ = dir;
        current() = this;
        sys_set_root(root_.c_str());
        sys_set_runner(&recording);
    }
    ~FixtureEnv()
    {
        sys_set_runner(nullptr);
        sys_set_root(nullptr);
        current() = nullptr;
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }
    FixtureEnv(const FixtureEnv &) = delete;
    FixtureEnv &operator=(const FixtureEnv &) = delete;

    // The fixture path of a router path ("/tmp/stats/x").
    std::string at(const std::string &path) const { return root_ + path; }

    // Writes text to the router path, creating its directories.
    void write(const std::string &path, const std::string &text, mode_t mode = 0644) const
    {
        std::filesystem::create_directories(std::filesystem::path(at(path)).parent_path());
        std::ofstream(at(path), std::ios::trunc) << text;
        chmod(at(path).c_str(), mode);
    }
    // A shell script at the router path (usually /usr/bin/...); body runs under sh.
    void script(const std::string &path, const std::string &body) const
    {
        write(path, "#!/bin/sh\n" + body + "\n", 0755);
    }
    bool exists(const std::string &path) const { return std::filesystem::exists(at(path)); }

    // The commands the daemon ran, as it wrote them, in order.
    const std::vector<std::string> &commands() const { return commands_; }

  private:
    static FixtureEnv *&current()
    {
        static FixtureEnv *env = nullptr;
        return env;
    }
    std::string rewrite(const char *command)
    {
        commands_.emplace_back(command);
        const std::string bin = root_ + "/usr/bin";
        return "PATH='" + bin + "':/usr/bin:/bin; " +
               std::regex_replace(command, std::regex("/usr/bin/"), bin + "/");
    }
    static FILE *open(const char *command)
    {
        return popen(current()->rewrite(command).c_str(), "r");
    }
    static int close(FILE *stream) { return pclose(stream); }
    static int run(const char *command) { return system(current()->rewrite(command).c_str()); }
    static constexpr sys_runner recording = {open, close, run};

    std::string root_;
    std::vector<std::string> commands_;
};
