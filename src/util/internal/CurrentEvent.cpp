#include "util/internal/CurrentEvent.h"

namespace hvn {
namespace util {

namespace {
thread_local const CurrentEvent* s_current = nullptr;
}  // namespace

CurrentEvent::CurrentEvent(const void* owner, Socket* answering, int client_fd, const Sender* from)
    : server(answering), client(client_fd), sender(from), owner_(owner), outer_(s_current) {
  s_current = this;
}

CurrentEvent::~CurrentEvent() { s_current = outer_; }

const CurrentEvent* CurrentEvent::Of(const void* owner) {
  return s_current != nullptr && s_current->owner_ == owner ? s_current : nullptr;
}

}  // namespace util
}  // namespace hvn
