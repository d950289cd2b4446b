#ifndef HUTIL_UTIL_OPENSSLIMPL_H_
#define HUTIL_UTIL_OPENSSLIMPL_H_

#include <openssl/ssl.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "util/Buffer.h"
#include "util/Result.h"
#include "util/SslWrapper.h"
#include "util/Thread.h"

namespace hvn {
namespace util {

/// What an SslWrapper forwards to: one OpenSSL context and one connection object per descriptor.
/// No operation leaves errors of its own in OpenSSL's queue of its thread.
class OpenSslImpl {
 public:
  OpenSslImpl(bool is_server, SslWrapper::Method method);
  ~OpenSslImpl();
  OpenSslImpl(const OpenSslImpl&) = delete;
  OpenSslImpl& operator=(const OpenSslImpl&) = delete;

  bool SetCipherLists(std::vector<std::string> lists);
  hvn::Result SetRootCaFile(std::string path, SslWrapper::FileType type);
  /// Not supported: always kFailure.
  hvn::Result SetRootCaBuffer(void* data, size_t size);
  hvn::Result SetCertAndKeyFile(std::string cert_path, std::string key_path,
                                SslWrapper::FileType cert_type, SslWrapper::FileType key_type);
  /// OpenSSL's number for a file type, or -1.
  int ConvertFileType(SslWrapper::FileType type);

  static SslWrapper::FileType GetCertType(Buffer& data);
  static SslWrapper::FileType GetKeyType(Buffer& data);
  /// Shaped like OpenSSL's client-hello callback; accepts nothing and is never registered.
  static int ClientHelloCb(ssl_st* ssl, int* alert, void* arg);

  bool Connect(int fd);
  bool Accept(int fd);
  ssize_t Send(int fd, const void* data, size_t size);
  ssize_t Recv(int fd, void* data, size_t size);
  size_t Pending(int fd);
  bool RemoveClient(int fd);

  /// Objects ever made in this process; the first one initialises OpenSSL.
  static std::atomic<int32_t> ref_cnt;

 private:
  struct ContextFree {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  };
  struct SessionFree {
    void operator()(SSL* session) const { SSL_free(session); }
  };
  using SessionPtr = std::unique_ptr<SSL, SessionFree>;

  static void CountIn();
  hvn::Result AddDerRootCa(const std::string& path);
  SSL* Find(int fd, const char* function);

  std::unique_ptr<SSL_CTX, ContextFree> ctx_;  ///< Freed after the connections.
  bool is_server_;
  SslWrapper::Method ssl_method_;
  std::map<int, SessionPtr> ssl_map_;
  Mutex mutex_;  ///< Guards ssl_map_ and serialises all work on its connections.
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_OPENSSLIMPL_H_
