#ifndef HUTIL_UTIL_INTERNAL_HANDSHAKES_H_
#define HUTIL_UTIL_INTERNAL_HANDSHAKES_H_

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "util/OpenSslImpl.h"
#include "util/internal/PeerWatch.h"

namespace hvn {
namespace util {

/// The TLS handshakes of a server's newcomers, many at once, each a step whenever its peer has sent
/// or taken something, and each with one deadline for the whole. A newcomer that does not come to
/// the end of it is turned away, with a log line. Loop thread.
class Handshakes {
 public:
  /// Gets the descriptor and the path of who has come to the end.
  using Admit = std::function<void(int, std::string)>;

  Handshakes(PeerWatch& watch, OpenSslImpl& tls, int limit_ms, Admit admit);
  ~Handshakes();
  Handshakes(const Handshakes&) = delete;
  Handshakes& operator=(const Handshakes&) = delete;

  /// Takes over the newcomer's descriptor.
  void Begin(int fd, std::string path);
  /// When `fd` is ready for what its handshake awaits; false where it has none.
  bool Continue(int fd);
  /// Turns away whose time is over at `now`, and returns when the next one's is, or Outbox::kNever.
  int64_t Expire(int64_t now);
  /// In a forked child: leaves the newcomers, who are the parent's, alone.
  void AbandonParent() { newcomers_.clear(); }

 private:
  struct Newcomer {
    std::string path;
    int64_t until;
  };
  using Newcomers = std::map<int, Newcomer>;

  void MakeStep(Newcomers::iterator newcomer);
  Newcomers::iterator TurnAwayFor(Newcomers::iterator newcomer, const std::string& why);

  PeerWatch& watch_;
  OpenSslImpl& tls_;
  const int limit_ms_;
  const Admit admit_;
  Newcomers newcomers_;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_HANDSHAKES_H_
