#ifndef HUTIL_UTIL_INTERNAL_CLIENTTABLE_H_
#define HUTIL_UTIL_INTERNAL_CLIENTTABLE_H_

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "util/FdMonitor.h"
#include "util/Thread.h"
#include "util/internal/Client.h"

namespace hvn {
namespace util {

/// The stream clients of a SocketServer, and their registration with its loop. All operations: any
/// thread.
class ClientTable {
 public:
  /// `monitor`, which may be null, calls `callback` for each client that is readable.
  ClientTable(FdMonitor* monitor, FdMonitor::Callback callback);

  /// Has departed clients kept for TakeDeparted, and `on_departure` called for each, with the lock
  /// held.
  void KeepDeparted(std::function<void()> on_departure);

  /// Enters a client; one already known keeps its path. `peer` may be null. False once the table is
  /// shut.
  bool Add(int fd, std::string path, std::unique_ptr<Peer> peer);
  /// Null where there is none of that number.
  ClientPtr Find(int fd);
  std::vector<ClientPtr> All();

  /// Takes a client out, whose descriptor stays open; an unknown one is ignored. Logs for
  /// SocketServer::RemoveFd.
  void Remove(int fd);
  /// Takes a client out and closes it, together: the number may be another client's right after.
  /// Where another thread is still sending to it, that one closes. False where it was taken out
  /// already, and is its taker's to close.
  bool Drop(ClientPtr client);
  /// Has the loop look at a client's descriptor or not, unless the client has left.
  void SetReading(const Client& client, bool reads);

  /// Those who have left since the last call. A dropped one is closed when its record goes.
  std::vector<ClientPtr> TakeDeparted();
  /// Empties the table without a word, for good; returns who was in it.
  std::vector<ClientPtr> Shut();

 private:
  using Clients = std::map<int, ClientPtr>;

  void Forget(Clients::iterator found, ClientPtr client);

  FdMonitor* const monitor_;
  const FdMonitor::Callback callback_;
  std::function<void()> on_departure_;
  Mutex mutex_;  ///< Guards what follows.
  Clients clients_;
  std::vector<ClientPtr> departed_;
  bool shut_ = false;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_CLIENTTABLE_H_
