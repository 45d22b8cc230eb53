// LLDP-MIB end to end: the leisobek binary, a fixture neighbour script and file, confd-emu-cli.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "daemon_env.h"

namespace
{

using daemon_env::Emu;

const char kTable[] = "/LLDP-MIB/lldpRemTable/lldpRemEntry";
const char kFile[] = "/tmp/stats/snmp_lldpneighstats";

// Keys, then the leaves in model order, of every row of a walk.
std::vector<std::vector<std::string>> walk(const Emu &emu)
{
    std::vector<std::vector<std::string>> out;
    for (cli_json::row &r : emu.walk(kTable)) {
        std::vector<std::string> cells = r.keys;
        for (const char *leaf :
             {"lldpRemChassisIdSubtype", "lldpRemChassisId", "lldpRemPortIdSubtype",
              "lldpRemPortId", "lldpRemPortDesc", "lldpRemSysName", "lldpRemSysDesc",
              "lldpRemSysCapSupported", "lldpRemSysCapEnabled"})
            cells.push_back(r.leaves[leaf]);
        out.push_back(cells);
    }
    return out;
}

using table = std::vector<std::vector<std::string>>;

// One row past the file's lines, stale rows and capability bits kept from longer files; the script
// runs before every walk.
ISOLATED_TEST(LldpTest, WalksKeepTheTableQuirks)
{
    // A neighbour script that only notes its runs: the test writes the file.
    daemon_env::install_recorders({{"snmp_lldp_neighinfo.sh", ":"}});
    Emu emu;
    auto d = emu.start_with_daemon();
    ASSERT_TRUE(d);

    daemon_env::write_file(kFile, "1?eth0.2?mac?0:1a:2b:3c:4d:5e?mac?a4:b1:c2:d3:e4:f5?x?"
                                  "Bridge,Router?Router?core-sw?Switch 100%% up?9\n"
                                  "2?lan1?local?host-7?ifname?gi0/1?x?Wlan?Bridge?ap-1?AP\n");
    EXPECT_EQ(walk(emu), (table{{"0", "0", "0", "4", "001a2b3c4d5e", "4", "a4b1c2d3e4f5", "eth0.2",
                                 "core-sw", "Switch 100% up", "6", "4"},
                                {"1", "1", "1", "1", "000000000000", "1", "000000000000", "lan1",
                                 "ap-1", "AP", "3", "2"},
                                {"0", "0", "0", "4", "001a2b3c4d5e", "4", "a4b1c2d3e4f5", "eth0.2",
                                 "core-sw", "Switch 100% up", "6", "4"}}));

    daemon_env::write_file(kFile, "1?wan?mac?0:0:0:0:0:1?mac?0:0:0:0:0:2?x?Wlan?Wlan?gw?GW\n");
    EXPECT_EQ(walk(emu), (table{{"0", "0", "0", "4", "000000000001", "4", "000000000002", "wan",
                                 "gw", "GW", "7", "7"},
                                {"1", "1", "1", "1", "000000000000", "1", "000000000000", "lan1",
                                 "ap-1", "AP", "3", "2"}}));

    ASSERT_EQ(remove(kFile), 0);
    EXPECT_EQ(emu.cli({"walk", kTable}), "[]");
    EXPECT_EQ(daemon_env::recorded().size(), 3u);
    EXPECT_TRUE(d->running()) << d->err();
}

} // namespace
