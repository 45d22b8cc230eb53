// IP-MIB end to end: the leisobek binary on veth pairs with IPv4 and IPv6 addresses, confd-emu-cli.
#include <algorithm>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <net/if.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "daemon_env.h"

namespace
{

using daemon_env::Emu;
using daemon_env::kOk;

const char kAddresses[] = "/IP-MIB/ipAddressTable/ipAddressEntry";
const char kRouterAdvert[] = "/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry";
const char kIp[] = "/sbin/ip";

void sh(const std::vector<std::string> &argv)
{
    harness::CmdResult r = harness::run(argv);
    ASSERT_EQ(r.exit_code, 0) << argv[0] << " " << argv[1] << ": " << r.err;
}

std::string if_index(const std::string &name)
{
    return std::to_string(if_nametoindex(name.c_str()));
}

// Two veth pairs with fixed MACs (so link-local addresses) and addresses of every kind the address
// table tells apart; DAD off so that none is tentative while the test reads.
void make_interfaces()
{
    daemon_env::write_file("/proc/sys/net/ipv6/conf/default/accept_dad", "0\n");
    daemon_env::write_file("/proc/sys/net/ipv6/conf/all/accept_dad", "0\n");
    sh({kIp, "link", "add", "va0", "address", "02:00:00:00:00:0a", "type", "veth", "peer", "name",
        "vb0", "address", "02:00:00:00:00:0b"});
    sh({kIp, "link", "add", "vc0", "address", "02:00:00:00:00:0c", "type", "veth", "peer", "name",
        "vd0", "address", "02:00:00:00:00:0d"});
    for (const char *dev : {"va0", "vb0", "vc0", "vd0"})
        sh({kIp, "link", "set", dev, "up"});
    sh({kIp, "addr", "add", "192.168.1.1/24", "brd", "+", "dev", "va0"});
    sh({kIp, "addr", "add", "10.1.0.5/16", "brd", "+", "dev", "va0"});
    sh({kIp, "addr", "add", "169.254.10.20/16", "brd", "+", "dev", "vb0"});
    sh({kIp, "addr", "add", "172.16.0.1/30", "dev", "vc0"});
    sh({kIp, "-6", "addr", "add", "2001:db8:1::1/64", "dev", "va0"});
    sh({kIp, "-6", "addr", "add", "2001:db8:3::1/64", "dev", "va0", "valid_lft", "1000",
        "preferred_lft", "0"});
    sh({kIp, "-6", "addr", "add", "2001:db8:4::9/48", "dev", "vb0", "valid_lft", "1000",
        "preferred_lft", "1000"});
    sh({kIp, "-6", "addr", "add", "fd00::5/128", "dev", "vd0"});
    // Link-local addresses come with the carrier; wait until all four have theirs.
    ASSERT_TRUE(daemon_env::eventually(
        [] { return harness::count_of(harness::read_file("/proc/net/if_inet6"), "fe80") == 4; }));
}

// The leaves of every row of a walk, by the row's keys joined with blanks.
std::map<std::string, std::map<std::string, std::string>> walk(const Emu &emu,
                                                               const std::string &path)
{
    std::map<std::string, std::map<std::string, std::string>> out;
    for (cli_json::row &r : emu.walk(path)) {
        std::string keys;
        for (const std::string &k : r.keys)
            keys += (keys.empty() ? "" : " ") + k;
        out[keys] = std::move(r.leaves);
    }
    return out;
}

struct address_row {
    int type;
    std::string addr, dev;
    int kind, prefix_len, origin, status, storage; // prefix_len 0: no prefix row (zeroDotZero)
};

// An ipAddressTable row as compared: keys, then ifIndex, type, prefix pointer, origin, status and
// storage type.
std::string text(const address_row &r)
{
    std::string index = if_index(r.dev), prefix = "0.0";
    if (r.prefix_len > 0) { // ipAddressPrefixOrigin.<ifIndex>.<type>.<length>.<prefix>.<bits>
        size_t bytes = r.addr.size() / 2;
        prefix = "1.3.6.1.2.1.4.32.1.5." + index + "." + std::to_string(r.type) + "." +
                 std::to_string(bytes);
        for (size_t i = 0; i < bytes; i++) {
            int keep = std::clamp(r.prefix_len - 8 * static_cast<int>(i), 0, 8);
            int b = std::stoi(r.addr.substr(2 * i, 2), nullptr, 16);
            prefix += "." + std::to_string(b & (0xff00 >> keep) & 0xff);
        }
        prefix += "." + std::to_string(r.prefix_len);
    }
    return std::to_string(r.type) + " " + r.addr + " " + index + " " + std::to_string(r.kind) +
           " " + prefix + " " + std::to_string(r.origin) + " " + std::to_string(r.status) + " " +
           std::to_string(r.storage);
}

std::vector<std::string> walked_addresses(const Emu &emu)
{
    std::vector<std::string> out;
    for (cli_json::row &r : emu.walk(kAddresses)) {
        std::string line = r.keys.at(0) + " " + r.keys.at(1);
        for (const char *leaf : {"IfIndex", "Type", "Prefix", "Origin", "Status", "StorageType"})
            line += " " + r.leaves[std::string("ipAddress") + leaf];
        out.push_back(line);
        EXPECT_EQ(r.leaves["ipAddressCreated"], "0");
        EXPECT_EQ(r.leaves["ipAddressRowStatus"], ""); // C_NOEXISTS: no value
    }
    return out;
}

// Both tables against the kernel, each broadcast row carrying the interface's last broadcast
// address, and a change seen only once their 3-second caches have expired.
ISOLATED_TEST(IpMibTest, AddressAndRouterAdvertTablesFollowTheKernel)
{
    make_interfaces();
    daemon_env::write_file("/proc/sys/net/ipv6/conf/all/forwarding", "1\n");
    daemon_env::write_file("/proc/sys/net/ipv6/conf/va0/mtu", "1400\n");
    Emu emu;
    auto d = emu.start_with_daemon();
    ASSERT_TRUE(d);
    EXPECT_EQ(emu.cli({"get", std::string(kAddresses) + "{1 c0a80101}/ipAddressIfIndex"}),
              daemon_env::kNoExists);
    const std::string ll = "fe80000000000000000000fffe00000";
    const address_row rows[] = {
        {1, "0a010005", "va0", 1, 16, 2, 1, 2},
        {1, "0a01ffff", "va0", 3, 0, 2, 1, 2},
        {1, "0a01ffff", "va0", 3, 0, 2, 1, 2},
        {1, "7f000001", "lo", 1, 8, 2, 1, 2},
        {1, "a9fe0a14", "vb0", 1, 16, 6, 1, 2},
        {1, "a9feffff", "vb0", 3, 0, 6, 1, 2},
        {1, "ac100001", "vc0", 1, 30, 2, 1, 2},
        {1, "c0a80101", "va0", 1, 24, 2, 1, 2},
        {2, "00000000000000000000000000000001", "lo", 1, 128, 2, 1, 2},
        {2, "20010db8000100000000000000000001", "va0", 1, 64, 2, 1, 2},
        {2, "20010db8000300000000000000000001", "va0", 1, 64, 2, 2, 2}, // deprecated
        {2, "20010db8000400000000000000000009", "vb0", 1, 48, 5, 1, 4}, // no flags
        {2, "fd000000000000000000000000000005", "vd0", 1, 128, 2, 1, 2},
        {2, ll + "a", "va0", 1, 64, 5, 1, 4},
        {2, ll + "b", "vb0", 1, 64, 5, 1, 4},
        {2, ll + "c", "vc0", 1, 64, 5, 1, 4},
        {2, ll + "d", "vd0", 1, 64, 5, 1, 4},
    };
    std::vector<std::string> want;
    for (const address_row &r : rows)
        want.push_back(text(r));
    EXPECT_EQ(walked_addresses(emu), want);

    auto sys = [](const std::string &file) {
        return std::to_string(std::stoul(harness::read_file("/proc/sys/net/ipv6/" + file)));
    };
    std::map<std::string, std::string> name_of; // the interfaces with an IPv4 address
    for (const char *dev : {"lo", "va0", "vb0", "vc0"})
        name_of[if_index(dev)] = dev;
    auto adverts = walk(emu, kRouterAdvert);
    auto walked_at = std::chrono::steady_clock::now();
    EXPECT_EQ(adverts.size(), name_of.size());
    for (auto &[key, l] : adverts) {
        ASSERT_TRUE(name_of.count(key)) << key;
        const std::string &dev = name_of[key];
        EXPECT_EQ(l["ipv6RouterAdvertLinkMTU"], sys("conf/" + dev + "/mtu")) << dev;
        EXPECT_EQ(l["ipv6RouterAdvertCurHopLimit"], sys("conf/" + dev + "/hop_limit"));
        EXPECT_EQ(l["ipv6RouterAdvertRetransmitTime"], sys("neigh/" + dev + "/retrans_time_ms"));
        EXPECT_EQ(l["ipv6RouterAdvertReachableTime"],
                  sys("neigh/" + dev + "/base_reachable_time_ms"));
        EXPECT_EQ(l["ipv6RouterAdvertSendAdverts"] + " " + l["ipv6RouterAdvertMaxInterval"] + " " +
                      l["ipv6RouterAdvertMinInterval"] + " " + l["ipv6RouterAdvertManagedFlag"] +
                      " " + l["ipv6RouterAdvertOtherConfigFlag"] + " " +
                      l["ipv6RouterAdvertDefaultLifetime"],
                  "1 600 200 2 2 0");
    }

    sh({kIp, "addr", "add", "192.168.7.7/24", "dev", "vc0"});
    daemon_env::write_file("/proc/sys/net/ipv6/conf/all/forwarding", "0\n");
    EXPECT_EQ(walked_addresses(emu), want);
    std::this_thread::sleep_until(walked_at + std::chrono::milliseconds(3100));
    want.insert(want.begin() + 8, text({1, "c0a80707", "vc0", 1, 24, 2, 1, 2}));
    EXPECT_EQ(walked_addresses(emu), want);
    for (auto &r : walk(emu, kRouterAdvert))
        EXPECT_EQ(r.second["ipv6RouterAdvertSendAdverts"], "2") << r.first;
}

// An address as the walks' binary keys print it.
std::string addr_hex(const std::string &text)
{
    unsigned char b[16];
    int family = text.find(':') == std::string::npos ? AF_INET : AF_INET6;
    inet_pton(family, text.c_str(), b);
    std::string out;
    char two[3];
    for (int i = 0; i < (family == AF_INET ? 4 : 16); i++) {
        snprintf(two, sizeof two, "%02x", b[i]);
        out += two;
    }
    return out;
}

// The netlink tables against the kernel's neighbours, routes and addresses; writes accepted and
// ignored; a key of the wrong type ends the daemon with the getter's assertion.
ISOLATED_TEST(IpMibTest, NetlinkTablesWritesAndKeyTypes)
{
    make_interfaces();
    sh({kIp, "neigh", "add", "192.168.1.2", "lladdr", "02:00:00:00:00:2a", "dev", "va0", "nud",
        "permanent"});
    sh({kIp, "neigh", "add", "192.168.1.3", "dev", "va0", "nud", "failed"});
    sh({kIp, "neigh", "add", "192.168.1.4", "lladdr", "02:00:00:00:00:2b", "dev", "va0", "nud",
        "noarp"});
    sh({kIp, "neigh", "add", "2001:db8:1::2", "lladdr", "02:00:00:00:00:2c", "dev", "va0", "nud",
        "stale"});
    sh({kIp, "route", "add", "default", "via", "192.168.1.254", "dev", "va0"});
    sh({kIp, "route", "add", "default", "dev", "vb0", "metric", "100"});
    sh({kIp, "-6", "route", "add", "default", "via", "fe80::1", "dev", "va0"});
    Emu emu;
    auto d = emu.start_with_daemon();
    ASSERT_TRUE(d);
    const std::string va0 = if_index("va0"), vb0 = if_index("vb0");

    // Every neighbour the kernel lists, its own included; the type and state of those added above
    // (the mapping of every kernel state is pinned by the unit tests).
    cli_json::value kernel;
    ASSERT_TRUE(
        cli_json::parse(harness::run({kIp, "-j", "neigh", "show", "nud", "all"}).out, kernel));
    std::set<std::string> want_keys, keys;
    for (const cli_json::value &n : kernel.items) {
        std::string family = n["dst"].text.find(':') == std::string::npos ? " 1 " : " 2 ";
        want_keys.insert(if_index(n["dev"].text) + family + addr_hex(n["dst"].text));
    }
    std::map<std::string, std::string> got;
    for (auto &[key, l] : walk(emu, "/IP-MIB/ipNetToPhysicalTable/ipNetToPhysicalEntry")) {
        keys.insert(key);
        got[key] = l["ipNetToPhysicalPhysAddress"] + " type=" + l["ipNetToPhysicalType"] +
                   " state=" + l["ipNetToPhysicalState"];
    }
    EXPECT_EQ(keys, want_keys);
    EXPECT_EQ(got[va0 + " 1 c0a80102"], "02000000002a type=4 state=1");
    std::string failed = got[va0 + " 1 c0a80103"]; // no address known
    EXPECT_EQ(failed.substr(failed.find(" type")), " type=3 state=1");
    EXPECT_EQ(got[va0 + " 1 c0a80104"], "02000000002b type=4 state=1");
    EXPECT_EQ(got[va0 + " 2 20010db8000100000000000000000002"], "02000000002c type=3 state=2");

    auto routers = walk(emu, "/IP-MIB/ipDefaultRouterTable/ipDefaultRouterEntry");
    ASSERT_EQ(routers.size(), 1u);
    EXPECT_EQ(routers.begin()->first, "1 c0a801fe " + va0);
    auto &router = routers.begin()->second;
    EXPECT_EQ(router["ipDefaultRouterLifetime"] + " " + router["ipDefaultRouterPreference"],
              "65535 0");

    auto prefixes = walk(emu, "/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry");
    auto prefix = [&](const std::string &keys) {
        auto &l = prefixes[keys];
        return l["ipAddressPrefixOrigin"] + " " + l["ipAddressPrefixOnLinkFlag"] + " " +
               l["ipAddressPrefixAutonomousFlag"] + " " + l["ipAddressPrefixAdvPreferredLifetime"] +
               " " + l["ipAddressPrefixAdvValidLifetime"];
    };
    EXPECT_EQ(prefix(va0 + " 1 c0a80100 24"), "2 1 2 4294 4294");
    EXPECT_EQ(prefix(vb0 + " 1 a9fe0000 16"), "3 1 2 4294 4294");
    EXPECT_EQ(prefix(va0 + " 2 fe800000000000000000000000000000 64"), "3 1 2 4294 4294");
    EXPECT_EQ(prefix(vb0 + " 2 20010db8000400000000000000000000 48"), "5 1 2 0 0");
    // The dump's end marker sharing a datagram reads as an address of no family on interface 0.
    size_t addresses = 0;
    for (const auto &p : prefixes)
        addresses += p.first.rfind("0 ", 0) != 0;
    EXPECT_EQ(addresses, 14u); // 5 IPv4, 9 IPv6

    std::set<std::string> zones;
    for (auto &[key, l] : walk(emu, "/IP-MIB/ipv6ScopeZoneIndexTable/ipv6ScopeZoneIndexEntry")) {
        zones.insert(key);
        EXPECT_EQ(l["ipv6ScopeZoneIndexLinkLocal"], key);
        EXPECT_EQ(l["ipv6ScopeZoneIndexSiteLocal"], "0");
    }
    EXPECT_EQ(zones, (std::set<std::string>{va0, vb0, if_index("vc0"), if_index("vd0")}));

    std::string before = emu.cli({"walk", kAddresses});
    for (auto [path, value] : {
             std::pair<std::string, const char *>{"/IP-MIB/ip/ipDefaultTTL", "32"},
             {std::string(kAddresses) + "{1 7f000001}/ipAddressRowStatus", "6"},
             {std::string(kRouterAdvert) + "{1}/ipv6RouterAdvertRowStatus", "2"},
             {"/IP-MIB/ipNetToPhysicalTable/ipNetToPhysicalEntry{1 1 7f000002}/"
              "ipNetToPhysicalRowStatus",
              "6"},
         })
        EXPECT_EQ(emu.cli({"set", path, value}), kOk) << path;
    EXPECT_EQ(emu.cli({"walk", kAddresses}), before);

    emu.cli({"get", std::string(kAddresses) + "{C_UINT32:1 7f000001}/ipAddressIfIndex"});
    EXPECT_EQ(d->wait_exit(), 128 + SIGABRT);
    EXPECT_NE(d->err().find("ip_address_get_elem: Assertion `(v_pp)->type == C_ENUM_VALUE' "
                            "failed."),
              std::string::npos)
        << d->err();
}

// The kernel's counters at once: "<section>:<name>" from /proc/net/snmp and netstat, snmp6's names
// as they are, each interface file's as "<ifIndex>:<name>".
std::map<std::string, uint64_t> kernel_counters()
{
    std::map<std::string, uint64_t> out;
    for (const char *file : {"/proc/net/snmp", "/proc/net/netstat"}) {
        std::istringstream in(harness::read_file(file));
        for (std::string header, values; std::getline(in, header) && std::getline(in, values);) {
            std::istringstream h(header), v(values);
            std::string section, name;
            h >> section;
            v >> section;
            for (uint64_t n; h >> name && v >> n;)
                out[section + name] = n;
        }
    }
    std::vector<std::string> files = {"/proc/net/snmp6"};
    for (const auto &e : std::filesystem::directory_iterator("/proc/net/dev_snmp6"))
        files.push_back(e.path());
    for (const std::string &file : files) {
        std::map<std::string, uint64_t> pairs;
        std::istringstream in(harness::read_file(file));
        std::string name;
        for (uint64_t n; in >> name >> n;)
            pairs[name] = n;
        std::string prefix = pairs.count("ifIndex") ? std::to_string(pairs["ifIndex"]) + ":" : "";
        for (const auto &p : pairs)
            out[prefix + p.first] = p.second;
    }
    return out;
}

// A walked counter lies between the kernel's values (cut to 32 bits) before and after its walk.
void between(const std::string &walked, const std::string &kernel,
             std::map<std::string, uint64_t> &a, std::map<std::string, uint64_t> &b)
{
    uint64_t v = std::stoull(walked.empty() ? "0" : walked);
    EXPECT_LE(a[kernel] & 0xffffffff, v) << kernel;
    EXPECT_GE(b[kernel] & 0xffffffff, v) << kernel;
}

// The traffic and ICMP tables from the kernel's own files, read around their walks (a row per
// interface and per ICMP message type; each column's kernel name is pinned by the unit tests),
// and the scalars against the namespace's sysctls (ip_forward 2 answers notForwarding).
ISOLATED_TEST(IpMibTest, StatisticsAndScalarsFollowTheKernel)
{
    make_interfaces();
    // Datagrams to closed ports: port-unreachable messages both ways in both IP versions.
    sh({"/bin/bash", "-c",
        "for i in 1 2 3; do echo x >/dev/udp/127.0.0.1/9; echo x >/dev/udp/::1/9; done"});
    daemon_env::write_file("/proc/sys/net/ipv4/ip_forward", "2\n");
    daemon_env::write_file("/proc/sys/net/ipv4/ip_default_ttl", "77\n");
    daemon_env::write_file("/proc/sys/net/ipv6/conf/all/forwarding", "1\n");
    Emu emu;
    auto d = emu.start_with_daemon();
    ASSERT_TRUE(d);

    auto a = kernel_counters();
    auto system = walk(emu, "/IP-MIB/ipSystemStatsTable/ipSystemStatsEntry");
    auto per_if = walk(emu, "/IP-MIB/ipIfStatsTable/ipIfStatsEntry");
    auto stats = walk(emu, "/IP-MIB/icmpStatsTable/icmpStatsEntry");
    auto msgs = walk(emu, "/IP-MIB/icmpMsgStatsTable/icmpMsgStatsEntry");
    auto b = kernel_counters();

    ASSERT_EQ(system.size(), 2u);
    EXPECT_GT(a["Ip:InReceives"], 0u);
    between(system["1"]["ipSystemStatsInReceives"], "Ip:InReceives", a, b);
    between(system["1"]["ipSystemStatsInNoRoutes"], "IpExt:InNoRoutes", a, b);
    between(system["2"]["ipSystemStatsOutRequests"], "Ip6OutRequests", a, b);
    EXPECT_EQ(system["2"]["ipSystemStatsHCOutRequests"], system["2"]["ipSystemStatsOutRequests"]);
    std::set<std::string> if_rows;
    for (const auto &p : a)
        if (p.first.find(":ifIndex") != std::string::npos)
            if_rows.insert("2 " + std::to_string(p.second));
    EXPECT_EQ(if_rows.size(), 5u); // lo and the four veths
    EXPECT_EQ(per_if.size(), if_rows.size());
    for (const std::string &keys : if_rows) {
        EXPECT_TRUE(per_if.count(keys)) << keys;
        between(per_if[keys]["ipIfStatsOutRequests"], keys.substr(2) + ":Ip6OutRequests", a, b);
    }

    ASSERT_EQ(stats.size(), 2u);
    between(stats["1"]["icmpStatsOutMsgs"], "Icmp:OutMsgs", a, b);
    between(stats["2"]["icmpStatsInMsgs"], "Icmp6InMsgs", a, b);
    EXPECT_GT(std::stoull(stats["1"]["icmpStatsOutMsgs"]), 0u);
    for (auto &[key, l] : msgs)
        for (std::string dir : {"In", "Out"})
            between(l["icmpMsgStats" + dir + "Pkts"],
                    (key[0] == '1' ? "IcmpMsg:" : "Icmp6") + dir + "Type" + key.substr(2), a, b);
    EXPECT_TRUE(msgs.count("1 3") && msgs.count("2 1")) << "port unreachable rows";

    auto scalar = [&](const char *leaf) {
        cli_json::value v;
        std::string answer = emu.cli({"get", std::string("/IP-MIB/ip/") + leaf});
        EXPECT_TRUE(cli_json::parse(answer, v)) << answer;
        return v["value"].text;
    };
    auto sysctl = [](const char *file) {
        return std::to_string(std::stoi(harness::read_file(std::string("/proc/sys/net/") + file)));
    };
    EXPECT_EQ(scalar("ipForwarding") + " " + scalar("ipDefaultTTL") + " " +
                  scalar("ipv6IpForwarding") + " " + scalar("ipv6IpDefaultHopLimit") + " " +
                  scalar("ipReasmTimeout"),
              "2 77 1 " + sysctl("ipv6/conf/default/hop_limit") + " " + sysctl("ipv4/ipfrag_time"));
}

} // namespace
