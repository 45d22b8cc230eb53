// Definitions of the daemon's process-wide state.
#include "state.h"

int debug_level = CONFD_SILENT;
int verbose = 0;
struct sockaddr_in confd_addr;
struct confd_daemon_ctx *daemon_ctx = nullptr;
int ctl_sock = -1;
int worker_sock = -1;
int maapi_sock = -1;
struct confd_trans_cbs trans_cbs;
struct confd_notification_ctx *snmp_notif_ctx = nullptr;
char PRODUCT_ID[32];
pthread_rwlock_t ifstate_rwlock;
