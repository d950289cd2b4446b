#ifndef HUTIL_UTIL_INTERNAL_KEYFORMAT_H_
#define HUTIL_UTIL_INTERNAL_KEYFORMAT_H_

#include "util/Buffer.h"
#include "util/SslWrapper.h"

namespace hvn {
namespace util {

/// How the certificate or the key in `data` is encoded, found by parsing. What is found is logged
/// for the operations of OpenSslImpl.
SslWrapper::FileType CertFormat(Buffer& data);
SslWrapper::FileType KeyFormat(Buffer& data);

/// Supplies no password. OpenSSL's own callback would ask at the terminal.
int NoPassword(char* buffer, int size, int writing, void* arg);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_KEYFORMAT_H_
