#ifndef HUTIL_UTIL_INTERNAL_NETLINKEVENTS_H_
#define HUTIL_UTIL_INTERNAL_NETLINKEVENTS_H_

#include <cstddef>
#include <cstdint>

#include "util/EventDic.h"
#include "util/internal/ByteView.h"

namespace hvn {
namespace util {

/// Netlink messages to events. What is logged is logged for NetworkMonitor::FdCallback.

/// Every kind of message is read as if it carried a link message's header, behind which attributes
/// begin: a shorter one is no event.
constexpr size_t kNetlinkEventHeader = 32;

/// Takes the next message off the front of a datagram; false where none is left, or none whose
/// length can be true.
bool TakeNetlinkMessage(ByteView& left, ByteView& message);

uint16_t NetlinkMessageType(const ByteView& message);

/// The event that a message of kNetlinkEventHeader bytes or more tells; kEventNone for a type that
/// is no event's.
EventDic DecodeNetlinkEvent(const ByteView& message);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_NETLINKEVENTS_H_
