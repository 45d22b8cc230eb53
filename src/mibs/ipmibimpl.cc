// IP-MIB provider: registers the twelve IP callpoints and answers them from the IP collector's
// caches.
//
// Every list-backed table is walked the same way: a get_next with -1
// refreshes the table's cache (at most every 3 seconds) and makes its list
// the one of the current walk; the cookie handed back is the next position.
// get_elem reads the rows of the last walk and never refreshes; before the
// first walk, or for keys that match no row, it answers C_NOEXISTS.
#include "ipmibimpl.h"

#include "IP-MIB.h"
#include "ipstats.h"
#include "timedcache.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

namespace
{

// Every refresh of the IP records is at least this many seconds apart.
const int refresh_interval = 3;

// Kept from registration; no IP request uses it.
int ip_maapi_sock = -1;

// A list-backed table: its cache and the list of the last walk (null
// before the first walk).
struct ip_table {
    timed_cache<stats_list> cache;
    stats_list *walk_list;
};

ip_table scope_zone_table, def_router_table, if_stats_table, prefix_table, icmp_table,
    icmp_msg_table, address_table, router_advert_table, net_phys_table;
timed_cache<ip_system_stats> system_stats;
timed_cache<ip_scalars> scalars;

void setup_table(ip_table *table, int (*refresh)(stats_list *), uint32_t elem_size,
                 stats_compare_fn compare)
{
    // Registered once in the daemon; releasing what an earlier registration
    // collected keeps a repeated one (the unit tests') from leaking.
    stats_list_free(&table->cache.data);
    table->cache.last_refresh = 0;
    table->cache.refresh = refresh;
    table->cache.data.elem_size = elem_size;
    table->cache.data.compare = compare;
    table->walk_list = nullptr;
}

int reply_noexists(struct confd_trans_ctx *tctx)
{
    confd_value_t v;
    memset(&v, 0, sizeof v);
    v.type = C_NOEXISTS;
    confd_data_reply_value(tctx, &v);
    return CONFD_OK;
}

int reply(struct confd_trans_ctx *tctx, confd_value_t *v)
{
    confd_data_reply_value(tctx, v);
    return CONFD_OK;
}

// The common walk: keys_of writes a row's keys and returns their number.
int walk_table(struct confd_trans_ctx *tctx, ip_table *table, long next,
               int (*keys_of)(const void *row, confd_value_t *keys))
{
    long position = next;
    if (next == -1) {
        timed_cache_refresh(&table->cache, refresh_interval);
        table->walk_list = &table->cache.data;
        position = 0;
    }
    stats_list *list = table->walk_list;
    if (!list || position < 0 || position >= list->count) {
        confd_data_reply_next_key(tctx, nullptr, 0, 0);
        return CONFD_OK;
    }
    confd_value_t keys[4];
    int n = keys_of(stats_list_at(list, static_cast<int32_t>(position)), keys);
    confd_data_reply_next_key(tctx, keys, n, position + 1);
    return CONFD_OK;
}

// The common read: the first row of the last walk's list equal to key (a
// record holding the request's index values), or null. The list is in index
// order, so a binary search finds the row the router's top-down scan would.
template <typename Row> const Row *find_row(const ip_table &table, const Row &key)
{
    const stats_list *list = table.walk_list;
    int32_t position = stats_list_find(list, &key, nullptr);
    return position < 0 ? nullptr : static_cast<const Row *>(stats_list_record(list, position));
}

// Copies an address index value into key; false when it is longer than any
// address (then no row can match).
bool copy_addr(const unsigned char *bytes, unsigned int size, ip_addr_value *key)
{
    if (size > sizeof key->bytes) return false;
    if (size) memcpy(key->bytes, bytes, size);
    key->length = size;
    return true;
}

void set_addr(confd_value_t *v, const ip_addr_value &addr)
{
    CONFD_SET_BINARY(v, const_cast<unsigned char *>(addr.bytes), addr.length);
}

// ---- ipSystemStatsTable and ipIfStatsTable

// How a traffic column is answered from its field.
enum column_kind {
    raw32,   // widened counter: the kernel's 32-bit value
    total64, // widened counter: its 64-bit total
    low32,   // 64-bit field: its low 32 bits
    full64,  // 64-bit field
    zero32,  // never filled
};
struct traffic_column {
    uint32_t system_tag, if_tag;
    column_kind kind;
    size_t field;
};

#define COLUMN(name, kind, field)                                                                  \
    {                                                                                              \
        IP_MIB_ipSystemStats##name, IP_MIB_ipIfStats##name, kind,                                  \
            offsetof(ip_system_stats_entry, field)                                                 \
    }
const traffic_column traffic_columns[] = {
    COLUMN(InReceives, raw32, in_receives),
    COLUMN(HCInReceives, total64, in_receives),
    COLUMN(InOctets, low32, in_octets),
    COLUMN(HCInOctets, full64, in_octets),
    COLUMN(InHdrErrors, low32, in_hdr_errors),
    COLUMN(InNoRoutes, low32, in_no_routes),
    COLUMN(InAddrErrors, low32, in_addr_errors),
    COLUMN(InUnknownProtos, low32, in_unknown_protos),
    COLUMN(InTruncatedPkts, low32, in_truncated_pkts),
    COLUMN(InForwDatagrams, low32, in_forw_datagrams),
    COLUMN(HCInForwDatagrams, full64, in_forw_datagrams),
    COLUMN(ReasmReqds, low32, reasm_reqds),
    COLUMN(ReasmOKs, low32, reasm_oks),
    COLUMN(ReasmFails, low32, reasm_fails),
    COLUMN(InDiscards, low32, in_discards),
    COLUMN(InDelivers, raw32, in_delivers),
    COLUMN(HCInDelivers, total64, in_delivers),
    COLUMN(OutRequests, raw32, out_requests),
    COLUMN(HCOutRequests, total64, out_requests),
    COLUMN(OutNoRoutes, low32, out_no_routes),
    COLUMN(OutForwDatagrams, raw32, out_forw_datagrams),
    COLUMN(HCOutForwDatagrams, total64, out_forw_datagrams),
    COLUMN(OutDiscards, low32, out_discards),
    COLUMN(OutFragReqds, low32, out_frag_reqds),
    COLUMN(OutFragOKs, low32, out_frag_oks),
    COLUMN(OutFragFails, low32, out_frag_fails),
    COLUMN(OutFragCreates, low32, out_frag_creates),
    COLUMN(OutTransmits, low32, out_transmits),
    COLUMN(HCOutTransmits, full64, out_transmits),
    COLUMN(OutOctets, low32, out_octets),
    COLUMN(HCOutOctets, full64, out_octets),
    COLUMN(InMcastPkts, raw32, in_mcast_pkts),
    COLUMN(HCInMcastPkts, total64, in_mcast_pkts),
    COLUMN(InMcastOctets, low32, in_mcast_octets),
    COLUMN(HCInMcastOctets, full64, in_mcast_octets),
    COLUMN(OutMcastPkts, raw32, out_mcast_pkts),
    COLUMN(HCOutMcastPkts, total64, out_mcast_pkts),
    COLUMN(OutMcastOctets, low32, out_mcast_octets),
    COLUMN(HCOutMcastOctets, full64, out_mcast_octets),
    COLUMN(InBcastPkts, raw32, in_bcast_pkts),
    COLUMN(HCInBcastPkts, total64, in_bcast_pkts),
    COLUMN(OutBcastPkts, raw32, out_bcast_pkts),
    COLUMN(HCOutBcastPkts, total64, out_bcast_pkts),
    // The discontinuity time and the refresh rate share the one unfilled field.
    COLUMN(DiscontinuityTime, zero32, unfilled),
    COLUMN(RefreshRate, zero32, unfilled),
};
#undef COLUMN

// Answers a counter column of a traffic row; false for a leaf that is none.
bool traffic_value(const ip_system_stats_entry &row, uint32_t leaf, bool per_interface,
                   confd_value_t *v)
{
    const auto *base = reinterpret_cast<const unsigned char *>(&row);
    for (const traffic_column &c : traffic_columns) {
        if (leaf != (per_interface ? c.if_tag : c.system_tag)) continue;
        widened_counter w;
        uint64_t value;
        switch (c.kind) {
        case raw32:
            memcpy(&w, base + c.field, sizeof w);
            CONFD_SET_UINT32(v, w.last_raw);
            break;
        case total64:
            memcpy(&w, base + c.field, sizeof w);
            CONFD_SET_UINT64(v, w.total);
            break;
        case low32:
            memcpy(&value, base + c.field, sizeof value);
            CONFD_SET_UINT32(v, static_cast<uint32_t>(value));
            break;
        case full64:
            memcpy(&value, base + c.field, sizeof value);
            CONFD_SET_UINT64(v, value);
            break;
        case zero32:
            CONFD_SET_UINT32(v, row.unfilled);
            break;
        }
        return true;
    }
    return false;
}

int ip_traf_system_stats_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    (void)kp;
    // Two fixed rows, IPv4 then IPv6; nothing is refreshed here.
    if (next != -1 && next != 0) {
        confd_data_reply_next_key(tctx, nullptr, 0, 0);
        return CONFD_OK;
    }
    confd_value_t key;
    CONFD_SET_ENUM_VALUE(&key, next == -1 ? 1 : 2);
    confd_data_reply_next_key(tctx, &key, 1, next + 1);
    return CONFD_OK;
}

