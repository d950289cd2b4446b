#include "gatewayd/Gateway.h"

#include <syslog.h>
#include <time.h>

#include <algorithm>
#include <cctype>
#include <mutex>
#include <sstream>
#include <utility>

#include "util/Buffer.h"
#include "util/DhcpServer.h"
#include "util/HttpRequest.h"
#include "util/NetworkManager.h"
#include "util/PersistentConfig.h"
#include "util/ProcessControl.h"
#include "util/StringUtil.h"

using hvn::util::Buffer;
using hvn::util::DhcpServer;
using hvn::util::HttpRequest;
using hvn::util::Mutex;
using hvn::util::NetworkManager;
using hvn::util::PersistentConfig;
using hvn::util::ProcessControl;
using hvn::util::StringUtil;

namespace {

constexpr size_t kMaxPage = 32768;
constexpr size_t kMaxKey = 64;
constexpr int kFound = 200;
constexpr long long kSettleIntervalUs = 1000000;
constexpr long long kLeaseIntervalUs = 2000000;

long long MonotonicSeconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

/// dnsmasq's own identifier for DHCPv6 stands in the lease file too: a line without an address.
bool IsLease(const DhcpServer::LeaseInfo& lease) { return !lease.ip_address.empty(); }

std::string LeaseLine(const DhcpServer::LeaseInfo& lease) {
  if (!IsLease(lease)) return "server-duid " + lease.mac_address;
  const long long left = lease.expiry_time - time(nullptr);
  return lease.ip_address + " " + lease.mac_address + " " + lease.host_name + " expires=" +
         (lease.expiry_time == 0 ? "never" : std::to_string(std::max(left, 0LL)) + "s");
}

bool IsKey(const std::string& text) {
  const auto allowed = [](unsigned char c) {
    return std::isalnum(c) != 0 || c == '_' || c == '-' || c == '.';
  };
  return text.size() <= kMaxKey && std::all_of(text.begin(), text.end(), allowed);
}

/// The first `count` words of `line`, the last of them with all the rest.
std::vector<std::string> Words(const std::string& line, size_t count) {
  std::istringstream input(line);
  std::vector<std::string> words;
  std::string word;
  while (words.size() + 1 < count && input >> word) words.push_back(word);
  if (std::getline(input >> std::ws, word)) {
    word.erase(word.find_last_not_of(" \t") + 1);
    words.push_back(word);
  }
  return words;
}

}  // namespace

struct Gateway::Command {
  const char* name;
  const char* arguments;
  const char* purpose;
  size_t count;  ///< Arguments, all of them required; the last one may hold blanks.
  bool slow;
  Reply (Gateway::*run)(const Arguments&);
};

const Gateway::Command Gateway::kCommands[] = {
    {"help", "", "this list", 0, false, &Gateway::Help},
    {"status", "", "uptime, heartbeats, leases", 0, false, &Gateway::Status},
    {"ifaces", "", "every network interface", 0, false, &Gateway::Interfaces},
    {"range", "GATEWAY NETMASK", "what a DHCP server could hand out", 2, false, &Gateway::Range},
    {"resolve", "HOST", "its addresses", 1, true, &Gateway::Resolve},
    {"clients", "", "who is connected", 0, false, &Gateway::Clients},
    {"events", "", "the last link and address changes", 0, false, &Gateway::Events},
    {"leases", "", "what the DHCP server has handed out", 0, false, &Gateway::Leases},
    {"get", "KEY", "a setting", 1, false, &Gateway::Get},
    {"set", "KEY VALUE", "changes a setting for good", 2, false, &Gateway::Set},
    {"fetch", "URL", "a web page", 1, true, &Gateway::Fetch},
    {"pid", "NAME", "the process of that name", 1, false, &Gateway::Pid},
    {"quit", "", "ends the connection", 0, false, &Gateway::Quit},
};

Gateway::Gateway(int patience_ms) : patience_ms_(patience_ms), born_s_(MonotonicSeconds()) {
  const auto count = [this](int, void*) {
    CountLeases();
    return true;
  };
  const auto settle = [this](int, void*) {
    interfaces_.Settle();
    return true;
  };
  // The shortest interval comes last: of tasks due together, the last one sets the next wait.
  tasks_ = {timers_.AddTask(kLeaseIntervalUs, count, nullptr),
            timers_.AddTask(kSettleIntervalUs, settle, nullptr)};
}

Gateway::~Gateway() {
  for (const int task : tasks_) timers_.EndTask(task);
}

void Gateway::CountLeases() {
  const auto leases = DhcpServer::GetAllLeaseInfo();
  const auto count = static_cast<size_t>(std::count_if(leases.begin(), leases.end(), IsLease));
  const size_t before = leases_.exchange(count);
  if (count != before) syslog(LOG_INFO, "leases: %zu, were %zu", count, before);
}

void Gateway::Beat() {
  syslog(LOG_INFO, "heartbeat %lld: up %lld s, %zu leases", ++beats_, MonotonicSeconds() - born_s_,
         leases_.load());
}

void Gateway::SetClientLister(std::function<std::vector<std::string>()> lister) {
  std::lock_guard<Mutex> lock(lister_mutex_);
  client_lister_ = std::move(lister);
}

