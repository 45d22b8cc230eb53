// IP-MIB end to end: the leisobek binary on veth pairs with IPv4 and IPv6 addresses, confd-emu-cli.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/mount.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "cli_json.h"
#include "daemon_env.h"

namespace
{

using daemon_env::Emu;

const char kAddresses[] = "/IP-MIB/ipAddressTable/ipAddressEntry";
const char kIp[] = "/sbin/ip";

void sh(const std::vector<std::string> &argv)
{
    harness::CmdResult r = harness::run(argv);
    ASSERT_EQ(r.exit_code, 0) << argv[0] << " " << argv[1] << ": " << r.err;
}

// Two veth pairs with IPv4 and IPv6 addresses of every kind the table tells
// apart (broadcast, link-local, deprecated, without a fixed lifetime), DAD
// off so that no address is tentative while the test reads.
void make_interfaces()
{
    daemon_env::write_file("/proc/sys/net/ipv6/conf/default/accept_dad", "0\n");
    daemon_env::write_file("/proc/sys/net/ipv6/conf/all/accept_dad", "0\n");
    sh({kIp, "link", "add", "va0", "type", "veth", "peer", "name", "vb0"});
    sh({kIp, "link", "add", "vc0", "type", "veth", "peer", "name", "vd0"});
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
    ASSERT_TRUE(daemon_env::eventually([] {
        std::string text = "\n" + harness::read_file("/proc/net/if_inet6");
        size_t link_local = 0;
        for (size_t at = text.find("\nfe80"); at != std::string::npos;
             at = text.find("\nfe80", at + 1))
            link_local++;
        return link_local == 4;
    }));
}

// One address as `ip -o addr show` lists it.
struct kernel_address {
    int if_index;
    int type; // 1 IPv4, 2 IPv6
    std::vector<uint8_t> bytes;
    int prefix_len;
    std::string broadcast; // IPv4 broadcast, "" when none
    std::vector<std::string> words;
    bool has(const char *w) const
    {
        return std::find(words.begin(), words.end(), w) != words.end();
    }
};

std::vector<kernel_address> kernel_addresses()
{
    std::vector<kernel_address> out;
    std::istringstream lines(harness::run({kIp, "-o", "addr", "show"}).out);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream in(line);
        std::vector<std::string> w;
        for (std::string word; in >> word;)
            w.push_back(word);
        if (w.size() < 4 || (w[2] != "inet" && w[2] != "inet6")) continue;
        kernel_address a;
        a.if_index = std::stoi(w[0]);
        a.type = w[2] == "inet" ? 1 : 2;
        size_t slash = w[3].find('/');
        a.prefix_len = std::stoi(w[3].substr(slash + 1));
        a.bytes.resize(a.type == 1 ? 4 : 16);
        inet_pton(a.type == 1 ? AF_INET : AF_INET6, w[3].substr(0, slash).c_str(), a.bytes.data());
        for (size_t i = 4; i < w.size(); i++)
            if (w[i] == "brd" && i + 1 < w.size()) a.broadcast = w[i + 1];
        a.words = w;
        out.push_back(a);
    }
    return out;
}

std::string hex(const std::vector<uint8_t> &bytes)
{
    std::string out;
    char two[3];
    for (uint8_t b : bytes) {
        snprintf(two, sizeof two, "%02x", b);
        out += two;
    }
    return out;
}

// The prefix row pointer of an address:
// ipAddressPrefixOrigin.<ifIndex>.<type>.<length>.<prefix>.<bits>.
std::string prefix_pointer(const kernel_address &a)
{
    std::string oid = "1.3.6.1.2.1.4.32.1.5." + std::to_string(a.if_index) + "." +
                      std::to_string(a.type) + "." + std::to_string(a.bytes.size());
    for (size_t i = 0; i < a.bytes.size(); i++) {
        int keep = std::clamp(a.prefix_len - 8 * static_cast<int>(i), 0, 8);
        oid += "." + std::to_string(a.bytes[i] & (0xff00 >> keep) & 0xff);
    }
    return oid + "." + std::to_string(a.prefix_len);
}

// A row as compared: keys then the leaves, in one string.
using row_text = std::string;

std::string row_of(int type, const std::string &addr, int if_index, int kind,
                   const std::string &prefix, int origin, int status, int storage)
{
    std::ostringstream s;
    s << type << " " << addr << " if=" << if_index << " type=" << kind << " prefix=" << prefix
      << " origin=" << origin << " status=" << status << " storage=" << storage;
    return s.str();
}

