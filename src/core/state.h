// The daemon's process-wide state: ConfD connections, switches and the interface-state lock.
//
// Everything here is set during start-up on the main thread and lives until
// the process ends; nothing is ever freed or reset.
#ifndef LEISOBEK_CORE_STATE_H
#define LEISOBEK_CORE_STATE_H

#include "confd_api.h"

#include <netinet/in.h>
#include <pthread.h>

// ConfD library debug level (CONFD_SILENT..CONFD_PROTO_TRACE); the audit
// listener initialises its own library context with it too.
extern int debug_level;
// Set to 1 first thing at start-up; gates the product-identifier log line.
extern int verbose;
// 127.0.0.1:4565, used for every ConfD connection of the main thread.
extern struct sockaddr_in confd_addr;
extern struct confd_daemon_ctx *daemon_ctx;
extern int ctl_sock;
// Serves the data requests and carries every SNMP notification.
extern int worker_sock;
// Connected at start-up; handed to each provider and used by the transaction callbacks.
extern int maapi_sock;
// Only init and finish are set.
extern struct confd_trans_cbs trans_cbs;
// Shared by all notification senders, on any thread, without a lock.
extern struct confd_notification_ctx *snmp_notif_ctx;
// The router's product identifier. Start-up never fills it, so it stays
// empty for the life of the process (the interface-state provider compares
// against it and so never reads the WLAN port statistics).
extern char PRODUCT_ID[32];
// Guards the interface-state records; taken on the main thread only.
extern pthread_rwlock_t ifstate_rwlock;

#endif
