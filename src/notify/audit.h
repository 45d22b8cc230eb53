// The audit listener thread: SNMP authentication failures and the last commit's audit line.
//
// The thread has its own ConfD library context ("AuditSNMP"), its own event
// notification socket (audit and commit-diff events) and a MAAPI connection
// per commit. It shares only the SNMP notification context and the debug
// level with the main thread, without a lock.
#ifndef LEISOBEK_NOTIFY_AUDIT_H
#define LEISOBEK_NOTIFY_AUDIT_H

#include "core/confd_api.h"

// The file that holds the time and user of the last commit. The router's
// scripts create it; the daemon only rewrites it when it exists.
constexpr const char AUDIT_LAST_LOG[] = "/tmp/snmp_audit_last_log";

// Thread body started at the end of start-up with no argument; never joined.
// Runs until the notification socket fails, and then ends the whole process
// with status 1. Set-up failures are fatal through confd_fatal.
void *audit_thread(void *arg);

// Handles one event read from the notification socket notif_sock: an audit
// event whose log symbol names a failed SNMP authentication sends
// authenticationFailure; a commit-diff event iterates the commit's changes on
// a MAAPI connection of its own, answers the event and writes the audit line.
// Other events are ignored.
void audit_handle_notification(int notif_sock, struct confd_notification *n);

// The name of an attribute given as a C_UINT32 value: "TAGS", "ANNOTATIONS",
// "INACTIVE", or null for any other attribute. Another value type aborts.
const char *attr_str(confd_value_t *v);

// Diff iterator of a commit: formats each change (keypath, new value, moved
// position or attribute) into bounded local buffers and answers ITER_RECURSE.
// The text is not output anywhere.
enum maapi_iter_ret diff_printer(confd_hkeypath_t *kp, enum maapi_iter_op op, confd_value_t *oldv,
                                 confd_value_t *newv, void *state);

// Rewrites AUDIT_LAST_LOG with text and a newline when the file exists;
// never creates it.
void write_audit_last_log(const char *text);

#endif