int ip_traf_system_stats_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    uint32_t leaf = CONFD_GET_XMLTAG(&kp->v[0][0]);
    int32_t version = CONFD_GET_ENUM_VALUE(&kp->v[1][0]);
    timed_cache_refresh(&system_stats, refresh_interval);
    const ip_system_stats_entry &row = system_stats.data.row[version == 1 ? 0 : 1];
    confd_value_t v;
    if (leaf == IP_MIB_ipSystemStatsIPVersion)
        CONFD_SET_ENUM_VALUE(&v, static_cast<int32_t>(row.version));
    else if (!traffic_value(row, leaf, false, &v))
        return reply_noexists(tctx);
    return reply(tctx, &v);
}

int if_stats_keys(const void *record, confd_value_t *keys)
{
    const auto *row = static_cast<const ip_system_stats_entry *>(record);
    CONFD_SET_ENUM_VALUE(&keys[0], static_cast<int32_t>(row->version));
    CONFD_SET_INT32(&keys[1], row->if_index);
    return 2;
}

int ip_traf_if_stats_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    (void)kp;
    return walk_table(tctx, &if_stats_table, next, if_stats_keys);
}

int ip_traf_if_stats_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    uint32_t leaf = CONFD_GET_XMLTAG(&kp->v[0][0]);
    if (!if_stats_table.walk_list) return reply_noexists(tctx);
    ip_system_stats_entry key;
    key.version = static_cast<uint32_t>(CONFD_GET_ENUM_VALUE(&kp->v[1][0]));
    key.if_index = CONFD_GET_INT32(&kp->v[1][1]);
    const ip_system_stats_entry *row = find_row(if_stats_table, key);
    if (!row) return reply_noexists(tctx);
    confd_value_t v;
    if (leaf == IP_MIB_ipIfStatsIPVersion)
        CONFD_SET_ENUM_VALUE(&v, static_cast<int32_t>(row->version));
    else if (leaf == IP_MIB_ipIfStatsIfIndex)
        CONFD_SET_INT32(&v, row->if_index);
    else if (!traffic_value(*row, leaf, true, &v))
        return reply_noexists(tctx);
    return reply(tctx, &v);
}

