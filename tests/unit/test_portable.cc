// report_error, the C library's error() where it has one, against the replacement the router's
// libc gets: same line on stderr, same exit.
#include "child_process.h"
#include "core/portable.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#if __has_include(<error.h>)
#define HAVE_LIBC_ERROR 1
#endif

namespace
{

struct error_case {
    int status;
    int errnum;
    const char *path;
    int exit_code; // what the child ends with: status, or 0 when report_error returns
};

const error_case cases[] = {
    {1, ENOENT, "/proc/sys/net/ipv4/ip_forward", 1},
    {0, 0, "/tmp/stats/none", 0},
    {0, EACCES, "", 0},
    {300, 0, "x", 300 & 0xff}, // the exit status is taken modulo 256, as exit() does
};

std::string expected_line(const error_case &c)
{
    std::string line = std::string(program_invocation_name) + ": Could not open " + c.path;
    if (c.errnum != 0) line += std::string(": ") + strerror(c.errnum);
    return line + "\n";
}

TEST(PortableTest, ReportErrorWritesErrorsLineAndExitsWithItsStatus)
{
#ifdef HAVE_LIBC_ERROR
    EXPECT_TRUE(report_error_from_libc) << "the build did not find this libc's error()";
#else
    EXPECT_FALSE(report_error_from_libc);
#endif
    for (const error_case &c : cases) {
        SCOPED_TRACE(c.path);
        child_outcome fallback = run_in_child([&] {
            report_error_fallback(c.status, c.errnum, "Could not open %s", c.path);
        });
        EXPECT_TRUE(fallback.exited_with(c.exit_code));
        EXPECT_EQ(fallback.err, expected_line(c));
        child_outcome chosen = run_in_child([&] {
            report_error(c.status, c.errnum, "Could not open %s", c.path);
        });
        // Where report_error is glibc's error(), this compares the two.
        EXPECT_EQ(chosen.status, fallback.status);
        EXPECT_EQ(chosen.err, fallback.err);
    }
}

} // namespace
