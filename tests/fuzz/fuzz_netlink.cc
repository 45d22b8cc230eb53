// Fuzzes the routing netlink walkers on any bytes taken as one received datagram: the address
// dump (ipAddressPrefixTable), the neighbour and route dumps (ipNetToPhysicalTable,
// ipDefaultRouterTable) and the link monitor's event reader. Every message and attribute length
// they follow comes from the input.
#include "fuzz_util.h"

#include "core/sysenv.h"
#include "ipstats.h"
#include "notify/linkmon.h"

#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static stats_list prefixes = {
        0, 0, 0, sizeof(ip_addr_prefix_entry), nullptr, nullptr, ip_addr_prefix_compare};
    static stats_list neighbours = {
        0, 0, 0, sizeof(ip_net_phys_entry), nullptr, nullptr, ip_net_phys_compare};
    static stats_list routers = {
        0, 0, 0, sizeof(ip_def_router_entry), nullptr, nullptr, ip_def_router_compare};
    static bool ready = [] {
        // No "network" package: a link event names no section and raises nothing.
        sys_set_root(fuzz::scratch().c_str());
        ip_route_set_clock_ticks(100);
        return true;
    }();
    (void)ready;
    // A copy of exactly the input, so that a read past its end is seen.
    std::vector<unsigned char> bytes(data, data + size);

    item_list records;
    item_list_init(&records, sizeof(ip_addr_record), 4);
    parse_addr_datagram(bytes.data(), bytes.size(), &records);
    prefixes.count = 0;
    ip_prefix_rows(&records, &prefixes);
    item_list_free(&records);

    neighbours.count = 0;
    rtnl_walk(bytes.data(), bytes.size(), parse_neigh_msg, &neighbours);
    ip_net_phys_sort(&neighbours);
    routers.count = 0;
    rtnl_walk(bytes.data(), bytes.size(), parse_route_msg, &routers);
    stats_list_sort(&routers);

    // The link monitor takes the input as one datagram (cut at its 4 KiB buffer, as the kernel's
    // would be).
    fuzz::socket_feed feed(data, size, SOCK_SEQPACKET);
    read_netlink(feed.near, link_event);
    return 0;
}
