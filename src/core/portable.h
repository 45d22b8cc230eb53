// C library functions the daemon uses that not every libc has, behind one name each.
//
// The router's C library has no error(); glibc does. The build checks for it
// and report_error is the C library's own where there is one, else a
// replacement that writes the same line and exits the same way.
#ifndef LEISOBEK_CORE_PORTABLE_H
#define LEISOBEK_CORE_PORTABLE_H

// error(status, errnum, format, ...): flushes stdout, writes
// "<program>: <message>[: <strerror(errnum)>]\n" to stderr and, when status is
// non-zero, exits with it.
void report_error(int status, int errnum, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// The replacement, built on every C library so that it can be compared with
// the real one where both exist.
void report_error_fallback(int status, int errnum, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// Whether report_error is the C library's error() (chosen when the build was configured).
extern const bool report_error_from_libc;

#endif
