// Private model MIB: the management community table (from the agent's community configuration),
// the trap-manager table ("gettrapsconf.sh") and the WAN DNS server table ("getwandns.sh").
#include "keltopvtmib_parts.h"

#include "ZAMREL-MODEL-MIB.h"
#include "core/leisobek.h"
#include "scan.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>

namespace
{

// ---- communities ----

struct CommunitySlot {
    int32_t index;
    char name[256];
    int32_t access; // 1 read (a "public" security name), 2 write ("private")
};

// The table always shows three rows: slots past the configured communities
// keep what an earlier load left, or zero.
const int community_slots = 3;
CommunitySlot communities[community_slots];
int32_t community_cursor;

const char community_list[] = "/SNMP-COMMUNITY-MIB/snmpCommunityTable/snmpCommunityEntry";

// Reads a text leaf of the community entry the cursor is at into out;
// false when it cannot be read.
bool read_community_leaf(int thandle, struct maapi_cursor *mc, const char *leaf, std::string &out)
{
    unsigned char *buf = nullptr;
    int size = 0;
    char path[160];
    snprintf(path, sizeof path, "%s{%%x}/%s", community_list, leaf);
    if (maapi_get_buf_elem(keltopvt_maapi_socket(), thandle, &buf, &size, path, &mc->keys[0]) !=
        CONFD_OK)
        return false;
    out.assign(reinterpret_cast<const char *>(buf), static_cast<size_t>(size));
    free(buf);
    return true;
}

// Fills the slots from the first three configured communities. The names
// "public" and "private" only tell the display what a community is for; they
// grant nothing. Returns 0, or -1 when an entry cannot be read (the slots
// filled so far stay).
int keltopvt_commtbl_load(int thandle)
{
    int sock = keltopvt_maapi_socket();
    struct maapi_cursor mc;
    if (maapi_init_cursor(sock, thandle, &mc, community_list) != CONFD_OK) return 0;
    int result = 0;
    for (int k = 0; k < community_slots && maapi_get_next(&mc) == CONFD_OK && mc.n != 0; k++) {
        CommunitySlot &slot = communities[k];
        slot.name[0] = '\0';
        std::string name, security;
        if (!read_community_leaf(thandle, &mc, "snmpCommunityName", name) ||
            !read_community_leaf(thandle, &mc, "snmpCommunitySecurityName", security)) {
            result = -1;
            break;
        }
        snprintf(slot.name, sizeof slot.name, "%s", name.c_str());
        if (security.find("public") != std::string::npos)
            slot.access = 1;
        else if (security == "private")
            slot.access = 2;
        slot.index = k;
    }
    maapi_destroy_cursor(&mc);
    return result;
}

// Whether kp names the given list (a get_next on it has the list tag first).
bool names_list(const confd_hkeypath_t *kp, uint32_t list)
{
    return keltopvt_leaf_is_tag(kp) && CONFD_GET_XMLTAG(&kp->v[0][0]) == list;
}

// ---- trap manager ----

struct TrapManagerSlot {
    int32_t index;
    char community[256];
    struct in_addr address;
};

// Only the first line's slot is ever served; a second is kept, further lines
// are ignored.
const int trap_slots = 2;
TrapManagerSlot trap_managers[trap_slots];
int32_t trap_cursor;

// Runs "gettrapsconf.sh" into the slots. False when a line without a first
// field ends the table (or the script cannot be started).
bool load_trap_managers()
{
    bool rows = true;
    int j = 0;
    bool started =
        keltopvt_read_script("sh /usr/bin/gettrapsconf.sh", 3, [&](char **fields, int count) {
            if (count < 1 || fields[0][0] == '\0') {
                rows = false;
                return false;
            }
            if (j >= trap_slots) return true;
            TrapManagerSlot &slot = trap_managers[j++];
            slot.index = atoi(fields[0]);
            if (count < 2 || fields[1][0] == '\0' || inet_aton(fields[1], &slot.address) == 0)
                slot.address.s_addr = 0;
            if (count >= 3 && !is_blank(fields[2]))
                keltopvt_copy_text(slot.community, sizeof slot.community, fields[2]);
            else
                slot.community[0] = '\0';
            return true;
        });
    return started && rows;
}

// ---- WAN DNS servers ----

struct WanDnsRow {
    int32_t wan_key1;
    int32_t wan_key2;
    int32_t dns_value;
    struct in_addr dns_address;
};

// Lines kept from "getwandns.sh": two servers for each of the device's WAN
// connections, with room to spare; the walk serves one row past them.
const int wan_dns_lines = 8;
WanDnsRow wan_dns[wan_dns_lines + 1];
int32_t wan_dns_count;
int32_t wan_dns_cursor;

bool load_wan_dns()
{
    int32_t k = 0;
    bool started =
        keltopvt_read_script("sh /usr/bin/getwandns.sh", 3, [&k](char **fields, int count) {
            if (k >= wan_dns_lines) return true;
            WanDnsRow &row = wan_dns[k++];
            row.wan_key1 = row.wan_key2 = atoi(fields[0]);
            if (count > 1) row.dns_value = atoi(fields[1]);
            if (count > 2) inet_aton(fields[2], &row.dns_address);
            return true;
        });
    wan_dns_count = started ? k : 0;
    return started;
}

} // namespace

int keltopvt_commtbl_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    TRACE_ENTER();
    if (!names_list(kp, ZAMREL_MODEL_MIB_mgtCommunityEntry)) return keltopvt_reply_end(tctx);
    if (next == -1) {
        community_cursor = 0;
        if (keltopvt_commtbl_load(tctx->thandle) != 0) return keltopvt_reply_end(tctx);
    }
    if (community_cursor >= community_slots) return keltopvt_reply_end(tctx);
    confd_value_t key;
    CONFD_SET_INT32(&key, communities[community_cursor].index);
    community_cursor++;
    confd_data_reply_next_key(tctx, &key, 1, community_cursor);
    TRACE_EXIT();
    return CONFD_OK;
}

