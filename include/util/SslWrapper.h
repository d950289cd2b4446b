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
/// holds up all others of this wrapper (SetTimeLimit bounds that), so give each server, and each
/// client with two threads, one of its own. Descriptors, of sockets, stay the caller's;
/// RemoveClient one before its number is used again, also one of a server that is destroyed. Ignore
/// SIGPIPE in the process: transfers without a time limit raise it. Peers' certificates are not
/// verified but after VerifyPeer. Failures named "logged" log at priority 3.
class HUTIL_EXPORT SslWrapper {
 public:
  /// How a certificate or key is encoded.
  enum FileType : int { kUnknown = 0, kPem = 1, kDer = 2 };
  /// The one protocol version spoken; any other value is refused. With OpenSSL 3, TLS 1.1 needs
  /// SetCipherLists({"DEFAULT:@SECLEVEL=0"}).
  enum Method : int { kTlsV1_1 = 3, kTlsV1_2 = 4, kTlsV1_2Alt = 5 };

  /// Logs the method at 7. A refused method leaves a wrapper whose operations all fail. Owner.
  SslWrapper(bool is_server, Method method);
  /// Sends close-notify to the connections still open whose peers are there and read; closes no
  /// descriptor. Owner.
  ~SslWrapper();
  SslWrapper(const SslWrapper&) = delete;
  SslWrapper& operator=(const SslWrapper&) = delete;

  /// Adds trust anchors: all of a PEM file (success logs at 7), the first certificate of a DER
  /// file. kNotInitialized without a context; kFailure, logged but for DER, where none could be
  /// read. Owner.
  HUTIL_NODISCARD hvn::Result SetRootCaFile(std::string path, FileType type);
  /// Loads the own certificate and its key, which must not be encrypted. kNotInitialized without a
  /// context; kFailure, logged, where one could not be loaded, a key of the certificate's type that
  /// does not belong to it among them. One of another type shows at the handshake. Owner.
  HUTIL_NODISCARD hvn::Result SetCertAndKeyFile(std::string cert_path, std::string key_path,
                                                FileType cert_type, FileType key_type);
  /// Loads the own certificate together with those that lead from it to a root, all of one PEM
  /// file, the own one first; SetCertAndKeyFile loads its key, before or after. kNotInitialized
  /// without a context; kFailure, logged, where they could not be loaded and where a key loaded
  /// before is another's. Owner. See SSL_CTX_use_certificate_chain_file(3).
  HUTIL_NODISCARD hvn::Result SetCertChainFile(std::string path);
  /// Sets the cipher list, the entries joined by ":"; logs at 7. False without a context, and,
  /// logged, where OpenSSL accepts none. Throws std::length_error for an empty vector. Owner. See
  /// ciphers(1).
  HUTIL_NODISCARD bool SetCipherLists(std::vector<std::string> lists);
  /// Lets a handshake succeed only with a peer whose certificate chain ends in one of the roots set
  /// and, where `host` is not empty, names that host or IPv4 or IPv6 address; a client tells the
  /// server that name (SNI). A server asks its clients for certificates. A handshake that fails is
  /// logged with the peer and the reason from now on. False without a context and, logged, for a
  /// `host` that can be no name. Owner. See SSL_CTX_set_verify(3).
  HUTIL_NODISCARD bool VerifyPeer(std::string host);
  /// Speaks the newest version that OpenSSL and the peer have, TLS 1.3 or 1.2, in place of the one
  /// asked for, with forward-secret authenticated ciphers only, among which the server chooses;
  /// connections get TCP_NODELAY (see tcp(7)). A handshake that fails is logged with the peer and
  /// the reason from now on. False without a context and, logged, where OpenSSL refuses. To be
  /// called before SetCipherLists, which then chooses among those of TLS 1.2. Owner.
  HUTIL_NODISCARD bool UseModernTls();
  /// Ends each later Accept and Connect, and each Send and Recv on what they have connected, after
  /// `timeout_ms` milliseconds at the most, however slowly the peer goes on; such an operation
  /// fails with errno ETIMEDOUT. Until then signals do not disturb it, and it raises no SIGPIPE. 0,
  /// as at the start: no limit. Any thread.
  void SetTimeLimit(int timeout_ms);

  /// The encoding of the certificate or of the RSA or EC key in `data`, found by parsing; kUnknown
  /// for anything else, encrypted keys included. The finding is logged at 7. Any thread.
  static FileType GetCertType(Buffer& data);
  static FileType GetKeyType(Buffer& data);

  /// The handshake with the peer of `fd`, as client or as server; blocks as `fd` does, or as
  /// SetTimeLimit says. Connect lists the first ten ciphers at 7. False for a failure and for a
  /// descriptor already in use here (both logged by Connect only), and, silently, without a context
  /// and for the other role. Any thread.
  bool Connect(int fd);
  bool Accept(int fd);
  /// Writes all of `size` bytes: `size`, or -1, logged only for an unknown descriptor. After -1 a
  /// part may have gone out: only RemoveClient and closing the descriptor remain. Any thread. See
  /// SSL_write(3).
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
  friend OpenSslImpl& ImplOf(SslWrapper& wrapper);  // for the library's own loops

  std::unique_ptr<OpenSslImpl> impl_;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_SSLWRAPPER_H_
