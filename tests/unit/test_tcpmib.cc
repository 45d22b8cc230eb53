// Unit tests of the TCP-MIB provider through its "tcp_status" callbacks, on fake /proc trees.
#include "mibs/tcpmibimpl.h"

#include "child_process.h"
#include "fake_proc.h"
#include "timedcache.h"

#include "TCP-MIB.h"
#include "confd_inproc.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <csignal>
#include <deque>
#include <fstream>
#include <string>
#include <vector>

namespace
{

time_t fake_now;
time_t fake_clock()
{
    return fake_now;
}

// Text of a key or value as the tests write it: numbers, hex for addresses.
std::string text(const confd_value_t &v)
{
    switch (v.type) {
    case C_ENUM_VALUE:
        return std::to_string(v.val.enumvalue);
    case C_UINT32:
        return std::to_string(v.val.u32);
    case C_INT32:
        return std::to_string(v.val.i32);
    case C_UINT64:
        return "u64:" + std::to_string(v.val.u64);
    case C_BINARY: {
        std::string hex;
        char byte[3];
        for (unsigned i = 0; i < v.val.buf.size; i++) {
            snprintf(byte, sizeof byte, "%02x", v.val.buf.ptr[i]);
            hex += byte;
        }
        return hex;
    }
    default:
        return "type" + std::to_string(v.type);
    }
}

// A keypath as ConfD hands it to the provider: rows from the leaf (v[0]) up
// to the module, a keys row just below a list entry's tag.
struct keypath {
    confd_hkeypath_t kp;

    // nodes from the top (TCP-MIB first); with has_leaf the last node is a
    // leaf and the keys belong to the list entry above it.
    keypath(std::vector<uint32_t> nodes, std::vector<confd_value_t> keys = {},
            bool has_leaf = false)
    {
        memset(&kp, 0, sizeof kp);
        for (auto &row : kp.v)
            for (auto &cell : row)
                cell.type = C_NOEXISTS;
        int rows = static_cast<int>(nodes.size()) + (keys.empty() ? 0 : 1);
        kp.len = rows;
        int at = rows - 1;
        for (size_t i = 0; i < nodes.size(); i++) {
            bool leaf = has_leaf && i + 1 == nodes.size();
            if (leaf && !keys.empty()) {
                for (size_t k = 0; k < keys.size(); k++)
                    kp.v[at][k] = keys[k];
                at--;
            }
            CONFD_SET_XMLTAG(&kp.v[at][0], nodes[i], TCP_MIB__ns);
            at--;
        }
    }
};

keypath connection_list()
{
    return keypath({TCP_MIB_TCP_MIB, TCP_MIB_tcpConnectionTable, TCP_MIB_tcpConnectionEntry});
}
keypath listener_list()
{
    return keypath({TCP_MIB_TCP_MIB, TCP_MIB_tcpListenerTable, TCP_MIB_tcpListenerEntry});
}
keypath scalar(uint32_t leaf)
{
    return keypath({TCP_MIB_TCP_MIB, TCP_MIB_tcp, leaf});
}

// Holds the bytes of binary keys for the keypaths built from them.
struct key_values {
    std::deque<std::string> bytes; // stays in place as keys are added
    std::vector<confd_value_t> values;

