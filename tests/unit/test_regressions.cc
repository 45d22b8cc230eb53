// Regression tests for faults found in review: each pins the fixed behaviour of one of them.
#include "schema.h"
#include "wire.h"

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

} // namespace
