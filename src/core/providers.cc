// The MIB providers, registered by start-up in this order.
#include "daemon.h"

void register_providers(struct confd_daemon_ctx *dctx, int msock)
{
    (void)dctx;
    (void)msock;
}
