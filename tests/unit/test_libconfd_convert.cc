// Tests of the client library's value and keypath conversion to and from the frame codec.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>

#include "confd_lib.h"
#include "convert.h"
#include "pathtext.h"

using libconfd::ValueStore;
using namespace confd_wire;

namespace {

// Encodes v, sends it through the frame codec and decodes it again.
bool round_trip(const confd_value_t &v, confd_value_t &out, ValueStore *store)
{
    confd_wire::Value w;
    std::string err;
    if (!libconfd::to_wire(v, w, err)) return false;
    Writer wr(Op::Reply);
    wr.value(w);
    Reader rd(wr.payload());
    rd.op();
    confd_wire::Value back = rd.value();
    return rd.ok() && rd.at_end() && libconfd::from_wire(back, out, store, err);
}

std::string pp(const confd_value_t &v)
{
    char buf[512];
    confd_pp_value(buf, sizeof buf, &v);
    return buf;
}

// A wire value of type t with the number n in whichever field t uses, or with bytes.
confd_wire::Value wv(int t, int64_t n, const std::string &bytes = "")
{
    confd_wire::Value v;
    v.type = static_cast<uint8_t>(t);
    v.i = n;
    v.u = v.a = static_cast<uint32_t>(n);
    v.bytes = bytes;
    return v;
}

} // namespace

// Verifies that the value types the daemon sends or reads, where the end-to-end tests do not pin
// them (forced C_INT64 keys and MAAPI leaf-lists are there), survive the codec, in the store and,
// separately, on the heap for confd_free_value().
TEST(LibconfdConvert, ValuesRoundTripInStoreAndOnHeap)
{
    struct confd_snmp_oid oid = {{1, 3, 6, 1, 4, 4294967295u}, 6};
    struct in6_addr a6;
    inet_pton(AF_INET6, "2001:db8::1", &a6);

    std::vector<confd_value_t> vals(6);
    CONFD_SET_STR(&vals[0], "eth0");
    CONFD_SET_CBUF(&vals[1], "lan", 3);
    CONFD_SET_BIT32(&vals[2], 0x80000001u);
    CONFD_SET_OID(&vals[3], &oid);
    CONFD_SET_UINT16(&vals[4], 65535);
    CONFD_SET_IPV6(&vals[5], a6);

    ValueStore store;
    for (const confd_value_t &v : vals) {
        SCOPED_TRACE("type " + std::to_string(v.type) + " " + pp(v));
        confd_value_t s, h;
        ASSERT_TRUE(round_trip(v, s, &store));
        ASSERT_TRUE(round_trip(v, h, nullptr));
        EXPECT_EQ(s.type, v.type);
        // Strings the caller owns come back as C_BUF, as values read from ConfD do.
        EXPECT_EQ(h.type, v.type == C_STR ? C_BUF : v.type);
        EXPECT_EQ(pp(s), pp(v));
        EXPECT_EQ(pp(h), pp(v));
        confd_free_value(&h);
    }
    confd_value_t s;
    ASSERT_TRUE(round_trip(vals[1], s, &store));
    EXPECT_EQ(s.val.buf.ptr[3], '\0') << "received strings are NUL-terminated";
    ASSERT_TRUE(round_trip(vals[3], s, &store));
    EXPECT_NE(s.val.oidp, &oid);
}

// Verifies that inconsistent values (a NULL buffer with a size, an OID too long) are refused on the
// way out, and out-of-range or mis-sized ones on the way in.
TEST(LibconfdConvert, RefusesBadValues)
{
    std::string err;
    confd_wire::Value w;
    confd_value_t v;
    v.type = C_BUF;
    v.val.c_buf.ptr = nullptr;
    v.val.c_buf.size = 4;
    EXPECT_FALSE(libconfd::to_wire(v, w, err));
    struct confd_snmp_oid long_oid{};
    long_oid.len = 129;
    CONFD_SET_OID(&v, &long_oid);
    EXPECT_FALSE(libconfd::to_wire(v, w, err));

    ValueStore store;
    for (const confd_wire::Value &in : {wv(T_INT8, 300), wv(T_IPV4, 0, "abc"), wv(200, 0)}) {
        EXPECT_FALSE(libconfd::from_wire(in, v, &store, err)) << int(in.type);
        EXPECT_EQ(v.type, C_NOEXISTS);
    }
    // A heap list whose second element is bad releases the first (ASan checks).
    confd_wire::Value list = wv(T_LIST, 0);
    list.list = {wv(T_BUF, 0, "ok"), wv(T_UINT8, 999)};
    EXPECT_FALSE(libconfd::from_wire(list, v, nullptr, err));
}

