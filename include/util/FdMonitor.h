#ifndef HUTIL_UTIL_FDMONITOR_H_
#define HUTIL_UTIL_FDMONITOR_H_

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "util/Export.h"
#include "util/Result.h"
#include "util/Thread.h"

namespace hvn {
namespace util {

/// The select set that a descriptor belongs to. Any other value counts as kRead.
enum FdType : int {
  kRead = 0,    ///< Served: its callback runs whenever the descriptor is readable.
  kWrite = 1,   ///< Wakes the loop when writable; never called back.
  kExcept = 2,  ///< Wakes the loop on an exceptional condition; never called back.
};

/// An event loop: one thread that waits in select(2) and calls back for each readable descriptor.
///
///     FdMonitor monitor;
///     monitor.Add(fd, kRead, [](int ready, FdType) { Consume(ready); });
///     ...
///     monitor.Remove(fd, kRead);
///
/// Callbacks run one after another on the monitor's thread with no lock held, so they may Add and
/// Remove (their own descriptor too); a change takes effect from the loop's next pass. They must
/// not throw, and must consume what made the descriptor readable. Remove a descriptor before
/// closing it: a closed one makes select fail, and the loop log, until it is removed.
/// A signal that is taken on the loop's thread makes select fail once too. Descriptors that an
/// fd_set cannot hold (below 0, or 1024 and up) are kept but never waited for.
class HUTIL_EXPORT FdMonitor {
 public:
  using Callback = std::function<void(int, FdType)>;

  /// Makes a monitor of the process-wide registry, which holds five at most and never destroys
  /// one. The registry owns it. Null, with no log line, beyond five. Any thread.
  static FdMonitor* Create();
  /// The registry's monitor number `index` in the order of creation, or null. Any thread.
  static FdMonitor* Get(unsigned int index);
  /// How many monitors the registry holds. Any thread.
  static unsigned int Count();
  /// Does nothing and returns kSuccess, so that indices stay valid for the life of the process. Any
  /// thread.
  static hvn::Result Delete(unsigned int index);

  /// Starts the loop's thread, which logs its number at 7 and echoes it into the kernel log. Where
  /// no wake-up descriptor (silently) or no thread (logged, 3) is to be had, the monitor exists but
  /// never calls back. Owner. See eventfd(2).
  FdMonitor();
  /// Ends the loop and joins its thread; no callback runs after that. Not to be called from a
  /// callback of this monitor. In a forked child, which has no such thread, it leaves the loop of
  /// the parent alone. Owner.
  ~FdMonitor();
  FdMonitor(const FdMonitor&) = delete;
  FdMonitor& operator=(const FdMonitor&) = delete;

  /// Registers `fd`, which stays the caller's, and copies `cb`. With an empty `cb` whatever arrives
  /// is read and thrown away. A descriptor already registered with that type keeps its callback.
  /// Always kSuccess. Any thread.
  hvn::Result Add(int fd, FdType type, Callback cb);
  /// Forgets `fd` in the set of `type`; an unknown one is ignored. The removed callback still runs
  /// in the pass under way where its descriptor was ready too: from another thread, one last call
  /// may come. Always kSuccess. Any thread.
  hvn::Result Remove(int fd, FdType type);

  /// The body of the monitor's thread; not for users. A failing select logs "select error" (3) at
  /// each failure and the loop goes on.
  void ThreadLoop();

 private:
  struct Sets;
  using CallbackMap = std::map<int, Callback>;
  using ReadyList = std::vector<std::pair<int, Callback>>;

  CallbackMap& MapOf(FdType type);
  void Wake(const std::string& word) const;
  int BuildSets(Sets& sets);
  void CollectReady(const Sets& sets, ReadyList& ready);
  void ReadWakeUp();

  static Mutex s_monitor_vector_mutex_;
  static std::vector<FdMonitor*> s_monitor_v_;

  const pid_t maker_;  ///< The process that has the thread.
  std::string exit_word_;
  std::string modify_word_;
  Mutex mutex_;
  Thread thread_;
  int wake_fd_;
  std::atomic<bool> running_;
  CallbackMap read_map_;
  CallbackMap write_map_;
  CallbackMap except_map_;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_FDMONITOR_H_
