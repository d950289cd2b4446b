#include "util/internal/Accept.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace hvn {
namespace util {

namespace {
constexpr useconds_t kPauseUs = 5000;
}  // namespace

void PauseIfExhausted(int error) {
  const bool exhausted = error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
  if (exhausted) usleep(kPauseUs);
}

void TurnAway(int fd) {
  shutdown(fd, SHUT_RDWR);
  close(fd);
}

}  // namespace util
}  // namespace hvn
