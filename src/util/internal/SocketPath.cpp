#include "util/internal/SocketPath.h"

#include <algorithm>
#include <cctype>
#include <cstdint>

#include "util/Misc.h"
#include "util/internal/Ipv4.h"
#include "util/internal/Log.h"

namespace hvn {
namespace util {

namespace {

/// A kIpv6 path may name an IPv4 address too; what becomes of it is its user's business.
bool IsAddressFor(Socket::Domain domain, const std::string& text) {
  return (domain == Socket::kIpv6 && IsValidAddress(text, true)) || IsValidAddress(text, false);
}

bool IsAllDigits(const std::string& text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; });
}

}  // namespace

hvn::Result ParseSocketPath(Socket::Domain domain, const std::string& path, std::string& ip,
                            int& port) {
  static constexpr char kFunction[] =
      "hvn::Result hvn::util::Socket::GetIpAndPortByPath(std::string, std::string&, int&)";
  if (!IsIp(domain) || path.empty()) return hvn::kFailure;
  ip.clear();
  port = 0;
  const size_t separator = path.find(';');
  if (separator == std::string::npos && IsAddressFor(domain, path)) {
    // Before the text is taken over: this line shows an empty one.
    HUTIL_LOG(LOG_DEBUG, "%s %d: IP address only %s\n", kFunction, __LINE__, ip.c_str());
    ip = path;
    return hvn::kSuccess;
  }
  if (separator != std::string::npos) {
    ip = path.substr(0, separator);
    if (!IsAddressFor(domain, ip)) return hvn::kFailure;
  }
  const std::string text = separator == std::string::npos ? path : path.substr(separator + 1);
  if (!IsAllDigits(text)) {
    HUTIL_LOG(LOG_ERR, "%s %d: Socket path should be [IP] or [PORT] or [IP;PORT]", kFunction,
              __LINE__);
    return hvn::kFailure;
  }
  if (!text.empty()) {
    bool failed = false;
    port = Misc::StoiWithException(text, failed);
    if (failed || port > UINT16_MAX) return hvn::kFailure;
  }
  HUTIL_LOG(LOG_DEBUG, "%s %d: domain_ %d path %s ip %s port %d\n", kFunction, __LINE__, domain,
            path.c_str(), ip.c_str(), port);
  return hvn::kSuccess;
}

}  // namespace util
}  // namespace hvn
