// Regression tests for faults found in review: each pins the fixed behaviour of one of them.
#include "confd_inproc.h"
#include "mibs/udpmibimpl.h"

#include "UDP-MIB.h"

#include <gtest/gtest.h>

#include <cstring>

namespace
{

// Verifies that an entry request on the UDP endpoint table before any walk
// fails with CONFD_ERR even when a key has a type other than the model's:
// the keys are only checked while rows are compared, and there are none.
TEST(UdpProviderRegression, EntryRequestOnEmptyTableFailsWithoutCheckingKeys)
{
    struct confd_daemon_ctx *dx = confd_init_daemon("regression");
    ASSERT_NE(dx, nullptr);
    register_udp(dx, -1);
    const struct confd_data_cbs *cbs = confd_inproc_data_cbs(dx, "udp_status");
    ASSERT_NE(cbs, nullptr);
    struct confd_trans_ctx *tctx = confd_inproc_trans(dx, CONFD_READ, CONFD_RUNNING, 1);
    ASSERT_NE(tctx, nullptr);

    confd_hkeypath_t kp;
    memset(&kp, 0, sizeof kp);
    kp.len = 4;
    CONFD_SET_XMLTAG(&kp.v[0][0], UDP_MIB_udpEndpointProcess, UDP_MIB__ns);
    CONFD_SET_ENUM_VALUE(&kp.v[1][0], 1);
    static const uint8_t any[4] = {0, 0, 0, 0};
    CONFD_SET_BINARY(&kp.v[1][1], any, 4);
    CONFD_SET_UINT32(&kp.v[1][2], 53);
    CONFD_SET_ENUM_VALUE(&kp.v[1][3], 1);
    CONFD_SET_BINARY(&kp.v[1][4], any, 4);
    CONFD_SET_UINT32(&kp.v[1][5], 0);
    CONFD_SET_INT32(&kp.v[1][6], 3005); // udpEndpointInstance is C_UINT32
    kp.v[1][7].type = C_NOEXISTS;
    CONFD_SET_XMLTAG(&kp.v[2][0], UDP_MIB_udpEndpointEntry, UDP_MIB__ns);
    CONFD_SET_XMLTAG(&kp.v[3][0], UDP_MIB_udpEndpointTable, UDP_MIB__ns);

    EXPECT_EQ(cbs->get_elem(tctx, &kp), CONFD_ERR);
    EXPECT_EQ(confd_inproc_captured(tctx)->kind, CONFD_INPROC_NONE);

    confd_inproc_free_trans(tctx);
    confd_release_daemon(dx);
}

} // namespace
