// Benchmark: IF-MIB walks against the number of interfaces in the statistics files.
//
// In private namespaces (as root), a statistics script on an overlay of /usr/bin copies N
// interfaces (half layer-3 lines, a quarter WAN and a quarter LAN ports) into /tmp/stats and counts
// its runs. For every N it checks that a full walk of ifTable and ifXTable runs the script once,
// then walks both tables again from the cache and reports the daemon main thread's run time per
// request: it must stay flat as N grows, since each answer is one lookup in the sorted records.
//   bench_ifstate [--sizes 8,16,32,64] [--walks N]
#include "bench_util.h"

#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <fstream>

namespace
{

const char *const tables[] = {"/IF-MIB/ifTable/ifEntry", "/IF-MIB/ifXTable/ifXEntry"};

void write(const std::string &path, const std::string &text, mode_t mode = 0644)
{
    std::ofstream(path, std::ios::trunc) << text;
    chmod(path.c_str(), mode);
}

// The statistics files of n interfaces with ifIndex 1..n.
void write_fixture(int n)
{
    std::string iface, wan, lan;
    for (int i = 1; i <= n; i++) {
        std::string name = "eth" + std::to_string(i), index = std::to_string(i);
        if (i <= n / 2)
            iface += "v4," + name + ",1,10.0.0." + index + " 24,,,,1500,,-,," + index +
                     ",0,0,1000,0,0,1,2,3,4,0,5,6,7,8,0,1,1,1\n";
        else
            (i <= 3 * n / 4 ? wan : lan) += name + ",0,0,1000,0,0,1,2,3,4,0,5,6,7,8,0,1," + index +
                                            ",1,1," + (i <= 3 * n / 4 ? "0," : "") + "\n";
    }
    write("/tmp/fixture/snmp_iface_stats", iface);
    write("/tmp/fixture/snmp_wanport_stats", wan);
    write("/tmp/fixture/snmp_lanport_stats", lan);
}

bool install_script()
{
    mkdir("/tmp/fixture", 0755);
    mkdir("/tmp/ov", 0755);
    mkdir("/tmp/ov/upper", 0755);
    mkdir("/tmp/ov/work", 0755);
    if (mount("overlay", "/usr/bin", "overlay", 0,
              "lowerdir=/usr/bin,upperdir=/tmp/ov/upper,workdir=/tmp/ov/work") != 0) {
        perror("overlay on /usr/bin");
        return false;
    }
    write("/usr/bin/snmpgetcurrent",
          "#!/bin/sh\necho run >> /tmp/runs\nmkdir -p /tmp/stats\ncp /tmp/fixture/* /tmp/stats/\n",
          0755);
    return true;
}

size_t script_runs()
{
    std::string runs = harness::read_file("/tmp/runs");
    return static_cast<size_t>(std::count(runs.begin(), runs.end(), '\n'));
}

// The number of requests a walk made (one get_next per row and the end, one get_elem per leaf
// printed), or -1 when it failed.
long requests_of(const harness::CmdResult &r)
{
    if (r.exit_code != 0 || r.out.compare(0, 1, "[") != 0) return -1;
    // Every value printed, key or leaf, carries a type; each row has one key: the get_next requests
    // and the get_elem ones together are one more than the values.
    return long(harness::count_of(r.out, "\"type\":")) + 1;
}

int run(const std::vector<int> &sizes, int walks)
{
    if (!install_script()) return 2;
    harness::Emu emu({"--port", "4565"});
    if (!bench::start_emu(emu, "bench_ifstate")) return 2;
    printf("%6s %12s %10s %14s %22s\n", "ifaces", "script runs", "requests", "main thread ms",
           "us per request (min)");
    for (int n : sizes) {
        write_fixture(n);
        unlink("/tmp/runs");
        bench::daemon_process daemon;
        pid_t pid = daemon.pid();
        bool ok = daemon.registered("bench_ifstate");
        // The first walk of both tables refreshes the cache; the measured ones are answered from
        // it, all within the 10 seconds it stays fresh.
        long first = ok ? requests_of(bench::cli({"walk", tables[0]})) +
                              requests_of(bench::cli({"walk", tables[1]}))
                        : -1;
        size_t runs = script_runs();
        // Other work on the machine shows as noise in single walks; the fastest walk tells the
        // daemon's own cost best.
        long requests = 0;
        double spent = 0, best = 1e9;
        for (int i = 0; i < walks && first > 0; i++) {
            for (const char *table : tables) {
                harness::CmdResult r;
                double ms = bench::request_ms(pid, {"walk", table}, &r);
                long asked = requests_of(r);
                requests += asked;
                spent += ms;
                best = std::min(best, 1000.0 * ms / static_cast<double>(asked));
            }
        }
        if (first <= 0 || script_runs() != runs)
            printf("%6d  failed (walk %ld, script runs %zu then %zu)\n", n, first, runs,
                   script_runs());
        else
            printf("%6d %12zu %10ld %14.1f %14.2f (%5.2f)\n", n, runs, requests, spent,
                   1000.0 * spent / static_cast<double>(requests), best);
        fflush(stdout);
        daemon.stop();
        for (int i = 0;
             i < 250 && emu.cli({"status"}).out.find("\"leisobek\"") != std::string::npos; i++)
            usleep(20000);
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    std::vector<int> sizes = {8, 16, 32, 64};
    int walks = 3;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--sizes") == 0) sizes = bench::parse_sizes(argv[i + 1]);
        if (strcmp(argv[i], "--walks") == 0) walks = std::stoi(argv[i + 1]);
    }
    return bench::run_isolated("bench_ifstate", [&] { return run(sizes, walks); });
}
