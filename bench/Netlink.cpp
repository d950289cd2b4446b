// bench_netlink STACK links|addresses SECONDS: notifications decoded, each read from a socket as
// the kernel delivers them. They are the kernel's own answers about this namespace's interfaces,
// which have the form of its notifications.
#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "Bench.h"
#include "util/NetworkManager.h"
#include "util/NetworkMonitor.h"

using hvn::util::EventDic;
using hvn::util::NetworkManager;
using hvn::util::NetworkMonitor;

namespace {

constexpr size_t kDatagramSize = 4096;
constexpr int kBatch = 8;  // a Unix socket holds ten

using Datagram = std::vector<char>;

int Keep(const nlmsghdr* header, void* datagrams) {
  const char* const bytes = reinterpret_cast<const char*>(header);
  static_cast<std::vector<Datagram>*>(datagrams)->emplace_back(bytes, bytes + header->nlmsg_len);
  return MNL_CB_OK;
}

std::vector<Datagram> AskKernel(uint16_t type) {
  mnl_socket* const socket = mnl_socket_open(NETLINK_ROUTE);
  mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID);
  char buffer[32768];
  nlmsghdr* const request = mnl_nlmsg_put_header(buffer);
  request->nlmsg_type = type;
  request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg));
  mnl_socket_sendto(socket, request, request->nlmsg_len);
  std::vector<Datagram> datagrams;
  int more = MNL_CB_OK;
  while (more == MNL_CB_OK) {
    const ssize_t n = mnl_socket_recvfrom(socket, buffer, sizeof(buffer));
    more = mnl_cb_run(buffer, static_cast<size_t>(n), 0, 0, Keep, &datagrams);
  }
  mnl_socket_close(socket);
  if (datagrams.empty()) Fail("no interfaces");
  return datagrams;
}

size_t decoded;

/// As its manual shows it: a table of attributes.
int DecodeMnl(const nlmsghdr* header, void*) {
  struct Table {
    const nlattr* attributes[IFLA_MAX + 1];
  } table = {};
  const bool is_link = header->nlmsg_type == RTM_NEWLINK;
  mnl_attr_parse(
      header, is_link ? sizeof(ifinfomsg) : sizeof(ifaddrmsg),
      [](const nlattr* attribute, void* data) {
        const uint16_t type = mnl_attr_get_type(attribute);
        if (type <= IFLA_MAX) static_cast<Table*>(data)->attributes[type] = attribute;
        return MNL_CB_OK;
      },
      &table);
  if (table.attributes[IFLA_IFNAME] != nullptr) {
    decoded += mnl_attr_get_str(table.attributes[IFLA_IFNAME])[0] != '\0';
  } else {
    ++decoded;
  }
  return MNL_CB_OK;
}

void ReadMnl(int fd) {
  char buffer[kDatagramSize];
  const ssize_t n = read(fd, buffer, sizeof(buffer));
  mnl_cb_run(buffer, static_cast<size_t>(n), 0, 0, DecodeMnl, nullptr);
}

void ReadOnly(int fd) {
  char buffer[kDatagramSize];
  static char copy[kDatagramSize];
  const ssize_t n = read(fd, buffer, sizeof(buffer));
  memcpy(copy, buffer, static_cast<size_t>(n));
  ++decoded;
}

template <typename Reader>
void Measure(const std::vector<Datagram>& datagrams, double seconds, Reader reader) {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_DGRAM, 0, fds) != 0) Fail("socketpair");
  size_t next = 0;
  size_t count = 0;
  std::vector<double> times;
  for (const double end = Now() + seconds; Now() < end; count += kBatch) {
    for (int i = 0; i < kBatch; ++i) {
      const Datagram& datagram = datagrams[next++ % datagrams.size()];
      if (send(fds[0], datagram.data(), datagram.size(), 0) < 0) Fail("send");
    }
    const double start = Now();
    for (int i = 0; i < kBatch; ++i) reader(fds[1]);
    times.push_back(Now() - start);
  }
  if (decoded < count) Fail("some were not decoded");
  Report("per_s", kBatch / Percentile(times, 0.5));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  const std::string stack = argv[1];
  const double seconds = atof(argv[3]);
  setlogmask(LOG_UPTO(LOG_NOTICE));
  alarm(120);
  const std::vector<Datagram> datagrams =
      AskKernel(std::string(argv[2]) == "links" ? RTM_GETLINK : RTM_GETADDR);
  if (stack == "hutil") {
    NetworkManager network;
    network.SetEventCb(
        [](EventDic& event) { decoded += !event.GetParam(EventDic::kIfName).empty(); });
    NetworkMonitor* const monitor = NetworkMonitor::GetInstance();
    Measure(datagrams, seconds, [monitor](int fd) { monitor->FdCallback(fd, hvn::util::kRead); });
  } else if (stack == "libmnl") {
    Measure(datagrams, seconds, ReadMnl);
  } else if (stack == "memcpy") {
    Measure(datagrams, seconds, ReadOnly);
  }
  fflush(stdout);
  _exit(0);
}
