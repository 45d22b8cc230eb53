// Benchmark: ipAddressTable with many addresses: completeness, walk CPU per row, refresh CPU
// against the floor.
//
// Runs in private network, mount and pid namespaces (as root): confd-emu on
// 127.0.0.1:4565, the real leisobek, and veth pairs carrying N/2 IPv4 and
// N/2 IPv6 addresses (10 per interface, every IPv4 one with a broadcast
// address). For each N it checks that every address is listed once as a
// unicast row (and that each IPv4 address brought its broadcast row), and
// measures from the daemon's main thread (/proc/<pid>/schedstat):
//   (a) one refresh: a get_next starting a walk 3 seconds after the last,
//       less the same request answered from the cache;
//   (b) one full walk through confd-emu, every column read, per row;
// and, in this process, (c) the floor: one SIOCGIFCONF round, one
// SIOCGIFINDEX per interface name and one read of /proc/net/if_inet6.
#include "harness.h"

#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace
{

const char kTable[] = "/IP-MIB/ipAddressTable/ipAddressEntry";
const int kPerInterface = 10;
const int kRounds = 5;

harness::CmdResult cli(const std::vector<std::string> &args)
{
    std::vector<std::string> argv = {harness::confd_emu_cli_path(), "--port", "4565"};
    argv.insert(argv.end(), args.begin(), args.end());
    return harness::run(argv, 600000);
}

// The main thread's run time of a process so far, in milliseconds.
double cpu_ms(pid_t pid)
{
    std::istringstream in(harness::read_file("/proc/" + std::to_string(pid) + "/schedstat"));
    long long ns = 0;
    in >> ns;
    return static_cast<double>(ns) / 1e6;
}

double process_cpu_ms()
{
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
}

// The least any refresh must read: the interface list (buffer doubled until
// two answers agree), each name's index, and the IPv6 address file.
void read_floor()
{
    int sock = socket(AF_INET, SOCK_DGRAM, 0);
    std::vector<ifreq> list;
    for (size_t n = 8, last = SIZE_MAX;; n *= 2) {
        list.resize(n);
        ifconf conf{};
        conf.ifc_len = static_cast<int>(n * sizeof(ifreq));
        conf.ifc_req = list.data();
        if (ioctl(sock, SIOCGIFCONF, &conf) < 0) break;
        if (static_cast<size_t>(conf.ifc_len) == last) {
            list.resize(last / sizeof(ifreq));
            break;
        }
        last = static_cast<size_t>(conf.ifc_len);
    }
    std::set<std::string> names;
    for (const ifreq &r : list)
        names.insert(r.ifr_name);
    for (const std::string &name : names) {
        ifreq r{};
        snprintf(r.ifr_name, sizeof r.ifr_name, "%s", name.c_str());
        ioctl(sock, SIOCGIFINDEX, &r);
    }
    close(sock);
    std::string text = harness::read_file("/proc/net/if_inet6");
    (void)text;
}

// Adds addresses up to n (half IPv4, half IPv6), 10 per interface, on veth
// pairs created as needed. Returns the IPv4 and IPv6 addresses in hex.
bool add_addresses(int n, std::set<std::string> &v4, std::set<std::string> &v6)
{
    std::ofstream batch("/tmp/ip.batch");
    for (int i = static_cast<int>(v4.size()); i < n / 2; i++) {
        int dev = i / kPerInterface;
        if (i % kPerInterface == 0 && dev % 2 == 0)
            batch << "link add bv" << dev << " type veth peer name bv" << dev + 1 << "\n"
                  << "link set bv" << dev << " up\nlink set bv" << dev + 1 << " up\n";
        batch << "addr add 10." << dev << "." << i % kPerInterface << ".1/24 brd + dev bv" << dev
              << "\n"
              << "addr add 2001:db8:" << std::hex << dev << "::" << i % kPerInterface + 1
              << std::dec << "/64 nodad dev bv" << dev << "\n";
        char hex4[9], hex6[33];
        snprintf(hex4, sizeof hex4, "0a%02x%02x01", dev, i % kPerInterface);
        snprintf(hex6, sizeof hex6, "20010db8%04x%020x", dev, i % kPerInterface + 1);
        v4.insert(hex4);
        v6.insert(hex6);
    }
    batch.close();
    return harness::run({"/sbin/ip", "-batch", "/tmp/ip.batch"}).exit_code == 0;
}

// Sleeps until a walk is sure to refresh: the daemon keeps the whole second of its last refresh.
void wait_until_due(time_t refreshed_at)
{
    while (time(nullptr) < refreshed_at + 3)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

// The rows of a walk answer: (type, address, ipAddressType) by scanning its JSON.
std::vector<std::vector<std::string>> rows_of(const std::string &walk)
{
    std::vector<std::vector<std::string>> rows;
    for (size_t at = walk.find("{\"keys\":"); at != std::string::npos;
         at = walk.find("{\"keys\":", at + 1)) {
        std::vector<std::string> row;
        size_t v = at;
        for (int k = 0; k < 2; k++) {
            v = walk.find("\"value\":", v) + 8;
            size_t end = walk.find_first_of(",}", v);
            row.push_back(walk.substr(v, end - v));
        }
        size_t t = walk.find("\"ipAddressType\":", at);
        t = walk.find("\"value\":", t) + 8;
        row.push_back(walk.substr(t, walk.find_first_of(",}", t) - t));
        for (std::string &s : row)
            if (!s.empty() && s.front() == '"') s = s.substr(1, s.size() - 2);
        rows.push_back(row);
    }
    return rows;
}

struct figures {
    double rows = 0, refresh_ms = 0, floor_ms = 0, walk_ms = 0;
};

int run_benchmark(const std::vector<int> &sizes)
{
    std::ofstream("/proc/sys/net/ipv6/conf/default/accept_dad") << "0\n";
    harness::Emu emu({"--port", "4565"});
    std::string why;
    if (!emu.start(why)) {
        fprintf(stderr, "bench_ip: confd-emu: %s\n", why.c_str());
        return 2;
    }
    int err = open("/tmp/leisobek.err", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    pid_t daemon = harness::spawn({LEISOBEK_BIN}, err, err);
    close(err);
    bool registered = false;
    for (int i = 0; i < 500 && !registered; i++) {
        registered = cli({"status"}).out.find("\"registered\":true") != std::string::npos;
        if (!registered) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (daemon <= 0 || !registered) {
        fprintf(stderr, "bench_ip: leisobek did not register\n");
        return 2;
    }

    std::set<std::string> v4, v6;
    std::vector<figures> results;
    bool complete = true;
    time_t refreshed_at = time(nullptr);
    for (int n : sizes) {
        if (!add_addresses(n, v4, v6)) {
            fprintf(stderr, "bench_ip: could not add the addresses\n");
            return 2;
        }
        figures f;
        std::vector<double> refresh, cached, floors, walks;
        for (int round = 0; round < kRounds + 1; round++) {
            wait_until_due(refreshed_at);
            double start = process_cpu_ms();
            read_floor();
            floors.push_back(process_cpu_ms() - start);
            double before = cpu_ms(daemon);
            cli({"next", kTable});
            refresh.push_back(cpu_ms(daemon) - before);
            refreshed_at = time(nullptr);
            before = cpu_ms(daemon);
            cli({"next", kTable});
            cached.push_back(cpu_ms(daemon) - before);
            before = cpu_ms(daemon);
            harness::CmdResult w = cli({"walk", kTable});
            walks.push_back(cpu_ms(daemon) - before);
            if (round == 0) { // warm-up: the lists grow; checked, not measured
                refresh.clear(), cached.clear(), floors.clear(), walks.clear();
                std::multiset<std::string> unicast;
                size_t broadcast = 0;
                auto rows = rows_of(w.out);
                for (const auto &r : rows) {
                    if (r[2] == "3")
                        broadcast++;
                    else
                        unicast.insert(r[1]);
                }
                for (const std::set<std::string> *want : {&v4, &v6})
                    for (const std::string &a : *want)
                        if (unicast.count(a) != 1) {
                            fprintf(stderr, "address %s listed %zu times\n", a.c_str(),
                                    unicast.count(a));
                            complete = false;
                        }
                if (broadcast != v4.size()) {
                    fprintf(stderr, "%zu broadcast rows for %zu IPv4 addresses\n", broadcast,
                            v4.size());
                    complete = false;
                }
                f.rows = static_cast<double>(rows.size());
            }
        }
        // The machine is shared: the least of the rounds is the figure least
        // disturbed by other work.
        auto least = [](const std::vector<double> &v) {
            return *std::min_element(v.begin(), v.end());
        };
        f.refresh_ms = least(refresh) - least(cached);
        f.floor_ms = least(floors);
        f.walk_ms = least(walks);
        results.push_back(f);
    }
    kill(daemon, SIGKILL);
    waitpid(daemon, nullptr, 0);

    printf("%s, N addresses (N/2 IPv4 with broadcast, N/2 IPv6, %d per interface); leisobek main "
           "thread CPU (schedstat), least of %d rounds\n\n",
           kTable, kPerInterface, kRounds);
    printf("%6s %6s | %12s %10s %8s | %10s %10s\n", "N", "rows", "refresh ms", "floor ms", "ratio",
           "walk ms", "us/row");
    for (size_t i = 0; i < results.size(); i++) {
        const figures &f = results[i];
        printf("%6d %6.0f | %12.2f %10.2f %8.2f | %10.1f %10.2f\n", sizes[i], f.rows, f.refresh_ms,
               f.floor_ms, f.refresh_ms / f.floor_ms, f.walk_ms, 1000.0 * f.walk_ms / f.rows);
    }
    double growth = (results.back().walk_ms / results.back().rows) /
                    (results.front().walk_ms / results.front().rows);
    printf("\nevery address listed once, with its broadcast row: %s\n", complete ? "yes" : "NO");
    printf("walk CPU per row at %.0f rows: %.2f x that at %.0f rows (bound 1.5): %s\n",
           results.back().rows, growth, results.front().rows, growth <= 1.5 ? "met" : "NOT MET");
    return complete && growth <= 1.5 ? 0 : 1;
}

} // namespace

int main()
{
    const std::vector<int> sizes = {100, 1000};
    int code = harness::run_in_namespaces([&] { return run_benchmark(sizes); });
    if (code == harness::kNoNamespaces) fprintf(stderr, "bench_ip: namespaces not permitted\n");
    return code == 0 || code == 1 ? code : 2;
}
