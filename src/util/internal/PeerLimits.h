#ifndef HUTIL_UTIL_INTERNAL_PEERLIMITS_H_
#define HUTIL_UTIL_INTERNAL_PEERLIMITS_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "util/OpenSslImpl.h"
#include "util/internal/Client.h"
#include "util/internal/PeerWatch.h"

namespace hvn {
namespace util {

/// Transfers that never wait for a client, and what a client may keep a server waiting with: the
/// rest of a TLS record that it has begun, an answer that it does not read, the end of a connection
/// that the server has ended. Each of these has a time limit for the whole of it.
///
/// An answer that the peer does not take at once is kept and goes out as it does; until then
/// nothing more is read from it, so that it cannot ask for more than it takes. A
/// client that fails is shut down, which the loop hears of as of any other end of stream: it is
/// taken out in its own event.
class PeerLimits {
 public:
  /// Lets a client's requests in (true) or leaves them in the kernel.
  using SetReading = std::function<void(const Client&, bool)>;

  /// `tls` is null for clear text.
  PeerLimits(PeerWatch& watch, OpenSslImpl* tls, int limit_ms, SetReading set_reading);

  /// Takes all of `data`: `size`, or -1 for a client that has to go. Any thread.
  ssize_t Send(Client& client, const void* data, size_t size);
  /// As recv(2) on a non-blocking descriptor: EAGAIN where nothing whole is there. Loop thread.
  ssize_t Receive(Client& client, void* buffer, size_t size);
  /// When the client can be sent to again. True where nothing is left to send. Loop thread.
  bool Flush(Client& client);
  /// Ends the connection once everything is sent; the peer has the limit's time to end it too. Any
  /// thread.
  void Close(Client& client);

  /// What is to be done with a client that has something to be read.
  enum class Turn { kRead, kWait, kTakeOut };
  /// Where it is to be taken out, `why` is the reason. Loop thread.
  static Turn TurnOf(Client& client, std::string& why);
  /// Fails a client whose time is over at `now`; lowers `next` to when another's is. Loop thread.
  void Expire(Client& client, int64_t now, int64_t& next);

 private:
  void Fail(Client& client, std::string why);
  bool Keep(Client& client, std::string_view rest);
  void LimitRecord(Peer& peer);
  bool Push(Client& client, std::string_view& bytes, short& awaits);
  ssize_t TrySend(const Client& client, std::string_view bytes, short& awaits) const;
  void EndSending(const Client& client);

  PeerWatch& watch_;
  OpenSslImpl* const tls_;
  const int limit_ms_;
  const SetReading set_reading_;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_PEERLIMITS_H_
