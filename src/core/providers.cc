// The MIB providers, registered by start-up in this order.
#include "daemon.h"

#include "mibs/tcpmibimpl.h"
#include "mibs/udpmibimpl.h"

#include "mibs/lldpmib.h"

void register_providers(struct confd_daemon_ctx *dctx, int msock)
{
    register_tcp(dctx, msock);
    register_udp(dctx, msock);

    // LLDP-MIB: always the last provider.
    lldp_register(dctx, msock);
}
