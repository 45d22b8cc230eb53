// The audit listener thread: SNMP authentication failures and the last commit's audit line.
#ifndef LEISOBEK_NOTIFY_AUDIT_H
#define LEISOBEK_NOTIFY_AUDIT_H

// Thread body started at the end of start-up with no argument; never joined.
// Returns null.
void *audit_thread(void *arg);

#endif