    key_values &type(int32_t t)
    {
        confd_value_t v;
        CONFD_SET_ENUM_VALUE(&v, t);
        values.push_back(v);
        return *this;
    }
    key_values &addr(const std::string &raw)
    {
        bytes.push_back(raw);
        confd_value_t v;
        CONFD_SET_BINARY(&v, bytes.back().data(), bytes.back().size());
        values.push_back(v);
        return *this;
    }
    key_values &port(uint32_t p)
    {
        confd_value_t v;
        CONFD_SET_UINT32(&v, p);
        values.push_back(v);
        return *this;
    }
};

const std::string lo4("\x7f\x00\x00\x01", 4);

keypath connection_leaf(const key_values &keys, uint32_t leaf)
{
    return keypath({TCP_MIB_TCP_MIB, TCP_MIB_tcpConnectionTable, TCP_MIB_tcpConnectionEntry, leaf},
                   keys.values, true);
}
keypath listener_leaf(const key_values &keys, uint32_t leaf)
{
    return keypath({TCP_MIB_TCP_MIB, TCP_MIB_tcpListenerTable, TCP_MIB_tcpListenerEntry, leaf},
                   keys.values, true);
}

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

class TcpMibTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        fake_now = 1700000000;
        timed_cache_set_clock(fake_clock);
        dx_ = confd_init_daemon("test");
        ASSERT_NE(dx_, nullptr);
        ASSERT_EQ(register_tcp(dx_, -1), 0);
        cbs_ = confd_inproc_data_cbs(dx_, "tcp_status");
        ASSERT_NE(cbs_, nullptr);
        tctx_ = confd_inproc_trans(dx_, CONFD_READ, CONFD_RUNNING, 1);
        ASSERT_NE(tctx_, nullptr);
    }
    void TearDown() override
    {
        confd_inproc_free_trans(tctx_);
        confd_release_daemon(dx_);
        timed_cache_set_clock(nullptr);
    }

    void write_net(const char *file, const std::string &content)
    {
        std::filesystem::create_directories(proc_.root() + "/net");
        std::ofstream(proc_.root() + "/net/" + file) << content;
    }

    // One get_next: the keys as text and the cookie, or "end".
    std::string next(keypath path, long cookie)
    {
        confd_inproc_reset(tctx_);
        EXPECT_EQ(cbs_->get_next(tctx_, &path.kp, cookie), CONFD_OK);
        const confd_inproc_capture *cap = confd_inproc_captured(tctx_);
        EXPECT_EQ(cap->nreplies, 1);
        if (cap->kind == CONFD_INPROC_NEXT_END) return "end";
        EXPECT_EQ(cap->kind, CONFD_INPROC_NEXT_KEY);
        std::string keys;
        for (int i = 0; i < cap->nvalues; i++)
            keys += (i ? " " : "") + text(cap->values[i]);
        return keys + " -> " + std::to_string(cap->next);
    }

    // A whole walk as ConfD makes it: -1, then each cookie until the end.
    std::vector<std::string> walk(const keypath &path)
    {
        std::vector<std::string> rows;
        long cookie = -1;
        for (int guard = 0; guard < 1000; guard++) {
            std::string row = next(path, cookie);
            if (row == "end") break;
            size_t arrow = row.rfind(" -> ");
            cookie = std::stol(row.substr(arrow + 4));
            rows.push_back(row.substr(0, arrow));
        }
        return rows;
    }

    // One get_elem: the value as text, "not-found", or "CONFD_ERR" (no reply).
    std::string get(keypath path)
    {
        confd_inproc_reset(tctx_);
        int ret = cbs_->get_elem(tctx_, &path.kp);
        const confd_inproc_capture *cap = confd_inproc_captured(tctx_);
        if (ret == CONFD_ERR) {
            EXPECT_EQ(cap->nreplies, 0);
            return "CONFD_ERR";
        }
        EXPECT_EQ(ret, CONFD_OK);
        EXPECT_EQ(cap->nreplies, 1);
        if (cap->kind == CONFD_INPROC_NOT_FOUND) return "not-found";
        EXPECT_EQ(cap->kind, CONFD_INPROC_VALUE);
        return text(cap->values[0]);
    }

    fake_proc proc_;
    confd_daemon_ctx *dx_ = nullptr;
    const confd_data_cbs *cbs_ = nullptr;
    confd_trans_ctx *tctx_ = nullptr;
};

// Verifies that both walks visit the fixture's sockets in index order (type,
// then address length and bytes, then port), with position cookies 1, 2, ...
// and the tcp6 reader's quirks intact.
TEST_F(TcpMibTest, WalksInIndexOrderWithPositionCookies)
{
    if (htonl(1) == 1) GTEST_SKIP() << "fixture text is that of a little-endian kernel";
    proc_.use_fixture_net();
    EXPECT_EQ(
        walk(connection_list()),
        (std::vector<std::string>{
            "1 7f000001 22 1 7f000001 54321",
            "1 7f000001 54321 1 7f000001 22",
            "1 7f000001 54322 1 7f000001 22",
            "1 c0a80002 22 1 c0a80064 50000",
            "2 00000000000000000000000000000001 8080 2 00000000000000000000000000000001 45056",
            "2 00000000000000000000ffff7f000001 80 2 00000000000000000000ffff7f000001 49152",
        }));
    EXPECT_EQ(walk(listener_list()), (std::vector<std::string>{
                                         "1 00000000 22",
                                         "1 7f000001 3306",
                                         "1 7f000001 40000",
                                         "2 00000000000000000000000000000000 22",
                                         "2 00000000000000000000000000000001 8080",
                                         "2 20010db8000000000000000000000001 443",
                                     }));
    EXPECT_EQ(next(connection_list(), -1), "1 7f000001 22 1 7f000001 54321 -> 1");
    EXPECT_EQ(next(connection_list(), 5), "2 00000000000000000000ffff7f000001 80 2 "
                                          "00000000000000000000ffff7f000001 49152 -> 6");
    // Cookies ConfD hands back from elsewhere end the walk instead of
    // selecting a row.
    for (long cookie : {6L, 7L, 1000000L, -2L, -1000L})
        EXPECT_EQ(next(connection_list(), cookie), "end") << cookie;
    EXPECT_EQ(next(listener_list(), 6), "end");
}

