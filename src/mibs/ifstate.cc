// IF-MIB provider: answers "ifstatus-snmp", "ifentries-snmp" and "if-state-snmp" from the
// interface-state cache.
#include "ifstate.h"

#include "core/dlist.h"
#include "core/leisobek.h"
#include "core/state.h"
#include "ifstats.h"
#include "notify/linkmon.h"

#include "IF-MIB.h"

#include <cstring>
#include <pthread.h>

namespace
{

// Kept from registration; nothing reads them.
int if_state_maapi_sock = -1;
struct dlist *if_state_list = nullptr;

// Position in the walk order of the next ifIndex a walk hands out. One for
// all walks: a walk that starts (next -1) resets it, and two interleaved
// walks disturb each other, as on the router.
int walk_cursor = 0;

pthread_once_t monitor_once = PTHREAD_ONCE_INIT;

// The link monitor binds its netlink socket to the process id, so only one
// may run; start-up registers once, and so does every test process.
void start_link_monitor()
{
    pthread_t monitor;
    pthread_create(&monitor, nullptr, link_monitor_thread, nullptr);
}

// The router reports every interface with the Ethernet MTU.
const int32_t if_mtu = 1500;

// ifType of an interface by its name, or -1 when it has none. "USB" and
// "VLAN" are prefixes; every other name must match whole.
int64_t if_type_of(const IfStateRecord *r)
{
    static const struct {
        const char *name;
        int32_t type;
    } whole_names[] = {
        {"WLAN", IF_MIB_wlanRadio},   {"VAP", IF_MIB_ieee80211},    {"WAN", IF_MIB_ethernetCsmacd},
        {"l2vlan", IF_MIB_l2vlan},    {"wwanPP", IF_MIB_usb},       {"PPOE", IF_MIB_pppoeSession},
        {"PPTP", IF_MIB_pptpSession}, {"L2TP", IF_MIB_l2tpSession},
    };
    if (strncmp(r->name, "USB", 3) == 0) return IF_MIB_usb;
    if (strncmp(r->name, "VLAN", 4) == 0) return IF_MIB_l2vlan;
    for (const auto &entry : whole_names)
        if (strcmp(r->name, entry.name) == 0) return entry.type;
    if (r->type_hint[0] != '\0') return IF_MIB_hintedKind;
    return -1;
}

void refresh_if_stale()
{
    if (!if_state_cache_stale()) return;
    pthread_rwlock_wrlock(&ifstate_rwlock);
    // A failed refresh leaves the last complete one's count and walk order.
    if_state_refresh(PRODUCT_ID);
    pthread_rwlock_unlock(&ifstate_rwlock);
}

int reply(struct confd_trans_ctx *tctx, confd_value_t *v)
{
    confd_data_reply_value(tctx, v);
    return CONFD_OK;
}

// The value of leaf for record r (key is the requested ifIndex); false when
// the interface has no such value.
bool leaf_value(uint32_t leaf, const IfStateRecord *r, int32_t key, confd_value_t *v)
{
    switch (leaf) {
    case IF_MIB_ifIndex:
        CONFD_SET_INT32(v, key);
        return true;
    case IF_MIB_ifDescr:
    case IF_MIB_ifName:
        CONFD_SET_STR(v, const_cast<char *>(r->name));
        return true;
    case IF_MIB_ifType: {
        int64_t type = if_type_of(r);
        if (type < 0) return false;
        CONFD_SET_ENUM_VALUE(v, static_cast<int32_t>(type));
        return true;
    }
    case IF_MIB_ifMtu:
        CONFD_SET_INT32(v, if_mtu);
        return true;
    case IF_MIB_ifSpeed:
    case IF_MIB_ifHighSpeed: // the same unscaled figure as ifSpeed
        CONFD_SET_UINT32(v, static_cast<uint32_t>(r->speed));
        return true;
    case IF_MIB_ifAdminStatus:
        if (r->admin_status < 1) return false;
        CONFD_SET_ENUM_VALUE(v, r->admin_status);
        return true;
    case IF_MIB_ifOperStatus:
        if (r->oper_status < 1) return false;
        CONFD_SET_ENUM_VALUE(v, r->oper_status);
        return true;
    // The 32-bit counters are the low halves of the 64-bit ones.
    case IF_MIB_ifInOctets:
        CONFD_SET_UINT32(v, static_cast<uint32_t>(r->in_octets));
        return true;
    case IF_MIB_ifInUcastPkts:
        CONFD_SET_UINT32(v, static_cast<uint32_t>(r->in_ucast_pkts));
        return true;
    case IF_MIB_ifInMulticastPkts:
        CONFD_SET_UINT32(v, static_cast<uint32_t>(r->in_mcast_pkts));
        return true;
    case IF_MIB_ifInBroadcastPkts:
        CONFD_SET_UINT32(v, static_cast<uint32_t>(r->in_bcast_pkts));
        return true;
    case IF_MIB_ifOutOctets:
        CONFD_SET_UINT32(v, static_cast<uint32_t>(r->out_octets));
        return true;
    case IF_MIB_ifOutUcastPkts:
        CONFD_SET_UINT32(v, static_cast<uint32_t>(r->out_ucast_pkts));
        return true;
    case IF_MIB_ifOutMulticastPkts:
        CONFD_SET_UINT32(v, static_cast<uint32_t>(r->out_mcast_pkts));
        return true;
    case IF_MIB_ifOutBroadcastPkts:
        CONFD_SET_UINT32(v, static_cast<uint32_t>(r->out_bcast_pkts));
        return true;
    case IF_MIB_ifInErrors:
        CONFD_SET_UINT32(v, r->in_errors);
        return true;
    case IF_MIB_ifOutErrors:
        CONFD_SET_UINT32(v, r->out_errors);
        return true;
    case IF_MIB_ifHCInOctets:
        CONFD_SET_UINT64(v, r->in_octets);
        return true;
    case IF_MIB_ifHCInUcastPkts:
        CONFD_SET_UINT64(v, r->in_ucast_pkts);
        return true;
    case IF_MIB_ifHCInMulticastPkts:
        CONFD_SET_UINT64(v, r->in_mcast_pkts);
        return true;
    case IF_MIB_ifHCInBroadcastPkts:
        CONFD_SET_UINT64(v, r->in_bcast_pkts);
        return true;
    case IF_MIB_ifHCOutOctets:
        CONFD_SET_UINT64(v, r->out_octets);
        return true;
    case IF_MIB_ifHCOutUcastPkts:
        CONFD_SET_UINT64(v, r->out_ucast_pkts);
        return true;
    case IF_MIB_ifHCOutMulticastPkts:
        CONFD_SET_UINT64(v, r->out_mcast_pkts);
        return true;
    case IF_MIB_ifHCOutBroadcastPkts:
        CONFD_SET_UINT64(v, r->out_bcast_pkts);
        return true;
    case IF_MIB_ifNumber:
        CONFD_SET_INT32(v, if_state_count());
        return true;
    default:
        return false;
    }
}

// get_elem of "ifstatus-snmp": ifNumber from the cache as it stands, which is
// 0 until a table request has refreshed it.
int if_state_get_count(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    TRACE_ENTER();
    confd_value_t v;
    if (kp->v[0][0].type == C_XMLTAG && kp->v[0][0].val.xmltag.tag == IF_MIB_ifNumber)
        CONFD_SET_INT32(&v, if_state_count());
    else
        v.type = C_NOEXISTS;
    TRACE_EXIT();
    return reply(tctx, &v);
}

// get_elem of the interface and extension tables: .../ifEntry{ifIndex}/leaf.
int if_state_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    TRACE_ENTER();
    confd_value_t *key = &kp->v[1][0];
    int32_t if_index = CONFD_GET_INT32(key);
    refresh_if_stale();