// ipAddressTable as the kernel's address list says it must read, in index
// order: every IPv4 address, plus a broadcast row per address of an
// interface with a broadcast address (the value of the last one listed on
// that interface); every IPv6 address with its state from its flags.
std::vector<row_text> expected_rows(const std::vector<kernel_address> &kernel)
{
    std::map<int, std::string> broadcast_of; // ifIndex -> last broadcast listed
    for (const kernel_address &a : kernel)
        if (a.type == 1 && !a.broadcast.empty()) broadcast_of[a.if_index] = a.broadcast;
    std::vector<std::tuple<int, size_t, std::string, row_text>> rows;
    for (const kernel_address &a : kernel) {
        std::string addr = hex(a.bytes);
        if (a.type == 1) {
            int origin = a.bytes[0] == 169 && a.bytes[1] == 254 ? 6 : 2;
            rows.emplace_back(1, 4, addr,
                              row_of(1, addr, a.if_index, 1, prefix_pointer(a), origin, 1, 2));
            if (broadcast_of.count(a.if_index)) {
                std::vector<uint8_t> b(4);
                inet_pton(AF_INET, broadcast_of[a.if_index].c_str(), b.data());
                rows.emplace_back(1, 4, hex(b),
                                  row_of(1, hex(b), a.if_index, 3, "0.0", origin, 1, 2));
            }
            continue;
        }
        // `ip` shows an address without IFA_F_PERMANENT as "dynamic".
        bool permanent = !a.has("dynamic"), temporary = a.has("temporary");
        bool no_flags = !permanent && !temporary && !a.has("deprecated");
        bool link_local = a.bytes[0] == 0xfe && (a.bytes[1] & 0xc0) == 0x80;
        int status = no_flags || permanent || temporary ? 1 : 2;
        int origin = no_flags ? 5 : temporary ? 6 : link_local ? 5 : 2;
        rows.emplace_back(
            2, 16, addr,
            row_of(2, addr, a.if_index, 1, prefix_pointer(a), origin, status, origin == 5 ? 4 : 2));
    }
    std::stable_sort(rows.begin(), rows.end(), [](const auto &x, const auto &y) {
        return std::tie(std::get<0>(x), std::get<1>(x), std::get<2>(x)) <
               std::tie(std::get<0>(y), std::get<1>(y), std::get<2>(y));
    });
    std::vector<row_text> out;
    for (const auto &r : rows)
        out.push_back(std::get<3>(r));
    return out;
}

// ipAddressTable as a walk through confd-emu answers it.
std::vector<row_text> walked_rows(const Emu &emu)
{
    std::string answer = emu.cli({"walk", kAddresses});
    std::vector<cli_json::row> rows;
    EXPECT_TRUE(cli_json::parse_walk(answer, rows)) << answer.substr(0, 300);
    std::vector<row_text> out;
    for (cli_json::row &r : rows) {
        if (r.keys.size() != 2) continue;
        auto n = [&](const char *leaf) { return std::stoi(r.leaves[leaf]); };
        out.push_back(row_of(std::stoi(r.keys[0]), r.keys[1], n("ipAddressIfIndex"),
                             n("ipAddressType"), r.leaves["ipAddressPrefix"], n("ipAddressOrigin"),
                             n("ipAddressStatus"), n("ipAddressStorageType")));
        EXPECT_EQ(r.leaves["ipAddressCreated"], "0");
        EXPECT_EQ(r.leaves["ipAddressRowStatus"], ""); // C_NOEXISTS: no value
    }
    return out;
}

std::unique_ptr<daemon_env::Daemon> start(Emu &emu)
{
    auto d = emu.start_with_daemon();
    if (d && emu.status().find("\"ip_address_status\"") == std::string::npos) {
        ADD_FAILURE() << "ip_address_status is not served: " << emu.status();
        d.reset();
    }
    return d;
}

