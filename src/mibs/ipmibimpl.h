// IP-MIB provider: the twelve IP callpoints, answered from the IP collector's timed caches.
#ifndef LEISOBEK_MIBS_IPMIBIMPL_H
#define LEISOBEK_MIBS_IPMIBIMPL_H

#include "core/confd_api.h"

// Sets up the eleven IP caches (empty, due at first use), keeps the second
// argument and registers, in this order, "ip6_scope_zone_idx",
// "ip_def_router", "ip_traf_status", "ip_traf_system_stats",
// "ip_traf_if_stats", "ip_address_prefix_status", "icmp_stat_status",
// "icmp_msg_status", "ip_status", "ip_address_status", "ipv6_router_status"
// and "ip-net-to-physical-stats"; the last four accept and ignore writes.
// Returns 0, or -1 after the first refused registration (reported on stderr;
// the callpoints registered before it stay registered).
int register_ip_mib_cbs(struct confd_daemon_ctx *dctx, int msock);

#endif
