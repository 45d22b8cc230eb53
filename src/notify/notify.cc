// The notification catalogue: one sender per SNMP notification the daemon raises.
#include "notify.h"

#include "core/state.h"

#include <cstdio>
#include <cstring>

namespace
{

int send_notification(const char *name, struct confd_snmp_varbind *vb, int count)
{
    return confd_notification_send_snmp(snmp_notif_ctx, name, vb, count) == CONFD_OK ? 1 : -1;
}

void set_variable(struct confd_snmp_varbind *vb, const char *object)
{
    vb->type = CONFD_SNMP_VARIABLE;
    snprintf(vb->var.name, sizeof vb->var.name, "%s", object);
}

int send_link_notification(const char *notification, int ifindex, int admin_status,
                           const char *name, int oper_status)
{
    struct confd_snmp_varbind vb[LINK_VARBIND_COUNT];
    fill_link_varbinds(vb, ifindex, admin_status, name, oper_status);
    return send_notification(notification, vb, LINK_VARBIND_COUNT);
}

} // namespace

int send_simple_notification(const char *name)
{
    return send_notification(name, nullptr, 0);
}

int send_ucd_start(void)
{
    return send_simple_notification("ucdStart");
}

int send_ucd_shutdown(void)
{
    return send_simple_notification("ucdShutdown");
}

int send_cold_start(void)
{
    return send_simple_notification("coldStart");
}

int send_warm_start(void)
{
    return send_simple_notification("warmStart");
}

int send_auth_failure(void)
{
    return send_simple_notification("authenticationFailure");
}

void fill_link_varbinds(struct confd_snmp_varbind vb[LINK_VARBIND_COUNT], int ifindex,
                        int admin_status, const char *name, int oper_status)
{
    memset(vb, 0, sizeof(struct confd_snmp_varbind) * LINK_VARBIND_COUNT);
    set_variable(&vb[0], "ifName");
    CONFD_SET_STR(&vb[0].val, name);
    set_variable(&vb[1], "ifIndex");
    CONFD_SET_INT32(&vb[1].val, ifindex);
    set_variable(&vb[2], "ifAdminStatus");
    CONFD_SET_ENUM_VALUE(&vb[2].val, admin_status);
    set_variable(&vb[3], "ifOperStatus");
    CONFD_SET_ENUM_VALUE(&vb[3].val, oper_status);
}

int send_link_up(int ifindex, int admin_status, const char *name)
{
    return send_link_notification("linkUp", ifindex, admin_status, name, 1);
}

int send_link_down(int ifindex, int admin_status, const char *name)
{
    return send_link_notification("linkDown", ifindex, admin_status, name, 2);
}
