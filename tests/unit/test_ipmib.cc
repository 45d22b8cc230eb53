// Unit tests of the IP-MIB provider, driven through its registered callbacks on a fake /proc.
#include "mibs/ipmibimpl.h"
#include "provider_driver.h"

#include "IP-MIB.h"

#include <net/if.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace
{

const std::string noexists = "type" + std::to_string(C_NOEXISTS);

keypath ip(std::vector<uint32_t> tags, const std::string &keys = "")
{
    tags.insert(tags.begin(), IP_MIB_IP_MIB);
    return keypath(IP_MIB__ns, tags, keys);
}

class IpProviderTest : public provider_test
{
  protected:
    IpProviderTest() : provider_test(register_ip_mib_cbs, "ip_traf_system_stats") {}

    // Serves the callpoint's callbacks from now on.
    void use(const char *callpoint)
    {
        cbs_ = confd_inproc_data_cbs(dx_, callpoint);
        ASSERT_NE(cbs_, nullptr);
    }
    void write(const std::string &relative, const std::string &text)
    {
        std::string path = proc_.root() + "/" + relative;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path) << text;
    }
    // /proc/net/snmp, netstat and snmp6 with the given IPv4 InReceives.
    void write_system_counters(const std::string &in_receives)
    {
        write("net/snmp", "Ip: Forwarding DefaultTTL InReceives InHdrErrors InAddrErrors "
                          "ForwDatagrams InUnknownProtos InDiscards InDelivers OutRequests "
                          "OutDiscards OutNoRoutes ReasmTimeout ReasmReqds ReasmOKs ReasmFails "
                          "FragOKs FragFails FragCreates OutTransmits\n"
                          "Ip: 1 64 " +
                              in_receives +
                              " 1 2 100 3 4 5000 6000 7 8 30 9 10 11 12 13 14 6100\n"
                              "Icmp: InMsgs InErrors\nIcmp: 1 2\n");
        write("net/netstat", "TcpExt: SyncookiesSent\nTcpExt: 0\n"
                             "IpExt: InNoRoutes InTruncatedPkts InMcastPkts OutMcastPkts "
                             "InBcastPkts OutBcastPkts InOctets OutOctets\n"
                             "IpExt: 20 21 22 23 24 25 26 27\n");
        write("net/snmp6", "Ip6InReceives\t700\nIp6InNoRoutes\t2\nIp6OutForwDatagrams\t3\n"
                           "Ip6OutRequests\t50\nIp6FragOKs\t1\nIp6FragFails\t1\n"
                           "Ip6InMcastPkts\t9\nIcmp6InMsgs\t4\n");
    }
};

keypath system_row(const std::string &version, uint32_t leaf)
{
    return ip({IP_MIB_ipSystemStatsTable, IP_MIB_ipSystemStatsEntry, leaf}, version);
}

// Verifies the two ipSystemStatsTable rows: the fixed walk; counters from
// the "Ip:", "IpExt:" and snmp6 sources as Counter32 (32-bit values) and
// Counter64 (widened totals); the derived columns; the columns never
// filled; and the 3-second rule with a counter wrapping in between.
TEST_F(IpProviderTest, SystemStatsRows)
{
    write_system_counters("4294967290");
    keypath rows = ip({IP_MIB_ipSystemStatsTable, IP_MIB_ipSystemStatsEntry});
    EXPECT_EQ(next(rows, -1) + ", " + next(rows, 0) + ", " + next(rows, 1), "e1 -> 0, e2 -> 1, end");
    std::string v4;
    for (uint32_t leaf :
         {IP_MIB_ipSystemStatsIPVersion, IP_MIB_ipSystemStatsInReceives,
          IP_MIB_ipSystemStatsHCInReceives, IP_MIB_ipSystemStatsInHdrErrors,
          IP_MIB_ipSystemStatsInNoRoutes, IP_MIB_ipSystemStatsInForwDatagrams,
          IP_MIB_ipSystemStatsHCInForwDatagrams, IP_MIB_ipSystemStatsOutForwDatagrams,
          IP_MIB_ipSystemStatsOutFragReqds, IP_MIB_ipSystemStatsOutTransmits,
          IP_MIB_ipSystemStatsHCOutTransmits, IP_MIB_ipSystemStatsInMcastPkts,
          IP_MIB_ipSystemStatsHCOutBcastPkts, IP_MIB_ipSystemStatsHCInOctets,
          IP_MIB_ipSystemStatsRefreshRate})
        v4 += get(system_row("e1", leaf)) + " ";
    // OutTransmits = 100 + 6000 + 14 - 8 - 7 - (12 + 13).
    EXPECT_EQ(v4, "e1 4294967290 u64:4294967290 1 20 120 u64:120 100 25 6074 u64:6074 22 "
                  "u64:25 u64:0 0 ");
    std::string v6;
    for (uint32_t leaf : {IP_MIB_ipSystemStatsIPVersion, IP_MIB_ipSystemStatsHCInReceives,
                          IP_MIB_ipSystemStatsInForwDatagrams, IP_MIB_ipSystemStatsOutFragReqds,
                          IP_MIB_ipSystemStatsOutTransmits, IP_MIB_ipSystemStatsInBcastPkts,
                          IP_MIB_ipSystemStatsHCInMcastPkts})
        v6 += get(system_row("e2", leaf)) + " ";
    EXPECT_EQ(v6, "e2 u64:700 5 2 51 0 u64:9 ");
    EXPECT_EQ(get(system_row("e1", IP_MIB_ipIfStatsInReceives)), noexists);

    write_system_counters("5");
    now += 2;
    EXPECT_EQ(get(system_row("e1", IP_MIB_ipSystemStatsInReceives)), "4294967290");
    now += 1;
    EXPECT_EQ(get(system_row("e1", IP_MIB_ipSystemStatsInReceives)), "5");
    EXPECT_EQ(get(system_row("e1", IP_MIB_ipSystemStatsHCInReceives)), "u64:4294967301");
}

