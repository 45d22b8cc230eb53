// The trace switch shared by every module of the daemon (see trace.h).
#include "trace.h"

int trace_enabled = 0;
