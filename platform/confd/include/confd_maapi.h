/* ConfD C API, management agent part (MAAPI): sessions, transactions, reads, writes, cursors, diffs. */
#ifndef LEISOBEK_CONFD_MAAPI_H
#define LEISOBEK_CONFD_MAAPI_H

/* Like the router's SDK, this header is not self-contained: it needs the
 * common types of confd_lib.h, included first. */
#ifndef LEISOBEK_CONFD_LIB_H
#error "include <confd_lib.h> before <confd_maapi.h>"
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Flags for maapi_start_trans_flags*(). */
#define MAAPI_FLAG_HINT_BULK (1 << 0)
#define MAAPI_FLAG_NO_DEFAULTS (1 << 1)
#define MAAPI_FLAG_CONFIG_ONLY (1 << 2)
#define MAAPI_FLAG_HIDE_INACTIVE (1 << 3)

/* Names the calling source line as the client of a session or transaction. */
#define CONFD_MAAPI_STR_(x) #x
#define CONFD_MAAPI_XSTR_(x) CONFD_MAAPI_STR_(x)
#define __MAAPI_CLIENT_ID__ __FILE__ ":" CONFD_MAAPI_XSTR_(__LINE__)

#define maapi_iter_op confd_iter_op
#define maapi_iter_ret confd_iter_ret

/* A walk over the entries of a list. After maapi_get_next(), keys[0..n-1]
 * hold the next entry's keys (owned by the library); n == 0 ends the list. */
struct maapi_cursor {
    confd_value_t keys[MAXKEYLEN];
    int n;
    int hint_bulk;
    char *secondary_index;
    /* library-internal from here on */
    int sock;
    int thandle;
    int cursor_id;
    char *path;
};

/* ---- connection and sessions; all return CONFD_OK, or CONFD_ERR with confd_errno set ---- */

/* Connects an application-created socket to ConfD's MAAPI port. */
extern int maapi_connect(int sock, const struct sockaddr *srv, int srv_sz);
/* Loads the schemas over an already connected MAAPI socket. */
extern int maapi_load_schemas(int sock);
/* Ends the socket's session and closes the socket. */
extern int maapi_close(int sock);
/* Starts the socket's user session. context "system" bypasses access control. */
extern int maapi_start_user_session3(int sock, const char *username, const char *context,
                                     const char **groups, int numgroups,
                                     const struct confd_ip *src_addr, int src_port,
                                     enum confd_proto prot, const char *vendor,
                                     const char *product, const char *version,
                                     const char *client_id);
#define maapi_start_user_session(s, u, c, g, n, a, p) \
    maapi_start_user_session3((s), (u), (c), (g), (n), (a), 0, (p), NULL, NULL, NULL, \
                              __MAAPI_CLIENT_ID__)
#define maapi_start_user_session2(s, u, c, g, n, a, port, p) \
    maapi_start_user_session3((s), (u), (c), (g), (n), (a), (port), (p), NULL, NULL, NULL, \
                              __MAAPI_CLIENT_ID__)
extern int maapi_end_user_session(int sock);

/* ---- transactions ---- */

/* Starts a transaction; returns its handle (>= 0) or CONFD_ERR. usid 0 = the socket's session. */
extern int maapi_start_trans_flags2(int sock, enum confd_dbname dbname,
                                    enum confd_trans_mode readwrite, int usid, int flags,
                                    const char *vendor, const char *product, const char *version,
                                    const char *client_id);
#define maapi_start_trans(s, db, rw) \
    maapi_start_trans_flags2((s), (db), (rw), 0, 0, NULL, NULL, NULL, __MAAPI_CLIENT_ID__)
#define maapi_start_trans2(s, db, rw, usid) \
    maapi_start_trans_flags2((s), (db), (rw), (usid), 0, NULL, NULL, NULL, __MAAPI_CLIENT_ID__)
#define maapi_start_trans_flags(s, db, rw, usid, flags) \
    maapi_start_trans_flags2((s), (db), (rw), (usid), (flags), NULL, NULL, NULL, \
                             __MAAPI_CLIENT_ID__)
/* Ends a transaction; CONFD_ERR_NOEXISTS for an unknown handle. */
extern int maapi_finish_trans(int sock, int thandle);
/* Validates and commits a read-write transaction. */
extern int maapi_apply_trans(int sock, int thandle, int keepopen);
/* Attaches the socket to a transaction ConfD already runs (ctx->thandle);
 * hashed_ns 0 = no default namespace. */
extern int maapi_attach(int sock, int hashed_ns, struct confd_trans_ctx *ctx);
extern int maapi_attach2(int sock, int hashed_ns, int usid, int thandle);
extern int maapi_detach(int sock, struct confd_trans_ctx *ctx);
extern int maapi_detach2(int sock, int thandle);
/* Sets the namespace that relative top-level names in paths resolve in. */
extern int maapi_set_namespace(int sock, int thandle, int hashed_ns);

/* ---- reading. Paths are formats: %d %u %s %x %*x %ip4 %ip6 %h %*h ---- */

