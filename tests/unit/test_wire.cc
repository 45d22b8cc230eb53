// Tests of the frame codec: value round trips, bounds on hostile payloads, frame I/O.
#include "wire.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace confd_wire;

namespace {

struct SocketPair {
    int fd[2];
    SocketPair() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fd)); }
    ~SocketPair()
    {
        close(fd[0]);
        close(fd[1]);
    }
};

Value make(uint8_t t) { Value v; v.type = t; return v; }

} // namespace

// Verifies that every value family the daemon replies survives encoding, with 64-bit extremes intact.
TEST(WireCodec, ValueRoundTrip)
{
    std::vector<Value> in;
    Value v = make(T_INT32); v.i = -1; in.push_back(v);
    v = make(T_UINT64); v.u = ~0ull; in.push_back(v);
    v = make(T_ENUM_VALUE); v.i = 2129706804; in.push_back(v);
    v = make(T_BINARY); v.bytes = std::string("\x7f\0\0\x01", 4); in.push_back(v);
    v = make(T_STR); v.null_str = true; in.push_back(v);
    v = make(T_XMLTAG); v.a = 0x7fffffff; v.b = 17; in.push_back(v);
    v = make(T_OID); v.oid = {1, 3, 6, 1, 4294967295u}; in.push_back(v);
    v = make(T_DOUBLE); v.d = -0.5; in.push_back(v);
    v = make(T_LIST); v.list = {in[0], in[3]}; in.push_back(v);

    Writer w(Op::Reply);
    for (const Value &x : in)
        w.value(x);
    Reader r(w.payload());
    EXPECT_EQ(Op::Reply, r.op());
    for (const Value &x : in) {
        Value y = r.value();
        EXPECT_EQ(x.type, y.type);
        EXPECT_EQ(x.i, y.i);
        EXPECT_EQ(x.u, y.u);
        EXPECT_EQ(x.d, y.d);
        EXPECT_EQ(x.a, y.a);
        EXPECT_EQ(x.b, y.b);
        EXPECT_EQ(x.bytes, y.bytes);
        EXPECT_EQ(x.oid, y.oid);
        EXPECT_EQ(x.null_str, y.null_str);
        EXPECT_EQ(x.list.size(), y.list.size());
    }
    EXPECT_TRUE(r.ok());
    EXPECT_TRUE(r.at_end());
}

// Verifies that truncated payloads and absurd counts fail cleanly instead of over-reading or allocating.
TEST(WireCodec, HostilePayloads)
{
    Writer w(Op::DataCall);
    w.str("tcp_status");
    std::string p = w.payload();
    for (size_t cut = 0; cut < p.size(); cut++) {
        Reader r(std::string_view(p).substr(0, cut));
        r.op();
        r.str();
        EXPECT_FALSE(r.ok()) << "cut at " << cut;
    }

    // A keypath claiming four billion rows, an OID longer than ConfD allows,
    // a list nested deeper than any real value.
    Writer big(Op::Reply);
    big.u32(0xffffffffu);
    Reader r1(big.payload());
    r1.op();
    EXPECT_TRUE(r1.keypath().empty());
    EXPECT_FALSE(r1.ok());

    Writer oid(Op::Reply);
    oid.u8(T_OID).u32(129);
    Reader r2(oid.payload());
    r2.op();
    r2.value();
    EXPECT_FALSE(r2.ok());

    Writer deep(Op::Reply);
    for (int k = 0; k < 20; k++)
        deep.u8(T_LIST).u32(1);
    deep.u8(T_NOEXISTS);
    Reader r3(deep.payload());
    r3.op();
    r3.value();
    EXPECT_FALSE(r3.ok());
}

// Verifies frame I/O: whole frames, clean EOF, time-out, and refusal of an oversized length prefix.
TEST(WireFrames, SendReceiveEofTimeout)
{
    SocketPair sp;
    Writer w(Op::Hello);
    w.u8(static_cast<uint8_t>(ConnKind::Cli));
    ASSERT_TRUE(send_frame(sp.fd[0], w.payload()));
    std::string got;
    ASSERT_EQ(1, recv_frame(sp.fd[1], got, 1000));
    EXPECT_EQ(w.payload(), got);

    EXPECT_EQ(-1, recv_frame(sp.fd[1], got, 50));
    EXPECT_EQ(ETIMEDOUT, errno);

    const unsigned char huge[4] = {0xff, 0xff, 0xff, 0xff};
    ASSERT_EQ(4, write(sp.fd[0], huge, 4));
    EXPECT_EQ(-1, recv_frame(sp.fd[1], got, 1000));

    shutdown(sp.fd[0], SHUT_WR);
    SocketPair sp2;
    shutdown(sp2.fd[0], SHUT_WR);
    EXPECT_EQ(0, recv_frame(sp2.fd[1], got, 1000));
}

// Verifies that frames sent concurrently by several threads on one socket arrive whole and in one piece each.
TEST(WireFrames, ConcurrentSendersDoNotInterleave)
{
    SocketPair sp;
    constexpr int kThreads = 3, kFrames = 200;
    std::vector<std::thread> ts;
    for (int t = 0; t < kThreads; t++)
        ts.emplace_back([&, t] {
            for (int k = 0; k < kFrames; k++) {
                Writer w(Op::SnmpNotif);
                w.u32(t).str(std::string(3000 + t * 1000, char('a' + t)));
                send_frame(sp.fd[0], w.payload());
            }
        });
    int seen[kThreads] = {};
    for (int k = 0; k < kThreads * kFrames; k++) {
        std::string p;
        ASSERT_EQ(1, recv_frame(sp.fd[1], p, 5000));
        Reader r(p);
        ASSERT_EQ(Op::SnmpNotif, r.op());
        uint32_t t = r.u32();
        ASSERT_LT(t, uint32_t(kThreads));
        std::string body = r.str();
        ASSERT_TRUE(r.ok() && r.at_end());
        EXPECT_EQ(std::string(3000 + t * 1000, char('a' + t)), body);
        seen[t]++;
    }
    for (auto &th : ts)
        th.join();
    for (int t = 0; t < kThreads; t++)
        EXPECT_EQ(kFrames, seen[t]);
}