// Verifies ipAddressTable against the kernel's own address list: exactly its
// addresses in index order with their broadcast rows, types, interfaces,
// prefix pointers, origins, states and storage types; C_NOEXISTS before the
// first walk; a second walk within 3 seconds answers the same rows although
// an address was added, and a walk after 3 seconds lists it.
TEST(IpMibTest, AddressTableMatchesTheKernel)
{
    RUN_ISOLATED([] {
        make_interfaces();
        Emu emu;
        auto d = start(emu);
        ASSERT_TRUE(d);
        EXPECT_EQ(emu.cli({"get", std::string(kAddresses) + "{1 c0a80101}/ipAddressIfIndex"}),
                  "{\"type\":\"C_NOEXISTS\"}");
        std::vector<row_text> want = expected_rows(kernel_addresses());
        auto walked_at = std::chrono::steady_clock::now();
        std::vector<row_text> rows = walked_rows(emu);
        EXPECT_EQ(rows, want);
        EXPECT_EQ(rows.size(), 17u); // 8 IPv4 (3 broadcast rows), 9 IPv6 (4 link-local)

        sh({kIp, "addr", "add", "192.168.7.7/24", "dev", "vc0"});
        EXPECT_EQ(walked_rows(emu), rows);
        std::this_thread::sleep_until(walked_at + std::chrono::milliseconds(3100));
        std::vector<row_text> later = expected_rows(kernel_addresses());
        EXPECT_EQ(later.size(), rows.size() + 1);
        EXPECT_EQ(walked_rows(emu), later);
    });
}

// The value and type of every leaf of every row of a walk, by the row's keys.
std::map<std::string, std::map<std::string, std::pair<std::string, std::string>>>
typed_walk(const Emu &emu, const std::string &path)
{
    std::map<std::string, std::map<std::string, std::pair<std::string, std::string>>> out;
    cli_json::value doc;
    std::string answer = emu.cli({"walk", path});
    EXPECT_TRUE(cli_json::parse(answer, doc)) << answer.substr(0, 300);
    for (const cli_json::value &row : doc.items) {
        std::string keys;
        for (const cli_json::value &k : row["keys"].items)
            keys += (keys.empty() ? "" : " ") + k["value"].text;
        for (const auto &leaf : row["leaves"].members)
            out[keys][leaf.first] = {leaf.second["type"].text, leaf.second["value"].text};
    }
    return out;
}

// Name/value counters of a file made of "name value" lines.
std::map<std::string, uint64_t> pair_counters(const std::string &path)
{
    std::map<std::string, uint64_t> out;
    std::istringstream in(harness::read_file(path));
    std::string name;
    for (uint64_t value; in >> name >> value;)
        out[name] = value;
    return out;
}

// Header/value counters of a /proc/net/snmp or netstat section.
std::map<std::string, uint64_t> section_counters(const std::string &path, const std::string &name)
{
    std::map<std::string, uint64_t> out;
    std::istringstream in(harness::read_file(path));
    std::string header, values;
    while (std::getline(in, header))
        if (header.rfind(name + ": ", 0) == 0 && std::getline(in, values)) {
            std::istringstream h(header.substr(name.size() + 2)), v(values.substr(name.size() + 2));
            std::string field;
            for (uint64_t value; h >> field && v >> value;)
                out[field] = value;
            break;
        }
    return out;
}

// The kernel counters an IP version's rows come from, read at once: IPv4
// from the "Ip" and "IpExt" sections, IPv6 from snmp6 or an interface file.
std::map<std::string, uint64_t> kernel_counters(const std::string &source)
{
    if (source != "ipv4") return pair_counters(source);
    std::map<std::string, uint64_t> out = section_counters("/proc/net/snmp", "Ip");
    for (const auto &c : section_counters("/proc/net/netstat", "IpExt"))
        out[c.first] = c.second;
    return out;
}

// Counter columns and their kernel names (IPv4; IPv6 adds "Ip6" and has its own forwarding name).
const std::vector<std::pair<std::string, std::string>> counter_columns = {
    {"InReceives", "InReceives"},   {"InHdrErrors", "InHdrErrors"},
    {"InNoRoutes", "InNoRoutes"},   {"InAddrErrors", "InAddrErrors"},
    {"InDelivers", "InDelivers"},   {"OutRequests", "OutRequests"},
    {"OutDiscards", "OutDiscards"}, {"OutForwDatagrams", "ForwDatagrams"},
    {"InMcastPkts", "InMcastPkts"}, {"OutMcastPkts", "OutMcastPkts"},
    {"OutFragOKs", "FragOKs"},      {"ReasmReqds", "ReasmReqds"},
};

