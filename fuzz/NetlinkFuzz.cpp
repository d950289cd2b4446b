// Netlink datagrams against the kernel's own macros. The input is the datagram.
#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "Harness.h"
#include "util/EventDic.h"
#include "util/NetworkManager.h"
#include "util/NetworkMonitor.h"

using hvn::util::EventDic;
using hvn::util::NetworkManager;
using hvn::util::NetworkMonitor;

namespace {

constexpr std::size_t kDatagramSize = 4096;

using Record = std::map<int, std::string>;  // by EventDic::Param; the type at 0

// Three kinds of message for each of eight things.
const std::map<int, int> kTypes = {
    {RTM_NEWLINK, 256},   {RTM_DELLINK, 257},    {RTM_GETLINK, 258},    {RTM_NEWADDR, 259},
    {RTM_DELADDR, 260},   {RTM_GETADDR, 261},    {RTM_NEWROUTE, 262},   {RTM_DELROUTE, 263},
    {RTM_GETROUTE, 264},  {RTM_NEWNEIGH, 265},   {RTM_DELNEIGH, 266},   {RTM_GETNEIGH, 267},
    {RTM_NEWRULE, 268},   {RTM_DELRULE, 269},    {RTM_GETRULE, 269},    {RTM_NEWQDISC, 271},
    {RTM_DELQDISC, 272},  {RTM_GETQDISC, 273},   {RTM_NEWTCLASS, 274},  {RTM_DELTCLASS, 275},
    {RTM_GETTCLASS, 276}, {RTM_NEWTFILTER, 277}, {RTM_DELTFILTER, 278}, {RTM_GETTFILTER, 279},
};

std::string NameOf(int index) {
  return index > 0 && index < 10 ? "lan" + std::to_string(index) : "";
}

std::string MacOf(const char* data) {
  std::string text;
  for (int i = 0; i < 6; ++i) {
    char pair[4];
    std::snprintf(pair, sizeof(pair), ":%02x", static_cast<unsigned int>(data[i]) % 256);
    text += pair;
  }
  return text.substr(1);
}

void ReadAttribute(const rtattr* attribute, Record& record) {
  const char* const data = static_cast<const char*>(RTA_DATA(attribute));
  if (attribute->rta_type == IFLA_ADDRESS) record[EventDic::kMacAddress] = MacOf(data);
  if (attribute->rta_type == IFLA_BROADCAST) record[EventDic::kBroadcastAddress] = MacOf(data);
  if (attribute->rta_type == IFLA_IFNAME) record[EventDic::kIfName] = data;  // wherever it ends
  const bool is_told = *data == IF_OPER_DOWN || *data == IF_OPER_DORMANT || *data == IF_OPER_UP;
  if (attribute->rta_type == IFLA_OPERSTATE && is_told)
    record[EventDic::kNetState] = "NetStateDown";
}

// Each kind of message counts as a link's.
Record ReadMessage(nlmsghdr* message) {
  Record record;
  const auto found = kTypes.find(message->nlmsg_type);
  record[0] = std::to_string(found == kTypes.end() ? 0 : found->second);
  const auto* const link = static_cast<const ifinfomsg*>(NLMSG_DATA(message));
  if (link->ifi_family == AF_INET) record[EventDic::kIpVersion] = "4";
  if (link->ifi_family == AF_INET6) record[EventDic::kIpVersion] = "6";
  int left = static_cast<int>(IFLA_PAYLOAD(message));
  for (const rtattr* attribute = IFLA_RTA(link); RTA_OK(attribute, left);
       attribute = RTA_NEXT(attribute, left)) {
    ReadAttribute(attribute, record);
  }
  std::string& name = record[EventDic::kIfName];
  if (name.empty()) name = NameOf(link->ifi_index);
  return record;
}

std::vector<Record> ReadDatagram(const std::uint8_t* data, std::size_t size, int& errors) {
  alignas(nlmsghdr) char buffer[kDatagramSize + 8] = {};  // zeros, where a datagram ends short
  std::copy(data, data + size, buffer);
  std::vector<Record> records;
  auto left = static_cast<std::int64_t>(size);
  for (auto* message = reinterpret_cast<nlmsghdr*>(buffer); NLMSG_OK(message, left);
       message = NLMSG_NEXT(message, left)) {
    errors = message->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg)) ? 1 : 0;
    if (errors > 0) break;
    records.push_back(ReadMessage(message));
    if (records.back()[0] == "0") records.pop_back();
  }
  return records;
}

// The monitor's own thread may hear of real changes.
thread_local std::vector<Record> t_heard;

void Hear(EventDic& event) {
  Record record;
  record[0] = std::to_string(event.type_);
  for (int key = EventDic::kMacAddress; key <= EventDic::kIpVersion; ++key) {
    const std::string value = event.GetParam(static_cast<EventDic::Param>(key));
    if (!value.empty() || key == EventDic::kIfName) record[key] = value;
  }
  t_heard.push_back(record);
}

}  // namespace

// In place of libc's: quicker, and the same on every machine.
extern "C" char* if_indextoname(unsigned int index, char* name) noexcept {
  const std::string known = NameOf(static_cast<int>(index));
  errno = ENXIO;
  return known.empty() ? nullptr : std::strcpy(name, known.c_str());
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  static NetworkManager s_network;
  s_network.SetEventCb(Hear);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static int s_ends[2] = {-1, -1};
  if (s_ends[0] < 0) REQUIRE(socketpair(AF_UNIX, SOCK_DGRAM, 0, s_ends) == 0);
  const int errors = hutil_fuzz::ErrorsLogged();
  t_heard.clear();
  REQUIRE(send(s_ends[1], data, size, 0) == static_cast<ssize_t>(size));
  NetworkMonitor::GetInstance()->FdCallback(s_ends[0], hvn::util::kRead);

  int expected_errors = size == 0 ? 1 : 0;
  REQUIRE(t_heard == ReadDatagram(data, std::min(size, kDatagramSize), expected_errors));
  REQUIRE(hutil_fuzz::ErrorsLogged() - errors == expected_errors);
  return 0;
}
