// UDP-MIB end to end: the leisobek binary, real UDP sockets in a private namespace, confd-emu-cli.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include "cli_json.h"
#include "daemon_env.h"
#include "udp_sockets.h"

namespace
{

using daemon_env::Daemon;
using daemon_env::Emu;
using udp_sockets::row;

const char kTable[] = "/UDP-MIB/udpEndpointTable/udpEndpointEntry";

std::string process_path(const row &r)
{
    std::string keys;
    for (size_t i = 0; i < 7; i++)
        keys += (i ? " " : "") + r[i];
    return std::string(kTable) + "{" + keys + "}/udpEndpointProcess";
}

// The socket lines of /proc/net/udp and udp6, headers not counted.
size_t kernel_rows()
{
    size_t lines = 0;
    for (const char *file : {"/proc/net/udp", "/proc/net/udp6"}) {
        std::string text = daemon_env::read_text(file);
        lines += static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) - 1;
    }
    return lines;
}

// The Udp section of /proc/net/snmp, value by name.
std::map<std::string, std::string> kernel_counters()
{
    std::istringstream in(daemon_env::read_text("/proc/net/snmp"));
    std::string names, values;
    while (std::getline(in, names) && names.rfind("Udp: ", 0) != 0) {
    }
    std::getline(in, values);
    std::istringstream n(names), v(values);
    std::map<std::string, std::string> out;
    for (std::string name, value; n >> name && v >> value;)
        out[name] = value;
    return out;
}

// Starts confd-emu and the daemon; false when "udp_status" is not served.
bool start(Emu &emu, std::unique_ptr<Daemon> &daemon)
{
    if (!emu.start()) return false;
    daemon = std::make_unique<Daemon>(std::vector<std::string>{});
    if (!emu.wait_registered()) return false;
    bool served = emu.status().find("\"udp_status\"") != std::string::npos;
    EXPECT_TRUE(served) << emu.status();
    return served;
}

// The rows of a walk of udpEndpointTable, as udp_sockets::row.
std::vector<row> walk(const Emu &emu)
{
    std::string answer = emu.cli({"walk", kTable});
    std::vector<cli_json::row> rows;
    EXPECT_TRUE(cli_json::parse_walk(answer, rows)) << answer.substr(0, 300);
    std::vector<row> out;
    for (cli_json::row &r : rows) {
        out.push_back(r.keys);
        out.back().push_back("p" + r.leaves["udpEndpointProcess"]);
    }
    return out;
}

// The rows of the walk that belong to the sockets of want (by inode).
std::vector<row> ours(const std::vector<row> &rows, const std::vector<row> &want)
{
    std::set<std::string> inodes;
    for (const row &r : want)
        inodes.insert(r[6]);
    std::vector<row> out;
    std::copy_if(rows.begin(), rows.end(), std::back_inserter(out),
                 [&](const row &r) { return r.size() == 8 && inodes.count(r[6]); });
    return out;
}

// Verifies udpEndpointTable on real sockets: IPv4 and IPv6, bound and
// connected, two bound to one port with SO_REUSEADDR (told apart by their
// inodes) and two held by another process. An entry request before any walk
// is an error; the walk lists every socket of the kernel's files in index
// order, ours with their inodes and owners; then the entry request answers.
TEST(UdpMibTest, EndpointTableListsTheSockets)
{
    RUN_ISOLATED([] {
        Emu emu;
        std::unique_ptr<Daemon> daemon;
        ASSERT_TRUE(start(emu, daemon));
        udp_sockets::holder other(2);
        std::vector<row> want = other.rows();
        std::vector<int> fds = {
            udp_sockets::open_udp("0.0.0.0", 161),
            udp_sockets::open_udp("127.0.0.1", 5000, true),
            udp_sockets::open_udp("127.0.0.1", 5000, true),
            udp_sockets::open_udp("127.0.0.1", 0, false, "127.0.0.1", 5000),
            udp_sockets::open_udp("::", 123),
            udp_sockets::open_udp("::1", 0, false, "::1", 123),
        };
        for (int fd : fds) {
            ASSERT_GE(fd, 0) << strerror(errno);
            want.push_back(udp_sockets::describe(fd, getpid()));
        }
        ASSERT_EQ(want.size(), 8u);
        std::sort(want.begin(), want.end(), udp_sockets::index_less);
        EXPECT_NE(emu.cli({"get", process_path(want[0])}).find("\"error\""), std::string::npos);

        std::vector<row> rows = walk(emu);
        EXPECT_EQ(rows.size(), kernel_rows());
        EXPECT_TRUE(std::is_sorted(rows.begin(), rows.end(), udp_sockets::index_less));
        EXPECT_EQ(ours(rows, want), want);
        EXPECT_EQ(emu.cli({"get", process_path(want[1])}),
                  "{\"type\":\"C_UINT32\",\"value\":" + want[1][7].substr(1) + "}");
        for (int fd : fds)
            close(fd);
    });
}