// Verifies that with no socket files both tables end at once.
TEST_F(TcpMibTest, EmptyTablesEndAtOnce)
{
    EXPECT_EQ(next(connection_list(), -1), "end");
    EXPECT_EQ(next(listener_list(), -1), "end");
    key_values k;
    k.type(1).addr(lo4).port(22);
    EXPECT_EQ(get(listener_leaf(k, TCP_MIB_tcpListenerProcess)), "not-found");
}

// Verifies that get_elem finds a row by its keys (the first of equal ones)
// with its owner, and answers not found for absent rows, foreign leaves and
// keys that no row can have.
TEST_F(TcpMibTest, GetElemByKeys)
{
    if (htonl(1) == 1) GTEST_SKIP() << "fixture text is that of a little-endian kernel";
    proc_.use_fixture_net();
    proc_.link_fd("4242", "7", "socket:[1005]");
    proc_.link_fd("4243", "3", "socket:[1002]");
    walk(connection_list());

    key_values conn;
    conn.type(1).addr(lo4).port(54321).type(1).addr(lo4).port(22);
    EXPECT_EQ(get(connection_leaf(conn, TCP_MIB_tcpConnectionState)), "5");
    EXPECT_EQ(get(connection_leaf(conn, TCP_MIB_tcpConnectionProcess)), "4242");
    EXPECT_EQ(get(connection_leaf(conn, TCP_MIB_tcpConnectionLocalPort)), "not-found");

    key_values time_wait;
    time_wait.type(1).addr(lo4).port(54322).type(1).addr(lo4).port(22);
    EXPECT_EQ(get(connection_leaf(time_wait, TCP_MIB_tcpConnectionState)), "11");
    EXPECT_EQ(get(connection_leaf(time_wait, TCP_MIB_tcpConnectionProcess)), "0");

    key_values listener;
    listener.type(1).addr(lo4).port(3306);
    EXPECT_EQ(get(listener_leaf(listener, TCP_MIB_tcpListenerProcess)), "4243");

    key_values absent;
    absent.type(1).addr(lo4).port(3307);
    EXPECT_EQ(get(listener_leaf(absent, TCP_MIB_tcpListenerProcess)), "not-found");
    // The address length is part of the index: 127.0.0.1 written as 16
    // bytes, or under the other address type, is another row.
    key_values wide;
    wide.type(1).addr(lo4 + std::string(12, '\0')).port(3306);
    EXPECT_EQ(get(listener_leaf(wide, TCP_MIB_tcpListenerProcess)), "not-found");
    key_values other_type;
    other_type.type(2).addr(lo4).port(3306);
    EXPECT_EQ(get(listener_leaf(other_type, TCP_MIB_tcpListenerProcess)), "not-found");
    key_values huge;
    huge.type(1).addr(std::string(300, 'x')).port(3306);
    EXPECT_EQ(get(listener_leaf(huge, TCP_MIB_tcpListenerProcess)), "not-found");
}

// Verifies the state mapping of every kernel state, including 0 and 12,
// which are not TCP-MIB states and read as closed(1).
TEST_F(TcpMibTest, KernelStatesMapToConnectionStates)
{
    const int expected[13] = {1, 5, 3, 4, 6, 7, 11, 1, 8, 9, 2, 10, 1};
    std::string table = tcp_header;
    for (int state = 0; state <= 12; state++) {
        char local[32];
        snprintf(local, sizeof local, "0100007F:%04X", 1000 + state);
        table += tcp_line(state, local, "0100007F:0016", state, 3000 + state);
    }
    write_net("tcp", table);
    ASSERT_EQ(walk(connection_list()).size(), 13u);
    for (int state = 0; state <= 12; state++) {
        key_values k;
        k.type(1).addr(lo4).port(1000 + state).type(1).addr(lo4).port(22);
        EXPECT_EQ(get(connection_leaf(k, TCP_MIB_tcpConnectionState)),
                  std::to_string(expected[state]))
            << "kernel state " << state;
    }
}

