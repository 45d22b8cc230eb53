// Tests of the client library's value and keypath conversion to and from the frame codec.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "confd_lib.h"
#include "convert.h"
#include "pathtext.h"

using libconfd::ValueStore;

namespace {

// Encodes v, sends it through the frame codec and decodes it again.
bool round_trip(const confd_value_t &v, confd_value_t &out, ValueStore *store)
{
    confd_wire::Value w;
    std::string err;
    if (!libconfd::to_wire(v, w, err))
        return false;
    confd_wire::Writer wr(confd_wire::Op::Reply);
    wr.value(w);
    confd_wire::Reader rd(wr.payload());
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

confd_value_t tag(uint32_t t)
{
    confd_value_t v;
    CONFD_SET_XMLTAG(&v, t, 99);
    return v;
}

} // namespace

// Verifies that every wire-capable type survives the codec, with the value
// living in the store and, separately, on the heap for confd_free_value().
TEST(LibconfdConvert, ValuesRoundTripInStoreAndOnHeap)
{
    static const unsigned char bin[] = {0x7f, 0, 0, 1};
    struct confd_snmp_oid oid = {{1, 3, 6, 1, 2, 1, 1, 3}, 8};
    confd_value_t items[2];
    CONFD_SET_INT32(&items[0], -5);
    CONFD_SET_STR(&items[1], "x y");
    struct in6_addr a6;
    inet_pton(AF_INET6, "2001:db8::1", &a6);
    struct confd_ipv4_prefix p4;
    inet_pton(AF_INET, "10.1.0.0", &p4.ip);
    p4.len = 16;
    struct confd_decimal64 d64 = {-12345, 3};
    struct confd_identityref idr = {11, 22};

    std::vector<confd_value_t> vals(22);
    CONFD_SET_NOEXISTS(&vals[0]);
    CONFD_SET_XMLTAG(&vals[1], 1234, 5678);
    CONFD_SET_STR(&vals[2], "eth0");
    CONFD_SET_CBUF(&vals[3], "lan", 3);
    CONFD_SET_BINARY(&vals[4], bin, sizeof bin);
    CONFD_SET_INT8(&vals[5], -128);
    CONFD_SET_INT64(&vals[6], INT64_MIN);
    CONFD_SET_UINT16(&vals[7], 65535);
    CONFD_SET_UINT64(&vals[8], UINT64_MAX);
    CONFD_SET_DOUBLE(&vals[9], 2.5);
    struct in_addr lo;
    lo.s_addr = htonl(0x7f000001);
    CONFD_SET_IPV4(&vals[10], lo);
    CONFD_SET_IPV6(&vals[11], a6);
    CONFD_SET_BOOL(&vals[12], 1);
    CONFD_SET_ENUM_VALUE(&vals[13], -3);
    CONFD_SET_BIT64(&vals[14], 0x8000000000000001ull);
    CONFD_SET_OID(&vals[15], &oid);
    CONFD_SET_LIST(&vals[16], items, 2);
    CONFD_SET_IPV4PREFIX(&vals[17], p4);
    CONFD_SET_DECIMAL64(&vals[18], d64);
    CONFD_SET_IDENTITYREF(&vals[19], idr);
    CONFD_SET_DEFAULT(&vals[20]);
    CONFD_SET_UINT32(&vals[21], 4000000000u);

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
    ASSERT_TRUE(round_trip(vals[3], s, &store));
    EXPECT_EQ(s.val.buf.ptr[3], '\0') << "received strings are NUL-terminated";
    ASSERT_TRUE(round_trip(vals[15], s, &store));
    EXPECT_EQ(s.val.oidp->len, 8);
    EXPECT_NE(s.val.oidp, &oid);
}

// Verifies that values the wire cannot carry, or that are inconsistent, are
// refused on the way out, and out-of-range or mis-sized ones on the way in.
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
    v.type = C_QNAME;
    EXPECT_FALSE(libconfd::to_wire(v, w, err));
    EXPECT_NE(err.find("cannot be sent"), std::string::npos);

