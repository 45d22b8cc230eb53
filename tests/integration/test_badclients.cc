// confd-emu facing clients that break the IPC protocol: each is closed with a logged reason while
// the command-line client keeps being served.
#include <gtest/gtest.h>

#include <chrono>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <vector>

#include "harness.h"
#include "sockets.h"
#include "wire.h"

namespace
{

using sockets::unique_fd;

std::string frame(const std::string &payload)
{
    uint32_t n = static_cast<uint32_t>(payload.size());
    std::string f = {char(n >> 24), char(n >> 16), char(n >> 8), char(n)};
    return f + payload;
}

std::string cli_hello()
{
    confd_wire::Writer w(confd_wire::Op::Hello);
    w.u8(static_cast<uint8_t>(confd_wire::ConnKind::Cli));
    return frame(w.payload());
}

// True once the server has closed fd (end-of-file or reset after whatever it sent), within ms.
bool closed_by_server(int fd, int ms)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    char buf[65536];
    while (std::chrono::steady_clock::now() < end) {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0) continue;
        ssize_t r = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
        if (r == 0 || (r < 0 && errno != EAGAIN && errno != EINTR)) return true;
    }
    return false;
}

TEST(EmuBadClientTest, EveryOffenderIsClosedWhileTheCliIsServed)
{
    harness::Emu emu({"--timeout-ms", "1000"});
    std::string err;
    ASSERT_TRUE(emu.start(err)) << err;
    const uint16_t port = static_cast<uint16_t>(emu.port());

    struct Offender {
        const char *name;
        std::string sends;
        const char *logged; // the reason confd-emu gives when it closes the connection
        unique_fd fd;
    };
    std::vector<Offender> bad;
    bad.push_back({"oversized frame", std::string("\x7f\xff\xff\xff", 4), "Message too long", {}});
    bad.push_back({"garbage", frame("\x42garbage"), "did not open with a hello", {}});
    bad.push_back(
        {"half a frame", cli_hello() + std::string("\0\0\1\0hal", 7), "Connection timed out", {}});
    bad.push_back({"silent", "", "no hello", {}});
    for (Offender &o : bad) {
        o.fd = sockets::connect_to("127.0.0.1", port);
        ASSERT_TRUE(o.fd) << o.name;
        ASSERT_EQ(send(o.fd.get(), o.sends.data(), o.sends.size(), 0), ssize_t(o.sends.size()));
    }

    // A client that sends commands and never reads an answer (each answer echoes its 60 kB path,
    // so the socket buffers fill soon): the emulator's send times out and it is dropped.
    unique_fd deaf = sockets::connect_to("127.0.0.1", port);
    ASSERT_TRUE(deaf);
    const std::string hello = cli_hello();
    send(deaf.get(), hello.data(), hello.size(), 0);
    fcntl(deaf.get(), F_SETFL, O_NONBLOCK);
    confd_wire::Writer w(confd_wire::Op::Cli);
    w.u32(2).str("get").str("/" + std::string(60000, 'x'));
    const std::string command = frame(w.payload());
    size_t sent = 0;
    for (int i = 0;
         i < 200 && harness::count_of(emu.log(), "send: Resource temporarily unavailable") == 0;) {
        ssize_t r = send(deaf.get(), command.data() + sent, command.size() - sent, MSG_NOSIGNAL);
        if (r > 0) sent = (sent + size_t(r)) % command.size();
        if (r <= 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            i++;
        }
    }

    // Hundreds of idle connections at once.
    std::vector<unique_fd> crowd;
    for (int i = 0; i < 300; i++)
        crowd.push_back(sockets::connect_to("127.0.0.1", port));

    // While all of them hold on, the command-line client is served.
    harness::CmdResult st = emu.cli({"status"}, 5000);
    EXPECT_EQ(st.exit_code, 0) << st.err;

    for (Offender &o : bad)
        EXPECT_TRUE(closed_by_server(o.fd.get(), 8000)) << o.name;
    EXPECT_TRUE(closed_by_server(deaf.get(), 8000)) << "a client that never reads";
    for (unique_fd &c : crowd)
        ASSERT_TRUE(closed_by_server(c.get(), 4000));

    std::string log = emu.log();
    for (const Offender &o : bad)
        EXPECT_GE(harness::count_of(log, o.logged), 1u) << o.name << "\n" << log;
    EXPECT_GE(harness::count_of(log, "send: Resource temporarily unavailable"), 1u) << log;
    EXPECT_GE(harness::count_of(log, "no hello"), 301u) << "every idle connection, with its reason";
    st = emu.cli({"status"}, 5000);
    EXPECT_EQ(st.exit_code, 0) << st.err;
}

} // namespace
