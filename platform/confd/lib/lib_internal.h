// Declarations shared between the parts of the emulated client library; not for applications.
#ifndef LEISOBEK_CONFD_LIB_INTERNAL_H
#define LEISOBEK_CONFD_LIB_INTERNAL_H

#include <stdint.h>

#include "confd_lib.h"

#ifdef __cplusplus
extern "C" {
#endif

// Names the router's headers lack; kept here for the library's own use.
// Every log number is below CONFD_MAXLOGSYMS (size of confd_log_symbols[]).
#define CONFD_MAXLOGSYMS 256
// Longest callback error text kept for a reply, NUL included.
#define CONFD_ERROR_STR_LEN 1024
#define CONFD_GET_STR(v) (CONFD_ASSERT((v)->type == C_STR), (v)->val.s)
#define CONFD_SET_CBINARY(v, p, len) \
    CONFD_SET_BYTES_(v, C_BINARY, (unsigned const char *)(p), len)
#define CONFD_ERR_NO_MOUNT_ID 67
#define CONFD_ERR_STALE_INSTANCE 68
#define CONFD_ERR_HA_BADCONFIG 69

// Room for the text behind confd_lasterr(), NUL included; longer texts are cut.
#define CONFD_LASTERR_LEN 1024

// Replaces the calling thread's last-error text (shown by confd_lasterr()).
void confd_set_lasterr(const char *fmt, ...) CONFD_PRINTF_ATTR_(1, 2);

// Sets confd_errno to code and the last-error text to the formatted message;
// returns CONFD_ERR so that failing paths can end in `return confd_lib_fail(...)`.
int confd_lib_fail(int code, const char *fmt, ...) CONFD_PRINTF_ATTR_(2, 3);

// Name of a node or identity hash from the loaded schemas, or NULL when
// unknown. Provided by the schema code; weak so that the value printer also
// links (and prints "tag<N>") in programs without it. Check for NULL before
// calling.
const char *confd_lib_tag_name(uint32_t hash) __attribute__((weak));

// confd_maxdepth / confd_maxkeylen are defined in values.cc (initially the
// header's MAXDEPTH / MAXKEYLEN).

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
namespace libconfd {

// For the catch (...) of every C API function of the library: no C++
// exception (std::bad_alloc above all) may reach a C caller. Sets confd_errno
// (CONFD_ERR_MALLOC for std::bad_alloc, else CONFD_ERR_INTERNAL) and the
// last-error text naming fn, as any other failure would.
void note_exception(const char *fn) noexcept;
// The same, returning the function's failure value.
template <typename T> T caught(const char *fn, T on_error) noexcept
{
    note_exception(fn);
    return on_error;
}
inline void caught(const char *fn) noexcept { note_exception(fn); }

} // namespace libconfd
#endif

#endif // LEISOBEK_CONFD_LIB_INTERNAL_H
