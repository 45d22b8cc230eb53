// IP collector: the tables' index orders, the traffic statistics of the system and of each
// interface, the ip group scalars, the scope zones and the ICMP counters.
#include "ipstats.h"

#include "procfs.h"
#include "core/trace.h"

#include <err.h>
#include "core/portable.h"

#include <dirent.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>

namespace
{

template <typename T> const T &as(const void *record)
{
    return *static_cast<const T *>(record);
}

int addr_compare(const ip_addr_value &a, const ip_addr_value &b)
{
    return stats_addr_compare(a.length, a.bytes, b.length, b.bytes);
}

// Where a traffic counter comes from: the file group, the kernel's name for
// it there and for IPv6, and the record field it lands in.
enum source_group { from_ip, from_ip_ext, from_ip6 };
struct counter_source {
    size_t field;
    bool widened;
    source_group v4_group; // "Ip:" of /proc/net/snmp or "IpExt:" of /proc/net/netstat
    const char *v4_name;
    const char *v6_name; // null: no IPv6 counterpart
};

#define FIELD(name) offsetof(ip_system_stats_entry, name)
// In the order the router fills them: the "Ip:" fields in the order of the
// kernel's line, then the "IpExt:" ones.
const counter_source counter_sources[] = {
    {FIELD(in_receives), true, from_ip, "InReceives", "Ip6InReceives"},
    {FIELD(in_hdr_errors), false, from_ip, "InHdrErrors", "Ip6InHdrErrors"},
    {FIELD(in_addr_errors), false, from_ip, "InAddrErrors", "Ip6InAddrErrors"},
    {FIELD(out_forw_datagrams), true, from_ip, "ForwDatagrams", "Ip6OutForwDatagrams"},
    {FIELD(in_unknown_protos), false, from_ip, "InUnknownProtos", "Ip6InUnknownProtos"},
    {FIELD(in_discards), false, from_ip, "InDiscards", "Ip6InDiscards"},
    {FIELD(in_delivers), true, from_ip, "InDelivers", "Ip6InDelivers"},
    {FIELD(out_requests), true, from_ip, "OutRequests", "Ip6OutRequests"},
    {FIELD(out_discards), false, from_ip, "OutDiscards", "Ip6OutDiscards"},
    {FIELD(out_no_routes), false, from_ip, "OutNoRoutes", "Ip6OutNoRoutes"},
    {FIELD(reasm_reqds), false, from_ip, "ReasmReqds", "Ip6ReasmReqds"},
    {FIELD(reasm_oks), false, from_ip, "ReasmOKs", "Ip6ReasmOKs"},
    {FIELD(reasm_fails), false, from_ip, "ReasmFails", "Ip6ReasmFails"},
    {FIELD(out_frag_oks), false, from_ip, "FragOKs", "Ip6FragOKs"},
    {FIELD(out_frag_fails), false, from_ip, "FragFails", "Ip6FragFails"},
    {FIELD(out_frag_creates), false, from_ip, "FragCreates", "Ip6FragCreates"},
    {FIELD(in_no_routes), false, from_ip_ext, "InNoRoutes", "Ip6InNoRoutes"},
    {FIELD(in_truncated_pkts), false, from_ip_ext, "InTruncatedPkts", "Ip6InTruncatedPkts"},
    {FIELD(in_mcast_pkts), true, from_ip_ext, "InMcastPkts", "Ip6InMcastPkts"},
    {FIELD(out_mcast_pkts), true, from_ip_ext, "OutMcastPkts", "Ip6OutMcastPkts"},
    {FIELD(in_bcast_pkts), true, from_ip_ext, "InBcastPkts", nullptr},
    {FIELD(out_bcast_pkts), true, from_ip_ext, "OutBcastPkts", nullptr},
};
#undef FIELD

// Stores the counters of one group from pairs into row: a missing counter
// reads 0 (for a widened one, a raw 0).
void fill_counters(ip_system_stats_entry *row, const item_list *pairs, source_group group)
{
    auto *base = reinterpret_cast<unsigned char *>(row);
    for (const counter_source &s : counter_sources) {
        const char *name = group == from_ip6     ? s.v6_name
                           : s.v4_group == group ? s.v4_name
                                                 : nullptr;
        if (!name) continue;
        uint64_t value;
        find_stat(pairs, name, &value);
        if (s.widened) {
            auto *c = reinterpret_cast<widened_counter *>(base + s.field);
            widen_counter(value, &c->last_raw, &c->total);
        } else {
            memcpy(base + s.field, &value, sizeof value);
        }
    }
}

// The three columns the kernel does not count: forwarded datagrams in, the
// fragmentation requests, and all datagrams sent.
void derive_counters(ip_system_stats_entry *row)
{
    row->in_forw_datagrams = row->in_no_routes + row->out_forw_datagrams.total;
    row->out_frag_reqds = row->out_frag_oks + row->out_frag_fails;
    row->out_transmits = row->out_forw_datagrams.total + row->out_requests.total +
                         row->out_frag_creates - row->out_no_routes - row->out_discards -
                         row->out_frag_reqds;
}

// A stat_pair list that frees itself.
struct pair_list {
    item_list list{};
    pair_list() { item_list_init(&list, sizeof(stat_pair), 256); }
    ~pair_list() { item_list_free(&list); }
};

struct dir_closer {
    void operator()(DIR *dir) const { closedir(dir); }
};

} // namespace

