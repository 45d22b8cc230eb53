// Unit tests of the "udp_status" provider, driven through its registered callbacks on a fake /proc.
#include "fake_proc.h"
#include "mibs/udpmibimpl.h"
#include "timedcache.h"

#include "UDP-MIB.h"
#include "confd_inproc.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{

time_t test_now;
time_t test_clock()
{
    return test_now;
}

std::string text(const confd_value_t &v)
{
    std::string out = v.type == C_ENUM_VALUE ? "e" : v.type == C_UINT64 ? "u64:" : "";
    if (v.type == C_ENUM_VALUE) return out + std::to_string(v.val.enumvalue);
    if (v.type == C_UINT32) return out + std::to_string(v.val.u32);
    if (v.type == C_UINT64) return out + std::to_string(v.val.u64);
    if (v.type != C_BINARY) return "type" + std::to_string(v.type);
    char two[3];
    for (unsigned i = 0; i < v.val.buf.size; i++) {
        snprintf(two, sizeof two, "%02x", v.val.buf.ptr[i]);
        out += two;
    }
    return "x" + out;
}

// The seven keys of a row, with their own copy of the addresses.
struct row_keys {
    confd_value_t values[7];
    std::vector<uint8_t> local, remote;
};

class UdpProviderTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        if (__BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__)
            GTEST_SKIP() << "fixture text is that of a little-endian kernel";
        test_now = 1000000;
        timed_cache_set_clock(test_clock);
        proc.use_fixture_net();
        proc.link_fd("100", "3", "socket:[3003]");
        proc.link_fd("100", "4", "socket:[4003]");
        proc.link_fd("200", "7", "socket:[3005]");
        proc.link_fd("300", "5", "socket:[3002]");
        dx = confd_init_daemon("test");
        register_udp(dx, -1);
        cbs = confd_inproc_data_cbs(dx, "udp_status");
        ASSERT_NE(cbs, nullptr);
        tctx = confd_inproc_trans(dx, CONFD_READ, CONFD_RUNNING, 1);
        cap = confd_inproc_captured(tctx);
    }
    void TearDown() override
    {
        timed_cache_set_clock(nullptr);
        if (tctx) confd_inproc_free_trans(tctx);
        if (dx) confd_release_daemon(dx);
    }

    // A keypath of tags, innermost first; keys, when given, form row 1.
    confd_hkeypath_t path(std::vector<uint32_t> tags, const confd_value_t *keys = nullptr)
    {
        confd_hkeypath_t kp;
        memset(&kp, 0, sizeof kp);
        if (keys) tags.insert(tags.begin() + 1, 0);
        kp.len = static_cast<int>(tags.size());
        for (size_t i = 0; i < tags.size(); i++)
            CONFD_SET_XMLTAG(&kp.v[i][0], tags[i], UDP_MIB__ns);
        for (int i = 0; keys && i < 7; i++)
            kp.v[1][i] = keys[i];
        kp.v[1][keys ? 7 : 1].type = C_NOEXISTS;
        confd_inproc_reset(tctx);
        return kp;
    }
    int next(long cookie)
    {
        confd_hkeypath_t kp =
            path({UDP_MIB_udpEndpointEntry, UDP_MIB_udpEndpointTable, UDP_MIB_UDP_MIB});
        return cbs->get_next(tctx, &kp, cookie);
    }
    // get_elem of a leaf of udpEndpointEntry{keys}, or of a scalar without keys.
    int elem(uint32_t leaf, const confd_value_t *keys = nullptr)
    {
        confd_hkeypath_t kp =
            keys ? path({leaf, UDP_MIB_udpEndpointEntry, UDP_MIB_udpEndpointTable, UDP_MIB_UDP_MIB},
                        keys)
                 : path({leaf, UDP_MIB_udp, UDP_MIB_UDP_MIB});
        return cbs->get_elem(tctx, &kp);
    }
    std::string answer() const
    {
        return cap->kind == CONFD_INPROC_VALUE  ? text(cap->values[0])
               : cap->kind == CONFD_INPROC_NONE ? "no reply"
                                                : "kind " + std::to_string(cap->kind);
    }

    // A whole walk: each row's keys as text; the cookies must count up.
    std::vector<std::string> walk(std::vector<row_keys> *keys = nullptr)
    {
        std::vector<std::string> rows;
        for (long cookie = -1; next(cookie) == CONFD_OK && cap->kind == CONFD_INPROC_NEXT_KEY;
             cookie = cap->next) {
            EXPECT_EQ(cap->next, static_cast<long>(rows.size()) + 1);
            EXPECT_EQ(cap->nvalues, 7);
            row_keys k;
            std::string row;
            for (int i = 0; i < 7; i++) {
                row += (i ? " " : "") + text(cap->values[i]);
                k.values[i] = cap->values[i];
            }
            k.local.assign(k.values[1].val.buf.ptr,
                           k.values[1].val.buf.ptr + k.values[1].val.buf.size);
            k.remote.assign(k.values[4].val.buf.ptr,
                            k.values[4].val.buf.ptr + k.values[4].val.buf.size);
            k.values[1].val.buf.ptr = k.local.data();
            k.values[4].val.buf.ptr = k.remote.data();
            rows.push_back(row);
            if (keys) keys->push_back(std::move(k));
        }
        EXPECT_EQ(cap->kind, CONFD_INPROC_NEXT_END);
        return rows;
    }

    fake_proc proc;
    confd_daemon_ctx *dx = nullptr;
    const confd_data_cbs *cbs = nullptr;
    confd_trans_ctx *tctx = nullptr;
    const confd_inproc_capture *cap = nullptr;
};

