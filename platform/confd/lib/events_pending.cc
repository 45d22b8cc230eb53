// Event-notification operations the emulated library does not serve yet: each fails with CONFD_ERR_NOT_IMPLEMENTED.
#include "confd_events.h"
#include "lib_internal.h"

namespace {

int not_implemented() { return confd_lib_fail(CONFD_ERR_NOT_IMPLEMENTED, "not implemented"); }

} // namespace

extern "C" {

int confd_notifications_connect(int, const struct sockaddr *, int, int) { return not_implemented(); }
int confd_read_notification(int, struct confd_notification *) { return not_implemented(); }
void confd_free_notification(struct confd_notification *) { not_implemented(); }
int confd_diff_notification_done(int, struct confd_trans_ctx *) { return not_implemented(); }
int confd_sync_audit_notification(int, int) { return not_implemented(); }

} // extern "C"