int ip_if_stats_compare(const void *a, const void *b)
{
    const auto &x = as<ip_system_stats_entry>(a), &y = as<ip_system_stats_entry>(b);
    if (int c = stats_num_compare(x.version, y.version)) return c;
    return stats_num_compare(x.if_index, y.if_index);
}

int ip_address_compare(const void *a, const void *b)
{
    const auto &x = as<ip_address_entry>(a), &y = as<ip_address_entry>(b);
    if (int c = stats_num_compare(uint32_t(x.addr_type), uint32_t(y.addr_type))) return c;
    return addr_compare(x.addr, y.addr);
}

int ip_addr_prefix_compare(const void *a, const void *b)
{
    const auto &x = as<ip_addr_prefix_entry>(a), &y = as<ip_addr_prefix_entry>(b);
    if (int c = stats_num_compare(x.if_index, y.if_index)) return c;
    if (int c = stats_num_compare(x.type, y.type)) return c;
    if (int c = addr_compare(x.prefix, y.prefix)) return c;
    return stats_num_compare(x.prefix_len, y.prefix_len);
}

int ip_net_phys_compare(const void *a, const void *b)
{
    const auto &x = as<ip_net_phys_entry>(a), &y = as<ip_net_phys_entry>(b);
    if (int c = stats_num_compare(x.if_index, y.if_index)) return c;
    if (int c = stats_num_compare(x.addr_type, y.addr_type)) return c;
    return addr_compare(x.addr, y.addr);
}

int ip_def_router_compare(const void *a, const void *b)
{
    const auto &x = as<ip_def_router_entry>(a), &y = as<ip_def_router_entry>(b);
    if (int c = stats_num_compare(x.addr_type, y.addr_type)) return c;
    if (int c = addr_compare(x.addr, y.addr)) return c;
    return stats_num_compare(x.if_index, y.if_index);
}

int ip6_scope_zone_compare(const void *a, const void *b)
{
    return stats_num_compare(int32_t(as<ip6_scope_zone_entry>(a).if_index),
                             int32_t(as<ip6_scope_zone_entry>(b).if_index));
}

int ip6_router_advert_compare(const void *a, const void *b)
{
    return stats_num_compare(as<ip6_router_advert_entry>(a).if_index,
                             as<ip6_router_advert_entry>(b).if_index);
}

int icmp_stats_compare(const void *a, const void *b)
{
    return stats_num_compare(as<icmp_stats_entry>(a).version, as<icmp_stats_entry>(b).version);
}

int icmp_msg_stats_compare(const void *a, const void *b)
{
    const auto &x = as<icmp_msg_stats_entry>(a), &y = as<icmp_msg_stats_entry>(b);
    if (int c = stats_num_compare(x.version, y.version)) return c;
    return stats_num_compare(x.type, y.type);
}