    ValueStore store;
    confd_wire::Value in;
    in.type = confd_wire::T_INT8;
    in.i = 300;
    EXPECT_FALSE(libconfd::from_wire(in, v, &store, err));
    EXPECT_EQ(v.type, C_NOEXISTS);
    in = confd_wire::Value();
    in.type = confd_wire::T_IPV4;
    in.bytes = "abc";
    EXPECT_FALSE(libconfd::from_wire(in, v, &store, err));
    in = confd_wire::Value();
    in.type = 200;
    EXPECT_FALSE(libconfd::from_wire(in, v, &store, err));
    // A heap list whose second element is bad releases the first (ASan checks).
    in = confd_wire::Value();
    in.type = confd_wire::T_LIST;
    in.list.resize(2);
    in.list[0].type = confd_wire::T_BUF;
    in.list[0].bytes = "ok";
    in.list[1].type = confd_wire::T_UINT8;
    in.list[1].u = 999;
    EXPECT_FALSE(libconfd::from_wire(in, v, nullptr, err));
}

// Verifies the reversed keypath layout, the C_NOEXISTS terminators after each
// row's keys and after the last row, and that the path prints as ConfD does.
TEST(LibconfdConvert, KeypathRoundTripWithTerminators)
{
    // /T/tbl/entry{1 7f000001 22}/leaf, deepest first.
    static const unsigned char addr[] = {0x7f, 0, 0, 1};
    confd_wire::KeyPath w(5);
    w[0].resize(1);
    w[0][0].type = confd_wire::T_XMLTAG;
    w[0][0].a = 40;
    w[1].resize(3);
    w[1][0].type = confd_wire::T_ENUM_VALUE;
    w[1][0].i = 1;
    w[1][1].type = confd_wire::T_BINARY;
    w[1][1].bytes.assign(reinterpret_cast<const char *>(addr), 4);
    w[1][2].type = confd_wire::T_UINT32;
    w[1][2].u = 22;
    for (int i = 2; i < 5; i++) {
        w[i].resize(1);
        w[i][0].type = confd_wire::T_XMLTAG;
        w[i][0].a = 50 - i;
    }
    ValueStore store;
    confd_hkeypath_t kp;
    memset(&kp, 0xa5, sizeof kp); // garbage where the library must write terminators
    std::string err;
    ASSERT_TRUE(libconfd::keypath_from_wire(w, kp, &store, err)) << err;
    ASSERT_EQ(kp.len, 5);
    EXPECT_EQ(CONFD_GET_XMLTAG(&kp.v[0][0]), 40u);
    EXPECT_EQ(kp.v[0][1].type, C_NOEXISTS);
    EXPECT_EQ(CONFD_GET_ENUM_VALUE(&kp.v[1][0]), 1);
    EXPECT_EQ(CONFD_GET_BINARY_SIZE(&kp.v[1][1]), 4u);
    EXPECT_EQ(CONFD_GET_UINT32(&kp.v[1][2]), 22u);
    EXPECT_EQ(kp.v[1][3].type, C_NOEXISTS);
    EXPECT_EQ(kp.v[5][0].type, C_NOEXISTS);
    const std::string want = "/tag<46>/tag<47>/tag<48>{1 7f000001 22}/tag<40>";
    EXPECT_EQ(libconfd::kpath_text(kp, kp.len), want);
    char small[10];
    int n = confd_pp_kpath(small, sizeof small, &kp);
    EXPECT_EQ(n, static_cast<int>(want.size()));
    EXPECT_STREQ(small, "/tag<46>/");
    EXPECT_EQ(confd_pp_kpath_len(small, 0, &kp, 1), 8); // "/tag<46>", nothing written

    confd_wire::KeyPath again;
    ASSERT_TRUE(libconfd::keypath_to_wire(kp, again, err));
    ASSERT_EQ(again.size(), w.size());
    EXPECT_EQ(again[1].size(), 3u);
    EXPECT_EQ(again[1][1].bytes, w[1][1].bytes);

    // Heap mode: confd_free_hkeypath on a copy releases everything (ASan).
    auto *heap = static_cast<confd_hkeypath_t *>(malloc(sizeof(confd_hkeypath_t)));
    ASSERT_TRUE(libconfd::keypath_from_wire(w, *heap, nullptr, err));
    confd_free_hkeypath(heap);
}

