/* Names and descriptions of the log and audit message numbers carried in event notifications. */
#include "confd_logsyms.h"
#include "lib_internal.h"

char *confd_log_symbols[CONFD_MAXLOGSYMS] = {
    [CONFD_WEB_COMMIT] = "WEB_COMMIT",
    [CONFD_SNMP_AUTHENTICATION_FAILED] = "SNMP_AUTHENTICATION_FAILED",
    [CONFD_LOGIN_REJECTED] = "LOGIN_REJECTED",
    [CONFD_COMMIT_INFO] = "COMMIT_INFO",
};

char *confd_log_descriptions[CONFD_MAXLOGSYMS] = {
    [CONFD_WEB_COMMIT] = "A configuration change was committed through the web interface.",
    [CONFD_SNMP_AUTHENTICATION_FAILED] = "An SNMP request failed authentication.",
    [CONFD_LOGIN_REJECTED] = "A user was refused at login.",
    [CONFD_COMMIT_INFO] = "Details of a committed configuration change.",
};
