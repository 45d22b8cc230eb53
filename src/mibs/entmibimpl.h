// ENTITY-MIB provider: the "entphyentry-snmp" transform, entPhysicalTable with the chassis row.
#ifndef LEISOBEK_MIBS_ENTMIBIMPL_H
#define LEISOBEK_MIBS_ENTMIBIMPL_H

#include "core/confd_api.h"

// Keeps msock, registers "entphyentry-snmp" on dctx (a refusal ends the
// process through confd_fatal) and reads the firmware version, once for the
// whole run. Returns 0, or -1 when /etc/firmware_version cannot be read (the
// firmware version then stays empty).
int register_entity(struct confd_daemon_ctx *dctx, int msock);

#endif