// ---- ipTrafficStats scalars and the ip group

int ip_traf_status_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    (void)kp;
    confd_value_t v;
    CONFD_SET_UINT32(&v, 0);
    return reply(tctx, &v);
}

// The group holds no list: nothing is answered.
int ip_traf_status_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    (void)tctx;
    (void)kp;
    (void)next;
    return CONFD_OK;
}

int ip_status_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    uint32_t leaf = CONFD_GET_XMLTAG(&kp->v[0][0]);
    confd_value_t v;
    switch (leaf) {
    case IP_MIB_ipForwarding:
    case IP_MIB_ipDefaultTTL:
    case IP_MIB_ipReasmTimeout:
    case IP_MIB_ipv6IpForwarding:
    case IP_MIB_ipv6IpDefaultHopLimit:
        break;
    case IP_MIB_ipv4InterfaceTableLastChange:
    case IP_MIB_ipv6InterfaceTableLastChange:
        CONFD_SET_UINT32(&v, 0);
        return reply(tctx, &v);
    default:
        return reply_noexists(tctx); // no file is read for it
    }
    timed_cache_refresh(&scalars, refresh_interval);
    const ip_scalars &s = scalars.data;
    switch (leaf) {
    case IP_MIB_ipForwarding:
        CONFD_SET_ENUM_VALUE(&v, s.forwarding == 1 ? 1 : 2);
        break;
    case IP_MIB_ipv6IpForwarding:
        CONFD_SET_ENUM_VALUE(&v, s.ipv6_forwarding == 1 ? 1 : 2);
        break;
    case IP_MIB_ipDefaultTTL:
        CONFD_SET_INT32(&v, s.default_ttl);
        break;
    case IP_MIB_ipReasmTimeout:
        CONFD_SET_INT32(&v, s.reasm_timeout);
        break;
    default:
        CONFD_SET_INT32(&v, s.ipv6_hop_limit);
        break;
    }
    return reply(tctx, &v);
}

// The interface tables under "ip_status" have no rows.
int ip_status_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    (void)kp;
    (void)next;
    confd_data_reply_next_key(tctx, nullptr, -1, -1);
    return CONFD_OK;
}

// ---- ipAddressTable

int address_keys(const void *record, confd_value_t *keys)
{
    const auto *row = static_cast<const ip_address_entry *>(record);
    CONFD_SET_ENUM_VALUE(&keys[0], row->addr_type);
    set_addr(&keys[1], row->addr);
    return 2;
}

int ip_address_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    (void)kp;
    return walk_table(tctx, &address_table, next, address_keys);
}

