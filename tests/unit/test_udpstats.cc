// Unit tests of the UDP collector on fixture copies of /proc/net/udp, udp6 and snmp.
#include "fake_proc.h"
#include "udpstats.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace
{

class UdpEndpointsTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        if (__BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__)
            GTEST_SKIP() << "fixture text is that of a little-endian kernel";
        udp_endpoints_init(&list);
    }
    void TearDown() override { stats_list_free(&list); }

    int32_t read(const std::string &text, int32_t position, int32_t type)
    {
        return udp_read_endpoints(text_stream(text).get(), &list, position, type);
    }
    int32_t read_fixture(const char *name, int32_t position, int32_t type)
    {
        std::ifstream f(std::string(LEISOBEK_FIXTURES) + "/proc/net/" + name);
        return read(std::string(std::istreambuf_iterator<char>(f), {}), position, type);
    }
    // Each row as "type address:port type address:port iINODE pPROCESS".
    std::vector<std::string> rows() const
    {
        std::vector<std::string> out;
        for (int32_t p = 0; p < list.count; p++) {
            const auto &e = *static_cast<udp_endpoint_entry *>(stats_list_record(&list, p));
            out.push_back(std::to_string(e.local_type) + " " +
                          hex_text(e.local_addr, e.local_addr_len) + ":" +
                          std::to_string(e.local_port) + " " + std::to_string(e.rem_type) + " " +
                          hex_text(e.rem_addr, e.rem_addr_len) + ":" + std::to_string(e.rem_port) +
                          " i" + std::to_string(e.inode) + " p" + std::to_string(e.process));
        }
        return out;
    }
    stats_list list = {};
};

// Verifies that every line after the header takes one position, and that reused storage is not
// cleared: lines that are no socket rows keep what an earlier refresh left (the fixture's rows
// themselves are checked through the provider's walk).
TEST_F(UdpEndpointsTest, ReadsRowsInFileOrder)
{
    EXPECT_EQ(read_fixture("udp", 0, 1), 6);
    EXPECT_EQ(read_fixture("udp6", 6, 2), 9);
    list.count = 0;
    EXPECT_EQ(read("h\n  0: short\n  1: 0100007F 00000000:0000 07 0:0 0:0 0 0 0 77\n", 0, 1), 2);
    EXPECT_EQ(rows(), (std::vector<std::string>{"1 00000000:53 1 00000000:0 i3001 p0",
                                                "1 7f000001:5353 1 00000000:0 i77 p0"}));
}

// The row the general reading makes of one line: sscanf with the table format, then both address
// texts through parse_addr_port.
udp_endpoint_entry reference_row(const std::string &line, int32_t type)
{
    udp_endpoint_entry row = {};
    char local[256], remote[256];
    unsigned inode;
    if (sscanf(line.c_str(), "%*d: %255s %255s %*x %*x:%*x %*x:%*x %*x %*u %*u %u", local, remote,
               &inode) == 3) {
        row.inode = inode;
        row.local_type = row.rem_type = type;
        parse_addr_port(row.local_addr, &row.local_addr_len, &row.local_port, local, type);
        parse_addr_port(row.rem_addr, &row.rem_addr_len, &row.rem_port, remote, type);
    }
    return row;
}

// Verifies that the fast reading of socket lines converts what sscanf with the table format does
// and makes the rows of the general reading, on kernel lines and many damaged copies of them.
TEST(UdpEndpointLine, ReadsAsSscanfDoes)
{
    const std::vector<std::string> lines = {
        " 2013: 00000000:0035 00000000:0000 07 00000000:00000000 00:00000000 00000000     0     "
        "   0 340993 2 00000000bf24a783 0        \n",
        " 8235: 00000000000000000000000001000000:D883 00000000000000000000000001000000:0035 01 "
        "000001A4:00000000 00:00000000 00000000  1000        0 4294967295 2 00000000c95915da 0\n",
        "1: a b 0 0:0 0:0 0 0 0 4294967296\n",
        "1: " + std::string(300, 'a') + " b 0 0:0 0:0 0 0 0 5\n",
    };
    const std::string alphabet = " \t:-+xX0123456789aAfFgG";
    std::mt19937 random(6);
    for (int i = 0; i < 20000; i++) {
        std::string line = lines[random() % lines.size()];
        for (int edits = 1 + random() % 3; edits > 0; edits--) {
            size_t at = random() % line.size();
            if (random() % 3 == 0)
                line.erase(at, 1 + random() % 4);
            else
                line.insert(at, 1, alphabet[random() % alphabet.size()]);
        }
        char local[256] = "", remote[256] = "", want_local[256] = "", want_remote[256] = "";
        unsigned inode = 0, want_inode = 0;
        int got = udp_scan_endpoint_line(line.c_str(), local, remote, &inode);
        ASSERT_EQ(got, sscanf(line.c_str(), "%*d: %255s %255s %*x %*x:%*x %*x:%*x %*x %*u %*u %u",
                              want_local, want_remote, &want_inode))
            << line;
        if (got == 3) {
            ASSERT_EQ(std::string(local) + " " + remote + " " + std::to_string(inode),
                      std::string(want_local) + " " + want_remote + " " +
                          std::to_string(want_inode));
        }
        for (int32_t type : {1, 2}) {
            stats_list list = {};
            udp_endpoints_init(&list);
            udp_read_endpoints(text_stream("header\n" + line).get(), &list, 0, type);
            udp_endpoint_entry want = reference_row(line, type);
            ASSERT_EQ(memcmp(stats_list_record(&list, 0), &want, sizeof want), 0) << line;
            stats_list_free(&list);
        }
    }
}