// Checks one row against kernel counters read just before (a) and after (b)
// its walk: every counter lies between them, Counter32 columns come as
// C_UINT32 and their HC columns as C_UINT64 with the same value (the first
// refresh sets the total to the kernel's value), and the derived columns add up.
void check_row(const std::string &table, bool ipv6,
               const std::map<std::string, std::pair<std::string, std::string>> &leaves,
               std::map<std::string, uint64_t> a, std::map<std::string, uint64_t> b)
{
    auto value = [&](const std::string &column, const char *type) {
        auto it = leaves.find(table + column);
        EXPECT_TRUE(it != leaves.end()) << table + column;
        if (it == leaves.end()) return uint64_t(0);
        EXPECT_EQ(it->second.first, type) << table + column;
        return static_cast<uint64_t>(std::stoull(it->second.second));
    };
    for (const auto &c : counter_columns) {
        std::string kernel =
            ipv6 ? "Ip6" + (c.first == "OutForwDatagrams" ? c.first : c.second) : c.second;
        uint64_t v = value(c.first, "C_UINT32");
        EXPECT_LE(a[kernel] & 0xffffffff, v) << table + c.first;
        EXPECT_GE(b[kernel] & 0xffffffff, v) << table + c.first;
        if (c.first == "InReceives" || c.first == "OutRequests" || c.first == "InDelivers") {
            EXPECT_EQ(value("HC" + c.first, "C_UINT64"), v) << table + c.first;
        }
    }
    EXPECT_EQ(value("OutFragReqds", "C_UINT32"),
              value("OutFragOKs", "C_UINT32") + value("OutFragFails", "C_UINT32"));
    EXPECT_EQ(value("HCInForwDatagrams", "C_UINT64"),
              value("InNoRoutes", "C_UINT32") + value("HCOutForwDatagrams", "C_UINT64"));
    EXPECT_EQ(value("HCInOctets", "C_UINT64"), 0u);
    if (ipv6 && table == "ipSystemStats") {
        EXPECT_EQ(value("InBcastPkts", "C_UINT32"), 0u);
    }
}

// Verifies ipSystemStatsTable and ipIfStatsTable against /proc/net/snmp,
// /proc/net/netstat, /proc/net/snmp6 and /proc/net/dev_snmp6 read around
// the walks (the IPC of the test and the veths' neighbour discovery are the
// traffic): one IPv6 row per interface
// file, keyed by the file's own ifIndex.
TEST(IpMibTest, TrafficStatisticsMatchTheKernel)
{
    RUN_ISOLATED([] {
        make_interfaces();
        Emu emu;
        auto d = start(emu);
        ASSERT_TRUE(d);

        auto v4a = kernel_counters("ipv4"), v6a = kernel_counters("/proc/net/snmp6");
        auto system = typed_walk(emu, "/IP-MIB/ipSystemStatsTable/ipSystemStatsEntry");
        auto v4b = kernel_counters("ipv4"), v6b = kernel_counters("/proc/net/snmp6");
        ASSERT_EQ(system.size(), 2u);
        EXPECT_GT(v4a["InReceives"], 0u);
        check_row("ipSystemStats", false, system["1"], v4a, v4b);
        check_row("ipSystemStats", true, system["2"], v6a, v6b);

        std::map<std::string, std::map<std::string, uint64_t>> before, after;
        std::vector<std::string> files;
        for (const auto &e : std::filesystem::directory_iterator("/proc/net/dev_snmp6"))
            files.push_back(e.path());
        for (const std::string &f : files)
            before[f] = kernel_counters(f);
        auto per_if = typed_walk(emu, "/IP-MIB/ipIfStatsTable/ipIfStatsEntry");
        for (const std::string &f : files)
            after[f] = kernel_counters(f);
        ASSERT_EQ(files.size(), 5u); // lo and the four veths
        EXPECT_EQ(per_if.size(), files.size());
        for (const std::string &f : files) {
            std::string keys = "2 " + std::to_string(before[f]["ifIndex"]);
            ASSERT_TRUE(per_if.count(keys)) << f;
            check_row("ipIfStats", true, per_if[keys], before[f], after[f]);
        }
    });
}

