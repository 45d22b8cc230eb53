// The SNMP notifications the daemon originates, sent through ConfD's SNMP agent.
//
// Every sender goes out on the one notification context that start-up
// registers (all notify targets, default context) and may be called from any
// thread without a lock. Each returns 1 when ConfD accepted the notification
// and -1 otherwise; a failure is not logged.
#ifndef LEISOBEK_NOTIFY_NOTIFY_H
#define LEISOBEK_NOTIFY_NOTIFY_H

#include "core/confd_api.h"

// Sends the named notification with no variable bindings.
int send_simple_notification(const char *name);

int send_ucd_start(void);    // "ucdStart": the agent started
int send_ucd_shutdown(void); // "ucdShutdown": the agent was started in stop mode
int send_cold_start(void);   // "coldStart"
int send_warm_start(void);   // "warmStart"
int send_auth_failure(void); // "authenticationFailure"

// Number of variable bindings of linkUp and linkDown.
constexpr int LINK_VARBIND_COUNT = 4;

// Fills the bindings of a link notification, in this order: ifName (C_STR,
// name, which may be null), ifIndex (C_INT32), ifAdminStatus (C_ENUM_VALUE,
// 1 up / 2 down) and ifOperStatus (C_ENUM_VALUE).
void fill_link_varbinds(struct confd_snmp_varbind vb[LINK_VARBIND_COUNT], int ifindex,
                        int admin_status, const char *name, int oper_status);

// "linkUp" for the interface with kernel index ifindex and UCI section name
// name; ifOperStatus is 1.
int send_link_up(int ifindex, int admin_status, const char *name);

// "linkDown", as send_link_up with ifOperStatus 2.
int send_link_down(int ifindex, int admin_status, const char *name);

#endif
