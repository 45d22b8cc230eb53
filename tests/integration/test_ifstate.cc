// IF-MIB and the link monitor end to end: a fixture statistics script, a UCI package, veth pairs.
#include <gtest/gtest.h>

#include <net/if.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "daemon_env.h"

namespace
{

using daemon_env::Emu;

// A statistics script that copies the fixture files into /tmp/stats and notes each run.
void install_stats_script(const std::string &iface, const std::string &wan, const std::string &lan)
{
    daemon_env::install_recorders(
        {{"snmpgetcurrent", "mkdir -p /tmp/stats\ncp /tmp/fixture/* /tmp/stats/"}});
    daemon_env::write_file("/tmp/fixture/snmp_iface_stats", iface);
    daemon_env::write_file("/tmp/fixture/snmp_wanport_stats", wan);
    daemon_env::write_file("/tmp/fixture/snmp_lanport_stats", lan);
}

std::string v4(const std::string &name, int index, const std::string &in_octets = "1000")
{
    return "v4," + name + ",1,10.0.0.1 24,,,,1500,,-,," + std::to_string(index) + ",0,0,100,0,0," +
           in_octets + ",10,20,30,4,2000,40,50,60,8,1,1,1\n";
}

std::string port(const std::string &name, int index)
{
    return name + ",0,0,1000,0,0,500,6,2,3,1,600,4,5,6,1,1," + std::to_string(index) + ",1,2,\n";
}

std::string keys(const std::vector<cli_json::row> &rows)
{
    std::string out;
    for (const auto &r : rows)
        out += (r.keys.empty() ? "?" : r.keys[0]) + " ";
    return out;
}

const char kIfTable[] = "/IF-MIB/ifTable/ifEntry";
const char kIfXTable[] = "/IF-MIB/ifXTable/ifXEntry";
const char kIfNumber[] = "/IF-MIB/interfaces/ifNumber";

// Both tables from the script's files, which the first walk refreshes once for both (the
// 10-second staleness rule is pinned on the test clock by the unit tests).
ISOLATED_TEST(IfStateTest, TablesFromTheStatisticsFiles)
{
    install_stats_script(v4("VLAN10", 4, "4294967297") + v4("WLAN0", 2) + v4("VLAN10", 7) +
                             "pppoe,PPTP,\n",
                         port("WAN", 1), port("WLAN", 3));
    Emu emu;
    auto d = emu.start_with_daemon();
    ASSERT_TRUE(d);
    EXPECT_EQ(emu.cli({"get", kIfNumber}), "{\"type\":\"C_INT32\",\"value\":0}");
    EXPECT_EQ(daemon_env::recorded().size(), 0u);

    std::vector<cli_json::row> rows = emu.walk(kIfTable);
    EXPECT_EQ(keys(rows), "0 1 2 3 4 7 ");
    ASSERT_EQ(rows.size(), 6u);
    EXPECT_EQ(rows[4].leaves["ifType"] + " " + rows[4].leaves["ifMtu"] + " " +
                  rows[4].leaves["ifInOctets"] + " " + rows[4].leaves["ifSpeed"],
              "135 1500 1 100");

    rows = emu.walk(kIfXTable);
    EXPECT_EQ(keys(rows), "0 1 2 3 4 7 ");
    ASSERT_EQ(rows.size(), 6u);
    EXPECT_EQ(rows[4].leaves["ifHCInOctets"] + " " + rows[4].leaves["ifName"] + " " +
                  rows[4].leaves["ifHighSpeed"],
              "4294967297 VLAN10 100");
    EXPECT_EQ(emu.cli({"get", kIfNumber}), "{\"type\":\"C_INT32\",\"value\":6}");
    EXPECT_EQ(daemon_env::recorded().size(), 1u);
}

void ip(const std::string &args)
{
    harness::CmdResult r = harness::run({"/bin/sh", "-c", "ip " + args});
    ASSERT_EQ(r.exit_code, 0) << "ip " << args << ": " << r.err;
}

// The linkUp and linkDown notifications logged, with their varbinds; cleared after when asked.
std::vector<std::string> link_notifications(const Emu &emu, bool clear = false)
{
    std::string log = clear ? emu.cli({"notifications", "--clear"}) : emu.notifications();
    cli_json::value doc;
    EXPECT_TRUE(cli_json::parse(log, doc)) << log.substr(0, 300);
    std::vector<std::string> out;
    for (const cli_json::value &n : doc.items) {
        if (n["name"].text != "linkUp" && n["name"].text != "linkDown") continue;
        out.push_back(n["name"].text);
        for (const cli_json::value &vb : n["varbinds"].items)
            out.back() += " " + vb["name"].text + ":" + vb["type"].text + "=" +
                          (vb["value"].kind == cli_json::value::null ? "null" : vb["value"].text);
    }
    return out;
}

std::string expected(const char *name, const std::string &section, int index, int admin)
{
    return std::string(name) + " ifName:C_STR=" + section +
           " ifIndex:C_INT32=" + std::to_string(index) +
           " ifAdminStatus:C_ENUM_VALUE=" + std::to_string(admin) +
           " ifOperStatus:C_ENUM_VALUE=" + (name[4] == 'U' ? "1" : "2");
}

// Waits until the log holds want.
bool logged(const Emu &emu, const std::string &want)
{
    return daemon_env::eventually([&] {
        for (const std::string &n : link_notifications(emu))
            if (n == want) return true;
        return false;
    });
}

// Link changes raise linkUp or linkDown naming the UCI section; then, a veth flapped hundreds of
// times while both tables are walked, walks and notifications share the worker socket whole.
ISOLATED_TEST(IfConcurrentTest, ThreadedFlapWhileWalking)
{
    std::string iface;
    for (int i = 1; i <= 8; i++)
        iface += v4("eth" + std::to_string(i), i);
    install_stats_script(iface, "", "");
    // A veth pair veth0/veth1 and a UCI "network" package that names veth0 as section "lan".
    daemon_env::overlay_dir("/etc");
    daemon_env::write_file("/etc/config/network", "config interface 'loopback'\n"
                                                  "\toption ifname 'lo'\n"
                                                  "config interface 'lan'\n"
                                                  "\toption ifname 'veth0'\n");
    ip("link add veth0 type veth peer name veth1");
    Emu emu;
    auto d = emu.start_with_daemon();
    ASSERT_TRUE(d);
    int veth0 = static_cast<int>(if_nametoindex("veth0"));
    int veth1 = static_cast<int>(if_nametoindex("veth1"));
    ASSERT_GT(veth0, 0);

    link_notifications(emu, true);
    ip("link set veth1 up");
    EXPECT_TRUE(logged(emu, expected("linkDown", "null", veth1, 1)));
    ip("link set veth0 up");
    EXPECT_TRUE(logged(emu, expected("linkUp", "lan", veth0, 1)));
    link_notifications(emu, true);
    ip("link set veth0 down");
    EXPECT_TRUE(logged(emu, expected("linkDown", "lan", veth0, 2)));
    ip("link set veth1 down");
    link_notifications(emu, true);
    ip("link set veth0 up");
    EXPECT_TRUE(logged(emu, expected("linkDown", "lan", veth0, 1)));
    for (const std::string &n : link_notifications(emu))
        EXPECT_EQ(n.find("linkUp ifName:C_STR=lan"), std::string::npos) << n;

    ip("link set veth1 up");
    link_notifications(emu, true);
    std::atomic<bool> done{false};
    std::thread flapper([&] {
        // 300 flaps in small batches, so that walks overlap them.
        harness::run({"/bin/sh", "-c",
                      "for i in $(seq 5); do echo link set veth0 up; echo link set veth0 down;"
                      " done > /tmp/flaps; for i in $(seq 60); do ip -batch /tmp/flaps;"
                      " sleep 0.1; done"},
                     120000);
        done = true;
    });
    int walks = 0;
    while (!done || walks < 2) {
        for (const char *table : {kIfTable, kIfXTable}) {
            std::vector<cli_json::row> rows = emu.walk(table);
            ASSERT_EQ(rows.size(), 8u);
            EXPECT_EQ(rows[7].leaves["ifDescr"] + rows[7].leaves["ifName"], "eth8");
        }
        walks++;
    }
    flapper.join();
    // The kernel drops events the monitor falls behind on: once the log is still, it is whole.
    std::vector<std::string> log;
    for (size_t seen = 1; seen != log.size();) {
        seen = log.size();
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        log = link_notifications(emu);
    }
    // veth1 follows its peer's carrier and has no section.
    const std::set<std::string> whole = {
        expected("linkUp", "lan", veth0, 1), expected("linkDown", "lan", veth0, 1),
        expected("linkDown", "lan", veth0, 2), expected("linkUp", "null", veth1, 1),
        expected("linkDown", "null", veth1, 1)};
    EXPECT_GE(log.size(), 20u);
    for (const std::string &n : log)
        EXPECT_TRUE(whole.count(n)) << n;
    link_notifications(emu, true);
    ip("link set veth0 up");
    EXPECT_TRUE(logged(emu, expected("linkUp", "lan", veth0, 1)));
    EXPECT_TRUE(d->running()) << d->err();
    std::cout << walks << " walks of both tables, " << log.size() << " link notifications\n";
}

} // namespace
