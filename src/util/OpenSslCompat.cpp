#include "util/OpenSslCompat.h"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace hvn {
namespace util {

void InitOpenSsl() {
  SSL_library_init();
  SSL_load_error_strings();
}

// From 3.0 on SSL_clear forgets the cipher that a handshake chose without releasing it.
void ClearSession(SSL* session) {
  SSL_certs_clear(session);
#if OPENSSL_VERSION_NUMBER < 0x30000000L
  SSL_clear(session);
#endif
}

const SSL_METHOD* FindMethod(SslWrapper::Method method, bool is_server) {
  switch (method) {
    case SslWrapper::kTlsV1_1:
      return is_server ? TLSv1_1_server_method() : TLSv1_1_client_method();
    case SslWrapper::kTlsV1_2:
    case SslWrapper::kTlsV1_2Alt:
      return is_server ? TLSv1_2_server_method() : TLSv1_2_client_method();
  }
  return nullptr;
}

}  // namespace util
}  // namespace hvn
