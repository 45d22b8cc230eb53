// IF-MIB interface state: ifNumber, ifTable and ifXTable from the interface-state cache.
#ifndef LEISOBEK_MIBS_IFSTATE_H
#define LEISOBEK_MIBS_IFSTATE_H

#include "core/confd_api.h"

// Starts the link monitor thread and registers the transforms
// "ifstatus-snmp", "ifentries-snmp" and "if-state-snmp" on dctx; msock is
// kept. Returns 0; a refused registration ends the process through
// confd_fatal with "Failed to register transform cb \n".
int if_state_register(struct confd_daemon_ctx *dctx, int msock);

#endif
