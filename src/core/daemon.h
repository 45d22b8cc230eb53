// Start-up and main loop of the leisobek daemon.
#ifndef LEISOBEK_CORE_DAEMON_H
#define LEISOBEK_CORE_DAEMON_H

#include "confd_api.h"

// Runs the daemon: parses the switches, connects to ConfD on 127.0.0.1:4565,
// announces the agent, registers every provider and serves ConfD forever.
// Never returns; every failure ends the process with status 1 and its own
// message on stderr.
[[noreturn]] void daemon_main(int argc, char *argv[]);

// Calls each MIB provider's registration function, in the fixed order of
// start-up. Failures are fatal inside the providers.
void register_providers(struct confd_daemon_ctx *dctx, int msock);

// The command whose answer is the router's product identifier.
constexpr const char PRODUCT_ID_COMMAND[] = "uci get systeminfo.sysinfo.pid | cut -d'-' -f1";

#endif
