// The private model MIB end to end: recording fixture scripts and a router configuration.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "daemon_env.h"

namespace
{

using daemon_env::Emu;
using daemon_env::kOk;
using daemon_env::write_file;

const char kMib[] = "/ZAMREL-MODEL-MIB";
const char kInitFile[] = "/tmp/pvtmib/init.xml";

// No SNMP version or UPnP switch, no community, a pool without range end, WAN1 on PPPoE, no user.
const char kInit[] = R"(<system xmlns="urn:leisobek:params:xml:ns:yang:router-system">
  <hostname>gateway</hostname>
  <domain-name>home.lan</domain-name>
</system>
<aaa xmlns="urn:leisobek:params:xml:ns:yang:aaa">
  <authentication><users>
    <user><name>operator</name><password>$1$op$hash</password></user>
    <user><name>kelto</name><password>$1$q8Rz$stored</password></user>
  </users></authentication>
</aaa>
<dhcp-pools xmlns="urn:leisobek:params:xml:ns:yang:router-dhcp">
  <pool><pool-id>2</pool-id><ipv4><dhcp-mode>relay</dhcp-mode>
    <range-start>10.0.0.10</range-start><range-end>10.0.0.20</range-end></ipv4></pool>
  <pool><pool-id>1</pool-id><ipv4><dhcp-mode>server</dhcp-mode>
    <range-start>192.168.1.100</range-start></ipv4></pool>
</dhcp-pools>
<interfaces xmlns="urn:leisobek:params:xml:ns:yang:router-interfaces">
  <interface><name>WAN1</name><ipv4><setting><pppoe>
    <password>s3cret</password><authentication-type>chap</authentication-type>
    <keepalive>5 10</keepalive><demand>300</demand>
  </pppoe></setting></ipv4></interface>
</interfaces>
<interfaces-state xmlns="urn:leisobek:params:xml:ns:yang:router-interfaces">
  <interface><name>LAN1</name><if-index>4</if-index></interface>
  <interface><name>WAN1</name><if-index>5</if-index></interface>
</interfaces-state>
<confdConfig xmlns="urn:leisobek:params:xml:ns:yang:router-agent"><snmpAgent/></confdConfig>
)";

// Recording scripts in place of every script the provider runs: a reboot can never run.
void install_scripts()
{
    daemon_env::install_recorders({{"keltopvtmib_common.sh", ""},
                                   {"getiface.sh", ""},
                                   {"gettrapsconf.sh", ""},
                                   {"getwandns.sh", ""},
                                   {"system-reboot", ""}});
    // The start-up process snapshot, silent, so the daemon's stderr holds only its own lines.
    write_file("/usr/bin/procdata.sh", "#!/bin/sh\n", 0755);
    write_file(kInitFile, kInit);
}

// What the script "name" (with its first argument) prints from now on.
void script_prints(const std::string &name, const std::string &text)
{
    write_file("/tmp/recorded/" + name, text);
}

size_t runs_of(const std::string &command)
{
    std::vector<std::string> all = daemon_env::recorded();
    return static_cast<size_t>(std::count(all.begin(), all.end(), command));
}

std::string get(const Emu &emu, const std::string &path)
{
    return emu.cli({"get", std::string(kMib) + path});
}

// A CLI value: {"type":T,"value":V}, V quoted unless it is a number.
std::string value(const char *type, const std::string &v, bool quoted = true)
{
    std::string q = quoted ? "\"" : "";
    return std::string("{\"type\":\"") + type + "\",\"value\":" + q + v + q + "}";
}
std::string str(const std::string &s)
{
    return value("C_STR", s);
}
std::string num(const char *type, long v)
{
    return value(type, std::to_string(v), false);
}

std::vector<cli_json::row> walk(const Emu &emu, const std::string &list)
{
    return emu.walk(kMib + list);
}

