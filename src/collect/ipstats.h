// IP collector: records of the IP-MIB tables, their index orders and the functions that refill
// them.
//
// Every table but the system statistics and the scalars is a stats_list of
// one record type, refilled from the kernel (count 0, then append, then sort
// into the table's index order) by its refresh function. The storage of a
// refresh is reused by the next, which the widened per-interface counters
// rely on. InetAddressType and InetVersion are 1 for IPv4 and 2 for IPv6.
#ifndef LEISOBEK_COLLECT_IPSTATS_H
#define LEISOBEK_COLLECT_IPSTATS_H

#include "ipkit.h"
#include "statslist.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>

// A 32-bit kernel counter and its 64-bit total (see widen_counter).
struct widened_counter {
    uint32_t last_raw;
    uint64_t total;
};

// A row of ipSystemStatsTable or ipIfStatsTable. if_index is used by the
// per-interface rows only. The octet counters are never filled.
struct ip_system_stats_entry {
    uint32_t version;
    int32_t if_index;
    widened_counter in_receives;
    uint64_t in_octets;
    uint64_t in_hdr_errors;
    uint64_t in_no_routes;
    uint64_t in_addr_errors;
    uint64_t in_unknown_protos;
    uint64_t in_truncated_pkts;
    uint64_t in_forw_datagrams; // derived
    uint64_t reasm_reqds;
    uint64_t reasm_oks;
    uint64_t reasm_fails;
    uint64_t in_discards;
    widened_counter in_delivers;
    widened_counter out_requests;
    uint64_t out_no_routes;
    widened_counter out_forw_datagrams;
    uint64_t out_discards;
    uint64_t out_frag_reqds; // derived
    uint64_t out_frag_oks;
    uint64_t out_frag_fails;
    uint64_t out_frag_creates;
    uint64_t out_transmits; // derived
    uint64_t out_octets;
    widened_counter in_mcast_pkts;
    uint64_t in_mcast_octets;
    widened_counter out_mcast_pkts;
    uint64_t out_mcast_octets;
    widened_counter in_bcast_pkts;  // IPv4 system row only
    widened_counter out_bcast_pkts; // IPv4 system row only
    uint32_t unfilled;              // answered as 0
};

// The two rows of ipSystemStatsTable: IPv4, then IPv6.
struct ip_system_stats {
    ip_system_stats_entry row[2];
};

// The ip group scalars (filled by the scalar refresh).
struct ip_scalars {
    int32_t forwarding;
    int32_t default_ttl;
    int32_t reasm_timeout;
    int32_t ipv6_forwarding;
    int32_t ipv6_hop_limit;
};

// A row of ipAddressTable.
struct ip_address_entry {
    int32_t addr_type;
    ip_addr_value addr;
    int32_t if_index;
    int32_t type;            // 1 unicast, 2 anycast, 3 broadcast
    uint32_t prefix_oid[32]; // row pointer to ipAddressPrefixOrigin of the prefix
    uint32_t prefix_oid_len;
    int32_t origin;  // 2 manual, 5 linklayer, 6 random
    int32_t status;  // 1 preferred, 2 deprecated, 5 unknown, 6 tentative
    int32_t storage; // 2 volatile, 4 permanent
    int32_t if_flags;
    int32_t prefix_len;
};

// A row of ipAddressPrefixTable.
struct ip_addr_prefix_entry {
    int32_t if_index;
    uint32_t type;
    ip_addr_value prefix;
    uint32_t prefix_len;
    uint32_t origin;
    uint32_t on_link;
    uint32_t autonomous;
    uint32_t preferred_lifetime;
    uint32_t valid_lifetime;
};

// A row of ipNetToPhysicalTable.
struct ip_net_phys_entry {
    int32_t if_index;
    uint32_t addr_type;
    ip_addr_value addr;
    uint8_t phys_addr[32];
    uint32_t phys_addr_len;
    uint32_t type;
    uint32_t state;
    uint32_t router;
};

