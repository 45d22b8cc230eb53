// TCP-MIB provider: answers the "tcp_status" callpoint from the TCP collector's records.
#include "tcpmibimpl.h"

#include "core/leisobek.h"
#include "socket_keys.h"
#include "statslist.h"
#include "tcpstats.h"
#include "timedcache.h"

#include "TCP-MIB.h"

#include <cstdint>
#include <cstring>

namespace
{

// Seconds a collection is answered from before a request collects again.
const int refresh_interval = 3;

// The tcp group counters, re-read by a scalar request when they are older
// than the interval.
timed_cache<tcp_global_stats> tcp_counters;
// Connections and listeners, re-read only when a walk starts and they are
// older than the interval; every other request reads what the last walk left.
timed_cache<tcp_tables> tcp_table_cache;
// The tables the walk under way reads (always the cache's; set again at the
// start of every walk).
tcp_tables *walked_tables = &tcp_table_cache.data;
// Kept like every provider's copy; no TCP request needs MAAPI.
int tcp_maapi_sock = -1;

// tcpConnectionState (RFC 4022 numbers) of the kernel's TCP states 1
// (ESTABLISHED) to 11 (CLOSING), indexed by state - 1.
const int32_t connection_states[] = {
    5,  // ESTABLISHED: established
    3,  // SYN_SENT: synSent
    4,  // SYN_RECV: synReceived
    6,  // FIN_WAIT1: finWait1
    7,  // FIN_WAIT2: finWait2
    11, // TIME_WAIT: timeWait
    1,  // CLOSE: closed
    8,  // CLOSE_WAIT: closeWait
    9,  // LAST_ACK: lastAck
    2,  // LISTEN: listen
    10, // CLOSING: closing
};
const int32_t state_closed = 1;
const uint32_t known_states = sizeof connection_states / sizeof connection_states[0];

int32_t connection_state(uint32_t kernel_state)
{
    // A state the table does not know (0, or one newer kernels add such as
    // NEW_SYN_RECV) is reported as closed.
    if (kernel_state < 1 || kernel_state > known_states) return state_closed;
    return connection_states[kernel_state - 1];
}

// The first row in index order equal to key, or null. The rows are sorted,
// so a binary search finds the same row a scan from the top would.
const void *find_row(const stats_list *rows, const void *key)
{
    return stats_list_record(rows, stats_list_find(rows, key, nullptr));
}

int reply_value(struct confd_trans_ctx *tctx, const confd_value_t *v)
{
    confd_data_reply_value(tctx, v);
    return CONFD_OK;
}

int reply_not_found(struct confd_trans_ctx *tctx)
{
    confd_data_reply_not_found(tctx);
    return CONFD_OK;
}

// The key types of a table entry are asserted in the callback itself
// (SOCKET_END_KEYS), so that an abort names "tcp_get_listener_elem"; the
// name kp is part of the required text "(&kp->v[0][0])->type == C_XMLTAG".
int tcp_get_listener_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    uint32_t leaf = CONFD_GET_XMLTAG(&kp->v[0][0]);
    tcp_listener_entry key;
    memset(&key, 0, sizeof key);
    bool fits = true;
    SOCKET_END_KEYS(kp, 0, key.type, key.addr, key.addr_len, key.port, fits);
    const auto *row = static_cast<const tcp_listener_entry *>(
        fits ? find_row(&walked_tables->listeners, &key) : nullptr);
    if (!row) return reply_not_found(tctx);
    confd_value_t v;
    switch (leaf) {
    case TCP_MIB_tcpListenerProcess:
        CONFD_SET_UINT32(&v, row->process);
        return reply_value(tctx, &v);
    default: // the index columns are not read as leaves
        return reply_not_found(tctx);
    }
}

