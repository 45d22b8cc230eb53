// TCP-MIB end to end: the real leisobek against confd-emu, on real sockets in a private netns.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "cli_json.h"
#include "daemon_env.h"
#include "sockets.h"

namespace
{

using cli_json::row;
using daemon_env::Emu;
using daemon_env::eventually;
using sockets::end_point;
using sockets::unique_fd;

const char kConnections[] = "/TCP-MIB/tcpConnectionTable/tcpConnectionEntry";
const char kListeners[] = "/TCP-MIB/tcpListenerTable/tcpListenerEntry";
// The management plane's own sessions (daemon, emulator, CLI) share the
// namespace; rows on this port are theirs.
const char kConfdPort[] = "4565";
const char kTimeWait[] = "11";

// Index order of TCP-MIB keys, in groups of (type, address, port): type,
// then address length, then address bytes, then port.
bool index_less(const row &ra, const row &rb)
{
    const std::vector<std::string> &a = ra.keys, &b = rb.keys;
    for (size_t i = 0; i + 2 < a.size() && i + 2 < b.size(); i += 3) {
        long ta = std::stol(a[i]), tb = std::stol(b[i]);
        if (ta != tb) return ta < tb;
        if (a[i + 1].size() != b[i + 1].size()) return a[i + 1].size() < b[i + 1].size();
        if (a[i + 1] != b[i + 1]) return a[i + 1] < b[i + 1];
        unsigned long pa = std::stoul(a[i + 2]), pb = std::stoul(b[i + 2]);
        if (pa != pb) return pa < pb;
    }
    return false;
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

bool on_confd_port(const row &r)
{
    for (size_t i = 2; i < r.keys.size(); i += 3)
        if (r.keys[i] == kConfdPort) return true;
    return false;
}

// The rows, less the management plane's when asked, in index order, one line each.
std::vector<std::string> lines(std::vector<row> rows, bool without_management = true)
{
    std::sort(rows.begin(), rows.end(), index_less);
    std::vector<std::string> out;
    for (const row &r : rows)
        if (!without_management || !on_confd_port(r)) out.push_back(describe(r));
    return out;
}

// The rows of a walk, checked to come in strictly increasing index order.
std::vector<row> walk(const Emu &emu, const char *path)
{
    std::vector<row> rows;
    std::string answer = emu.cli({"walk", path});
    EXPECT_TRUE(cli_json::parse_walk(answer, rows)) << answer.substr(0, 400);
    for (size_t i = 1; i < rows.size(); i++)
        EXPECT_TRUE(index_less(rows[i - 1], rows[i])) << "rows " << i - 1 << " and " << i << ":\n"
                                                      << describe(rows[i - 1]) << "\n"
                                                      << describe(rows[i]);
    return rows;
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

// The value of a `get` answer, or its whole text when it has none.
std::string value_of(const std::string &answer, std::string *type = nullptr)
{
    cli_json::value v;
    if (!cli_json::parse(answer, v) || v["value"].kind == cli_json::value::null) return answer;
    if (type) *type = v["type"].text;
    return v["value"].text;
}

// Holds a listener on 127.0.0.1:port and the one connection it accepts, in a process of its own,
// so that those rows have another owner. It reports 'l' once listening, 'a' once it accepted.
class other_owner
{
  public:
    explicit other_owner(uint16_t port)
    {
        int p[2];
        if (pipe2(p, O_CLOEXEC) != 0) return;
        fflush(stdout);
        fflush(stderr);
        pid_ = fork();
        if (pid_ == 0) {
            unique_fd l = sockets::listen_on("127.0.0.1", port);
            if (write(p[1], l ? "l" : "n", 1) != 1 || !l) _exit(1);
            unique_fd c = sockets::accept_one(l.get());
            if (write(p[1], c ? "a" : "n", 1) != 1) _exit(1);
            for (;;)
                pause();
        }
        close(p[1]);
        read_fd_ = unique_fd(p[0]);
    }
    ~other_owner()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    // The holder's next report, 0 when it has gone.
    char wait_for() const
    {
        char state = 0;
        return read(read_fd_.get(), &state, 1) == 1 ? state : 0;
    }
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = -1;
    unique_fd read_fd_;
};

// The /proc/net/tcp line of a connection from local port to remote port, "" if none.
std::string kernel_line(const end_point &local, const end_point &remote)
{
    char ports[40];
    snprintf(ports, sizeof ports, ":%04X %08X:%04X", std::stoi(local.port), 0x0100007F,
             std::stoi(remote.port));
    std::istringstream text(harness::read_file("/proc/net/tcp"));
    for (std::string line; std::getline(text, line);)
        if (line.find(ports) != std::string::npos) return line;
    return "";
}

// Verifies that both walks list exactly the kernel's sockets (listeners on
// wildcard and specific IPv4 and IPv6 addresses, loopback connections of
// both families, a TIME_WAIT entry) in index order with their owning
// processes, and that a get of a key outside the tables answers not found.
TEST(TcpMibWalkTest, WalksListTheKernelSocketsWithOwners)
{
    RUN_ISOLATED([] {
        Emu emu;
        auto d = emu.start_with_daemon();
        ASSERT_TRUE(d);
        const pid_t self = getpid();
        // Forked first: a socket open in both processes would count as the
        // other one's (the last owner found wins).
        other_owner other(6005);
        ASSERT_EQ(other.wait_for(), 'l');

        unique_fd any4 = sockets::listen_on("0.0.0.0", 6001);
        unique_fd lo4 = sockets::listen_on("127.0.0.2", 6002);
        unique_fd any6 = sockets::listen_on("::", 6003);
        unique_fd lo6 = sockets::listen_on("::1", 6004);
        ASSERT_TRUE(any4 && lo4 && any6 && lo6);

        unique_fd c4 = sockets::connect_to("127.0.0.2", 6002);
        unique_fd s4 = sockets::accept_one(lo4.get());
        unique_fd c6 = sockets::connect_to("::1", 6004);
        unique_fd s6 = sockets::accept_one(lo6.get());
        unique_fd c5 = sockets::connect_to("127.0.0.1", 6005);
        ASSERT_TRUE(c4 && s4 && c6 && s6 && c5);
        ASSERT_EQ(other.wait_for(), 'a');

        // Closing the client end first leaves it in TIME_WAIT, without a
        // socket inode and so without a process.
        unique_fd tw_client = sockets::connect_to("127.0.0.1", 6001);
        unique_fd tw_server = sockets::accept_one(any4.get());
        ASSERT_TRUE(tw_client && tw_server);
        end_point tw_local = sockets::local_end(tw_client.get());
        end_point tw_remote = sockets::remote_end(tw_client.get());
        tw_client.reset();
        char byte;
        EXPECT_EQ(read(tw_server.get(), &byte, 1), 0);
        tw_server.reset();
        ASSERT_TRUE(eventually([&] {
            return kernel_line(tw_local, tw_remote).find(" 06 ") != std::string::npos &&
                   kernel_line(tw_remote, tw_local).empty();
        })) << harness::read_file("/proc/net/tcp");

        EXPECT_EQ(lines(walk(emu, kListeners)),
                  lines({
                      listener(sockets::local_end(any4.get()), self),
                      listener(sockets::local_end(lo4.get()), self),
                      listener(sockets::local_end(any6.get()), self),
                      listener(sockets::local_end(lo6.get()), self),
                      listener({"1", "7f000001", "6005"}, other.pid()),
                  }));

        std::vector<row> connections = walk(emu, kConnections);
        auto ends = [](const unique_fd &fd) {
            return std::make_pair(sockets::local_end(fd.get()), sockets::remote_end(fd.get()));
        };
        std::vector<row> expected;
        for (const unique_fd *fd : {&c4, &s4, &c6, &s6, &c5}) {
            auto e = ends(*fd);
            expected.push_back(connection(e.first, e.second, "5", self));
        }
        auto e5 = ends(c5);
        expected.push_back(connection(e5.second, e5.first, "5", other.pid()));
        expected.push_back(connection(tw_local, tw_remote, kTimeWait, 0));
        EXPECT_EQ(lines(connections), lines(expected));

        // The daemon's own sessions are there too, owned by a process. Only established ones
        // count: the audit listener's schema load closes its connection at any moment, and a
        // closing end has no socket inode left.
        size_t management = 0;
        for (const row &r : connections) {
            if (!on_confd_port(r) || r.leaves.at("tcpConnectionState") != "5") continue;
            management++;
            EXPECT_NE(r.leaves.at("tcpConnectionProcess"), "0") << describe(r);
        }
        EXPECT_GE(management, 6u);

        // get_elem reads the rows of the last walk, by their keys.
        auto e4 = ends(c4);
        std::string path = std::string(kConnections) + "{1 " + e4.first.address + " " +
                           e4.first.port + " 1 " + e4.second.address + " " + e4.second.port + "}";
        EXPECT_EQ(emu.cli({"get", path + "/tcpConnectionState"}),
                  "{\"type\":\"C_ENUM_VALUE\",\"value\":5}");
        EXPECT_EQ(emu.cli({"get", path + "/tcpConnectionProcess"}),
                  "{\"type\":\"C_UINT32\",\"value\":" + std::to_string(self) + "}");
        std::string absent = std::string(kConnections) + "{1 7f000001 6099 1 7f000002 6098}";
        EXPECT_EQ(emu.cli({"get", absent + "/tcpConnectionState"}), "{\"reply\":\"not-found\"}");
        EXPECT_EQ(emu.cli({"get", std::string(kListeners) + "{2 " + std::string(31, '0') +
                                      "2 6004}/tcpListenerProcess"}),
                  "{\"reply\":\"not-found\"}");
        EXPECT_EQ(emu.cli({"get", std::string(kListeners) + "{2 " + std::string(31, '0') +
                                      "1 6004}/tcpListenerProcess"}),
                  "{\"type\":\"C_UINT32\",\"value\":" + std::to_string(self) + "}");
        EXPECT_TRUE(d->running()) << d->err();
    });
}

// Verifies that the scalars are the kernel's Tcp counters of the moment of
// the first request: MaxConn -1, the fixed values equal, the counters
// between a reading before and one after, and the 64-bit segment counters
// equal to the 32-bit ones.
TEST(TcpMibScalarTest, MatchTheKernelCounters)
{
    RUN_ISOLATED([] {
        Emu emu;
        auto d = emu.start_with_daemon();
        ASSERT_TRUE(d);

        auto kernel_counters = [] {
            std::map<std::string, long long> values;
            for (const auto &c : daemon_env::snmp_counters("Tcp"))
                values[c.first] = std::stoll(c.second);
            return values;
        };
        std::map<std::string, long long> before = kernel_counters();
        std::map<std::string, long long> answered;
        std::map<std::string, std::string> types;
        const char *names[] = {"RtoAlgorithm", "RtoMin",       "RtoMax",       "MaxConn",
                               "ActiveOpens",  "PassiveOpens", "AttemptFails", "EstabResets",
                               "CurrEstab",    "InSegs",       "OutSegs",      "RetransSegs",
                               "InErrs",       "OutRsts"};
        for (const char *name : names) {
            std::string answer = emu.cli({"get", std::string("/TCP-MIB/tcp/tcp") + name});
            answered[name] = std::stoll(value_of(answer, &types[name]));
        }
        std::map<std::string, long long> after = kernel_counters();
        ASSERT_EQ(before.count("MaxConn"), 1u);

        EXPECT_EQ(answered["MaxConn"], -1);
        EXPECT_EQ(types["MaxConn"], "C_INT32");
        EXPECT_EQ(types["RtoAlgorithm"], "C_ENUM_VALUE");
        EXPECT_EQ(types["InSegs"], "C_UINT32");
        for (const char *fixed : {"RtoAlgorithm", "RtoMin", "RtoMax", "MaxConn"})
            EXPECT_EQ(answered[fixed], before[fixed]) << fixed;
        for (const char *counter : {"ActiveOpens", "PassiveOpens", "AttemptFails", "EstabResets",
                                    "InSegs", "OutSegs", "RetransSegs", "InErrs", "OutRsts"}) {
            EXPECT_GE(answered[counter], before[counter]) << counter;
            EXPECT_LE(answered[counter], after[counter]) << counter;
        }
        // A gauge: the CLI's own connection may come and go around it.
        EXPECT_GE(answered["CurrEstab"], std::min(before["CurrEstab"], after["CurrEstab"]) - 2);
        EXPECT_LE(answered["CurrEstab"], std::max(before["CurrEstab"], after["CurrEstab"]) + 2);

        // Read around the 64-bit value until both 32-bit reads agree, i.e.
        // all three came from one refresh.
        for (const char *segs : {"InSegs", "OutSegs"}) {
            bool compared = false;
            for (int attempt = 0; attempt < 3 && !compared; attempt++) {
                std::string narrow = std::string("/TCP-MIB/tcp/tcp") + segs;
                std::string wide = std::string("/TCP-MIB/tcp/tcpHC") + segs;
                std::string first = value_of(emu.cli({"get", narrow}));
                std::string type;
                std::string hc = value_of(emu.cli({"get", wide}), &type);
                if (first != value_of(emu.cli({"get", narrow}))) continue;
                compared = true;
                EXPECT_EQ(hc, first) << segs;
                EXPECT_EQ(type, "C_UINT64");
            }
            EXPECT_TRUE(compared) << segs << " kept changing";
        }
    });
}

// Verifies that a scalar the daemon does not know (a model newer than the
// daemon) fails that request with an error and nothing else.
TEST(TcpMibScalarTest, UnknownScalarLeafAnswersAnError)
{
    RUN_ISOLATED([] {
        // The project's models with one more tcp scalar.
        const std::string models = "/tmp/models";
        std::filesystem::copy(LEISOBEK_MODELS_DIR, models);
        std::string yang = harness::read_file(models + "/TCP-MIB.yang");
        size_t at = yang.find("      leaf tcpRtoAlgorithm {");
        ASSERT_NE(at, std::string::npos);
        yang.insert(at, "      leaf tcpInCsumErrors {\n"
                        "        type smi:counter32;\n"
                        "        description \"Segments received with a bad checksum.\";\n"
                        "      }\n");
        std::ofstream(models + "/TCP-MIB.yang") << yang;

        Emu emu({"--models", models});
        auto d = emu.start_with_daemon();
        ASSERT_TRUE(d);
        std::string answer = emu.cli({"get", "/TCP-MIB/tcp/tcpInCsumErrors"});
        EXPECT_EQ(answer.rfind("{\"error\":", 0), 0u) << answer;
        EXPECT_EQ(value_of(emu.cli({"get", "/TCP-MIB/tcp/tcpMaxConn"})), "-1");
        EXPECT_TRUE(d->running()) << d->err();
    });
}

// Verifies that a walk begun within 3 seconds of the last refresh returns
// the same rows although sockets were opened meanwhile, and that a walk
// after that sees them.
TEST(TcpMibWalkTest, WalksWithinThreeSecondsReturnTheSameRows)
{
    RUN_ISOLATED([] {
        Emu emu;
        auto d = emu.start_with_daemon();
        ASSERT_TRUE(d);
        unique_fd first_listener = sockets::listen_on("127.0.0.1", 6101);
        unique_fd c1 = sockets::connect_to("127.0.0.1", 6101);
        unique_fd s1 = sockets::accept_one(first_listener.get());

        auto start = std::chrono::steady_clock::now();
        std::string first = emu.cli({"walk", kConnections});
        std::string first_listeners = emu.cli({"walk", kListeners});
        unique_fd second_listener = sockets::listen_on("127.0.0.1", 6102);
        unique_fd c2 = sockets::connect_to("127.0.0.1", 6102);
        unique_fd s2 = sockets::accept_one(second_listener.get());
        std::string second = emu.cli({"walk", kConnections});
        std::string second_listeners = emu.cli({"walk", kListeners});
        // The cache keeps whole seconds: 2 s from the first walk is still
        // within its 3 seconds whatever the fraction.
        ASSERT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2))
            << "the machine is too slow for this test";
        EXPECT_EQ(second, first);
        EXPECT_EQ(second_listeners, first_listeners);
        EXPECT_EQ(first.find("\"value\":6102}"), std::string::npos);

        std::this_thread::sleep_until(start + std::chrono::seconds(4));
        std::vector<row> rows = walk(emu, kConnections);
        size_t new_rows = 0;
        for (const row &r : rows)
            new_rows += r.keys[2] == "6102" || r.keys[5] == "6102";
        EXPECT_EQ(new_rows, 2u);
    });
}

// Verifies, with 20 000 loopback connections held by several processes,
// that every one of the 40 000 rows carries the process that owns its
// socket, and that no live socket goes without an owner.
TEST(TcpMibScaleTest, EveryRowCarriesItsOwningProcess)
{
    RUN_ISOLATED([] {
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
    });
}

} // namespace
