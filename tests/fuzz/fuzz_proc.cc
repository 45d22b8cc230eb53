// Fuzzes the /proc readers: socket tables, snmp sections and the field scanners, on any text.
#include "fuzz_util.h"

#include "procfs.h"
#include "scan.h"
#include "statslist.h"
#include "tcpstats.h"
#include "udpstats.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

namespace
{

// Every scanner over every line of the text.
void scan_lines(const std::string &text)
{
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        std::string line = text.substr(start, end == std::string::npos ? std::string::npos
                                                                         : end - start);
        const char *c = line.c_str();
        int32_t i32;
        uint32_t u32;
        uint64_t u64;
        char ident[16];
        uint8_t bytes[16];
        int32_t type;
        int zero;
        for (int step = 0; step < 64 && *c; step++) {
            const char *before = c;
            switch (step % 7) {
            case 0: scan_dec_int(&c, &i32); break;
            case 1: scan_dec_u32(&c, &u32); break;
            case 2: scan_dec_u64(&c, &u64); break;
            case 3: scan_hex_u32(&c, &u32); break;
            case 4: scan_ident(&c, ident, sizeof ident); break;
            case 5: scan_hex_bytes(&c, bytes, sizeof bytes); break;
            case 6: scan_hex_addr(&c, bytes, &type, &zero, step & 1); break;
            }
            if (c == before) c++; // a scanner that took nothing: move on
        }
        is_blank(line.c_str());
        if (end == std::string::npos) break;
        start = end + 1;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static tcp_tables tcp;
    static stats_list udp;
    static bool ready = false;
    if (!ready) {
        tcp_tables_init(&tcp);
        udp_endpoints_init(&udp);
        ready = true;
    }
    // Start every input with empty tables, keeping their storage (as a refresh does).
    tcp.conns.count = 0;
    tcp.listeners.count = 0;
    for (int v6 = 0; v6 < 2; v6++) {
        tcp_read_table(fuzz::stream(data, size).get(), &tcp, v6);
    }
    tcp_tables_sort(&tcp);

    udp_endpoints_init(&udp);
    for (int32_t type = 1; type <= 2; type++) {
        udp_read_endpoints(fuzz::stream(data, size).get(), &udp, 0, type);
    }

    tcp_global_stats stats;
    memset(&stats, 0, sizeof stats);
    tcp_read_snmp(fuzz::stream(data, size).get(), &stats);
    for (int buffer : {2, 7, 512}) {
        char line[512];
        read_snmp_section_from(fuzz::stream(data, size).get(), line, buffer,
                               size > 0 && data[0] & 1 ? "Udp" : "Tcp");
    }

    scan_lines(std::string(reinterpret_cast<const char *>(data), size));
    return 0;
}
