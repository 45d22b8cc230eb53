// confd-emu: the emulated management plane that data-provider daemons connect to on 127.0.0.1.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <memory>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>

#include "datastore.h"
#include "schema.h"
#include "server.h"
#include "snmp_agent.h"

namespace
{

const char kUsage[] =
    "usage: confd-emu [--port N] [--models DIR] [--init FILE] [--timeout-ms MS]\n"
    "                 [--diff-timeout-ms MS] [--walk-limit ROWS] [--port-file FILE]\n"
    "                 [--snmp TRANSPORT [--trap-sink TRANSPORT]... [--snmp-user USER]...]\n"
    "                 [--help]\n"
    "Serves the YANG models on 127.0.0.1 to data-provider daemons, MAAPI clients and\n"
    "confd-emu-cli.\n"
    "  --port N          TCP port (default 4565; 0 picks a free one)\n"
    "  --models DIR      YANG modules (default <exe dir>/../share/leisobek/models)\n"
    "  --init FILE       initial running configuration, XML (default DIR/demo-init.xml\n"
    "                    when the models directory has one; an empty name starts empty)\n"
    "  --timeout-ms MS   how long a daemon may take to answer (default 10000)\n"
    "  --diff-timeout-ms MS  how long a commit waits for each commit-diff subscriber\n"
    "                    (default: the --timeout-ms value)\n"
    "  --walk-limit ROWS most rows one walk may return (default 100000)\n"
    "  --port-file FILE  write the bound port to FILE once serving\n"
    "  --snmp TRANSPORT  answer SNMP (v1/v2c) on a net-snmp transport such as\n"
    "                    udp:127.0.0.1:1161 (off by default)\n"
    "  --snmp-user NAME:AUTHPASS[:PRIVPASS]  also answer SNMPv3 for this USM user\n"
    "                    (SHA authentication, AES privacy; passwords of 8 or more\n"
    "                    characters); may be repeated\n"
    "  --trap-sink TRANSPORT  send the daemons' notifications there as SNMPv2c traps\n"
    "                    (community public); may be repeated\n"
    "The bound port is also printed on stdout when the server is ready.\n";

// Directory of the running executable, or "." when it cannot be found.
std::string exe_dir()
{
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return ".";
    buf[n] = '\0';
    std::string p(buf);
    size_t slash = p.rfind('/');
    return slash == std::string::npos ? "." : p.substr(0, slash);
}

bool parse_num(const char *s, long lo, long hi, long &out)
{
    char *end = nullptr;
    errno = 0;
    out = std::strtol(s, &end, 10);
    return *s && errno == 0 && *end == '\0' && out >= lo && out <= hi;
}

// Writes the port to path through a temporary file, so a reader never sees half a number.
bool write_port_file(const std::string &path, int port)
{
    std::string tmp = path + ".tmp";
    FILE *f = std::fopen(tmp.c_str(), "w");
    if (!f) return false;
    bool ok = std::fprintf(f, "%d\n", port) > 0;
    ok = std::fclose(f) == 0 && ok;
    return ok && std::rename(tmp.c_str(), path.c_str()) == 0;
}

} // namespace

int main(int argc, char **argv)
{
    // Every connection is served on a short-lived thread of its own; with the allocator's
    // default of an arena per thread, memory freed by one lingers in arenas the next ones may
    // not use, and the resident size drifts with the mix of connections. Two arenas keep it flat.
    mallopt(M_ARENA_MAX, 2);
    emu::ServerOptions opt;
    emu::SnmpOptions snmp;
    std::string models, port_file, init_file;
    bool init_given = false;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        long v = 0;
        if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "confd-emu: unknown option or missing value: %s\n%s", a.c_str(),
                         kUsage);
            return 2;
        }
        const char *val = argv[++i];
        if (a == "--port" && parse_num(val, 0, 65535, v)) {
            opt.port = static_cast<int>(v);
        } else if (a == "--timeout-ms" && parse_num(val, 1, 3600000, v)) {
            opt.timeout_ms = static_cast<int>(v);
        } else if (a == "--diff-timeout-ms" && parse_num(val, 1, 3600000, v)) {
            opt.diff_timeout_ms = static_cast<int>(v);
        } else if (a == "--walk-limit" && parse_num(val, 1, 100000000, v)) {
            opt.walk_limit = static_cast<size_t>(v);
        } else if (a == "--models") {
            models = val;
        } else if (a == "--init") {
            init_file = val;
            init_given = true;
        } else if (a == "--snmp") {
            snmp.listen = val;
        } else if (a == "--trap-sink") {
            snmp.trap_sinks.push_back(val);
        } else if (a == "--snmp-user") {
            snmp.users.push_back(val);
        } else if (a == "--port-file") {
            port_file = val;
        } else {
            std::fprintf(stderr, "confd-emu: bad option %s %s\n%s", a.c_str(), val, kUsage);
            return 2;
        }
    }
    if (models.empty()) models = exe_dir() + "/../share/leisobek/models";

    emu::Schema schema;
    std::string err;
    if (!schema.load(models, err)) {
        std::fprintf(stderr, "confd-emu: cannot load the models from %s: %s\n", models.c_str(),
                     err.c_str());
        return 1;
    }

    if (!init_given && access((models + "/demo-init.xml").c_str(), R_OK) == 0)
        init_file = models + "/demo-init.xml";
    emu::Datastore ds(schema);
    if (!ds.load(init_file, err)) {
        std::fprintf(stderr, "confd-emu: cannot load the initial configuration: %s\n", err.c_str());
        return 1;
    }

    // Termination requests arrive through a signalfd, read by the accept loop; every thread
    // started later inherits the blocked mask.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    int sfd = signalfd(-1, &stop, SFD_CLOEXEC);
    if (sfd < 0) {
        std::fprintf(stderr, "confd-emu: signalfd: %s\n", std::strerror(errno));
        return 1;
    }

    emu::Server server(schema, ds, opt);
    if (!server.listen(err)) {
        std::fprintf(stderr, "confd-emu: cannot listen on %s\n", err.c_str());
        return 1;
    }
    std::unique_ptr<emu::SnmpAgent> agent;
    if (!snmp.listen.empty()) {
        snmp.diff_timeout_ms = opt.diff_timeout_ms ? opt.diff_timeout_ms : opt.timeout_ms;
        agent = std::make_unique<emu::SnmpAgent>(server.registry(), schema, &ds, snmp);
        if (!agent->start(err)) {
            std::fprintf(stderr, "confd-emu: %s\n", err.c_str());
            return 1;
        }
        emu::SnmpAgent *a = agent.get();
        server.registry().on_notification([a](const emu::Notification &n) { a->notify(n); });
    } else if (!snmp.trap_sinks.empty() || !snmp.users.empty()) {
        std::fprintf(stderr, "confd-emu: --trap-sink and --snmp-user need --snmp\n");
        return 2;
    }
    if (!port_file.empty() && !write_port_file(port_file, server.port())) {
        std::fprintf(stderr, "confd-emu: cannot write %s: %s\n", port_file.c_str(),
                     std::strerror(errno));
        return 1;
    }
    std::printf("%d\n", server.port());
    std::fflush(stdout);
    server.run(sfd);
    close(sfd);
    return 0;
}
