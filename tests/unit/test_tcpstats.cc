// Unit tests of the TCP collector on fixture copies of /proc/net/tcp, tcp6 and snmp.
#include "fake_proc.h"
#include "tcpstats.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace
{

class TcpTablesTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        if (__BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__)
            GTEST_SKIP() << "fixture text is that of a little-endian kernel";
        tcp_tables_init(&tables);
    }
    void TearDown() override
    {
        stats_list_free(&tables.conns);
        stats_list_free(&tables.listeners);
    }
    tcp_tables tables;
};

// Verifies the tcp6 reader's kept quirk: hex letters in a queue field shift the inode (000001A4
// reads as two fields), and the row is typed IPv6 whatever the scanner saw.
TEST_F(TcpTablesTest, HexLettersInTheQueueShiftTheInode)
{
    std::string odd = "header\n 0: 0100007F:0016 0100007F:D431 01 000001A4:0 0:0 0 0 0 77 1\n";
    tcp_read_table(text_stream(odd).get(), &tables, 1);
    ASSERT_EQ(tables.conns.count, 1);
    const auto &e = *static_cast<tcp_conn_entry *>(stats_list_record(&tables.conns, 0));
    EXPECT_EQ(std::to_string(e.local_type) + " " + hex_text(e.local_addr, e.local_addr_len) + " " +
                  std::to_string(e.rem_type) + " " + std::to_string(e.inode),
              "2 7f000001 2 0");
}

// Verifies that the key-based sort of the refresh puts every row where the comparator sort does,
// over mixed types, address lengths and many ties, and when an address too long for a key forces
// the comparator sort.
TEST_F(TcpTablesTest, KeyedSortMatchesTheComparators)
{
    std::mt19937 random(11);
    auto pick = [&random](uint32_t n) { return static_cast<uint32_t>(random() % n); };
    auto fill = [&](uint8_t *addr, uint32_t *len) {
        *len = pick(3) * 6 % 18; // 0, 6 or 16 bytes
        for (uint32_t i = 0; i < *len; i++)
            addr[i] = static_cast<uint8_t>(pick(2) ? 0 : 0xfe + pick(2));
    };
    for (uint32_t long_addr : {0u, 20u}) {
        tcp_tables reference;
        tcp_tables_init(&reference);
        for (int i = 0; i < 3000; i++) {
            tcp_conn_entry c = {};
            c.local_type = static_cast<int32_t>(pick(4)) - 1;
            fill(c.local_addr, &c.local_addr_len);
            c.local_port = pick(3) * 40000;
            c.rem_type = static_cast<int32_t>(pick(3));
            fill(c.rem_addr, &c.rem_addr_len);
            c.rem_port = pick(2) ? 0 : 0xFFFFFFFFu - pick(2);
            if (i == 7 && long_addr) c.local_addr_len = long_addr;
            tcp_listener_entry l = {c.local_type, {}, c.local_addr_len, c.local_port, 0, 0};
            memcpy(l.addr, c.local_addr, sizeof l.addr);
            for (tcp_tables *t : {&tables, &reference}) {
                memcpy(stats_list_at(&t->conns, t->conns.count), &c, sizeof c);
                memcpy(stats_list_at(&t->listeners, t->listeners.count), &l, sizeof l);
            }
        }
        tcp_tables_sort(&tables);
        stats_list_sort(&reference.conns);
        stats_list_sort(&reference.listeners);
        EXPECT_TRUE(
            std::equal(tables.conns.order, tables.conns.order + 3000, reference.conns.order));
        EXPECT_TRUE(std::equal(tables.listeners.order, tables.listeners.order + 3000,
                               reference.listeners.order));
        stats_list_free(&reference.conns);
        stats_list_free(&reference.listeners);
        tables.conns.count = tables.listeners.count = 0;
    }
}

// Verifies the Tcp line reader where the provider's scalars do not reach: a short values line
// reports -1 with the fields it had, a missing one leaves all zero, a missing file changes nothing.
TEST(TcpGlobalStats, ShortOrMissingTcpLine)
{
    tcp_global_stats stats;
    memset(&stats, 0xff, sizeof stats);
    fake_proc proc;
    EXPECT_EQ(update_tcp_table(&stats), -1);
    EXPECT_EQ(stats.ActiveOpens, 0xFFFFFFFFu);
    EXPECT_EQ(tcp_read_snmp(text_stream("Ip: x\nTcp: a\nTcp: 1 200 120000 -1 9\n").get(), &stats),
              -1);
    EXPECT_EQ(stats.MaxConn, -1);
    EXPECT_EQ(stats.ActiveOpens, 9u);
    EXPECT_EQ(stats.OutRsts, 0u);
    EXPECT_EQ(tcp_read_snmp(text_stream("Ip: x\nIp: 1\nUdp: y\nUdp: 2\n").get(), &stats), -1);
    tcp_global_stats zero = {};
    EXPECT_EQ(memcmp(&stats, &zero, sizeof stats), 0);
}

} // namespace
