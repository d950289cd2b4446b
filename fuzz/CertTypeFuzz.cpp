// The encoding of certificates and keys: what is found is taken apart with OpenSSL's other readers
// and given again in both encodings. The input is the file.
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>

#include "Harness.h"
#include "util/Buffer.h"
#include "util/SslWrapper.h"

using hvn::util::Buffer;
using hvn::util::SslWrapper;

namespace {

using Detector = SslWrapper::FileType (*)(Buffer&);
using BioPtr = std::unique_ptr<BIO, decltype(&BIO_free)>;
using CertPtr = std::unique_ptr<X509, decltype(&X509_free)>;
using KeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

BioPtr Reader(const std::string& text) {
  return {BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), BIO_free};
}

BioPtr Writer() { return {BIO_new(BIO_s_mem()), BIO_free}; }

std::string Written(const BioPtr& bio) {
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

int NoPassword(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*arg*/) { return -1; }

SslWrapper::FileType Detect(Detector detector, std::string text) {
  Buffer buffer;
  REQUIRE(buffer.Copy(reinterpret_cast<unsigned char*>(&text[0]),
                      static_cast<unsigned int>(text.size())));
  ERR_clear_error();
  const SslWrapper::FileType type = detector(buffer);
  REQUIRE(ERR_peek_error() == 0);
  REQUIRE(std::string(reinterpret_cast<char*>(buffer.data()), buffer.size()) == text);
  return type;
}

void CheckCert(const std::string& text) {
  const SslWrapper::FileType type = Detect(SslWrapper::GetCertType, text);
  if (type == SslWrapper::kUnknown) return;
  const BioPtr reader = Reader(text);
  const CertPtr cert(type == SslWrapper::kDer
                         ? d2i_X509_bio(reader.get(), nullptr)
                         : PEM_read_bio_X509(reader.get(), nullptr, NoPassword, nullptr),
                     X509_free);
  REQUIRE(cert != nullptr);
  const BioPtr der = Writer();
  const BioPtr pem = Writer();
  REQUIRE(i2d_X509_bio(der.get(), cert.get()) == 1);
  REQUIRE(PEM_write_bio_X509(pem.get(), cert.get()) == 1);
  REQUIRE(Detect(SslWrapper::GetCertType, Written(der)) == SslWrapper::kDer);
  REQUIRE(Detect(SslWrapper::GetCertType, Written(pem)) == SslWrapper::kPem);
}

void CheckKey(const std::string& text) {
  const SslWrapper::FileType type = Detect(SslWrapper::GetKeyType, text);
  if (type == SslWrapper::kUnknown) return;
  const BioPtr reader = Reader(text);
  const KeyPtr key(type == SslWrapper::kDer
                       ? d2i_PrivateKey_bio(reader.get(), nullptr)
                       : PEM_read_bio_PrivateKey(reader.get(), nullptr, NoPassword, nullptr),
                   EVP_PKEY_free);
  REQUIRE(key != nullptr);
  const BioPtr pem = Writer();
  REQUIRE(PEM_write_bio_PrivateKey(pem.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) ==
          1);
  REQUIRE(Detect(SslWrapper::GetKeyType, Written(pem)) == SslWrapper::kPem);
  const int kind = EVP_PKEY_base_id(key.get());
  const bool is_plain = kind == EVP_PKEY_RSA || kind == EVP_PKEY_EC;
  REQUIRE(is_plain || type == SslWrapper::kPem);
  const BioPtr der = Writer();
  REQUIRE(i2d_PrivateKey_bio(der.get(), key.get()) == 1);
  REQUIRE(Detect(SslWrapper::GetKeyType, Written(der)) ==
          (is_plain ? SslWrapper::kDer : SslWrapper::kUnknown));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = hutil_fuzz::Text(data, size);
  CheckCert(text);
  CheckKey(text);
  return 0;
}
