// UDP-MIB end to end: the leisobek binary, real UDP sockets in a private namespace, confd-emu-cli.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <set>
#include <unistd.h>

#include "daemon_env.h"
#include "sockets.h"

namespace
{

using daemon_env::Emu;
using sockets::udp_row;

const char kTable[] = "/UDP-MIB/udpEndpointTable/udpEndpointEntry";

std::string process_path(const udp_row &r)
{
    std::string keys;
    for (size_t i = 0; i < 7; i++)
        keys += (i ? " " : "") + r[i];
    return std::string(kTable) + "{" + keys + "}/udpEndpointProcess";
}

// The rows of a walk of udpEndpointTable, as udp_row.
std::vector<udp_row> walk(const Emu &emu)
{
    std::vector<udp_row> out;
    for (cli_json::row &r : emu.walk(kTable)) {
        out.push_back(r.keys);
        out.back().push_back("p" + r.leaves["udpEndpointProcess"]);
    }
    return out;
}

// The rows of the walk that belong to the sockets of want (by inode).
std::vector<udp_row> ours(const std::vector<udp_row> &rows, const std::vector<udp_row> &want)
{
    std::set<std::string> inodes;
    for (const udp_row &r : want)
        inodes.insert(r[6]);
    std::vector<udp_row> out;
    std::copy_if(rows.begin(), rows.end(), std::back_inserter(out),
                 [&](const udp_row &r) { return r.size() == 8 && inodes.count(r[6]); });
    return out;
}

// Every kernel socket in index order, ours with inodes and owners; entries answered after a walk.
ISOLATED_TEST(UdpMibTest, EndpointTableListsTheSockets)
{
    Emu emu;
    auto d = emu.start_with_daemon();
    ASSERT_TRUE(d);
    sockets::udp_holder other(2);
    std::vector<udp_row> want = other.rows();
    std::vector<int> fds = {
        sockets::open_udp("0.0.0.0", 161),
        sockets::open_udp("127.0.0.1", 5000, true),
        sockets::open_udp("127.0.0.1", 5000, true),
        sockets::open_udp("127.0.0.1", 0, false, "127.0.0.1", 5000),
        sockets::open_udp("::", 123),
        sockets::open_udp("::1", 0, false, "::1", 123),
    };
    for (int fd : fds) {
        ASSERT_GE(fd, 0) << strerror(errno);
        want.push_back(sockets::udp_row_of(fd, getpid()));
    }
    ASSERT_EQ(want.size(), 8u);
    std::sort(want.begin(), want.end(), sockets::udp_index_less);
    EXPECT_NE(emu.cli({"get", process_path(want[0])}).find("\"error\""), std::string::npos);

    std::vector<udp_row> rows = walk(emu);
    size_t kernel_rows = 0; // the socket lines of /proc/net/udp and udp6, not the headers
    for (const char *file : {"/proc/net/udp", "/proc/net/udp6"}) {
        std::string text = harness::read_file(file);
        kernel_rows += static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) - 1;
    }
    EXPECT_EQ(rows.size(), kernel_rows);
    EXPECT_TRUE(std::is_sorted(rows.begin(), rows.end(), sockets::udp_index_less));
    EXPECT_EQ(ours(rows, want), want);
    EXPECT_EQ(emu.cli({"get", process_path(want[1])}),
              "{\"type\":\"C_UINT32\",\"value\":" + want[1][7].substr(1) + "}");
    for (int fd : fds)
        close(fd);
}

// At scale every row carries its owning process: 20 000 sockets held by four processes.
ISOLATED_TEST(UdpMibScaleTest, EveryRowHasItsProcessAt20000Sockets)
{
    Emu emu;
    auto d = emu.start_with_daemon();
    ASSERT_TRUE(d);
    std::vector<std::unique_ptr<sockets::udp_holder>> holders;
    std::vector<udp_row> want;
    for (int i = 0; i < 4; i++) {
        holders.push_back(std::make_unique<sockets::udp_holder>(5000));
        want.insert(want.end(), holders.back()->rows().begin(), holders.back()->rows().end());
    }
    ASSERT_EQ(want.size(), 20000u) << "could not open the sockets";
    std::sort(want.begin(), want.end(), sockets::udp_index_less);
    EXPECT_TRUE(ours(walk(emu), want) == want) << "rows differ from the sockets and owners";
}

} // namespace