int ip_address_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    uint32_t leaf = CONFD_GET_XMLTAG(&kp->v[0][0]);
    if (!address_table.walk_list) return reply_noexists(tctx);
    ip_address_entry key;
    confd_value_t *v_pp = &kp->v[1][0];
    key.addr_type = CONFD_GET_ENUM_VALUE(v_pp);
    v_pp = &kp->v[1][1];
    const unsigned char *bytes = CONFD_GET_BINARY_PTR(v_pp);
    if (!copy_addr(bytes, CONFD_GET_BINARY_SIZE(v_pp), &key.addr)) return reply_noexists(tctx);
    const ip_address_entry *row = find_row(address_table, key);
    if (!row) return reply_noexists(tctx);
    confd_value_t v;
    struct confd_snmp_oid oid;
    switch (leaf) {
    case IP_MIB_ipAddressAddrType:
        CONFD_SET_ENUM_VALUE(&v, row->addr_type);
        break;
    case IP_MIB_ipAddressAddr:
        set_addr(&v, row->addr);
        break;
    case IP_MIB_ipAddressIfIndex:
        CONFD_SET_INT32(&v, row->if_index);
        break;
    case IP_MIB_ipAddressType:
        CONFD_SET_ENUM_VALUE(&v, row->type);
        break;
    case IP_MIB_ipAddressPrefix:
        memset(&oid, 0, sizeof oid);
        oid.len = static_cast<int>(row->prefix_oid_len);
        memcpy(oid.oid, row->prefix_oid, row->prefix_oid_len * sizeof row->prefix_oid[0]);
        CONFD_SET_OID(&v, &oid);
        break;
    case IP_MIB_ipAddressOrigin:
        CONFD_SET_ENUM_VALUE(&v, row->origin);
        break;
    case IP_MIB_ipAddressStatus:
        CONFD_SET_ENUM_VALUE(&v, row->status);
        break;
    case IP_MIB_ipAddressStorageType:
        CONFD_SET_ENUM_VALUE(&v, row->storage);
        break;
    case IP_MIB_ipAddressCreated:
    case IP_MIB_ipAddressLastChanged:
        CONFD_SET_UINT32(&v, 0);
        break;
    default:
        return reply_noexists(tctx);
    }
    return reply(tctx, &v);
}

// ---- ipv6RouterAdvertTable

int router_advert_keys(const void *record, confd_value_t *keys)
{
    CONFD_SET_INT32(&keys[0], static_cast<const ip6_router_advert_entry *>(record)->if_index);
    return 1;
}

int ip6_router_advert_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    (void)kp;
    return walk_table(tctx, &router_advert_table, next, router_advert_keys);
}

int ip6_router_advert_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    uint32_t leaf = CONFD_GET_XMLTAG(&kp->v[0][0]);
    if (!router_advert_table.walk_list) return reply_noexists(tctx);
    ip6_router_advert_entry key;
    key.if_index = CONFD_GET_INT32(&kp->v[1][0]);
    const ip6_router_advert_entry *row = find_row(router_advert_table, key);
    if (!row) return reply_noexists(tctx);
    confd_value_t v;
    switch (leaf) {
    case IP_MIB_ipv6RouterAdvertIfIndex:
        CONFD_SET_INT32(&v, row->if_index);
        break;
    case IP_MIB_ipv6RouterAdvertSendAdverts:
        CONFD_SET_ENUM_VALUE(&v, row->send_adverts);
        break;
    case IP_MIB_ipv6RouterAdvertManagedFlag:
        CONFD_SET_ENUM_VALUE(&v, row->managed_flag);
        break;
    case IP_MIB_ipv6RouterAdvertOtherConfigFlag:
        CONFD_SET_ENUM_VALUE(&v, row->other_config_flag);
        break;
    case IP_MIB_ipv6RouterAdvertMaxInterval:
        CONFD_SET_UINT32(&v, row->max_interval);
        break;
    case IP_MIB_ipv6RouterAdvertMinInterval:
        CONFD_SET_UINT32(&v, row->min_interval);
        break;
    case IP_MIB_ipv6RouterAdvertLinkMTU:
        CONFD_SET_UINT32(&v, row->link_mtu);
        break;
    case IP_MIB_ipv6RouterAdvertReachableTime:
        CONFD_SET_UINT32(&v, row->reachable_time);
        break;
    case IP_MIB_ipv6RouterAdvertRetransmitTime:
        CONFD_SET_UINT32(&v, row->retransmit_time);
        break;
    case IP_MIB_ipv6RouterAdvertCurHopLimit:
        CONFD_SET_UINT32(&v, row->cur_hop_limit);
        break;
    case IP_MIB_ipv6RouterAdvertDefaultLifetime:
        CONFD_SET_UINT32(&v, row->default_lifetime);
        break;
    default:
        return reply_noexists(tctx);
    }
    return reply(tctx, &v);
}

