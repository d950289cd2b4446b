#ifndef HUTIL_UTIL_INTERNAL_OPENSSLCOMPAT_H_
#define HUTIL_UTIL_INTERNAL_OPENSSLCOMPAT_H_

#include <openssl/ssl.h>

#include "util/SslWrapper.h"

namespace hvn {
namespace util {

/// What later OpenSSL releases deprecate and what differs from 1.0.2 to 3.x: nothing else of the
/// library calls either.

/// OpenSSL's global set-up; needed once per process.
void InitOpenSsl();

/// The method of one protocol version and role; null for a version that is refused.
const SSL_METHOD* FindMethod(SslWrapper::Method method, bool is_server);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_OPENSSLCOMPAT_H_
