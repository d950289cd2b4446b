#ifndef HUTIL_UTIL_EXPORT_H_
#define HUTIL_UTIL_EXPORT_H_

/// Marks what libhutil.so.0 offers; every other symbol of the library is hidden.
#define HUTIL_EXPORT __attribute__((visibility("default")))

/// Marks an operation whose neglected result is a fault: compilers warn of it from C++17 on.
#if __cplusplus >= 201703L
#define HUTIL_NODISCARD [[nodiscard]]
#else
#define HUTIL_NODISCARD
#endif

/// Marks an operation that nobody should use, and says what to use instead.
#define HUTIL_DEPRECATED(instead) __attribute__((deprecated(instead)))

#endif  // HUTIL_UTIL_EXPORT_H_