// ---- ipAddressPrefixTable

int prefix_keys(const void *record, confd_value_t *keys)
{
    const auto *row = static_cast<const ip_addr_prefix_entry *>(record);
    CONFD_SET_INT32(&keys[0], row->if_index);
    CONFD_SET_ENUM_VALUE(&keys[1], static_cast<int32_t>(row->type));
    set_addr(&keys[2], row->prefix);
    CONFD_SET_UINT32(&keys[3], row->prefix_len);
    return 4;
}

int ip_address_prefix_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    (void)kp;
    return walk_table(tctx, &prefix_table, next, prefix_keys);
}

int ip_address_prefix_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    uint32_t leaf = CONFD_GET_XMLTAG(&kp->v[0][0]);
    if (!prefix_table.walk_list) return reply_noexists(tctx);
    ip_addr_prefix_entry key;
    key.if_index = CONFD_GET_INT32(&kp->v[1][0]);
    key.type = static_cast<uint32_t>(CONFD_GET_ENUM_VALUE(&kp->v[1][1]));
    const unsigned char *bytes = CONFD_GET_BINARY_PTR(&kp->v[1][2]);
    bool fits = copy_addr(bytes, CONFD_GET_BINARY_SIZE(&kp->v[1][2]), &key.prefix);
    key.prefix_len = CONFD_GET_UINT32(&kp->v[1][3]);
    const ip_addr_prefix_entry *row = fits ? find_row(prefix_table, key) : nullptr;
    if (!row) return reply_noexists(tctx);
    confd_value_t v;
    switch (leaf) {
    case IP_MIB_ipAddressPrefixIfIndex:
        CONFD_SET_INT32(&v, row->if_index);
        break;
    case IP_MIB_ipAddressPrefixType:
        CONFD_SET_ENUM_VALUE(&v, static_cast<int32_t>(row->type));
        break;
    case IP_MIB_ipAddressPrefixPrefix:
        set_addr(&v, row->prefix);
        break;
    case IP_MIB_ipAddressPrefixLength:
        CONFD_SET_UINT32(&v, row->prefix_len);
        break;
    case IP_MIB_ipAddressPrefixOrigin:
        CONFD_SET_ENUM_VALUE(&v, static_cast<int32_t>(row->origin));
        break;
    case IP_MIB_ipAddressPrefixOnLinkFlag:
        CONFD_SET_ENUM_VALUE(&v, static_cast<int32_t>(row->on_link));
        break;
    case IP_MIB_ipAddressPrefixAutonomousFlag:
        CONFD_SET_ENUM_VALUE(&v, static_cast<int32_t>(row->autonomous));
        break;
    // The kernel's lifetimes in millions of seconds: its "infinite"
    // 4294967295 answers 4294 and any finite lifetime of an address answers 0.
    case IP_MIB_ipAddressPrefixAdvPreferredLifetime:
        CONFD_SET_UINT32(&v, row->preferred_lifetime / 1000000u);
        break;
    case IP_MIB_ipAddressPrefixAdvValidLifetime:
        CONFD_SET_UINT32(&v, row->valid_lifetime / 1000000u);
        break;
    default:
        return reply_noexists(tctx);
    }
    return reply(tctx, &v);
}

// ---- ipNetToPhysicalTable

int net_phys_keys(const void *record, confd_value_t *keys)
{
    const auto *row = static_cast<const ip_net_phys_entry *>(record);
    CONFD_SET_INT32(&keys[0], row->if_index);
    CONFD_SET_ENUM_VALUE(&keys[1], static_cast<int32_t>(row->addr_type));
    set_addr(&keys[2], row->addr);
    return 3;
}

int ip_net_phys_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    (void)kp;
    return walk_table(tctx, &net_phys_table, next, net_phys_keys);
}

int ip_net_phys_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    uint32_t leaf = CONFD_GET_XMLTAG(&kp->v[0][0]);
    if (!net_phys_table.walk_list) return reply_noexists(tctx);
    ip_net_phys_entry key;
    key.if_index = CONFD_GET_INT32(&kp->v[1][0]);
    key.addr_type = static_cast<uint32_t>(CONFD_GET_ENUM_VALUE(&kp->v[1][1]));
    const unsigned char *bytes = CONFD_GET_BINARY_PTR(&kp->v[1][2]);
    bool fits = copy_addr(bytes, CONFD_GET_BINARY_SIZE(&kp->v[1][2]), &key.addr);
    const ip_net_phys_entry *row = fits ? find_row(net_phys_table, key) : nullptr;
    if (!row) return reply_noexists(tctx);
    confd_value_t v;
    switch (leaf) {
    case IP_MIB_ipNetToPhysicalPhysAddress:
        CONFD_SET_BINARY(&v, const_cast<unsigned char *>(row->phys_addr), row->phys_addr_len);
        break;
    case IP_MIB_ipNetToPhysicalType:
        CONFD_SET_ENUM_VALUE(&v, static_cast<int32_t>(row->type));
        break;
    case IP_MIB_ipNetToPhysicalState:
        CONFD_SET_ENUM_VALUE(&v, static_cast<int32_t>(row->state));
        break;
    case IP_MIB_ipNetToPhysicalLastUpdated:
        CONFD_SET_UINT32(&v, 0);
        break;
    default:
        return reply_noexists(tctx);
    }
    return reply(tctx, &v);
}

