#include "util/internal/Accept.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "util/internal/Log.h"

namespace hvn {
namespace util {

namespace {
constexpr useconds_t kPauseUs = 5000;
}  // namespace

bool IsExhaustion(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

void PauseIfExhausted(int error) {
  if (IsExhaustion(error)) usleep(kPauseUs);
}

void LogTakenOut(int fd, const std::string& path, const std::string& why) {
  HUTIL_LOG(LOG_ERR, "%s %d: client fd [%d] path [%s] taken out: %s\n",
            "void hvn::util::SocketServer::FdCallback(int, hvn::util::FdType)", __LINE__, fd,
            path.c_str(), why.c_str());
}

void TurnAway(int fd) {
  shutdown(fd, SHUT_RDWR);
  close(fd);
}

}  // namespace util
}  // namespace hvn
