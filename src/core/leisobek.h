// What every MIB provider shares: transaction callbacks, CONFD_OK check, traces, MAAPI helpers.
//
// A provider registers its callpoints from one function
// register_<area>(daemon_ctx, maapi_sock): it keeps the MAAPI socket in its
// own state, fills a struct confd_data_cbs per callpoint (unused callbacks
// null), calls confd_register_data_cb and ends the process through
// confd_fatal with its own text when that fails. Its callbacks run on the
// main thread, one request at a time, inside the main loop.
#ifndef LEISOBEK_CORE_LEISOBEK_H
#define LEISOBEK_CORE_LEISOBEK_H

#include "confd_api.h"
#include "trace.h"

#include <cstdio>

// One heap-allocated MAAPI cursor kept by a transaction. ConfD's cursor
// structure has no link of its own, so the daemon chains them here.
struct cursor_link {
    struct maapi_cursor *cursor;
    struct cursor_link *next;
};

// Per-transaction record, allocated zero-filled by trans_init into
// tctx->t_opaque and released by trans_finish together with what it holds.
struct trans_record {
    char *buf;                   // heap buffer, freed at finish when set
    struct cursor_link *cursors; // heap-allocated cursors, destroyed and freed at finish
};

// Transaction init: attaches the start-up MAAPI socket to the transaction,
// serves it on the worker socket and allocates its trans_record. Returns
// CONFD_OK; a failed attach ends the process with status 1.
int trans_init(struct confd_trans_ctx *tctx);

// Transaction finish: frees the trans_record with its buffer and cursors and
// detaches the MAAPI socket. Returns CONFD_OK; a failed detach ends the
// process with status 1.
int trans_finish(struct confd_trans_ctx *tctx);

// Returns when result is CONFD_OK. Otherwise prints
// "leisobek.h:<line>: error not CONFD_OK: <confd_errno> : <confd_lasterr()> "
// to stderr and exits with status 1. line is the caller's own number.
void check_confd_ok(int result, int line);

// Starts a "system" user session on sock (ends the process with status 1 on
// failure) and a read-only transaction on the running datastore. Returns the
// transaction handle, or CONFD_ERR. The caller ends both with
// maapi_finish_trans and maapi_end_user_session.
int start_system_trans(int sock);

// Evaluates the XPath expression expr to a string in transaction thandle, with
// path as the context node (null: the current position), on the start-up
// MAAPI socket. When ConfD returns a string it is stored in *result_out and the
// caller frees it. Returns the ConfD result code.
int xpath_eval(int thandle, const char *expr, const char *path, char **result_out);

// Write callbacks of a status table that ConfD may still call: each accepts
// the request, changes nothing and returns CONFD_OK.
int ignore_set_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval);
int ignore_create(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp);
int ignore_remove(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp);

#endif
