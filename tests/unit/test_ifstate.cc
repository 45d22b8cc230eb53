// Unit tests of the interface-state cache on fixture statistics files, and of the IF-MIB transforms
// driven through their registered callbacks.
#include "core/state.h"
#include "fixture_env.h"
#include "ifstats.h"
#include "mibs/ifstate.h"
#include "provider_driver.h"

#include "IF-MIB.h"

#include <string>
#include <vector>

namespace
{

time_t clock_seconds;
int test_clock(struct timeval *now)
{
    now->tv_sec = clock_seconds;
    now->tv_usec = 0;
    return 0;
}

// An IPv4 line of snmp_iface_stats (30 columns and the newline).
std::string v4(const std::string &name, int index, const std::string &in_ucast = "10",
               const std::string &in_octets = "1000", const std::string &mac = "0:17:136:1:2:3")
{
    return "v4," + name + ",1,192.168.1.1 24,192.168.1.254,8.8.8.8,,1500,text," + mac + ",label," +
           std::to_string(index) + ",0,0,100,0,0," + in_octets + "," + in_ucast +
           ",20,30,4,2000,40,50,60,8,1,1,2\n";
}

// A line of the port files: name, five integers, ten counters, link, ifIndex, admin, oper.
std::string port(const std::string &name, int index, const std::string &in_ucast = "7",
                 bool wan = false)
{
    return name + ",0,0,1000,0,0,500," + in_ucast + ",2,3,1,600,4,5,6,1,1," +
           std::to_string(index) + ",1,1," + (wan ? "9," : "") + "\n";
}

// A fixture tree whose statistics script does nothing, and the cache on the test clock, cleared
// when it goes away.
struct IfStateEnv : FixtureEnv {
    IfStateEnv()
    {
        clock_seconds = 1700000000;
        if_state_set_clock(test_clock);
        script("/usr/bin/snmpgetcurrent", "true");
    }
    ~IfStateEnv()
    {
        if_state_set_clock(nullptr);
        if_state_clear();
    }
    void files(const std::string &iface, const std::string &wan = "", const std::string &lan = "")
    {
        write("/tmp/stats/snmp_iface_stats", iface);
        write("/tmp/stats/snmp_wanport_stats", wan);
        write("/tmp/stats/snmp_lanport_stats", lan);
    }
};

class IfStateTest : public ::testing::Test
{
  protected:
    std::vector<int32_t> walk_order() const
    {
        const int32_t *t = if_state_index_table();
        return std::vector<int32_t>(t, t + if_state_count());
    }
    uint64_t ucast(const char *name) { return if_state_find(name)->in_ucast_pkts; }

