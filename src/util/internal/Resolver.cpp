#include "util/internal/Resolver.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>

#include "util/internal/Log.h"

namespace hvn {
namespace util {

namespace {

constexpr char kResolve[] =
    "static hvn::Result hvn::util::NetworkManager::ResolveHostName(std::string, "
    "std::vector<std::basic_string<char> >&, std::vector<std::basic_string<char> >&)";

struct AddrInfoFree {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using AddrInfoPtr = std::unique_ptr<addrinfo, AddrInfoFree>;

void LogResolveTime(const timeval& start, const timeval& end, const std::string& host) {
  const intmax_t diff =
      (intmax_t{end.tv_sec} - start.tv_sec) * 1000000 + end.tv_usec - start.tv_usec;
  HUTIL_LOG(LOG_DEBUG, "%s %d: s %ld %ld e %ld %ld diff %jd host_name %s\n", kResolve, __LINE__,
            static_cast<long>(start.tv_sec), static_cast<long>(start.tv_usec),
            static_cast<long>(end.tv_sec), static_cast<long>(end.tv_usec), diff, host.c_str());
}

/// The resolver's list, or null; how long it took is logged in any case.
AddrInfoPtr AskResolver(const std::string& host) {
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo* list = nullptr;
  timeval start = {};
  timeval end = {};
  gettimeofday(&start, nullptr);
  const int error = getaddrinfo(host.c_str(), nullptr, &hints, &list);
  const int saved_errno = errno;
  gettimeofday(&end, nullptr);
  LogResolveTime(start, end, host);
  if (error == 0) return AddrInfoPtr(list);
  // errno, not the resolver's own code: what this line tells is fixed.
  HUTIL_LOG(LOG_ERR, "%s %d: getaddrinfo errno %d\n", kResolve, __LINE__, saved_errno);
  return nullptr;
}

/// The address text of a resolver's entry.
std::string EntryText(const addrinfo& entry) {
  char text[128] = {};
  if (entry.ai_family == AF_INET) {
    sockaddr_in address;
    std::memcpy(&address, entry.ai_addr, sizeof(address));
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text));
  } else {
    sockaddr_in6 address;
    std::memcpy(&address, entry.ai_addr, sizeof(address));
    inet_ntop(AF_INET6, &address.sin6_addr, text, sizeof(text));
  }
  return text;
}

}  // namespace

std::string HostNameOf(const std::string& ip) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = inet_addr(ip.c_str());
  char name[NI_MAXHOST] = {};
  if (getnameinfo(reinterpret_cast<const sockaddr*>(&address), sizeof(address), name, sizeof(name),
                  nullptr, 0, NI_NAMEREQD) != 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: cannot get host info from ip [%s]\n",
              "static std::string hvn::util::NetworkManager::GetHostNameByIp(std::string)",
              __LINE__, ip.c_str());
    return {};
  }
  return name;
}

hvn::Result ResolveHost(const std::string& host, std::vector<std::string>& ipv4_list,
                        std::vector<std::string>& ipv6_list) {
  ipv4_list.clear();
  ipv6_list.clear();
  const AddrInfoPtr list = AskResolver(host);
  if (!list) return hvn::kFailure;
  for (const addrinfo* entry = list.get(); entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_family == AF_INET) {
      const std::string text = EntryText(*entry);
      HUTIL_LOG(LOG_DEBUG, "%s %d: <bind info:  %d %d %s>\n", kResolve, __LINE__,
                entry->ai_protocol, entry->ai_socktype, text.c_str());
      ipv4_list.push_back(text);
    } else if (entry->ai_family == AF_INET6) {
      const std::string text = EntryText(*entry);
      HUTIL_LOG(LOG_DEBUG, "%s %d: <bind info: %d %d %s>\n", kResolve, __LINE__, entry->ai_protocol,
                entry->ai_socktype, text.c_str());
      ipv6_list.push_back(text);
    }
  }
  return hvn::kSuccess;
}

}  // namespace util
}  // namespace hvn
