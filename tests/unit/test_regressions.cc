// Regression tests for faults found in review: each pins the fixed behaviour of one of them.
#include "confd_inproc.h"
#include "mibs/udpmibimpl.h"
#include "schema.h"
#include "wire.h"

#include "UDP-MIB.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

// Every allocation of the test program goes through here so that a test can
// see the largest single request a call made.
namespace
{
std::atomic<bool> tracking{false};
std::atomic<size_t> largest_request{0};

void *allocate(size_t size)
{
    if (tracking.load(std::memory_order_relaxed)) {
        size_t seen = largest_request.load(std::memory_order_relaxed);
        while (size > seen && !largest_request.compare_exchange_weak(seen, size)) {
        }
    }
    if (void *p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
} // namespace

void *operator new(size_t size)
{
    return allocate(size);
}
void *operator new[](size_t size)
{
    return allocate(size);
}
void operator delete(void *p) noexcept
{
    std::free(p);
}
void operator delete[](void *p) noexcept
{
    std::free(p);
}
void operator delete(void *p, size_t) noexcept
{
    std::free(p);
}
void operator delete[](void *p, size_t) noexcept
{
    std::free(p);
}

namespace
{

// Verifies that a schema answer announcing more nodes than its bytes can
// hold is refused before the node table is allocated for that count (a
// 64 MiB frame could otherwise ask for gigabytes).
TEST(SchemaPayloadRegression, NodeCountBeyondThePayloadIsRefusedWithoutAllocating)
{
    confd_wire::Writer w(confd_wire::Op::Ok);
    w.u32(0);      // no namespaces
    w.u32(200000); // nodes announced: far more than 256 KiB can describe
    std::string payload = w.payload();
    payload.append(256 * 1024, '\0');

    largest_request = 0;
    tracking = true;
    int rc = libconfd::install_schema_payload(payload);
    tracking = false;
    EXPECT_EQ(rc, CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
    EXPECT_LT(largest_request.load(), payload.size());
}

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