// ---- ipDefaultRouterTable

int def_router_keys(const void *record, confd_value_t *keys)
{
    const auto *row = static_cast<const ip_def_router_entry *>(record);
    CONFD_SET_ENUM_VALUE(&keys[0], static_cast<int32_t>(row->addr_type));
    set_addr(&keys[1], row->addr);
    CONFD_SET_INT32(&keys[2], row->if_index);
    return 3;
}

int ip_def_router_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    (void)kp;
    return walk_table(tctx, &def_router_table, next, def_router_keys);
}

int ip_def_router_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    uint32_t leaf = CONFD_GET_XMLTAG(&kp->v[0][0]);
    if (!def_router_table.walk_list) return reply_noexists(tctx);
    ip_def_router_entry key;
    key.addr_type = static_cast<uint32_t>(CONFD_GET_ENUM_VALUE(&kp->v[1][0]));
    const unsigned char *bytes = CONFD_GET_BINARY_PTR(&kp->v[1][1]);
    bool fits = copy_addr(bytes, CONFD_GET_BINARY_SIZE(&kp->v[1][1]), &key.addr);
    key.if_index = CONFD_GET_INT32(&kp->v[1][2]);
    const ip_def_router_entry *row = fits ? find_row(def_router_table, key) : nullptr;
    if (!row) return reply_noexists(tctx);
    confd_value_t v;
    switch (leaf) {
    case IP_MIB_ipDefaultRouterAddressType:
        CONFD_SET_ENUM_VALUE(&v, static_cast<int32_t>(row->addr_type));
        break;
    case IP_MIB_ipDefaultRouterAddress:
        set_addr(&v, row->addr);
        break;
    case IP_MIB_ipDefaultRouterIfIndex:
        CONFD_SET_INT32(&v, row->if_index);
        break;
    case IP_MIB_ipDefaultRouterLifetime:
        CONFD_SET_UINT32(&v, row->lifetime);
        break;
    case IP_MIB_ipDefaultRouterPreference:
        CONFD_SET_ENUM_VALUE(&v, row->preference);
        break;
    default:
        return reply_noexists(tctx);
    }
    return reply(tctx, &v);
}

// ---- ipv6ScopeZoneIndexTable

int scope_zone_keys(const void *record, confd_value_t *keys)
{
    CONFD_SET_INT32(&keys[0], static_cast<int32_t>(
                                  static_cast<const ip6_scope_zone_entry *>(record)->if_index));
    return 1;
}

int ip6_scope_zone_idx_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    (void)kp;
    return walk_table(tctx, &scope_zone_table, next, scope_zone_keys);
}

// The zone-index columns in the order of the row's zone fields.
const uint32_t scope_zone_columns[12] = {
    IP_MIB_ipv6ScopeZoneIndexLinkLocal,
    IP_MIB_ipv6ScopeZoneIndex3,
    IP_MIB_ipv6ScopeZoneIndexAdminLocal,
    IP_MIB_ipv6ScopeZoneIndexSiteLocal,
    IP_MIB_ipv6ScopeZoneIndex6,
    IP_MIB_ipv6ScopeZoneIndex7,
    IP_MIB_ipv6ScopeZoneIndexOrganizationLocal,
    IP_MIB_ipv6ScopeZoneIndex9,
    IP_MIB_ipv6ScopeZoneIndexA,
    IP_MIB_ipv6ScopeZoneIndexB,
    IP_MIB_ipv6ScopeZoneIndexC,
    IP_MIB_ipv6ScopeZoneIndexD,
};

int ip6_scope_zone_idx_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    uint32_t leaf = CONFD_GET_XMLTAG(&kp->v[0][0]);
    if (!scope_zone_table.walk_list) return reply_noexists(tctx);
    ip6_scope_zone_entry key;
    key.if_index = static_cast<uint32_t>(CONFD_GET_INT32(&kp->v[1][0]));
    const ip6_scope_zone_entry *row = find_row(scope_zone_table, key);
    if (!row) return reply_noexists(tctx);
    for (int i = 0; i < 12; i++)
        if (leaf == scope_zone_columns[i]) {
            confd_value_t v;
            CONFD_SET_UINT32(&v, row->zone[i]);
            return reply(tctx, &v);
        }
    return reply_noexists(tctx);
}