// Verifies ipv6RouterAdvertTable: one row per IPv4 address of the interface
// list (by its interface's index), the interface's MTU, hop limit and
// neighbour timers from /proc/sys/net/ipv6, the fixed columns; with
// forwarding on every row advertises, and 3 seconds after conf/all/forwarding
// is set to 0 none does.
TEST(IpMibTest, RouterAdvertFollowsTheSysctls)
{
    RUN_ISOLATED([] {
        make_interfaces();
        daemon_env::write_file("/proc/sys/net/ipv6/conf/all/forwarding", "1\n");
        daemon_env::write_file("/proc/sys/net/ipv6/conf/va0/mtu", "1400\n");
        Emu emu;
        auto d = start(emu);
        ASSERT_TRUE(d);
        const std::string path = "/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry";
        std::map<int, std::string> name_of; // the interfaces with an IPv4 address
        for (const kernel_address &a : kernel_addresses())
            if (a.type == 1) name_of[a.if_index] = a.words[1];
        auto sys = [](const std::string &file) {
            return std::to_string(std::stoul(harness::read_file("/proc/sys/net/ipv6/" + file)));
        };
        auto rows = typed_walk(emu, path);
        std::set<int> got, want;
        for (const auto &r : rows)
            got.insert(std::stoi(r.first));
        for (const auto &n : name_of)
            want.insert(n.first);
        EXPECT_EQ(want.size(), 4u); // lo, va0, vb0, vc0
        EXPECT_EQ(got, want);
        auto walked_at = std::chrono::steady_clock::now();
        for (auto &r : rows) {
            const std::string &dev = name_of[std::stoi(r.first)];
            auto &l = r.second;
            EXPECT_EQ(l["ipv6RouterAdvertSendAdverts"].second, "1") << dev;
            EXPECT_EQ(l["ipv6RouterAdvertLinkMTU"].second, sys("conf/" + dev + "/mtu")) << dev;
            EXPECT_EQ(l["ipv6RouterAdvertCurHopLimit"].second, sys("conf/" + dev + "/hop_limit"));
            EXPECT_EQ(l["ipv6RouterAdvertRetransmitTime"].second,
                      sys("neigh/" + dev + "/retrans_time_ms"));
            EXPECT_EQ(l["ipv6RouterAdvertReachableTime"].second,
                      sys("neigh/" + dev + "/base_reachable_time_ms"));
            EXPECT_EQ(l["ipv6RouterAdvertMaxInterval"].second + " " +
                          l["ipv6RouterAdvertMinInterval"].second + " " +
                          l["ipv6RouterAdvertManagedFlag"].second + " " +
                          l["ipv6RouterAdvertOtherConfigFlag"].second + " " +
                          l["ipv6RouterAdvertDefaultLifetime"].second,
                      "600 200 2 2 0");
        }

        daemon_env::write_file("/proc/sys/net/ipv6/conf/all/forwarding", "0\n");
        std::this_thread::sleep_until(walked_at + std::chrono::milliseconds(3100));
        for (auto &r : typed_walk(emu, path))
            EXPECT_EQ(r.second["ipv6RouterAdvertSendAdverts"].second, "2") << r.first;
    });
}

// Verifies the registration and the accepted writes: the twelve IP
// callpoints in order right after udp_status; a write to each of the four
// writable callpoints succeeds and changes no answer; a key of the wrong
// type ends the daemon with the getter's assertion.
TEST(IpMibTest, CallpointsWritesAndKeyTypes)
{
    RUN_ISOLATED([] {
        Emu emu;
        auto d = start(emu);
        ASSERT_TRUE(d);
        std::string status = emu.status();
        const std::string order =
            "\"udp_status\",\"ip6_scope_zone_idx\",\"ip_def_router\",\"ip_traf_status\","
            "\"ip_traf_system_stats\",\"ip_traf_if_stats\",\"ip_address_prefix_status\","
            "\"icmp_stat_status\",\"icmp_msg_status\",\"ip_status\",\"ip_address_status\","
            "\"ipv6_router_status\",\"ip-net-to-physical-stats\"";
        std::string compact = status;
        compact.erase(std::remove(compact.begin(), compact.end(), ' '), compact.end());
        EXPECT_NE(compact.find(order), std::string::npos) << status;

        std::string before = emu.cli({"walk", kAddresses});
        const std::string ok = "{\"result\":\"ok\"}";
        EXPECT_EQ(emu.cli({"set", "/IP-MIB/ip/ipDefaultTTL", "32"}), ok);
        EXPECT_EQ(
            emu.cli({"set", std::string(kAddresses) + "{1 7f000001}/ipAddressRowStatus", "6"}), ok);
        EXPECT_EQ(emu.cli({"set",
                           "/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry{1}/"
                           "ipv6RouterAdvertRowStatus",
                           "2"}),
                  ok);
        EXPECT_EQ(emu.cli({"set",
                           "/IP-MIB/ipNetToPhysicalTable/ipNetToPhysicalEntry{1 1 7f000002}/"
                           "ipNetToPhysicalRowStatus",
                           "6"}),
                  ok);
        EXPECT_EQ(emu.cli({"walk", kAddresses}), before);

        emu.cli({"get", std::string(kAddresses) + "{C_UINT32:1 7f000001}/ipAddressIfIndex"});
        EXPECT_EQ(d->wait_exit(), 128 + SIGABRT);
        EXPECT_NE(d->err().find("ip_address_get_elem: Assertion `(v_pp)->type == C_ENUM_VALUE' "
                                "failed."),
                  std::string::npos)
            << d->err();
    });
}

