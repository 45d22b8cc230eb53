// Unit tests of the daemon's command-line switches.
#include "core/switches.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace
{

using ::testing::HasSubstr;

// Parses "leisobek" followed by args.
struct daemon_switches parse(std::vector<std::string> args)
{
    args.insert(args.begin(), "leisobek");
    std::vector<char *> argv;
    for (auto &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    return parse_switches(static_cast<int>(args.size()), argv.data());
}

// Verifies the defaults: silent library, agent announced with ucdStart.
TEST(SwitchesTest, NoSwitchesMeansSilentAndStartModeOne)
{
    struct daemon_switches sw = parse({});
    EXPECT_EQ(sw.debug_level, 0);
    EXPECT_EQ(sw.start_mode, 1);
}

// Verifies that each level switch sets its level and the last one given wins,
// whether separate or clustered.
TEST(SwitchesTest, LastLevelSwitchWins)
{
    EXPECT_EQ(parse({"-d"}).debug_level, 1);
    EXPECT_EQ(parse({"-t"}).debug_level, 2);
    EXPECT_EQ(parse({"-p"}).debug_level, 3);
    EXPECT_EQ(parse({"-d", "-p"}).debug_level, 3);
    EXPECT_EQ(parse({"-p", "-d"}).debug_level, 1);
    EXPECT_EQ(parse({"-t", "-s"}).debug_level, 0);
    EXPECT_EQ(parse({"-s", "-t"}).debug_level, 2);
    EXPECT_EQ(parse({"-dtp"}).debug_level, 3);
    EXPECT_EQ(parse({"-p", "-p"}).debug_level, 3);
}

// Verifies that -n goes through atoi: numbers as given, anything else 0, the
// argument attached or separate, the last -n winning.
TEST(SwitchesTest, StartModeThroughAtoi)
{
    EXPECT_EQ(parse({"-n", "0"}).start_mode, 0);
    EXPECT_EQ(parse({"-n", "7"}).start_mode, 7);
    EXPECT_EQ(parse({"-n", "x"}).start_mode, 0);
    EXPECT_EQ(parse({"-n", "3abc"}).start_mode, 3);
    EXPECT_EQ(parse({"-n7"}).start_mode, 7);
    EXPECT_EQ(parse({"-n", "0", "-n", "1"}).start_mode, 1);
    // -n takes the next word even when it looks like a switch.
    struct daemon_switches sw = parse({"-n", "-p"});
    EXPECT_EQ(sw.start_mode, 0);
    EXPECT_EQ(sw.debug_level, 0);
}

// Verifies that -r and positional arguments change nothing and do not stop
// the parsing of the switches before them.
TEST(SwitchesTest, RAndPositionalArgumentsAreIgnored)
{
    struct daemon_switches sw = parse({"-r", "-t", "-r"});
    EXPECT_EQ(sw.debug_level, 2);
    EXPECT_EQ(sw.start_mode, 1);
    sw = parse({"-p", "-n", "0", "extra"});
    EXPECT_EQ(sw.debug_level, 3);
    EXPECT_EQ(sw.start_mode, 0);
}

// Verifies that an unknown switch draws getopt's complaint and is skipped,
// the switches around it still counting.
TEST(SwitchesTest, UnknownSwitchComplainsAndIsIgnored)
{
    testing::internal::CaptureStderr();
    struct daemon_switches sw = parse({"-d", "-x", "-n", "7"});
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_THAT(err, HasSubstr("leisobek: "));
    EXPECT_THAT(err, HasSubstr("-- 'x'"));
    EXPECT_EQ(sw.debug_level, 1);
    EXPECT_EQ(sw.start_mode, 7);
}

// Verifies that -n without its argument complains and keeps the default mode.
TEST(SwitchesTest, MissingStartModeArgumentKeepsDefault)
{
    testing::internal::CaptureStderr();
    struct daemon_switches sw = parse({"-p", "-n"});
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_THAT(err, HasSubstr("-- 'n'"));
    EXPECT_EQ(sw.debug_level, 3);
    EXPECT_EQ(sw.start_mode, 1);
}

} // namespace