// The same over the connections with their six keys.
int tcp_get_connection_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    uint32_t leaf = CONFD_GET_XMLTAG(&kp->v[0][0]);
    tcp_conn_entry key;
    memset(&key, 0, sizeof key);
    bool fits = true;
    SOCKET_END_KEYS(kp, 0, key.local_type, key.local_addr, key.local_addr_len, key.local_port,
                    fits);
    SOCKET_END_KEYS(kp, 3, key.rem_type, key.rem_addr, key.rem_addr_len, key.rem_port, fits);
    const auto *row =
        static_cast<const tcp_conn_entry *>(fits ? find_row(&walked_tables->conns, &key) : nullptr);
    if (!row) return reply_not_found(tctx);
    confd_value_t v;
    switch (leaf) {
    case TCP_MIB_tcpConnectionState:
        CONFD_SET_ENUM_VALUE(&v, connection_state(row->state));
        return reply_value(tctx, &v);
    case TCP_MIB_tcpConnectionProcess:
        CONFD_SET_UINT32(&v, row->process);
        return reply_value(tctx, &v);
    default:
        return reply_not_found(tctx);
    }
}

int tcp_get_global_stats_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    uint32_t leaf = CONFD_GET_XMLTAG(&kp->v[0][0]);
    // A file that cannot be read leaves the last values; nothing to report.
    timed_cache_refresh(&tcp_counters, refresh_interval);
    const tcp_global_stats &s = tcp_counters.data;
    confd_value_t v;
    switch (leaf) {
    case TCP_MIB_tcpRtoAlgorithm:
        CONFD_SET_ENUM_VALUE(&v, s.RtoAlgorithm);
        break;
    case TCP_MIB_tcpRtoMin:
        CONFD_SET_INT32(&v, s.RtoMin);
        break;
    case TCP_MIB_tcpRtoMax:
        CONFD_SET_INT32(&v, s.RtoMax);
        break;
    case TCP_MIB_tcpMaxConn:
        CONFD_SET_INT32(&v, s.MaxConn);
        break;
    case TCP_MIB_tcpActiveOpens:
        CONFD_SET_UINT32(&v, s.ActiveOpens);
        break;
    case TCP_MIB_tcpPassiveOpens:
        CONFD_SET_UINT32(&v, s.PassiveOpens);
        break;
    case TCP_MIB_tcpAttemptFails:
        CONFD_SET_UINT32(&v, s.AttemptFails);
        break;
    case TCP_MIB_tcpEstabResets:
        CONFD_SET_UINT32(&v, s.EstabResets);
        break;
    case TCP_MIB_tcpCurrEstab:
        CONFD_SET_UINT32(&v, s.CurrEstab);
        break;
    case TCP_MIB_tcpInSegs:
        CONFD_SET_UINT32(&v, s.InSegs);
        break;
    case TCP_MIB_tcpOutSegs:
        CONFD_SET_UINT32(&v, s.OutSegs);
        break;
    case TCP_MIB_tcpRetransSegs:
        CONFD_SET_UINT32(&v, s.RetransSegs);
        break;
    case TCP_MIB_tcpInErrs:
        CONFD_SET_UINT32(&v, s.InErrs);
        break;
    case TCP_MIB_tcpOutRsts:
        CONFD_SET_UINT32(&v, s.OutRsts);
        break;
    case TCP_MIB_tcpHCInSegs:
        CONFD_SET_UINT64(&v, s.HCInSegs);
        break;
    case TCP_MIB_tcpHCOutSegs:
        CONFD_SET_UINT64(&v, s.HCOutSegs);
        break;
    default: // a scalar this daemon does not know: the request fails
        return CONFD_ERR;
    }
    return reply_value(tctx, &v);
}

// get_elem of "tcp_status": a leaf of a table entry (keypath
// .../xxxEntry{keys}/leaf, four rows or more) or a scalar of the tcp group.
int tcp_stats_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    if (kp->len >= 4) {
        uint32_t table = CONFD_GET_XMLTAG(&kp->v[2][0]);
        if (table == TCP_MIB_tcpListenerEntry) return tcp_get_listener_elem(tctx, kp);
        if (table == TCP_MIB_tcpConnectionEntry) return tcp_get_connection_elem(tctx, kp);
    }
    return tcp_get_global_stats_elem(tctx, kp);
}

