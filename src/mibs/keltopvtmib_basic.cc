// Private model MIB, basic management: host and domain names, the factory administrator account,
// the first DHCP pool and the LAN address, and the set hook that renames, reboots or resets.
#include "keltopvtmib_parts.h"

#include "ZAMREL-MODEL-MIB.h"
#include "core/leisobek.h"
#include "core/sysenv.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>

namespace
{

// The factory default administrator, whose account the group shows.
const char admin_user[] = "kelto";

const char users_path[] = "/aaa:aaa/authentication/users/user";
const char pool_path[] = "/dhcp-pools/pool";

// Reads since "getiface.sh lan" last ran, and the LAN address and mask it printed.
int32_t basic_calls;
struct in_addr lan_address;
struct in_addr lan_mask;

// The script runs once in every this many reads of the group.
const int32_t basic_reads_per_run = 11;

void refresh_lan()
{
    keltopvt_iface_fields lan;
    if (!keltopvt_read_iface("sh /usr/bin/getiface.sh lan", lan)) return;
    // Fields 2 and 3 are the address and the mask; an unreadable one keeps the old value.
    inet_aton(lan.field[1], &lan_address);
    inet_aton(lan.field[2], &lan_mask);
}

// Replies the configuration value at expr as C_STR, or C_NOEXISTS when it cannot be read.
void reply_text(struct confd_trans_ctx *tctx, const char *expr, const char *ctx)
{
    std::string value;
    if (!keltopvt_config_value(tctx->thandle, expr, ctx, value)) {
        keltopvt_reply_noexists(tctx);
        return;
    }
    confd_value_t v;
    CONFD_SET_STR(&v, &value[0]);
    confd_data_reply_value(tctx, &v);
}

// The administrator account's leaf (name or password), as C_STR.
void reply_admin(struct confd_trans_ctx *tctx, const char *leaf)
{
    char expr[128];
    snprintf(expr, sizeof expr, "/aaa:aaa/authentication/users/user[name='%s']/%s", admin_user,
             leaf);
    reply_text(tctx, expr, users_path);
}

// An address of the first DHCP pool; false when it cannot be read or parsed.
bool pool_address(int thandle, const char *leaf, struct in_addr *out)
{
    char expr[64];
    snprintf(expr, sizeof expr, "/dhcp-pools/pool[pool-id=1]/ipv4/%s", leaf);
    std::string value;
    return keltopvt_config_value(thandle, expr, pool_path, value) &&
           inet_aton(value.c_str(), out) != 0;
}

void answer(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    if (!keltopvt_leaf_is_tag(kp)) {
        keltopvt_reply_noexists(tctx);
        return;
    }
    int th = tctx->thandle;
    confd_value_t v;
    struct in_addr start, end;
    std::string mode;
    switch (CONFD_GET_XMLTAG(&kp->v[0][0])) {
    case ZAMREL_MODEL_MIB_hostName:
        reply_text(tctx, "/system/hostname", "/system/hostname");
        return;
    case ZAMREL_MODEL_MIB_domainName:
        reply_text(tctx, "/system/domain-name", "/system/domain-name");
        return;
    case ZAMREL_MODEL_MIB_adminUserName:
        reply_admin(tctx, "name");
        return;
    case ZAMREL_MODEL_MIB_adminPassword:
        // The stored (hashed) form, as the configuration holds it.
        reply_admin(tctx, "password");
        return;
    case ZAMREL_MODEL_MIB_dhcpServerMode: {
        bool server = keltopvt_config_value(th, "/dhcp-pools/pool[pool-id=1]/ipv4/dhcp-mode",
                                            pool_path, mode) &&
                      mode == "server";
        CONFD_SET_ENUM_VALUE(&v, server ? 1 : 0);
        break;
    }
    case ZAMREL_MODEL_MIB_dhcpStartAddress:
        if (!pool_address(th, "range-start", &start)) {
            keltopvt_reply_noexists(tctx);
            return;
        }
        CONFD_SET_IPV4(&v, start);
        break;
    case ZAMREL_MODEL_MIB_dhcpRangeSize:
        // The number of addresses less one; without both ends there is no size.
        if (!pool_address(th, "range-start", &start) || !pool_address(th, "range-end", &end)) {
            keltopvt_reply_noexists(tctx);
            return;
        }
        CONFD_SET_INT32(&v, static_cast<int32_t>(ntohl(end.s_addr) - ntohl(start.s_addr)));
        break;
    case ZAMREL_MODEL_MIB_lanIpAddress:
        CONFD_SET_IPV4(&v, lan_address);
        break;
    case ZAMREL_MODEL_MIB_lanSubnetMask:
        CONFD_SET_IPV4(&v, lan_mask);
        break;
    default:
        v.type = C_NOEXISTS;
        break;
    }
    confd_data_reply_value(tctx, &v);
}

} // namespace

int keltopvt_basicmgt_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    TRACE_ENTER();
    if (basic_calls++ < 1) refresh_lan();
    answer(tctx, kp);
    if (basic_calls == basic_reads_per_run) basic_calls = 0;
    TRACE_EXIT();
    return CONFD_OK;
}

// Host and domain name are written into the SNMP set's own transaction, so
// they take effect when it commits; reboot and factory reset run the system's
// script at once.
int keltopvt_basicmgmt_set_elem_hook(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                                     confd_value_t *newval)
{
    TRACE_ENTER();
    confd_value_t *tag = &kp->v[0][0];
    int result = CONFD_OK;
    switch (CONFD_GET_XMLTAG(tag)) {
    case ZAMREL_MODEL_MIB_hostName:
        result = maapi_set_elem(keltopvt_maapi_socket(), tctx->thandle, newval, "/system/hostname");
        break;
    case ZAMREL_MODEL_MIB_domainName:
        result =
            maapi_set_elem(keltopvt_maapi_socket(), tctx->thandle, newval, "/system/domain-name");
        break;
    case ZAMREL_MODEL_MIB_reboot:
        // rebootNow is 2; noReboot (1) does nothing.
        if (CONFD_GET_ENUM_VALUE(newval) == 2)
            sys_system("sh /usr/bin/system-reboot firmware-state active option none");
        break;
    case ZAMREL_MODEL_MIB_factoryDefault:
        // restoreDefaults is 1 here; keepConfiguration (2) does nothing.
        if (CONFD_GET_ENUM_VALUE(newval) == 1)
            sys_system("sh /usr/bin/system-reboot firmware-state active option "
                       "factory-default-config");
        break;
    default:
        break;
    }
    TRACE_EXIT();
    return result;
}
