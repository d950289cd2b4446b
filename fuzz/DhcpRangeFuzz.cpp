// DHCP ranges against arithmetic on whole numbers. The input is read twice: as four texts
// "GATEWAY NETMASK START END", and as the bytes of four addresses and of a netmask's length.
#include <array>
#include <map>

#include "Harness.h"
#include "util/NetworkManager.h"

using hutil_fuzz::Ipv4Text;
using hvn::util::NetworkManager;

namespace {

constexpr std::uint64_t kAddresses = std::uint64_t{1} << 32;

struct Subnet {
  bool is_valid;
  std::uint64_t gateway, first, last;
};

std::map<std::string, std::uint64_t> AllNetmasks() {
  std::map<std::string, std::uint64_t> sizes;
  for (std::uint64_t size = 1; size <= kAddresses; size *= 2) {
    sizes[Ipv4Text(kAddresses - size)] = size;
  }
  return sizes;
}

// How many addresses a subnet of that netmask has; 0 where it is none.
std::uint64_t SubnetSize(const std::string& netmask) {
  static const std::map<std::string, std::uint64_t> s_sizes = AllNetmasks();
  const auto found = s_sizes.find(netmask);
  return found == s_sizes.end() ? 0 : found->second;
}

Subnet ReadSubnet(const std::string& gateway, const std::string& netmask) {
  const std::uint64_t size = SubnetSize(netmask);
  std::uint32_t value = 0;
  if (size == 0 || !hutil_fuzz::ReadIpv4(gateway, value)) return {false, 0, 0, 0};
  const std::uint64_t first = value / size * size;
  return {true, value, first, first + size - 1};
}

void CheckDerivation(const std::string& gateway, const std::string& netmask) {
  const Subnet subnet = ReadSubnet(gateway, netmask);
  // After the last address of all comes the first.
  const bool derives =
      subnet.is_valid && (subnet.gateway != subnet.last || subnet.last == kAddresses - 1);
  std::string start = "before";
  std::string end = "before";
  REQUIRE(NetworkManager::GetIpv4DhcpRange(gateway, netmask, start, end) == derives);
  REQUIRE(start == (derives ? Ipv4Text((subnet.gateway + 1) % kAddresses) : "before"));
  REQUIRE(end == (derives ? Ipv4Text(subnet.last) : "before"));
  if (derives && subnet.gateway != subnet.last) {
    REQUIRE(NetworkManager::CheckIpv4DhcpRangeValidation(gateway, netmask, start, end));
  }
}

void CheckValidation(const std::array<std::string, 4>& texts) {
  const Subnet subnet = ReadSubnet(texts[0], texts[1]);
  std::uint32_t start = 0;
  std::uint32_t end = 0;
  const bool readable = hutil_fuzz::ReadIpv4(texts[2], start) &&
                        hutil_fuzz::ReadIpv4(texts[3], end) && subnet.is_valid;
  const bool valid = readable && subnet.gateway < start && start <= end && end <= subnet.last;
  const int errors = hutil_fuzz::ErrorsLogged();
  REQUIRE(NetworkManager::CheckIpv4DhcpRangeValidation(texts[0], texts[1], texts[2], texts[3]) ==
          valid);
  REQUIRE(hutil_fuzz::ErrorsLogged() - errors == (readable && !valid ? 1 : 0));
}

void Check(const std::array<std::string, 4>& texts) {
  REQUIRE(NetworkManager::CheckIpv4SubnetMaskValidation(texts[1]) == (SubnetSize(texts[1]) > 0));
  CheckDerivation(texts[0], texts[1]);
  CheckValidation(texts);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Texts count as C strings, so they are given as such.
  std::vector<std::string> fields = hutil_fuzz::Fields(hutil_fuzz::Text(data, size).c_str(), ' ');
  fields.resize(4);
  Check({fields[0], fields[1], fields[2], fields[3]});

  std::array<std::uint64_t, 5> values = {};
  for (std::size_t i = 0; i < size && i < 17; ++i) values[i / 4] = values[i / 4] * 256 + data[i];
  const std::uint64_t subnet = std::uint64_t{1} << values[4] % 33;
  const std::uint64_t gateway = values[0];
  Check(
      {Ipv4Text(gateway), Ipv4Text(kAddresses - subnet), Ipv4Text(values[2]), Ipv4Text(values[3])});
  // The same close to the gateway, where ranges begin to be valid.
  Check({Ipv4Text(gateway), Ipv4Text(values[1]), Ipv4Text(gateway + values[2] % 3),
         Ipv4Text(gateway)});
  Check({Ipv4Text(gateway), Ipv4Text(kAddresses - subnet), Ipv4Text(gateway + values[2] % subnet),
         Ipv4Text(gateway + values[3] % subnet)});
  return 0;
}