// Verifies the address readers where the kernel's texts do not go: swapped words, short texts read
// as sscanf reads them, what a text without ":" or a port that is no number leaves untouched.
TEST(UdpAddressText, ParsesWordsAndPorts)
{
    uint8_t addr[16];
    uint32_t length = 0, port = 7;
    parse_hex_addr(addr, &length, "0000000000000000FFFF00000100007F", 2, 1);
    EXPECT_EQ(hex_text(addr, length), "0000000000000000ffff00000100007f");
    parse_hex_addr(addr, &length, "0x7f", 1, 0);
    EXPECT_EQ(hex_text(addr, length), "7f000000");
    parse_hex_addr(addr, &length, "0100007F", 2, 0);
    EXPECT_EQ(hex_text(addr, length), "7f000001" + std::string(24, '0'));
    length = 99;
    parse_addr_port(addr, &length, &port, "0100007F", 1);
    EXPECT_EQ(length, 99u);
    parse_addr_port(addr, &length, &port, "0100007F:zz", 1);
    EXPECT_EQ(hex_text(addr, length) + " " + std::to_string(port), "7f000001 7");
}

// Verifies duplicate removal as the router does it (a socket listed twice is merged only when its
// copies sort to the first two positions), and the comparator's order over many ties.
TEST_F(UdpEndpointsTest, MergesDuplicatesOnlyAtTheTop)
{
    fake_proc proc;
    std::filesystem::create_directory(proc.root() + "/net");
    auto refresh = [&](const std::vector<std::pair<int, int>> &ports_inodes) {
        std::ofstream out(proc.root() + "/net/udp");
        out << "header\n";
        for (const auto &pi : ports_inodes)
            out << "1: 0100007F" << (pi.first < 0 ? "" : ":" + std::to_string(pi.first))
                << " 00000000:0 07 0:0 0:0 0 0 0 " << pi.second << "\n";
        out.close();
        update_udp_endpoints(&list);
        std::string ports;
        for (const std::string &r : rows())
            ports += r.substr(11, r.find(' ', 11) - 11) + "/" + r.substr(r.rfind('i')) + " ";
        return ports;
    };
    EXPECT_EQ(refresh({{2, 5}, {1, 5}, {1, 5}, {3, 6}}), "1/i5 p0 2/i5 p0 3/i6 p0 ");
    EXPECT_EQ(refresh({{2, 5}, {1, 4}, {2, 5}, {3, 6}}), "1/i4 p0 2/i5 p0 2/i5 p0 3/i6 p0 ");

    std::mt19937 random(4);
    std::vector<std::pair<int, int>> many;
    for (int i = 0; i < 3000; i++)
        many.emplace_back(random() % 40, random() % 50);
    many.emplace_back(-1, 0); // no port: sorts first, so nothing is merged
    refresh(many);
    EXPECT_EQ(list.count, 3001);
    for (int32_t p = 1; p < list.count; p++)
        ASSERT_LE(
            udp_endpoint_compare(stats_list_record(&list, p - 1), stats_list_record(&list, p)), 0);
}

// Verifies that each 64-bit udp total equals its 32-bit counter on every refresh, even one that
// went down (no widening across refreshes), and that all are zero with -1 when the Udp section is
// missing (a missing file is the provider's scalar test).
TEST(UdpGlobalStats, TotalsEqualTheCountersAndMissingSectionClears)
{
    fake_proc proc;
    udp_global_stats stats, zero = {};
    const std::string section = "Udp: InDatagrams NoPorts InErrors OutDatagrams\nUdp: ";
    for (const char *values : {"9 1 2 9", "5 1 2 6"}) {
        proc.write("net/snmp", section + values + "\n");
        EXPECT_EQ(update_udp_stats(&stats), 0);
    }
    EXPECT_EQ(stats.HCInDatagrams, 5u);
    EXPECT_EQ(stats.HCOutDatagrams, 6u);
    proc.write("net/snmp", "Ip: Forwarding\nIp: 1\nUdpLite: a\nUdpLite: 5\n");
    EXPECT_EQ(update_udp_stats(&stats), -1);
    EXPECT_EQ(memcmp(&stats, &zero, sizeof stats), 0);
}

} // namespace
