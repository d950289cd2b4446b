#ifndef HUTIL_UTIL_INTERNAL_NETLINKLISTING_H_
#define HUTIL_UTIL_INTERNAL_NETLINKLISTING_H_

#include <cstdint>
#include <functional>

#include "util/EventDic.h"
#include "util/FdMonitor.h"
#include "util/Thread.h"
#include "util/internal/ByteView.h"

namespace hvn {
namespace util {

/// Has the kernel list its links and then its addresses, as events, on a socket of its own: one
/// listing at a time, and one more after it where one is asked for meanwhile, or a few where the
/// kernel says that things changed while it listed them. Lives as long as its loop runs.
class NetlinkListing {
 public:
  using Deliver = std::function<void(EventDic&)>;

  /// `deliver` is called on the thread of `monitor`, which is not owned.
  NetlinkListing(FdMonitor* monitor, Deliver deliver);

  /// Begins a listing. Failures are logged at 3 and end it. Any thread.
  void Request();

 private:
  void BeginLocked();
  bool Ask(uint16_t type);
  void OnReadable(int fd);
  bool TakeMessage(const ByteView& message);
  static void Fail(const char* what, int error);
  void End();

  FdMonitor* const monitor_;
  const Deliver deliver_;
  Mutex mutex_;            ///< Guards what follows where no listing is under way,
  int fd_ = -1;            ///< whose loop alone uses this then,
  bool again_ = false;     ///< and these always: one more is wanted;
  int repeats_ = 0;        ///< so many were for being stale since somebody wanted one.
  bool is_stale_ = false;  ///< Things changed while they were listed.
  uint16_t asked_ = 0;     ///< RTM_GETLINK or RTM_GETADDR.
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_NETLINKLISTING_H_
