// MAAPI sessions, transactions, typed reads, writes, cursors, XPath and diff iteration over the server's datastore.
#include <algorithm>
#include <arpa/inet.h>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "confd_lib.h"
#include "confd_maapi.h"
#include "convert.h"
#include "lib_core.h"
#include "maapi_internal.h"
#include "pathtext.h"

using confd_wire::KeyPath;
using confd_wire::MaapiOp;
using confd_wire::Op;
using confd_wire::Reader;
using confd_wire::Value;
using confd_wire::Writer;

namespace libconfd {

namespace {

// Where a cursor stands (kept in maapi_cursor.cursor_id).
enum CursorState { kCursorFree = 0, kCursorFresh = 1, kCursorAt = 2, kCursorEnd = 3 };

Writer maapi_op(MaapiOp op)
{
    Writer w(Op::Maapi);
    w.u8(static_cast<uint8_t>(op));
    return w;
}

// Sends a request and hands back a Reader positioned after the answer's op byte.
int call(int sock, const Writer &req, std::string &answer, const char *what)
{
    return maapi_request(sock, req, answer, what);
}

Reader fields(const std::string &answer)
{
    Reader r(answer);
    r.op();
    return r;
}

int malformed(const char *what)
{
    return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: malformed answer from ConfD", what);
}

// Expands a path format; CONFD_ERR_BADPATH when it does not expand.
int expand(std::string &out, const char *fmt, va_list ap, const char *what)
{
    std::string err;
    if (!format_path(out, fmt, ap, err))
        return confd_lib_fail(CONFD_ERR_BADPATH, "%s: %s", what, err.c_str());
    return CONFD_OK;
}

// One request on a transaction and a path: u32 thandle, str path, then `more`. The path is
// expanded from the format into `path` first; CONFD_ERR_BADPATH when it does not expand.
int path_request(int sock, MaapiOp op, int th, const char *fmt, va_list ap, std::string &path,
                 std::string &answer, const char *what,
                 void (*more)(Writer &, const void *) = nullptr, const void *arg = nullptr)
{
    if (expand(path, fmt, ap, what) != CONFD_OK) return CONFD_ERR;
    Writer w = maapi_op(op);
    w.u32(static_cast<uint32_t>(th)).str(path);
    if (more) more(w, arg);
    return call(sock, w, answer, what);
}

int get_value(int sock, int th, confd_value_t *v, const char *fmt, va_list ap, const char *what)
{
    if (v == nullptr) return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: no value to fill", what);
    std::string path, answer, err;
    if (path_request(sock, MaapiOp::GetElem, th, fmt, ap, path, answer, what) != CONFD_OK)
        return CONFD_ERR;
    Reader r = fields(answer);
    Value w = r.value();
    if (!r.ok()) return malformed(what);
    if (!from_wire(w, *v, nullptr, err))
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: %s", what, err.c_str());
    return CONFD_OK;
}

// A read whose value must have one of the given types; the value is released on a mismatch.
int get_typed(int sock, int th, confd_value_t &v, std::initializer_list<int> types,
              const char *fmt, va_list ap, const char *what)
{
    if (get_value(sock, th, &v, fmt, ap, what) != CONFD_OK) return CONFD_ERR;
    for (int t : types)
        if (v.type == t) return CONFD_OK;
    int got = v.type;
    confd_free_value(&v);
    return confd_lib_fail(CONFD_ERR_BADTYPE, "%s: the leaf holds a value of type %d", what, got);
}

// A typed read of one scalar into *rval: `take` copies it out of the value once the type matched.
template <typename T, typename Take>
int get_scalar(int sock, int th, T *rval, std::initializer_list<int> types, Take take,
               const char *fmt, va_list ap, const char *what)
{
    if (rval == nullptr) return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: NULL", what);
    confd_value_t v;
    if (get_typed(sock, th, v, types, fmt, ap, what) != CONFD_OK) return CONFD_ERR;
    *rval = take(v);
    return CONFD_OK;
}

void free_keys(struct maapi_cursor *mc)
{
    for (int i = 0; i < mc->n && i < MAXKEYLEN; i++)
        confd_free_value(&mc->keys[i]);
    mc->n = 0;
    mc->keys[0].type = C_NOEXISTS;
}

// Reads u32 n + n values into the cursor's keys (heap copies), or marks its end at n == 0.
int take_keys(struct maapi_cursor *mc, Reader &r, const char *what)
{
    uint32_t n = r.u32();
    if (!r.ok() || n >= static_cast<uint32_t>(MAXKEYLEN)) return malformed(what);
    std::vector<Value> keys;
    for (uint32_t i = 0; i < n && r.ok(); i++)
        keys.push_back(r.value());
    if (!r.ok()) return malformed(what);
    free_keys(mc);
    std::string err;
    for (uint32_t i = 0; i < n; i++) {
        if (!from_wire(keys[i], mc->keys[i], nullptr, err)) {
            mc->n = static_cast<int>(i);
            free_keys(mc);
            return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: %s", what, err.c_str());
        }
    }
    mc->n = static_cast<int>(n);
    mc->keys[n].type = C_NOEXISTS;
    mc->cursor_id = n == 0 ? kCursorEnd : kCursorAt;
    return CONFD_OK;
}

// Writes u32 n + n values; false with a message when one does not encode.
bool put_values(Writer &w, const confd_value_t *v, int n, std::string &err)
{
    w.u32(static_cast<uint32_t>(n));
    for (int i = 0; i < n; i++) {
        Value x;
        if (!to_wire(v[i], x, err)) return false;
        w.value(x);
    }
    return true;
}

void trace_line(void (*trace)(char *), const std::string &text)
{
    if (trace == nullptr) return;
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\n');
    buf.push_back('\0');
    trace(buf.data());
}

int diff_common(int sock, int th,
                enum maapi_iter_ret (*iter)(confd_hkeypath_t *, enum maapi_iter_op,
                                            confd_value_t *, confd_value_t *, void *),
                int flags, void *state, const std::string &subtree, const char *what)
{
    if (iter == nullptr) return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: no iterator", what);
    Writer w = maapi_op(MaapiOp::DiffIterate);
    w.u32(static_cast<uint32_t>(th)).str(subtree).i32(flags);
    std::string answer;
    if (call(sock, w, answer, what) != CONFD_OK) return CONFD_ERR;
    Reader r = fields(answer);
    struct Item {
        uint8_t op;
        uint32_t depth;
        KeyPath kp;
        Value v;
    };
    std::vector<Item> items;
    uint32_t n = r.u32();
    for (uint32_t i = 0; i < n && r.ok(); i++) {
        Item it;
        it.op = r.u8();
        it.depth = r.u32();
        it.kp = r.keypath();
        it.v = r.value();
        items.push_back(std::move(it));
    }
    if (!r.ok()) return malformed(what);
    auto kp = std::make_unique<confd_hkeypath_t>();
    ValueStore store;
    long skip_below = -1; // after ITER_CONTINUE: the changes deeper than this are skipped
    long up_from = -1;    // after ITER_UP: the changes this deep or deeper are skipped
    for (const Item &it : items) {
        if (skip_below >= 0) {
            if (static_cast<long>(it.depth) > skip_below) continue;
            skip_below = -1;
        }
        if (up_from >= 0) {
            if (static_cast<long>(it.depth) >= up_from) continue;
            up_from = -1;
        }
        store.clear();
        std::string err;
        // A move carries the keys of the entry now before it and an attribute its number and
        // value: both reach the iterator as an array, the keys ended by C_NOEXISTS.
        bool as_array = (it.op == MOP_MOVED_AFTER || it.op == MOP_ATTR_SET) && it.v.type == C_LIST;
        confd_value_t nv[MAXKEYLEN + 1];
        confd_value_t *newv = nullptr;
        bool ok = keypath_from_wire(it.kp, *kp, &store, err);
        if (ok && as_array) {
            size_t n = std::min(it.v.list.size(), static_cast<size_t>(MAXKEYLEN));
            for (size_t i = 0; ok && i < n; i++)
                ok = from_wire(it.v.list[i], nv[i], &store, err);
            nv[n].type = C_NOEXISTS;
        } else if (ok && it.v.type != C_NOEXISTS) {
            ok = from_wire(it.v, nv[0], &store, err);
        }
        if (!ok) return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: %s", what, err.c_str());
        if (it.v.type != C_NOEXISTS) newv = nv;
        enum maapi_iter_ret ret =
            iter(kp.get(), static_cast<enum maapi_iter_op>(it.op), nullptr, newv, state);
        switch (ret) {
        case ITER_STOP: return CONFD_OK;
        case ITER_RECURSE: break;
        case ITER_CONTINUE: skip_below = it.depth; break;
        case ITER_UP: up_from = it.depth; break;
        case ITER_SUSPEND:
            return confd_lib_fail(CONFD_ERR_NOT_IMPLEMENTED,
                                  "%s: ITER_SUSPEND is not supported", what);
        default:
            return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "%s: iterator returned %d", what,
                                  static_cast<int>(ret));
        }
    }
    return CONFD_OK;
}

} // namespace

} // namespace libconfd

