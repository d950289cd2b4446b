#ifndef HUTIL_UTIL_INTERNAL_CURRENTEVENT_H_
#define HUTIL_UTIL_INTERNAL_CURRENTEVENT_H_

namespace hvn {
namespace util {

struct Client;
struct Sender;
class Socket;

/// Whose message the calling thread's data callback is about, for as long as the callback runs:
/// what Reply answers. Nothing is owned.
class CurrentEvent {
 public:
  /// `owner` is the server or runner that calls back for a stream client of `server`, whose record
  /// may be null, or for a datagram that has come to it.
  CurrentEvent(const void* owner, Socket& server, int client_fd, Client* client);
  CurrentEvent(const void* owner, Socket& server, const Sender& sender);
  ~CurrentEvent() { s_current = outer_; }
  CurrentEvent(const CurrentEvent&) = delete;
  CurrentEvent& operator=(const CurrentEvent&) = delete;

  /// The calling thread's, if it is one of `owner`'s; else null.
  static const CurrentEvent* Of(const void* owner) {
    return s_current != nullptr && s_current->owner_ == owner ? s_current : nullptr;
  }

  Socket& server() const { return server_; }
  int client_fd() const { return client_fd_; }
  Client* client() const { return client_; }
  /// Null for a stream client.
  const Sender* sender() const { return sender_; }
  void NoteAnswer() const { is_answered_ = true; }
  bool is_answered() const { return is_answered_; }

 private:
  static thread_local const CurrentEvent* s_current;

  const void* const owner_;
  Socket& server_;
  const int client_fd_;
  Client* const client_;
  const Sender* const sender_;
  const CurrentEvent* const outer_;
  mutable bool is_answered_ = false;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_CURRENTEVENT_H_