// ifIndex of each interface by name.
std::map<std::string, std::string> if_indexes()
{
    cli_json::value links;
    EXPECT_TRUE(cli_json::parse(harness::run({kIp, "-j", "link"}).out, links));
    std::map<std::string, std::string> out;
    for (const cli_json::value &l : links.items)
        out[l["ifname"].text] = l["ifindex"].text;
    return out;
}

// An address in the hex of the walks' binary keys.
std::string addr_hex(const std::string &text)
{
    std::vector<uint8_t> b(text.find(':') == std::string::npos ? 4 : 16);
    inet_pton(b.size() == 4 ? AF_INET : AF_INET6, text.c_str(), b.data());
    return hex(b);
}

// Verifies the netlink tables on veths the test configures:
// ipNetToPhysicalTable holds exactly the kernel's neighbours (`ip -j neigh
// show nud all`) with their link-layer addresses, static for permanent and
// no-ARP entries, reachable also when permanent, no-ARP or failed; ipDefaultRouterTable
// lists the IPv4 default route via a gateway with lifetime 65535, and
// neither the device-only default route nor the IPv6 one without an expiry;
// ipAddressPrefixTable has the manual, wellknown and link-local prefixes with
// lifetimes in millions of seconds, one row per address (the first two
// rows differ, so no duplicate is removed); ipv6ScopeZoneIndexTable has one row per
// interface with a link-local address and none for loopback.
TEST(IpMibTest, NetlinkTablesMatchTheKernel)
{
    RUN_ISOLATED([] {
        make_interfaces();
        sh({kIp, "neigh", "add", "192.168.1.2", "lladdr", "02:00:00:00:00:2a", "dev", "va0", "nud",
            "permanent"});
        sh({kIp, "neigh", "add", "192.168.1.3", "dev", "va0", "nud", "failed"});
        sh({kIp, "neigh", "add", "192.168.1.4", "lladdr", "02:00:00:00:00:2b", "dev", "va0", "nud",
            "noarp"});
        sh({kIp, "neigh", "add", "2001:db8:1::2", "lladdr", "02:00:00:00:00:2c", "dev", "va0",
            "nud", "stale"});
        sh({kIp, "route", "add", "default", "via", "192.168.1.254", "dev", "va0"});
        sh({kIp, "route", "add", "default", "dev", "vb0", "metric", "100"});
        sh({kIp, "-6", "route", "add", "default", "via", "fe80::1", "dev", "va0"});
        Emu emu;
        auto d = start(emu);
        ASSERT_TRUE(d);
        std::map<std::string, std::string> index = if_indexes();

        auto neighbours = typed_walk(emu, "/IP-MIB/ipNetToPhysicalTable/ipNetToPhysicalEntry");
        cli_json::value kernel;
        ASSERT_TRUE(
            cli_json::parse(harness::run({kIp, "-j", "neigh", "show", "nud", "all"}).out, kernel));
        std::map<std::string, std::string> want, got;
        for (const cli_json::value &n : kernel.items) {
            std::set<std::string> states;
            for (const cli_json::value &s : n["state"].items)
                states.insert(s.text);
            std::string lladdr = n["lladdr"].text;
            lladdr.erase(std::remove(lladdr.begin(), lladdr.end(), ':'), lladdr.end());
            std::string key = index[n["dev"].text] + " " +
                              (n["dst"].text.find(':') == std::string::npos ? "1 " : "2 ") +
                              addr_hex(n["dst"].text);
            std::string state = states.count("INCOMPLETE") ? "7"
                                : states.count("STALE")    ? "2"
                                : states.count("DELAY")    ? "3"
                                : states.count("PROBE")    ? "4"
                                                           : "1";
            want[key] = lladdr + " type=" +
                        (states.count("PERMANENT") || states.count("NOARP") ? "4" : "3") +
                        " state=" + state;
        }
        for (auto &r : neighbours) {
            auto &l = r.second;
            std::string phys = l["ipNetToPhysicalPhysAddress"].second;
            if (want.count(r.first) && want[r.first].rfind(" type", 0) == 0) phys.clear();
            got[r.first] = phys + " type=" + l["ipNetToPhysicalType"].second +
                           " state=" + l["ipNetToPhysicalState"].second;
        }
        EXPECT_EQ(got, want);
        std::string va0 = index["va0"];
        EXPECT_EQ(got[va0 + " 1 c0a80102"], "02000000002a type=4 state=1");
        EXPECT_EQ(got[va0 + " 1 c0a80103"], " type=3 state=1");

        auto routers = typed_walk(emu, "/IP-MIB/ipDefaultRouterTable/ipDefaultRouterEntry");
        ASSERT_EQ(routers.size(), 1u);
        EXPECT_EQ(routers.begin()->first, "1 c0a801fe " + va0);
        auto &router = routers.begin()->second;
        EXPECT_EQ(router["ipDefaultRouterLifetime"].second + " " +
                      router["ipDefaultRouterPreference"].second,
                  "65535 0");

        auto prefixes = typed_walk(emu, "/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry");
        auto prefix = [&](const std::string &keys) {
            auto &l = prefixes[keys];
            return l["ipAddressPrefixOrigin"].second + " " + l["ipAddressPrefixOnLinkFlag"].second +
                   " " + l["ipAddressPrefixAutonomousFlag"].second + " " +
                   l["ipAddressPrefixAdvPreferredLifetime"].second + " " +
                   l["ipAddressPrefixAdvValidLifetime"].second;
        };
        std::string vb0 = index["vb0"];
        EXPECT_EQ(prefix(va0 + " 1 c0a80100 24"), "2 1 2 4294 4294");
        EXPECT_EQ(prefix(vb0 + " 1 a9fe0000 16"), "3 1 2 4294 4294");
        EXPECT_EQ(prefix(va0 + " 2 fe800000000000000000000000000000 64"), "3 1 2 4294 4294");
        EXPECT_EQ(prefix(vb0 + " 2 20010db8000400000000000000000000 48"), "5 1 2 0 0");
        // The dump's end marker, when it shares the datagram, is read as an
        // address of no family on interface 0.
        size_t addresses = 0;
        for (const auto &p : prefixes)
            addresses += p.first.rfind("0 ", 0) != 0;
        EXPECT_EQ(addresses, kernel_addresses().size());

        std::set<std::string> zones, link_local;
        for (auto &r : typed_walk(emu, "/IP-MIB/ipv6ScopeZoneIndexTable/ipv6ScopeZoneIndexEntry")) {
            zones.insert(r.first);
            EXPECT_EQ(r.second["ipv6ScopeZoneIndexLinkLocal"].second, r.first);
            EXPECT_EQ(r.second["ipv6ScopeZoneIndexSiteLocal"].second, "0");
        }
        for (const kernel_address &a : kernel_addresses())
            if (a.type == 2 && a.bytes[0] == 0xfe && a.bytes[1] == 0x80)
                link_local.insert(std::to_string(a.if_index));
        EXPECT_EQ(zones, link_local);
        EXPECT_EQ(zones.size(), 4u);
    });
}

