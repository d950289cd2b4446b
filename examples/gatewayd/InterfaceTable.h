#ifndef EXAMPLES_GATEWAYD_INTERFACETABLE_H_
#define EXAMPLES_GATEWAYD_INTERFACETABLE_H_

#include <atomic>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "util/EventDic.h"
#include "util/NetworkManager.h"
#include "util/Thread.h"

/// The device's network interfaces, and the last changes to them.
///
/// The kernel's events say no more than that something may be new: what is, the interfaces
/// themselves tell. So events, and a loss of events, have them looked at, and only what differs
/// from the last look is a change. In a storm of events most looks are left to Settle.
class InterfaceTable {
 public:
  InterfaceTable();
  ~InterfaceTable();

  /// One line for each interface, as it is now. Any thread.
  std::vector<std::string> Lines();
  /// One line for each of the last hundred changes. Any thread.
  std::vector<std::string> Changes();
  /// Looks where events have come since the last look; to be called now and then. Any thread.
  void Settle();

 private:
  /// What is known of an interface, always in the same order; a text may be empty.
  using Fields = std::vector<std::pair<const char*, std::string>>;

  static std::string Text(const Fields& fields);
  Fields FieldsOf(const std::string& name);
  std::string KindOf(const std::string& name);
  void OnChange();
  void Look();
  void Compare(const std::map<std::string, Fields>& seen);
  void Note(const std::string& change);

  std::atomic<long long> next_look_ms_{0};
  std::atomic<bool> unsettled_{false};
  hvn::util::Mutex mutex_;  ///< Guards interfaces_ and changes_; held over a whole look.
  std::map<std::string, Fields> interfaces_;
  std::deque<std::string> changes_;
  hvn::util::NetworkManager network_;
};

#endif  // EXAMPLES_GATEWAYD_INTERFACETABLE_H_
