// UDP-MIB provider: answers "udp_status" from the UDP collector's records.
#include "udpmibimpl.h"

#include "UDP-MIB.h"
#include "socket_keys.h"
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
// Set when the last refresh of the endpoints could not finish: its rows are
// then left in file order, and entries are looked up by a scan from the top
// instead of a binary search.
bool endpoints_unsorted;

// Kept like every provider's copy; no UDP request needs MAAPI.
int udp_maapi_sock = -1;

// Refresh function of the endpoint cache: the collector's, noting whether
// it left the rows sorted.
int refresh_endpoints(stats_list *list)
{
    int result = update_udp_endpoints(list);
    endpoints_unsorted = result != 0;
    return result;
}

// Position of the first row of the list equal to key, or -1 when there is
// none: the row the router's top-to-bottom walk through the list matches.
int32_t find_endpoint(const stats_list *list, const udp_endpoint_entry *key)
{
    if (!endpoints_unsorted) return stats_list_find(list, key, nullptr);
    for (int32_t p = 0; p < list->count; p++)
        if (list->compare(key, stats_list_record(list, p)) == 0) return p;
    return -1;
}

// The key types are asserted in the callback itself (SOCKET_END_KEYS and
// below), so that an abort names "get_udp_endpoint_stats"; the names kp and
// v_pp are part of the required texts "(&kp->v[0][0])->type == C_XMLTAG"
// and "(v_pp)->type == C_UINT32": keep them.
int get_udp_endpoint_stats(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    uint32_t leaf = CONFD_GET_XMLTAG(&kp->v[0][0]);
    // The keys are only looked at (and their types checked) while rows are
    // compared with them: an empty table fails the request without that.
    if (!walk_list || walk_list->count == 0) return CONFD_ERR;
    udp_endpoint_entry key;
    memset(&key, 0, sizeof key);
    bool fits = true;
    SOCKET_END_KEYS(kp, 0, key.local_type, key.local_addr, key.local_addr_len, key.local_port,
                    fits);
    SOCKET_END_KEYS(kp, 3, key.rem_type, key.rem_addr, key.rem_addr_len, key.rem_port, fits);
    confd_value_t *v_pp = &kp->v[1][6];
    key.inode = CONFD_GET_UINT32(v_pp);
    // An address longer than any row's matches none.
    int32_t position = fits ? find_endpoint(walk_list, &key) : -1;
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
    udp_endpoints.refresh = refresh_endpoints;
    udp_endpoints_init(&udp_endpoints.data);
    walk_list = nullptr;
    endpoints_unsorted = false;

    struct confd_data_cbs cbs;
    memset(&cbs, 0, sizeof cbs);
    snprintf(cbs.callpoint, sizeof cbs.callpoint, "%s", UDP_MIB__callpointid_udp_status);
    cbs.get_elem = udp_stats_get_elem;
    cbs.get_next = udp_stats_get_next;
    if (confd_register_data_cb(dctx, &cbs) == CONFD_ERR)
        confd_fatal("Failed to register udp_status transform cb \n");
    return 0;
}
