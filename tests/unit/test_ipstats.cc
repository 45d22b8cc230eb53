// Unit tests of the IP collector's toolkit and its address rows, on fixture text.
#include "fake_proc.h"
#include "ipkit.h"
#include "ipstats.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace
{

// The pairs a reader appends, "name=value" in file order; "fail" when it returns -1.
std::string pairs_of(const std::string &text, const char *section, bool stat_pairs = false)
{
    auto in = text_stream(text);
    item_list out;
    item_list_init(&out, sizeof(stat_pair), 4);
    int rc = stat_pairs ? read_stat_pairs_from(in.get(), &out)
                        : read_stat_section_from(in.get(), &out, section);
    std::string result = rc == 0 ? "" : "fail";
    for (uint32_t i = 0; rc == 0 && i < out.count; i++) {
        const auto *p = static_cast<const stat_pair *>(item_list_get(&out, i));
        result += (i ? " " : "") + std::string(p->name) + "=" + std::to_string(p->value);
    }
    item_list_free(&out);
    return result;
}

const char snmp_text[] = "Ip: Forwarding DefaultTTL InReceives InHdrErrors\n"
                         "Ip: 1 64 4035512 7\n"
                         "Icmp: InMsgs InErrors\n"
                         "Icmp: 312 4\n"
                         "IcmpMsg: InType3 OutType3\n"
                         "IcmpMsg: 5 7\n";
const char netstat_text[] = "TcpExt: SyncookiesSent PruneCalled\n"
                            "TcpExt: 0 12\n"
                            "IpExt: InNoRoutes InTruncatedPkts InMcastPkts\n"
                            "IpExt: 3 0 18446744073709551615\n";

// Verifies the section reader: a section found by substring ("Ip:" skips "IcmpMsg:"), 64-bit values
// whole, missing, short or headless sections failing; a two-line file read without a name; and the
// name/value reader on /proc/net/snmp6 text: names with digits, blank and valueless lines skipped,
// an empty file a failure.
TEST(IpKit, ReadStatSectionAndPairs)
{
    EXPECT_EQ(pairs_of(snmp_text, "Ip:"),
              "Forwarding=1 DefaultTTL=64 InReceives=4035512 InHdrErrors=7");
    EXPECT_EQ(pairs_of(snmp_text, "IcmpMsg:"), "InType3=5 OutType3=7");
    EXPECT_EQ(pairs_of(netstat_text, "IpExt:"),
              "InNoRoutes=3 InTruncatedPkts=0 InMcastPkts=18446744073709551615");
    EXPECT_EQ(pairs_of(snmp_text, "Udp:"), "fail");
    EXPECT_EQ(pairs_of("Ip: A B\nTcp: 1 2\n", "Ip:"), "fail");
    EXPECT_EQ(pairs_of("Ip: A B C\nIp: 1 2\n", "Ip:"), "fail");
    EXPECT_EQ(pairs_of("Alpha Beta\n10 20\n", nullptr), "Alpha=10 Beta=20");
    EXPECT_EQ(pairs_of(snmp_text, nullptr), "fail");

    EXPECT_EQ(pairs_of("Ip6InReceives                   \t1\n"
                       "\n"
                       "Icmp6InType133                  \t4294967296\n"
                       "ifIndex 2\n"
                       "Broken\n",
                       nullptr, true),
              "Ip6InReceives=1 Icmp6InType133=4294967296 ifIndex=2");
    EXPECT_EQ(pairs_of("\n  \n", nullptr, true), "fail");
}

// Verifies that counter widening takes only the low 32 bits of a raw value (a wrap between two
// refreshes is the IP-MIB provider's system statistics test).
TEST(IpKit, WidenCounterCutsRawValuesTo32Bits)
{
    uint32_t last = 0;
    uint64_t total = 0;
    widen_counter((uint64_t(1) << 32) + 7, &last, &total);
    EXPECT_EQ(total, 7u);
}

std::string hex(const ip_addr_value &a)
{
    return hex_text(a.bytes, a.length);
}

// Verifies prefix masks on an all-ones IPv6 and IPv4 address at byte boundaries and one bit either
// side of the first.
TEST(IpKit, MaskPrefix)
{
    const std::map<int, std::string> v6 = {
        {0, std::string(32, '0')},
        {1, "80" + std::string(30, '0')},
        {7, "fe" + std::string(30, '0')},
        {8, "ff" + std::string(30, '0')},
        {9, "ff80" + std::string(28, '0')},
        {32, "ffffffff" + std::string(24, '0')},
        {64, std::string(16, 'f') + std::string(16, '0')},
        {128, std::string(32, 'f')},
        {INT_MIN, std::string(32, '0')}, // from a corrupt length: no overflow (fuzz finding)
        {INT_MAX, std::string(32, 'f')},
    };
    for (const auto &c : v6) {
        ip_addr_value a;
        memset(a.bytes, 0xff, sizeof a.bytes);
        a.length = 16;
        EXPECT_EQ(mask_prefix(&a, c.first), 0);
        EXPECT_EQ(hex(a), c.second) << c.first;
    }
    ip_addr_value v4 = {{192, 168, 1, 77}, 4};
    mask_prefix(&v4, 24);
    EXPECT_EQ(hex(v4), "c0a80100");
    mask_prefix(&v4, 128);
    EXPECT_EQ(hex(v4), "c0a80100");
    EXPECT_EQ(mask_prefix(nullptr, 8), -1);
}

// Verifies the index orders: an address's length before its bytes whatever the type says, and a
// signed ifIndex.
TEST(IpKit, IndexOrders)
{
    ip_address_entry a{}, b{};
    a.addr_type = b.addr_type = 2;
    a.addr = {{0xff, 0xff, 0xff, 0xff}, 4};
    b.addr = {{0}, 16};
    EXPECT_LT(ip_address_compare(&a, &b), 0);
    a.addr = b.addr;
    b.addr.bytes[15] = 1;
    EXPECT_LT(ip_address_compare(&a, &b), 0);
    EXPECT_GT(ip_address_compare(&b, &a), 0);
    a.addr_type = 1;
    EXPECT_LT(ip_address_compare(&a, &b), 0);

    ip_system_stats_entry x{}, y{};
    x.version = y.version = 2;
    x.if_index = -1;
    y.if_index = 1;
    EXPECT_LT(ip_if_stats_compare(&x, &y), 0);
    x.version = 1;
    x.if_index = 5;
    EXPECT_LT(ip_if_stats_compare(&x, &y), 0);
}

// Verifies IPv6 rows from if_inet6 lines where the end-to-end addresses do not go (temporary,
// tentative and no-DAD flags); a line short of fields is refused.
TEST(IpKit, AddressRowsFromInet6Lines)
{
    struct {
        const char *line;
        const char *want; // status origin storage
    } cases[] = {
        {"20010db8000000000000000000000001 04 40 00 01     eth0", "1 6 2"},
        {"20010db8000000000000000000000003 04 40 00 40     eth0", "6 2 2"},
        {"fe800000000000000000000000000003 04 40 20 40     eth0", "6 5 4"},
        {"20010db8000000000000000000000005 04 40 00 02     eth0", "5 2 2"},
    };
    for (const auto &c : cases) {
        if_inet6_line line;
        ASSERT_TRUE(parse_if_inet6_line(c.line, &line)) << c.line;
        ip_address_entry row{};
        row.if_index = 4;
        ip6_address_from_line(line, &row);
        EXPECT_EQ(std::to_string(row.status) + " " + std::to_string(row.origin) + " " +
                      std::to_string(row.storage),
                  c.want)
            << c.line;
        EXPECT_EQ(row.addr_type, 2);
        EXPECT_EQ(row.addr.length, 16u);
    }
    if_inet6_line line;
    EXPECT_FALSE(parse_if_inet6_line("20010db8000000000000000000000001 04 40", &line));
}

} // namespace