// Verifies the reversed keypath layout, the C_NOEXISTS terminators after each row's keys and after
// the last row, the path's text as ConfD prints it (cut as snprintf cuts), a heap copy released
// whole (ASan), and the bounds: MAXDEPTH rows and MAXKEYLEN-1 keys fit, one more of either is an
// error; an empty row is a list entry without keys.
TEST(LibconfdConvert, KeypathLayoutBoundsAndText)
{
    // /T/tbl/entry{1 7f000001 22}/leaf, deepest first.
    const KeyPath w = {
        {wv(T_XMLTAG, 40)},
        {wv(T_ENUM_VALUE, 1), wv(T_BINARY, 0, std::string("\x7f\0\0\x01", 4)), wv(T_UINT32, 22)},
        {wv(T_XMLTAG, 48)},
        {wv(T_XMLTAG, 47)},
        {wv(T_XMLTAG, 46)}};
    ValueStore store;
    confd_hkeypath_t kp;
    memset(&kp, 0xa5, sizeof kp); // garbage where the library must write terminators
    std::string err;
    ASSERT_TRUE(libconfd::keypath_from_wire(w, kp, &store, err)) << err;
    ASSERT_EQ(kp.len, 5);
    EXPECT_EQ(kp.v[0][1].type, C_NOEXISTS);
    EXPECT_EQ(kp.v[1][3].type, C_NOEXISTS);
    EXPECT_EQ(kp.v[5][0].type, C_NOEXISTS);
    const std::string want = "/tag<46>/tag<47>/tag<48>{1 7f000001 22}/tag<40>";
    EXPECT_EQ(libconfd::kpath_text(kp, kp.len), want);
    char small[10];
    EXPECT_EQ(confd_pp_kpath(small, sizeof small, &kp), static_cast<int>(want.size()));
    EXPECT_STREQ(small, "/tag<46>/");
    EXPECT_EQ(confd_pp_kpath_len(small, 0, &kp, 1), 8); // "/tag<46>", nothing written
    auto *heap = static_cast<confd_hkeypath_t *>(malloc(sizeof(confd_hkeypath_t)));
    ASSERT_TRUE(libconfd::keypath_from_wire(w, *heap, nullptr, err));
    confd_free_hkeypath(heap);

    const confd_wire::Value t = wv(T_XMLTAG, 1), k = wv(T_BUF, 0, "key");
    KeyPath deep(MAXDEPTH, std::vector<confd_wire::Value>{t});
    ASSERT_TRUE(libconfd::keypath_from_wire(deep, kp, &store, err)) << err;
    EXPECT_EQ(kp.len, MAXDEPTH);
    deep.push_back({t});
    EXPECT_FALSE(libconfd::keypath_from_wire(deep, kp, &store, err));
    EXPECT_EQ(kp.len, 0);
    KeyPath wide = {{t}, std::vector<confd_wire::Value>(MAXKEYLEN - 1, k), {t}};
    ASSERT_TRUE(libconfd::keypath_from_wire(wide, kp, &store, err)) << err;
    EXPECT_EQ(kp.v[1][MAXKEYLEN - 1].type, C_NOEXISTS);
    wide[1].push_back(k);
    EXPECT_FALSE(libconfd::keypath_from_wire(wide, kp, nullptr, err)); // heap: nothing leaks
    ASSERT_TRUE(libconfd::keypath_from_wire({{t}, {}, {t}}, kp, &store, err));
    EXPECT_EQ(kp.v[1][0].type, C_NOEXISTS);
}
