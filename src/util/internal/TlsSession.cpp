#include "util/internal/TlsSession.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <poll.h>

#include <cstring>

#include "util/internal/OpenSslCompat.h"

namespace hvn {
namespace util {

TlsSession::TlsSession(SSL_CTX* context, int fd, Patience patience)
    : ssl_(SSL_new(context)), patience_(patience) {
  if (!ssl_) return;
  if (patience == Patience::kNone) {
    SSL_set_fd(ssl_.get(), fd);
  } else if (!BecomePatient(fd)) {
    ssl_.reset();
  }
}

bool TlsSession::BecomePatient(int fd) {
  BIO* const bio = MakePatientBio(fd);
  if (bio == nullptr) return false;
  SSL_set_bio(ssl_.get(), bio, bio);  // which takes it over
  SSL_set_mode(ssl_.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  patience_ = Patience::kPatient;
  return true;
}

void TlsSession::BeginStep() {
  if (ERR_peek_error() != 0) ERR_clear_error();
}

// A fatal alert that finds no room leaves a failed operation that looks as if it awaited some: only
// the error queue tells.
short TlsSession::Awaits(int result) const {
  switch (SSL_get_error(ssl_.get(), result)) {
    case SSL_ERROR_WANT_READ:
      return POLLIN;
    case SSL_ERROR_WANT_WRITE:
      return POLLOUT;
    default:
      return 0;
  }
}

bool TlsSession::IsWithinRecord() const { return HasPartOfRecord(ssl_.get()); }

// poll tells more than POLLOUT of a peer that has gone, which a send would answer with SIGPIPE.
void TlsSession::SendCloseNotify(int fd) const {
  pollfd peer = {fd, POLLOUT, 0};
  const bool takes_it = poll(&peer, 1, 0) == 1 && peer.revents == POLLOUT;
  if (!takes_it) SSL_set_quiet_shutdown(ssl_.get(), 1);
  SSL_shutdown(ssl_.get());
}

std::string TlsFailure(const SSL* ssl, int saved_errno) {
  const long verdict = SSL_get_verify_result(ssl);
  const bool verified = SSL_get_verify_mode(ssl) != SSL_VERIFY_NONE;
  if (verified && verdict != X509_V_OK) return X509_verify_cert_error_string(verdict);
  const char* const reason = ERR_reason_error_string(ERR_peek_last_error());
  if (reason != nullptr) return reason;
  return saved_errno == 0 ? "the peer closed the connection" : std::strerror(saved_errno);
}

ErrorQueueGuard::ErrorQueueGuard() { ERR_set_mark(); }

ErrorQueueGuard::~ErrorQueueGuard() { ERR_pop_to_mark(); }

}  // namespace util
}  // namespace hvn
