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
/// RemoveClient are for any thread. One lock serialises them: a slow handshake or a waiting Recv
/// holds up all others of this wrapper, so give each server, and each client with two threads, one
/// of its own. Descriptors stay the caller's; RemoveClient one before its number is used again.
/// Peers' certificates are not verified. Failures named "logged" log at priority 3.
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

  /// Adds trust anchors: all of a PEM file (success logs at 7), the first certificate of a DER
  /// file. kNotInitialized without a context; kFailure, logged but for DER, where none could be
  /// read. Owner.
  hvn::Result SetRootCaFile(std::string path, FileType type);
  /// Loads the own certificate and its key, which must not be encrypted. kNotInitialized without a
  /// context; kFailure, logged, where one could not be loaded, a key of the certificate's type that
  /// does not belong to it among them. One of another type shows at the handshake. Owner.
  hvn::Result SetCertAndKeyFile(std::string cert_path, std::string key_path, FileType cert_type,
                                FileType key_type);
  /// Sets the cipher list, the entries joined by ":"; logs at 7. False without a context, and,
  /// logged, where OpenSSL accepts none. Throws std::length_error for an empty vector. Owner. See
  /// ciphers(1).
  bool SetCipherLists(std::vector<std::string> lists);

  /// The encoding of the certificate or of the RSA or EC key in `data`, found by parsing; kUnknown
  /// for anything else, encrypted keys included. The finding is logged at 7. Any thread.
  static FileType GetCertType(Buffer& data);
  static FileType GetKeyType(Buffer& data);

  /// The handshake with the peer of `fd`, as client or as server; blocks as `fd` does. Connect
  /// lists the first ten ciphers at 7. False for a failure and for a descriptor already in use here
  /// (both logged by Connect only), and, silently, without a context and for the other role. Any
  /// thread.
  bool Connect(int fd);
  bool Accept(int fd);
  /// Writes all of `size` bytes: `size`, or -1, logged only for an unknown descriptor. Any thread.
  /// See SSL_write(3).
  ssize_t Send(int fd, const void* data, size_t size);
  ssize_t Send(int fd, void* data, size_t size);
  /// Reads up to `size` bytes: their count, 0 when the peer has closed, negative, logged, for a
  /// failure. Any thread. See SSL_read(3).
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