// Sends UDP datagrams to a closed port of 127.0.0.1 and of ::1, which the
// kernel answers with ICMP port-unreachable messages: ICMP traffic in both
// directions of each IP version.
void provoke_icmp()
{
    sh({"/bin/bash", "-c",
        "for i in 1 2 3; do echo x >/dev/udp/127.0.0.1/9; echo x >/dev/udp/::1/9; done"});
}

// Checks that every counter of a walked row lies between its kernel values before and after.
void expect_between(const std::string &what, const std::string &walked, uint64_t before,
                    uint64_t after)
{
    uint64_t v = std::stoull(walked.empty() ? "0" : walked);
    EXPECT_LE(before & 0xffffffff, v) << what;
    EXPECT_GE(after & 0xffffffff, v) << what;
}

// Verifies the ICMP tables against /proc/net/snmp and /proc/net/snmp6 read
// around their walks after ICMP traffic; the scalars against the
// namespace's sysctls (ip_forward 2 answers notForwarding); a leaf of the
// "ip_status" callpoint that is not served answers C_NOEXISTS even with
// /proc/sys/net/ipv4 hidden, and the next scalar refresh then ends the
// daemon with the file it could not open.
TEST(IpMibTest, IcmpAndScalarsFollowTheKernel)
{
    RUN_ISOLATED([] {
        provoke_icmp();
        daemon_env::write_file("/proc/sys/net/ipv4/ip_forward", "2\n");
        daemon_env::write_file("/proc/sys/net/ipv4/ip_default_ttl", "77\n");
        daemon_env::write_file("/proc/sys/net/ipv6/conf/all/forwarding", "1\n");
        Emu emu;
        auto d = start(emu);
        ASSERT_TRUE(d);

        auto v4a = section_counters("/proc/net/snmp", "Icmp");
        auto msg4a = section_counters("/proc/net/snmp", "IcmpMsg");
        auto v6a = pair_counters("/proc/net/snmp6");
        auto stats = typed_walk(emu, "/IP-MIB/icmpStatsTable/icmpStatsEntry");
        auto msgs = typed_walk(emu, "/IP-MIB/icmpMsgStatsTable/icmpMsgStatsEntry");
        auto v4b = section_counters("/proc/net/snmp", "Icmp");
        auto msg4b = section_counters("/proc/net/snmp", "IcmpMsg");
        auto v6b = pair_counters("/proc/net/snmp6");
        ASSERT_EQ(stats.size(), 2u);
        for (const char *c : {"InMsgs", "InErrors", "OutMsgs", "OutErrors"}) {
            expect_between(c, stats["1"]["icmpStats" + std::string(c)].second, v4a[c], v4b[c]);
            std::string v6 = "Icmp6" + std::string(c);
            expect_between(v6, stats["2"]["icmpStats" + std::string(c)].second, v6a[v6], v6b[v6]);
        }
        EXPECT_GT(std::stoull(stats["1"]["icmpStatsOutMsgs"].second), 0u);
        std::set<std::string> want_rows;
        for (const auto &c : msg4b)
            want_rows.insert("1 " + c.first.substr(c.first.find("Type") + 4));
        for (const auto &c : v6b)
            if (c.first.rfind("Icmp6InType", 0) == 0 || c.first.rfind("Icmp6OutType", 0) == 0)
                want_rows.insert("2 " + c.first.substr(c.first.find("Type") + 4));
        std::set<std::string> rows;
        for (auto &r : msgs) {
            rows.insert(r.first);
            std::string version = r.first.substr(0, 1), type = r.first.substr(2);
            for (const char *dir : {"In", "Out"}) {
                std::string name =
                    (version == "1" ? "" : "Icmp6") + std::string(dir) + "Type" + type;
                auto &a = version == "1" ? msg4a : v6a, &b = version == "1" ? msg4b : v6b;
                expect_between(name, r.second["icmpMsgStats" + std::string(dir) + "Pkts"].second,
                               a[name], b[name]);
            }
        }
        EXPECT_EQ(rows, want_rows);
        EXPECT_TRUE(rows.count("1 3") && rows.count("2 1")) << "port unreachable rows";

        auto scalar = [&](const char *leaf) {
            return emu.cli({"get", std::string("/IP-MIB/ip/") + leaf});
        };
        auto value = [](const std::string &answer) {
            cli_json::value v;
            EXPECT_TRUE(cli_json::parse(answer, v)) << answer;
            return v["value"].text;
        };
        auto refreshed_at = std::chrono::steady_clock::now();
        std::string hop_limit = harness::read_file("/proc/sys/net/ipv6/conf/default/hop_limit");
        EXPECT_EQ(
            value(scalar("ipForwarding")) + " " + value(scalar("ipDefaultTTL")) + " " +
                value(scalar("ipv6IpForwarding")) + " " + value(scalar("ipv6IpDefaultHopLimit")) +
                " " + value(scalar("ipReasmTimeout")),
            "2 77 1 " + std::to_string(std::stoi(hop_limit)) + " " +
                std::to_string(std::stoi(harness::read_file("/proc/sys/net/ipv4/ipfrag_time"))));

        std::filesystem::create_directories("/tmp/empty");
        ASSERT_EQ(mount("/tmp/empty", "/proc/sys/net/ipv4", nullptr, MS_BIND, nullptr), 0)
            << strerror(errno);
        std::this_thread::sleep_until(refreshed_at + std::chrono::milliseconds(3100));
        EXPECT_EQ(emu.cli({"get", "/IP-MIB/ipv4InterfaceTable/ipv4InterfaceEntry{1}/"
                                  "ipv4InterfaceReasmMaxSize"}),
                  "{\"type\":\"C_NOEXISTS\"}");
        EXPECT_TRUE(d->running());
        scalar("ipDefaultTTL");
        EXPECT_EQ(d->wait_exit(), 1);
        EXPECT_NE(d->err().find(": Could not open /proc/sys/net/ipv4/ip_forward: No such file or "
                                "directory"),
                  std::string::npos)
            << d->err();
    });
}

} // namespace
