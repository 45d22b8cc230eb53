// The leisobek binary end to end against confd-emu: start-up, notifications, main loop.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <regex>
#include <string>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "daemon_env.h"

namespace
{

using daemon_env::Daemon;
using daemon_env::Emu;
using daemon_env::kOk;
using ::testing::HasSubstr;
using ::testing::Not;
namespace fs = std::filesystem;

constexpr const char kMarker[] = "/mnt/configcert/config/snmpbootstat";
const char kTcpScalar[] = "/TCP-MIB/tcp/tcpInSegs";

std::string notification_log(std::initializer_list<const char *> names)
{
    std::string log = "[";
    for (const char *n : names)
        log += std::string(log.size() > 1 ? "," : "") + "{\"name\":\"" + n + "\",\"varbinds\":[]}";
    return log + "]";
}

// A plain start: ucdStart then coldStart sent at once, every callpoint in start-up order, and each
// transaction attached on init and detached on finish.
ISOLATED_TEST(DaemonStartTest, NoSwitchesSendsUcdStartThenColdStart)
{
    Emu emu;
    auto d = emu.start_with_daemon();
    ASSERT_TRUE(d);
    EXPECT_EQ(emu.notifications(), notification_log({"ucdStart", "coldStart"}));
    std::string st = emu.status();
    EXPECT_THAT(st,
                HasSubstr("\"callpoints\":[\"ifstatus-snmp\",\"ifentries-snmp\",\"if-state-snmp\","
                          "\"tcp_status\",\"udp_status\",\"ip6_scope_zone_idx\",\"ip_def_router\","
                          "\"ip_traf_status\",\"ip_traf_system_stats\",\"ip_traf_if_stats\","
                          "\"ip_address_prefix_status\",\"icmp_stat_status\",\"icmp_msg_status\","
                          "\"ip_status\",\"ip_address_status\",\"ipv6_router_status\","
                          "\"ip-net-to-physical-stats\",\"memory_stats\",\"sys_stats\","
                          "\"version_info\",\"process_info\",\"entphyentry-snmp\","
                          "\"zamrel_model_mib_common\",\"zamrel_model_mib_basicmgt\","
                          "\"zamrel_model_mib_advancemgt\",\"zamrel_model_mib_mgtcommunitytable\","
                          "\"zamrel_model_mib_trapmgrtable\","
                          "\"zamrel_model_mib_wandnsnetaddresstable\","
                          "\"zamrel_model_mib_wanconnectiontable\",\"snmp_lldp_stats\"]"));
    EXPECT_THAT(st, HasSubstr("\"trans_callbacks\":true"));
    EXPECT_THAT(st, HasSubstr("\"workers\":1,\"notification_contexts\":1"));
    EXPECT_FALSE(fs::exists(kMarker));

    emu.cli({"walk", "/TCP-MIB/tcpConnectionTable/tcpConnectionEntry"});
    emu.cli({"get", kTcpScalar});
    st = emu.status();
    EXPECT_THAT(st, HasSubstr("\"open_transactions\":0,"));
    EXPECT_THAT(st, HasSubstr("\"maapi_attaches\":2,\"maapi_detaches\":2"));
    EXPECT_TRUE(d->running()) << d->err();
}

// A boot-state marker, empty or holding any text, gives warmStart and is removed.
ISOLATED_TEST(DaemonStartTest, MarkerGivesWarmStartAndIsRemoved)
{
    Emu emu;
    ASSERT_TRUE(emu.start());
    fs::create_directories("/mnt/configcert/config");
    for (const char *text : {"", "coldstart please\n"}) {
        SCOPED_TRACE(text);
        daemon_env::write_file(kMarker, text);
        Daemon d({});
        EXPECT_EQ(emu.wait_notifications(2), notification_log({"ucdStart", "warmStart"}));
        ASSERT_TRUE(emu.wait_registered()) << d.err();
        EXPECT_FALSE(fs::exists(kMarker));
        EXPECT_TRUE(d.running()) << d.err();
        emu.cli({"notifications", "--clear"});
        d.stop();
        ASSERT_TRUE(emu.wait_no_daemons());
    }
}

// Start mode 0 sends ucdShutdown only and exits with 1; another one skips ucdStart and serves on;
// -d -p sets the library's protocol trace level.
ISOLATED_TEST(DaemonStartTest, StartModesAndTraceLevel)
{
    Emu emu;
    ASSERT_TRUE(emu.start());
    {
        Daemon d({"-n", "x"});
        EXPECT_EQ(d.wait_exit(), 1);
        EXPECT_EQ(d.err(), "");
        EXPECT_EQ(emu.wait_notifications(1), notification_log({"ucdShutdown"}));
        EXPECT_THAT(emu.status(), Not(HasSubstr("\"registered\":true")));
        emu.cli({"notifications", "--clear"});
        ASSERT_TRUE(emu.wait_no_daemons());
    }
    Daemon d({"-d", "-p", "-n", "7"});
    ASSERT_TRUE(emu.wait_registered()) << d.err();
    EXPECT_EQ(emu.wait_notifications(1), notification_log({"coldStart"}));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(emu.notifications(), notification_log({"coldStart"}));
    EXPECT_TRUE(d.running()) << d.err();
    EXPECT_THAT(d.err(), HasSubstr("PROTO leisobek"));
}

// No ConfD, or models lacking a callpoint the daemon registers, end it with their texts.
ISOLATED_TEST(DaemonStartTest, NoConfdOrMissingCallpointIsFatal)
{
    Daemon no_confd({});
    EXPECT_EQ(no_confd.wait_exit(), 1);
    EXPECT_EQ(no_confd.err(), "Failed to load schemas from confd\n");
    const fs::path dir = "/tmp/models-without-tcp";
    fs::create_directories(dir);
    for (const auto &e : fs::directory_iterator(LEISOBEK_MODELS_DIR))
        if (e.path().filename() != "TCP-MIB.yang") fs::copy(e.path(), dir / e.path().filename());
    Emu emu({"--models", dir});
    ASSERT_TRUE(emu.start());
    Daemon d({});
    EXPECT_EQ(d.wait_exit(), 1);
    EXPECT_EQ(d.err(), "Failed to register tcp_status transform cb \n");
}

// The product-identifier command runs, yet the syslog line shows the identifier left empty.
ISOLATED_TEST(DaemonStartTest, ProductIdentifierLineStaysEmpty)
{
    // A private /dev: null, and a log socket standing in for the syslog daemon.
    if (mount("tmpfs", "/dev", "tmpfs", 0, "mode=755") != 0 ||
        mknod("/dev/null", S_IFCHR | 0666, makedev(1, 3)) != 0)
        GTEST_SKIP() << "cannot set up a private /dev: " << strerror(errno);
    chmod("/dev/null", 0666);
    int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(log, 0);
    struct sockaddr_un sun = {};
    sun.sun_family = AF_UNIX;
    snprintf(sun.sun_path, sizeof sun.sun_path, "%s", "/dev/log");
    ASSERT_EQ(bind(log, reinterpret_cast<struct sockaddr *>(&sun), sizeof sun), 0);
    struct timeval tv = {10, 0};
    setsockopt(log, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    daemon_env::install_recorders({{"uci", "echo TX410W-0001"}});

    Emu emu;
    ASSERT_TRUE(emu.start());
    Daemon d({}, {"PATH=/usr/bin:/bin"});
    char msg[512] = {};
    ssize_t n = recv(log, msg, sizeof msg - 1, 0);
    ASSERT_GT(n, 0) << "no syslog line; daemon said: " << d.err();
    std::string line(msg, static_cast<size_t>(n));
    EXPECT_THAT(line, testing::StartsWith("<14>"));
    EXPECT_THAT(line, HasSubstr("leisobek: PRODUCT_ID is ''"));
    EXPECT_EQ(daemon_env::recorded(),
              std::vector<std::string>{"sh /usr/bin/uci get systeminfo.sysinfo.pid"});
    close(log);
}

// ConfD closing the control or the worker socket, or a failed MAAPI attach in a transaction's
// init or detach in its finish, ends the daemon with its text.
ISOLATED_TEST(DaemonLoopTest, ClosedSocketOrFailedAttachIsFatal)
{
    Emu emu;
    ASSERT_TRUE(emu.start());
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"drop", "control"}, "Control socket closed\n"},
        {{"drop", "worker"}, "Worker socket closed\n"},
        {{"fail", "attach"}, "leisobek\\.h:110: error not CONFD_OK: [0-9]+ : [^\n]* \n"},
        {{"fail", "detach"}, "leisobek\\.h:129: error not CONFD_OK: [0-9]+ : [^\n]* \n"}};
    for (const auto &[command, text] : cases) {
        SCOPED_TRACE(command[1]);
        Daemon d({});
        ASSERT_TRUE(emu.wait_registered()) << d.err();
        EXPECT_EQ(emu.cli(command), kOk);
        if (command[0] == "fail") emu.cli({"get", kTcpScalar});
        EXPECT_EQ(d.wait_exit(), 1);
        EXPECT_TRUE(std::regex_search(d.err(), std::regex("(^|\n)" + text + "$"))) << d.err();
        // The next daemon must not meet a failure meant for this one.
        if (command[0] == "fail") emu.cli({"fail", command[1], "--times", "0"});
        ASSERT_TRUE(emu.wait_no_daemons());
    }
}

} // namespace
