// Fuzzes the IP-MIB collector's /proc readers: the input is every file they read (the snmp,
// netstat and snmp6 counters, an interface's dev_snmp6 file, if_inet6 and the forwarding and TTL
// scalars), refreshed into the tables as the provider refreshes them.
#include "fuzz_util.h"

#include "ipstats.h"
#include "procfs.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const char *files[] = {
        "/net/snmp",
        "/net/netstat",
        "/net/snmp6",
        "/net/if_inet6",
        "/net/dev_snmp6/eth0",
        "/sys/net/ipv4/ip_forward",
        "/sys/net/ipv4/ip_default_ttl",
        "/sys/net/ipv4/ipfrag_time",
        "/sys/net/ipv6/conf/all/forwarding",
        "/sys/net/ipv6/conf/default/hop_limit",
    };
    static ip_system_stats system;
    static stats_list if_stats = {
        0, 0, 0, sizeof(ip_system_stats_entry), nullptr, nullptr, ip_if_stats_compare};
    static stats_list zones = {
        0, 0, 0, sizeof(ip6_scope_zone_entry), nullptr, nullptr, ip6_scope_zone_compare};
    static stats_list icmp = {
        0, 0, 0, sizeof(icmp_stats_entry), nullptr, nullptr, icmp_stats_compare};
    static stats_list icmp_msg = {
        0, 0, 0, sizeof(icmp_msg_stats_entry), nullptr, nullptr, icmp_msg_stats_compare};
    static bool ready = [] {
        for (const char *dir : {"/net/dev_snmp6", "/sys/net/ipv4", "/sys/net/ipv6/conf/all",
                                "/sys/net/ipv6/conf/default"})
            fuzz::make_dirs(dir);
        collect_set_proc_root(fuzz::scratch().c_str());
        return true;
    }();
    (void)ready;
    for (const char *file : files)
        fuzz::write(file, data, size);
    update_ip_system_stats(&system);
    update_ip_if_stats(&if_stats);
    update_ip6_scope_zone_index(&zones);
    update_ip_icmp_stats(&icmp);
    update_ip_icmp_msg_stats(&icmp_msg);
    ip_scalars scalars;
    update_ip_basic_stats(&scalars);

    // The IPv6 rows of ipAddressTable, line by line as their refresh reads if_inet6.
    fuzz::stream_ptr in = fuzz::stream(data, size);
    for (char text[1024]; fgets(text, sizeof text, in.get());) {
        if_inet6_line line;
        ip_address_entry row;
        memset(&row, 0, sizeof row);
        if (!parse_if_inet6_line(text, &line)) continue;
        ip6_address_from_line(line, &row);
        if (row.addr.length > sizeof row.addr.bytes || row.prefix_oid_len > 32) __builtin_trap();
    }
    return 0;
}
