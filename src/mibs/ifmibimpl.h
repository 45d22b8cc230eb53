// Interface configuration provider: the configured interfaces ("/interfaces/interface") as an
// ifIndex map.
//
// Complete but dormant: start-up never calls its registration, so neither
// "if-snmp" nor "if-hook" is registered on the router and writes to the
// interface list go through unhooked.
#ifndef LEISOBEK_MIBS_IFMIBIMPL_H
#define LEISOBEK_MIBS_IFMIBIMPL_H

#include "core/confd_api.h"

// Keeps msock, loads the map from the running configuration (a ConfD error
// there ends the process with status 1), then registers the set hook
// "if-hook" and the transform "if-snmp" on dctx. Returns 0; a refused
// registration ends the process through confd_fatal with "Failed to
// register hook cb \n" or "Failed to register transform cb \n".
int register_if_config(struct confd_daemon_ctx *dctx, int msock);

#endif
