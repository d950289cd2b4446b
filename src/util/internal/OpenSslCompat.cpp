#include "util/internal/OpenSslCompat.h"

#include <openssl/crypto.h>

#include <mutex>

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace hvn {
namespace util {

namespace {

#if OPENSSL_VERSION_NUMBER < 0x10100000L
void LockOrUnlock(int mode, int number, const char* /*file*/, int /*line*/) {
  static std::mutex* const locks = new std::mutex[static_cast<size_t>(CRYPTO_num_locks())];
  if ((mode & CRYPTO_LOCK) != 0) {
    locks[number].lock();
  } else {
    locks[number].unlock();
  }
}

/// Releases before 1.1.0 leave locking to the program; one that sees to it keeps its own way.
void MakeThreadSafe() {
  if (CRYPTO_get_locking_callback() == nullptr) CRYPTO_set_locking_callback(LockOrUnlock);
}
#else
void MakeThreadSafe() {}
#endif

}  // namespace

void InitOpenSsl() {
  SSL_library_init();
  SSL_load_error_strings();
  MakeThreadSafe();
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
