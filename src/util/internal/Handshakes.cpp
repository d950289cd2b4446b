#include "util/internal/Handshakes.h"

#include <algorithm>
#include <utility>

#include "util/internal/Accept.h"
#include "util/internal/Deadline.h"
#include "util/internal/Outbox.h"

namespace hvn {
namespace util {

Handshakes::Handshakes(PeerWatch& watch, OpenSslImpl& tls, int limit_ms, Admit admit)
    : watch_(watch), tls_(tls), limit_ms_(limit_ms), admit_(std::move(admit)) {}

Handshakes::~Handshakes() {
  for (const auto& newcomer : newcomers_) {
    tls_.AbandonHandshake(newcomer.first);
    TurnAway(newcomer.first);
  }
}

void Handshakes::Begin(int fd, std::string path) {
  const Newcomer newcomer = {std::move(path), MonotonicMs() + limit_ms_};
  watch_.RingAt(newcomer.until);
  MakeStep(newcomers_.insert_or_assign(fd, newcomer).first);
}

bool Handshakes::Continue(int fd) {
  const auto newcomer = newcomers_.find(fd);
  if (newcomer == newcomers_.end()) return false;
  MakeStep(newcomer);
  return true;
}

void Handshakes::MakeStep(Newcomers::iterator newcomer) {
  const int fd = newcomer->first;
  const OpenSslImpl::Step step = tls_.AcceptStep(fd);
  if (step.awaits != 0) {
    watch_.Watch(fd, step.awaits);
  } else if (step.result != 1) {
    TurnAwayFor(newcomer, "handshake failed: " + step.failure);
  } else {
    std::string path = std::move(newcomer->second.path);
    newcomers_.erase(newcomer);
    admit_(fd, std::move(path));
  }
}

int64_t Handshakes::Expire(int64_t now) {
  int64_t next = Outbox::kNever;
  for (auto newcomer = newcomers_.begin(); newcomer != newcomers_.end();) {
    if (newcomer->second.until <= now) {
      newcomer = TurnAwayFor(newcomer, "handshake not finished in time");
    } else {
      next = std::min(next, newcomer->second.until);
      ++newcomer;
    }
  }
  return next;
}

Handshakes::Newcomers::iterator Handshakes::TurnAwayFor(Newcomers::iterator newcomer,
                                                        const std::string& why) {
  const int fd = newcomer->first;
  LogTakenOut(fd, newcomer->second.path, why);
  tls_.AbandonHandshake(fd);
  TurnAway(fd);
  return newcomers_.erase(newcomer);
}

}  // namespace util
}  // namespace hvn