keypath if_row(const std::string &keys, uint32_t leaf)
{
    return ip({IP_MIB_ipIfStatsTable, IP_MIB_ipIfStatsEntry, leaf}, keys);
}

// Verifies ipIfStatsTable: one IPv6 row per interface file in (version,
// ifIndex) order, a file without "ifIndex" giving ifIndex 0, dot files
// ignored; the per-interface InForwDatagrams wrapping at 2^32; C_NOEXISTS
// before any walk and for a row not in it; a wrong key type aborts.
TEST_F(IpProviderTest, InterfaceStatsRows)
{
    use("ip_traf_if_stats");
    write("net/dev_snmp6/eth0", "ifIndex\t2\nIp6InReceives\t10\nIp6InNoRoutes\t10\n"
                                "Ip6OutForwDatagrams\t4294967290\n");
    write("net/dev_snmp6/lo", "ifIndex\t1\nIp6InReceives\t7\n");
    write("net/dev_snmp6/noindex", "Ip6InReceives\t3\n");
    write("net/dev_snmp6/.hidden", "ifIndex\t9\nIp6InReceives\t3\n");
    EXPECT_EQ(get(if_row("e2 i2", IP_MIB_ipIfStatsInReceives)), noexists);
    EXPECT_EQ(walk(ip({IP_MIB_ipIfStatsTable, IP_MIB_ipIfStatsEntry})),
              (std::vector<std::string>{"e2 i0", "e2 i1", "e2 i2"}));
    std::string eth0;
    for (uint32_t leaf : {IP_MIB_ipIfStatsIfIndex, IP_MIB_ipIfStatsInReceives,
                          IP_MIB_ipIfStatsHCInForwDatagrams, IP_MIB_ipIfStatsInForwDatagrams,
                          IP_MIB_ipIfStatsHCOutForwDatagrams, IP_MIB_ipIfStatsDiscontinuityTime})
        eth0 += get(if_row("e2 i2", leaf)) + " ";
    EXPECT_EQ(eth0, "i2 10 u64:4 4 u64:4294967290 0 ");
    EXPECT_EQ(get(if_row("e2 i0", IP_MIB_ipIfStatsInReceives)), "3");
    EXPECT_EQ(get(if_row("e1 i2", IP_MIB_ipIfStatsInReceives)), noexists);
    EXPECT_EQ(get(if_row("e2 i2", IP_MIB_ipSystemStatsInReceives)), noexists);
    EXPECT_DEATH(get(if_row("e2 2", IP_MIB_ipIfStatsInReceives)),
                 "Assertion `\\(&kp->v\\[1\\]\\[1\\]\\)->type == C_INT32' failed");
}

keypath advert_row(int if_index, uint32_t leaf)
{
    return ip({IP_MIB_ipv6RouterAdvertTable, IP_MIB_ipv6RouterAdvertEntry, leaf},
              "i" + std::to_string(if_index));
}