// The common group's script runs every fifth read, its last line's fields copied with "%%" as "%"
// and other format directives kept; the basic group from the configuration and "getiface.sh lan",
// which runs every eleventh read.
ISOLATED_TEST(PvtMibTest, CommonAndBasicGroupsFromScriptsAndConfiguration)
{
    install_scripts();
    script_prints("keltopvtmib_common.sh", "old,line,,,1\nA,B,C,D,3\n");
    script_prints("getiface.shlan", "br-lan,192.168.1.1,255.255.255.0,00:1a:2b:3c:4d:5e,x\n");
    Emu emu({"--init", kInitFile});
    auto d = emu.start_with_daemon();
    ASSERT_TRUE(d);
    auto common = [&] {
        std::string all;
        for (const char *leaf :
             {"commonProductName", "commonFirmwareVersion", "commonHardwareVersion",
              "commonSerialNumber", "commonDeviceState"})
            all += get(emu, std::string("/common/") + leaf) + "\n";
        return all;
    };
    const std::string run = "sh /usr/bin/keltopvtmib_common.sh";
    EXPECT_EQ(common(), str("A") + "\n" + str("B") + "\n" + str("C") + "\n" + str("D") + "\n" +
                            num("C_ENUM_VALUE", 3) + "\n");
    EXPECT_EQ(daemon_env::recorded(), std::vector<std::string>{run});

    script_prints("keltopvtmib_common.sh", "100%% up,%s%n%x,%%%%,%n%n%n%n%s%s%s%s,4\n");
    EXPECT_EQ(common(), str("100% up") + "\n" + str("%s%n%x") + "\n" + str("%%") + "\n" +
                            str("%n%n%n%n%s%s%s%s") + "\n" + num("C_ENUM_VALUE", 4) + "\n");
    EXPECT_EQ(runs_of(run), 2u);
    EXPECT_TRUE(d->running()) << d->err();

    const std::string pool = "/dhcp-pools/pool{1}/ipv4/";
    struct {
        std::string change, leaf, want;
    } reads[] = {
        {"", "hostName", str("gateway")},
        {"/system/hostname=edge", "hostName", str("edge")},
        {"", "domainName", str("home.lan")},
        {"", "adminUserName", str("kelto")},
        {"", "adminPassword", str("$1$q8Rz$stored")},
        {"", "dhcpServerMode", num("C_ENUM_VALUE", 1)},
        {"", "dhcpStartAddress", value("C_IPV4", "192.168.1.100")},
        {"", "dhcpRangeSize", daemon_env::kNoExists},
        {pool + "range-end=192.168.1.149", "dhcpRangeSize", num("C_INT32", 49)},
        {pool + "dhcp-mode=relay", "dhcpServerMode", num("C_ENUM_VALUE", 0)},
        {"", "lanIpAddress", value("C_IPV4", "192.168.1.1")}, // read 11: no new run
        {"", "lanSubnetMask", value("C_IPV4", "255.255.255.0")},
    };
    for (const auto &r : reads) {
        if (!r.change.empty()) {
            ASSERT_EQ(emu.cli({"commit", r.change}), kOk);
        }
        EXPECT_EQ(get(emu, "/basicMgt/" + r.leaf), r.want) << r.leaf << " " << r.change;
    }
    const std::string lan = "sh /usr/bin/getiface.sh lan";
    EXPECT_EQ(runs_of(lan), 2u); // reads 1 and 12
    for (int read = 13; read <= 23; read++)
        get(emu, "/basicMgt/reboot");
    EXPECT_EQ(runs_of(lan), 3u);
}

