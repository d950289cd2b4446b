// The lease file against a reading by streams. The input is the file.
#include <algorithm>
#include <sstream>

#include "Harness.h"
#include "util/DhcpServer.h"

using hvn::util::DhcpServer;
using Lease = DhcpServer::LeaseInfo;

namespace {

Lease ReadLease(const std::string& line) {
  std::vector<std::string> columns = hutil_fuzz::Fields(line, ' ');
  columns.resize(std::max<std::size_t>(columns.size(), 5));
  Lease lease{0, columns[1], columns[2], columns[3], columns[4]};
  if (!(std::istringstream(columns[0]) >> lease.expiry_time)) lease.expiry_time = 0;
  return lease;
}

bool AreEqual(const Lease& a, const Lease& b) {
  return a.expiry_time == b.expiry_time && a.mac_address == b.mac_address &&
         a.ip_address == b.ip_address && a.host_name == b.host_name && a.client_id == b.client_id;
}

// The first of that address, as a daemon would look for it.
Lease Find(const std::vector<Lease>& leases, const std::string& mac) {
  const auto found = std::find_if(leases.begin(), leases.end(),
                                  [&](const Lease& lease) { return lease.mac_address == mac; });
  return found == leases.end() ? Lease() : *found;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static hutil_fuzz::PrivateFile s_file("/var/lib/misc/dnsmasq.leases");
  const std::string text = hutil_fuzz::Text(data, size);
  s_file.Write(text);

  std::vector<Lease> expected;
  for (const std::string& line : hutil_fuzz::Fields(text.c_str(), '\n')) {
    expected.push_back(ReadLease(line));
  }
  const std::vector<Lease> leases = DhcpServer::GetAllLeaseInfo();
  REQUIRE(leases.size() == expected.size());
  REQUIRE(std::equal(leases.begin(), leases.end(), expected.begin(), AreEqual));

  const std::string last = expected.empty() ? "" : expected.back().mac_address;
  for (const std::string& mac : {last, last + "0"}) {
    REQUIRE(AreEqual(DhcpServer::GetLeaseInfo(mac), Find(expected, mac)));
  }
  REQUIRE(s_file.Read() == text);
  REQUIRE(hutil_fuzz::ErrorsLogged() == 0);
  return 0;
}
