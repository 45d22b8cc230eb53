// The MIB providers, registered by start-up in this order.
#include "daemon.h"

#include "mibs/ipmibimpl.h"
#include "mibs/tcpmibimpl.h"
#include "mibs/udpmibimpl.h"

void register_providers(struct confd_daemon_ctx *dctx, int msock)
{
    register_tcp(dctx, msock);
    register_udp(dctx, msock);
    // Start-up goes on whatever it returns: a refused callpoint was reported on stderr.
    register_ip_mib_cbs(dctx, msock);
}
