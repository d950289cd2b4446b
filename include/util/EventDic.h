#ifndef HUTIL_UTIL_EVENTDIC_H_
#define HUTIL_UTIL_EVENTDIC_H_

#include <cstdint>
#include <map>
#include <string>

#include "util/Export.h"

namespace hvn {
namespace util {

/// One network change: its kind and a small dictionary of texts.
///
///     if (event.type_ == EventDic::kEventDelLink) LookAgainAt(event.GetParam(EventDic::kIfName));
///
/// Lives for the dispatch of one netlink message; every subscriber in turn gets the same record.
class HUTIL_EXPORT EventDic {
 public:
  /// The kind of rtnetlink(7) message. kEventDelLink comes for a port that leaves a bridge too,
  /// with the interface still there. The kinds about neighbours and kEventGetRule never come (a
  /// message of the latter's kind is kEventDelRule), nor those about IPv6 rules.
  enum EventType : int32_t {
    kEventNone = 0,
    kEventNewLink = 256,
    kEventDelLink = 257,
    kEventGetLink = 258,
    kEventNewAddr = 259,
    kEventDelAddr = 260,
    kEventGetAddr = 261,
    kEventNewRoute = 262,
    kEventDelRoute = 263,
    kEventGetRoute = 264,
    kEventNewNeigh = 265,
    kEventDelNeigh = 266,
    kEventGetNeigh = 267,
    kEventNewRule = 268,
    kEventDelRule = 269,
    kEventGetRule = 270,
    kEventNewQdisc = 271,
    kEventDelQdisc = 272,
    kEventGetQdisc = 273,
    kEventNewTclass = 274,
    kEventDelTclass = 275,
    kEventGetTclass = 276,
    kEventNewTfilter = 277,
    kEventDelTfilter = 278,
    kEventGetTfilter = 279,
  };

  /// What an event may tell. Every message is read as if it were about a link: in events of other
  /// kinds believe type_ and kIpVersion, and ask the interface for the rest, as the other texts may
  /// be made of bytes that mean something else.
  enum Param : int32_t {
    kMacAddress = 8,        ///< "aa:bb:cc:dd:ee:ff".
    kBroadcastAddress = 9,  ///< Link-layer broadcast address, in the same form.
    kIfName = 10,           ///< Interface name; empty where the interface is gone, and for rules.
    kNetState = 11,         ///< "NetStateDown" for a link that is down, dormant or up.
    kIpVersion = 12,        ///< "4" or "6".
  };

  /// Stores `value` in place of any earlier one. Owner.
  void AddParam(Param key, std::string value);
  /// The value of `key`; a missing key is entered with an empty value, which is returned. Owner.
  std::string GetParam(Param key);

  EventType type_ = kEventNone;  ///< Which message the event was made from.

 private:
  std::map<Param, std::string> params_;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_EVENTDIC_H_
