// The audit listener thread; for now it ends as soon as it starts.
#include "audit.h"

void *audit_thread(void *arg)
{
    (void)arg;
    return nullptr;
}
