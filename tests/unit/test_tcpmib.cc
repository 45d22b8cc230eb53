// Unit tests of the TCP-MIB provider through its "tcp_status" callbacks, on fake /proc trees.
#include "mibs/tcpmibimpl.h"

#include "provider_driver.h"

#include "TCP-MIB.h"

#include <arpa/inet.h>

#include <csignal>

namespace
{

keypath tcp(std::vector<uint32_t> tags, const std::string &keys = "")
{
    tags.insert(tags.begin(), TCP_MIB_TCP_MIB);
    return keypath(TCP_MIB__ns, tags, keys);
}
keypath connections()
{
    return tcp({TCP_MIB_tcpConnectionTable, TCP_MIB_tcpConnectionEntry});
}
keypath listeners()
{
    return tcp({TCP_MIB_tcpListenerTable, TCP_MIB_tcpListenerEntry});
}
// A column of the row with these keys ("e1 x7f000001 22 e1 x7f000001 54321").
keypath connection(const std::string &keys, uint32_t leaf = TCP_MIB_tcpConnectionState)
{
    return tcp({TCP_MIB_tcpConnectionTable, TCP_MIB_tcpConnectionEntry, leaf}, keys);
}
keypath listener(const std::string &keys)
{
    return tcp({TCP_MIB_tcpListenerTable, TCP_MIB_tcpListenerEntry, TCP_MIB_tcpListenerProcess},
               keys);
}

const std::string v6_lo = "x" + std::string(30, '0') + "01";
const std::string v6_mapped = "x" + std::string(20, '0') + "ffff7f000001";

const char tcp_header[] = "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when "
                          "retrnsmt   uid  timeout inode\n";

// One /proc/net/tcp line of an idle socket.
std::string tcp_line(int slot, const char *local, const char *remote, int state, int inode)
{
    char line[256];
    snprintf(line, sizeof line,
             "%4d: %s %s %02X 00000000:00000000 00:00000000 00000000     0        0 %d 1 "
             "0000000000000000 100 0 0 10 0\n",
             slot, local, remote, state, inode);
    return line;
}

// A /proc/net/snmp text whose Tcp line counts in_segs segments received.
std::string snmp_text(int in_segs)
{
    return "Ip: Forwarding DefaultTTL\nIp: 1 64\nTcp: RtoAlgorithm RtoMin RtoMax MaxConn "
           "ActiveOpens PassiveOpens AttemptFails EstabResets CurrEstab InSegs\nTcp: 1 200 120000 "
           "-1 0 0 0 0 0 " +
           std::to_string(in_segs) + " 0 0 0 0\n";
}

class TcpMibTest : public provider_test
{
  protected:
    TcpMibTest() : provider_test(register_tcp, "tcp_status") {}
};

// Verifies that the connection walk visits the fixture's sockets in index order (type, address
// length and bytes, port) with position cookies, the tcp6 reader's quirks intact; foreign cookies
// end a walk (the listeners' order is compared with the kernel's end to end).
TEST_F(TcpMibTest, WalksInIndexOrderWithPositionCookies)
{
    if (htonl(1) == 1) GTEST_SKIP() << "fixture text is that of a little-endian kernel";
    proc_.use_fixture_net();
    EXPECT_EQ(walk(connections()), (std::vector<std::string>{
                                       "e1 x7f000001 22 e1 x7f000001 54321",
                                       "e1 x7f000001 54321 e1 x7f000001 22",
                                       "e1 x7f000001 54322 e1 x7f000001 22",
                                       "e1 xc0a80002 22 e1 xc0a80064 50000",
                                       "e2 " + v6_lo + " 8080 e2 " + v6_lo + " 45056",
                                       "e2 " + v6_mapped + " 80 e2 " + v6_mapped + " 49152",
                                   }));
    EXPECT_EQ(walk(listeners()).size(), 6u);
    for (long cookie : {6L, 7L, 1000000L, -2L, -1000L})
        EXPECT_EQ(next(connections(), cookie), "end") << cookie;
    EXPECT_EQ(next(listeners(), 6), "end");
}

// Verifies that get_elem finds a row by its keys (the first of equal ones) with its owner, and
// answers not found for absent rows, foreign leaves and keys that no row can have.
TEST_F(TcpMibTest, GetElemByKeys)
{
    if (htonl(1) == 1) GTEST_SKIP() << "fixture text is that of a little-endian kernel";
    proc_.use_fixture_net();
    proc_.link_fd("4242", "7", "socket:[1005]");
    proc_.link_fd("4243", "3", "socket:[1002]");
    walk(connections());

    const std::string conn = "e1 x7f000001 54321 e1 x7f000001 22";
    EXPECT_EQ(get(connection(conn)), "e5");
    EXPECT_EQ(get(connection(conn, TCP_MIB_tcpConnectionProcess)), "4242");
    EXPECT_EQ(get(connection(conn, TCP_MIB_tcpConnectionLocalPort)), "not-found");
    const std::string time_wait = "e1 x7f000001 54322 e1 x7f000001 22";
    EXPECT_EQ(get(connection(time_wait)), "e11");
    EXPECT_EQ(get(connection(time_wait, TCP_MIB_tcpConnectionProcess)), "0");
    EXPECT_EQ(get(listener("e1 x7f000001 3306")), "4243");
    // The address length is part of the index: 127.0.0.1 as 16 bytes is another row.
    for (const std::string &absent : std::vector<std::string>{
             "e1 x7f000001 3307", "e1 x7f000001" + std::string(24, '0') + " 3306",
             "e2 x7f000001 3306", "e1 x" + std::string(600, '7') + " 3306"})
        EXPECT_EQ(get(listener(absent)), "not-found") << absent;
}

// Verifies the mapping of every kernel state; 0 and 12 are no TCP-MIB states and read closed(1).
TEST_F(TcpMibTest, KernelStatesMapToConnectionStates)
{
    const int expected[13] = {1, 5, 3, 4, 6, 7, 11, 1, 8, 9, 2, 10, 1};
    std::string table = tcp_header;
    for (int state = 0; state <= 12; state++) {
        char local[32];
        snprintf(local, sizeof local, "0100007F:%04X", 1000 + state);
        table += tcp_line(state, local, "0100007F:0016", state, 3000 + state);
    }
    proc_.write("net/tcp", table);
    ASSERT_EQ(walk(connections()).size(), 13u);
    for (int state = 0; state <= 12; state++) {
        std::string keys = "e1 x7f000001 " + std::to_string(1000 + state) + " e1 x7f000001 22";
        EXPECT_EQ(get(connection(keys)), "e" + std::to_string(expected[state])) << state;
    }
}

// Verifies every scalar with its ConfD type (MaxConn signed, HC counters equal to the 32-bit ones);
// a leaf the daemon does not know fails the request without a reply.
TEST_F(TcpMibTest, ScalarsFromTheTcpLine)
{
    proc_.use_fixture_net();
    const std::pair<uint32_t, const char *> expected[] = {
        {TCP_MIB_tcpRtoAlgorithm, "e1"},
        {TCP_MIB_tcpRtoMin, "i200"},
        {TCP_MIB_tcpRtoMax, "i120000"},
        {TCP_MIB_tcpMaxConn, "i-1"},
        {TCP_MIB_tcpActiveOpens, "18340"},
        {TCP_MIB_tcpPassiveOpens, "2211"},
        {TCP_MIB_tcpAttemptFails, "96"},
        {TCP_MIB_tcpEstabResets, "301"},
        {TCP_MIB_tcpCurrEstab, "14"},
        {TCP_MIB_tcpInSegs, "3000000000"},
        {TCP_MIB_tcpOutSegs, "4294967295"},
        {TCP_MIB_tcpRetransSegs, "1830"},
        {TCP_MIB_tcpInErrs, "2"},
        {TCP_MIB_tcpOutRsts, "5120"},
        {TCP_MIB_tcpHCInSegs, "u64:3000000000"},
        {TCP_MIB_tcpHCOutSegs, "u64:4294967295"},
    };
    for (const auto &leaf : expected)
        EXPECT_EQ(get(tcp({TCP_MIB_tcp, leaf.first})), leaf.second) << leaf.second;
    EXPECT_EQ(get(tcp({TCP_MIB_tcp, TCP_MIB_tcpConnectionState})), "CONFD_ERR");
    EXPECT_EQ(get(tcp({TCP_MIB_tcp, 12345})), "CONFD_ERR");
}

// Verifies the 3-second rule: tables change only when a walk starts 3 seconds after the last
// refresh (get_elem never refreshes them), scalars only on a request 3 seconds after theirs (the HC
// counter follows InSegs down, not widened across refreshes); a clock set back refreshes nothing.
// Without socket files both tables end at once.
TEST_F(TcpMibTest, RefreshesAtMostEveryThreeSeconds)
{
    EXPECT_EQ(next(connections(), -1), "end");
    EXPECT_EQ(next(listeners(), -1), "end");
    EXPECT_EQ(get(listener("e1 x7f000001 22")), "not-found");
    now += 3;
    std::string one = std::string(tcp_header) + tcp_line(0, "0100007F:0016", "0100007F:D431", 1, 1);
    std::string two = one + tcp_line(1, "0100007F:0017", "0100007F:D432", 1, 2);
    proc_.write("net/tcp", one);
    proc_.write("net/snmp", snmp_text(100));
    ASSERT_EQ(walk(connections()).size(), 1u);
    EXPECT_EQ(get(tcp({TCP_MIB_tcp, TCP_MIB_tcpInSegs})), "100");

    proc_.write("net/tcp", two);
    proc_.write("net/snmp", snmp_text(70));
    const std::string added = "e1 x7f000001 23 e1 x7f000001 54322";
    now += 2;
    EXPECT_EQ(walk(connections()).size(), 1u);
    EXPECT_EQ(get(tcp({TCP_MIB_tcp, TCP_MIB_tcpInSegs})), "100");
    now += 1;
    EXPECT_EQ(get(connection(added)), "not-found");
    EXPECT_EQ(next(connections(), 1), "end"); // a running walk does not refresh
    EXPECT_EQ(walk(connections()).size(), 2u);
    EXPECT_EQ(get(connection(added)), "e5");
    EXPECT_EQ(get(tcp({TCP_MIB_tcp, TCP_MIB_tcpHCInSegs})), "u64:70");

    proc_.write("net/tcp", one);
    now -= 60;
    EXPECT_EQ(walk(connections()).size(), 2u);
    now += 62;
    EXPECT_EQ(walk(connections()).size(), 2u);
    now += 1;
    EXPECT_EQ(walk(connections()).size(), 1u);
}

// Verifies that a key of the wrong ConfD type aborts in every build type, the assertion naming the
// expected type and the callback.
TEST_F(TcpMibTest, WrongKeyTypeAborts)
{
    EXPECT_EXIT(get(listener("1 x7f000001 22")), testing::KilledBySignal(SIGABRT),
                "tcpmibimpl\\.cc:[0-9]+: tcp_get_listener_elem: Assertion `\\(v_pp\\)->type == "
                "C_ENUM_VALUE' failed\\.");
    EXPECT_EXIT(get(connection("e1 x7f000001 22 e1 x7f000001 i1")),
                testing::KilledBySignal(SIGABRT),
                "tcpmibimpl\\.cc:[0-9]+: tcp_get_connection_elem: Assertion `\\(v_pp\\)->type == "
                "C_UINT32' failed\\.");
}

} // namespace
