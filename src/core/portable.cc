// Replacements for C library functions missing from the router's libc (see portable.h).
#include "portable.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#if LEISOBEK_HAVE_ERROR
#include <error.h>
#endif

namespace
{

const char *program_name()
{
#if LEISOBEK_HAVE_PROGRAM_INVOCATION_NAME
    return program_invocation_name;
#else
    return "leisobek";
#endif
}

void report_error_v(int status, int errnum, const char *format, va_list args)
{
    fflush(stdout);
    fprintf(stderr, "%s: ", program_name());
    vfprintf(stderr, format, args);
    if (errnum != 0) fprintf(stderr, ": %s", strerror(errnum));
    fputc('\n', stderr);
    fflush(stderr);
    if (status != 0) exit(status);
}

} // namespace

#if LEISOBEK_HAVE_ERROR
const bool report_error_from_libc = true;
#else
const bool report_error_from_libc = false;
#endif

void report_error(int status, int errnum, const char *format, ...)
{
    va_list args;
    va_start(args, format);
#if LEISOBEK_HAVE_ERROR
    // error() has no va_list form: format the message here, and pass it as
    // its only argument so that the line is the one error() writes itself.
    char message[1024];
    vsnprintf(message, sizeof message, format, args);
    va_end(args);
    error(status, errnum, "%s", message);
#else
    report_error_v(status, errnum, format, args);
    va_end(args);
#endif
}

void report_error_fallback(int status, int errnum, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    report_error_v(status, errnum, format, args);
    va_end(args);
}
