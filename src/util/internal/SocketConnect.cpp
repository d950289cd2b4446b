#include "util/internal/SocketConnect.h"

#include <sys/select.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

#include "util/internal/Log.h"
#include "util/internal/Select.h"
#include "util/internal/SocketOptions.h"

namespace hvn {
namespace util {

int ConnectTo(int fd, const SocketAddress& address) {
  if (address.is_set()) return connect(fd, address.get(), address.length());
  errno = ENAMETOOLONG;
  return -1;
}

int AwaitConnection(int fd, int timeout_us, int result) {
  fd_set read_set;
  FD_ZERO(&read_set);
  FD_SET(fd, &read_set);
  fd_set write_set = read_set;
  timeval span = ToTimeval(static_cast<uint64_t>(timeout_us));
  HUTIL_LOG(LOG_DEBUG, "%s %d: timeout sec %ld usec %ld\n", kConnect, __LINE__,
            static_cast<long>(span.tv_sec), static_cast<long>(span.tv_usec));
  if (select(fd + 1, &read_set, &write_set, nullptr, &span) <= 0) return result;
  // Reading the error clears it, so a refusal that shows in both sets is seen in the first only.
  const bool refused = FD_ISSET(fd, &read_set) && TakeConnectError(fd) > 0;
  const bool writable = FD_ISSET(fd, &write_set) && TakeConnectError(fd) == 0;
  return writable && !refused ? 0 : result;
}

}  // namespace util
}  // namespace hvn
