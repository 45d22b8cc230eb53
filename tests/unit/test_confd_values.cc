// Unit tests of the ConfD value macros and the client library's value and error helpers.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <thread>

#include <confd_lib.h>
#include "lib_internal.h"
#include "schema.h"
#include "wire.h"

extern "C" int confd_headers_c_check(void);

// Allocation hooks for the library's C++ insides: fail on demand, or note the largest request.
static thread_local bool t_fail_new = false;
static thread_local bool t_track_new = false;
static thread_local size_t t_largest_new = 0;
void *operator new(size_t n)
{
    if (t_track_new && n > t_largest_new) t_largest_new = n;
    void *p = t_fail_new ? nullptr : malloc(n != 0 ? n : 1);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}
void operator delete(void *p) noexcept { free(p); }
void operator delete(void *p, size_t) noexcept { free(p); }

namespace
{

std::string pp(const confd_value_t &v)
{
    char buf[256];
    int n = confd_pp_value(buf, sizeof buf, &v);
    EXPECT_EQ(n, static_cast<int>(strlen(buf)));
    return buf;
}

// Verifies that the headers compile as C and their macros behave the same there.
TEST(ConfdHeaders, UsableFromC)
{
    EXPECT_EQ(confd_headers_c_check(), 0);
}

// Verifies that an exception inside the library (here std::bad_alloc while the keypath text is
// built) ends at the C API as the function's failure value with confd_errno set.
TEST(ConfdErrors, NoExceptionCrossesTheApi)
{
    confd_hkeypath_t kp;
    kp.len = 2;
    CONFD_SET_XMLTAG(&kp.v[0][0], 50, 1);
    CONFD_SET_CBUF(&kp.v[1][0], "a key longer than any short-string buffer", 41);
    CONFD_SET_NOEXISTS(&kp.v[1][1]);
    CONFD_SET_NOEXISTS(&kp.v[0][1]);
    char buf[256];
    t_fail_new = true;
    int n = confd_pp_kpath(buf, sizeof buf, &kp);
    t_fail_new = false;
    EXPECT_EQ(n, 0);
    EXPECT_EQ(confd_errno, CONFD_ERR_MALLOC);
    EXPECT_NE(strstr(confd_lasterr(), "confd_pp_kpath"), nullptr) << confd_lasterr();
}

// Verifies that a schema answer announcing more nodes than its bytes can hold is refused before
// the node table is allocated for that count (a 64 MiB frame could otherwise ask for gigabytes).
TEST(ConfdSchemaPayload, NodeCountBeyondThePayloadIsRefusedWithoutAllocating)
{
    confd_wire::Writer w(confd_wire::Op::Ok);
    w.u32(0);      // no namespaces
    w.u32(200000); // nodes announced: far more than 256 KiB can describe
    std::string payload = w.payload();
    payload.append(256 * 1024, '\0');
    t_largest_new = 0;
    t_track_new = true;
    int rc = libconfd::install_schema_payload(payload);
    t_track_new = false;
    EXPECT_EQ(rc, CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_PROTOUSAGE);
    EXPECT_LT(t_largest_new, payload.size());
}

// Verifies the type-blind text of the value families the daemon sends or prints, where the MAAPI
// integration tests do not (enumerations, IPv4 addresses, lists, strings); a C_BUF is printed by
// its size, not up to a NUL.
TEST(ConfdPpValue, FormatsAndTruncation)
{
    unsigned char mac[3] = {0x00, 0x0a, 0xff};
    struct in6_addr a6;
    inet_pton(AF_INET6, "fe80::1", &a6);
    struct confd_snmp_oid oid = {{1, 3, 6, 1, 6, 3, 1, 1, 5, 4}, 10};
    confd_value_t v[9];
    CONFD_SET_INT32(&v[0], -12);
    CONFD_SET_UINT64(&v[1], 18446744073709551615ull);
    CONFD_SET_BIT32(&v[2], 0x30);
    CONFD_SET_BOOL(&v[3], 0);
    CONFD_SET_BINARY(&v[4], mac, 3);
    CONFD_SET_IPV6(&v[5], a6);
    CONFD_SET_OID(&v[6], &oid);
    CONFD_SET_NOEXISTS(&v[7]);
    CONFD_SET_CBUF(&v[8], "abcdef", 3);
    const char *want[9] = {"-12",     "18446744073709551615", "bits<0x30>", "false", "00:0a:ff",
                           "fe80::1", "1.3.6.1.6.3.1.1.5.4",  "noexists",   "abc"};
    for (int i = 0; i < 9; i++)
        EXPECT_EQ(pp(v[i]), want[i]);
    CONFD_SET_XMLTAG(&v[0], 123456, 1);
    if (confd_lib_tag_name == nullptr || confd_lib_tag_name(123456) == nullptr) {
        EXPECT_EQ(pp(v[0]), "tag<123456>");
    }

    // Cut as snprintf cuts: the full length returned, the buffer always terminated.
    CONFD_SET_STR(&v[0], "GigabitEthernet0/1");
    char buf[8];
    memset(buf, 'Z', sizeof buf);
    EXPECT_EQ(confd_pp_value(buf, sizeof buf, &v[0]), 18);
    EXPECT_STREQ(buf, "Gigabit");

    EXPECT_EQ(confd_pp_value(nullptr, 0, &v[0]), 18);
    buf[0] = 'Z';
    EXPECT_EQ(confd_pp_value(buf, 1, &v[0]), 18);
    EXPECT_EQ(buf[0], '\0');
    EXPECT_EQ(confd_pp_value(buf, -5, &v[0]), 18);
    EXPECT_EQ(confd_pp_value(buf, 6, &v[4]), 8); // "00:0a:ff"
    EXPECT_STREQ(buf, "00:0a");
}

// Verifies that confd_errno and the last-error text belong to the calling thread, and that the
// text is bounded.
TEST(ConfdErrors, PerThread)
{
    confd_errno = CONFD_ERR_BADPATH;
    confd_set_lasterr("main %d", 1);
    int other_errno = -1;
    std::string other_text;
    std::thread t([&] {
        other_errno = confd_errno;
        other_text = confd_lasterr();
        EXPECT_EQ(confd_lib_fail(CONFD_ERR_OS, "worker: %s", "recv"), CONFD_ERR);
        EXPECT_EQ(confd_errno, CONFD_ERR_OS);
        EXPECT_STREQ(confd_lasterr(), "worker: recv");
    });
    t.join();
    EXPECT_EQ(other_errno, 0);
    EXPECT_EQ(other_text, "");
    EXPECT_EQ(confd_errno, CONFD_ERR_BADPATH);
    EXPECT_STREQ(confd_lasterr(), "main 1");

    // An over-long text is cut to the buffer, not written past it.
    confd_set_lasterr("%s", std::string(3 * CONFD_LASTERR_LEN, 'e').c_str());
    EXPECT_EQ(strlen(confd_lasterr()), static_cast<size_t>(CONFD_LASTERR_LEN - 1));
}

// Verifies that an application built with other keypath sizes than the library is stopped at
// confd_init, and that reading a string through the buffer getter stops the program (confd_fatal's
// exit and the other getters' texts are in the providers' death tests).
TEST(ConfdErrorsDeathTest, FatalExits)
{
    // Re-executed unless the run says otherwise: under qemu user-mode emulation (the ARM build)
    // a program cannot execute itself again, and the run asks for forking without exec.
    if (getenv("GTEST_DEATH_TEST_STYLE") == nullptr) GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        confd_init_vsn_sz("app", stderr, CONFD_SILENT, CONFD_LIB_API_VSN, MAXDEPTH, MAXKEYLEN + 1),
        testing::ExitedWithCode(1), "MAXKEYLEN");
#ifndef NDEBUG
    confd_value_t v;
    CONFD_SET_STR(&v, "x");
    EXPECT_DEATH((void)CONFD_GET_BUFPTR(&v), "C_BUF");
#endif
}

} // namespace
