// TCP-MIB end to end: the real leisobek against confd-emu, on real sockets in a private netns.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <unistd.h>
#include <vector>

#include "cli_json.h"
#include "daemon_env.h"
#include "sockets.h"

namespace
{

using cli_json::row;
using daemon_env::Emu;
using sockets::end_point;
using sockets::unique_fd;

const char kConnections[] = "/TCP-MIB/tcpConnectionTable/tcpConnectionEntry";
const char kListeners[] = "/TCP-MIB/tcpListenerTable/tcpListenerEntry";
// The management plane's own sessions (daemon, emulator, CLI) share the namespace on this port.
const char kConfdPort[] = "4565";
const char kTimeWait[] = "11";

// Index order: numbers by value, addresses by length and bytes, as the UDP table's.
bool index_less(const row &a, const row &b)
{
    return sockets::udp_index_less(a.keys, b.keys);
}

std::string describe(const row &r)
{
    std::string text;
    for (const auto &k : r.keys)
        text += k + " ";
    text += "|";
    for (const auto &leaf : r.leaves)
        text += " " + leaf.first + "=" + leaf.second;
    return text;
}

bool on_port(const row &r, const std::string &port)
{
    for (size_t i = 2; i < r.keys.size(); i += 3)
        if (r.keys[i] == port) return true;
    return false;
}

// The rows in their order, less the management plane's and those on port skip, one line each.
std::vector<std::string> lines(const std::vector<row> &rows, const std::string &skip = kConfdPort)
{
    std::vector<std::string> out;
    for (const row &r : rows)
        if (!on_port(r, kConfdPort) && !on_port(r, skip)) out.push_back(describe(r));
    return out;
}

row connection(const end_point &local, const end_point &remote, const char *state, pid_t pid)
{
    return {{local.type, local.address, local.port, remote.type, remote.address, remote.port},
            {{"tcpConnectionProcess", std::to_string(pid)}, {"tcpConnectionState", state}}};
}

row listener(const end_point &local, pid_t pid)
{
    return {{local.type, local.address, local.port}, {{"tcpListenerProcess", std::to_string(pid)}}};
}

// Both walks list exactly the kernel's sockets of both families in index order with their owners.
ISOLATED_TEST(TcpMibWalkTest, WalksListTheKernelSocketsWithOwners)
{
    Emu emu;
    auto d = emu.start_with_daemon();
    ASSERT_TRUE(d);
    const pid_t self = getpid();
    // Forked first, as a socket open in two processes counts as the last one's found.
    sockets::connection_holders others;
    std::string why;
    ASSERT_TRUE(others.start(1, 6005, why)) << why;

    unique_fd any4 = sockets::listen_on("0.0.0.0", 6001);
    unique_fd lo4 = sockets::listen_on("127.0.0.2", 6002);
    unique_fd any6 = sockets::listen_on("::", 6003);
    unique_fd lo6 = sockets::listen_on("::1", 6004);
    ASSERT_TRUE(any4 && lo4 && any6 && lo6);

    unique_fd c4 = sockets::connect_to("127.0.0.2", 6002);
    unique_fd s4 = sockets::accept_one(lo4.get());
    unique_fd c6 = sockets::connect_to("::1", 6004);
    unique_fd s6 = sockets::accept_one(lo6.get());
    ASSERT_TRUE(c4 && s4 && c6 && s6);

    std::vector<row> listeners;
    for (const unique_fd *fd : {&any4, &lo4, &any6, &lo6})
        listeners.push_back(listener(sockets::local_end(fd->get()), self));
    for (const auto &w : others.workers())
        listeners.push_back(listener({"1", "7f000001", std::to_string(w.port)}, w.pid));
    std::sort(listeners.begin(), listeners.end(), index_less);
    EXPECT_EQ(lines(emu.walk(kListeners)), lines(listeners));

    std::vector<row> connections = emu.walk(kConnections), expected;
    for (const unique_fd *fd : {&c4, &s4, &c6, &s6})
        expected.push_back(
            connection(sockets::local_end(fd->get()), sockets::remote_end(fd->get()), "5", self));
    std::sort(expected.begin(), expected.end(), index_less);
    EXPECT_EQ(lines(connections, "6005"), lines(expected));
    const std::string holder = std::to_string(others.workers().front().pid);
    EXPECT_EQ(std::count_if(connections.begin(), connections.end(),
                            [&](const row &r) {
                                return on_port(r, "6005") &&
                                       r.leaves.at("tcpConnectionProcess") == holder;
                            }),
              2);

    EXPECT_TRUE(d->running()) << d->err();
}

// Each of 40 000 rows of 20 000 connections held by several processes carries its owner.
ISOLATED_TEST(TcpMibScaleTest, EveryRowCarriesItsOwningProcess)
{
    Emu emu;
    auto d = emu.start_with_daemon();
    ASSERT_TRUE(d);

    const int total = 20000;
    sockets::connection_holders holders;
    std::string why;
    ASSERT_TRUE(holders.start(total, 7100, why)) << why;
    std::map<std::string, pid_t> owner_of_port;
    for (const auto &w : holders.workers())
        owner_of_port[std::to_string(w.port)] = w.pid;

    harness::CmdResult r = harness::run(
        {harness::confd_emu_cli_path(), "--port", "4565", "walk", kConnections}, 120000);
    ASSERT_EQ(r.exit_code, 0) << r.err;
    std::vector<row> rows;
    ASSERT_TRUE(cli_json::parse_walk(r.out, rows)) << r.out.substr(0, 400);
    EXPECT_TRUE(std::is_sorted(rows.begin(), rows.end(), index_less));

    size_t held = 0, wrong = 0, ownerless = 0;
    for (const row &entry : rows) {
        const std::string &process = entry.leaves.at("tcpConnectionProcess");
        auto local = owner_of_port.find(entry.keys[2]);
        auto remote = owner_of_port.find(entry.keys[5]);
        auto owner = local != owner_of_port.end() ? local : remote;
        if (owner != owner_of_port.end()) {
            held++;
            if (process != std::to_string(owner->second) && wrong++ < 5)
                ADD_FAILURE() << "owner " << owner->second << " expected: " << describe(entry);
        } else if (entry.leaves.at("tcpConnectionState") != kTimeWait && process == "0") {
            if (ownerless++ < 5) ADD_FAILURE() << "no owner: " << describe(entry);
        }
    }
    EXPECT_EQ(held, 2u * total);
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(ownerless, 0u);
}

} // namespace
