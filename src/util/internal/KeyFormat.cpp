#include "util/internal/KeyFormat.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <climits>
#include <memory>

#include "util/internal/Log.h"
#include "util/internal/TlsSession.h"

namespace hvn {
namespace util {

namespace {

struct CertFree {
  void operator()(X509* cert) const { X509_free(cert); }
};
using CertPtr = std::unique_ptr<X509, CertFree>;

struct KeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyFree>;

struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;

BioPtr MemoryBio(Buffer& data) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (bio) BIO_write(bio.get(), data.data(), static_cast<int>(data.size()));
  return bio;
}

/// What OpenSSL's parsers can count.
bool IsParsable(Buffer& data) { return data.size() > 0 && data.size() <= INT_MAX; }

/// Whether `data` is a DER key of that type; some releases return a key of another type too.
bool IsDerKey(int type, Buffer& data) {
  const unsigned char* bytes = data.data();
  const KeyPtr key(d2i_PrivateKey(type, nullptr, &bytes, static_cast<long>(data.size())));
  return key && EVP_PKEY_base_id(key.get()) == type;
}

}  // namespace

int NoPassword(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*arg*/) { return -1; }

SslWrapper::FileType CertFormat(Buffer& data) {
  static constexpr char kFunction[] =
      "static hvn::util::SslWrapper::FileType "
      "hvn::util::OpenSslImpl::GetCertType(hvn::util::Buffer&)";
  if (!IsParsable(data)) return SslWrapper::kUnknown;
  const ErrorQueueGuard guard;
  const unsigned char* bytes = data.data();
  if (CertPtr(d2i_X509(nullptr, &bytes, static_cast<long>(data.size())))) {
    HUTIL_LOG(LOG_DEBUG, "%s %d: DER type cert\n", kFunction, __LINE__);
    return SslWrapper::kDer;
  }
  const BioPtr bio = MemoryBio(data);
  if (bio && CertPtr(PEM_read_bio_X509(bio.get(), nullptr, NoPassword, nullptr))) {
    HUTIL_LOG(LOG_DEBUG, "%s %d: PEM type cert\n", kFunction, __LINE__);
    return SslWrapper::kPem;
  }
  return SslWrapper::kUnknown;
}

SslWrapper::FileType KeyFormat(Buffer& data) {
  static constexpr char kFunction[] =
      "static hvn::util::SslWrapper::FileType "
      "hvn::util::OpenSslImpl::GetKeyType(hvn::util::Buffer&)";
  if (!IsParsable(data)) return SslWrapper::kUnknown;
  const ErrorQueueGuard guard;
  if (IsDerKey(EVP_PKEY_RSA, data)) {
    HUTIL_LOG(LOG_DEBUG, "%s %d: DER type key with RSA\n", kFunction, __LINE__);
    return SslWrapper::kDer;
  }
  if (IsDerKey(EVP_PKEY_EC, data)) {
    HUTIL_LOG(LOG_DEBUG, "%s %d: DER type key with EC\n", kFunction, __LINE__);
    return SslWrapper::kDer;
  }
  const BioPtr bio = MemoryBio(data);
  if (bio && KeyPtr(PEM_read_bio_PrivateKey(bio.get(), nullptr, NoPassword, nullptr))) {
    HUTIL_LOG(LOG_DEBUG, "%s %d: PEM type key\n", kFunction, __LINE__);
    return SslWrapper::kPem;
  }
  return SslWrapper::kUnknown;
}

}  // namespace util
}  // namespace hvn
