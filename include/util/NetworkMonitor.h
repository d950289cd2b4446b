#ifndef HUTIL_UTIL_NETWORKMONITOR_H_
#define HUTIL_UTIL_NETWORKMONITOR_H_

#include <atomic>
#include <functional>
#include <map>
#include <memory>

#include "util/EventDic.h"
#include "util/Export.h"
#include "util/FdMonitor.h"
#include "util/Socket.h"
#include "util/Thread.h"

namespace hvn {
namespace util {

class NetlinkListing;
class NetworkManager;

/// Hears the kernel's rtnetlink(7) notifications and passes each on, as an EventDic, to the
/// callbacks that NetworkManager objects have set. Daemons subscribe through NetworkManager.
///
/// Callbacks run on the thread of FdMonitor 0 of the registry, in ascending order of the
/// subscribers' addresses, under the monitor's lock. Failures log at priority 3.
class HUTIL_EXPORT NetworkMonitor {
 public:
  /// The process's monitor, made at the first call and never destroyed. Any thread.
  static NetworkMonitor* GetInstance();

  /// Opens the netlink socket and registers it with the registry's first FdMonitor. Where either
  /// fails (logged), such as with 1024 descriptors open, and where that monitor has no thread,
  /// nothing is ever called back. Owner.
  NetworkMonitor();
  /// Unregisters and closes the socket; only when no event can be under way. Owner.
  ~NetworkMonitor();
  NetworkMonitor(const NetworkMonitor&) = delete;
  NetworkMonitor& operator=(const NetworkMonitor&) = delete;

  /// Reads one datagram from `fd`, decodes its messages and calls back for each. A failed read (an
  /// overrun of the receive buffer among them, which NetworkManager::SetLossCb tells of) is logged;
  /// later notifications still arrive. A
  /// message below 32 bytes (logged) or of a wrong length (silent) ends the datagram. Hardware
  /// addresses and looked-up names log at 7. Loop thread.
  void FdCallback(int fd, FdType type);

 private:
  friend class NetworkManager;
  using EventCallback = std::function<void(EventDic&)>;
  using LossCallback = std::function<void()>;

  void SetCallback(void* owner, EventCallback callback);
  void RemoveCallback(void* owner);
  void SetLossCallback(void* owner, LossCallback callback);
  void Resync();
  void Dispatch(EventDic& event);
  void DispatchLoss();
  void ReadDatagram(int fd);

  static NetworkMonitor* s_ins_;

  std::map<void*, EventCallback> callbacks_;
  std::map<void*, LossCallback> loss_callbacks_;
  Mutex mutex_;  ///< Guards both maps; held while what is in them runs.
  std::unique_ptr<Socket> socket_;
  FdMonitor* fd_monitor_ = nullptr;
  std::unique_ptr<NetlinkListing> listing_;
  std::atomic<bool> tells_losses_{false};  ///< Whether anybody wants to hear of them.
  bool has_lost_ = false;                  ///< And is still to. Of the loop's thread.
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_NETWORKMONITOR_H_
