// Unit tests of the "udp_status" provider, driven through its registered callbacks on a fake /proc.
#include "mibs/udpmibimpl.h"
#include "provider_driver.h"

#include "UDP-MIB.h"

#include <string>
#include <vector>

namespace
{

keypath udp(std::vector<uint32_t> tags, const std::string &keys = "")
{
    tags.insert(tags.begin(), UDP_MIB_UDP_MIB);
    return keypath(UDP_MIB__ns, tags, keys);
}
keypath endpoints()
{
    return udp({UDP_MIB_udpEndpointTable, UDP_MIB_udpEndpointEntry});
}
// A column of the row with these seven keys.
keypath endpoint(const std::string &keys, uint32_t leaf = UDP_MIB_udpEndpointProcess)
{
    return udp({UDP_MIB_udpEndpointTable, UDP_MIB_udpEndpointEntry, leaf}, keys);
}

class UdpProviderTest : public provider_test
{
  protected:
    UdpProviderTest() : provider_test(register_udp, "udp_status") {}
    void SetUp() override
    {
        if (__BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__)
            GTEST_SKIP() << "fixture text is that of a little-endian kernel";
        provider_test::SetUp();
        proc_.use_fixture_net();
        proc_.link_fd("100", "3", "socket:[3003]");
        proc_.link_fd("100", "4", "socket:[4003]");
        proc_.link_fd("200", "7", "socket:[3005]");
        proc_.link_fd("300", "5", "socket:[3002]");
    }
};

// Verifies a walk of udpEndpointTable: the fixture's rows in index order with their seven keys and
// position cookies; each row's keys fetch that row's process.
TEST_F(UdpProviderTest, WalkAndEntriesInIndexOrder)
{
    const std::string any = "x" + std::string(32, '0'), lo = "x" + std::string(30, '0') + "01";
    std::vector<std::string> rows = walk(endpoints());
    EXPECT_EQ(rows, (std::vector<std::string>{
                        "e0 x 0 e0 x 0 0",
                        "e1 x 0 e1 x00000000 0 3004",
                        "e1 x00000000 53 e1 x00000000 0 3001",
                        "e1 x7f000001 68 e1 x00000000 0 3003",
                        "e1 x7f000001 68 e1 x00000000 0 3005",
                        "e1 x7f000001 5353 e1 x7f000001 53 3002",
                        "e2 " + any + " 123 e2 " + any + " 0 4001",
                        "e2 " + lo + " 55427 e2 " + lo + " 53 4002",
                        "e2 x" + std::string(20, '0') + "ffff7f000001 514 e2 " + any + " 0 4003",
                    }));
    std::string processes;
    for (const std::string &keys : rows)
        processes += get(endpoint(keys)) + " ";
    EXPECT_EQ(processes, "0 0 0 100 200 300 0 0 100 ");
}

// Verifies the deliberate answers: before any walk an entry request fails and any cookie ends the
// walk; after one, a key matching no row gets the last row's process; any leaf but
// udpEndpointProcess, and any unknown scalar, fails without a reply; a wrong key type aborts.
TEST_F(UdpProviderTest, FallThroughAndErrors)
{
    const std::string row = "e1 x7f000001 68 e1 x00000000 0 3005";
    EXPECT_EQ(get(endpoint(row)), "CONFD_ERR");
    EXPECT_EQ(next(endpoints(), 4), "end");

    EXPECT_EQ(walk(endpoints()).size(), 9u);
    EXPECT_EQ(get(endpoint(row)), "200");
    EXPECT_EQ(get(endpoint("e1 x7f000001 68 e1 x00000000 0 3004")), "100");
    EXPECT_EQ(get(endpoint("e1 x 68 e1 x00000000 0 3004")), "100");
    EXPECT_EQ(next(endpoints(), 9), "end");

    EXPECT_EQ(get(endpoint(row, UDP_MIB_udpEndpointLocalPort)), "CONFD_ERR");
    EXPECT_EQ(get(udp({UDP_MIB_udp, UDP_MIB_udpEndpointTable})), "CONFD_ERR");
    EXPECT_DEATH(get(endpoint("e1 x7f000001 68 e1 x00000000 0 i3005")),
                 "get_udp_endpoint_stats: Assertion `\\(v_pp\\)->type == C_UINT32' failed");
}

// Verifies the scalars and their types (HC counters equal to the 32-bit ones), the 3-second rule of
// both caches, and an empty table: entry requests fail, even with a key of the wrong type.
TEST_F(UdpProviderTest, ScalarsAndRefreshInterval)
{
    std::string answers;
    for (uint32_t leaf :
         {UDP_MIB_udpInDatagrams, UDP_MIB_udpNoPorts, UDP_MIB_udpInErrors, UDP_MIB_udpOutDatagrams,
          UDP_MIB_udpHCInDatagrams, UDP_MIB_udpHCOutDatagrams})
        answers += get(udp({UDP_MIB_udp, leaf})) + " ";
    EXPECT_EQ(answers, "1180427 287 0 1182633 u64:1180427 u64:1182633 ");

    EXPECT_EQ(walk(endpoints()).size(), 9u);
    fake_proc empty;
    now += 2;
    EXPECT_EQ(walk(endpoints()).size(), 9u);
    EXPECT_EQ(get(udp({UDP_MIB_udp, UDP_MIB_udpNoPorts})), "287");
    now += 1;
    EXPECT_EQ(walk(endpoints()).size(), 0u);
    EXPECT_EQ(get(endpoint("e1 x 1 e1 x 1 i1")), "CONFD_ERR");
    EXPECT_EQ(get(udp({UDP_MIB_udp, UDP_MIB_udpNoPorts})), "0");
}

} // namespace
