#include "util/internal/PeerLimits.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

#include "util/internal/Deadline.h"

namespace hvn {
namespace util {

namespace {

constexpr char kNotTaken[] = "answer not taken in time";
constexpr size_t kMostKept = size_t{8} << 20;

}  // namespace

PeerLimits::PeerLimits(PeerWatch& watch, OpenSslImpl* tls, int limit_ms, SetReading set_reading)
    : watch_(watch), tls_(tls), limit_ms_(limit_ms), set_reading_(std::move(set_reading)) {}

// ---- Sending ----

ssize_t PeerLimits::Send(Client& client, const void* data, size_t size) {
  if (data == nullptr || size == 0) return -1;
  Peer& peer = *client.peer;
  std::lock_guard<Mutex> lock(peer.mutex);
  if (!peer.failure.empty() || client.closing) return -1;
  std::string_view rest(static_cast<const char*>(data), size);
  if (peer.outbox.empty()) {
    short awaits = 0;
    if (!Push(client, rest, awaits)) return -1;
    if (rest.empty()) return static_cast<ssize_t>(size);
    set_reading_(client, false);
    watch_.Watch(client.fd, awaits);
  }
  return Keep(client, rest) ? static_cast<ssize_t>(size) : -1;
}

/// For the peer to take later. A callback that answers in many pieces keeps the loop from looking
/// at the time, so it is looked at here too.
bool PeerLimits::Keep(Client& client, std::string_view rest) {
  Outbox& outbox = client.peer->outbox;
  const int64_t now = MonotonicMs();
  const char* why = nullptr;
  if (outbox.until() <= now) why = kNotTaken;
  if (outbox.bytes().size() > kMostKept) why = "too many answers not taken";
  try {
    if (why == nullptr) outbox.Add(rest, now + limit_ms_);
  } catch (const std::bad_alloc&) {
    why = "no memory for its answers";
  }
  if (why == nullptr) {
    watch_.RingAt(now + limit_ms_);
  } else {
    Fail(client, why);
  }
  return why == nullptr;
}

/// Sends from the front of `bytes` as far as the peer takes them, which leaves what its next taking
/// `awaits`. False where the peer has gone.
bool PeerLimits::Push(Client& client, std::string_view& bytes, short& awaits) {
  while (!bytes.empty()) {
    const ssize_t n = TrySend(client, bytes, awaits);
    if (n > 0) {
      bytes.remove_prefix(static_cast<size_t>(n));
    } else if (awaits != 0) {
      return true;
    } else {
      Fail(client, std::string("cannot send: ") + std::strerror(errno));
      return false;
    }
  }
  return true;
}

ssize_t PeerLimits::TrySend(const Client& client, std::string_view bytes, short& awaits) const {
  if (tls_ != nullptr) {
    const size_t size = std::min<size_t>(bytes.size(), INT_MAX);
    const OpenSslImpl::Step step = tls_->SendStep(client.fd, bytes.data(), size);
    awaits = step.awaits;
    return step.result;
  }
  const ssize_t n = send(client.fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  const bool waits = n < 0 && (errno == EAGAIN || errno == EINTR);
  awaits = waits ? POLLOUT : 0;
  return n;
}

bool PeerLimits::Flush(Client& client) {
  Peer& peer = *client.peer;
  std::lock_guard<Mutex> lock(peer.mutex);
  if (!peer.failure.empty()) return false;
  const size_t before = peer.outbox.bytes().size();
  std::string_view rest = peer.outbox.bytes();
  short awaits = 0;
  if (!Push(client, rest, awaits)) return false;
  const size_t left = rest.size();
  peer.outbox.Take(before - left);
  if (left > 0) {
    watch_.Watch(client.fd, awaits);
    return false;
  }
  if (client.closing) EndSending(client);
  if (peer.record_until != Outbox::kNever) LimitRecord(peer);  // which nobody has read meanwhile
  set_reading_(client, true);
  return !client.closing || before > 0;  // one that was read all the time has an event of its own
}

void PeerLimits::Close(Client& client) {
  Peer& peer = *client.peer;
  std::lock_guard<Mutex> lock(peer.mutex);
  peer.close_until = MonotonicMs() + limit_ms_;
  watch_.RingAt(peer.close_until);
  if (peer.outbox.empty()) EndSending(client);
}

/// Where there is no room for the close-notify just now, it goes out when there is.
void PeerLimits::EndSending(const Client& client) {
  pollfd peer = {client.fd, POLLOUT, 0};
  if (tls_ != nullptr && poll(&peer, 1, 0) == 0) {
    watch_.Watch(client.fd, POLLOUT);
    return;
  }
  if (tls_ != nullptr) tls_->SendCloseNotify(client.fd);
  shutdown(client.fd, SHUT_WR);
}

// ---- Receiving ----

ssize_t PeerLimits::Receive(Client& client, void* buffer, size_t size) {
  if (tls_ == nullptr) {
    const ssize_t n = recv(client.fd, buffer, size, MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) errno = EAGAIN;
    return n;
  }
  const OpenSslImpl::Step step = tls_->RecvStep(client.fd, buffer, size);
  Peer& peer = *client.peer;
  std::lock_guard<Mutex> lock(peer.mutex);
  const bool needs_room = step.awaits == POLLOUT;
  if (needs_room) {  // what it has sent meanwhile would keep the loop awake
    set_reading_(client, false);
    watch_.Watch(client.fd, POLLOUT);
  }
  if (!step.in_record && !needs_room) {
    peer.record_until = Outbox::kNever;
  } else if (peer.record_until == Outbox::kNever) {
    LimitRecord(peer);
  }
  if (step.awaits != 0) {
    errno = EAGAIN;
  } else if (errno == EAGAIN) {
    errno = EPROTO;  // of an alert that found no room
  }
  return step.result;
}

/// With the client's lock held.
void PeerLimits::LimitRecord(Peer& peer) {
  peer.record_until = MonotonicMs() + limit_ms_;
  watch_.RingAt(peer.record_until);
}

PeerLimits::Turn PeerLimits::TurnOf(Client& client, std::string& why) {
  Peer& peer = *client.peer;
  std::lock_guard<Mutex> lock(peer.mutex);
  why = peer.failure;
  if (!why.empty()) return Turn::kTakeOut;
  return peer.outbox.empty() ? Turn::kRead : Turn::kWait;
}

// ---- Failing ----

void PeerLimits::Expire(Client& client, int64_t now, int64_t& next) {
  Peer& peer = *client.peer;
  std::lock_guard<Mutex> lock(peer.mutex);
  if (!peer.failure.empty()) return;
  if (peer.outbox.until() <= now) {
    Fail(client, kNotTaken);
  } else if (peer.outbox.empty() && peer.record_until <= now) {
    Fail(client, "record not completed in time");
  } else if (peer.close_until <= now) {
    Fail(client, "connection not closed in time");
  } else {
    const int64_t record_until = peer.outbox.empty() ? peer.record_until : Outbox::kNever;
    next = std::min({next, peer.outbox.until(), record_until, peer.close_until});
  }
}

/// With the client's lock held.
void PeerLimits::Fail(Client& client, std::string why) {
  client.peer->failure = std::move(why);
  shutdown(client.fd, SHUT_RDWR);
  set_reading_(client, true);
}

}  // namespace util
}  // namespace hvn
