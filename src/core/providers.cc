// The MIB providers, registered by start-up in this order.
#include "daemon.h"

#include "mibs/entmibimpl.h"
#include "mibs/tcpmibimpl.h"
#include "mibs/ucdmibimpl.h"
#include "mibs/udpmibimpl.h"

void register_providers(struct confd_daemon_ctx *dctx, int msock)
{
    register_tcp(dctx, msock);
    register_udp(dctx, msock);
    // IP-MIB registers here, between UDP and UCD.
    register_ucd(dctx, msock);
    register_entity(dctx, msock);
}
