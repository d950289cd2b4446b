#include "util/internal/Client.h"

#include <unistd.h>

#include <utility>

namespace hvn {
namespace util {

Client::Client(int number, std::string text, std::unique_ptr<Peer> limited)
    : fd(number), path(std::move(text)), peer(std::move(limited)) {}

Client::~Client() {
  if (dropped) close(fd);
}

}  // namespace util
}  // namespace hvn