// The SNMP and UPnP switches (UPnP inverted, absent as off) and the trap-manager table they gate:
// its first line only, none without a first field; always three community rows (unset slots
// repeat a key), access by security name.
ISOLATED_TEST(PvtMibTest, AgentSwitchesTrapManagersAndCommunities)
{
    install_scripts();
    script_prints("gettrapsconf.sh", "7,10.0.0.9,pub%%lic\n8,10.0.0.10,other\n");
    Emu emu({"--init", kInitFile});
    auto d = emu.start_with_daemon();
    ASSERT_TRUE(d);
    const std::string agent = "/confdConfig/snmpAgent/snmpVersions/";
    struct {
        std::vector<std::string> changes;
        long v1v2c, v3, upnp;
        int trap_rows; // -1: not walked
    } steps[] = {
        {{}, 0, 0, 1, -1}, // v3 absent: ConfD may read it as "" or not at all
        {{agent + "v1=false", agent + "v2=true", agent + "v3=false"}, 1, 0, 1, 1},
        {{agent + "v2=false", "/firewall/upnp=true"}, 0, 0, 0, 1},
        {{agent + "v1=true", agent + "v3=true", "/firewall/upnp=false"}, 1, 1, 1, 0},
    };
    size_t trap_runs = 0;
    for (const auto &s : steps) {
        std::vector<std::string> commit = {"commit"};
        commit.insert(commit.end(), s.changes.begin(), s.changes.end());
        if (!s.changes.empty()) {
            ASSERT_EQ(emu.cli(commit), kOk);
        }
        std::string at = s.changes.empty() ? "initial" : s.changes[0];
        EXPECT_EQ(get(emu, "/advanceMgt/snmpV1V2cStatus") + get(emu, "/advanceMgt/snmpV3Status") +
                      get(emu, "/advanceMgt/upnpStatus"),
                  num("C_ENUM_VALUE", s.v1v2c) + num("C_ENUM_VALUE", s.v3) +
                      num("C_ENUM_VALUE", s.upnp))
            << at;
        if (s.trap_rows < 0) continue;
        std::vector<cli_json::row> rows = walk(emu, "/trapMgrTable/trapMgrEntry");
        ASSERT_EQ(rows.size(), size_t(s.trap_rows)) << at;
        trap_runs += size_t(s.trap_rows);
        EXPECT_EQ(runs_of("sh /usr/bin/gettrapsconf.sh"), trap_runs) << at;
        if (rows.empty()) continue;
        EXPECT_EQ(rows[0].keys, std::vector<std::string>{"7"});
        EXPECT_EQ(rows[0].leaves["trapMgrIpAddress"], "10.0.0.9");
        EXPECT_EQ(rows[0].leaves["trapMgrCommunity"], "pub%lic");
    }
    ASSERT_EQ(emu.cli({"commit", agent + "v3=false"}), kOk);
    script_prints("gettrapsconf.sh", "7,10.0.0.9,c\n,\n");
    EXPECT_TRUE(walk(emu, "/trapMgrTable/trapMgrEntry").empty());

    struct {
        std::vector<std::vector<std::string>> add; // key, community and security name
        const char *rows;                          // key, name and access of each row
    } communities[] = {
        {{}, "0  0,0  0,0  0,"},
        {{{"a", "pub-ro", "the-public-ro"}, {"b", "h0me", "private"}},
         "0 pub-ro 1,1 h0me 2,0 pub-ro 1,"},
        {{{"c", "odd", "privateX"}, {"d", "fourth", "public"}}, "0 pub-ro 1,1 h0me 2,2 odd 0,"},
    };
    for (const auto &s : communities) {
        for (const auto &a : s.add) {
            std::string e =
                "/SNMP-COMMUNITY-MIB/snmpCommunityTable/snmpCommunityEntry{" + a[0] + "}";
            ASSERT_EQ(emu.cli({"commit", e, e + "/snmpCommunityName=" + a[1],
                               e + "/snmpCommunitySecurityName=" + a[2]}),
                      kOk);
        }
        std::string rows;
        for (cli_json::row &r : walk(emu, "/mgtCommunityTable/mgtCommunityEntry"))
            rows += r.keys.at(0) + " " + r.leaves["mgtCommunityName"] + " " +
                    r.leaves["mgtCommunityAccess"] + ",";
        EXPECT_EQ(rows, s.rows);
    }
}

// The set hook writes the names through MAAPI (a failed write fails the set) and runs the reboot
// and factory-reset command lines only for their trigger values.
ISOLATED_TEST(PvtMibTest, SetHookWritesNamesAndRunsRebootScripts)
{
    install_scripts();
    Emu emu({"--init", kInitFile});
    auto d = emu.start_with_daemon();
    ASSERT_TRUE(d);
    const std::string reboot = "sh /usr/bin/system-reboot firmware-state active option none";
    const std::string reset =
        "sh /usr/bin/system-reboot firmware-state active option factory-default-config";
    struct {
        std::string leaf, value;
        std::vector<std::string> ran;
    } sets[] = {
        {"reboot", "1", {}},
        {"factoryDefault", "2", {}},
        {"reboot", "2", {reboot}},
        {"factoryDefault", "1", {reboot, reset}},
        {"hostName", "router-b", {reboot, reset}},
        {"domainName", "example.net", {reboot, reset}},
    };
    for (const auto &s : sets) {
        EXPECT_EQ(emu.cli({"set", std::string(kMib) + "/basicMgt/" + s.leaf, s.value}), kOk)
            << s.leaf;
        EXPECT_EQ(daemon_env::recorded(), s.ran) << s.leaf << " " << s.value;
    }
    EXPECT_EQ(emu.cli({"get", "/system/hostname"}), value("C_BUF", "router-b"));
    EXPECT_EQ(emu.cli({"get", "/system/domain-name"}), value("C_BUF", "example.net"));

    ASSERT_EQ(emu.cli({"fail", "set_elem"}), kOk);
    EXPECT_NE(emu.cli({"set", std::string(kMib) + "/basicMgt/hostName", "lost"}).find("error"),
              std::string::npos);
    EXPECT_EQ(emu.cli({"get", "/system/hostname"}), value("C_BUF", "router-b"));
    EXPECT_TRUE(d->running()) << d->err();
}

