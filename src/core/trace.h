// Entry and exit trace points, switched by the process-wide trace_enabled.
//
// Free of ConfD so that the collectors, which are built and tested without
// it, share the one switch with the providers and the core.
#ifndef LEISOBEK_CORE_TRACE_H
#define LEISOBEK_CORE_TRACE_H

#include <cstdio>

// Starts at 0 and nothing in the daemon sets it, so the trace points are
// compiled in but silent unless a debugger or a test turns them on.
extern int trace_enabled;

// "FILE:LINE: ==> FUNCTION() - " on stdout at a function's entry, with no
// newline; TRACE_EXIT prints the same with "<==".
#define TRACE_ENTER()                                                                              \
    do {                                                                                           \
        if (trace_enabled) printf("%s:%d: %s %s() - ", __FILE__, __LINE__, "==>", __func__);       \
    } while (0)

#define TRACE_EXIT()                                                                               \
    do {                                                                                           \
        if (trace_enabled) printf("%s:%d: %s %s() - ", __FILE__, __LINE__, "<==", __func__);       \
    } while (0)

#endif
