// Unit tests of the cold/warm start decision from the boot-state marker.
#include "notify/boot_state.h"

#include "fixture_env.h"

#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace
{

std::vector<std::string> announced;

int record(const char *notification)
{
    announced.push_back(notification);
    return 1;
}

// Verifies that a marker that exists but cannot be opened (here a socket, which open() refuses even
// to root) announces nothing and stays.
TEST(BootStateTest, UnopenableMarkerAnnouncesNothingAndStays)
{
    FixtureEnv env_;
    env_.write(BOOT_STATE_MARKER, "");
    std::string marker = env_.at(BOOT_STATE_MARKER);
    unlink(marker.c_str());
    int s = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(s, 0);
    struct sockaddr_un sun = {};
    sun.sun_family = AF_UNIX;
    ASSERT_LT(marker.size(), sizeof sun.sun_path);
    marker.copy(sun.sun_path, marker.size());
    ASSERT_EQ(bind(s, reinterpret_cast<struct sockaddr *>(&sun), sizeof sun), 0);

    EXPECT_EQ(boot_state_run(BOOT_STATE_MARKER, record), -1);
    EXPECT_TRUE(announced.empty());
    EXPECT_TRUE(env_.exists(BOOT_STATE_MARKER));
    close(s);
}

// Verifies that the scan stops at the first line holding "warmstart" and reads long lines in
// 99-character pieces.
TEST(BootStateScanTest, StopsAtWarmstartLine)
{
    char text[] = "x\nthis is a warmstart\nrest\n";
    FILE *f = fmemopen(text, sizeof text - 1, "r");
    ASSERT_NE(f, nullptr);
    EXPECT_TRUE(boot_state_scan(f));
    char rest[16] = {};
    ASSERT_NE(fgets(rest, sizeof rest, f), nullptr);
    EXPECT_STREQ(rest, "rest\n");
    fclose(f);

    // The word split over two 99-character pieces is not seen.
    std::string split = std::string(95, 'a') + "warmstart\n";
    f = fmemopen(split.data(), split.size(), "r");
    ASSERT_NE(f, nullptr);
    EXPECT_FALSE(boot_state_scan(f));
    fclose(f);
}

} // namespace
