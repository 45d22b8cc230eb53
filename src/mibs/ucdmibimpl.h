// UCD-SNMP-MIB provider: the "memory_stats", "sys_stats", "version_info" and "process_info"
// transforms.
#ifndef LEISOBEK_MIBS_UCDMIBIMPL_H
#define LEISOBEK_MIBS_UCDMIBIMPL_H

#include "core/confd_api.h"

// Keeps msock, registers the four transforms on dctx in this order (a
// refused one ends the process through confd_fatal with its own text), then
// takes the process snapshot that prTable serves for the whole run. Returns
// 0, or -1 when the snapshot file could not be read (the table is then
// empty).
int register_ucd(struct confd_daemon_ctx *dctx, int msock);

#endif
