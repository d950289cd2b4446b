#ifndef HUTIL_UTIL_DHCPSERVER_H_
#define HUTIL_UTIL_DHCPSERVER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "util/Export.h"

namespace hvn {
namespace util {

/// What the device's DHCP server, dnsmasq, has handed out: its file /var/lib/misc/dnsmasq.leases.
///
///     for (const DhcpServer::LeaseInfo& lease : DhcpServer::GetAllLeaseInfo())
///       Show(lease.ip_address, lease.host_name);
class HUTIL_EXPORT DhcpServer {
 public:
  /// One line of the file, its columns as written; missing ones are empty.
  struct LeaseInfo {
    int64_t expiry_time = 0;  ///< Seconds since the epoch; 0 where the column is no number.
    std::string mac_address;
    std::string ip_address;
    std::string host_name;
    std::string client_id;
  };

  /// Every line of the file, in its order and unchecked: a DUID line counts as a lease too. Empty,
  /// with no log line, where the file is missing, empty or no regular file. Any thread.
  static std::vector<LeaseInfo> GetAllLeaseInfo();
  /// The first lease of that hardware address, compared byte by byte (dnsmasq writes lower case);
  /// empty where there is none. Any thread.
  static LeaseInfo GetLeaseInfo(std::string mac_address);
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_DHCPSERVER_H_
