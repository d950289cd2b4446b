#include "util/NetworkManager.h"

#include <net/if.h>
#include <sys/ioctl.h>

#include <utility>

#include "util/NetworkMonitor.h"
#include "util/internal/Interfaces.h"
#include "util/internal/Ipv4.h"
#include "util/internal/Resolver.h"

namespace hvn {
namespace util {

// ---- Subscriptions ----

NetworkManager::NetworkManager() : monitor_(NetworkMonitor::GetInstance()) {}

void NetworkManager::SetEventCb(EventCallback cb) {
  if (monitor_ != nullptr) monitor_->SetCallback(this, std::move(cb));
}

void NetworkManager::UnsetEventCb() {
  if (monitor_ != nullptr) monitor_->RemoveCallback(this);
}

void NetworkManager::SetLossCb(std::function<void()> cb) {
  if (monitor_ != nullptr) monitor_->SetLossCallback(this, std::move(cb));
}

void NetworkManager::Resync() {
  if (monitor_ != nullptr) monitor_->Resync();
}

// ---- Interfaces ----

bool NetworkManager::CallGeneral(std::string ifname, int request, ifreq& ifr) {
  return CallInterface(ifname, request, ifr);
}

std::string NetworkManager::GetMacAddress(std::string ifname) { return HardwareAddress(ifname); }

bool NetworkManager::IsWirelessDevice(std::string ifname) { return IsWirelessInterface(ifname); }

bool NetworkManager::IsLoopBackDevice(std::string ifname) {
  return (InterfaceFlags(ifname, 0) & IFF_LOOPBACK) != 0;
}

bool NetworkManager::IsArpSupportedDevice(std::string ifname) {
  return (InterfaceFlags(ifname, IFF_NOARP) & IFF_NOARP) == 0;
}

bool NetworkManager::IsEthernetDevice(std::string ifname) {
  return !IsLoopBackDevice(ifname) && IsArpSupportedDevice(ifname) && !IsWirelessDevice(ifname);
}

bool NetworkManager::IsUpState(std::string ifname) {
  return (InterfaceFlags(ifname, 0) & IFF_UP) != 0;
}

bool NetworkManager::IsRunning(std::string ifname) {
  return (InterfaceFlags(ifname, 0) & IFF_RUNNING) != 0;
}

bool NetworkManager::WakeUpIfNeeded(std::string ifname, ifreq& ifr) {
  return BringUpInterface(ifname, ifr);
}

bool NetworkManager::SetIpAddress(std::string ifname, std::string ip) {
  return SetIpv4Setting(
      ifname, ip,
      {SIOCSIFADDR,
       "static bool hvn::util::NetworkManager::SetIpAddress(std::string, std::string)"});
}

bool NetworkManager::SetSubnetMask(std::string ifname, std::string mask) {
  return SetIpv4Setting(
      ifname, mask,
      {SIOCSIFNETMASK,
       "static bool hvn::util::NetworkManager::SetSubnetMask(std::string, std::string)"});
}

bool NetworkManager::GetIpAddress(std::string ifname, std::string& out, bool ipv6) {
  out.clear();
  if (ipv6) {
    out = GlobalIpv6Address(ifname);
    return !out.empty();
  }
  return GetIpv4Setting(ifname, SIOCGIFADDR, out) && !out.empty();
}

bool NetworkManager::GetSubnetMask(std::string ifname, std::string& out) {
  return GetIpv4Setting(ifname, SIOCGIFNETMASK, out);
}

std::vector<std::string> NetworkManager::GetIfNames() { return InterfaceNames(); }

// ---- Addresses ----

bool NetworkManager::CheckIpv4MacValidation(std::string mac) { return IsMacAddress(mac); }

bool NetworkManager::IsValidAddress(std::string address, bool ipv6) {
  return util::IsValidAddress(address, ipv6);
}

bool NetworkManager::CheckIpv4SubnetMaskValidation(std::string netmask) {
  return IsIpv4Netmask(netmask);
}

bool NetworkManager::GetIpv4DhcpRange(std::string gateway, std::string netmask, std::string& start,
                                      std::string& end) {
  return GetIpv4Range(gateway, netmask, start, end);
}

bool NetworkManager::CheckIpv4DhcpRangeValidation(std::string gateway, std::string netmask,
                                                  std::string start, std::string end) {
  return IsIpv4Range(gateway, netmask, start, end);
}

// ---- Names ----

std::string NetworkManager::GetHostNameByIp(std::string ip) { return HostNameOf(ip); }

hvn::Result NetworkManager::ResolveHostName(std::string host, std::vector<std::string>& ipv4_list,
                                            std::vector<std::string>& ipv6_list) {
  return ResolveHost(host, ipv4_list, ipv6_list);
}

}  // namespace util
}  // namespace hvn
