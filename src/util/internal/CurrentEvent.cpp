#include "util/internal/CurrentEvent.h"

namespace hvn {
namespace util {

thread_local const CurrentEvent* CurrentEvent::s_current = nullptr;

CurrentEvent::CurrentEvent(const void* owner, Socket& server, int client_fd, Client* client)
    : owner_(owner),
      server_(server),
      client_fd_(client_fd),
      client_(client),
      sender_(nullptr),
      outer_(s_current) {
  s_current = this;
}

CurrentEvent::CurrentEvent(const void* owner, Socket& server, const Sender& sender)
    : owner_(owner),
      server_(server),
      client_fd_(-1),
      client_(nullptr),
      sender_(&sender),
      outer_(s_current) {
  s_current = this;
}

}  // namespace util
}  // namespace hvn
