// The grammar of socket paths, "IP", "PORT" or "IP;PORT", against a reading of its own. The input
// is the path.
#include <climits>

#include "Harness.h"
#include "util/Socket.h"

using hutil_fuzz::ErrorsLogged;
using hvn::util::Socket;

namespace {

struct Parsed {
  hvn::Result result;
  std::string ip;
  int port;
  int errors;
};

bool IsIpv4(const std::string& text) {
  std::uint32_t value = 0;
  return hutil_fuzz::ReadIpv4(text, value);
}

// How many 16-bit groups "A:B:...:Z" writes; 9, which no address has, where it is none of these.
std::size_t Groups(const std::string& text, bool ipv4_at_end) {
  if (text.empty()) return 0;
  std::size_t groups = 0;
  const std::vector<std::string> fields = hutil_fuzz::Fields(text + ":", ':');
  for (const std::string& field : fields) {
    const bool hex = field.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    if (hex && !field.empty() && field.size() <= 4) {
      groups += 1;
    } else if (ipv4_at_end && &field == &fields.back() && IsIpv4(field)) {
      groups += 2;
    } else {
      return 9;
    }
  }
  return groups;
}

bool IsIpv6(const std::string& text) {
  const std::size_t gap = text.find("::");
  if (gap == std::string::npos) return Groups(text, true) == 8;
  return Groups(text.substr(0, gap), false) + Groups(text.substr(gap + 2), true) <= 7;
}

// Addresses are read as C strings.
bool IsAddress(Socket::Domain domain, const char* text) {
  return IsIpv4(text) || (domain == Socket::kIpv6 && IsIpv6(text));
}

Parsed Expect(Socket::Domain domain, const std::string& path, const Parsed& before) {
  if (path.empty() || (domain != Socket::kIpv4 && domain != Socket::kIpv6)) return before;
  const std::size_t separator = path.find(';');
  const bool both = separator != std::string::npos;
  if (!both && IsAddress(domain, path.c_str())) return {hvn::kSuccess, path, 0, 0};
  const std::string ip = both ? path.substr(0, separator) : "";
  const std::string port = both ? path.substr(separator + 1) : path;
  if (both && !IsAddress(domain, ip.c_str())) return {hvn::kFailure, ip, 0, 0};
  if (port.find_first_not_of("0123456789") != std::string::npos) {
    return {hvn::kFailure, ip, 0, 1};
  }
  const unsigned long long number = std::strtoull(port.c_str(), nullptr, 10);
  if (number > INT_MAX) return {hvn::kFailure, ip, 0, 0};
  return {number > 65535 ? hvn::kFailure : hvn::kSuccess, ip, static_cast<int>(number), 0};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path = hutil_fuzz::Text(data, size);
  for (int number : {0, 1, 2, 3, 200}) {
    const auto domain = static_cast<Socket::Domain>(number);
    const Parsed before{hvn::kFailure, "before", -1, 0};
    const Parsed expected = Expect(domain, path, before);
    Parsed parsed = before;
    const int errors = ErrorsLogged();
    parsed.result =
        Socket(-1, Socket::kTcp, domain).GetIpAndPortByPath(path, parsed.ip, parsed.port);
    REQUIRE(parsed.result == expected.result);
    REQUIRE(parsed.ip == expected.ip);
    REQUIRE(parsed.port == expected.port);
    REQUIRE(ErrorsLogged() - errors == expected.errors);
  }
  return 0;
}
