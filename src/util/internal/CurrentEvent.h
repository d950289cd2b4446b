#ifndef HUTIL_UTIL_INTERNAL_CURRENTEVENT_H_
#define HUTIL_UTIL_INTERNAL_CURRENTEVENT_H_

namespace hvn {
namespace util {

class Socket;
struct Sender;

/// Whose message the calling thread's data callback is about, for as long as the callback runs:
/// what Reply answers.
class CurrentEvent {
 public:
  /// `owner` is the server or runner that calls back; `client` is the stream client of the
  /// socket `server`, or 0 and `sender` whom the datagram on it comes from.
  CurrentEvent(const void* owner, Socket* server, int client, const Sender* sender);
  ~CurrentEvent();
  CurrentEvent(const CurrentEvent&) = delete;
  CurrentEvent& operator=(const CurrentEvent&) = delete;

  /// The calling thread's, if it is one of `owner`'s; else null.
  static const CurrentEvent* Of(const void* owner);

  Socket* const server;
  const int client;
  const Sender* const sender;

 private:
  const void* const owner_;
  const CurrentEvent* const outer_;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_CURRENTEVENT_H_
