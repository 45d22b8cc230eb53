// confd-emu's SNMP front end end to end: net-snmp's own command-line tools against confd-emu and
// the leisobek binary in a private namespace, compared with what confd-emu-cli walks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <string>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "cli_json.h"
#include "daemon_env.h"
#include "sockets.h"

namespace
{

const char kAgent[] = "127.0.0.1:1161";
const char kTcpState[] = ".1.3.6.1.2.1.6.19.1.7"; // tcpConnectionState

harness::CmdResult tool(const std::string &name, std::vector<std::string> args,
                        const std::string &community = "public", const char *agent = kAgent)
{
    std::vector<std::string> argv = {"/usr/bin/" + name, "-v2c", "-c", community};
    argv.insert(argv.end(), {"-On", "-OQ", "-Oe", "-t", "1", "-r", "0", agent});
    argv.insert(argv.end(), args.begin(), args.end());
    return harness::run(argv, 20000);
}

using Varbinds = std::vector<std::pair<std::string, std::string>>;
using OidFilter = std::function<bool(const std::string &)>;

// "OID = value" lines of a tool's output.
Varbinds varbinds(const std::string &out)
{
    Varbinds vbs;
    std::istringstream in(out);
    std::string line;
    while (std::getline(in, line)) {
        size_t eq = line.find(" = ");
        if (eq != std::string::npos) vbs.emplace_back(line.substr(0, eq), line.substr(eq + 3));
    }
    return vbs;
}

// The numbers of a numeric OID.
std::vector<unsigned long> oid_parts(const std::string &s)
{
    std::vector<unsigned long> v;
    std::istringstream in(s);
    for (std::string p; std::getline(in, p, '.');)
        if (!p.empty()) v.push_back(std::stoul(p));
    return v;
}

// Numeric OIDs compared as SNMP orders them.
bool oid_less(const std::string &a, const std::string &b)
{
    return oid_parts(a) < oid_parts(b);
}

// A table column as confd-emu-cli walks it, in SNMP order, the OIDs keep accepts only: each row's
// keys make the SMIv2 index, kinds giving each key's form ('n' a number, 'a' an address in hex,
// length-prefixed).
Varbinds cli_column(const daemon_env::Emu &emu, const std::string &table, const std::string &leaf,
                    const std::string &column, const std::string &kinds, const OidFilter &keep)
{
    std::vector<cli_json::row> rows;
    std::string answer = emu.cli({"walk", table, "--leaves", leaf});
    EXPECT_TRUE(cli_json::parse_walk(answer, rows)) << answer.substr(0, 300);
    Varbinds out;
    for (const cli_json::row &r : rows) {
        std::string oid = column;
        for (size_t i = 0; i < r.keys.size() && i < kinds.size(); i++) {
            const std::string &key = r.keys[i];
            if (kinds[i] == 'n') {
                oid += "." + key;
                continue;
            }
            oid += "." + std::to_string(key.size() / 2);
            for (size_t b = 0; b + 1 < key.size(); b += 2)
                oid += "." + std::to_string(std::stoi(key.substr(b, 2), nullptr, 16));
        }
        if (keep(oid)) out.emplace_back(oid, r.leaves.at(leaf));
    }
    std::sort(out.begin(), out.end(),
              [](const auto &a, const auto &b) { return oid_less(a.first, b.first); });
    return out;
}

// The row indexes of a column as an agent's snmpbulkwalk gives them, leaving out UDP endpoints on
// an ephemeral port (the walking tool's own socket differs from one walk to the next).
std::vector<std::string> indexes(const std::string &column, const char *agent)
{
    std::vector<std::string> out;
    for (auto &vb : varbinds(tool("snmpbulkwalk", {column}, "public", agent).out)) {
        std::string index = vb.first.substr(column.size());
        std::vector<unsigned long> part = oid_parts(index);
        if (part.size() < 7 || part[6] < 32768) out.push_back(index);
    }
    return out;
}

// The column as snmpbulkwalk reads it, the OIDs keep accepts only.
Varbinds snmp_column(const std::string &column, const OidFilter &keep)
{
    harness::CmdResult r = tool("snmpbulkwalk", {column});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    Varbinds out;
    for (auto &vb : varbinds(r.out))
        if (keep(vb.first)) out.push_back(vb);
    return out;
}

TEST(SnmpTest, ToolsAgainstEmuAndDaemon)
{
    RUN_ISOLATED([] {
        // The tools read nothing of the host: no configuration, no MIB files, state under /tmp.
        mkdir("/tmp/snmp", 0700);
        setenv("SNMPCONFPATH", "/tmp/snmp", 1);
        setenv("SNMP_PERSISTENT_DIR", "/tmp/snmp", 1);
        setenv("MIBDIRS", "/tmp/snmp", 1);
        setenv("MIBS", "", 1);
        // What the chassis row needs: a bulk walk's last repetitions run on into ENTITY-MIB.
        daemon_env::overlay_dir("/etc");
        daemon_env::write_file("/etc/config/systeminfo", "config systeminfo 'sysinfo'\n"
                                                         "\toption pid 'KX100'\n");
        daemon_env::write_file("/etc/firmware_version", "3.0.2 build 77\n");
        daemon_env::write_file("/etc/config/network", "config interface 'lan'\n"
                                                      "\toption ifname 'veth0'\n");
        ASSERT_EQ(harness::run(
                      {"/sbin/ip", "link", "add", "veth0", "type", "veth", "peer", "name", "veth1"})
                      .exit_code,
                  0);
        // snmptrapd first, so start-up's notifications reach it.
        std::string traps = "/tmp/snmp/traps.log";
        int devnull = open("/dev/null", O_WRONLY | O_CLOEXEC);
        pid_t trapd = harness::spawn({"/usr/sbin/snmptrapd", "-f", "-On", "-Lf", traps,
                                      "--disableAuthorization=yes", "udp:127.0.0.1:1162"},
                                     devnull, devnull);
        ASSERT_GT(trapd, 0);
        // Bound before the daemon starts, or start-up's coldStart may find no one listening.
        ASSERT_TRUE(daemon_env::eventually(
            [] {
                return harness::read_file("/proc/net/udp").find("0100007F:048A") !=
                       std::string::npos;
            },
            5000));
        daemon_env::Emu emu({"--snmp", std::string("udp:") + kAgent, "--trap-sink",
                             "udp:127.0.0.1:1162", "--snmp-user", "kelto:authpass1:privpass1"});
        auto daemon = emu.start_with_daemon();
        ASSERT_TRUE(daemon);

        // Sockets of the test's own, so both walks hold rows that stay put between them.
        sockets::unique_fd lis = sockets::listen_on("127.0.0.1", 7000);
        std::vector<sockets::unique_fd> conns;
        for (int i = 0; i < 3; i++) {
            conns.push_back(sockets::connect_to("127.0.0.1", 7000));
            conns.push_back(sockets::accept_one(lis.get()));
        }

        // The same rows, values and order as the CLI's walk (one table proves the index encoding).
        OidFilter port_7000 = [](const std::string &oid) {
            return oid.find(".7000.") != std::string::npos ||
                   oid.compare(oid.size() - 5, 5, ".7000") == 0;
        };
        Varbinds tcp_cli = cli_column(emu, "/TCP-MIB/tcpConnectionTable/tcpConnectionEntry",
                                      "tcpConnectionState", kTcpState, "nannan", port_7000);
        EXPECT_EQ(tcp_cli.size(), 6u);
        EXPECT_EQ(snmp_column(kTcpState, port_7000), tcp_cli);

        // GETNEXT from a row in the middle of the table gives the row after it; from past the
        // last column of one table the first readable object of the next (tcpListenerProcess: the
        // index columns are not-accessible); past TCP-MIB into UDP-MIB.
        auto all = snmp_column(kTcpState, [](const std::string &) { return true; });
        ASSERT_GE(all.size(), 3u);
        harness::CmdResult r =
            tool("snmpgetnext", {all[1].first, ".1.3.6.1.2.1.6.19.1.9", ".1.3.6.1.2.1.6.99"});
        auto vbs = varbinds(r.out);
        ASSERT_EQ(vbs.size(), 3u) << r.out << r.err;
        EXPECT_EQ(vbs[0], all[2]);
        EXPECT_EQ(vbs[1].first.rfind(".1.3.6.1.2.1.6.20.1.4.", 0), 0u) << vbs[1].first;
        EXPECT_EQ(vbs[2].first.rfind(".1.3.6.1.2.1.7.", 0), 0u) << vbs[2].first;

        // GET: a row that exists, a port out of range, an unknown address type, a scalar's
        // instance other than .0, an object the models do not have.
        std::string bad_port = std::string(kTcpState) + ".1.4.127.0.0.1.7000.1.4.127.0.0.1.70000";
        std::string bad_type = std::string(kTcpState) + ".9.4.127.0.0.1.7000.1.4.127.0.0.1.1";
        r = tool("snmpget", {tcp_cli[0].first, bad_port, bad_type, ".1.3.6.1.2.1.6.5.1",
                             ".1.3.6.1.2.1.6.99.0"});
        vbs = varbinds(r.out);
        ASSERT_EQ(vbs.size(), 5u) << r.out << r.err;
        EXPECT_EQ(vbs[0], tcp_cli[0]);
        for (int i = 1; i < 4; i++)
            EXPECT_NE(vbs[i].second.find("No Such Instance"), std::string::npos) << vbs[i].second;
        EXPECT_NE(vbs[4].second.find("No Such Object"), std::string::npos) << vbs[4].second;

        // The modules generated from the models name what the agent serves.
        r = harness::run({"/usr/bin/snmpbulkwalk", "-v2c", "-c", "public", "-M", MIBS_DIR, "-m",
                          "TCP-MIB", "-Oeb", kAgent, "TCP-MIB::tcpConnectionState"});
        EXPECT_NE(r.out.find("TCP-MIB::tcpConnectionState.1.4.127.0.0.1.7000.1.4.127.0.0.1."),
                  std::string::npos)
            << r.out << r.err;

        // SNMPv3 for a user given on the command line: answered with its keys, refused with a
        // wrong password or without authentication.
        for (auto [level, auth, ok] : {std::tuple{"authPriv", "authpass1", true},
                                       {"authPriv", "wrongpass1", false},
                                       {"noAuthNoPriv", "authpass1", false}}) {
            r = harness::run({"/usr/bin/snmpget",
                              "-v3",
                              "-l",
                              level,
                              "-u",
                              "kelto",
                              "-a",
                              "SHA",
                              "-A",
                              auth,
                              "-x",
                              "AES",
                              "-X",
                              "privpass1",
                              "-On",
                              "-t",
                              "1",
                              "-r",
                              "0",
                              kAgent,
                              ".1.3.6.1.2.1.6.5.0"});
            EXPECT_EQ(r.exit_code == 0, ok) << level << " " << auth << ": " << r.out << r.err;
        }

        // A community the running configuration does not know gets no answer.
        r = tool("snmpget", {".1.3.6.1.2.1.6.5.0"}, "not-a-community");
        EXPECT_NE(r.exit_code, 0);
        EXPECT_NE(r.err.find("Timeout"), std::string::npos) << r.out << r.err;

        // SET on stored configuration: renaming community "private" (an IMPLIED string index) lets
        // the new name in; a status object is notWritable, a string for an integer wrongType.
        const std::string name = ".1.3.6.1.6.3.18.1.1.1.2.112.114.105.118.97.116.101";
        r = tool("snmpset", {name, "s", "renamed"});
        EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
        EXPECT_EQ(tool("snmpget", {name}, "renamed").out, name + " = \"renamed\"\n");
        r = tool("snmpset", {".1.3.6.1.2.1.6.5.0", "u", "1"});
        EXPECT_NE(r.err.find("notWritable"), std::string::npos) << r.out << r.err;
        r = tool("snmpset", {".1.3.6.1.6.3.18.1.1.1.7.112.114.105.118.97.116.101", "s", "x"});
        EXPECT_NE(r.err.find("wrongType"), std::string::npos) << r.out << r.err;

        // net-snmp's own snmpd in the same namespace sees the same listeners and UDP endpoints.
        const std::string snmpd_conf = "/tmp/snmp/snmpd.conf";
        daemon_env::write_file(snmpd_conf, "rocommunity public\n");
        pid_t snmpd = harness::spawn({"/usr/sbin/snmpd", "-f", "-Lf", "/dev/null", "-C", "-c",
                                      snmpd_conf, "udp:127.0.0.1:1163"},
                                     devnull, devnull);
        ASSERT_GT(snmpd, 0);
        ASSERT_TRUE(daemon_env::eventually(
            [] {
                return tool("snmpget", {".1.3.6.1.2.1.1.3.0"}, "public", "127.0.0.1:1163")
                           .exit_code == 0;
            },
            5000));
        for (const std::string column : {".1.3.6.1.2.1.6.20.1.4", ".1.3.6.1.2.1.7.7.1.8"}) {
            std::vector<std::string> ours = indexes(column, kAgent);
            EXPECT_GE(ours.size(), 2u) << column;
            EXPECT_EQ(ours, indexes(column, "127.0.0.1:1163")) << column;
        }

        // A flap of the interface UCI names "lan" sends linkDown and linkUp.
        for (const char *step : {"veth1 up", "veth0 up", "veth0 down"})
            harness::run({"/bin/sh", "-c", std::string("ip link set ") + step});

        // Start-up's coldStart, the authenticationFailure raised on the unknown community's
        // audit event and the flap's linkDown and linkUp reach snmptrapd as SNMPv2c traps,
        // sysUpTime first.
        for (const std::string trap : {"1.3.6.1.6.3.1.1.5.1", "1.3.6.1.6.3.1.1.5.5",
                                       "1.3.6.1.6.3.1.1.5.3", "1.3.6.1.6.3.1.1.5.4"})
            EXPECT_TRUE(daemon_env::eventually(
                [&] {
                    return harness::read_file(traps).find(".1.3.6.1.6.3.1.1.4.1.0 = OID: ." +
                                                          trap) != std::string::npos;
                },
                5000))
                << harness::read_file(traps);
        EXPECT_NE(harness::read_file(traps).find(".1.3.6.1.2.1.1.3.0 = Timeticks"),
                  std::string::npos);
    });
}

} // namespace