// A row of ipDefaultRouterTable.
struct ip_def_router_entry {
    uint32_t addr_type;
    ip_addr_value addr;
    int32_t if_index;
    uint32_t lifetime;
    int32_t preference;
};

// A row of ipv6ScopeZoneIndexTable: ifIndex, then the twelve zone indexes.
struct ip6_scope_zone_entry {
    uint32_t if_index;
    uint32_t zone[12];
};

// A row of ipv6RouterAdvertTable, in the column order of the MIB.
struct ip6_router_advert_entry {
    int32_t if_index;
    int32_t send_adverts; // TruthValue: 1 true, 2 false
    uint32_t max_interval;
    uint32_t min_interval;
    int32_t managed_flag;
    int32_t other_config_flag;
    uint32_t link_mtu;
    uint32_t reachable_time;
    uint32_t retransmit_time;
    uint32_t cur_hop_limit;
    uint32_t default_lifetime;
    int32_t row_status;
    char name[16]; // the interface the row was read for
};

// A row of icmpStatsTable.
struct icmp_stats_entry {
    uint32_t version;
    uint64_t in_msgs, in_errors, out_msgs, out_errors;
};

// A row of icmpMsgStatsTable.
struct icmp_msg_stats_entry {
    uint32_t version;
    int32_t type;
    uint64_t in_pkts, out_pkts;
};

// Index orders of the lists (stats_list comparators): type, version and
// length ascending, ifIndex as a signed number, addresses by length before bytes.
int ip_if_stats_compare(const void *a, const void *b);
int ip_address_compare(const void *a, const void *b);
int ip_addr_prefix_compare(const void *a, const void *b);
int ip_net_phys_compare(const void *a, const void *b);
int ip_def_router_compare(const void *a, const void *b);
int ip6_scope_zone_compare(const void *a, const void *b);
int ip6_router_advert_compare(const void *a, const void *b);
int icmp_stats_compare(const void *a, const void *b);
int icmp_msg_stats_compare(const void *a, const void *b);

// Refills the two system rows from /proc/net/snmp ("Ip:"), /proc/net/netstat
// ("IpExt:") and /proc/net/snmp6; a file that cannot be read leaves its
// fields as the last refresh left them. Returns 0.
int update_ip_system_stats(ip_system_stats *stats);

// Refills the IPv6 per-interface rows, one per readable file of
// /proc/net/dev_snmp6 in directory order, each into the slot the same place
// held last time (its widened totals continue from that slot). Returns 0.
int update_ip_if_stats(stats_list *list);

// Refills ipAddressTable: the IPv4 addresses of the kernel's interface list
// (with a broadcast row where the interface has a broadcast address) and the
// IPv6 addresses of /proc/net/if_inet6. Returns 0.
int update_ip_address(stats_list *list);

// Refills ipv6RouterAdvertTable: one row per entry of the kernel's interface
// list, from /proc/sys/net/ipv6. No interface list leaves the rows as they
// were. Returns 0, or -1 when the interface list could not be had.
int update_ipv6_router_advert_stats(stats_list *list);

// Refills the ip group scalars from /proc/sys/net, each read with "%i" (so
// "0x40" reads 64). A file that cannot be opened ends the daemon with "Could
// not open <path>"; a file holding no number warns "Failed to match number."
// and keeps the field. Returns 0.
int update_ip_basic_stats(ip_scalars *scalars);

// Reads one scalar with "%i" from in into *field, as update_ip_basic_stats does.
void read_scalar_from(FILE *in, int32_t *field);

// One address as the kernel's address dump reports it.
struct ip_addr_record {
    uint8_t family; // AF_INET or AF_INET6
    uint8_t prefix_len;
    uint8_t flags;
    uint8_t scope;
    int32_t if_index;
    uint32_t preferred, valid, created, updated; // address cache information
    char label[255];
    uint8_t address[16], local[16], broadcast[16], anycast[16]; // IPv4 in the first 4
    uint32_t seen;                                              // addr_seen_* bits
};
enum {
    addr_seen_address = 2,
    addr_seen_local = 4,
    addr_seen_label = 8,
    addr_seen_broadcast = 16,
    addr_seen_anycast = 32,
    addr_seen_cacheinfo = 64,
};

