// UDP-MIB provider: answers "udp_status" from the UDP collector's records.
#include "udpmibimpl.h"

#include "UDP-MIB.h"
#include "timedcache.h"
#include "udpstats.h"

#include <cstdio>
#include <cstring>

namespace
{

// Every refresh of the UDP records is at least this many seconds apart.
const int refresh_interval = 3;

timed_cache<udp_global_stats> udp_scalars;
timed_cache<stats_list> udp_endpoints;

// The endpoint list of the last walk (null before the first one); entry
// requests are answered from it without refreshing.
stats_list *walk_list;
// Whether walk_list was in index order when its walk began: it is unless
// the collector could not finish a refresh, and only then are entries looked
// up by a linear walk.
bool walk_list_sorted;

// Kept like every provider's copy; no UDP request needs MAAPI.
int udp_maapi_sock = -1;

// The seven index values of a udpEndpointEntry as a request names them.
struct endpoint_index {
    uint32_t local_type;
    const uint8_t *local_addr;
    uint32_t local_addr_len;
    uint32_t local_port;
    uint32_t rem_type;
    const uint8_t *rem_addr;
    uint32_t rem_addr_len;
    uint32_t rem_port;
    uint32_t instance;
};

// Orders an index against a row exactly as udp_endpoint_compare orders rows,
// so that the binary search over the sorted list finds the first row the
// router's own top-to-bottom walk would have matched.
int index_compare(const void *key, const void *record)
{
    const auto *k = static_cast<const endpoint_index *>(key);
    const auto *e = static_cast<const udp_endpoint_entry *>(record);
    int c;
    if ((c = stats_num_compare(k->local_type, static_cast<uint32_t>(e->local_type))) != 0) return c;
    if ((c = stats_addr_compare(k->local_addr_len, k->local_addr, e->local_addr_len,
                                e->local_addr)) != 0)
        return c;
    if ((c = stats_num_compare(k->local_port, e->local_port)) != 0) return c;
    if ((c = stats_num_compare(k->rem_type, static_cast<uint32_t>(e->rem_type))) != 0) return c;
    if ((c = stats_addr_compare(k->rem_addr_len, k->rem_addr, e->rem_addr_len, e->rem_addr)) != 0)
        return c;
    if ((c = stats_num_compare(k->rem_port, e->rem_port)) != 0) return c;
    return stats_num_compare(k->instance, e->inode);
}

bool list_in_order(const stats_list *list)
{
    for (int32_t p = 1; p < list->count; p++)
        if (list->compare(stats_list_record(list, p - 1), stats_list_record(list, p)) > 0)
            return false;
    return true;
}

// Reads the keys of keypath element 1; a key of another type than the
// model's aborts the daemon.
endpoint_index read_endpoint_index(const confd_value_t *keys)
{
    endpoint_index index;
    const confd_value_t *v_pp = &keys[0];
    index.local_type = static_cast<uint32_t>(CONFD_GET_ENUM_VALUE(v_pp));
    v_pp = &keys[1];
    index.local_addr = CONFD_GET_BINARY_PTR(v_pp);
    index.local_addr_len = CONFD_GET_BINARY_SIZE(v_pp);
    v_pp = &keys[2];
    index.local_port = CONFD_GET_UINT32(v_pp);
    v_pp = &keys[3];
    index.rem_type = static_cast<uint32_t>(CONFD_GET_ENUM_VALUE(v_pp));
    v_pp = &keys[4];
    index.rem_addr = CONFD_GET_BINARY_PTR(v_pp);
    index.rem_addr_len = CONFD_GET_BINARY_SIZE(v_pp);
    v_pp = &keys[5];
    index.rem_port = CONFD_GET_UINT32(v_pp);
    v_pp = &keys[6];
    index.instance = CONFD_GET_UINT32(v_pp);
    // An empty address may come without a buffer; compare it as zero bytes
    // of a real one.
    static const uint8_t no_bytes[1] = {0};
    if (!index.local_addr) index.local_addr = no_bytes;
    if (!index.rem_addr) index.rem_addr = no_bytes;
    return index;
}

// Position of the first row equal to index in the list of the last walk, or
// -1 when there is none.
int32_t find_endpoint(const stats_list *list, const endpoint_index &index)
{
    if (walk_list_sorted) return stats_list_find(list, &index, index_compare);
    for (int32_t p = 0; p < list->count; p++)
        if (index_compare(&index, stats_list_record(list, p)) == 0) return p;
    return -1;
}

int get_udp_endpoint_stats(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    uint32_t leaf = CONFD_GET_XMLTAG(&kp->v[0][0]);
    // The keys are only looked at (and their types checked) while rows are
    // compared with them: an empty table fails the request without that.
    if (!walk_list || walk_list->count == 0) return CONFD_ERR;
    endpoint_index index = read_endpoint_index(kp->v[1]);
    int32_t position = find_endpoint(walk_list, index);
    // Kept: a key that matches no row is answered from the last row of the
    // table, where the router's walk through the list stops.
    if (position < 0) position = walk_list->count - 1;
    const auto *row = static_cast<const udp_endpoint_entry *>(stats_list_at(walk_list, position));
    if (leaf != UDP_MIB_udpEndpointProcess) return CONFD_ERR;
    confd_value_t v;
    CONFD_SET_UINT32(&v, row->process);
    confd_data_reply_value(tctx, &v);
    return CONFD_OK;
}

int get_udp_global_stats(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    uint32_t leaf = CONFD_GET_XMLTAG(&kp->v[0][0]);
    timed_cache_refresh(&udp_scalars, refresh_interval);
    const udp_global_stats &s = udp_scalars.data;
    confd_value_t v;
    switch (leaf) {
    case UDP_MIB_udpInDatagrams:
        CONFD_SET_UINT32(&v, s.InDatagrams);
        break;
    case UDP_MIB_udpNoPorts:
        CONFD_SET_UINT32(&v, s.NoPorts);
        break;
    case UDP_MIB_udpInErrors:
        CONFD_SET_UINT32(&v, s.InErrors);
        break;
    case UDP_MIB_udpOutDatagrams:
        CONFD_SET_UINT32(&v, s.OutDatagrams);
        break;
    case UDP_MIB_udpHCInDatagrams:
        CONFD_SET_UINT64(&v, s.HCInDatagrams);
        break;
    case UDP_MIB_udpHCOutDatagrams:
        CONFD_SET_UINT64(&v, s.HCOutDatagrams);
        break;
    default:
        return CONFD_ERR;
    }
    confd_data_reply_value(tctx, &v);
    return CONFD_OK;
}

// get_next of udpEndpointTable: next -1 refreshes the endpoint list (at most
// every 3 seconds) and answers its first row; any other next is the position
// to answer. A row is answered with its seven index values and the following
// position as cookie; past the end, with no keys.
int udp_stats_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    (void)kp; // one list below this callpoint: the keypath names nothing new
    long position = next;
    if (next == -1) {
        timed_cache_refresh(&udp_endpoints, refresh_interval);
        walk_list = &udp_endpoints.data;
        walk_list_sorted = list_in_order(walk_list);
        position = 0;
    }
    if (!walk_list || position < 0 || position >= walk_list->count) {
        confd_data_reply_next_key(tctx, nullptr, 0, 0);
        return CONFD_OK;
    }
    const auto *row =
        static_cast<const udp_endpoint_entry *>(stats_list_at(walk_list, int32_t(position)));
    confd_value_t keys[7];
    CONFD_SET_ENUM_VALUE(&keys[0], row->local_type);
    CONFD_SET_BINARY(&keys[1], row->local_addr, row->local_addr_len);
    CONFD_SET_UINT32(&keys[2], row->local_port);
    CONFD_SET_ENUM_VALUE(&keys[3], row->rem_type);
    CONFD_SET_BINARY(&keys[4], row->rem_addr, row->rem_addr_len);
    CONFD_SET_UINT32(&keys[5], row->rem_port);
    CONFD_SET_UINT32(&keys[6], row->inode);
    confd_data_reply_next_key(tctx, keys, 7, position + 1);
    return CONFD_OK;
}

