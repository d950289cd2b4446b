#ifndef HUTIL_UTIL_EXPORT_H_
#define HUTIL_UTIL_EXPORT_H_

/// Marks what libhutil.so.0 offers; every other symbol of the library is hidden.
#define HUTIL_EXPORT __attribute__((visibility("default")))

#endif  // HUTIL_UTIL_EXPORT_H_
