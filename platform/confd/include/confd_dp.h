/* ConfD C API, data-provider part: daemon context, callbacks, replies and SNMP notifications. */
#ifndef LEISOBEK_CONFD_DP_H
#define LEISOBEK_CONFD_DP_H

/* Like the router's SDK, this header is not self-contained: it needs the
 * common types of confd_lib.h, included first. */
#ifndef LEISOBEK_CONFD_LIB_H
#error "include <confd_lib.h> before <confd_dp.h>"
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Flags for confd_set_daemon_flags(). */
#define CONFD_DAEMON_FLAG_SEND_IKP (1 << 0)
#define CONFD_DAEMON_FLAG_STRINGSONLY (1 << 1)
#define CONFD_DAEMON_FLAG_NO_DEFAULTS (1 << 2)
#define CONFD_DAEMON_FLAG_REG_REPLACE_DISCONNECT (1 << 4)
#define CONFD_DAEMON_FLAG_LEAF_LIST_AS_LEAF (1 << 5)
#define CONFD_DAEMON_FLAG_PREFER_BULK_GET (1 << 6)
#define CONFD_DAEMON_FLAG_BULK_GET_CONTAINER (1 << 7)

/* One connected data-provider daemon. */
struct confd_daemon_ctx {
    char name[MAX_DAEMON_NAME_LEN];
    int flags;
    void *d_opaque; /* free for the application */
    /* library-internal from here on */
    void *lib_internal;
};

enum confd_sock_type {
    CONTROL_SOCKET, /* new-transaction and other quick requests */
    WORKER_SOCKET   /* transaction and data callbacks */
};

/* Transaction callbacks; only init is required, a NULL one means CONFD_OK. */
struct confd_trans_cbs {
    int (*init)(struct confd_trans_ctx *tctx);
    int (*trans_lock)(struct confd_trans_ctx *tctx);
    int (*trans_unlock)(struct confd_trans_ctx *tctx);
    int (*write_start)(struct confd_trans_ctx *tctx);
    int (*prepare)(struct confd_trans_ctx *tctx);
    int (*abort)(struct confd_trans_ctx *tctx);
    int (*commit)(struct confd_trans_ctx *tctx);
    int (*finish)(struct confd_trans_ctx *tctx);
    void (*interrupt)(struct confd_trans_ctx *tctx);
};

/* Data callbacks of one callpoint. The order of the members is part of the
 * API: applications fill this struct with positional initialisers. */
struct confd_data_cbs {
    char callpoint[MAX_CALLPOINT_LEN];
    int (*exists_optional)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp);
    int (*get_elem)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp);
    int (*get_next)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next);
    int (*set_elem)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval);
    int (*create)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp);
    int (*remove)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp);
    int (*find_next)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                     enum confd_find_next_type type, confd_value_t *keys, int nkeys);
    int (*num_instances)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp);
    int (*get_object)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp);
    int (*get_next_object)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next);
    int (*find_next_object)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                            enum confd_find_next_type type, confd_value_t *keys, int nkeys);
    int (*get_case)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *choice);
    int (*set_case)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *choice,
                    confd_value_t *caseval);
    int (*get_attrs)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, uint32_t *attrs,
                     int num_attrs);
    int (*set_attr)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, uint32_t attr,
                    confd_value_t *v);
    int (*move_after)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                      confd_value_t *prevkeys);
    int (*write_all)(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp);
    void *cb_opaque; /* handed to the callbacks as tctx->cb_opaque */
};

/* One list entry in a bulk get_next_object reply. */
struct confd_next_object {
    confd_value_t *v; /* the entry's leaves in schema order */
    int n;            /* number of values at v */
    long next;        /* cookie for the following get_next_object */
};

/* A sender of SNMP notifications (or a notification stream). */
struct confd_notification_ctx {
    char *name;     /* snmpNotifyName, or stream name */
    char *ctx_name; /* SNMP context */
    int fd;         /* the worker socket the notifications go out on */
    struct confd_daemon_ctx *dx;
    struct confd_error error;
    void *cb_opaque;
    /* library-internal from here on */
    void *lib_internal;
};

/* A management target an SNMP inform went to. */
struct confd_snmp_target {
    confd_value_t address; /* C_IPV4 or C_IPV6 */
    uint16_t port;
};

/* Callbacks reporting where an SNMP inform went and whether it was answered;
 * called on the control socket. */
struct confd_notification_snmp_inform_cbs {
    char cb_id[MAX_CALLPOINT_LEN];
    void (*targets)(struct confd_notification_ctx *nctx, int ref,
                    struct confd_snmp_target *targets, int num_targets);
    void (*result)(struct confd_notification_ctx *nctx, int ref, struct confd_snmp_target *target,
                   int got_response);
    void *cb_opaque;
};

/* ---- daemon set-up ---- */

/* New daemon context named name; NULL on failure (confd_errno set). */
extern struct confd_daemon_ctx *confd_init_daemon(const char *name);
/* Sets CONFD_DAEMON_FLAG_* bits; call before connecting. CONFD_OK or CONFD_ERR. */
extern int confd_set_daemon_flags(struct confd_daemon_ctx *dx, int flags);
/* Frees the context; the application closes the sockets itself. */
extern void confd_release_daemon(struct confd_daemon_ctx *dx);
/* Connects an application-created socket to ConfD as the daemon's control or
 * a worker socket. CONFD_OK, or CONFD_ERR (close and recreate the socket). */