int update_ip_system_stats(ip_system_stats *stats)
{
    ip_system_stats_entry *v4 = &stats->row[0], *v6 = &stats->row[1];
    {
        pair_list pairs;
        v4->version = 1;
        if (read_stat_section(collect_proc_path("net/snmp").c_str(), &pairs.list, "Ip:") == 0)
            fill_counters(v4, &pairs.list, from_ip);
        item_list_clear(&pairs.list);
        // The derived columns need the IpExt counters; without them they keep
        // the last refresh's values.
        if (read_stat_section(collect_proc_path("net/netstat").c_str(), &pairs.list, "IpExt:") ==
            0) {
            fill_counters(v4, &pairs.list, from_ip_ext);
            derive_counters(v4);
        }
    }
    pair_list pairs;
    v6->version = 2;
    if (read_stat_pairs(collect_proc_path("net/snmp6").c_str(), &pairs.list) == 0) {
        fill_counters(v6, &pairs.list, from_ip6);
        derive_counters(v6);
    }
    return 0;
}

int update_ip_if_stats(stats_list *list)
{
    list->count = 0;
    std::string dir_path = collect_proc_path("net/dev_snmp6");
    std::unique_ptr<DIR, dir_closer> dir(opendir(dir_path.c_str()));
    if (!dir) return 0; // no IPv6 in the kernel: no rows
    pair_list pairs;
    while (struct dirent *entry = readdir(dir.get())) {
        if (entry->d_name[0] == '.') continue;
        char path[256];
        // A longer path is cut, and the file then fails to open and is skipped.
        int length = snprintf(path, sizeof path, "%s/%s", dir_path.c_str(), entry->d_name);
        if (length < 0) continue;
        item_list_clear(&pairs.list);
        if (read_stat_pairs(path, &pairs.list) != 0) continue;
        // The n-th readable file goes into the slot the n-th went into last
        // time, and its widened totals continue from what that slot holds,
        // whichever interface it was: kept so, totals are never matched up by
        // ifIndex.
        auto *row = static_cast<ip_system_stats_entry *>(stats_list_at(list, list->count));
        row->version = 2;
        uint64_t if_index;
        find_stat(&pairs.list, "ifIndex", &if_index);
        row->if_index = static_cast<int32_t>(if_index);
        fill_counters(row, &pairs.list, from_ip6);
        derive_counters(row);
        // Per interface this column is a 32-bit sum and wraps at 2^32.
        row->in_forw_datagrams =
            static_cast<uint32_t>(static_cast<uint32_t>(row->in_no_routes) +
                                  static_cast<uint32_t>(row->out_forw_datagrams.total));
    }
    stats_list_sort(list);
    return 0;
}

// ---- The ip group scalars

void read_scalar_from(FILE *in, int32_t *field)
{
    int value;
    int matched = fscanf(in, "%i", &value);
    if (matched == 1)
        *field = value;
    else if (matched == 0)
        warn("Failed to match number.");
}

int update_ip_basic_stats(ip_scalars *scalars)
{
    TRACE_ENTER();
    const struct {
        const char *relative;
        int32_t *field;
    } files[] = {
        {"sys/net/ipv4/ip_forward", &scalars->forwarding},
        {"sys/net/ipv4/ip_default_ttl", &scalars->default_ttl},
        {"sys/net/ipv4/ipfrag_time", &scalars->reasm_timeout},
        {"sys/net/ipv6/conf/all/forwarding", &scalars->ipv6_forwarding},
        {"sys/net/ipv6/conf/default/hop_limit", &scalars->ipv6_hop_limit},
    };
    for (const auto &f : files) {
        std::string path = collect_proc_path(f.relative);
        file_ptr in(fopen(path.c_str(), "r"));
        if (!in) {
            // Every one of these files exists in a kernel with IP: one that
            // cannot be opened ends the daemon.
            report_error(1, errno, "Could not open %s", path.c_str());
            *f.field = 0;
            continue;
        }
        read_scalar_from(in.get(), f.field);
    }
    TRACE_EXIT();
    return 0;
}

// ---- ipv6ScopeZoneIndexTable

