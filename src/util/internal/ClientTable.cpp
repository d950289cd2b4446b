#include "util/internal/ClientTable.h"

#include <sys/socket.h>

#include <mutex>
#include <utility>

#include "util/internal/Log.h"

namespace hvn {
namespace util {

ClientTable::ClientTable(FdMonitor* monitor, FdMonitor::Callback callback)
    : monitor_(monitor), callback_(std::move(callback)) {}

void ClientTable::KeepDeparted(std::function<void()> on_departure) {
  on_departure_ = std::move(on_departure);
}

bool ClientTable::Add(int fd, std::string path, std::unique_ptr<Peer> peer) {
  std::lock_guard<Mutex> lock(mutex_);
  if (shut_) return false;
  if (clients_.count(fd) > 0) return true;
  if (monitor_ != nullptr) monitor_->Add(fd, kRead, callback_);
  clients_.emplace(fd, std::make_shared<Client>(fd, std::move(path), std::move(peer)));
  return true;
}

ClientPtr ClientTable::Find(int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  const auto found = clients_.find(fd);
  return found == clients_.end() ? nullptr : found->second;
}

std::vector<ClientPtr> ClientTable::All() {
  std::vector<ClientPtr> all;
  std::lock_guard<Mutex> lock(mutex_);
  for (const auto& entry : clients_) all.push_back(entry.second);
  return all;
}

void ClientTable::Remove(int fd) {
  std::lock_guard<Mutex> lock(mutex_);
  const auto found = clients_.find(fd);
  if (found != clients_.end()) Forget(found, found->second);
}

bool ClientTable::Drop(ClientPtr client) {
  std::lock_guard<Mutex> lock(mutex_);
  const auto found = clients_.find(client->fd);
  if (found == clients_.end() || found->second != client) return false;
  shutdown(client->fd, SHUT_RDWR);
  client->dropped = true;
  Forget(found, std::move(client));
  return true;
}

/// The reference given may be the last, which closes a dropped client.
void ClientTable::Forget(Clients::iterator found, ClientPtr client) {
  const int fd = client->fd;
  const std::string path = client->path;
  client->left = true;
  clients_.erase(found);
  if (on_departure_) {
    departed_.push_back(std::move(client));
    on_departure_();
  }
  client.reset();
  HUTIL_LOG(LOG_DEBUG, "%s %d: remove fd [%d] path [%s]\n",
            "void hvn::util::SocketServer::RemoveFd(int)", __LINE__, fd, path.c_str());
  if (monitor_ != nullptr) monitor_->Remove(fd, kRead);
}

void ClientTable::SetReading(const Client& client, bool reads) {
  std::lock_guard<Mutex> lock(mutex_);
  const auto found = clients_.find(client.fd);
  if (monitor_ == nullptr || found == clients_.end() || found->second.get() != &client) return;
  if (reads) {
    monitor_->Add(client.fd, kRead, callback_);
  } else {
    monitor_->Remove(client.fd, kRead);
  }
}

std::vector<ClientPtr> ClientTable::TakeDeparted() {
  std::vector<ClientPtr> departed;
  std::lock_guard<Mutex> lock(mutex_);
  departed.swap(departed_);
  return departed;
}

std::vector<ClientPtr> ClientTable::Shut() {
  std::vector<ClientPtr> all;
  std::lock_guard<Mutex> lock(mutex_);
  shut_ = true;
  for (const auto& entry : clients_) {
    entry.second->left = true;
    all.push_back(entry.second);
  }
  clients_.clear();
  return all;
}

}  // namespace util
}  // namespace hvn
