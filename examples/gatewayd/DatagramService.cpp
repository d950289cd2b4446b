#include "gatewayd/DatagramService.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>

using hvn::util::Mutex;
using hvn::util::Socket;

namespace {

int OpenDiscovery(uint16_t port) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

DatagramService::DatagramService(const std::string& control_path, uint16_t port, Gateway& gateway,
                                 SlowLane& lane)
    : gateway_(gateway),
      lane_(lane),
      port_(port),
      control_(control_path, Socket::kUdp, Socket::kUnix, Socket::SocketOption()),
      discovery_fd_(OpenDiscovery(port)),
      discovery_(discovery_fd_, Socket::kUdp, Socket::kIpv4),
      runner_([this](int server, int, const std::string& sender, void* data, size_t size) {
        Receive(server, sender, std::string(static_cast<const char*>(data), size));
        return true;
      }) {
  if (!listening()) return;
  runner_.AddServer(&control_);
  runner_.AddServer(&discovery_);
}

DatagramService::~DatagramService() {
  runner_.RemoveServer(&control_);
  runner_.RemoveServer(&discovery_);
  if (discovery_fd_ >= 0) close(discovery_fd_);
}

void DatagramService::Receive(int server, const std::string& sender, std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  if (server == discovery_fd_) {
    Discover(sender, text);
  } else if (!Gateway::IsSlow(text)) {
    Control(sender, text);
  } else if (!lane_.Run([this, sender, text] { Control(sender, text); })) {
    std::lock_guard<Mutex> lock(mutex_);
    control_.SendTo(sender, Reply::Error("busy, try again later").Text());
  }
}

/// Whoever sends without a path has the command run, and hears nothing.
void DatagramService::Control(const std::string& sender, const std::string& line) {
  const Reply reply = gateway_.Run(line);
  std::lock_guard<Mutex> lock(mutex_);
  if (!sender.empty()) control_.SendTo(sender, reply.Text());
}

/// Says no more than where to ask. Senders are written "IP:PORT", destinations "IP;PORT".
void DatagramService::Discover(std::string sender, const std::string& question) {
  if (question != "discover") return;
  std::replace(sender.begin(), sender.end(), ':', ';');
  discovery_.SendTo(sender, Reply::Line("gatewayd tls " + std::to_string(port_)).Text());
}