// ---- icmpStatsTable and icmpMsgStatsTable: counters answered as their low 32 bits

int icmp_keys(const void *record, confd_value_t *keys)
{
    CONFD_SET_ENUM_VALUE(
        &keys[0], static_cast<int32_t>(static_cast<const icmp_stats_entry *>(record)->version));
    return 1;
}

int ip_icmp_stat_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    (void)kp;
    return walk_table(tctx, &icmp_table, next, icmp_keys);
}

int ip_icmp_stat_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    uint32_t leaf = CONFD_GET_XMLTAG(&kp->v[0][0]);
    if (!icmp_table.walk_list) return reply_noexists(tctx);
    icmp_stats_entry key;
    key.version = static_cast<uint32_t>(CONFD_GET_ENUM_VALUE(&kp->v[1][0]));
    const icmp_stats_entry *row = find_row(icmp_table, key);
    if (!row) return reply_noexists(tctx);
    confd_value_t v;
    switch (leaf) {
    case IP_MIB_icmpStatsIPVersion:
        CONFD_SET_ENUM_VALUE(&v, static_cast<int32_t>(row->version));
        return reply(tctx, &v);
    case IP_MIB_icmpStatsInMsgs:
        CONFD_SET_UINT32(&v, static_cast<uint32_t>(row->in_msgs));
        return reply(tctx, &v);
    case IP_MIB_icmpStatsInErrors:
        CONFD_SET_UINT32(&v, static_cast<uint32_t>(row->in_errors));
        return reply(tctx, &v);
    case IP_MIB_icmpStatsOutMsgs:
        CONFD_SET_UINT32(&v, static_cast<uint32_t>(row->out_msgs));
        return reply(tctx, &v);
    case IP_MIB_icmpStatsOutErrors:
        CONFD_SET_UINT32(&v, static_cast<uint32_t>(row->out_errors));
        return reply(tctx, &v);
    default:
        return reply_noexists(tctx);
    }
}

int icmp_msg_keys(const void *record, confd_value_t *keys)
{
    const auto *row = static_cast<const icmp_msg_stats_entry *>(record);
    CONFD_SET_ENUM_VALUE(&keys[0], static_cast<int32_t>(row->version));
    CONFD_SET_INT32(&keys[1], row->type);
    return 2;
}

int ip_icmp_msg_stat_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    (void)kp;
    return walk_table(tctx, &icmp_msg_table, next, icmp_msg_keys);
}

int ip_icmp_msg_stat_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    uint32_t leaf = CONFD_GET_XMLTAG(&kp->v[0][0]);
    if (!icmp_msg_table.walk_list) return reply_noexists(tctx);
    icmp_msg_stats_entry key;
    key.version = static_cast<uint32_t>(CONFD_GET_ENUM_VALUE(&kp->v[1][0]));
    key.type = CONFD_GET_INT32(&kp->v[1][1]);
    const icmp_msg_stats_entry *row = find_row(icmp_msg_table, key);
    if (!row) return reply_noexists(tctx);
    confd_value_t v;
    switch (leaf) {
    case IP_MIB_icmpMsgStatsIPVersion:
        CONFD_SET_ENUM_VALUE(&v, static_cast<int32_t>(row->version));
        break;
    case IP_MIB_icmpMsgStatsType:
        CONFD_SET_INT32(&v, row->type);
        break;
    case IP_MIB_icmpMsgStatsInPkts:
        CONFD_SET_UINT32(&v, static_cast<uint32_t>(row->in_pkts));
        break;
    case IP_MIB_icmpMsgStatsOutPkts:
        CONFD_SET_UINT32(&v, static_cast<uint32_t>(row->out_pkts));
        break;
    default:
        return reply_noexists(tctx);
    }
    return reply(tctx, &v);
}

// ---- Writes to ip_status, ip_address_status, ipv6_router_status and
// ip-net-to-physical-stats are accepted and change nothing.

int accept_write(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval)
{
    (void)tctx;
    (void)kp;
    (void)newval;
    return CONFD_OK;
}

int accept_write(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    (void)tctx;
    (void)kp;
    return CONFD_OK;
}

// Registers a writable callpoint; false when ConfD refuses it.
bool register_writable(struct confd_daemon_ctx *dctx, const char *name,
                       int (*get_elem)(struct confd_trans_ctx *, confd_hkeypath_t *),
                       int (*get_next)(struct confd_trans_ctx *, confd_hkeypath_t *, long))
{
    struct confd_data_cbs cbs;
    memset(&cbs, 0, sizeof cbs);
    snprintf(cbs.callpoint, sizeof cbs.callpoint, "%s", name);
    cbs.get_elem = get_elem;
    cbs.get_next = get_next;
    cbs.set_elem = accept_write;
    cbs.create = accept_write;
    cbs.remove = accept_write;
    return confd_register_data_cb(dctx, &cbs) != CONFD_ERR;
}

} // namespace