int reply_end_of_table(struct confd_trans_ctx *tctx)
{
    confd_data_reply_next_key(tctx, nullptr, 0, 0);
    return CONFD_OK;
}

// get_next of "tcp_status": next is a position in the table's index order,
// -1 for the first row; the cookie handed back is the following position.
int tcp_stats_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *keypath, long next)
{
    long position = next;
    if (next == -1) {
        timed_cache_refresh(&tcp_table_cache, refresh_interval);
        position = 0;
        walked_tables = &tcp_table_cache.data;
    }
    uint32_t list = CONFD_GET_XMLTAG(&keypath->v[0][0]);
    // ConfD hands back whatever cookie it was given, so anything outside the
    // table ends the walk rather than selecting a row.
    if (list == TCP_MIB_tcpListenerEntry) {
        stats_list *rows = &walked_tables->listeners;
        if (position < 0 || position >= rows->count) return reply_end_of_table(tctx);
        const auto *row = static_cast<const tcp_listener_entry *>(
            stats_list_at(rows, static_cast<int32_t>(position)));
        confd_value_t keys[3];
        CONFD_SET_ENUM_VALUE(&keys[0], row->type);
        CONFD_SET_BINARY(&keys[1], row->addr, row->addr_len);
        CONFD_SET_UINT32(&keys[2], row->port);
        confd_data_reply_next_key(tctx, keys, 3, position + 1);
        return CONFD_OK;
    }
    stats_list *rows = &walked_tables->conns;
    if (position < 0 || position >= rows->count) return reply_end_of_table(tctx);
    const auto *row =
        static_cast<const tcp_conn_entry *>(stats_list_at(rows, static_cast<int32_t>(position)));
    confd_value_t keys[6];
    CONFD_SET_ENUM_VALUE(&keys[0], row->local_type);
    CONFD_SET_BINARY(&keys[1], row->local_addr, row->local_addr_len);
    CONFD_SET_UINT32(&keys[2], row->local_port);
    CONFD_SET_ENUM_VALUE(&keys[3], row->rem_type);
    CONFD_SET_BINARY(&keys[4], row->rem_addr, row->rem_addr_len);
    CONFD_SET_UINT32(&keys[5], row->rem_port);
    confd_data_reply_next_key(tctx, keys, 6, position + 1);
    return CONFD_OK;
}

} // namespace

int register_tcp(struct confd_daemon_ctx *dctx, int msock)
{
    tcp_maapi_sock = msock;

    tcp_counters.last_refresh = 0;
    tcp_counters.refresh = update_tcp_table;
    memset(&tcp_counters.data, 0, sizeof tcp_counters.data);

    // Registered once in the daemon; releasing what an earlier registration
    // collected keeps a repeated one (the unit tests') from leaking.
    stats_list_free(&tcp_table_cache.data.conns);
    stats_list_free(&tcp_table_cache.data.listeners);
    tcp_table_cache.last_refresh = 0;
    tcp_table_cache.refresh = update_tcp_stats;
    tcp_tables_init(&tcp_table_cache.data);
    walked_tables = &tcp_table_cache.data;

    struct confd_data_cbs cbs;
    memset(&cbs, 0, sizeof cbs);
    snprintf(cbs.callpoint, sizeof cbs.callpoint, "%s", TCP_MIB__callpointid_tcp_status);
    cbs.get_elem = tcp_stats_get_elem;
    cbs.get_next = tcp_stats_get_next;
    if (confd_register_data_cb(dctx, &cbs) == CONFD_ERR)
        confd_fatal("Failed to register tcp_status transform cb \n");
    return 0;
}
