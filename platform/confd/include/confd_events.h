/* ConfD C API, event notifications: audit messages, commits, configuration diffs, sessions. */
#ifndef LEISOBEK_CONFD_EVENTS_H
#define LEISOBEK_CONFD_EVENTS_H

/* Like the router's SDK, this header is not self-contained: it needs the
 * common types of confd_lib.h, included first. */
#ifndef LEISOBEK_CONFD_LIB_H
#error "include <confd_lib.h> before <confd_events.h>"
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Event classes; OR them into the mask given to confd_notifications_connect(). */
enum confd_notification_type {
    CONFD_NOTIF_AUDIT = (1 << 0),
    CONFD_NOTIF_DAEMON = (1 << 1),
    CONFD_NOTIF_TAKEOVER_SYSLOG = (1 << 2),
    CONFD_NOTIF_COMMIT_SIMPLE = (1 << 3),
    CONFD_NOTIF_COMMIT_DIFF = (1 << 4),
    CONFD_NOTIF_USER_SESSION = (1 << 5),
    CONFD_NOTIF_HA_INFO = (1 << 6),
    CONFD_NOTIF_SUBAGENT_INFO = (1 << 7),
    CONFD_NOTIF_COMMIT_FAILED = (1 << 8),
    CONFD_NOTIF_SNMPA = (1 << 9),
    CONFD_NOTIF_FORWARD_INFO = (1 << 10),
    CONFD_NOTIF_NETCONF = (1 << 11),
    CONFD_NOTIF_DEVEL = (1 << 12),
    CONFD_NOTIF_HEARTBEAT = (1 << 13),
    CONFD_NOTIF_CONFIRMED_COMMIT = (1 << 14),
    CONFD_NOTIF_UPGRADE_EVENT = (1 << 15),
    CONFD_NOTIF_COMMIT_PROGRESS = (1 << 16),
    CONFD_NOTIF_AUDIT_SYNC = (1 << 17),
    CONFD_NOTIF_HEALTH_CHECK = (1 << 18),
    CONFD_NOTIF_STREAM_EVENT = (1 << 19),
    CONFD_NOTIF_HA_INFO_SYNC = (1 << 20),
    NCS_NOTIF_PACKAGE_RELOAD = (1 << 21),
    NCS_NOTIF_CQ_PROGRESS = (1 << 22),
    CONFD_NOTIF_REOPEN_LOGS = (1 << 23)
};

#define MAX_COMMENT_LEN 256
#define MAX_LABEL_LEN 256

/* Bits of confd_commit_diff_notification.flags. */
#define CONFD_NOTIF_COMMIT_FLAG_CONFIRMED (1 << 0)
#define CONFD_NOTIF_COMMIT_FLAG_CONFIRMED_EXTENDED (1 << 1)

/* An audit message; logno indexes confd_log_symbols[]. */
struct confd_audit_notification {
    int logno;
    char user[MAXUSERNAMELEN];
    char msg[BUFSIZ];
    int usid; /* 0 when no session is involved */
};

/* A log message ConfD would otherwise have written to syslog. */
struct confd_syslog_notification {
    int prio; /* syslog priority */
    int logno;
    char msg[BUFSIZ];
};

/* A committed transaction, without its changes. */
struct confd_commit_notification {
    enum confd_dbname database;
    int diff_available;
    struct confd_user_info uinfo;
    int flags; /* CONFD_NOTIF_COMMIT_FLAG_* */
};

/* A commit whose changes can be read with maapi_attach() and
 * maapi_diff_iterate() on tctx; the commit waits until
 * confd_diff_notification_done() is called. */
struct confd_commit_diff_notification {
    enum confd_dbname database;
    struct confd_user_info uinfo;
    struct confd_trans_ctx *tctx;
    int flags; /* CONFD_NOTIF_COMMIT_FLAG_* */
    char comment[MAX_COMMENT_LEN];
    char label[MAX_LABEL_LEN];
};

enum confd_user_sess_type {
    CONFD_USER_SESS_START = 1,
    CONFD_USER_SESS_STOP = 2,
    CONFD_USER_SESS_LOCK = 3,
    CONFD_USER_SESS_UNLOCK = 4,
    CONFD_USER_SESS_START_TRANS = 5,
    CONFD_USER_SESS_STOP_TRANS = 6
};

/* A user session started, stopped, locked or unlocked a datastore. */
struct confd_user_sess_notification {
    enum confd_user_sess_type type;
    struct confd_user_info uinfo;
    enum confd_dbname database;
};

enum confd_snmp_pdu_type {
    CONFD_SNMPA_PDU_V1TRAP = 1,
    CONFD_SNMPA_PDU_V2TRAP = 2,
    CONFD_SNMPA_PDU_INFORM = 3,
    CONFD_SNMPA_PDU_GET_RESPONSE = 4,
    CONFD_SNMPA_PDU_GET_REQUEST = 5,
    CONFD_SNMPA_PDU_GET_NEXT_REQUEST = 6,
    CONFD_SNMPA_PDU_REPORT = 7,
    CONFD_SNMPA_PDU_GET_BULK_REQUEST = 8,
    CONFD_SNMPA_PDU_SET_REQUEST = 9
};

/* The generic and enterprise parts of an SNMPv1 trap. */
struct confd_v1_trap_info {
    struct confd_snmp_oid enterprise;
    int generic_trap;
    int specific_trap;
    int time_stamp;
};

/* A PDU the SNMP agent sent or received. */
struct confd_snmpa_notification {
    enum confd_snmp_pdu_type pdu_type;
    int request_id;
    struct confd_ip ip;
    uint16_t port;
    int error_status;
    int error_index;
    int num_variables;
    struct confd_snmp_varbind *vb; /* values are C_BUF text */
    struct confd_v1_trap_info *v1_trap; /* NULL unless pdu_type is V1TRAP */
};

/* One event read from a notification socket. */
struct confd_notification {
    enum confd_notification_type type;
    union {
        struct confd_audit_notification audit;
        struct confd_syslog_notification syslog;
        struct confd_commit_notification commit;
        struct confd_commit_diff_notification commit_diff;
        struct confd_user_sess_notification user_sess;
        struct confd_snmpa_notification snmpa;
    } n;
};

/* Connects an application-created socket to ConfD and subscribes to the
 * event classes in mask. CONFD_OK, or CONFD_ERR (close and recreate the socket). */
extern int confd_notifications_connect(int sock, const struct sockaddr *srv, int srv_sz, int mask);
/* Reads one event into *n; CONFD_OK, CONFD_EOF when ConfD closed the socket, or CONFD_ERR. */
extern int confd_read_notification(int sock, struct confd_notification *n);
/* Releases what confd_read_notification() allocated in *n; call after every event. */
extern void confd_free_notification(struct confd_notification *n);
/* Lets the commit behind a COMMIT_DIFF event go on; frees the library's tctx. */
extern int confd_diff_notification_done(int sock, struct confd_trans_ctx *tctx);
/* Releases the session blocked by an AUDIT_SYNC event. */
extern int confd_sync_audit_notification(int sock, int usid);

#ifdef __cplusplus
}
#endif

#endif /* LEISOBEK_CONFD_EVENTS_H */
