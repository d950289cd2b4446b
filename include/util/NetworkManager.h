#ifndef HUTIL_UTIL_NETWORKMANAGER_H_
#define HUTIL_UTIL_NETWORKMANAGER_H_

#include <functional>
#include <string>
#include <vector>

#include "util/EventDic.h"
#include "util/Export.h"
#include "util/Result.h"

struct ifreq;

namespace hvn {
namespace util {

class NetworkMonitor;

/// Network interfaces: what they are and their addresses, address checks, names, and changes.
///
///     NetworkManager network;
///     for (const auto& name : NetworkManager::GetIfNames()) Show(network.GetMacAddress(name));
///     network.SetEventCb([](EventDic& event) {
///       if (event.type_ == EventDic::kEventNewLink) Note(event.GetParam(EventDic::kIfName));
///     });
///
/// Interface operations go through netdevice(7) requests on a socket of their own. They log at 3 an
/// empty name, a socket that cannot be had and a failed request; a name counts up to 16 bytes.
class HUTIL_EXPORT NetworkManager {
 public:
  using EventCallback = std::function<void(EventDic&)>;

  /// Starts the process's NetworkMonitor at the first use. Any thread.
  NetworkManager();

  /// Passes each network change from now on to `cb`, in place of this object's earlier callback.
  /// Called on the monitor's thread under its lock: `cb` must neither subscribe nor unsubscribe. An
  /// empty one is skipped. The destructor does not undo it: call UnsetEventCb first. Any thread.
  void SetEventCb(EventCallback cb);
  /// Ends it: when this returns, the callback has returned and is not called again. Any thread.
  void UnsetEventCb();

  /// Calls `cb`, in place of this object's earlier one, after changes came faster than they were
  /// read and some are lost (or were too long to be read whole), once those that are not lost have
  /// been told: read the interfaces afresh then, or call Resync. Called as SetEventCb's and under
  /// the same lock. From the first call on the monitor's socket has a larger buffer, so that this
  /// is rarer. An empty one ends it; the destructor does not. Any thread.
  void SetLossCb(std::function<void()> cb);
  /// Has the kernel list all links and then all addresses, which every subscriber hears of as of
  /// new ones, on the monitor's thread; what is gone shows by not being listed. What is asked for
  /// while a listing is under way is one more after it: call it from a loss callback, but not for
  /// each event, as a listing is events too. Failures are logged at 3. Any thread.
  void Resync();

  /// The hardware address as "AA:BB:CC:DD:EE:FF", or empty. Any thread.
  std::string GetMacAddress(std::string ifname);
  /// Whether sysfs knows the interface as a wireless one. Never logs. Any thread.
  bool IsWirelessDevice(std::string ifname);
  bool IsLoopBackDevice(std::string ifname);      ///< IFF_LOOPBACK is set. Any thread.
  bool IsArpSupportedDevice(std::string ifname);  ///< IFF_NOARP is clear. Any thread.
  /// With ARP, neither loopback nor wireless: bridges and VLANs count too. Any thread.
  bool IsEthernetDevice(std::string ifname);
  static bool IsUpState(std::string ifname);  ///< IFF_UP is set. Any thread.
  /// IFF_RUNNING is set: the interface is up and has its cable, or whatever carries it. Any thread.
  static bool IsRunning(std::string ifname);

  /// Runs the netdevice(7) `request` for `ifname` on `ifr`, which the caller has zeroed and which
  /// holds the answer after. False where it failed. Any thread.
  static bool CallGeneral(std::string ifname, int request, ifreq& ifr);
  /// Sets IFF_UP, also where it is set already; `ifr`, zeroed, holds the flags after. Any thread.
  static bool WakeUpIfNeeded(std::string ifname, ifreq& ifr);

  /// Brings the interface up and sets its IPv4 address; logs success at 7. Reads the text as
  /// inet_aton(3) does ("10.1" is 10.0.0.1); one that is no address counts as 0.0.0.0, which takes
  /// the address away: see IsValidAddress. Any thread.
  static bool SetIpAddress(std::string ifname, std::string ip);
  /// The same for the IPv4 netmask: text that is none sets 0.0.0.0, with which every address is in
  /// the interface's subnet. Any thread.
  static bool SetSubnetMask(std::string ifname, std::string mask);
  /// The IPv4 address or, with `ipv6`, the first IPv6 address that begins with 2, uncompressed
  /// ("2001:0db8:0000:...:0001"), which never logs. False with `out` empty where there is none. Any
  /// thread.
  static bool GetIpAddress(std::string ifname, std::string& out, bool ipv6);
  /// The IPv4 netmask. False with `out` untouched where there is none. Any thread.
  static bool GetSubnetMask(std::string ifname, std::string& out);
  /// Every interface that has an address of IP or of the link layer once, and every label of an
  /// IPv4 address ("eth0:1") too, in bytewise order; empty, logged, on failure. Any thread. See
  /// getifaddrs(3).
  static std::vector<std::string> GetIfNames();

  /// Six pairs of hex digits joined by ":". Never logs. Any thread.
  static bool CheckIpv4MacValidation(std::string mac);
  /// What inet_pton(3) takes. Never logs. Any thread.
  static bool IsValidAddress(std::string address, bool ipv6);
  /// Ones followed by zeros; 0.0.0.0 and 255.255.255.255 included. Never logs. Any thread.
  static bool CheckIpv4SubnetMaskValidation(std::string netmask);
  /// The range from the address after the gateway's to the subnet's broadcast address. False, with
  /// both untouched, for bad texts and for a gateway that is its subnet's last address (but for
  /// 255.255.255.255, whose range starts at 0.0.0.0). Traces at 7. Any thread.
  static bool GetIpv4DhcpRange(std::string gateway, std::string netmask, std::string& start,
                               std::string& end);
  /// Whether the range lies in the gateway's subnet and above the gateway; logs if not, but for
  /// texts that are no addresses or netmask. Any thread.
  static bool CheckIpv4DhcpRangeValidation(std::string gateway, std::string netmask,
                                           std::string start, std::string end);

  /// The name of an IPv4 address, or empty (logged). Text that is no address is looked up as
  /// 255.255.255.255. Blocks for the resolver. Any thread. See getnameinfo(3).
  static std::string GetHostNameByIp(std::string ip);
  /// The addresses of `host` in the resolver's order, logged at 7. kFailure, logged, with both
  /// lists empty. Blocks for the resolver's time limit. Any thread. See getaddrinfo(3).
  static hvn::Result ResolveHostName(std::string host, std::vector<std::string>& ipv4_list,
                                     std::vector<std::string>& ipv6_list);

 private:
  NetworkMonitor* monitor_;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_NETWORKMANAGER_H_
