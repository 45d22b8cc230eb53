/* In-process access to a daemon's registered callbacks, for unit tests. */
#ifndef LEISOBEK_CONFD_INPROC_H
#define LEISOBEK_CONFD_INPROC_H

/* Part of the emulated library only: tests use it to drive providers through
 * the callbacks they registered, with no ConfD server. A daemon context that
 * was never connected registers its callbacks locally, so a provider's own
 * registration function can be called as it is. */

#include "confd_lib.h"
#include "confd_dp.h"
#include "lib_internal.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The data callbacks registered for callpoint on dx; NULL if none. */
extern const struct confd_data_cbs *confd_inproc_data_cbs(struct confd_daemon_ctx *dx,
                                                          const char *callpoint);
/* The transaction callbacks registered on dx; NULL if none. */
extern const struct confd_trans_cbs *confd_inproc_trans_cbs(struct confd_daemon_ctx *dx);

/* What the last reply of an in-process transaction was. */
enum confd_inproc_reply {
    CONFD_INPROC_NONE = 0,        /* no reply since the last reset */
    CONFD_INPROC_VALUE,           /* confd_data_reply_value(): values[0] */
    CONFD_INPROC_NEXT_KEY,        /* confd_data_reply_next_key(): values = keys, next */
    CONFD_INPROC_NEXT_END,        /* end of list (a NULL key or object array) */
    CONFD_INPROC_NOT_FOUND,       /* confd_data_reply_not_found() */
    CONFD_INPROC_FOUND,           /* confd_data_reply_found() */
    CONFD_INPROC_DONE,            /* confd_delayed_reply_ok() */
    CONFD_INPROC_VALUE_ARRAY,     /* confd_data_reply_value_array(): values */
    CONFD_INPROC_TAG_VALUE_ARRAY, /* confd_data_reply_tag_value_array(): values and tags */
    CONFD_INPROC_NEXT_OBJECTS,    /* next_object replies: values of all objects in a row */
    CONFD_INPROC_ERROR,           /* confd_delayed_reply_error(): error, error_code */
    CONFD_INPROC_TRANS_INIT_DONE  /* confd_delayed_reply_ok() on a delayed init() */
};

/* Captured reply. Pointers stay valid until the next reply or reset. */
struct confd_inproc_capture {
    enum confd_inproc_reply kind; /* the last reply */
    int nreplies;                 /* replies since the last reset */
    int nvalues;
    const confd_value_t *values;  /* decoded as the server would see them */
    const struct xml_tag *tags;   /* TAG_VALUE_ARRAY: the tag of each value */
    long next;                    /* NEXT_KEY / NEXT_OBJECTS: the cookie (last object's) */
    int nobjects;                 /* NEXT_OBJECTS: number of objects */
    int error_code;               /* ERROR: the confd_errcode */
    char error[CONFD_ERROR_STR_LEN]; /* ERROR: the text */
};

/* A transaction context on dx whose replies are captured instead of sent.
 * Any reply function may be called on it at any time. NULL if dx is not a
 * daemon context. Free it with confd_inproc_free_trans(). */
extern struct confd_trans_ctx *confd_inproc_trans(struct confd_daemon_ctx *dx,
                                                  enum confd_trans_mode mode,
                                                  enum confd_dbname dbname, int thandle);
/* The capture of an in-process transaction; NULL for any other context. */
extern const struct confd_inproc_capture *confd_inproc_captured(struct confd_trans_ctx *tctx);
/* Forgets the captured replies (kind NONE, nreplies 0). */
extern void confd_inproc_reset(struct confd_trans_ctx *tctx);
/* Frees an in-process transaction context. */
extern void confd_inproc_free_trans(struct confd_trans_ctx *tctx);

#ifdef __cplusplus
}
#endif

#endif /* LEISOBEK_CONFD_INPROC_H */
