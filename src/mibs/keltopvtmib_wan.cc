// Private model MIB: the WAN connection table, one row for the first WAN interface "WAN1" from
// "getiface.sh wan", the interface state and the interface's configured addressing.
#include "keltopvtmib_parts.h"

#include "ZAMREL-MODEL-MIB.h"
#include "core/leisobek.h"
#include "scan.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

const char wan_name[] = "WAN1";
const char interfaces_path[] = "/interfaces/interface";

// The single row. Fields keep their values between loads unless a load
// overwrites them.
struct WanConnectionRow {
    int32_t row_index;
    int32_t wan_if_index;
    int32_t connection_type; // 1 DHCP, 2 static, 3 PPPoE, 5 PPTP
    struct in_addr wan_address;
    char wan_mac_text[256];
    struct in_addr wan_mask;
    struct in_addr wan_ipv4_extra;
    int32_t reserved_a;
    int32_t reserved_b;
    char ppp_username[256];
    char ppp_password[256];
    int32_t wan_constant_a;
    int32_t ppp_connect_mode; // 0 keep-alive, 1 on demand
    int32_t ppp_idle_time;
    int32_t wan_constant_b;
    int32_t ppp_auth_auto;
};

WanConnectionRow wan_row;
int32_t wan_cursor;

// A setting of WAN1's configured IPv4 addressing; false when it cannot be read.
bool wan_setting(int thandle, const char *format, const char *mode, std::string &out)
{
    char expr[160];
    snprintf(expr, sizeof expr, format, wan_name, mode);
    return keltopvt_config_value(thandle, expr, interfaces_path, out);
}

// A PPP setting of the given mode, false when it is absent or blank.
bool ppp_setting(int thandle, const char *mode, const char *leaf, std::string &out)
{
    char format[128];
    snprintf(format, sizeof format, "/interfaces/interface[name='%%s']/ipv4/setting/%%s/%s", leaf);
    return wan_setting(thandle, format, mode, out) && !is_blank(out.c_str());
}

void read_ppp_settings(int thandle, const char *mode)
{
    std::string value;
    snprintf(wan_row.ppp_username, sizeof wan_row.ppp_username, "%s",
             ppp_setting(thandle, mode, "username", value) ? value.c_str() : "none");
    // Served as it is stored.
    snprintf(wan_row.ppp_password, sizeof wan_row.ppp_password, "%s",
             ppp_setting(thandle, mode, "password", value) ? value.c_str() : "none");
    if (ppp_setting(thandle, mode, "keepalive", value)) wan_row.ppp_connect_mode = 0;
    // Demand is read last, so it wins over keep-alive.
    if (ppp_setting(thandle, mode, "demand", value)) {
        wan_row.ppp_connect_mode = 1;
        wan_row.ppp_idle_time = atoi(value.c_str());
    }
    wan_row.wan_constant_b = 2;
    if (ppp_setting(thandle, mode, "authentication-type", value))
        wan_row.ppp_auth_auto = value.find("auto") != std::string::npos ? 1 : 0;
}

// Refreshes the row; -1 when the script cannot be started.
int load_wan_connection(int thandle)
{
    keltopvt_iface_fields wan;
    if (!keltopvt_read_iface("sh /usr/bin/getiface.sh wan", wan)) return -1;
    inet_aton(wan.field[1], &wan_row.wan_address);
    inet_aton(wan.field[2], &wan_row.wan_mask);
    inet_aton(wan.field[4], &wan_row.wan_ipv4_extra);
    snprintf(wan_row.wan_mac_text, sizeof wan_row.wan_mac_text, "%s", wan.field[3]);

    std::string value;
    char expr[96];
    snprintf(expr, sizeof expr, "/interfaces-state/interface[name='%s']/if-index", wan_name);
    if (keltopvt_config_value(thandle, expr, "/interfaces-state/interface", value) &&
        !is_blank(value.c_str()))
        wan_row.wan_if_index = atoi(value.c_str());
    wan_row.wan_constant_a = 2;

    // Later matches override earlier ones. L2TP names the mode only and
    // leaves the type as it was. The expressions end in a blank, as the
    // router writes them.
    static const struct {
        const char *format;
        const char *match;
        int32_t type; // 0: the type stays
        const char *mode;
    } methods[] = {
        {"/interfaces/interface[name='%s']/ipv4/setting/dynamic/peerdns ", "true", 1, "dynamic"},
        {"/interfaces/interface[name='%s']/ipv4/setting/static/ifname ", "WAN1", 2, "static"},
        {"/interfaces/interface[name='%s']/ipv4/setting/pppoe/peerdns ", "true", 3, "pppoe"},
        {"/interfaces/interface[name='%s']/ipv4/setting/pptp/peerdns ", "true", 5, "pptp"},
        {"/interfaces/interface[name='%s']/ipv4/setting/l2tp/peerdns ", "true", 0, "l2tp"},
    };
    const char *mode = "";
    for (const auto &m : methods) {
        if (!wan_setting(thandle, m.format, nullptr, value) ||
            value.find(m.match) == std::string::npos)
            continue;
        if (m.type != 0) wan_row.connection_type = m.type;
        mode = m.mode;
    }
    if (wan_row.connection_type == 3 || wan_row.connection_type == 5)
        read_ppp_settings(thandle, mode);
    return 0;
}

} // namespace

