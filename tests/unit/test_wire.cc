// Tests of the frame codec: value round trips, bounds on hostile payloads, frame I/O.
#include "wire.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace confd_wire;

namespace
{

struct SocketPair {
    int fd[2];
    SocketPair() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fd)); }
    ~SocketPair()
    {
        close(fd[0]);
        close(fd[1]);
    }
};

} // namespace

// Verifies the encodings the client library's conversions do not reach: a NULL string (an
// interface without a name in a link notification), 32-bit OID arcs and a nested list.
TEST(WireCodec, ValueRoundTrip)
{
    Value null_str, oid, list;
    null_str.type = T_STR;
    null_str.null_str = true;
    oid.type = T_OID;
    oid.oid = {1, 3, 6, 1, 4294967295u};
    list.type = T_LIST;
    list.list = {oid, null_str};
    Writer w(Op::Reply);
    w.value(null_str).value(oid).value(list);
    Reader r(w.payload());
    EXPECT_EQ(Op::Reply, r.op());
    EXPECT_TRUE(r.value().null_str);
    EXPECT_EQ(r.value().oid, oid.oid);
    Value back = r.value();
    ASSERT_EQ(back.list.size(), 2u);
    EXPECT_EQ(back.list[0].oid, oid.oid);
    EXPECT_TRUE(back.list[1].null_str);
    EXPECT_TRUE(r.ok() && r.at_end());
}

// Verifies that truncated payloads and absurd counts fail cleanly instead of over-reading or
// allocating: a keypath claiming four billion rows, an OID longer than ConfD allows, a list nested
// deeper than any real value.
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
    Writer big(Op::Reply), oid(Op::Reply), deep(Op::Reply);
    big.u32(0xffffffffu);
    oid.u8(T_OID).u32(129);
    for (int k = 0; k < 20; k++)
        deep.u8(T_LIST).u32(1);
    deep.u8(T_NOEXISTS);
    Reader r1(big.payload()), r2(oid.payload()), r3(deep.payload());
    r1.op();
    EXPECT_TRUE(r1.keypath().empty());
    for (Reader *r : {&r2, &r3}) {
        r->op();
        r->value();
    }
    EXPECT_FALSE(r1.ok() || r2.ok() || r3.ok());
}

// Verifies frame I/O: whole frames (one larger than the socket buffer, so it arrives in pieces),
// clean EOF, time-out, refusal of an oversized length prefix, and that a frame announced large
// but cut short costs what arrived, not what was announced.
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

    SocketPair sp2;
    shutdown(sp2.fd[0], SHUT_WR);
    EXPECT_EQ(0, recv_frame(sp2.fd[1], got, 1000));

    SocketPair sp3;
    std::string large(3u << 20, 'x');
    std::thread sender([&] { EXPECT_TRUE(send_frame(sp3.fd[0], large)); });
    EXPECT_EQ(1, recv_frame(sp3.fd[1], got, 1000));
    sender.join();
    EXPECT_EQ(got, large);
    const unsigned char announced[6] = {0x03, 0xff, 0xff, 0xff, 'a', 'b'};
    ASSERT_EQ(6, write(sp3.fd[0], announced, 6));
    shutdown(sp3.fd[0], SHUT_WR);
    std::string cut;
    EXPECT_EQ(-1, recv_frame(sp3.fd[1], cut, 1000));
    EXPECT_LT(cut.capacity(), size_t(1) << 16);
}
