// The MIB providers, registered by start-up in this order.
#include "daemon.h"

#include "mibs/entmibimpl.h"
#include "mibs/ifstate.h"
#include "mibs/ipmibimpl.h"
#include "mibs/keltopvtmib.h"
#include "mibs/lldpmib.h"
#include "mibs/tcpmibimpl.h"
#include "mibs/ucdmibimpl.h"
#include "mibs/udpmibimpl.h"

#include <cstdlib>

void register_providers(struct confd_daemon_ctx *dctx, int msock)
{
    if_state_register(dctx, msock);
    register_tcp(dctx, msock);
    register_udp(dctx, msock);
    // The IP registration reports a refused callpoint on stderr and returns
    // -1; the daemon does not run on without it.
    if (register_ip_mib_cbs(dctx, msock) != 0) exit(1);
    register_ucd(dctx, msock);
    register_entity(dctx, msock);
    keltopvt_register(dctx, msock);

    // LLDP-MIB: always the last provider.
    lldp_register(dctx, msock);
}
