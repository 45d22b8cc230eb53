// Entry and exit trace points of the collectors, silent unless trace_enabled is set.
//
// The switch is the daemon's process-wide trace_enabled, defined by the core;
// the collectors carry a weak fallback definition so that they link on their
// own (unit tests, tools). Nothing in the daemon sets it.
#ifndef LEISOBEK_COLLECT_TRACE_POINTS_H
#define LEISOBEK_COLLECT_TRACE_POINTS_H

#include <cstdio>

extern int trace_enabled;

#ifndef TRACE_ENTER
#define TRACE_ENTER()                                                                              \
    do {                                                                                           \
        if (trace_enabled) printf("%s:%d: %s %s() - ", __FILE__, __LINE__, "==>", __func__);       \
    } while (0)
#endif

#ifndef TRACE_EXIT
#define TRACE_EXIT()                                                                               \
    do {                                                                                           \
        if (trace_enabled) printf("%s:%d: %s %s() - ", __FILE__, __LINE__, "<==", __func__);       \
    } while (0)
#endif

#endif
