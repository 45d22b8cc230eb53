/* ConfD C API: numbers of the log and audit messages carried in event notifications. */
#ifndef LEISOBEK_CONFD_LOGSYMS_H
#define LEISOBEK_CONFD_LOGSYMS_H

/* Only the audit messages this system reacts to or produces are listed; the
 * numbers follow the 6.x release line. */
#define CONFD_WEB_COMMIT 114
#define CONFD_SNMP_AUTHENTICATION_FAILED 115
#define CONFD_LOGIN_REJECTED 116
#define CONFD_COMMIT_INFO 117

/* Size of confd_log_symbols[] and confd_log_descriptions[]: every log number
 * is below it. Entries without a message are NULL. */
#define CONFD_MAXLOGSYMS 256

#ifdef __cplusplus
extern "C" {
#endif

/* Symbolic name of each log number without the CONFD_ prefix
 * ("SNMP_AUTHENTICATION_FAILED"), and a one-line description. */
extern char *confd_log_symbols[];
extern char *confd_log_descriptions[];

#ifdef __cplusplus
}
#endif

#endif /* LEISOBEK_CONFD_LOGSYMS_H */
