#include "util/DhcpServer.h"

#include <fcntl.h>

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "util/Misc.h"
#include "util/internal/Fields.h"
#include "util/internal/FileText.h"
#include "util/internal/UniqueFd.h"

namespace hvn {
namespace util {

namespace {

constexpr char kLeaseFile[] = "/var/lib/misc/dnsmasq.leases";

DhcpServer::LeaseInfo ParseLease(std::string_view line) {
  DhcpServer::LeaseInfo lease;
  std::string_view column;
  if (!NextField(line, ' ', column)) return lease;
  bool failed = false;
  lease.expiry_time = Misc::StollWithException(std::string(column), failed);
  for (std::string* text :
       {&lease.mac_address, &lease.ip_address, &lease.host_name, &lease.client_id}) {
    if (NextField(line, ' ', column)) *text = column;
  }
  return lease;
}

}  // namespace

std::vector<DhcpServer::LeaseInfo> DhcpServer::GetAllLeaseInfo() {
  // Non-blocking, so that a FIFO in the file's place cannot hold a daemon up.
  const UniqueFd fd(open(kLeaseFile, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (fd.get() < 0) return {};
  const off_t size = FileSize(fd.get());
  if (size <= 0 || static_cast<uint64_t>(size) >= SIZE_MAX) return {};
  const FileText text(fd.get(), static_cast<size_t>(size));
  std::string_view rest = text.view();
  std::vector<LeaseInfo> leases;
  leases.reserve(static_cast<size_t>(std::count(rest.begin(), rest.end(), '\n')) + 1);
  for (std::string_view line; NextField(rest, '\n', line);) leases.push_back(ParseLease(line));
  return leases;
}

DhcpServer::LeaseInfo DhcpServer::GetLeaseInfo(std::string mac_address) {
  for (const LeaseInfo& lease : GetAllLeaseInfo()) {
    if (lease.mac_address == mac_address) return lease;
  }
  return {};
}

}  // namespace util
}  // namespace hvn
