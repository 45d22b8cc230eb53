// Unit tests of the shared /proc readers: snmp sections, socket owners.
#include "fake_proc.h"

#include <gtest/gtest.h>

#include <vector>

namespace
{

// Verifies that the section reader passes over a header without values and fails on a one-byte
// buffer (not spinning); a section found, one found only by a longer name ("UdpLite") and a missing
// file are the UDP collector's and provider's scalar tests.
TEST(ReadSnmpSection, FindsTheValuesLine)
{
    char buffer[8192];
    std::string text = "Tcp: Rto\nUdp: In\nTcp: 1\nTcp: 2\n";
    auto in = text_stream(text);
    char *values = read_snmp_section_from(in.get(), buffer, sizeof buffer, "Tcp");
    ASSERT_NE(values, nullptr);
    EXPECT_STREQ(values, "2\n"); // "Tcp: 1" followed a non-header line: it is a header
    // fgets with room for the NUL only never reaches the end of the file.
    rewind(in.get());
    EXPECT_EQ(read_snmp_section_from(in.get(), buffer, 1, "Tcp"), nullptr);
}

// Verifies socket owner resolution: numeric process directories and "socket:[N]" links under 63
// bytes only, the first of a repeated inode owned, inode 0 never; near and far-apart inodes.
TEST(MapSocketPids, ResolvesOwnersOnAFakeProc)
{
    fake_proc proc;
    proc.link_fd("100", "3", "socket:[1001]");
    proc.link_fd("100", "4", "socket:[4000000000]");
    proc.link_fd("100", "5", "pipe:[77]");
    proc.link_fd("200", "0", "socket:[1004]");
    proc.link_fd("200", "7", "socket:[" + std::string(50, '0') + "1006]"); // 63 bytes: too long
    proc.link_fd("12x", "1", "socket:[1005]");                             // not a process
    proc.link_fd("self", "1", "socket:[1005]");
    std::filesystem::create_directories(proc.root() + "/300"); // no fd directory

    socket_pid_pair near[] = {{1001, 0}, {1004, 0}, {1005, 0}, {0, 0}, {1001, 0}, {1006, 0}};
    EXPECT_EQ(map_socket_pids(near, 6), 2u);
    std::vector<uint32_t> owners;
    for (const auto &pair : near)
        owners.push_back(pair.process);
    EXPECT_EQ(owners, (std::vector<uint32_t>{100, 200, 0, 0, 0, 0}));

    socket_pid_pair far[] = {{4000000000u, 0}, {1004, 0}, {4000000000u, 0}, {6, 0}};
    EXPECT_EQ(map_socket_pids(far, 4), 2u);
    EXPECT_EQ(far[0].process, 100u);
    EXPECT_EQ(far[1].process, 200u);
    EXPECT_EQ(far[2].process + far[3].process, 0u);

    // A socket shared by two processes counts twice; the walk stops once as many links matched
    // as there are pairs.
    fake_proc shared;
    shared.link_fd("100", "3", "socket:[7]");
    shared.link_fd("200", "3", "socket:[7]");
    socket_pid_pair one[] = {{7, 0}};
    EXPECT_EQ(map_socket_pids(one, 1), 1u);
    socket_pid_pair two[] = {{7, 0}, {8, 0}};
    EXPECT_EQ(map_socket_pids(two, 2), 2u);
    EXPECT_TRUE(two[0].process == 100u || two[0].process == 200u);
}

} // namespace
