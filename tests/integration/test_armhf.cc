// The router build's daemon (32-bit ARM, from the armhf preset) run under qemu user-mode emulation
// against the host's confd-emu: it registers, sends its start-up notifications and answers the
// TCP-MIB and UDP-MIB tables exactly as the host build's daemon does on the same sockets.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "cli_json.h"
#include "daemon_env.h"
#include "sockets.h"

namespace
{

using daemon_env::Daemon;
using daemon_env::Emu;
using sockets::unique_fd;

const char *const kTables[] = {
    "/TCP-MIB/tcpConnectionTable/tcpConnectionEntry",
    "/TCP-MIB/tcpListenerTable/tcpListenerEntry",
    "/UDP-MIB/udpEndpointTable/udpEndpointEntry",
};

// The management plane's sessions (daemon, CLI) are on port 4565 and differ from run to run.
bool on_confd_port(const cli_json::row &r)
{
    return std::find(r.keys.begin(), r.keys.end(), "4565") != r.keys.end();
}

// Every table walked, one line per row, less the management plane's rows.
std::vector<std::string> tables(const Emu &emu)
{
    std::vector<std::string> out;
    for (const char *table : kTables) {
        std::vector<cli_json::row> rows;
        std::string answer = emu.cli({"walk", table});
        EXPECT_TRUE(cli_json::parse_walk(answer, rows)) << answer.substr(0, 400);
        for (const cli_json::row &r : rows) {
            if (on_confd_port(r)) continue;
            std::string line = table;
            for (const std::string &k : r.keys)
                line += " " + k;
            for (const auto &leaf : r.leaves)
                line += " " + leaf.first + "=" + leaf.second;
            out.push_back(line);
        }
    }
    return out;
}

// Resident memory of a process in kB (VmRSS), 0 when unknown.
long rss_kb(pid_t pid)
{
    std::string status = harness::read_file("/proc/" + std::to_string(pid) + "/status");
    size_t at = status.find("VmRSS:");
    return at == std::string::npos ? 0 : std::stol(status.substr(at + 6));
}

// The first process named name in this pid namespace, or -1.
pid_t pid_named(const std::string &name)
{
    for (pid_t pid = 1; pid < 4096; pid++)
        if (harness::read_file("/proc/" + std::to_string(pid) + "/comm") == name + "\n") return pid;
    return -1;
}

// The ARM daemon under qemu-arm, killed and reaped when the object goes away.
class ArmDaemon
{
  public:
    ArmDaemon()
    {
        char tmpl[] = "/tmp/leisobek-arm.XXXXXX";
        if (mkdtemp(tmpl) == nullptr) return;
        err_path_ = std::string(tmpl) + "/err";
        int out = open("/dev/null", O_WRONLY | O_CLOEXEC);
        int err = open(err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (out >= 0 && err >= 0)
            pid_ = harness::spawn({LEISOBEK_QEMU_ARM, "-L", LEISOBEK_ARM_SYSROOT, LEISOBEK_ARMHF_BIN},
                                  out, err);
        for (int fd : {out, err})
            if (fd >= 0) close(fd);
    }
    ~ArmDaemon() { stop(); }
    ArmDaemon(const ArmDaemon &) = delete;
    ArmDaemon &operator=(const ArmDaemon &) = delete;

    pid_t pid() const { return pid_; }
    std::string err() const { return harness::read_file(err_path_); }
    void stop()
    {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

  private:
    std::string err_path_;
    pid_t pid_ = -1;
};

TEST(ArmDaemonTest, ServesTheTablesOfTheHostDaemonUnderQemu)
{
    if (access(LEISOBEK_ARMHF_BIN, X_OK) != 0)
        GTEST_SKIP() << "no ARM build at " LEISOBEK_ARMHF_BIN
                        " (cmake --preset armhf && cmake --build --preset armhf, "
                        "or scripts/run-tests-armhf)";
    if (access(LEISOBEK_QEMU_ARM, X_OK) != 0)
        GTEST_SKIP() << "qemu-arm not found (apt-get install qemu-user)";
    RUN_ISOLATED([] {
        Emu emu;
        ASSERT_TRUE(emu.start());
        // TCP: a listener on each family, and a connection; UDP: a bound and a connected endpoint.
        unique_fd any4 = sockets::listen_on("0.0.0.0", 6101);
        unique_fd lo6 = sockets::listen_on("::1", 6102);
        unique_fd client = sockets::connect_to("::1", 6102);
        unique_fd server = sockets::accept_one(lo6.get());
        ASSERT_TRUE(any4 && lo6 && client && server);
        unique_fd udp_bound(socket(AF_INET, SOCK_DGRAM, 0));
        unique_fd udp_connected(socket(AF_INET6, SOCK_DGRAM, 0));
        sockaddr_in bound = harness::loopback(6201);
        sockaddr_in6 peer = {};
        peer.sin6_family = AF_INET6;
        peer.sin6_port = htons(6202);
        peer.sin6_addr = in6addr_loopback;
        ASSERT_EQ(bind(udp_bound.get(), reinterpret_cast<sockaddr *>(&bound), sizeof bound), 0);
        ASSERT_EQ(connect(udp_connected.get(), reinterpret_cast<sockaddr *>(&peer), sizeof peer), 0);

        std::vector<std::string> arm_tables;
        {
            ArmDaemon arm;
            ASSERT_GT(arm.pid(), 0);
            ASSERT_TRUE(emu.wait_registered()) << arm.err();
            EXPECT_EQ(emu.wait_notifications(2),
                      "[{\"name\":\"ucdStart\",\"varbinds\":[]},"
                      "{\"name\":\"coldStart\",\"varbinds\":[]}]");
            // The emulator's own memory is part of this figure.
            printf("ARM daemon under qemu-arm after start-up: VmRSS %ld kB\n", rss_kb(arm.pid()));
            arm_tables = tables(emu);
            EXPECT_EQ(kill(arm.pid(), 0), 0) << "the ARM daemon ended: " << arm.err();
        }
        ASSERT_TRUE(emu.wait_no_daemons());
        Daemon host({});
        ASSERT_TRUE(emu.wait_registered()) << host.err();
        printf("host daemon after start-up: VmRSS %ld kB\n", rss_kb(pid_named("leisobek")));
        std::vector<std::string> host_tables = tables(emu);
        EXPECT_EQ(arm_tables, host_tables);
        EXPECT_GE(arm_tables.size(), 5u); // the sockets above at least
    });
}

} // namespace