int keltopvt_wancontbl_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    TRACE_ENTER();
    if (!keltopvt_leaf_is_tag(kp) ||
        CONFD_GET_XMLTAG(&kp->v[0][0]) != ZAMREL_MODEL_MIB_wanConnectionEntry)
        return keltopvt_reply_end(tctx);
    if (next == -1) {
        wan_cursor = 0;
        if (load_wan_connection(tctx->thandle) != 0) return keltopvt_reply_end(tctx);
    }
    if (wan_cursor != 0) return keltopvt_reply_end(tctx);
    confd_value_t key;
    CONFD_SET_INT32(&key, wan_row.row_index);
    wan_cursor++;
    confd_data_reply_next_key(tctx, &key, 1, wan_cursor);
    TRACE_EXIT();
    return CONFD_OK;
}

int keltopvt_wancontbl_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    TRACE_ENTER();
    confd_value_t *key = &kp->v[1][0];
    int32_t index = CONFD_GET_INT32(key);
    if (!keltopvt_leaf_is_tag(kp) || index != wan_row.row_index)
        return keltopvt_reply_noexists(tctx);
    const WanConnectionRow &r = wan_row;
    unsigned char mac[6] = {};
    confd_value_t v;
    switch (CONFD_GET_XMLTAG(&kp->v[0][0])) {
    case ZAMREL_MODEL_MIB_wanConnectionIndex:
        CONFD_SET_INT32(&v, r.row_index);
        break;
    case ZAMREL_MODEL_MIB_wanConnectionIfIndex:
        CONFD_SET_INT32(&v, r.wan_if_index);
        break;
    case ZAMREL_MODEL_MIB_wanConnectionType:
        CONFD_SET_ENUM_VALUE(&v, r.connection_type);
        break;
    case ZAMREL_MODEL_MIB_wanConnectionIpAddress:
        CONFD_SET_IPV4(&v, r.wan_address);
        break;
    case ZAMREL_MODEL_MIB_wanConnectionSubnetMask:
        CONFD_SET_IPV4(&v, r.wan_mask);
        break;
    case ZAMREL_MODEL_MIB_wanConnectionGateway:
        CONFD_SET_IPV4(&v, r.wan_ipv4_extra);
        break;
    case ZAMREL_MODEL_MIB_wanConnectionMacAddress: {
        // Each number truncated to a byte; what does not parse stays 0.
        unsigned int b[6] = {};
        sscanf(r.wan_mac_text, "%x:%x:%x:%x:%x:%x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]);
        for (int i = 0; i < 6; i++)
            mac[i] = static_cast<unsigned char>(b[i]);
        CONFD_SET_BINARY(&v, mac, 6);
        break;
    }
    case ZAMREL_MODEL_MIB_wanConnectionReserved1:
        CONFD_SET_INT32(&v, r.reserved_a);
        break;
    case ZAMREL_MODEL_MIB_wanConnectionReserved2:
        CONFD_SET_INT32(&v, r.reserved_b);
        break;
    case ZAMREL_MODEL_MIB_wanConnectionPppUserName:
        CONFD_SET_STR(&v, wan_row.ppp_username);
        break;
    case ZAMREL_MODEL_MIB_wanConnectionPppPassword:
        CONFD_SET_STR(&v, wan_row.ppp_password);
        break;
    case ZAMREL_MODEL_MIB_wanConnectionNatStatus:
        CONFD_SET_ENUM_VALUE(&v, r.wan_constant_a);
        break;
    case ZAMREL_MODEL_MIB_wanConnectionPppConnectMode:
        CONFD_SET_ENUM_VALUE(&v, r.ppp_connect_mode);
        break;
    case ZAMREL_MODEL_MIB_wanConnectionPppIdleTime:
        CONFD_SET_INT32(&v, r.ppp_idle_time);
        break;
    case ZAMREL_MODEL_MIB_wanConnectionPppRetryCount:
        CONFD_SET_INT32(&v, r.wan_constant_b);
        break;
    case ZAMREL_MODEL_MIB_wanConnectionPppAuthAuto:
        CONFD_SET_INT32(&v, r.ppp_auth_auto);
        break;
    default:
        v.type = C_NOEXISTS;
        break;
    }
    confd_data_reply_value(tctx, &v);
    TRACE_EXIT();
    return CONFD_OK;
}
