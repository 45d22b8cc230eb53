// Unit tests of the IP-MIB provider, driven through its registered callbacks on a fake /proc.
#include "mibs/ipmibimpl.h"
#include "provider_driver.h"

#include "IP-MIB.h"

#include <filesystem>
#include <string>
#include <vector>

namespace
{

const std::string noexists = "noexists";

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
    // /proc/net/snmp, netstat and snmp6 with the given IPv4 InReceives.
    void write_system_counters(const std::string &in_receives)
    {
        proc_.write("net/snmp",
                    "Ip: Forwarding DefaultTTL InReceives InHdrErrors InAddrErrors "
                    "ForwDatagrams InUnknownProtos InDiscards InDelivers OutRequests "
                    "OutDiscards OutNoRoutes ReasmTimeout ReasmReqds ReasmOKs ReasmFails "
                    "FragOKs FragFails FragCreates OutTransmits\n"
                    "Ip: 1 64 " +
                        in_receives +
                        " 1 2 100 3 4 5000 6000 7 8 30 9 10 11 12 13 14 6100\n"
                        "Icmp: InMsgs InErrors\nIcmp: 1 2\n");
        proc_.write("net/netstat", "TcpExt: SyncookiesSent\nTcpExt: 0\n"
                                   "IpExt: InNoRoutes InTruncatedPkts InMcastPkts OutMcastPkts "
                                   "InBcastPkts OutBcastPkts InOctets OutOctets\n"
                                   "IpExt: 20 21 22 23 24 25 26 27\n");
        proc_.write("net/snmp6", "Ip6InReceives\t700\nIp6InNoRoutes\t2\nIp6OutForwDatagrams\t3\n"
                                 "Ip6OutRequests\t50\nIp6FragOKs\t1\nIp6FragFails\t1\n"
                                 "Ip6InMcastPkts\t9\nIcmp6InMsgs\t4\n");
    }
};

keypath system_row(const std::string &version, uint32_t leaf)
{
    return ip({IP_MIB_ipSystemStatsTable, IP_MIB_ipSystemStatsEntry, leaf}, version);
}

