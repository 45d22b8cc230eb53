// The failure path of LEISOBEK_ASSERT.
#include "always_assert.h"

#include <cstdio>
#include <cstdlib>

void leisobek_assert_fail(const char *expr, const char *file, unsigned int line,
                          const char *function)
{
    fprintf(stderr, "leisobek: %s:%u: %s: Assertion `%s' failed.\n", file, line, function, expr);
    fflush(stderr);
    abort();
}