    pthread_rwlock_rdlock(&ifstate_rwlock);
    const IfStateRecord *r = if_state_lookup(if_index);
    confd_value_t v;
    v.type = C_NOEXISTS;
    if (r != nullptr && kp->v[0][0].type == C_XMLTAG &&
        !leaf_value(kp->v[0][0].val.xmltag.tag, r, if_index, &v))
        v.type = C_NOEXISTS;
    reply(tctx, &v);
    pthread_rwlock_unlock(&ifstate_rwlock);
    TRACE_EXIT();
    return CONFD_OK;
}

// get_next of both tables: the ifIndex values of the last complete refresh in
// ascending order, duplicates included. The cookie is the walk position, but
// the walk goes on from the global cursor whatever cookie comes back.
int if_state_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    TRACE_ENTER();
    uint32_t list = CONFD_GET_XMLTAG(&kp->v[0][0]);
    if (list == IF_MIB_ifEntry || list == IF_MIB_ifXEntry) {
        if (next == -1) {
            refresh_if_stale();
            walk_cursor = 0;
        }
        if (walk_cursor < if_state_count()) {
            confd_value_t key;
            CONFD_SET_INT32(&key, if_state_index_table()[walk_cursor]);
            walk_cursor++;
            confd_data_reply_next_key(tctx, &key, 1, walk_cursor);
            TRACE_EXIT();
            return CONFD_OK;
        }
        // Past the end, so that a further request still ends the list.
        if (walk_cursor == if_state_count()) walk_cursor++;
    }
    confd_data_reply_next_key(tctx, nullptr, -1, -1);
    TRACE_EXIT();
    return CONFD_OK;
}

