// Lists the network interfaces, then tells of every change to one until it is told to end.

#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "util/EventDic.h"
#include "util/NetworkManager.h"

using hvn::util::EventDic;
using hvn::util::NetworkManager;

namespace {

const char* StateOf(const std::string& name) {
  return NetworkManager::IsUpState(name) ? "up" : "down";
}

/// Runs on the network monitor's thread, under its lock: short, and with no subscribing in it.
void Tell(EventDic& event) {
  const std::string name = event.GetParam(EventDic::kIfName);
  const std::string mac = event.GetParam(EventDic::kMacAddress);
  if (event.type_ == EventDic::kEventNewLink) {
    std::printf("link %s %s %s\n", name.c_str(), mac.c_str(), StateOf(name));
  } else if (event.type_ == EventDic::kEventDelLink) {
    std::printf("gone %s\n", mac.c_str());
  } else if (event.type_ == EventDic::kEventNewAddr) {
    std::printf("IPv%s address on %s\n", event.GetParam(EventDic::kIpVersion).c_str(),
                name.c_str());
  }
}

}  // namespace

int main() {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  sigset_t ending;  // blocked before any thread starts: only sigwait takes them
  sigemptyset(&ending);
  sigaddset(&ending, SIGINT);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);

  NetworkManager network;
  network.SetEventCb(Tell);  // before the list, so that no change falls between the two
  for (const std::string& name : NetworkManager::GetIfNames()) {
    std::printf("has %s %s %s\n", name.c_str(), network.GetMacAddress(name).c_str(), StateOf(name));
  }
  int caught = 0;
  sigwait(&ending, &caught);
  network.UnsetEventCb();  // no call is under way after this, and none comes
  return EXIT_SUCCESS;
}