/* Reads a leaf. Buffers, lists, OIDs and the like in *v are allocated and
 * must be released with confd_free_value(). CONFD_ERR_NOEXISTS if absent. */
extern int maapi_get_elem(int sock, int thandle, confd_value_t *v, const char *fmt, ...);
extern int maapi_vget_elem(int sock, int thandle, confd_value_t *v, const char *fmt, va_list args);
extern int maapi_get_int32_elem(int sock, int thandle, int32_t *rval, const char *fmt, ...);
extern int maapi_get_u_int32_elem(int sock, int thandle, uint32_t *rval, const char *fmt, ...);
/* *rval is allocated (caller free()s) and holds *bufsiz bytes. */
extern int maapi_get_buf_elem(int sock, int thandle, unsigned char **rval, int *bufsiz,
                              const char *fmt, ...);
/* NUL-terminated copy into buf; CONFD_ERR_PROTOUSAGE if n is too small. */
extern int maapi_get_str_elem(int sock, int thandle, char *buf, int n, const char *fmt, ...);
extern int maapi_get_bool_elem(int sock, int thandle, int *rval, const char *fmt, ...);
extern int maapi_get_enum_value_elem(int sock, int thandle, int32_t *rval, const char *fmt, ...);
extern int maapi_get_identityref_elem(int sock, int thandle, struct confd_identityref *rval,
                                      const char *fmt, ...);
/* 1 if the node exists, 0 if not, CONFD_ERR on failure. */
extern int maapi_exists(int sock, int thandle, const char *fmt, ...);
extern int maapi_vexists(int sock, int thandle, const char *fmt, va_list args);
/* Number of entries of a list, or CONFD_ERR. */
extern int maapi_num_instances(int sock, int thandle, const char *fmt, ...);
extern int maapi_vnum_instances(int sock, int thandle, const char *fmt, va_list args);

/* ---- cursors ---- */

extern int maapi_init_cursor(int sock, int thandle, struct maapi_cursor *mc, const char *fmt, ...);
extern int maapi_vinit_cursor(int sock, int thandle, struct maapi_cursor *mc, const char *fmt,
                              va_list args);
/* Steps to the next entry; mc->n == 0 at the end. */
extern int maapi_get_next(struct maapi_cursor *mc);
/* Positions at the first entry after (or at) the given keys. */
extern int maapi_find_next(struct maapi_cursor *mc, enum confd_find_next_type type,
                           confd_value_t *inkeys, int n_inkeys);
extern void maapi_destroy_cursor(struct maapi_cursor *mc);

/* ---- writing ---- */

extern int maapi_set_elem(int sock, int thandle, confd_value_t *v, const char *fmt, ...);
extern int maapi_vset_elem(int sock, int thandle, confd_value_t *v, const char *fmt, va_list args);
/* Sets a leaf from its string form. */
extern int maapi_set_elem2(int sock, int thandle, const char *strval, const char *fmt, ...);
extern int maapi_vset_elem2(int sock, int thandle, const char *strval, const char *fmt,
                            va_list args);
extern int maapi_create(int sock, int thandle, const char *fmt, ...);
extern int maapi_vcreate(int sock, int thandle, const char *fmt, va_list args);
extern int maapi_delete(int sock, int thandle, const char *fmt, ...);
extern int maapi_vdelete(int sock, int thandle, const char *fmt, va_list args);

/* ---- XPath ---- */

/* Evaluates expr to a string in *res (allocated, caller free()s; NULL on
 * failure). fmtpath is the context node, NULL for the current position. */
extern int maapi_xpath_eval_expr(int sock, int thandle, const char *expr, char **res,
                                 void (*trace)(char *), const char *fmtpath, ...);
/* Evaluates a node-set expression, calling result for every node until it
 * returns ITER_STOP. */
extern int maapi_xpath_eval(int sock, int thandle, const char *expr,
                            int (*result)(confd_hkeypath_t *kp, confd_value_t *v, void *state),
                            void (*trace)(char *), void *initstate, const char *fmtpath, ...);

/* ---- diffs of an attached transaction ---- */

/* Calls iter for each change; oldv is always NULL. CONFD_ERR_BADSTATE
 * without a valid transaction. */
extern int maapi_diff_iterate(int sock, int thandle,
                              enum maapi_iter_ret (*iter)(confd_hkeypath_t *kp,
                                                          enum maapi_iter_op op,
                                                          confd_value_t *oldv,
                                                          confd_value_t *newv, void *state),
                              int flags, void *initstate);
/* As maapi_diff_iterate(), limited to the subtree at fmtpath. */
extern int maapi_keypath_diff_iterate(int sock, int thandle,
                                      enum maapi_iter_ret (*iter)(confd_hkeypath_t *kp,
                                                                  enum maapi_iter_op op,
                                                                  confd_value_t *oldv,
                                                                  confd_value_t *newv,
                                                                  void *state),
                                      int flags, void *initstate, const char *fmtpath, ...);

#ifdef __cplusplus
}
#endif

#endif /* LEISOBEK_CONFD_MAAPI_H */