// Verifies the depth and width limits: MAXDEPTH rows and MAXKEYLEN-1 keys fit,
// one more of either is an error; an empty row is a list entry without keys.
TEST(LibconfdConvert, KeypathBounds)
{
    confd_wire::Value t;
    t.type = confd_wire::T_XMLTAG;
    t.a = 1;
    confd_wire::Value k;
    k.type = confd_wire::T_BUF;
    k.bytes = "key";
    ValueStore store;
    confd_hkeypath_t kp;
    std::string err;

    confd_wire::KeyPath deep(MAXDEPTH, std::vector<confd_wire::Value>{t});
    ASSERT_TRUE(libconfd::keypath_from_wire(deep, kp, &store, err)) << err;
    EXPECT_EQ(kp.len, MAXDEPTH);
    deep.push_back({t});
    EXPECT_FALSE(libconfd::keypath_from_wire(deep, kp, &store, err));
    EXPECT_EQ(kp.len, 0);

    confd_wire::KeyPath wide = {{t}, std::vector<confd_wire::Value>(MAXKEYLEN - 1, k), {t}};
    ASSERT_TRUE(libconfd::keypath_from_wire(wide, kp, &store, err)) << err;
    EXPECT_EQ(kp.v[1][MAXKEYLEN - 1].type, C_NOEXISTS);
    wide[1].push_back(k);
    EXPECT_FALSE(libconfd::keypath_from_wire(wide, kp, nullptr, err)); // heap: nothing leaks

    confd_wire::KeyPath wildcard = {{t}, {}, {t}};
    ASSERT_TRUE(libconfd::keypath_from_wire(wildcard, kp, &store, err));
    EXPECT_EQ(kp.v[1][0].type, C_NOEXISTS);

    confd_hkeypath_t bad;
    bad.len = MAXDEPTH + 1;
    confd_wire::KeyPath out;
    EXPECT_FALSE(libconfd::keypath_to_wire(bad, out, err));
}

// Verifies the ConfD path format escapes used by cs_node_cd and MAAPI paths.
TEST(LibconfdConvert, PathFormatEscapes)
{
    auto fmt = [](const char *f, ...) {
        va_list ap;
        va_start(ap, f);
        std::string out, err;
        bool ok = libconfd::format_path(out, f, ap, err);
        va_end(ap);
        return ok ? out : "ERR:" + err;
    };
    confd_value_t keys[2];
    CONFD_SET_UINT32(&keys[0], 5);
    CONFD_SET_STR(&keys[1], "a b");
    struct in_addr a4;
    a4.s_addr = htonl(0xc0a80001);
    confd_hkeypath_t kp;
    kp.len = 2;
    kp.v[0][0] = tag(2);
    kp.v[0][1].type = C_NOEXISTS;
    kp.v[1][0] = tag(1);
    kp.v[1][1].type = C_NOEXISTS;
    EXPECT_EQ(fmt("/t/e{%d %u}/%s", -1, 7u, "leaf"), "/t/e{-1 7}/leaf");
    EXPECT_EQ(fmt("/t/e{%*x}", 2, keys), "/t/e{5 \"a b\"}");
    EXPECT_EQ(fmt("/r{%ip4}/%i%%", &a4, 3), "/r{192.168.0.1}/3%");
    EXPECT_EQ(fmt("%h/x", &kp), "/tag<1>/tag<2>/x");
    EXPECT_EQ(fmt("%*h", 1, &kp), "/tag<1>");
    EXPECT_EQ(fmt("/a{%x}", &keys[0]), "/a{5}");
    EXPECT_EQ(fmt("/a/%q"), "ERR:unknown conversion in path format: %q");
    EXPECT_EQ(fmt("/a/%s", static_cast<const char *>(nullptr)), "ERR:NULL string in path");
}

// Verifies that a frame whose body arrives after the receive time-out has
// run out is still read whole once its header is in, so the stream stays in
// step (the server waits for replies with time-outs).
TEST(LibconfdConvert, FrameStraddlingTheTimeoutStaysWhole)
{
    int sp[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sp), 0);
    confd_wire::Writer w(confd_wire::Op::Reply);
    w.str(std::string(100, 'x'));
    std::string frame = std::string("\0\0\0", 3) + static_cast<char>(w.payload().size()) + w.payload();
    ASSERT_EQ(write(sp[0], frame.data(), 6), 6);
    std::thread late([&] {
        usleep(150 * 1000);
        EXPECT_EQ(write(sp[0], frame.data() + 6, frame.size() - 6),
                  static_cast<ssize_t>(frame.size() - 6));
    });
    std::string got;
    EXPECT_EQ(confd_wire::recv_frame(sp[1], got, 50), 1);
    EXPECT_EQ(got, w.payload());
    late.join();
    close(sp[0]);
    close(sp[1]);
}