// Appends to out (ip_addr_record items) one record per message of one
// datagram of an address dump; message types are not looked at.
void parse_addr_datagram(const unsigned char *data, size_t size, item_list *out);

// Opens a routing netlink socket and sends it the request for the
// addresses of family. The socket, or -1 when either step failed.
int request_address_dump(int family);

// The IPv4, then the IPv6 addresses: one request per family on a socket of
// its own, and only the first datagram of each answer. Returns 0.
int dump_addresses(item_list *out);

// Turns address records into ipAddressPrefixTable rows (appended to list,
// then sorted and passed through stats_list_uniq).
void ip_prefix_rows(const item_list *records, stats_list *list);

// Refills ipAddressPrefixTable from the address dump. Returns 0.
int update_ip_address_prefix(stats_list *list);

// Called for each message of a routing netlink dump that may be a default
// route (destination prefix length 0; every neighbour message is one).
typedef void (*rtnl_message_fn)(const unsigned char *message, stats_list *list);

// Walks the messages of one datagram of a dump: 1 when the dump goes on, 0
// at its end marker (any message type with either low bit set), -1 at an
// error message.
int rtnl_walk(const unsigned char *data, size_t size, rtnl_message_fn fn, stats_list *list);

// Sends one dump request of type (RTM_GETNEIGH, RTM_GETROUTE) on the socket
// kept for the whole run and feeds every message to fn. Returns 0 at the end
// of the dump or when a receive fails, -1 at an error message or when the
// request could not be sent.
int rtnl_dump(int type, rtnl_message_fn fn, stats_list *list);

// Per-message functions: one ipNetToPhysicalTable row per IPv4 or IPv6
// neighbour; one ipDefaultRouterTable row per default route with an
// interface, a gateway and a lifetime.
void parse_neigh_msg(const unsigned char *message, stats_list *list);
void parse_route_msg(const unsigned char *message, stats_list *list);

// Sorts ipNetToPhysicalTable rows exactly as stats_list_sort does with
// ip_net_phys_compare (equal rows in arrival order), in linear time.
void ip_net_phys_sort(stats_list *list);

// Clock ticks per second for route expiry times (sysconf until set; tests set it).
void ip_route_set_clock_ticks(long ticks);

// Refill ipNetToPhysicalTable and ipDefaultRouterTable from the kernel. Return 0.
int update_net_phys_list(stats_list *list);
int update_ip_def_router(stats_list *list);

// Refills ipv6ScopeZoneIndexTable: one row per interface that has a
// link-local address in /proc/net/if_inet6. Returns 0.
int update_ip6_scope_zone_index(stats_list *list);

// Refill icmpStatsTable and icmpMsgStatsTable from /proc/net/snmp and
// /proc/net/snmp6; an unreadable file leaves out its IP version. Return 0.
int update_ip_icmp_stats(stats_list *list);
int update_ip_icmp_msg_stats(stats_list *list);

// Interface index of the interface called name: 0 and *index set, or -1.
int get_if_index(const char *name, int *index);

// One line of /proc/net/if_inet6.
struct if_inet6_line {
    char address[129];
    uint32_t if_index;
    uint32_t prefix_len;
    uint32_t scope;
    uint32_t flags;
    char device[64];
};

// Parses one line of /proc/net/if_inet6; false when a field is missing.
bool parse_if_inet6_line(const char *text, if_inet6_line *line);

// Fills the address, prefix length, status, origin and storage type of an
// IPv6 ipAddressTable row from its if_inet6 line (if_index and type are the
// caller's).
void ip6_address_from_line(const if_inet6_line &line, ip_address_entry *row);

// Writes the row pointer of an ipAddressTable row: ipAddressPrefixOrigin
// (1.3.6.1.2.1.4.32.1.5) indexed by ifIndex, type, the address masked to the
// prefix length (length-prefixed) and the prefix length.
void build_prefix_pointer(ip_address_entry *row);

#endif