// The WAN tables from their scripts, the interface state and the PPPoE or L2TP settings; the DNS
// table has a row past the script's lines.
ISOLATED_TEST(PvtMibTest, WanTablesFromScriptsAndConfiguration)
{
    install_scripts();
    script_prints("getwandns.sh", "0,1,8.8.8.8\n1,2,8.8.4.4\n");
    script_prints("getiface.shwan",
                  "eth1,203.0.113.5,255.255.255.0,0:1a:2b:3c:4d:5e,203.0.113.1\n");
    Emu emu({"--init", kInitFile});
    auto d = emu.start_with_daemon();
    ASSERT_TRUE(d);
    std::vector<cli_json::row> dns = walk(emu, "/wanDnsNetAddressTable/wanDnsNetAddressEntry");
    ASSERT_EQ(dns.size(), 3u);
    EXPECT_EQ(dns[1].keys, (std::vector<std::string>{"1", "1"}));
    EXPECT_EQ(dns[1].leaves["wanDnsNetAddressServer"], "8.8.4.4");
    EXPECT_EQ(dns[1].leaves["wanDnsNetAddressPreference"], "2");
    EXPECT_EQ(dns[2].keys, (std::vector<std::string>{"0", "0"}));

    std::vector<cli_json::row> wan = walk(emu, "/wanConnectionTable/wanConnectionEntry");
    ASSERT_EQ(wan.size(), 1u);
    std::map<std::string, std::string> want = {{"wanConnectionIfIndex", "5"},
                                               {"wanConnectionType", "3"},
                                               {"wanConnectionIpAddress", "203.0.113.5"},
                                               {"wanConnectionSubnetMask", "255.255.255.0"},
                                               {"wanConnectionGateway", "203.0.113.1"},
                                               {"wanConnectionMacAddress", "001a2b3c4d5e"},
                                               {"wanConnectionPppUserName", "none"},
                                               {"wanConnectionPppPassword", "s3cret"},
                                               {"wanConnectionNatStatus", "2"},
                                               {"wanConnectionPppConnectMode", "1"},
                                               {"wanConnectionPppIdleTime", "300"},
                                               {"wanConnectionPppRetryCount", "2"},
                                               {"wanConnectionPppAuthAuto", "0"}};
    for (const auto &w : want)
        EXPECT_EQ(wan[0].leaves[w.first], w.second) << w.first;
    EXPECT_EQ(daemon_env::recorded(), (std::vector<std::string>{"sh /usr/bin/getwandns.sh",
                                                                "sh /usr/bin/getiface.sh wan"}));

    ASSERT_EQ(emu.cli({"commit", "/interfaces/interface{WAN1}/ipv4/setting/l2tp/username=l2"}),
              kOk);
    wan = walk(emu, "/wanConnectionTable/wanConnectionEntry");
    ASSERT_EQ(wan.size(), 1u);
    want["wanConnectionPppUserName"] = "l2";
    want["wanConnectionPppPassword"] = "none";
    want["wanConnectionPppAuthAuto"] = "1";
    for (const auto &w : want)
        EXPECT_EQ(wan[0].leaves[w.first], w.second) << w.first;
}

// A key of another type, or a refused registration, ends the daemon with its text.
ISOLATED_TEST(PvtMibTest, FailuresEndTheDaemonWithTheirTexts)
{
    install_scripts();
    struct {
        std::string path, function;
    } cases[] = {
        {"/mgtCommunityTable/mgtCommunityEntry{C_UINT32:0}/mgtCommunityName",
         "keltopvt_commtbl_get_elem"},
        {"/wanDnsNetAddressTable/wanDnsNetAddressEntry{C_UINT32:0 0}/wanDnsNetAddressServer",
         "keltopvt_wandnstbl_get_elem"},
        {"/wanConnectionTable/wanConnectionEntry{C_INT64:0}/wanConnectionType",
         "keltopvt_wancontbl_get_elem"},
    };
    for (const auto &c : cases) {
        Emu emu({"--init", kInitFile});
        auto d = emu.start_with_daemon();
        ASSERT_TRUE(d);
        get(emu, c.path);
        EXPECT_EQ(d->wait_exit(), 128 + SIGABRT) << c.path;
        EXPECT_NE(d->err().find(c.function + ": Assertion `(key)->type == C_INT32' failed."),
                  std::string::npos)
            << d->err();
    }

    const std::string models = "/tmp/pvtmib/models";
    std::filesystem::create_directories(models);
    for (const auto &e : std::filesystem::directory_iterator(LEISOBEK_MODELS_DIR))
        std::filesystem::copy(e.path(), models + "/" + e.path().filename().string());
    std::string yang = harness::read_file(models + "/ZAMREL-MODEL-MIB.yang");
    yang.replace(yang.find("\"zamrel_model_mib_wandnsnetaddresstable\""), 7, "\"other");
    write_file(models + "/ZAMREL-MODEL-MIB.yang", yang);
    Emu emu({"--init", kInitFile, "--models", models});
    ASSERT_TRUE(emu.start());
    daemon_env::Daemon d({});
    EXPECT_EQ(d.wait_exit(), 1);
    EXPECT_EQ(d.err(), "Failed to register keltopvt_status transform Trap Manager  cb \n");
}

} // namespace