const Gateway::Command* Gateway::Find(const std::string& name) {
  const auto found = std::find_if(std::begin(kCommands), std::end(kCommands),
                                  [&](const Command& command) { return name == command.name; });
  return found == std::end(kCommands) ? nullptr : found;
}

bool Gateway::IsSlow(const std::string& line) {
  std::string name;
  std::istringstream(line) >> name;
  const Command* command = Find(name);
  return command != nullptr && command->slow;
}

Reply Gateway::Run(const std::string& line) {
  if (std::any_of(line.begin(), line.end(), [](unsigned char c) { return std::iscntrl(c) != 0; })) {
    return Reply::Error("control characters in the line");
  }
  std::string name;
  std::istringstream(line) >> name;
  if (name.empty()) return Reply::Error("empty line, try help");
  const Command* command = Find(name);
  if (command == nullptr) return Reply::Error("unknown command " + name + ", try help");
  Arguments arguments = Words(line, command->count + 1);
  arguments.erase(arguments.begin());
  const bool blank = command->count == 1 && !arguments.empty() &&
                     arguments.back().find_first_of(" \t") != std::string::npos;
  if (arguments.size() != command->count || blank) {
    return Reply::Error("usage: " + name + (command->count > 0 ? " " : "") + command->arguments);
  }
  return (this->*command->run)(arguments);
}

// ---- Commands ----

Reply Gateway::Help(const Arguments&) {
  std::vector<std::string> lines;
  for (const Command& command : kCommands) {
    std::string line = command.name;
    if (command.count > 0) line += std::string(" ") + command.arguments;
    lines.push_back(line + " - " + command.purpose);
  }
  return Reply::Lines(std::move(lines));
}

Reply Gateway::Status(const Arguments&) {
  return Reply::Lines({"uptime " + std::to_string(MonotonicSeconds() - born_s_) + " s",
                       "heartbeats " + std::to_string(beats_),
                       "leases " + std::to_string(leases_)});
}

Reply Gateway::Interfaces(const Arguments&) { return Reply::Lines(interfaces_.Lines()); }

Reply Gateway::Range(const Arguments& arguments) {
  std::string start;
  std::string end;
  if (!NetworkManager::GetIpv4DhcpRange(arguments[0], arguments[1], start, end)) {
    return Reply::Error("no range for gateway " + arguments[0] + ", netmask " + arguments[1]);
  }
  return Reply::Line(start + " " + end);
}

Reply Gateway::Resolve(const Arguments& arguments) {
  std::vector<std::string> addresses;
  std::vector<std::string> ipv6;
  if (NetworkManager::ResolveHostName(arguments[0], addresses, ipv6) != hvn::kSuccess) {
    return Reply::Error("cannot resolve " + arguments[0]);
  }
  addresses.insert(addresses.end(), ipv6.begin(), ipv6.end());
  return Reply::Lines(std::move(addresses));
}

Reply Gateway::Clients(const Arguments&) {
  std::lock_guard<Mutex> lock(lister_mutex_);
  return Reply::Lines(client_lister_ ? client_lister_() : std::vector<std::string>());
}

Reply Gateway::Events(const Arguments&) { return Reply::Lines(interfaces_.Changes()); }

Reply Gateway::Leases(const Arguments&) {
  std::vector<std::string> lines;
  for (const auto& lease : DhcpServer::GetAllLeaseInfo()) lines.push_back(LeaseLine(lease));
  return Reply::Lines(std::move(lines));
}

Reply Gateway::Get(const Arguments& arguments) {
  if (!IsKey(arguments[0])) return Reply::Error("no key: " + arguments[0]);
  std::string value = PersistentConfig::LoadData(arguments[0]);
  if (value.empty()) return Reply::Error("no setting " + arguments[0]);
  return Reply::Line(std::move(value));
}

Reply Gateway::Set(const Arguments& arguments) {
  if (!IsKey(arguments[0])) return Reply::Error("no key: " + arguments[0]);
  if (PersistentConfig::SaveDataAtomically(arguments[0], arguments[1]) != hvn::kSuccess) {
    return Reply::Error("cannot store " + arguments[0]);
  }
  return Reply::Lines({});
}

/// With limits only web pages are fetched, and none of the device's own files.
Reply Gateway::Fetch(const Arguments& arguments) {
  HttpRequest request;
  request.user_agent_ = "gatewayd";
  request.url_ = arguments[0];
  request.SetLimits(patience_ms_, patience_ms_, kMaxPage);
  request.VerifyPeer("");
  Buffer page;
  request.Start(page);
  if (request.status_code() == 0) return Reply::Error("nothing came from " + arguments[0]);
  if (request.status_code() != kFound) {
    return Reply::Error("status " + std::to_string(request.status_code()) + " from " +
                        arguments[0]);
  }
  return Reply::Lines(
      StringUtil::Split(std::string(reinterpret_cast<char*>(page.data()), page.length()), '\n'));
}

Reply Gateway::Pid(const Arguments& arguments) {
  const pid_t pid = ProcessControl::GetPidByProcessName(arguments[0], 1);
  if (pid < 0) return Reply::Error("no process " + arguments[0]);
  return Reply::Line(std::to_string(pid));
}

Reply Gateway::Quit(const Arguments&) {
  Reply reply = Reply::Line("bye");
  reply.close = true;
  return reply;
}
