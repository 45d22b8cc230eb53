/* ConfD C API: numbers of the log and audit messages carried in event notifications. */
#ifndef LEISOBEK_CONFD_LOGSYMS_H
#define LEISOBEK_CONFD_LOGSYMS_H

/* Only the audit messages this system reacts to or produces are listed. The
 * numbers follow the 6.6 release and move between releases (the SNMP
 * authentication failure is another number in later ones), so applications
 * match a message by its name in confd_log_symbols[] (confd_lib.h). */
#define CONFD_WEB_COMMIT 114
#define CONFD_SNMP_AUTHENTICATION_FAILED 115
#define CONFD_LOGIN_REJECTED 116
#define CONFD_COMMIT_INFO 117

#endif /* LEISOBEK_CONFD_LOGSYMS_H */