// Verifies every scalar with its ConfD type: MaxConn -1 signed, counters
// above 2^31 unsigned, the 64-bit segment counters equal to the 32-bit ones;
// a leaf this daemon does not know fails the request without a reply.
TEST_F(TcpMibTest, ScalarsFromTheTcpLine)
{
    proc_.use_fixture_net();
    const std::pair<uint32_t, const char *> expected[] = {
        {TCP_MIB_tcpRtoAlgorithm, "1"},
        {TCP_MIB_tcpRtoMin, "200"},
        {TCP_MIB_tcpRtoMax, "120000"},
        {TCP_MIB_tcpMaxConn, "-1"},
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
        EXPECT_EQ(get(scalar(leaf.first)), leaf.second) << leaf.second;

    confd_inproc_reset(tctx_);
    keypath p = scalar(TCP_MIB_tcpMaxConn);
    ASSERT_EQ(cbs_->get_elem(tctx_, &p.kp), CONFD_OK);
    EXPECT_EQ(confd_inproc_captured(tctx_)->values[0].type, C_INT32);

    EXPECT_EQ(get(scalar(TCP_MIB_tcpConnectionState)), "CONFD_ERR");
    EXPECT_EQ(get(scalar(12345)), "CONFD_ERR");
}

// Verifies the 3-second rule: tables change only when a walk starts 3
// seconds after the last refresh (get_elem never refreshes them), scalars only
// on a request 3 seconds after theirs; a clock set back refreshes nothing.
TEST_F(TcpMibTest, RefreshesAtMostEveryThreeSeconds)
{
    std::string one = std::string(tcp_header) + tcp_line(0, "0100007F:0016", "0100007F:D431", 1, 1);
    std::string two = one + tcp_line(1, "0100007F:0017", "0100007F:D432", 1, 2);
    write_net("tcp", one);
    write_net("snmp", snmp_text(100));
    ASSERT_EQ(walk(connection_list()).size(), 1u);
    EXPECT_EQ(get(scalar(TCP_MIB_tcpInSegs)), "100");

    write_net("tcp", two);
    write_net("snmp", snmp_text(250));
    key_values added;
    added.type(1).addr(lo4).port(23).type(1).addr(lo4).port(54322);
    fake_now += 2;
    EXPECT_EQ(walk(connection_list()).size(), 1u);
    EXPECT_EQ(get(scalar(TCP_MIB_tcpInSegs)), "100");
    fake_now += 1;
    EXPECT_EQ(get(connection_leaf(added, TCP_MIB_tcpConnectionState)), "not-found");
    EXPECT_EQ(next(connection_list(), 1), "end"); // a running walk does not refresh
    EXPECT_EQ(walk(connection_list()).size(), 2u);
    EXPECT_EQ(get(connection_leaf(added, TCP_MIB_tcpConnectionState)), "5");
    EXPECT_EQ(get(scalar(TCP_MIB_tcpHCInSegs)), "u64:250");

    write_net("tcp", one);
    fake_now -= 60;
    EXPECT_EQ(walk(connection_list()).size(), 2u);
    fake_now += 62;
    EXPECT_EQ(walk(connection_list()).size(), 2u);
    fake_now += 1;
    EXPECT_EQ(walk(connection_list()).size(), 1u);
}

// Verifies that a key of the wrong ConfD type stops the daemon with the
// assertion naming the expected type, in every build type.
TEST_F(TcpMibTest, WrongKeyTypeAborts)
{
    child_outcome r = run_in_child([this] {
        key_values k;
        k.port(1).addr(lo4).port(22);
        get(listener_leaf(k, TCP_MIB_tcpListenerProcess));
    });
    EXPECT_TRUE(r.killed_by(SIGABRT));
    EXPECT_NE(r.err.find("tcpmibimpl.cc:"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("Assertion `(v_pp)->type == C_ENUM_VALUE' failed."), std::string::npos)
        << r.err;
}

} // namespace