extern int confd_connect(struct confd_daemon_ctx *dx, int sock, enum confd_sock_type type,
                         const struct sockaddr *srv, int addrsz);
/* Registers the transaction callbacks; CONFD_OK or CONFD_ERR. */
extern int confd_register_trans_cb(struct confd_daemon_ctx *dx, const struct confd_trans_cbs *trans);
/* Registers the data callbacks of one callpoint; CONFD_OK or CONFD_ERR. */
extern int confd_register_data_cb(struct confd_daemon_ctx *dx, const struct confd_data_cbs *data);
/* Registers data callbacks for the key range [lower, upper] of the list at fmt. */
extern int confd_register_range_data_cb(struct confd_daemon_ctx *dx,
                                        const struct confd_data_cbs *data,
                                        const confd_value_t *lower, const confd_value_t *upper,
                                        int numkeys, const char *fmt, ...);
/* Ends registration; callbacks start after it. CONFD_OK or CONFD_ERR. */
extern int confd_register_done(struct confd_daemon_ctx *dx);
/* Reads and serves one request from fd. Returns the callback's result:
 * CONFD_OK, CONFD_ERR (confd_errno CONFD_ERR_EXTERNAL when the callback
 * failed, anything else when the library did) or CONFD_EOF. */
extern int confd_fd_ready(struct confd_daemon_ctx *dx, int fd);
/* Chooses the worker socket that serves the transaction. */
extern void confd_trans_set_fd(struct confd_trans_ctx *tctx, int sock);

/* ---- data replies; each returns CONFD_OK, or CONFD_ERR if the reply could not be sent ---- */

extern int confd_data_reply_value(struct confd_trans_ctx *tctx, const confd_value_t *v);
extern int confd_data_reply_value_array(struct confd_trans_ctx *tctx, const confd_value_t *vs,
                                        int n);
extern int confd_data_reply_tag_value_array(struct confd_trans_ctx *tctx,
                                            const confd_tag_value_t *tvs, int n);
/* v == NULL ends the list; next == -1 asks for find_next with these keys. */
extern int confd_data_reply_next_key(struct confd_trans_ctx *tctx, const confd_value_t *v,
                                     int num_vals_in_key, long next);
extern int confd_data_reply_not_found(struct confd_trans_ctx *tctx);
extern int confd_data_reply_found(struct confd_trans_ctx *tctx);
extern int confd_data_reply_next_object_array(struct confd_trans_ctx *tctx,
                                              const confd_value_t *v, int n, long next);
extern int confd_data_reply_next_object_tag_value_array(struct confd_trans_ctx *tctx,
                                                        const confd_tag_value_t *tv, int n,
                                                        long next);
extern int confd_data_reply_next_object_arrays(struct confd_trans_ctx *tctx,
                                               const struct confd_next_object *obj, int nobj,
                                               int timeout_millisecs);

/* Replies to a request whose callback returned CONFD_DELAYED_RESPONSE. */
extern int confd_delayed_reply_ok(struct confd_trans_ctx *tctx);
extern int confd_delayed_reply_error(struct confd_trans_ctx *tctx, const char *errstr);
/* Asks ConfD to wait secs more seconds for the reply. */
extern int confd_data_set_timeout(struct confd_trans_ctx *tctx, int secs);

/* Sets the error text sent with the next callback result CONFD_ERR. */
extern void confd_trans_seterr(struct confd_trans_ctx *tctx, const char *fmt, ...)
    CONFD_PRINTF_ATTR_(2, 3);
extern void confd_trans_seterr_extended(struct confd_trans_ctx *tctx, enum confd_errcode code,
                                        uint32_t apptag_ns, uint32_t apptag_tag,
                                        const char *fmt, ...) CONFD_PRINTF_ATTR_(5, 6);

/* ---- SNMP notifications ---- */

/* Makes fd (a connected worker socket) a sender of SNMP notifications to the
 * targets of notify_name in context ctx_name; *nctx receives the sender. */
extern int confd_register_snmp_notification(struct confd_daemon_ctx *dx, int fd,
                                            const char *notify_name, const char *ctx_name,
                                            struct confd_notification_ctx **nctx);
/* Sends a notification (NOTIFICATION-TYPE name) with its variable bindings. */
extern int confd_notification_send_snmp(struct confd_notification_ctx *nctx,
                                        const char *notification,
                                        struct confd_snmp_varbind *varbinds, int num_vars);
/* As above, as an inform; cb_id names the inform callbacks, ref is passed to them. */
extern int confd_notification_send_snmp_inform(struct confd_notification_ctx *nctx,
                                               const char *notification,
                                               struct confd_snmp_varbind *varbinds, int num_vars,
                                               const char *cb_id, int ref);
extern int confd_register_notification_snmp_inform_cb(
    struct confd_daemon_ctx *dx, const struct confd_notification_snmp_inform_cbs *cb);
extern void confd_notification_set_snmp_src_addr(struct confd_notification_ctx *nctx,
                                                 const struct confd_ip *src_addr);
extern int confd_notification_set_snmp_notify_name(struct confd_notification_ctx *nctx,
                                                   const char *notify_name);
/* Waits until everything sent on nctx has been handed over. */
extern int confd_notification_flush(struct confd_notification_ctx *nctx);

#ifdef __cplusplus
}
#endif

#endif /* LEISOBEK_CONFD_DP_H */
