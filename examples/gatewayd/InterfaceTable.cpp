#include "gatewayd/InterfaceTable.h"

#include <time.h>

#include <mutex>

using hvn::util::EventDic;
using hvn::util::Mutex;
using hvn::util::NetworkManager;

namespace {

constexpr size_t kMaxChanges = 100;
constexpr long long kPauseMs = 20;

long long MonotonicMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

std::string ClockText() {
  const time_t now = time(nullptr);
  tm parts;
  gmtime_r(&now, &parts);
  char text[32];
  strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

/// Links and addresses; routes, rules and queues come by as well.
bool MayChangeInterface(EventDic::EventType type) {
  return type == EventDic::kEventNewLink || type == EventDic::kEventDelLink ||
         type == EventDic::kEventNewAddr || type == EventDic::kEventDelAddr;
}

/// Up is what was asked for, running what the cable says.
std::string StateOf(const std::string& name) {
  if (!NetworkManager::IsUpState(name)) return "down";
  return NetworkManager::IsRunning(name) ? "up" : "no-cable";
}

std::string Ipv4Of(const std::string& name) {
  std::string address;
  std::string netmask;
  const bool found = NetworkManager::GetIpAddress(name, address, false) &&
                     NetworkManager::GetSubnetMask(name, netmask);
  return found ? address + "/" + netmask : "";
}

std::string Ipv6Of(const std::string& name) {
  std::string address;
  NetworkManager::GetIpAddress(name, address, true);
  return address;
}

}  // namespace

InterfaceTable::InterfaceTable() {
  network_.SetEventCb([this](EventDic& event) {
    if (MayChangeInterface(event.type_)) OnChange();
  });
  network_.SetLossCb([this] { OnChange(); });
  Look();
}

/// No call is under way when either returns, and none comes.
InterfaceTable::~InterfaceTable() {
  network_.UnsetEventCb();
  network_.SetLossCb(nullptr);
}

std::vector<std::string> InterfaceTable::Lines() {
  Look();
  std::lock_guard<Mutex> lock(mutex_);
  std::vector<std::string> lines;
  for (const auto& entry : interfaces_) lines.push_back(entry.first + Text(entry.second));
  return lines;
}

std::vector<std::string> InterfaceTable::Changes() {
  std::lock_guard<Mutex> lock(mutex_);
  return {changes_.begin(), changes_.end()};
}

std::string InterfaceTable::Text(const Fields& fields) {
  std::string text;
  for (const auto& field : fields) {
    if (!field.second.empty()) text += std::string(" ") + field.first + "=" + field.second;
  }
  return text;
}

InterfaceTable::Fields InterfaceTable::FieldsOf(const std::string& name) {
  return {{"state", StateOf(name)},
          {"kind", KindOf(name)},
          {"mac", network_.GetMacAddress(name)},
          {"ipv4", Ipv4Of(name)},
          {"ipv6", Ipv6Of(name)}};
}

std::string InterfaceTable::KindOf(const std::string& name) {
  if (network_.IsLoopBackDevice(name)) return "loopback";
  if (network_.IsWirelessDevice(name)) return "wireless";
  return network_.IsEthernetDevice(name) ? "ethernet" : "other";
}

/// On the network monitor's thread, under its lock: at once where it is the first for a while.
void InterfaceTable::OnChange() {
  unsettled_ = true;
  if (MonotonicMs() >= next_look_ms_) Settle();
}

void InterfaceTable::Settle() {
  if (unsettled_.exchange(false)) Look();
}

void InterfaceTable::Look() {
  std::lock_guard<Mutex> lock(mutex_);
  std::map<std::string, Fields> seen;
  for (const std::string& name : NetworkManager::GetIfNames()) seen[name] = FieldsOf(name);
  if (!interfaces_.empty()) Compare(seen);
  interfaces_.swap(seen);
  next_look_ms_ = MonotonicMs() + kPauseMs;
}

void InterfaceTable::Compare(const std::map<std::string, Fields>& seen) {
  for (const auto& entry : interfaces_) {
    if (seen.count(entry.first) == 0) Note(entry.first + " is gone");
  }
  for (const auto& entry : seen) {
    const auto known = interfaces_.find(entry.first);
    if (known == interfaces_.end()) {
      Note(entry.first + " is new:" + Text(entry.second));
      continue;
    }
    for (size_t i = 0; i < entry.second.size(); ++i) {
      const std::string& before = known->second[i].second;
      const std::string& now = entry.second[i].second;
      if (now == before) continue;
      Note(entry.first + " " + entry.second[i].first + "=" + (now.empty() ? "none" : now));
    }
  }
}

void InterfaceTable::Note(const std::string& change) {
  changes_.push_back(ClockText() + " " + change);
  if (changes_.size() > kMaxChanges) changes_.pop_front();
}
