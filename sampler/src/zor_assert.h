// The assertion of raw records and of the sampler's helpers. It is compiled
// in whatever the build type: a broken invariant in a sampler data file or in
// the sampler's state must stop the process rather than produce wrong
// profiles. The report goes out through write(2) only, so the assertion may
// fire inside a signal handler.
#ifndef ZOR_ASSERT_H
#define ZOR_ASSERT_H

extern "C" [[noreturn]] void zor_assert_fail(const char* expression, const char* file, int line,
                                             const char* function);

#define ZOR_ASSERT(expr) \
    (static_cast<bool>(expr) ? static_cast<void>(0) \
                             : zor_assert_fail(#expr, __FILE__, __LINE__, __PRETTY_FUNCTION__))

#endif
