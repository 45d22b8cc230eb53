// The router build's daemon under qemu-arm answers the TCP-MIB and UDP-MIB tables as the host's.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

#include "daemon_env.h"
#include "sockets.h"

namespace
{

using daemon_env::Daemon;
using daemon_env::Emu;
using sockets::unique_fd;

// Every table, one line per row, less the management plane's sessions (on port 4565).
std::vector<std::string> tables(const Emu &emu)
{
    std::vector<std::string> out;
    for (const char *table : {"/TCP-MIB/tcpConnectionTable/tcpConnectionEntry",
                              "/TCP-MIB/tcpListenerTable/tcpListenerEntry",
                              "/UDP-MIB/udpEndpointTable/udpEndpointEntry"})
        for (const cli_json::row &r : emu.walk(table)) {
            if (std::find(r.keys.begin(), r.keys.end(), "4565") != r.keys.end()) continue;
            std::string line = table;
            for (const std::string &k : r.keys)
                line += " " + k;
            for (const auto &leaf : r.leaves)
                line += " " + leaf.first + "=" + leaf.second;
            out.push_back(line);
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
        unique_fd udp_bound(sockets::open_udp("127.0.0.1", 6201));
        unique_fd udp_connected(sockets::open_udp("::", 0, false, "::1", 6202));
        ASSERT_TRUE(any4 && lo6 && client && server && udp_bound && udp_connected);

        std::vector<std::string> arm_tables;
        {
            Daemon arm({}, {}, {LEISOBEK_QEMU_ARM, "-L", LEISOBEK_ARM_SYSROOT, LEISOBEK_ARMHF_BIN});
            ASSERT_TRUE(emu.wait_registered()) << arm.err();
            EXPECT_EQ(emu.wait_notifications(2), "[{\"name\":\"ucdStart\",\"varbinds\":[]},"
                                                 "{\"name\":\"coldStart\",\"varbinds\":[]}]");
            // The emulator's own memory is part of this figure.
            printf("ARM daemon under qemu-arm after start-up: VmRSS %ld kB\n", rss_kb(arm.pid()));
            arm_tables = tables(emu);
            EXPECT_TRUE(arm.running()) << "the ARM daemon ended: " << arm.err();
        }
        ASSERT_TRUE(emu.wait_no_daemons());
        Daemon host({});
        ASSERT_TRUE(emu.wait_registered()) << host.err();
        printf("host daemon after start-up: VmRSS %ld kB\n", rss_kb(host.pid()));
        EXPECT_EQ(arm_tables, tables(emu));
        EXPECT_GE(arm_tables.size(), 5u); // the sockets above at least
    });
}

} // namespace