    IfStateEnv env_;
};

// Verifies the tokenizer (empty fields are returned, text after the last delimiter never is), then
// one refresh over the three files: the line kinds, a duplicate name, the decimal MAC, a
// non-numeric counter, the walk order and that the wireless file is read only on a wireless model.
TEST_F(IfStateTest, RefreshReadsTheFilesLineByLine)
{
    char line[] = "a,,b\nc";
    std::vector<std::string> tokens;
    for (char *t = if_state_token(line, ",\n"); t != nullptr; t = if_state_token(nullptr, ",\n"))
        tokens.push_back(t);
    EXPECT_EQ(tokens, (std::vector<std::string>{"a", "", "b"}));
    EXPECT_EQ(if_state_token(nullptr, ",\n"), nullptr);

    env_.files(v4("br-lan", 5, "10", "12a") + "v6,br-lan,whatever,\n" + "ppp,PPTP,\n" +
                   v4("br-lan", 3) + v4("eth0", 4, "1", "1", "-"),
               port("WAN", 9, "7", true), port("LAN1", 2) + "\n");
    env_.write("/tmp/stats/snmp_wlan_port_stats",
               "WLAN,radio,0,0,54,0,0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,1,7,1,1,\n");
    ASSERT_EQ(if_state_refresh(""), 0);
    EXPECT_EQ(env_.commands(), std::vector<std::string>{"sh /usr/bin/snmpgetcurrent"});
    // v6 skipped; the "ppp" line listed as 0; the second br-lan listed (without a record of its
    // own, as the end-to-end walk shows).
    EXPECT_EQ(walk_order(), (std::vector<int32_t>{0, 2, 3, 4, 5, 9}));
    const IfStateRecord *lan = if_state_find("br-lan");
    ASSERT_NE(lan, nullptr);
    EXPECT_EQ(if_state_lookup(5), lan);
    EXPECT_EQ(lan->in_octets, 0u); // "12a"
    EXPECT_EQ(lan->has_mac, 1);
    EXPECT_EQ(std::vector<int>(lan->mac, lan->mac + 6), (std::vector<int>{0, 17, 136, 1, 2, 3}));
    EXPECT_EQ(lan->admin_status, 1);
    EXPECT_EQ(lan->oper_status, 2);
    EXPECT_EQ(if_state_find("eth0")->has_mac, 0);
    const IfStateRecord *pptp = if_state_lookup(0);
    ASSERT_NE(pptp, nullptr);
    EXPECT_STREQ(pptp->name, "PPTP");
    EXPECT_EQ(pptp->has_counters, 0);
    EXPECT_EQ(if_state_lookup(9)->out_errors, 1u);
    EXPECT_EQ(if_state_lookup(2)->in_ucast_pkts, 7u);
    EXPECT_EQ(if_state_find("WLAN"), nullptr);

    ASSERT_EQ(if_state_refresh("TX520W"), 0);
    ASSERT_NE(if_state_find("WLAN"), nullptr);
    EXPECT_EQ(if_state_find("WLAN")->speed, 54);
    EXPECT_EQ(walk_order().size(), 7u);
}

// Verifies that unicast and multicast counts run on by line position across refreshes, whatever
// interface holds the position, and that the WAN ports overwrite the rows after the last IPv4 line.
TEST_F(IfStateTest, CountersAccumulateByPosition)
{
    env_.files(v4("a", 1, "10") + v4("b", 2, "100"));
    ASSERT_EQ(if_state_refresh(""), 0);
    uint64_t row0 = ucast("a"), row1 = ucast("b");
    env_.files(v4("b", 2, "5") + v4("a", 1, "7"));
    ASSERT_EQ(if_state_refresh(""), 0);
    EXPECT_EQ(ucast("b"), row0 + 5);
    EXPECT_EQ(ucast("a"), row1 + 7);
    env_.files(v4("a", 1, "1") + v4("b", 2, "1"));
    ASSERT_EQ(if_state_refresh(""), 0);
    EXPECT_EQ(ucast("a"), row0 + 5 + 1);
    EXPECT_EQ(ucast("b"), row1 + 7 + 1);
    EXPECT_EQ(if_state_find("a")->in_octets, 1000u); // octets are not accumulated

    env_.files(v4("a", 1, "1"), port("WAN", 3, "40", true));
    ASSERT_EQ(if_state_refresh(""), 0);
    EXPECT_EQ(ucast("WAN"), 40u);
    env_.files(v4("a", 1, "1") + v4("b", 2, "2"));
    ASSERT_EQ(if_state_refresh(""), 0);
    EXPECT_EQ(ucast("b"), 42u);
}

// Verifies the limits: at most 256 lines are taken, and IPv4 lines beyond the 50 counter rows keep
// the file's counts.
TEST_F(IfStateTest, LinesBeyondTheTablesAreIgnored)
{
    std::string iface, lan;
    for (int i = 0; i < 60; i++)
        iface += v4("v" + std::to_string(i), i + 1, "3");
    for (int i = 0; i < 240; i++)
        lan += port("p" + std::to_string(i), 100 + i);
    env_.files(iface, "", lan);
    ASSERT_EQ(if_state_refresh(""), 0);
    EXPECT_EQ(if_state_count(), 256);
    ASSERT_EQ(if_state_refresh(""), 0);
    EXPECT_EQ(ucast("v55"), 3u);
    EXPECT_GE(ucast("v5"), 6u);
}

// Verifies the staleness rule (10 seconds still fresh, 11 not, either way) and that a missing file
// fails the refresh but leaves the last count and walk order in force.
TEST_F(IfStateTest, StalenessAndMissingFiles)
{
    EXPECT_EQ(if_state_cache_stale(), 1);
    env_.files(v4("a", 7) + v4("b", 6));
    ASSERT_EQ(if_state_refresh(""), 0);
    for (auto [offset, stale] : {std::pair<int, int>{10, 0}, {11, 1}, {-10, 0}, {-11, 1}}) {
        clock_seconds = 1700000000 + offset;
        EXPECT_EQ(if_state_cache_stale(), stale) << offset;
    }
    remove(env_.at("/tmp/stats/snmp_iface_stats").c_str());
    EXPECT_EQ(if_state_refresh(""), -1);
    EXPECT_EQ(if_state_count(), 2);
    EXPECT_EQ(walk_order(), (std::vector<int32_t>{6, 7}));
}

keypath if_mib(std::vector<uint32_t> tags, const std::string &keys = "")
{
    tags.insert(tags.begin(), IF_MIB_IF_MIB);
    return keypath(IF_MIB__ns, tags, keys);
}
keypath entry_leaf(uint32_t leaf, int index)
{
    return if_mib({IF_MIB_ifTable, IF_MIB_ifEntry, leaf}, "i" + std::to_string(index));
}

class IfStateProviderTest : public provider_test
{
  protected:
    IfStateProviderTest() : provider_test(if_state_register, "ifentries-snmp") {}
    IfStateEnv env_;
};

// Verifies ifType by interface name (USB and VLAN by prefix), and no instance for a status below
// 1, an unknown interface or a leaf that is not served.
TEST_F(IfStateProviderTest, LeavesOfTheInterfaceTable)
{
    const std::vector<std::pair<std::string, std::string>> types = {
        {"USB0", "e160"},       {"VLAN10", "e135"},      {"WLAN", "e2129706804"},
        {"WLAN0", "noexists"},  {"VAP", "e71"},          {"WAN", "e6"},
        {"l2vlan", "e135"},     {"wwanPP", "e160"},      {"PPOE", "e1109646644"},
        {"PPTP", "e977264863"}, {"L2TP", "e1183478925"}, {"eth0", "noexists"}};
    std::string iface;
    for (size_t i = 0; i < types.size(); i++)
        iface += v4(types[i].first, static_cast<int>(i) + 1);
    iface += "v4,down,1,,,,,0,,,,20,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,\n";
    env_.files(iface);
    for (size_t i = 0; i < types.size(); i++)
        EXPECT_EQ(get(entry_leaf(IF_MIB_ifType, static_cast<int>(i) + 1)), types[i].second)
            << types[i].first;
    EXPECT_EQ(get(entry_leaf(IF_MIB_ifAdminStatus, 20)), "noexists");
    EXPECT_EQ(get(entry_leaf(IF_MIB_ifDescr, 99)), "noexists");
    EXPECT_EQ(get(entry_leaf(IF_MIB_ifPhysAddress, 1)), "noexists");
}

} // namespace
