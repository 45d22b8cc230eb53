// The router maker's private model MIB: its seven callpoints (device facts, basic and advanced
// management, communities, trap manager, WAN DNS servers, WAN connection).
#ifndef LEISOBEK_MIBS_KELTOPVTMIB_H
#define LEISOBEK_MIBS_KELTOPVTMIB_H

#include "core/confd_api.h"

// Keeps msock for the provider's MAAPI reads and writes and registers, in this
// order, "zamrel_model_mib_common", "zamrel_model_mib_basicmgt",
// "zamrel_model_mib_advancemgt", "zamrel_model_mib_mgtcommunitytable",
// "zamrel_model_mib_trapmgrtable", "zamrel_model_mib_wandnsnetaddresstable"
// and "zamrel_model_mib_wanconnectiontable" on dctx. Returns 0; a refused
// registration ends the process through confd_fatal with that callpoint's text.
int keltopvt_register(struct confd_daemon_ctx *dctx, int msock);

#endif