int update_ip6_scope_zone_index(stats_list *list)
{
    TRACE_ENTER();
    list->count = 0;
    file_ptr in(fopen(collect_proc_path("net/if_inet6").c_str(), "r"));
    if (in) {
        const unsigned link_local = 0x20;
        std::unordered_map<uint32_t, bool> listed; // interfaces that have their row
        char line[256];
        while (fgets(line, sizeof line, in.get())) {
            char address[40];
            unsigned if_index, prefix_len, scope, flags;
            if (sscanf(line, "%39s %04x %02x %02x %02x\n", address, &if_index, &prefix_len, &scope,
                       &flags) != 5 ||
                !(scope & link_local) || !listed.emplace(if_index, true).second)
                continue;
            auto *row = static_cast<ip6_scope_zone_entry *>(stats_list_at(list, list->count));
            memset(row, 0, sizeof *row);
            row->if_index = if_index;
            row->zone[0] = if_index; // the link-local zone is the interface
        }
    }
    stats_list_sort(list);
    TRACE_EXIT();
    return 0;
}

// ---- icmpStatsTable and icmpMsgStatsTable

int update_ip_icmp_stats(stats_list *list)
{
    TRACE_ENTER();
    list->count = 0;
    const char *v4_names[] = {"InMsgs", "InErrors", "OutMsgs", "OutErrors"};
    const char *v6_names[] = {"Icmp6InMsgs", "Icmp6InErrors", "Icmp6OutMsgs", "Icmp6OutErrors"};
    for (uint32_t version : {1u, 2u}) {
        pair_list pairs;
        int rc =
            version == 1
                ? read_stat_section(collect_proc_path("net/snmp").c_str(), &pairs.list, "Icmp:")
                : read_stat_pairs(collect_proc_path("net/snmp6").c_str(), &pairs.list);
        if (rc != 0) continue;
        auto *row = static_cast<icmp_stats_entry *>(stats_list_at(list, list->count));
        memset(row, 0, sizeof *row);
        row->version = version;
        const char **names = version == 1 ? v4_names : v6_names;
        uint64_t *fields[] = {&row->in_msgs, &row->in_errors, &row->out_msgs, &row->out_errors};
        for (int i = 0; i < 4; i++)
            find_stat(&pairs.list, names[i], fields[i]);
    }
    stats_list_sort(list);
    TRACE_EXIT();
    return 0;
}

int update_ip_icmp_msg_stats(stats_list *list)
{
    TRACE_ENTER();
    list->count = 0;
    std::map<std::pair<uint32_t, int32_t>, int32_t> position_of; // (version, type) -> position
    for (uint32_t version : {1u, 2u}) {
        pair_list pairs;
        // The kernel writes "IcmpMsg:" only once some message was counted.
        int rc =
            version == 1
                ? read_stat_section(collect_proc_path("net/snmp").c_str(), &pairs.list, "IcmpMsg:")
                : read_stat_pairs(collect_proc_path("net/snmp6").c_str(), &pairs.list);
        if (rc != 0) continue;
        const char *out_format = version == 1 ? "OutType%d" : "Icmp6OutType%d";
        const char *in_format = version == 1 ? "InType%d" : "Icmp6InType%d";
        for (uint32_t i = 0; i < pairs.list.count; i++) {
            const auto *pair = static_cast<const stat_pair *>(item_list_get(&pairs.list, i));
            int type;
            bool out = sscanf(pair->name, out_format, &type) == 1;
            if (!out && sscanf(pair->name, in_format, &type) != 1) continue;
            auto known = position_of.emplace(std::make_pair(version, type), list->count);
            icmp_msg_stats_entry *row;
            if (known.second) {
                row = static_cast<icmp_msg_stats_entry *>(stats_list_at(list, list->count));
                memset(row, 0, sizeof *row);
                row->version = version;
                row->type = type;
            } else {
                row = static_cast<icmp_msg_stats_entry *>(
                    stats_list_record(list, known.first->second));
            }
            (out ? row->out_pkts : row->in_pkts) = pair->value;
        }
    }
    stats_list_sort(list);
    TRACE_EXIT();
    return 0;
}
