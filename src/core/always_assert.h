// An assertion that stays active in every build type, with the usual libc message.
#ifndef LEISOBEK_CORE_ALWAYS_ASSERT_H
#define LEISOBEK_CORE_ALWAYS_ASSERT_H

// Prints "leisobek: FILE:LINE: FUNCTION: Assertion `EXPR' failed." to stderr
// and aborts. Never returns.
[[noreturn]] void leisobek_assert_fail(const char *expr, const char *file, unsigned int line,
                                       const char *function);

// Like assert(), but NDEBUG does not remove it: a request that breaks a type
// guard must stop the daemon on the router as it does on a debug build.
#define LEISOBEK_ASSERT(expr)                                                                      \
    ((expr) ? static_cast<void>(0) : leisobek_assert_fail(#expr, __FILE__, __LINE__, __func__))

#endif