// Verifies the two ipSystemStatsTable rows: Counter32 and widened Counter64 values, derived and
// never filled columns, and the 3-second rule with a counter wrapping in between.
TEST_F(IpProviderTest, SystemStatsRows)
{
    write_system_counters("4294967290");
    keypath rows = ip({IP_MIB_ipSystemStatsTable, IP_MIB_ipSystemStatsEntry});
    EXPECT_EQ(next(rows, -1) + ", " + next(rows, 0) + ", " + next(rows, 1),
              "e1 -> 0, e2 -> 1, end");
    std::string v4;
    for (uint32_t leaf : {IP_MIB_ipSystemStatsIPVersion, IP_MIB_ipSystemStatsInReceives,
                          IP_MIB_ipSystemStatsHCInReceives, IP_MIB_ipSystemStatsInHdrErrors,
                          IP_MIB_ipSystemStatsInNoRoutes, IP_MIB_ipSystemStatsInForwDatagrams,
                          IP_MIB_ipSystemStatsHCInForwDatagrams,
                          IP_MIB_ipSystemStatsOutForwDatagrams, IP_MIB_ipSystemStatsOutFragReqds,
                          IP_MIB_ipSystemStatsOutTransmits, IP_MIB_ipSystemStatsHCOutTransmits,
                          IP_MIB_ipSystemStatsInMcastPkts, IP_MIB_ipSystemStatsHCOutBcastPkts,
                          IP_MIB_ipSystemStatsHCInOctets, IP_MIB_ipSystemStatsRefreshRate})
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

// Verifies ipIfStatsTable: one IPv6 row per interface file in index order, dot files ignored, a
// per-interface wrap at 2^32, C_NOEXISTS outside the walk, the abort on a wrong key type.
TEST_F(IpProviderTest, InterfaceStatsRows)
{
    use("ip_traf_if_stats");
    proc_.write("net/dev_snmp6/eth0", "ifIndex\t2\nIp6InReceives\t10\nIp6InNoRoutes\t10\n"
                                      "Ip6OutForwDatagrams\t4294967290\n");
    proc_.write("net/dev_snmp6/lo", "ifIndex\t1\nIp6InReceives\t7\n");
    proc_.write("net/dev_snmp6/noindex", "Ip6InReceives\t3\n");
    proc_.write("net/dev_snmp6/.hidden", "ifIndex\t9\nIp6InReceives\t3\n");
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

keypath scalar(uint32_t leaf)
{
    return ip({IP_MIB_ip, leaf});
}

// Verifies the ip group scalars ("%i" reading, forwarding 1 or notForwarding); a file with no
// number warns and keeps the last value; a missing file ends the daemon naming it.
TEST_F(IpProviderTest, Scalars)
{
    use("ip_status");
    EXPECT_EQ(get(scalar(IP_MIB_ipAddressPrefixOrigin)), noexists); // no file exists yet
    const std::pair<const char *, const char *> files[] = {
        {"sys/net/ipv4/ip_forward", "2\n"},
        {"sys/net/ipv4/ip_default_ttl", "010\n"},
        {"sys/net/ipv4/ipfrag_time", "30\n"},
        {"sys/net/ipv6/conf/all/forwarding", "1\n"},
        {"sys/net/ipv6/conf/default/hop_limit", "0x40\n"},
    };
    for (const auto &f : files)
        proc_.write(f.first, f.second);
    std::string values;
    for (uint32_t leaf : {IP_MIB_ipForwarding, IP_MIB_ipDefaultTTL, IP_MIB_ipReasmTimeout,
                          IP_MIB_ipv6IpForwarding, IP_MIB_ipv6IpDefaultHopLimit,
                          IP_MIB_ipv4InterfaceTableLastChange, IP_MIB_ipv6InterfaceTableLastChange})
        values += get(scalar(leaf)) + " ";
    EXPECT_EQ(values, "e2 i8 i30 e1 i64 0 0 ");

    proc_.write("sys/net/ipv4/ip_default_ttl", "none\n");
    proc_.write("sys/net/ipv4/ip_forward", "1\n");
    now += 3;
    testing::internal::CaptureStderr();
    EXPECT_EQ(get(scalar(IP_MIB_ipForwarding)), "e1");
    EXPECT_EQ(get(scalar(IP_MIB_ipDefaultTTL)), "i8");
    EXPECT_NE(testing::internal::GetCapturedStderr().find(": Failed to match number.: "),
              std::string::npos);

    std::filesystem::remove(proc_.root() + "/sys/net/ipv4/ipfrag_time");
    now += 3;
    EXPECT_EXIT(get(scalar(IP_MIB_ipDefaultTTL)), testing::ExitedWithCode(1),
                "Could not open .*/sys/net/ipv4/ipfrag_time: No such file or directory");
}

// Verifies ipv6ScopeZoneIndexTable: one row per interface with a link-local address in ifIndex
// order, a short line skipped; zones beyond the link-local and site-local ones (compared with the
// kernel end to end) are 0; the key itself is not served.
TEST_F(IpProviderTest, ScopeZones)
{
    use("ip6_scope_zone_idx");
    proc_.write("net/if_inet6", "fe800000000000000000000000000003 03 40 20 80     eth1\n"
                                "00000000000000000000000000000001 01 80 10 80       lo\n"
                                "fe80000000000000000000000000000a 03 40 20 80     eth1\n"
                                "20010db8000000000000000000000001 04 40 00 80     eth2\n"
                                "fe800000000000000000000000000002 02 40 20 80     eth0\n"
                                "fe800000000000000000000000000009 09 40\n");
    keypath rows = ip({IP_MIB_ipv6ScopeZoneIndexTable, IP_MIB_ipv6ScopeZoneIndexEntry});
    EXPECT_EQ(walk(rows), (std::vector<std::string>{"i2", "i3"}));
    auto zone = [](uint32_t leaf) {
        return ip({IP_MIB_ipv6ScopeZoneIndexTable, IP_MIB_ipv6ScopeZoneIndexEntry, leaf}, "i3");
    };
    EXPECT_EQ(get(zone(IP_MIB_ipv6ScopeZoneIndexD)), "0");
    EXPECT_EQ(get(zone(IP_MIB_ipv6ScopeZoneIndexIfIndex)), "noexists");
}

// Verifies the ICMP tables where the kernel's counters end to end do not go: a counter cut to 32
// bits, message types by version then type, 0 for an unused direction; without snmp6 and an
// "IcmpMsg:" section only the IPv4 statistics row is left.
TEST_F(IpProviderTest, IcmpTables)
{
    proc_.write("net/snmp", "Icmp: InMsgs InErrors InCsumErrors OutMsgs OutErrors\n"
                            "Icmp: 12 1 0 4294967301 2\n"
                            "IcmpMsg: InType3 InType8 OutType0 OutType3\n"
                            "IcmpMsg: 5 4 4 7\n");
    proc_.write("net/snmp6", "Icmp6InMsgs\t9\nIcmp6InErrors\t0\nIcmp6OutMsgs\t3\n"
                             "Icmp6InType133\t6\nIcmp6OutType135\t3\nIcmp6OutType133\t0\n");
    use("icmp_stat_status");
    keypath stats = ip({IP_MIB_icmpStatsTable, IP_MIB_icmpStatsEntry});
    EXPECT_EQ(walk(stats), (std::vector<std::string>{"e1", "e2"}));
    EXPECT_EQ(
        get(ip({IP_MIB_icmpStatsTable, IP_MIB_icmpStatsEntry, IP_MIB_icmpStatsOutMsgs}, "e1")),
        "5");

    use("icmp_msg_status");
    keypath msgs = ip({IP_MIB_icmpMsgStatsTable, IP_MIB_icmpMsgStatsEntry});
    EXPECT_EQ(walk(msgs),
              (std::vector<std::string>{"e1 i0", "e1 i3", "e1 i8", "e2 i133", "e2 i135"}));
    std::string values;
    for (const char *row : {"e1 i0", "e1 i3", "e1 i8", "e2 i133", "e2 i135"})
        for (uint32_t leaf : {IP_MIB_icmpMsgStatsInPkts, IP_MIB_icmpMsgStatsOutPkts})
            values +=
                get(ip({IP_MIB_icmpMsgStatsTable, IP_MIB_icmpMsgStatsEntry, leaf}, row)) + " ";
    EXPECT_EQ(values, "0 4 5 7 4 0 6 0 0 3 ");
    EXPECT_EQ(get(ip({IP_MIB_icmpMsgStatsTable, IP_MIB_icmpMsgStatsEntry, IP_MIB_icmpMsgStatsType},
                     "e2 i133")),
              "i133");

    proc_.write("net/snmp", "Icmp: InMsgs InErrors OutMsgs OutErrors\nIcmp: 1 0 1 0\n");
    std::filesystem::remove(proc_.root() + "/net/snmp6");
    now += 3;
    EXPECT_EQ(walk(msgs), std::vector<std::string>{});
    use("icmp_stat_status");
    EXPECT_EQ(walk(stats), std::vector<std::string>{"e1"});
}

} // namespace
