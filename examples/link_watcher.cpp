// Lists the network interfaces, then tells of every change to one until it is told to end.

#include <net/if.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "util/EventDic.h"
#include "util/NetworkManager.h"

using hvn::util::EventDic;
using hvn::util::NetworkManager;

namespace {

/// Up is what was asked for, running what the cable says.
const char* StateOf(const std::string& name) {
  if (!NetworkManager::IsUpState(name)) return "down";
  return NetworkManager::IsRunning(name) ? "running" : "no cable";
}

/// Runs on the network monitor's thread, under its lock: short, and with no subscribing in it.
/// Routes, rules and queues come by too.
void Tell(EventDic& event) {
  const std::string name = event.GetParam(EventDic::kIfName);
  const EventDic::EventType type = event.type_;
  // A link that leaves a bridge is deleted there, and goes on.
  if (type == EventDic::kEventDelLink && if_nametoindex(name.c_str()) == 0) {
    std::printf("gone %s\n", name.c_str());
  } else if (type == EventDic::kEventNewLink || type == EventDic::kEventDelLink) {
    std::printf("link %s %s %s\n", name.c_str(), event.GetParam(EventDic::kMacAddress).c_str(),
                StateOf(name));
  } else if (type == EventDic::kEventNewAddr) {
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
  network.SetLossCb([&network] { network.Resync(); });  // what was lost comes again, as events
  network.SetEventCb(Tell);  // before the list, so that no change falls between the two
  for (const std::string& name : NetworkManager::GetIfNames()) {
    std::printf("has %s %s %s\n", name.c_str(), network.GetMacAddress(name).c_str(), StateOf(name));
  }
  int caught = 0;
  sigwait(&ending, &caught);
  network.SetLossCb(nullptr);
  network.UnsetEventCb();  // no call is under way after this, and none comes
  return EXIT_SUCCESS;
}
