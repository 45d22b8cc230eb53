// Unit tests of the provider framework: CONFD_OK check, assertions, traces, command answers.

// Built as a release build would be: the type guards must survive NDEBUG.
#ifndef NDEBUG
#define NDEBUG
#endif

#include "core/fieldcopy.h"
#include "core/leisobek.h"
#include "core/sysenv.h"

#include "fixture_env.h"

#include <csignal>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace
{

using ::testing::HasSubstr;
using ::testing::StartsWith;

// Verifies that CONFD_OK passes silently and anything else prints the shared header's name, the
// caller's line, confd_errno and the last error text, then exits with 1.
TEST(CheckConfdOkTest, FailurePrintsExactLineAndExitsOne)
{
    ASSERT_STREQ(confd_lasterr(), "");
    testing::internal::CaptureStderr();
    check_confd_ok(CONFD_OK, 110);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    confd_errno = CONFD_ERR_NOEXISTS;
    EXPECT_EXIT(check_confd_ok(CONFD_ERR, 110), testing::ExitedWithCode(1),
                "^leisobek\\.h:110: error not CONFD_OK: 1 :  \n$");
    confd_errno = CONFD_ERR_BADSTATE;
    EXPECT_EXIT(check_confd_ok(CONFD_EOF, 129), testing::ExitedWithCode(1),
                "^leisobek\\.h:129: error not CONFD_OK: 17 :  \n$");
}

int guard_line = 0;

// A provider-style read of a counter value.
unsigned int read_counter(confd_value_t *v_pp)
{
    guard_line = __LINE__ + 1;
    return CONFD_GET_UINT32(v_pp);
}

// Verifies that a ConfD type guard is still checked with NDEBUG defined and aborts with the
// standard message naming the ConfD type.
TEST(AlwaysAssertTest, TypeGuardAbortsWithStandardMessage)
{
    confd_value_t v;
    CONFD_SET_UINT32(&v, 42);
    EXPECT_EQ(read_counter(&v), 42u);
    CONFD_SET_INT32(&v, 42);
    EXPECT_EXIT(read_counter(&v), testing::KilledBySignal(SIGABRT),
                "^leisobek: [^ ]*test_framework\\.cc:" + std::to_string(guard_line) +
                    ": read_counter: Assertion `\\(v_pp\\)->type == C_UINT32' failed\\.\n");
}

void traced_step()
{
    TRACE_ENTER();
    TRACE_EXIT();
}

// Verifies that the trace points print nothing by default and, once enabled, the entry and exit
// marks with no newline.
TEST(TraceTest, SilentUnlessEnabled)
{
    ASSERT_EQ(trace_enabled, 0);
    testing::internal::CaptureStdout();
    traced_step();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    trace_enabled = 1;
    testing::internal::CaptureStdout();
    traced_step();
    trace_enabled = 0;
    std::string out = testing::internal::GetCapturedStdout(), file = __FILE__;
    EXPECT_THAT(out, StartsWith(file + ":"));
    EXPECT_THAT(out, HasSubstr(": ==> traced_step() - " + file + ":"));
    EXPECT_THAT(out, testing::EndsWith(": <== traced_step() - "));
    EXPECT_EQ(out.find('\n'), std::string::npos);
}

// Verifies that a command's answer is its first line, cut to the buffer, "" when it prints nothing;
// that under a fixture tree the daemon's commands run the fixture's scripts and are recorded, and
// that a router script the test did not provide cannot run at all.
TEST(CommandLineTest, FirstLineOfTheFixtureScriptsInPlaceOfTheRouters)
{
    char answer[128];
    read_command_line("printf 'TX410W\\nsecond line\\n'", answer, sizeof answer);
    EXPECT_STREQ(answer, "TX410W");
    read_command_line("printf '%0200d\\n' 0", answer, sizeof answer);
    EXPECT_EQ(std::string(answer), std::string(127, '0'));
    read_command_line("true", answer, sizeof answer);
    EXPECT_STREQ(answer, "");

    FixtureEnv env;
    env.script("/usr/bin/uci", "echo TX630W-0815");
    read_command_line("uci get systeminfo.sysinfo.pid | cut -d'-' -f1", answer, sizeof answer);
    EXPECT_STREQ(answer, "TX630W");

    EXPECT_NE(sys_system("sh /usr/bin/system-reboot firmware-state active option none"), 0);
    EXPECT_EQ(env.commands(), (std::vector<std::string>{
                                  "uci get systeminfo.sysinfo.pid | cut -d'-' -f1",
                                  "sh /usr/bin/system-reboot firmware-state active option none"}));
}

// Verifies that a script field is copied with only "%%" interpreted, other "%" sequences as they
// stand, and the copy stopping one short of the buffer.
TEST(CopyFieldAsFormatTest, OnlyDoubledPercentIsInterpreted)
{
    struct {
        const char *field;
        size_t size;
        const char *want;
    } cases[] = {
        {"plain", 16, "plain"},
        {"100%% up", 16, "100% up"},
        {"%s%n%x", 16, "%s%n%x"},
        {"%%%s", 16, "%%s"},
        {"%%%%", 16, "%%"},
        {"end%", 16, "end%"},
        {"truncated", 5, "trun"},
        {"ab%%", 3, "ab"},
        {"%%", 2, "%"},
        {nullptr, 4, ""},
        {"x", 1, ""},
    };
    for (const auto &c : cases) {
        char out[16];
        memset(out, 'X', sizeof out);
        size_t n = copy_field_as_format(out, c.size, c.field);
        EXPECT_STREQ(out, c.want) << (c.field ? c.field : "(null)") << " size " << c.size;
        EXPECT_EQ(n, strlen(c.want));
    }
}

} // namespace
