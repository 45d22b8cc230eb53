// Unit tests of the daemon's command-line switches.
#include "core/switches.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace
{

// Parses "leisobek" followed by args; what getopt printed goes to err.
struct daemon_switches parse(std::vector<std::string> args, std::string *err = nullptr)
{
    args.insert(args.begin(), "leisobek");
    std::vector<char *> argv;
    for (auto &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    testing::internal::CaptureStderr();
    struct daemon_switches sw = parse_switches(static_cast<int>(args.size()), argv.data());
    std::string text = testing::internal::GetCapturedStderr();
    if (err) *err = text;
    return sw;
}

// Verifies level and start mode per switch combination: the last level switch wins, -n goes
// through atoi and takes the next word whatever it looks like, -r and arguments change nothing.
TEST(SwitchesTest, LevelsAndStartModes)
{
    const struct {
        std::vector<std::string> args;
        int level, mode;
    } cases[] = {
        {{}, 0, 1},
        {{"-d", "-p"}, 3, 1},
        {{"-p", "-d"}, 1, 1},
        {{"-t", "-s"}, 0, 1},
        {{"-dtp"}, 3, 1},
        {{"-n", "0"}, 0, 0},
        {{"-n", "3abc"}, 0, 3},
        {{"-n7"}, 0, 7},
        {{"-n", "0", "-n", "1"}, 0, 1},
        {{"-n", "-p"}, 0, 0},
        {{"-r", "-t", "-r"}, 2, 1},
        {{"-p", "-n", "0", "extra"}, 3, 0},
    };
    for (const auto &c : cases) {
        std::string err, words;
        for (const std::string &a : c.args)
            words += a + " ";
        struct daemon_switches sw = parse(c.args, &err);
        EXPECT_EQ(sw.debug_level, c.level) << words;
        EXPECT_EQ(sw.start_mode, c.mode) << words;
        EXPECT_EQ(err, "") << words;
    }
}

// Verifies that an unknown switch, or -n without its argument, draws getopt's complaint and is
// skipped, the switches around it still counting and the start mode keeping its default.
TEST(SwitchesTest, BadSwitchesComplainAndAreIgnored)
{
    std::string err;
    struct daemon_switches sw = parse({"-d", "-x", "-n", "7"}, &err);
    EXPECT_NE(err.find("leisobek: "), std::string::npos) << err;
    EXPECT_NE(err.find("-- 'x'"), std::string::npos) << err;
    EXPECT_EQ(sw.debug_level, 1);
    EXPECT_EQ(sw.start_mode, 7);
    sw = parse({"-p", "-n"}, &err);
    EXPECT_NE(err.find("-- 'n'"), std::string::npos) << err;
    EXPECT_EQ(sw.debug_level, 3);
    EXPECT_EQ(sw.start_mode, 1);
}

} // namespace
