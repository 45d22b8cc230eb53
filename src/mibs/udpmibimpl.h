// UDP-MIB provider: the "udp_status" callpoint (udp group scalars and udpEndpointTable).
#ifndef LEISOBEK_MIBS_UDPMIBIMPL_H
#define LEISOBEK_MIBS_UDPMIBIMPL_H

#include "core/confd_api.h"

// Sets up the provider's caches (empty, due at first use), keeps msock and
// registers the get_elem and get_next callbacks of "udp_status" on dctx.
// Returns 0; a refused registration ends the process through confd_fatal
// ("Failed to register udp_status transform cb \n").
int register_udp(struct confd_daemon_ctx *dctx, int msock);

#endif
