// report_error, the C library's error() where it has one, against the replacement the router's libc
// gets: same line on stderr, same exit.
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

TEST(PortableTest, ReportErrorWritesErrorsLineAndExitsWithItsStatus)
{
#ifdef HAVE_LIBC_ERROR
    EXPECT_TRUE(report_error_from_libc) << "the build did not find this libc's error()";
#else
    EXPECT_FALSE(report_error_from_libc);
#endif
    const struct {
        int status, errnum;
        const char *path;
        int exit_code; // status modulo 256, as exit() takes it; 0 when report_error returns
    } cases[] = {
        {1, ENOENT, "/proc/sys/net/ipv4/ip_forward", 1},
        {0, 0, "/tmp/stats/none", 0},
        {0, EACCES, "", 0},
        {300, 0, "x", 300 & 0xff},
    };
    for (const auto &c : cases) {
        std::string line = std::string(program_invocation_name) + ": Could not open " + c.path;
        if (c.errnum != 0) line += std::string(": ") + strerror(c.errnum);
        const auto exactly = testing::Eq(line + "\n");
        EXPECT_EXIT(
            {
                report_error_fallback(c.status, c.errnum, "Could not open %s", c.path);
                exit(0);
            },
            testing::ExitedWithCode(c.exit_code), exactly);
        // Where report_error is glibc's error(), this compares the two.
        EXPECT_EXIT(
            {
                report_error(c.status, c.errnum, "Could not open %s", c.path);
                exit(0);
            },
            testing::ExitedWithCode(c.exit_code), exactly);
    }
}

} // namespace
