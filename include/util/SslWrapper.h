#ifndef HUTIL_UTIL_SSLWRAPPER_H_
#define HUTIL_UTIL_SSLWRAPPER_H_

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "util/Buffer.h"
#include "util/Export.h"
#include "util/Result.h"

namespace hvn {
namespace util {

class OpenSslImpl;

/// TLS for the descriptors of one role and version: one context, one connection per descriptor.
///
///     SslWrapper ssl(true, SslWrapper::kTlsV1_2);
///     ssl.SetCertAndKeyFile("cert.pem", "key.pem", SslWrapper::kPem, SslWrapper::kPem);
///     SocketServer server("::;8443", Socket::kTcp, Socket::kIpv6, OnData, &ssl);
///
/// Set up by its owner first; from the first handshake on, Accept, Connect, Send, Recv, Pending and
/// RemoveClient are for any thread. One lock serialises them, so a peer that is slow in its
/// handshake holds up the others of this wrapper. Descriptors stay the caller's; RemoveClient one
/// before its number is used again. Peers' certificates are not verified. Failures log at priority
/// 3 unless said otherwise.
class HUTIL_EXPORT SslWrapper {
 public:
  /// How a certificate or key is encoded.
  enum FileType : int { kUnknown = 0, kPem = 1, kDer = 2 };
  /// The one protocol version spoken; any other value is refused. With OpenSSL 3, TLS 1.1 needs
  /// SetCipherLists({"DEFAULT:@SECLEVEL=0"}).
  enum Method : int { kTlsV1_1 = 3, kTlsV1_2 = 4, kTlsV1_2Alt = 5 };

  /// Logs the method at 7. A refused method leaves a wrapper whose operations all fail. Owner.
  SslWrapper(bool is_server, Method method);
  /// Sends close-notify to the connections still open; closes no descriptor. Owner.
  ~SslWrapper();
  SslWrapper(const SslWrapper&) = delete;
  SslWrapper& operator=(const SslWrapper&) = delete;

  /// Adds trust anchors: all of a PEM file, the first certificate of a DER file. kNotInitialized
  /// without a context; kFailure, silent for DER, where none could be read. Owner.
  hvn::Result SetRootCaFile(std::string path, FileType type);
  /// Loads the own certificate and its key. kNotInitialized without a context; kFailure where one
  /// could not be loaded. Whether the two belong together shows at the handshake. Owner.
  hvn::Result SetCertAndKeyFile(std::string cert_path, std::string key_path, FileType cert_type,
                                FileType key_type);
  /// Sets the cipher list, the entries joined by ":". False where OpenSSL accepts none of them.
  /// Throws std::length_error for an empty vector. Owner. See ciphers(1).
  bool SetCipherLists(std::vector<std::string> lists);

  /// The encoding of the certificate or of the RSA or EC key in `data`, found by parsing; kUnknown
  /// for anything else, encrypted keys included. The finding is logged at 7. Any thread.
  static FileType GetCertType(Buffer& data);
  static FileType GetKeyType(Buffer& data);

  /// The handshake with the peer of `fd`, as client or as server; blocks as `fd` does. False where
  /// it failed (Connect logs), for the other role and for a descriptor already in use here. Any
  /// thread.
  bool Connect(int fd);
  bool Accept(int fd);
  /// Writes all of `size` bytes: `size`, or -1. Any thread. See SSL_write(3).
  ssize_t Send(int fd, const void* data, size_t size);
  ssize_t Send(int fd, void* data, size_t size);
  /// Reads up to `size` bytes: their count, 0 when the peer has closed, negative for a failure.
  /// Any thread. See SSL_read(3).
  ssize_t Recv(int fd, void* data, size_t size);
  /// Bytes of `fd` that are decrypted already: Recv has them at once, select(2) does not see them.
  /// 0 for an unknown descriptor. Any thread. See SSL_pending(3).
  size_t Pending(int fd);
  /// Forgets the connection of `fd` without a word to the peer. False for an unknown descriptor.
  /// Any thread.
  bool RemoveClient(int fd);

 private:
  std::unique_ptr<OpenSslImpl> impl_;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_SSLWRAPPER_H_
