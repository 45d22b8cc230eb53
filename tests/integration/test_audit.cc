// The audit listener of the leisobek binary against confd-emu: audit events, commits, its socket.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <set>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "daemon_env.h"
#include "sockets.h"

namespace
{

using daemon_env::Emu;
using daemon_env::kOk;
using ::testing::HasSubstr;

const char kAuditLog[] = "/tmp/snmp_audit_last_log";
const char kAuthFailure[] = "{\"name\":\"authenticationFailure\",\"varbinds\":[]}";

// The daemon with its audit listener subscribed and its start notifications cleared, or null.
std::unique_ptr<daemon_env::Daemon> start(Emu &emu)
{
    auto d = emu.start_with_daemon();
    if (!d) return d;
    bool ready = daemon_env::eventually(
        [&] { return emu.status().find("\"subscribers\":1,") != std::string::npos; });
    EXPECT_TRUE(ready) << "the audit listener did not subscribe: " << emu.status() << d->err();
    emu.wait_notifications(2);
    emu.cli({"notifications", "--clear"});
    if (!ready) d.reset();
    return d;
}

// Only the SNMP authentication symbol raises authenticationFailure; a commit rewrites an existing
// audit line whole as its asctime and user, and creates none.
ISOLATED_TEST(AuditListenerTest, AuthFailureAndAuditLine)
{
    Emu emu;
    auto d = start(emu);
    ASSERT_TRUE(d);
    for (const char *symbol : {"LOGIN_REJECTED", "WEB_COMMIT", "COMMIT_INFO", "3"})
        EXPECT_EQ(emu.cli({"audit", symbol}), kOk) << symbol;
    EXPECT_EQ(emu.cli({"audit", "SNMP_AUTHENTICATION_FAILED", "--user", "public", "--msg",
                       "SNMP authentication failed: 10.0.0.9"}),
              kOk);
    // The events are handled in order: anything the others raised would be logged first.
    std::string once = std::string("[") + kAuthFailure + "]";
    EXPECT_EQ(emu.wait_notifications(1), once);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(emu.notifications(), once);

    EXPECT_EQ(emu.cli({"commit", "--user", "alice", "/system/contact=ops@home.lan"}), kOk);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_NE(access(kAuditLog, F_OK), 0);

    daemon_env::write_file(kAuditLog, "an older and much longer line\nand a second one\n");
    time_t before = time(nullptr);
    EXPECT_EQ(emu.cli({"commit", "--user", "bob", "/system/contact=noc@home.lan"}), kOk);
    time_t after = time(nullptr);
    // The line is written after the commit is answered.
    std::string line;
    EXPECT_TRUE(daemon_env::eventually([&] {
        line = harness::read_file(kAuditLog);
        return line.find("bob") != std::string::npos;
    })) << line;
    std::set<std::string> expected;
    for (time_t t = before; t <= after; t++) {
        struct tm parts;
        char text[64];
        localtime_r(&t, &parts);
        asctime_r(&parts, text);
        std::string when(text);
        expected.insert(when.substr(0, when.find('\n')) + " user:bob \n");
    }
    EXPECT_TRUE(expected.count(line)) << "[" << line << "]";
    EXPECT_TRUE(d->running()) << d->err();
}

// Commit diffs longer than the printer's buffers are iterated and answered; a closed notification
// socket ends the daemon with 1.
ISOLATED_TEST(AuditListenerTest, CommitOfListEntriesIsIteratedAndAnswered)
{
    Emu emu;
    auto d = start(emu);
    ASSERT_TRUE(d);
    std::string huge(10000, 'w');
    EXPECT_EQ(emu.cli({"commit", "--user", "carol", "/dhcp-pools/pool{1}/interface=" + huge,
                       "/dhcp-pools/pool{3}", "/dhcp-pools/pool{3}/name=lab",
                       "/dhcp-pools/pool{3}/interface=" + huge, "!/dhcp-pools/pool{2}",
                       "/dhcp-pools/pool{1}@annotation=" + huge, "/system/contact@tags=ops"}),
              kOk);
    EXPECT_EQ(emu.cli({"commit", "!/dhcp-pools/pool{1}@annotation"}), kOk);
    std::string st = emu.status();
    EXPECT_THAT(st, HasSubstr("\"diff_notifications_done\":2,"));
    // The daemon's own attaches come first; the emulator's total is the one after them.
    EXPECT_THAT(st, HasSubstr("\"maapi_attaches\":2,\"subscribers\""));
    EXPECT_EQ(emu.cli({"get", "/dhcp-pools/pool{3}/name"}),
              "{\"type\":\"C_BUF\",\"value\":\"lab\"}");
    EXPECT_EQ(emu.cli({"get", "/dhcp-pools/pool{2}/name"}), "{\"reply\":\"not-found\"}");
    EXPECT_TRUE(d->running()) << d->err();

    EXPECT_EQ(emu.cli({"drop", "notifications"}), kOk);
    EXPECT_EQ(d->wait_exit(), 1) << d->err();
}

// Notifications from the listener thread and walks answered by the main thread arrive whole.
ISOLATED_TEST(AuditListenerConcurrentTest, AuthFailuresDuringWalksArriveWhole)
{
    Emu emu;
    auto d = start(emu);
    ASSERT_TRUE(d);
    sockets::unique_fd listener = sockets::listen_on("127.0.0.1", 7070);
    sockets::unique_fd client = sockets::connect_to("127.0.0.1", 7070);
    sockets::unique_fd udp(sockets::open_udp("127.0.0.1", 7071));
    ASSERT_TRUE(listener && client && udp);

    constexpr int kSenders = 2, kPerSender = 25;
    std::atomic<int> senders_left{kSenders};
    std::atomic<int> bad_walks{0}, walks{0};
    std::vector<std::thread> threads;
    for (int s = 0; s < kSenders; s++)
        threads.emplace_back([&] {
            for (int i = 0; i < kPerSender; i++)
                emu.cli({"audit", "SNMP_AUTHENTICATION_FAILED"});
            senders_left--;
        });
    threads.emplace_back([&] {
        const char *tables[] = {"/TCP-MIB/tcpConnectionTable/tcpConnectionEntry",
                                "/UDP-MIB/udpEndpointTable/udpEndpointEntry"};
        for (int i = 0; senders_left > 0 || i < 2; i++, walks++)
            bad_walks += emu.walk(tables[i % 2]).empty();
    });
    for (std::thread &t : threads)
        t.join();
    std::string all = "[";
    for (int i = 0; i < kSenders * kPerSender; i++)
        all += (i ? "," : "") + std::string(kAuthFailure);
    EXPECT_EQ(emu.wait_notifications(kSenders * kPerSender), all + "]");
    EXPECT_EQ(bad_walks.load(), 0) << "of " << walks.load() << " walks";
    EXPECT_TRUE(d->running()) << d->err();
    EXPECT_THAT(d->err(), ::testing::Not(HasSubstr("ThreadSanitizer")));
}

} // namespace
