// A throw-away /proc tree for collector tests: process fd links and net files from fixtures.
#pragma once

#include "procfs.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

// The bytes in lower-case hex, as the tests write addresses.
inline std::string hex_text(const uint8_t *bytes, uint32_t length)
{
    std::string out;
    char two[3];
    for (uint32_t i = 0; i < length; i++) {
        snprintf(two, sizeof two, "%02x", bytes[i]);
        out += two;
    }
    return out;
}

// The text as a read-only stream, closed when the pointer goes (the text must outlive it).
inline std::unique_ptr<FILE, int (*)(FILE *)> text_stream(const std::string &text)
{
    return {fmemopen(const_cast<char *>(text.data()), text.size(), "r"), fclose};
}

// Creates a temporary directory and points the collectors at it until it goes out of scope.
class fake_proc
{
  public:
    fake_proc()
    {
        char name[] = "/tmp/leisobek-proc-XXXXXX";
        if (!mkdtemp(name)) abort();
        root_ = name;
        collect_set_proc_root(root_.c_str());
    }
    ~fake_proc()
    {
        collect_set_proc_root(nullptr);
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }
    fake_proc(const fake_proc &) = delete;
    fake_proc &operator=(const fake_proc &) = delete;

    const std::string &root() const { return root_; }

    // Adds the link <root>/<process>/fd/<fd> -> target.
    void link_fd(const std::string &process, const std::string &fd, const std::string &target)
    {
        std::filesystem::create_directories(root_ + "/" + process + "/fd");
        std::filesystem::create_symlink(target, root_ + "/" + process + "/fd/" + fd);
    }

    // Writes text to <root>/<relative>, creating its directories.
    void write(const std::string &relative, const std::string &text) const
    {
        std::string path = root_ + "/" + relative;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path) << text;
    }

    // Makes <root>/net the fixture directory tests/fixtures/proc/net.
    void use_fixture_net()
    {
        std::filesystem::create_directory_symlink(std::string(LEISOBEK_FIXTURES) + "/proc/net",
                                                  root_ + "/net");
    }

  private:
    std::string root_;
};
