#ifndef EXAMPLES_GATEWAYD_GATEWAY_H_
#define EXAMPLES_GATEWAYD_GATEWAY_H_

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "gatewayd/InterfaceTable.h"
#include "gatewayd/Lines.h"
#include "util/Thread.h"
#include "util/TimerManager.h"

/// What the daemon knows, and the commands that ask it.
class Gateway {
 public:
  /// A page from the web is waited for `patience_ms` milliseconds at the most.
  explicit Gateway(int patience_ms);
  ~Gateway();

  /// Runs one request line. Any thread.
  Reply Run(const std::string& line);
  /// Whether the line's command waits for other hosts, which no event loop should. Any thread.
  static bool IsSlow(const std::string& line);
  /// Counts and logs a sign of life. Any thread.
  void Beat();
  /// Who is connected, where that is known. The earlier lister has returned when this does. Any
  /// thread.
  void SetClientLister(std::function<std::vector<std::string>()> lister);

 private:
  using Arguments = std::vector<std::string>;
  struct Command;
  static const Command kCommands[];
  static const Command* Find(const std::string& name);

  void CountLeases();

  Reply Help(const Arguments& arguments);
  Reply Status(const Arguments& arguments);
  Reply Interfaces(const Arguments& arguments);
  Reply Range(const Arguments& arguments);
  Reply Resolve(const Arguments& arguments);
  Reply Clients(const Arguments& arguments);
  Reply Events(const Arguments& arguments);
  Reply Leases(const Arguments& arguments);
  Reply Get(const Arguments& arguments);
  Reply Set(const Arguments& arguments);
  Reply Fetch(const Arguments& arguments);
  Reply Pid(const Arguments& arguments);
  Reply Quit(const Arguments& arguments);

  const int patience_ms_;
  const long long born_s_;
  std::atomic<long long> beats_{0};
  std::atomic<size_t> leases_{0};
  InterfaceTable interfaces_;
  hvn::util::Mutex lister_mutex_;  ///< Guards client_lister_; held while it runs.
  std::function<std::vector<std::string>()> client_lister_;
  hvn::util::TimerManager timers_;
  std::vector<int> tasks_;  ///< Their callbacks use all of this, until EndTask has returned.
};

#endif  // EXAMPLES_GATEWAYD_GATEWAY_H_
