#ifndef HUTIL_UTIL_INTERNAL_TLSSESSION_H_
#define HUTIL_UTIL_INTERNAL_TLSSESSION_H_

#include <openssl/ssl.h>

#include <memory>
#include <string>

namespace hvn {
namespace util {

/// One TLS connection on a socket that stays its owner's. Used by one thread at a time.
///
/// A patient session never waits inside OpenSSL, whatever the mode of the descriptor: an operation
/// that cannot go on says what it awaits and is made again when that has come. Neither does it
/// raise SIGPIPE, and signals do not disturb it.
class TlsSession {
 public:
  enum class Patience { kNone, kPatient };

  TlsSession() = default;  ///< None.
  TlsSession(SSL_CTX* context, int fd, Patience patience);

  bool is_made() const { return ssl_ != nullptr; }
  bool is_patient() const { return patience_ == Patience::kPatient; }
  SSL* get() const { return ssl_.get(); }

  /// From now on, in place of what waits inside OpenSSL. False where there is no memory.
  bool BecomePatient(int fd);

  /// To be called before each operation of a patient session: takes away what others have left in
  /// the thread's error queue.
  static void BeginStep();
  /// What the last operation, which returned `result`, waits for: POLLIN, POLLOUT, or 0 where it is
  /// over, well or not.
  short Awaits(int result) const;
  /// Whether the peer has sent a part of a record that is still to be completed.
  bool IsWithinRecord() const;

  /// Tells the peer that nothing more comes, but for one that has gone or has no room for that.
  void SendCloseNotify(int fd) const;

 private:
  struct Free {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
  };

  std::unique_ptr<SSL, Free> ssl_;
  Patience patience_ = Patience::kNone;
};

/// Why the last operation on `ssl` failed, for a log line: the verdict on the peer's certificate,
/// OpenSSL's newest reason, or errno's.
std::string TlsFailure(const SSL* ssl, int saved_errno);

/// Takes back what OpenSSL adds to its thread's error queue within a scope: what is left there is
/// taken by the daemon's next TLS call for an error of its own. Transfers do without, since a mark
/// costs more than all else that the library adds to one: when one fails it empties the queue, as
/// OpenSSL's own handshakes do.
class ErrorQueueGuard {
 public:
  ErrorQueueGuard();
  ~ErrorQueueGuard();
  ErrorQueueGuard(const ErrorQueueGuard&) = delete;
  ErrorQueueGuard& operator=(const ErrorQueueGuard&) = delete;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_TLSSESSION_H_