// get_elem of "udp_status": udpEndpointProcess of a udpEndpointEntry
// (keypath .../udpEndpointEntry{keys}/leaf, four rows or more), from the list
// of the last walk, or one of the udp group scalars.
int udp_stats_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    const confd_value_t *list_tag = &kp->v[2][0];
    if (kp->len >= 4 && list_tag->type == C_XMLTAG &&
        CONFD_GET_XMLTAG(list_tag) == UDP_MIB_udpEndpointEntry)
        return get_udp_endpoint_stats(tctx, kp);
    return get_udp_global_stats(tctx, kp);
}

} // namespace

int register_udp(struct confd_daemon_ctx *dctx, int msock)
{
    udp_maapi_sock = msock;
    memset(&udp_scalars, 0, sizeof udp_scalars);
    udp_scalars.refresh = update_udp_stats;
    // Registered once in the daemon; releasing what an earlier registration
    // collected keeps a repeated one (the unit tests') from leaking.
    stats_list_free(&udp_endpoints.data);
    udp_endpoints.last_refresh = 0;
    udp_endpoints.refresh = update_udp_endpoints;
    udp_endpoints_init(&udp_endpoints.data);
    walk_list = nullptr;
    walk_list_sorted = false;

    struct confd_data_cbs cbs;
    memset(&cbs, 0, sizeof cbs);
    snprintf(cbs.callpoint, sizeof cbs.callpoint, "%s", UDP_MIB__callpointid_udp_status);
    cbs.get_elem = udp_stats_get_elem;
    cbs.get_next = udp_stats_get_next;
    if (confd_register_data_cb(dctx, &cbs) == CONFD_ERR)
        confd_fatal("Failed to register udp_status transform cb \n");
    return 0;
}