using namespace libconfd;

extern "C" {

// ---- sessions and transactions ----

int maapi_start_user_session3(int sock, const char *username, const char *context,
                              const char **groups, int numgroups, const struct confd_ip *src_addr,
                              int src_port, enum confd_proto prot, const char *vendor,
                              const char *product, const char *version, const char *client_id)
try {
    Writer w = maapi_op(MaapiOp::StartUserSession);
    w.str(username ? username : "").str(context ? context : "");
    uint32_t n = groups != nullptr && numgroups > 0 ? static_cast<uint32_t>(numgroups) : 0;
    w.u32(n);
    for (uint32_t i = 0; i < n; i++)
        w.str(groups[i] ? groups[i] : "");
    std::string ip(4, '\0');
    int af = AF_INET;
    if (src_addr != nullptr && src_addr->af == AF_INET6) {
        ip.assign(reinterpret_cast<const char *>(&src_addr->ip.v6), 16);
        af = AF_INET6;
    } else if (src_addr != nullptr) {
        ip.assign(reinterpret_cast<const char *>(&src_addr->ip.v4), 4);
    }
    w.u8(static_cast<uint8_t>(af)).str(ip).u16(static_cast<uint16_t>(src_port));
    w.u8(static_cast<uint8_t>(prot));
    w.str(vendor ? vendor : "").str(product ? product : "").str(version ? version : "");
    w.str(client_id ? client_id : "");
    std::string answer;
    if (call(sock, w, answer, "maapi_start_user_session") != CONFD_OK) return CONFD_ERR;
    logf(CONFD_TRACE, "MAAPI user session of '%s' (context %s) on socket %d",
         username ? username : "", context ? context : "", sock);
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_end_user_session(int sock)
try {
    std::string answer;
    return call(sock, maapi_op(MaapiOp::EndUserSession), answer, "maapi_end_user_session");
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_start_trans_flags2(int sock, enum confd_dbname dbname, enum confd_trans_mode readwrite,
                             int usid, int flags, const char *vendor, const char *product,
                             const char *version, const char *client_id)
try {
    Writer w = maapi_op(MaapiOp::StartTrans);
    w.u8(static_cast<uint8_t>(dbname)).u8(static_cast<uint8_t>(readwrite)).i32(usid).i32(flags);
    w.str(vendor ? vendor : "").str(product ? product : "").str(version ? version : "");
    w.str(client_id ? client_id : "");
    std::string answer;
    if (call(sock, w, answer, "maapi_start_trans") != CONFD_OK) return CONFD_ERR;
    Reader r = fields(answer);
    uint32_t th = r.u32();
    if (!r.ok() || th > 0x7fffffffu) return malformed("maapi_start_trans");
    logf(CONFD_TRACE, "MAAPI transaction %u started on socket %d", th, sock);
    return static_cast<int>(th);
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_finish_trans(int sock, int thandle)
try {
    Writer w = maapi_op(MaapiOp::FinishTrans);
    w.u32(static_cast<uint32_t>(thandle));
    std::string answer;
    return call(sock, w, answer, "maapi_finish_trans");
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_apply_trans(int sock, int thandle, int keepopen)
try {
    Writer w = maapi_op(MaapiOp::ApplyTrans);
    w.u32(static_cast<uint32_t>(thandle)).u8(keepopen ? 1 : 0);
    std::string answer;
    return call(sock, w, answer, "maapi_apply_trans");
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_set_namespace(int sock, int thandle, int hashed_ns)
try {
    Writer w = maapi_op(MaapiOp::SetNamespace);
    w.u32(static_cast<uint32_t>(thandle)).u32(static_cast<uint32_t>(hashed_ns));
    std::string answer;
    return call(sock, w, answer, "maapi_set_namespace");
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

// ---- reads ----

int maapi_vget_elem(int sock, int thandle, confd_value_t *v, const char *fmt, va_list args)
try {
    return get_value(sock, thandle, v, fmt, args, "maapi_get_elem");
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_get_elem(int sock, int thandle, confd_value_t *v, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int r = get_value(sock, thandle, v, fmt, ap, "maapi_get_elem");
    va_end(ap);
    return r;
}

int maapi_get_int32_elem(int sock, int thandle, int32_t *rval, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int r = get_scalar(
        sock, thandle, rval, {C_INT32}, [](const confd_value_t &v) { return v.val.i32; },
        fmt, ap, "maapi_get_int32_elem");
    va_end(ap);
    return r;
}

int maapi_get_u_int32_elem(int sock, int thandle, uint32_t *rval, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int r = get_scalar(
        sock, thandle, rval, {C_UINT32}, [](const confd_value_t &v) { return v.val.u32; },
        fmt, ap, "maapi_get_u_int32_elem");
    va_end(ap);
    return r;
}

int maapi_get_buf_elem(int sock, int thandle, unsigned char **rval, int *bufsiz, const char *fmt,
                       ...)
{
    if (rval == nullptr || bufsiz == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "maapi_get_buf_elem: NULL");
    *rval = nullptr;
    confd_value_t v;
    va_list ap;
    va_start(ap, fmt);
    int r = get_typed(sock, thandle, v, {C_BUF, C_BINARY, C_HEXSTR, C_BITBIG}, fmt, ap,
                      "maapi_get_buf_elem");
    va_end(ap);
    if (r != CONFD_OK) return r;
    // The buffer came from malloc() with a NUL after its bytes; the caller owns it now.
    *rval = v.val.buf.ptr;
    *bufsiz = static_cast<int>(v.val.buf.size);
    return CONFD_OK;
}

int maapi_get_str_elem(int sock, int thandle, char *buf, int n, const char *fmt, ...)
{
    if (buf == nullptr || n <= 0)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "maapi_get_str_elem: no buffer");
    confd_value_t v;
    va_list ap;
    va_start(ap, fmt);
    int r = get_typed(sock, thandle, v, {C_BUF, C_BINARY, C_HEXSTR}, fmt, ap,
                      "maapi_get_str_elem");
    va_end(ap);
    if (r != CONFD_OK) return r;
    unsigned size = v.val.buf.size;
    if (size >= static_cast<unsigned>(n)) {
        confd_free_value(&v);
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE,
                              "maapi_get_str_elem: the value needs %u bytes, the buffer has %d",
                              size + 1, n);
    }
    memcpy(buf, v.val.buf.ptr, size);
    buf[size] = '\0';
    confd_free_value(&v);
    return CONFD_OK;
}

int maapi_get_bool_elem(int sock, int thandle, int *rval, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int r = get_scalar(
        sock, thandle, rval, {C_BOOL}, [](const confd_value_t &v) { return v.val.boolean; },
        fmt, ap, "maapi_get_bool_elem");
    va_end(ap);
    return r;
}

int maapi_get_enum_value_elem(int sock, int thandle, int32_t *rval, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int r = get_scalar(
        sock, thandle, rval, {C_ENUM_VALUE}, [](const confd_value_t &v) { return v.val.enumvalue; },
        fmt, ap, "maapi_get_enum_value_elem");
    va_end(ap);
    return r;
}

int maapi_get_identityref_elem(int sock, int thandle, struct confd_identityref *rval,
                               const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int r = get_scalar(
        sock, thandle, rval, {C_IDENTITYREF}, [](const confd_value_t &v) { return v.val.idref; },
        fmt, ap, "maapi_get_identityref_elem");
    va_end(ap);
    return r;
}

int maapi_vexists(int sock, int thandle, const char *fmt, va_list args)
try {
    std::string path, answer;
    if (path_request(sock, MaapiOp::Exists, thandle, fmt, args, path, answer, "maapi_exists") !=
        CONFD_OK)
        return CONFD_ERR;
    Reader r = fields(answer);
    uint8_t e = r.u8();
    if (!r.ok()) return malformed("maapi_exists");
    return e ? 1 : 0;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_exists(int sock, int thandle, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int r = maapi_vexists(sock, thandle, fmt, ap);
    va_end(ap);
    return r;
}

int maapi_vnum_instances(int sock, int thandle, const char *fmt, va_list args)
try {
    std::string path, answer;
    if (path_request(sock, MaapiOp::NumInstances, thandle, fmt, args, path, answer,
                     "maapi_num_instances") != CONFD_OK)
        return CONFD_ERR;
    Reader r = fields(answer);
    uint32_t n = r.u32();
    if (!r.ok() || n > 0x7fffffffu) return malformed("maapi_num_instances");
    return static_cast<int>(n);
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_num_instances(int sock, int thandle, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int r = maapi_vnum_instances(sock, thandle, fmt, ap);
    va_end(ap);
    return r;
}

// ---- cursors ----

int maapi_vinit_cursor(int sock, int thandle, struct maapi_cursor *mc, const char *fmt,
                       va_list args)
try {
    if (mc == nullptr) return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "maapi_init_cursor: NULL");
    std::string path, answer;
    if (path_request(sock, MaapiOp::InitCursor, thandle, fmt, args, path, answer,
                     "maapi_init_cursor") != CONFD_OK)
        return CONFD_ERR;
    char *copy = strdup(path.c_str());
    if (copy == nullptr) return confd_lib_fail(CONFD_ERR_MALLOC, "maapi_init_cursor: no memory");
    // The application's own fields (hint_bulk, secondary_index, next) are left alone.
    memset(mc->keys, 0, sizeof mc->keys);
    mc->keys[0].type = C_NOEXISTS;
    mc->n = 0;
    mc->sock = sock;
    mc->thandle = thandle;
    mc->cursor_id = kCursorFresh;
    mc->path = copy;
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_init_cursor(int sock, int thandle, struct maapi_cursor *mc, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int r = maapi_vinit_cursor(sock, thandle, mc, fmt, ap);
    va_end(ap);
    return r;
}

int maapi_get_next(struct maapi_cursor *mc)
try {
    if (mc == nullptr || mc->path == nullptr || mc->cursor_id == kCursorFree)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "maapi_get_next: cursor not initialised");
    if (mc->cursor_id == kCursorEnd) {
        mc->n = 0;
        return CONFD_OK;
    }
    Writer w = maapi_op(MaapiOp::GetNext);
    w.u32(static_cast<uint32_t>(mc->thandle)).str(mc->path);
    std::string err;
    if (!put_values(w, mc->keys, mc->cursor_id == kCursorAt ? mc->n : 0, err))
        return confd_lib_fail(CONFD_ERR_BADTYPE, "maapi_get_next: %s", err.c_str());
    std::string answer;
    if (call(mc->sock, w, answer, "maapi_get_next") != CONFD_OK) return CONFD_ERR;
    Reader r = fields(answer);
    return take_keys(mc, r, "maapi_get_next");
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_find_next(struct maapi_cursor *mc, enum confd_find_next_type type,
                    confd_value_t *inkeys, int n_inkeys)
try {
    if (mc == nullptr || mc->path == nullptr || mc->cursor_id == kCursorFree)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "maapi_find_next: cursor not initialised");
    if (n_inkeys < 0 || n_inkeys >= MAXKEYLEN || (n_inkeys > 0 && inkeys == nullptr))
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "maapi_find_next: bad keys");
    Writer w = maapi_op(MaapiOp::FindNext);
    w.u32(static_cast<uint32_t>(mc->thandle)).str(mc->path).u8(static_cast<uint8_t>(type));
    std::string err;
    if (!put_values(w, inkeys, n_inkeys, err))
        return confd_lib_fail(CONFD_ERR_BADTYPE, "maapi_find_next: %s", err.c_str());
    std::string answer;
    if (call(mc->sock, w, answer, "maapi_find_next") != CONFD_OK) return CONFD_ERR;
    Reader r = fields(answer);
    return take_keys(mc, r, "maapi_find_next");
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

void maapi_destroy_cursor(struct maapi_cursor *mc)
try {
    if (mc == nullptr) return;
    if (mc->cursor_id != kCursorFree) free_keys(mc);
    free(mc->path);
    mc->path = nullptr;
    mc->n = 0;
    mc->cursor_id = kCursorFree;
} catch (...) {
    libconfd::caught(__func__);
}

// ---- writes ----

int maapi_vset_elem(int sock, int thandle, confd_value_t *v, const char *fmt, va_list args)
try {
    if (v == nullptr) return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "maapi_set_elem: no value");
    Value wv;
    std::string err, path, answer;
    if (!to_wire(*v, wv, err)) return confd_lib_fail(CONFD_ERR_BADTYPE, "maapi_set_elem: %s", err.c_str());
    return path_request(
        sock, MaapiOp::SetElem, thandle, fmt, args, path, answer, "maapi_set_elem",
        [](Writer &w, const void *arg) { w.value(*static_cast<const Value *>(arg)); }, &wv);
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_set_elem(int sock, int thandle, confd_value_t *v, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int r = maapi_vset_elem(sock, thandle, v, fmt, ap);
    va_end(ap);
    return r;
}

int maapi_vset_elem2(int sock, int thandle, const char *strval, const char *fmt, va_list args)
try {
    if (strval == nullptr) return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "maapi_set_elem2: no value");
    std::string path, answer;
    return path_request(
        sock, MaapiOp::SetElemText, thandle, fmt, args, path, answer, "maapi_set_elem2",
        [](Writer &w, const void *arg) { w.str(static_cast<const char *>(arg)); }, strval);
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_set_elem2(int sock, int thandle, const char *strval, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int r = maapi_vset_elem2(sock, thandle, strval, fmt, ap);
    va_end(ap);
    return r;
}

int maapi_vcreate(int sock, int thandle, const char *fmt, va_list args)
try {
    std::string path, answer;
    return path_request(sock, MaapiOp::Create, thandle, fmt, args, path, answer, "maapi_create");
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_create(int sock, int thandle, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int r = maapi_vcreate(sock, thandle, fmt, ap);
    va_end(ap);
    return r;
}

int maapi_vdelete(int sock, int thandle, const char *fmt, va_list args)
try {
    std::string path, answer;
    return path_request(sock, MaapiOp::Delete, thandle, fmt, args, path, answer, "maapi_delete");
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_delete(int sock, int thandle, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int r = maapi_vdelete(sock, thandle, fmt, ap);
    va_end(ap);
    return r;
}

// ---- XPath ----

int maapi_vxpath_eval_expr(int sock, int thandle, const char *expr, char **res,
                           void (*trace)(char *), const char *fmtpath, va_list args)
try {
    if (res != nullptr) *res = nullptr;
    if (expr == nullptr || res == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "maapi_xpath_eval_expr: NULL argument");
    std::string ctx, answer;
    if (fmtpath != nullptr && expand(ctx, fmtpath, args, "maapi_xpath_eval_expr") != CONFD_OK)
        return CONFD_ERR;
    trace_line(trace, std::string("evaluating ") + expr + (ctx.empty() ? "" : " at " + ctx));
    Writer w = maapi_op(MaapiOp::XPathEvalExpr);
    w.u32(static_cast<uint32_t>(thandle)).str(expr).str(ctx);
    if (call(sock, w, answer, "maapi_xpath_eval_expr") != CONFD_OK) {
        trace_line(trace, std::string("error: ") + confd_lasterr());
        return CONFD_ERR;
    }
    Reader r = fields(answer);
    uint8_t found = r.u8();
    std::string text = r.str();
    if (!r.ok()) return malformed("maapi_xpath_eval_expr");
    if (!found) {
        trace_line(trace, "no node selected");
        return confd_lib_fail(CONFD_ERR_NOEXISTS, "maapi_xpath_eval_expr: %s selects no node",
                              expr);
    }
    char *copy = static_cast<char *>(malloc(text.size() + 1));
    if (copy == nullptr)
        return confd_lib_fail(CONFD_ERR_MALLOC, "maapi_xpath_eval_expr: no memory");
    memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    trace_line(trace, "result: " + text);
    *res = copy;
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_xpath_eval_expr(int sock, int thandle, const char *expr, char **res,
                          void (*trace)(char *), const char *fmtpath, ...)
{
    va_list ap;
    va_start(ap, fmtpath);
    int r = maapi_vxpath_eval_expr(sock, thandle, expr, res, trace, fmtpath, ap);
    va_end(ap);
    return r;
}

int maapi_vxpath_eval(int sock, int thandle, const char *expr,
                      int (*result)(confd_hkeypath_t *, confd_value_t *, void *),
                      void (*trace)(char *), void *initstate, const char *fmtpath, va_list args)
try {
    if (expr == nullptr || result == nullptr)
        return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "maapi_xpath_eval: NULL argument");
    std::string ctx, answer;
    if (fmtpath != nullptr && expand(ctx, fmtpath, args, "maapi_xpath_eval") != CONFD_OK)
        return CONFD_ERR;
    trace_line(trace, std::string("evaluating ") + expr + (ctx.empty() ? "" : " at " + ctx));
    Writer w = maapi_op(MaapiOp::XPathEval);
    w.u32(static_cast<uint32_t>(thandle)).str(expr).str(ctx);
    if (call(sock, w, answer, "maapi_xpath_eval") != CONFD_OK) return CONFD_ERR;
    Reader r = fields(answer);
    uint32_t n = r.u32();
    std::vector<std::pair<KeyPath, Value>> nodes;
    for (uint32_t i = 0; i < n && r.ok(); i++) {
        KeyPath kp = r.keypath();
        Value v = r.value();
        nodes.emplace_back(std::move(kp), std::move(v));
    }
    if (!r.ok()) return malformed("maapi_xpath_eval");
    auto kp = std::make_unique<confd_hkeypath_t>();
    ValueStore store;
    for (const auto &node : nodes) {
        store.clear();
        std::string err;
        confd_value_t v;
        if (!keypath_from_wire(node.first, *kp, &store, err) ||
            (node.second.type != C_NOEXISTS && !from_wire(node.second, v, &store, err)))
            return confd_lib_fail(CONFD_ERR_PROTOUSAGE, "maapi_xpath_eval: %s", err.c_str());
        trace_line(trace, "selected " + kpath_text(*kp, kp->len));
        if (result(kp.get(), node.second.type != C_NOEXISTS ? &v : nullptr, initstate) ==
            ITER_STOP)
            break;
    }
    return CONFD_OK;
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_xpath_eval(int sock, int thandle, const char *expr,
                     int (*result)(confd_hkeypath_t *, confd_value_t *, void *),
                     void (*trace)(char *), void *initstate, const char *fmtpath, ...)
{
    va_list ap;
    va_start(ap, fmtpath);
    int r = maapi_vxpath_eval(sock, thandle, expr, result, trace, initstate, fmtpath, ap);
    va_end(ap);
    return r;
}

// ---- diffs ----

int maapi_diff_iterate(int sock, int thandle,
                       enum maapi_iter_ret (*iter)(confd_hkeypath_t *, enum maapi_iter_op,
                                                   confd_value_t *, confd_value_t *, void *),
                       int flags, void *initstate)
try {
    return diff_common(sock, thandle, iter, flags, initstate, std::string(), "maapi_diff_iterate");
} catch (...) {
    return libconfd::caught(__func__, CONFD_ERR);
}

int maapi_keypath_diff_iterate(int sock, int thandle,
                               enum maapi_iter_ret (*iter)(confd_hkeypath_t *, enum maapi_iter_op,
                                                           confd_value_t *, confd_value_t *,
                                                           void *),
                               int flags, void *initstate, const char *fmtpath, ...)
{
    std::string path;
    va_list ap;
    va_start(ap, fmtpath);
    int r = expand(path, fmtpath, ap, "maapi_keypath_diff_iterate");
    va_end(ap);
    if (r != CONFD_OK) return CONFD_ERR;
    return diff_common(sock, thandle, iter, flags, initstate, path, "maapi_keypath_diff_iterate");
}

} // extern "C"