// Verifies a walk of udpEndpointTable: the rows in index order with their
// seven keys and position cookies, then the end of the table; and that each
// row's keys fetch that row's process.
TEST_F(UdpProviderTest, WalkAndEntriesInIndexOrder)
{
    const std::string any = "x" + std::string(32, '0'), lo = "x" + std::string(30, '0') + "01";
    std::vector<row_keys> keys;
    EXPECT_EQ(walk(&keys),
              (std::vector<std::string>{
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
    for (const row_keys &k : keys) {
        EXPECT_EQ(elem(UDP_MIB_udpEndpointProcess, k.values), CONFD_OK);
        processes += answer() + " ";
    }
    EXPECT_EQ(processes, "0 0 0 100 200 300 0 0 100 ");
}

// Verifies the deliberate answers: before any walk an entry request fails and
// any cookie ends the walk; after one, a key matching no row is answered with
// the process of the last row; any leaf but udpEndpointProcess, and any
// unknown scalar, fails without a reply; a key of the wrong type aborts.
TEST_F(UdpProviderTest, FallThroughAndErrors)
{
    confd_value_t keys[7];
    CONFD_SET_ENUM_VALUE(&keys[0], 1);
    CONFD_SET_BINARY(&keys[1], "\x7f\0\0\1", 4);
    CONFD_SET_UINT32(&keys[2], 68);
    CONFD_SET_ENUM_VALUE(&keys[3], 1);
    CONFD_SET_BINARY(&keys[4], "\0\0\0\0", 4);
    CONFD_SET_UINT32(&keys[5], 0);
    CONFD_SET_UINT32(&keys[6], 3005);
    EXPECT_EQ(elem(UDP_MIB_udpEndpointProcess, keys), CONFD_ERR);
    EXPECT_EQ(answer(), "no reply");
    EXPECT_EQ(next(4), CONFD_OK);
    EXPECT_EQ(cap->kind, CONFD_INPROC_NEXT_END);

    EXPECT_EQ(walk().size(), 9u);
    EXPECT_EQ(elem(UDP_MIB_udpEndpointProcess, keys), CONFD_OK);
    EXPECT_EQ(answer(), "200");
    CONFD_SET_UINT32(&keys[6], 3004);
    EXPECT_EQ(elem(UDP_MIB_udpEndpointProcess, keys), CONFD_OK);
    EXPECT_EQ(answer(), "100");
    CONFD_SET_BINARY(&keys[1], "", 0);
    EXPECT_EQ(elem(UDP_MIB_udpEndpointProcess, keys), CONFD_OK);
    EXPECT_EQ(answer(), "100");
    EXPECT_EQ(next(9), CONFD_OK);
    EXPECT_EQ(cap->kind, CONFD_INPROC_NEXT_END);

    EXPECT_EQ(elem(UDP_MIB_udpEndpointLocalPort, keys), CONFD_ERR);
    EXPECT_EQ(answer(), "no reply");
    EXPECT_EQ(elem(UDP_MIB_udpEndpointTable), CONFD_ERR);
    EXPECT_EQ(answer(), "no reply");
    CONFD_SET_INT32(&keys[6], 3005);
    EXPECT_DEATH(elem(UDP_MIB_udpEndpointProcess, keys),
                 "Assertion `\\(v_pp\\)->type == C_UINT32' failed");
}

// Verifies an empty table: the walk ends at once and entry requests fail.
TEST_F(UdpProviderTest, EmptyTable)
{
    fake_proc empty;
    EXPECT_EQ(walk(), std::vector<std::string>{});
    confd_value_t keys[7];
    for (confd_value_t &k : keys)
        CONFD_SET_UINT32(&k, 1);
    CONFD_SET_ENUM_VALUE(&keys[0], 1);
    CONFD_SET_BINARY(&keys[1], "", 0);
    CONFD_SET_ENUM_VALUE(&keys[3], 1);
    CONFD_SET_BINARY(&keys[4], "", 0);
    EXPECT_EQ(elem(UDP_MIB_udpEndpointProcess, keys), CONFD_ERR);
}

// Verifies the scalars and their types (HC counters equal to the 32-bit ones)
// and the 3-second rule of both caches: within it nothing is read again,
// from 3 seconds on a walk or scalar request reads afresh.
TEST_F(UdpProviderTest, ScalarsAndRefreshInterval)
{
    std::string answers;
    for (uint32_t leaf :
         {UDP_MIB_udpInDatagrams, UDP_MIB_udpNoPorts, UDP_MIB_udpInErrors, UDP_MIB_udpOutDatagrams,
          UDP_MIB_udpHCInDatagrams, UDP_MIB_udpHCOutDatagrams}) {
        EXPECT_EQ(elem(leaf), CONFD_OK);
        answers += answer() + " ";
    }
    EXPECT_EQ(answers, "1180427 287 0 1182633 u64:1180427 u64:1182633 ");

    EXPECT_EQ(walk().size(), 9u);
    fake_proc empty;
    test_now += 2;
    EXPECT_EQ(walk().size(), 9u);
    EXPECT_EQ(elem(UDP_MIB_udpNoPorts), CONFD_OK);
    EXPECT_EQ(answer(), "287");
    test_now += 1;
    EXPECT_EQ(walk().size(), 0u);
    EXPECT_EQ(elem(UDP_MIB_udpNoPorts), CONFD_OK);
    EXPECT_EQ(answer(), "0");
}

} // namespace
