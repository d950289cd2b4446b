#include "util/internal/NetlinkEvents.h"

#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>

#include "util/internal/Log.h"

namespace hvn {
namespace util {

namespace {

constexpr char kFdCallback[] = "void hvn::util::NetworkMonitor::FdCallback(int, hvn::util::FdType)";
constexpr size_t kHeaderSize = sizeof(nlmsghdr);
constexpr size_t kFamilyOffset = kHeaderSize;
constexpr size_t kIndexOffset = kHeaderSize + 4;
constexpr size_t kMacLength = 6;
// Operational states of RFC 2863 as the kernel numbers them.
constexpr uint8_t kOperDown = 2;
constexpr uint8_t kOperDormant = 5;
constexpr uint8_t kOperUp = 6;

static_assert(kNetlinkEventHeader == kHeaderSize + sizeof(ifinfomsg), "16 bytes each");

size_t Align4(size_t length) { return (length + 3) & ~size_t{3}; }

/// RTM_NEWLINK (16) and its followers come in groups of four numbers, of which three are in use;
/// the records' kinds count on without the gaps. RTM_GETRULE counts as RTM_DELRULE.
EventDic::EventType EventTypeOf(uint16_t message_type) {
  if (message_type < RTM_NEWLINK || message_type > RTM_GETTFILTER || message_type % 4 == 3) {
    return EventDic::kEventNone;
  }
  if (message_type == RTM_GETRULE) return EventDic::kEventDelRule;
  const int group = (message_type - RTM_NEWLINK) / 4;
  return static_cast<EventDic::EventType>(EventDic::kEventNewLink + group * 3 + message_type % 4);
}

/// The first six bytes. What is shorter, such as an IPv4 address, is followed by the bytes behind.
std::string MacText(const ByteView& data) {
  char text[3 * kMacLength] = {};
  std::snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", data.Read<uint8_t>(0),
                data.Read<uint8_t>(1), data.Read<uint8_t>(2), data.Read<uint8_t>(3),
                data.Read<uint8_t>(4), data.Read<uint8_t>(5));
  return text;
}

void AddAttribute(EventDic& event, int type, const ByteView& data) {
  switch (type) {
    case IFLA_ADDRESS: {
      std::string mac = MacText(data);
      HUTIL_LOG(LOG_DEBUG, "%s %d: l2 [%s]\n", kFdCallback, __LINE__, mac.c_str());
      event.AddParam(EventDic::kMacAddress, std::move(mac));
      break;
    }
    case IFLA_BROADCAST:
      event.AddParam(EventDic::kBroadcastAddress, MacText(data));
      break;
    case IFLA_IFNAME:
      event.AddParam(EventDic::kIfName, data.Text());
      break;
    case IFLA_OPERSTATE: {
      // Daemons ask the interface itself for its state: the event only says that it may be new.
      const auto state = data.Read<uint8_t>(0);
      if (state == kOperDown || state == kOperDormant || state == kOperUp) {
        event.AddParam(EventDic::kNetState, "NetStateDown");
      }
      break;
    }
    default:
      break;
  }
}

void AddAttributes(EventDic& event, ByteView left) {
  while (left.size() >= sizeof(rtattr)) {
    const auto length = left.Read<uint16_t>(0);
    if (length < sizeof(rtattr) || length > left.size()) return;
    const ByteView data = left.Sub(sizeof(rtattr), length - sizeof(rtattr));
    AddAttribute(event, left.Read<uint16_t>(2), data);
    left = left.Sub(Align4(length));
  }
}

/// Most kinds of message name the interface by its index only.
void AddMissingName(EventDic& event, int32_t index) {
  if (!event.GetParam(EventDic::kIfName).empty()) return;
  char name[IF_NAMESIZE] = {};
  if (if_indextoname(static_cast<unsigned int>(index), name) == nullptr) return;
  HUTIL_LOG(LOG_DEBUG, "%s %d: ifidx %d: ifname:%s\n", kFdCallback, __LINE__, index, name);
  event.AddParam(EventDic::kIfName, name);
}

}  // namespace

bool TakeNetlinkMessage(ByteView& left, ByteView& message) {
  if (left.size() < kHeaderSize) return false;
  const size_t length = left.Read<uint32_t>(offsetof(nlmsghdr, nlmsg_len));
  if (length < kHeaderSize || length > left.size()) return false;
  message = left.Sub(0, length);
  left = left.Sub(Align4(length));
  return true;
}

uint16_t NetlinkMessageType(const ByteView& message) {
  return message.Read<uint16_t>(offsetof(nlmsghdr, nlmsg_type));
}

EventDic DecodeNetlinkEvent(const ByteView& message) {
  EventDic event;
  event.type_ = EventTypeOf(NetlinkMessageType(message));
  const auto family = message.Read<uint8_t>(kFamilyOffset);
  if (family == AF_INET) event.AddParam(EventDic::kIpVersion, "4");
  if (family == AF_INET6) event.AddParam(EventDic::kIpVersion, "6");
  AddAttributes(event, message.Sub(kNetlinkEventHeader));
  AddMissingName(event, message.Read<int32_t>(kIndexOffset));
  return event;
}

}  // namespace util
}  // namespace hvn
