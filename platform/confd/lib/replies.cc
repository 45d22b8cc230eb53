// Replies of data and transaction callbacks (immediate and delayed), callback error texts, confd_trans_set_fd.
#include <cstdarg>
#include <cstring>
#include <initializer_list>

#include "dp_internal.h"
#include "lib_core.h"

using confd_wire::DataCb;
using confd_wire::Op;
using confd_wire::ReplyKind;
using confd_wire::TransCb;
using confd_wire::Writer;

namespace libconfd {

Writer reply_frame(uint32_t rid, ReplyKind kind)
{
    Writer w(Op::Reply);
    w.u32(rid).u8(static_cast<uint8_t>(kind));
    return w;
}

std::string error_reply(uint32_t rid, int result, struct confd_trans_ctx *tctx,
                        const std::string &fallback, std::string &text)
{
    TransState *ts = trans_state(tctx);
    int code = CONFD_ERRCODE_APPLICATION;
    text.clear();
    if (ts != nullptr && ts->error_set) {
        code = tctx->error.code;
        text = ts->error_text;
    }
    if (text.empty())
        text = fallback;
    if (tctx != nullptr) {
        // The text belongs to this error only.
        tctx->error = confd_error{};
        if (ts != nullptr) {
            ts->error_set = false;
            ts->error_text.clear();
        }
    }
    Writer w = reply_frame(rid, ReplyKind::Error);
    w.i32(result).i32(code).str(text);
    return w.payload();
}

int deliver(struct confd_trans_ctx *tctx, const std::string &payload)
{
    TransState *ts = trans_state(tctx);
    ts->pending.active = false;
    if (ts->pending.gather != nullptr) {
        ts->pending.gather->push_back(payload);
        return CONFD_OK;
    }
    if (ts->pending.drop)
        return CONFD_OK;
    if (ts->capture) {
        ts->capture->take(payload);
        return CONFD_OK;
    }
    if (!send_payload(ts->pending.fd, payload))
        return confd_lib_fail(CONFD_ERR_OS, "sending a reply on socket %d: %s", ts->pending.fd,
                              strerror(errno));
    return CONFD_OK;
}

std::string trans_ok_reply(struct confd_trans_ctx *tctx, uint32_t rid, int cb)
{
    if (cb != kTransBase + static_cast<int>(TransCb::Init))
        return reply_frame(rid, ReplyKind::Done).payload();
    uint32_t worker_id = 0;
    DaemonState *st = daemon_state(tctx->dx);
    if (st != nullptr) {
        auto it = st->workers.find(tctx->fd);
        if (it != st->workers.end())
            worker_id = it->second;
    }
    Writer w = reply_frame(rid, ReplyKind::TransInitDone);
    w.u32(worker_id);
    return w.payload();
}

namespace {

// Checks that a reply of this kind may be sent now: a request must be
// waiting and be of one of the allowed kinds (in-process transactions accept
// any reply). CONFD_OK, or CONFD_ERR with CONFD_ERR_PROTOUSAGE.
int check_reply(struct confd_trans_ctx *tctx, const char *fn, std::initializer_list<DataCb> allowed)
{
    TransState *ts = trans_state(tctx);
    if (ts == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: not a transaction of this library", fn);
    if (ts->capture)
        return CONFD_OK;
    if (!ts->pending.active)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: no request is waiting for a reply", fn);
    for (DataCb cb : allowed)
        if (ts->pending.cb == static_cast<int>(cb))
            return CONFD_OK;
    return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s is not a reply to %s()", fn,
                          cb_name(ts->pending.cb));
}

// Appends n values; CONFD_ERR (CONFD_ERR_BADTYPE) if one cannot be sent.
int put_values(Writer &w, const confd_value_t *vs, int n, const char *fn)
{
    for (int i = 0; i < n; i++) {
        confd_wire::Value v;
        std::string err;
        if (!to_wire(vs[i], v, err))
            return confd_lib_fail(CONFD_ERR_BADTYPE, "%s: value %d: %s", fn, i, err.c_str());
        w.value(v);
    }
    return CONFD_OK;
}

int put_tag_values(Writer &w, const confd_tag_value_t *tvs, int n, const char *fn)
{
    for (int i = 0; i < n; i++) {
        w.u32(tvs[i].tag.tag).u32(tvs[i].tag.ns);
        if (put_values(w, &tvs[i].v, 1, fn) != CONFD_OK)
            return CONFD_ERR;
    }
    return CONFD_OK;
}

uint32_t rid_of(struct confd_trans_ctx *tctx) { return trans_state(tctx)->pending.rid; }

// A get_object reply of n items: u32 n, then what `put` writes of them.
template <typename T>
int reply_array(struct confd_trans_ctx *tctx, const char *fn, ReplyKind kind, const T *items,
                int n, int (*put)(Writer &, const T *, int, const char *))
{
    if (check_reply(tctx, fn, {DataCb::GetObject}) != CONFD_OK)
        return CONFD_ERR;
    if (n < 0 || (n > 0 && items == nullptr))
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: bad value array", fn);
    Writer w = reply_frame(rid_of(tctx), kind);
    w.u32(static_cast<uint32_t>(n));
    if (put(w, items, n, fn) != CONFD_OK)
        return CONFD_ERR;
    return deliver(tctx, w.payload());
}

int reply_simple(struct confd_trans_ctx *tctx, const char *fn, ReplyKind kind,
                 std::initializer_list<DataCb> allowed)
{
    if (check_reply(tctx, fn, allowed) != CONFD_OK)
        return CONFD_ERR;
    return deliver(tctx, reply_frame(rid_of(tctx), kind).payload());
}

const std::initializer_list<DataCb> kObjectCbs = {DataCb::GetNextObject, DataCb::FindNextObject};

int reply_objects(struct confd_trans_ctx *tctx, const char *fn, const struct confd_next_object *obj,
                  const confd_tag_value_t *tv, int nobj, long next_single)
{
    if (check_reply(tctx, fn, kObjectCbs) != CONFD_OK)
        return CONFD_ERR;
    Writer w = reply_frame(rid_of(tctx), ReplyKind::NextObjects);
    w.u32(static_cast<uint32_t>(nobj));
    for (int i = 0; i < nobj; i++) {
        int n = obj[i].n;
        if (n < 0)
            return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: negative value count", fn);
        w.u8(tv != nullptr ? 1 : 0).u32(static_cast<uint32_t>(n));
        int r = tv != nullptr ? put_tag_values(w, tv, n, fn) : put_values(w, obj[i].v, n, fn);
        if (r != CONFD_OK)
            return CONFD_ERR;
        w.i64(tv != nullptr ? next_single : obj[i].next);
    }
    return deliver(tctx, w.payload());
}

int delayed_reply(struct confd_trans_ctx *tctx, const char *fn, bool ok, const char *errstr)
{
    TransState *ts = trans_state(tctx);
    if (ts == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: not a transaction of this library", fn);
    if (!ts->capture && !ts->pending.active)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: no request is waiting for a reply", fn);
    int cb = ts->pending.cb;
    bool trans_cb = cb >= kTransBase;
    if (ok && !ts->capture && !trans_cb && !is_write_cb(cb))
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s is not a reply to %s()", fn, cb_name(cb));
    std::string payload;
    if (ok) {
        payload = trans_ok_reply(tctx, ts->pending.rid, cb);
    } else {
        if (errstr != nullptr) {
            ts->error_text.assign(errstr, strnlen(errstr, CONFD_ERROR_STR_LEN - 1));
            tctx->error.str = &ts->error_text[0];
            if (!ts->error_set)
                tctx->error.code = CONFD_ERRCODE_APPLICATION;
            ts->error_set = true;
        }
        std::string text;
        payload = error_reply(ts->pending.rid, CONFD_ERR, tctx,
                              std::string(cb_name(cb)) + "() failed", text);
    }
    // The transaction ends with a delayed finish() and with a failed init().
    bool ends = ts->free_after_reply ||
                (!ok && cb == kTransBase + static_cast<int>(TransCb::Init) && !ts->capture);
    int r = deliver(tctx, payload);
    if (ends)
        free_trans(tctx);
    return r;
}

// Records the callback's error for the reply: the formatted text, its code and application tag.
void set_trans_error(struct confd_trans_ctx *tctx, enum confd_errcode type, uint32_t apptag_ns,
                     uint32_t apptag_tag, const char *fmt, va_list ap)
{
    TransState *ts = trans_state(tctx);
    if (ts == nullptr)
        return;
    char text[CONFD_ERROR_STR_LEN];
    if (vsnprintf(text, sizeof text, fmt, ap) < 0)
        text[0] = '\0';
    ts->error_text = text;
    tctx->error.str = &ts->error_text[0];
    tctx->error.code = type;
    tctx->error.apptag.tag = apptag_tag;
    tctx->error.apptag.ns = apptag_ns;
    ts->error_set = true;
}

} // namespace

} // namespace libconfd

using namespace libconfd;

extern "C" {

void confd_trans_set_fd(struct confd_trans_ctx *tctx, int sock)
try {
    if (tctx != nullptr)
        tctx->fd = sock;
} catch (...) {
    libconfd::caught(__func__);
}

int confd_data_reply_value(struct confd_trans_ctx *tctx, const confd_value_t *v)
try {
    const char *fn = "confd_data_reply_value";
    if (check_reply(tctx, fn, {DataCb::GetElem, DataCb::NumInstances, DataCb::GetCase}) != CONFD_OK)
        return CONFD_ERR;
    if (v == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: no value", fn);
    Writer w = reply_frame(rid_of(tctx), ReplyKind::Value);
    if (put_values(w, v, 1, fn) != CONFD_OK)
        return CONFD_ERR;
    return deliver(tctx, w.payload());
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_data_reply_value_array(struct confd_trans_ctx *tctx, const confd_value_t *vs, int n)
try {
    return reply_array(tctx, "confd_data_reply_value_array", ReplyKind::ValueArray, vs, n,
                       put_values);
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_data_reply_tag_value_array(struct confd_trans_ctx *tctx, const confd_tag_value_t *tvs,
                                     int n)
try {
    return reply_array(tctx, "confd_data_reply_tag_value_array", ReplyKind::TagValueArray, tvs, n,
                       put_tag_values);
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_data_reply_next_key(struct confd_trans_ctx *tctx, const confd_value_t *v,
                              int num_vals_in_key, long next)
try {
    const char *fn = "confd_data_reply_next_key";
    if (check_reply(tctx, fn, {DataCb::GetNext, DataCb::FindNext}) != CONFD_OK)
        return CONFD_ERR;
    if (v == nullptr)
        // The cookie of an end-of-list reply travels too, so that tools see
        // exactly what the daemon answered.
        return deliver(tctx, reply_frame(rid_of(tctx), ReplyKind::NextEnd).i64(next).payload());
    if (num_vals_in_key < 1 || num_vals_in_key >= MAXKEYLEN)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: %d key values", fn, num_vals_in_key);
    Writer w = reply_frame(rid_of(tctx), ReplyKind::NextKey);
    w.u32(static_cast<uint32_t>(num_vals_in_key));
    if (put_values(w, v, num_vals_in_key, fn) != CONFD_OK)
        return CONFD_ERR;
    w.i64(next);
    return deliver(tctx, w.payload());
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_data_reply_not_found(struct confd_trans_ctx *tctx)
try {
    return reply_simple(tctx, "confd_data_reply_not_found", ReplyKind::NotFound,
                        {DataCb::GetElem, DataCb::ExistsOptional, DataCb::GetObject,
                         DataCb::GetCase});
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_data_reply_found(struct confd_trans_ctx *tctx)
try {
    return reply_simple(tctx, "confd_data_reply_found", ReplyKind::Found, {DataCb::ExistsOptional});
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_data_reply_next_object_array(struct confd_trans_ctx *tctx, const confd_value_t *v, int n,
                                       long next)
try {
    const char *fn = "confd_data_reply_next_object_array";
    if (v == nullptr)
        return reply_simple(tctx, fn, ReplyKind::NextEnd, kObjectCbs);
    struct confd_next_object obj = {const_cast<confd_value_t *>(v), n, next};
    return reply_objects(tctx, fn, &obj, nullptr, 1, next);
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_data_reply_next_object_tag_value_array(struct confd_trans_ctx *tctx,
                                                 const confd_tag_value_t *tv, int n, long next)
try {
    const char *fn = "confd_data_reply_next_object_tag_value_array";
    if (tv == nullptr)
        return reply_simple(tctx, fn, ReplyKind::NextEnd, kObjectCbs);
    struct confd_next_object obj = {nullptr, n, next};
    return reply_objects(tctx, fn, &obj, tv, 1, next);
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_data_reply_next_object_arrays(struct confd_trans_ctx *tctx,
                                        const struct confd_next_object *obj, int nobj,
                                        int timeout_millisecs)
try {
    (void)timeout_millisecs; // replies are not cached by the emulated server
    const char *fn = "confd_data_reply_next_object_arrays";
    // Entries up to the first one without values; none at all ends the list.
    int k = 0;
    while (obj != nullptr && k < nobj && obj[k].v != nullptr)
        k++;
    if (k == 0)
        return reply_simple(tctx, fn, ReplyKind::NextEnd, kObjectCbs);
    return reply_objects(tctx, fn, obj, nullptr, k, 0);
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_delayed_reply_ok(struct confd_trans_ctx *tctx)
try {
    return delayed_reply(tctx, "confd_delayed_reply_ok", true, nullptr);
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_delayed_reply_error(struct confd_trans_ctx *tctx, const char *errstr)
try {
    return delayed_reply(tctx, "confd_delayed_reply_error", false, errstr);
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int confd_data_set_timeout(struct confd_trans_ctx *tctx, int secs)
try {
    (void)secs; // the emulated server applies its own fixed time-out
    if (trans_state(tctx) == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "confd_data_set_timeout: no transaction");
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

void confd_trans_seterr(struct confd_trans_ctx *tctx, const char *fmt, ...)
{
    if (tctx == nullptr || fmt == nullptr)
        return;
    va_list ap;
    va_start(ap, fmt);
    set_trans_error(tctx, CONFD_ERRCODE_APPLICATION, 0, 0, fmt, ap);
    va_end(ap);
}

void confd_trans_seterr_extended(struct confd_trans_ctx *tctx, enum confd_errcode code,
                                 uint32_t apptag_ns, uint32_t apptag_tag, const char *fmt, ...)
{
    if (tctx == nullptr || fmt == nullptr)
        return;
    va_list ap;
    va_start(ap, fmt);
    set_trans_error(tctx, code, apptag_ns, apptag_tag, fmt, ap);
    va_end(ap);
}

} // extern "C"
