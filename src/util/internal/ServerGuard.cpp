#include "util/internal/ServerGuard.h"

#include <fcntl.h>

#include <cstdint>
#include <utility>

#include "util/internal/Accept.h"
#include "util/internal/Deadline.h"
#include "util/internal/Outbox.h"
#include "util/internal/Select.h"

namespace hvn {
namespace util {

namespace {
int OpenSpare() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }
}  // namespace

ServerGuard::ServerGuard(ClientTable& clients, SslWrapper* ssl, int limit_ms, Hooks hooks)
    : clients_(clients), hooks_(std::move(hooks)) {
  if (limit_ms <= 0) return;
  OpenSslImpl* const tls = ssl != nullptr ? &ImplOf(*ssl) : nullptr;
  limits_ = std::make_unique<PeerLimits>(
      watch_, tls, limit_ms,
      [this](const Client& client, bool reads) { clients_.SetReading(client, reads); });
  if (tls != nullptr) {
    handshakes_ = std::make_unique<Handshakes>(watch_, *tls, limit_ms, hooks_.admit);
  }
  spare_.Reset(OpenSpare());
}

void ServerGuard::Serve() {
  watch_.Serve([this](int fd) { ServePeer(fd); }, [this] { return FailOverdue(); });
}

void ServerGuard::ServePeer(int fd) {
  if (handshakes_ && handshakes_->Continue(fd)) return;
  const ClientPtr client = clients_.Find(fd);
  // What TLS holds decrypted, or could not go on with, select does not tell of.
  if (client && client->peer && limits_->Flush(*client)) hooks_.receive(client);
}

int64_t ServerGuard::FailOverdue() {
  if (!limits_) return Outbox::kNever;
  const int64_t now = MonotonicMs();
  int64_t next = handshakes_ ? handshakes_->Expire(now) : Outbox::kNever;
  for (const ClientPtr& client : clients_.All()) limits_->Expire(*client, now, next);
  return next;
}

void ServerGuard::AbandonParent() {
  if (handshakes_) handshakes_->AbandonParent();
}

void ServerGuard::Welcome(int newcomer, const std::string& path, int error) {
  if (newcomer < 0) {
    if (IsExhaustion(error)) TurnNewcomerAway(error);
  } else if (!FitsSelect(newcomer)) {
    LogTakenOut(newcomer, path, "select cannot hold more descriptors");
    TurnAway(newcomer);
  } else if (handshakes_ && newcomer > 0) {
    handshakes_->Begin(newcomer, path);
  } else {
    hooks_.admit(newcomer, path);
  }
}

/// Out of descriptors: the spare one lets the newcomer in and out, who would stay in the queue and
/// keep the loop awake.
void ServerGuard::TurnNewcomerAway(int error) {
  spare_.Reset();
  std::string path;
  const int newcomer = hooks_.accept(path);
  if (newcomer >= 0) {
    LogTakenOut(newcomer, path, "no descriptor is left");
    TurnAway(newcomer);
  } else {
    PauseIfExhausted(error);
  }
  spare_.Reset(OpenSpare());
}

}  // namespace util
}  // namespace hvn
