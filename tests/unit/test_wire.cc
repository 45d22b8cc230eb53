// Tests of the frame codec: bounds on hostile payloads, frame I/O.
#include "wire.h"

#include <gtest/gtest.h>

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

// Verifies frame I/O where the end-to-end traffic does not reach (it covers plain frames, EOF and
// time-outs): a frame larger than the socket buffer arrives whole, an oversized length prefix is
// refused, and a frame announced large but cut short costs what arrived, not what was announced.
TEST(WireFrames, LargeOversizedAndCutShortFrames)
{
    SocketPair sp;
    std::string got, large(3u << 20, 'x');
    std::thread sender([&] { EXPECT_TRUE(send_frame(sp.fd[0], large)); });
    EXPECT_EQ(1, recv_frame(sp.fd[1], got, 1000));
    sender.join();
    EXPECT_EQ(got, large);
    const unsigned char huge[4] = {0xff, 0xff, 0xff, 0xff};
    ASSERT_EQ(4, write(sp.fd[0], huge, 4));
    EXPECT_EQ(-1, recv_frame(sp.fd[1], got, 1000));

    SocketPair cut_short;
    const unsigned char announced[6] = {0x03, 0xff, 0xff, 0xff, 'a', 'b'};
    ASSERT_EQ(6, write(cut_short.fd[0], announced, 6));
    shutdown(cut_short.fd[0], SHUT_WR);
    std::string cut;
    EXPECT_EQ(-1, recv_frame(cut_short.fd[1], cut, 1000));
    EXPECT_LT(cut.capacity(), size_t(1) << 16);
}

// Verifies that a frame whose body arrives after the receive time-out has run out is still read
// whole once its header is in, so the stream stays in step (the server waits for replies with
// time-outs).
TEST(WireFrames, FrameStraddlingTheTimeoutStaysWhole)
{
    SocketPair sp;
    Writer w(Op::Reply);
    w.str(std::string(100, 'x'));
    std::string frame =
        std::string("\0\0\0", 3) + static_cast<char>(w.payload().size()) + w.payload();
    ASSERT_EQ(write(sp.fd[0], frame.data(), 6), 6);
    std::thread late([&] {
        usleep(150 * 1000);
        EXPECT_EQ(write(sp.fd[0], frame.data() + 6, frame.size() - 6),
                  static_cast<ssize_t>(frame.size() - 6));
    });
    std::string got;
    EXPECT_EQ(recv_frame(sp.fd[1], got, 50), 1);
    EXPECT_EQ(got, w.payload());
    late.join();
}

// Verifies that the read-ahead reader hands out exactly the frames sent, however the stream is cut
// into recvs: several frames in one write, a frame trickling in a byte at a time, a frame larger
// than its first buffer; and that it says when a whole frame is already buffered.
TEST(WireFrames, ReadAheadKeepsFramesWholeAcrossAnyCut)
{
    auto frame = [](const std::string &p) {
        uint32_t n = static_cast<uint32_t>(p.size());
        return std::string{char(n >> 24), char(n >> 16), char(n >> 8), char(n)} + p;
    };
    const std::vector<std::string> sent = {"one", "", std::string(70000, 'b'), "three"};
    std::string stream;
    for (const std::string &p : sent) stream += frame(p);
    for (size_t piece : {stream.size(), size_t(1), size_t(4093)}) {
        SocketPair sp;
        std::thread writer([&] {
            for (size_t at = 0; at < stream.size(); at += piece)
                ASSERT_GT(write(sp.fd[0], stream.data() + at, std::min(piece, stream.size() - at)),
                          0);
            shutdown(sp.fd[0], SHUT_WR);
        });
        FrameReader in;
        std::string got;
        for (const std::string &p : sent) {
            ASSERT_EQ(in.next(sp.fd[1], got, 2000), 1) << "piece " << piece;
            EXPECT_EQ(got, p) << "piece " << piece;
        }
        EXPECT_EQ(in.next(sp.fd[1], got, 2000), 0);
        EXPECT_FALSE(in.has_frame());
        writer.join();
    }
    SocketPair sp;
    std::string two = frame("a") + frame("b") + std::string("\xff\xff\xff\xff", 4);
    ASSERT_EQ(write(sp.fd[0], two.data(), two.size()), ssize_t(two.size()));
    FrameReader in;
    std::string got;
    ASSERT_EQ(in.next(sp.fd[1], got), 1);
    EXPECT_TRUE(in.has_frame()) << "the second frame came with the first";
    ASSERT_EQ(in.next(sp.fd[1], got), 1);
    EXPECT_EQ(got, "b");
    EXPECT_EQ(in.next(sp.fd[1], got), -1) << "an oversized length";
    EXPECT_EQ(errno, EMSGSIZE);
}