// Verifies the udp scalars against /proc/net/snmp after real traffic
// (datagrams delivered, and one to a port nobody listens on), the 64-bit
// counters equal to the 32-bit ones.
TEST(UdpMibTest, ScalarsMatchTheKernel)
{
    RUN_ISOLATED([] {
        Emu emu;
        std::unique_ptr<Daemon> daemon;
        ASSERT_TRUE(start(emu, daemon));
        int server = udp_sockets::open_udp("127.0.0.1", 5000);
        int client = udp_sockets::open_udp("127.0.0.1", 0, false, "127.0.0.1", 5000);
        int stray = udp_sockets::open_udp("127.0.0.1", 0, false, "127.0.0.1", 9);
        ASSERT_TRUE(server >= 0 && client >= 0 && stray >= 0);
        char buf[8];
        for (int i = 0; i < 3; i++) {
            ASSERT_EQ(send(client, "ping", 4, 0), 4);
            ASSERT_EQ(recv(server, buf, sizeof buf, 0), 4);
        }
        send(stray, "ping", 4, 0);
        ASSERT_TRUE(daemon_env::eventually([] { return kernel_counters()["NoPorts"] != "0"; }));

        std::map<std::string, std::string> kernel = kernel_counters();
        EXPECT_GE(std::stoul(kernel["OutDatagrams"]), 4u);
        for (const char *name : {"InDatagrams", "NoPorts", "InErrors", "OutDatagrams"})
            EXPECT_EQ(emu.cli({"get", std::string("/UDP-MIB/udp/udp") + name}),
                      "{\"type\":\"C_UINT32\",\"value\":" + kernel[name] + "}");
        for (const char *name : {"InDatagrams", "OutDatagrams"})
            EXPECT_EQ(emu.cli({"get", std::string("/UDP-MIB/udp/udpHC") + name}),
                      "{\"type\":\"C_UINT64\",\"value\":" + kernel[name] + "}");
        for (int fd : {server, client, stray})
            close(fd);
    });
}

// Verifies at scale that every row carries its owning process: 20 000
// sockets held by four processes, walked through confd-emu.
TEST(UdpMibScaleTest, EveryRowHasItsProcessAt20000Sockets)
{
    RUN_ISOLATED([] {
        Emu emu;
        std::unique_ptr<Daemon> daemon;
        ASSERT_TRUE(start(emu, daemon));
        std::vector<std::unique_ptr<udp_sockets::holder>> holders;
        std::vector<row> want;
        for (int i = 0; i < 4; i++) {
            holders.push_back(std::make_unique<udp_sockets::holder>(5000));
            want.insert(want.end(), holders.back()->rows().begin(), holders.back()->rows().end());
        }
        ASSERT_EQ(want.size(), 20000u) << "could not open the sockets";
        std::sort(want.begin(), want.end(), udp_sockets::index_less);
        EXPECT_TRUE(ours(walk(emu), want) == want) << "rows differ from the sockets and owners";
    });
}

} // namespace
