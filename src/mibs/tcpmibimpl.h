// TCP-MIB provider: tcp group scalars, tcpConnectionTable and tcpListenerTable ("tcp_status").
#ifndef LEISOBEK_MIBS_TCPMIBIMPL_H
#define LEISOBEK_MIBS_TCPMIBIMPL_H

#include "core/confd_api.h"

// Sets up the provider's caches (empty, due at first use), keeps msock and
// registers get_elem and get_next for the transform callpoint "tcp_status" on
// dctx. Returns 0; a refused registration ends the process through
// confd_fatal with "Failed to register tcp_status transform cb \n".
int register_tcp(struct confd_daemon_ctx *dctx, int msock);

#endif