int if_state_find_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *, enum confd_find_next_type,
                       confd_value_t *, int)
{
    confd_data_reply_next_key(tctx, nullptr, -1, -1);
    return CONFD_OK;
}

int if_state_get_next_object(struct confd_trans_ctx *tctx, confd_hkeypath_t *, long)
{
    confd_data_reply_next_object_array(tctx, nullptr, 0, -1);
    return CONFD_OK;
}

int if_state_get_object(struct confd_trans_ctx *tctx, confd_hkeypath_t *)
{
    confd_value_t v;
    v.type = C_NOEXISTS;
    confd_data_reply_value_array(tctx, &v, 1);
    return CONFD_OK;
}

void register_transform(struct confd_daemon_ctx *dctx, const char *callpoint, bool table)
{
    struct confd_data_cbs cbs;
    memset(&cbs, 0, sizeof cbs);
    snprintf(cbs.callpoint, sizeof cbs.callpoint, "%s", callpoint);
    cbs.get_next = if_state_get_next;
    if (table) {
        cbs.get_elem = if_state_get_elem;
        // The tables are read-only: writes are accepted and dropped.
        cbs.set_elem = ignore_set_elem;
        cbs.create = ignore_create;
        cbs.remove = ignore_remove;
        cbs.find_next = if_state_find_next;
        cbs.get_next_object = if_state_get_next_object;
        cbs.get_object = if_state_get_object;
    } else {
        cbs.get_elem = if_state_get_count;
    }
    if (confd_register_data_cb(dctx, &cbs) == CONFD_ERR)
        confd_fatal("Failed to register transform cb \n");
}

} // namespace

int if_state_register(struct confd_daemon_ctx *dctx, int msock)
{
    TRACE_ENTER();
    if_state_maapi_sock = msock;
    if_state_list = dlist_new();
    pthread_once(&monitor_once, start_link_monitor);
    register_transform(dctx, "ifstatus-snmp", false);
    register_transform(dctx, "ifentries-snmp", true);
    register_transform(dctx, "if-state-snmp", true);
    TRACE_EXIT();
    return 0;
}