int register_ip_mib_cbs(struct confd_daemon_ctx *dctx, int msock)
{
    ip_maapi_sock = msock;
    memset(&system_stats, 0, sizeof system_stats);
    system_stats.refresh = update_ip_system_stats;
    memset(&scalars, 0, sizeof scalars);
    scalars.refresh = update_ip_basic_stats;
    setup_table(&if_stats_table, update_ip_if_stats, sizeof(ip_system_stats_entry),
                ip_if_stats_compare);
    setup_table(&address_table, update_ip_address, sizeof(ip_address_entry), ip_address_compare);
    setup_table(&prefix_table, update_ip_address_prefix, sizeof(ip_addr_prefix_entry),
                ip_addr_prefix_compare);
    setup_table(&net_phys_table, update_net_phys_list, sizeof(ip_net_phys_entry),
                ip_net_phys_compare);
    setup_table(&def_router_table, update_ip_def_router, sizeof(ip_def_router_entry),
                ip_def_router_compare);
    setup_table(&scope_zone_table, update_ip6_scope_zone_index, sizeof(ip6_scope_zone_entry),
                ip6_scope_zone_compare);
    setup_table(&router_advert_table, update_ipv6_router_advert_stats,
                sizeof(ip6_router_advert_entry), ip6_router_advert_compare);
    setup_table(&icmp_table, update_ip_icmp_stats, sizeof(icmp_stats_entry), icmp_stats_compare);
    setup_table(&icmp_msg_table, update_ip_icmp_msg_stats, sizeof(icmp_msg_stats_entry),
                icmp_msg_stats_compare);

    struct read_only_callpoint {
        const char *name;
        int (*get_elem)(struct confd_trans_ctx *, confd_hkeypath_t *);
        int (*get_next)(struct confd_trans_ctx *, confd_hkeypath_t *, long);
    };
    const read_only_callpoint read_only[8] = {
        {IP_MIB__callpointid_ip6_scope_zone_idx, ip6_scope_zone_idx_get_elem,
         ip6_scope_zone_idx_get_next},
        {IP_MIB__callpointid_ip_def_router, ip_def_router_get_elem, ip_def_router_get_next},
        {IP_MIB__callpointid_ip_traf_status, ip_traf_status_get_elem, ip_traf_status_get_next},
        {IP_MIB__callpointid_ip_traf_system_stats, ip_traf_system_stats_get_elem,
         ip_traf_system_stats_get_next},
        {IP_MIB__callpointid_ip_traf_if_stats, ip_traf_if_stats_get_elem,
         ip_traf_if_stats_get_next},
        {IP_MIB__callpointid_ip_address_prefix_status, ip_address_prefix_get_elem,
         ip_address_prefix_get_next},
        {IP_MIB__callpointid_icmp_stat_status, ip_icmp_stat_get_elem, ip_icmp_stat_get_next},
        {IP_MIB__callpointid_icmp_msg_status, ip_icmp_msg_stat_get_elem, ip_icmp_msg_stat_get_next},
    };
    struct confd_data_cbs cbs[8];
    for (int i = 0; i < 8; i++) {
        memset(&cbs[i], 0, sizeof cbs[i]);
        snprintf(cbs[i].callpoint, sizeof cbs[i].callpoint, "%s", read_only[i].name);
        cbs[i].get_elem = read_only[i].get_elem;
        cbs[i].get_next = read_only[i].get_next;
    }
    for (int i = 0; i < 8; i++)
        if (confd_register_data_cb(dctx, &cbs[i]) == CONFD_ERR) {
            fprintf(stderr, "Failed to register callpoint \"%s\"\n", cbs[i].callpoint);
            return -1;
        }
    if (!register_writable(dctx, IP_MIB__callpointid_ip_status, ip_status_get_elem,
                           ip_status_get_next)) {
        fputs("Failed to register ip_status callpoint\n", stderr);
        return -1;
    }
    if (!register_writable(dctx, IP_MIB__callpointid_ip_address_status, ip_address_get_elem,
                           ip_address_get_next)) {
        fputs("Failed to register ip_address_status callpoint\n", stderr);
        return -1;
    }
    if (!register_writable(dctx, IP_MIB__callpointid_ipv6_router_status, ip6_router_advert_get_elem,
                           ip6_router_advert_get_next)) {
        fputs("Failed to register ipv6_router_status callpoint\n", stderr);
        return -1;
    }
    if (!register_writable(dctx, IP_MIB__callpointid_ip_net_to_physical_stats, ip_net_phys_get_elem,
                           ip_net_phys_get_next)) {
        fputs("Failed to register callpoint\n", stderr);
        return -1;
    }
    return 0;
}