// Verifies ipv6RouterAdvertTable on this host's interface list with a fake
// /proc/sys/net/ipv6: the loopback row (it has 127.0.0.1), send adverts
// false while forwarding is off globally and true once both switches are on,
// a retransmit time of 1000 from the older seconds file, the fixed columns.
TEST_F(IpProviderTest, RouterAdvertRows)
{
    use("ipv6_router_status");
    int lo = static_cast<int>(if_nametoindex("lo"));
    if (lo == 0) GTEST_SKIP() << "no loopback interface";
    write("sys/net/ipv6/conf/all/forwarding", "0\n");
    write("sys/net/ipv6/conf/lo/forwarding", "1\n");
    write("sys/net/ipv6/conf/lo/mtu", "65536\n");
    write("sys/net/ipv6/conf/lo/hop_limit", "64\n");
    write("sys/net/ipv6/neigh/lo/retrans_time", "1\n");
    write("sys/net/ipv6/neigh/lo/base_reachable_time_ms", "30000\n");
    std::vector<std::string> rows =
        walk(ip({IP_MIB_ipv6RouterAdvertTable, IP_MIB_ipv6RouterAdvertEntry}));
    ASSERT_NE(std::find(rows.begin(), rows.end(), "i" + std::to_string(lo)), rows.end());
    std::string answers;
    for (uint32_t leaf :
         {IP_MIB_ipv6RouterAdvertIfIndex, IP_MIB_ipv6RouterAdvertSendAdverts,
          IP_MIB_ipv6RouterAdvertMaxInterval, IP_MIB_ipv6RouterAdvertMinInterval,
          IP_MIB_ipv6RouterAdvertManagedFlag, IP_MIB_ipv6RouterAdvertOtherConfigFlag,
          IP_MIB_ipv6RouterAdvertLinkMTU, IP_MIB_ipv6RouterAdvertReachableTime,
          IP_MIB_ipv6RouterAdvertRetransmitTime, IP_MIB_ipv6RouterAdvertCurHopLimit,
          IP_MIB_ipv6RouterAdvertDefaultLifetime, IP_MIB_ipv6RouterAdvertRowStatus})
        answers += get(advert_row(lo, leaf)) + " ";
    EXPECT_EQ(answers, "i" + std::to_string(lo) + " e2 600 200 e2 e2 65536 30000 1000 64 0 " +
                           noexists + " ");
    write("sys/net/ipv6/conf/all/forwarding", "1\n");
    now += 3;
    walk(ip({IP_MIB_ipv6RouterAdvertTable, IP_MIB_ipv6RouterAdvertEntry}));
    EXPECT_EQ(get(advert_row(lo, IP_MIB_ipv6RouterAdvertSendAdverts)), "e1");
}

keypath address_row(const std::string &keys, uint32_t leaf)
{
    return ip({IP_MIB_ipAddressTable, IP_MIB_ipAddressEntry, leaf}, keys);
}

// Verifies the IPv6 rows of ipAddressTable from a fake /proc/net/if_inet6:
// the loopback address with the kernel's index for "lo", a device the
// kernel does not know with the line's own index; the rows after the IPv4
// ones; C_NOEXISTS for an address not in the walk; a wrong key type aborts.
TEST_F(IpProviderTest, AddressRowsFromInet6)
{
    use("ip_address_status");
    int lo = static_cast<int>(if_nametoindex("lo"));
    if (lo == 0) GTEST_SKIP() << "no loopback interface";
    const std::string one = "x" + std::string(30, '0') + "01";
    const std::string doc = "x20010db8" + std::string(22, '0') + "07";
    write("net/if_inet6", "00000000000000000000000000000001 01 80 10 80       lo\n"
                          "20010db8000000000000000000000007 2a 40 00 00   nosuchdev\n");
    EXPECT_EQ(get(address_row("e2 " + one, IP_MIB_ipAddressIfIndex)), noexists);
    std::vector<std::string> rows = walk(ip({IP_MIB_ipAddressTable, IP_MIB_ipAddressEntry}));
    ASSERT_GE(rows.size(), 2u);
    EXPECT_EQ(rows[rows.size() - 2], "e2 " + one);
    EXPECT_EQ(rows.back(), "e2 " + doc);
    EXPECT_EQ(get(address_row("e2 " + one, IP_MIB_ipAddressIfIndex)), "i" + std::to_string(lo));
    EXPECT_EQ(get(address_row("e2 " + doc, IP_MIB_ipAddressIfIndex)), "i42");
    EXPECT_EQ(get(address_row("e2 " + doc, IP_MIB_ipAddressOrigin)), "e5");
    EXPECT_EQ(get(address_row("e2 " + doc, IP_MIB_ipAddressCreated)), "0");
    EXPECT_EQ(get(address_row("e2 " + doc, IP_MIB_ipAddressRowStatus)), noexists);
    EXPECT_EQ(get(address_row("e2 x20010db8", IP_MIB_ipAddressIfIndex)), noexists);
    EXPECT_DEATH(get(address_row("e2 7", IP_MIB_ipAddressIfIndex)),
                 "Assertion `\\(v_pp\\)->type == C_BINARY' failed");
}

} // namespace