int keltopvt_commtbl_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    TRACE_ENTER();
    confd_value_t *key = &kp->v[1][0];
    int32_t slot = CONFD_GET_INT32(key);
    if (!keltopvt_leaf_is_tag(kp) || slot < 0 || slot >= community_slots)
        return keltopvt_reply_noexists(tctx);
    const CommunitySlot &c = communities[slot];
    confd_value_t v;
    switch (CONFD_GET_XMLTAG(&kp->v[0][0])) {
    case ZAMREL_MODEL_MIB_mgtCommunityName:
        CONFD_SET_STR(&v, communities[slot].name);
        break;
    case ZAMREL_MODEL_MIB_mgtCommunityIndex:
        CONFD_SET_INT32(&v, slot);
        break;
    case ZAMREL_MODEL_MIB_mgtCommunityAccess:
        CONFD_SET_ENUM_VALUE(&v, c.access);
        break;
    default:
        v.type = C_NOEXISTS;
        break;
    }
    confd_data_reply_value(tctx, &v);
    TRACE_EXIT();
    return CONFD_OK;
}

int keltopvt_trapmgr_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    TRACE_ENTER();
    if (!names_list(kp, ZAMREL_MODEL_MIB_trapMgrEntry)) return keltopvt_reply_end(tctx);
    if (next == -1) {
        // With SNMPv3 on (or its switch unreadable) there is no v1/v2c trap receiver.
        std::string v3;
        if (!keltopvt_config_value(tctx->thandle, "/confdConfig/snmpAgent/snmpVersions/v3", nullptr,
                                   v3) ||
            v3 == "true")
            return keltopvt_reply_end(tctx);
        trap_cursor = 0;
        if (!load_trap_managers()) return keltopvt_reply_end(tctx);
    }
    // Kept: the walk stops when the cursor reaches the second slot, so only
    // the first line's row is ever handed out.
    if (trap_cursor >= trap_slots - 1) return keltopvt_reply_end(tctx);
    confd_value_t key;
    CONFD_SET_INT32(&key, trap_managers[trap_cursor].index);
    trap_cursor++;
    confd_data_reply_next_key(tctx, &key, 1, trap_cursor);
    TRACE_EXIT();
    return CONFD_OK;
}

// Answers from the first slot, whatever the key.
int keltopvt_trapmgr_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    TRACE_ENTER();
    if (!keltopvt_leaf_is_tag(kp)) return keltopvt_reply_noexists(tctx);
    TrapManagerSlot &slot = trap_managers[0];
    confd_value_t v;
    v.type = C_NOEXISTS;
    switch (CONFD_GET_XMLTAG(&kp->v[0][0])) {
    case ZAMREL_MODEL_MIB_trapMgrIpAddress:
        if (slot.address.s_addr != 0) CONFD_SET_IPV4(&v, slot.address);
        break;
    case ZAMREL_MODEL_MIB_trapMgrCommunity:
        if (slot.community[0] != '\0') CONFD_SET_STR(&v, slot.community);
        break;
    case ZAMREL_MODEL_MIB_trapMgrIndex:
        CONFD_SET_INT32(&v, slot.index);
        break;
    default:
        break;
    }
    confd_data_reply_value(tctx, &v);
    TRACE_EXIT();
    return CONFD_OK;
}

int keltopvt_wandnstbl_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    TRACE_ENTER();
    if (!names_list(kp, ZAMREL_MODEL_MIB_wanDnsNetAddressEntry)) return keltopvt_reply_end(tctx);
    if (next == -1) {
        wan_dns_count = 0;
        wan_dns_cursor = 0;
        if (!load_wan_dns()) return keltopvt_reply_end(tctx);
    }
    // Kept: "at most" the count, so the walk serves one row past the script's
    // lines (zero on a fresh daemon, else left from an earlier, longer load).
    if (wan_dns_cursor > wan_dns_count) return keltopvt_reply_end(tctx);
    const WanDnsRow &row = wan_dns[wan_dns_cursor];
    confd_value_t keys[2];
    CONFD_SET_INT32(&keys[0], row.wan_key1);
    CONFD_SET_INT32(&keys[1], row.wan_key2);
    wan_dns_cursor++;
    confd_data_reply_next_key(tctx, keys, 2, wan_dns_cursor);
    TRACE_EXIT();
    return CONFD_OK;
}

// The row is the one at the position the first key names (the script numbers its lines from 0).
int keltopvt_wandnstbl_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    TRACE_ENTER();
    confd_value_t *key = &kp->v[1][0];
    int32_t position = CONFD_GET_INT32(key);
    if (!keltopvt_leaf_is_tag(kp) || position < 0 || position > wan_dns_count)
        return keltopvt_reply_noexists(tctx);
    const WanDnsRow &row = wan_dns[position];
    confd_value_t v;
    switch (CONFD_GET_XMLTAG(&kp->v[0][0])) {
    case ZAMREL_MODEL_MIB_wanDnsNetAddressWanIndex:
        CONFD_SET_INT32(&v, row.wan_key1);
        break;
    case ZAMREL_MODEL_MIB_wanDnsNetAddressServer:
        CONFD_SET_IPV4(&v, row.dns_address);
        break;
    case ZAMREL_MODEL_MIB_wanDnsNetAddressPreference:
        CONFD_SET_INT32(&v, row.dns_value);
        break;
    default:
        v.type = C_NOEXISTS;
        break;
    }
    confd_data_reply_value(tctx, &v);
    TRACE_EXIT();
    return CONFD_OK;
}
