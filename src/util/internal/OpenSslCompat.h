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

/// Turns a context of one version into one of the newest versions, from TLS 1.2 on, with
/// forward-secret authenticated ciphers only, of which the server chooses.
bool SetModernTls(SSL_CTX* context, bool is_server);

/// A BIO on the socket `fd` that never waits and raises no SIGPIPE; the descriptor stays its
/// owner's. Null where there is no memory.
BIO* MakePatientBio(int fd);

/// Whether bytes of a record have come, but not all of it. Before 1.1.0, from the end of its
/// header on.
bool HasPartOfRecord(const SSL* ssl);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_OPENSSLCOMPAT_H_
