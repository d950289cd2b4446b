// Prints what the device's DHCP server has handed out, or to whom it gave the address of one MAC
// address.
//
//     lease_lister [MAC]
//
// Exit status: 0, or 1 where there is nothing to print.

#include <time.h>

#include <cstdio>
#include <string>

#include "util/DhcpServer.h"

using hvn::util::DhcpServer;

namespace {

std::string WhenOf(int64_t seconds) {
  if (seconds == 0) return "never";
  const time_t when = static_cast<time_t>(seconds);
  tm utc = {};
  char text[32];
  gmtime_r(&when, &utc);
  return std::string(text, strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc));
}

void Print(const DhcpServer::LeaseInfo& lease) {
  std::printf("%-15s  %s  %-20s  %s\n", lease.ip_address.c_str(), lease.mac_address.c_str(),
              WhenOf(lease.expiry_time).c_str(), lease.host_name.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    const DhcpServer::LeaseInfo lease = DhcpServer::GetLeaseInfo(argv[1]);
    if (lease.ip_address.empty()) return 1;
    Print(lease);
    return 0;
  }
  int printed = 0;
  for (const DhcpServer::LeaseInfo& lease : DhcpServer::GetAllLeaseInfo()) {
    if (lease.ip_address.empty()) continue;  // a line of dnsmasq's own, such as its DUID
    Print(lease);
    ++printed;
  }
  return printed > 0 ? 0 : 1;
}
