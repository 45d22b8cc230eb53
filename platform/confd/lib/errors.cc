// Error reporting of the client library: per-thread confd_errno and last-error text, texts for codes.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>

#include "lib_internal.h"

namespace {

thread_local int t_errno = 0;
thread_local char t_lasterr[CONFD_LASTERR_LEN] = "";

void set_lasterr_v(const char *fmt, va_list ap)
{
    // vsnprintf bounds the copy and always terminates; a too long text is cut.
    if (vsnprintf(t_lasterr, sizeof t_lasterr, fmt, ap) < 0)
        t_lasterr[0] = '\0';
}

} // namespace

void libconfd::note_exception(const char *fn) noexcept
{
    try {
        throw;
    } catch (const std::bad_alloc &) {
        confd_lib_fail(CONFD_ERR_MALLOC, "%s: out of memory", fn);
    } catch (const std::exception &e) {
        confd_lib_fail(CONFD_ERR_INTERNAL, "%s: %s", fn, e.what());
    } catch (...) {
        confd_lib_fail(CONFD_ERR_INTERNAL, "%s: unexpected exception", fn);
    }
}

extern "C" {

int *confd_errno_location(void)
{
    return &t_errno;
}

char *confd_lasterr(void)
{
    return t_lasterr;
}

void confd_set_lasterr(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    set_lasterr_v(fmt, ap);
    va_end(ap);
}

int confd_lib_fail(int code, const char *fmt, ...)
{
    t_errno = code;
    va_list ap;
    va_start(ap, fmt);
    set_lasterr_v(fmt, ap);
    va_end(ap);
    return CONFD_ERR;
}

void confd_fatal(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    fflush(stderr);
    exit(1);
}

char *confd_strerror(int code)
{
    const char *text;
    switch (code) {
    case 0: text = "no error"; break;
    case CONFD_ERR_NOEXISTS: text = "item does not exist"; break;
    case CONFD_ERR_ALREADY_EXISTS: text = "item already exists"; break;
    case CONFD_ERR_ACCESS_DENIED: text = "access denied"; break;
    case CONFD_ERR_NOT_WRITABLE: text = "item is not writable"; break;
    case CONFD_ERR_BADTYPE: text = "bad value type"; break;
    case CONFD_ERR_NOTCREATABLE: text = "item cannot be created"; break;
    case CONFD_ERR_NOTDELETABLE: text = "item cannot be deleted"; break;
    case CONFD_ERR_BADPATH: text = "bad path"; break;
    case CONFD_ERR_NOSTACK: text = "nothing to pop"; break;
    case CONFD_ERR_LOCKED: text = "database is locked"; break;
    case CONFD_ERR_INUSE: text = "database is in use"; break;
    case CONFD_ERR_NOTSET: text = "mandatory value not set"; break;
    case CONFD_ERR_NON_UNIQUE: text = "values not unique"; break;
    case CONFD_ERR_BAD_KEYREF: text = "reference to a missing instance"; break;
    case CONFD_ERR_TOO_FEW_ELEMS: text = "too few list entries"; break;
    case CONFD_ERR_TOO_MANY_ELEMS: text = "too many list entries"; break;
    case CONFD_ERR_BADSTATE: text = "operation not allowed in this state"; break;
    case CONFD_ERR_INTERNAL: text = "internal error"; break;
    case CONFD_ERR_EXTERNAL: text = "application callback failed"; break;
    case CONFD_ERR_MALLOC: text = "out of memory"; break;
    case CONFD_ERR_PROTOUSAGE: text = "API used incorrectly"; break;
    case CONFD_ERR_NOSESSION: text = "no user session"; break;
    case CONFD_ERR_TOOMANYTRANS: text = "too many transactions"; break;
    case CONFD_ERR_OS: text = "operating system error"; break;
    case CONFD_ERR_HA_CONNECT: text = "HA: cannot connect to primary"; break;
    case CONFD_ERR_HA_CLOSED: text = "HA: connection closed"; break;
    case CONFD_ERR_HA_BADFXS: text = "HA: schema mismatch"; break;
    case CONFD_ERR_HA_BADTOKEN: text = "HA: bad token"; break;
    case CONFD_ERR_HA_BADNAME: text = "HA: bad node name"; break;
    case CONFD_ERR_HA_BIND: text = "HA: cannot bind"; break;
    case CONFD_ERR_HA_NOTICK: text = "HA: no tick received"; break;
    case CONFD_ERR_VALIDATION_WARNING: text = "validation warning"; break;
    case CONFD_ERR_SUBAGENT_DOWN: text = "subagent is down"; break;
    case CONFD_ERR_LIB_NOT_INITIALIZED: text = "library not initialised"; break;
    case CONFD_ERR_TOO_MANY_SESSIONS: text = "too many sessions"; break;
    case CONFD_ERR_BAD_CONFIG: text = "bad configuration"; break;
    case CONFD_ERR_RESOURCE_DENIED: text = "resource denied"; break;
    case CONFD_ERR_INCONSISTENT_VALUE: text = "inconsistent value"; break;
    case CONFD_ERR_APPLICATION_INTERNAL: text = "application internal error"; break;
    case CONFD_ERR_UNSET_CHOICE: text = "mandatory choice not set"; break;
    case CONFD_ERR_MUST_FAILED: text = "must expression failed"; break;
    case CONFD_ERR_MISSING_INSTANCE: text = "instance missing"; break;
    case CONFD_ERR_INVALID_INSTANCE: text = "invalid instance"; break;
    case CONFD_ERR_UNAVAILABLE: text = "resource unavailable"; break;
    case CONFD_ERR_EOF: text = "connection closed"; break;
    case CONFD_ERR_NOTMOVABLE: text = "item cannot be moved"; break;
    case CONFD_ERR_HA_WITH_UPGRADE: text = "HA not possible during upgrade"; break;
    case CONFD_ERR_TIMEOUT: text = "timed out"; break;
    case CONFD_ERR_ABORTED: text = "aborted"; break;
    case CONFD_ERR_XPATH: text = "XPath error"; break;
    case CONFD_ERR_NOT_IMPLEMENTED: text = "not implemented"; break;
    case CONFD_ERR_HA_BADVSN: text = "HA: version mismatch"; break;
    case CONFD_ERR_POLICY_FAILED: text = "policy failed"; break;
    case CONFD_ERR_POLICY_COMPILATION_FAILED: text = "policy compilation failed"; break;
    case CONFD_ERR_POLICY_EVALUATION_FAILED: text = "policy evaluation failed"; break;
    case NCS_ERR_CONNECTION_REFUSED: text = "connection refused"; break;
    case CONFD_ERR_START_FAILED: text = "start failed"; break;
    case CONFD_ERR_DATA_MISSING: text = "data missing"; break;
    case CONFD_ERR_CLI_CMD: text = "CLI command failed"; break;
    case CONFD_ERR_UPGRADE_IN_PROGRESS: text = "upgrade in progress"; break;
    case CONFD_ERR_NOTRANS: text = "no such transaction"; break;
    case NCS_ERR_SERVICE_CONFLICT: text = "service conflict"; break;
    case NCS_ERR_CONNECTION_TIMEOUT: text = "connection timed out"; break;
    case NCS_ERR_CONNECTION_CLOSED: text = "connection closed by peer"; break;
    case NCS_ERR_DEVICE: text = "device error"; break;
    case NCS_ERR_TEMPLATE: text = "template error"; break;
    case CONFD_ERR_NO_MOUNT_ID: text = "no mount id"; break;
    case CONFD_ERR_STALE_INSTANCE: text = "stale instance"; break;
    case CONFD_ERR_HA_BADCONFIG: text = "HA: bad configuration"; break;
    default: text = "unknown error"; break;
    }
    // The API hands out char *; the texts are never written through it.
    return const_cast<char *>(text);
}

} // extern "C"
