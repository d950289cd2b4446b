#include <dlfcn.h>
#include <linux/rtnetlink.h>

#include <thread>

#include "support/Kit.h"
#include "util/NetworkManager.h"
#include "util/NetworkMonitor.h"

// In place of the library's, which gives none only where five exist: the first call gets none.
hvn::util::FdMonitor* hvn::util::FdMonitor::Create() {
  static int s_calls = 0;
  void* const real = dlsym(RTLD_NEXT, "_ZN3hvn4util9FdMonitor6CreateEv");
  return s_calls++ == 0 ? nullptr : reinterpret_cast<FdMonitor* (*)()>(real)();
}

namespace hutil_test {
using hvn::util::EventDic, hvn::util::NetworkManager, hvn::util::NetworkMonitor;
constexpr char kFdCallback[] = "void hvn::util::NetworkMonitor::FdCallback(int, hvn::util::FdType)";
constexpr char kMake[] = "hvn::util::NetworkMonitor::NetworkMonitor()";

// "|address|broadcast|interface|state|version ".
std::string Text(EventDic& event) {
  std::string text;
  for (int key = 8; key < 13; ++key) text += "|" + event.GetParam(EventDic::Param(key));
  return text + " ";
}

// Whether the kernel tells of what this command does.
bool Hears(const std::string& event, const std::string& command) {
  return pclose(popen(command.c_str(), "r")) == 0 &&
         WaitFor([&] { return bool(Logged(LOG_NOTICE, "%d%s", event)); }, 3000);
}

// What subscribers, in the order of their addresses, tell of a datagram: the first the event's
// type, the last the rest. The process's monitor hears nobody else.
std::string Decoded(const std::string& datagram) {
  FailNext(Call::kSocket, EMFILE);
  NetworkManager managers[4];
  std::string told;
  managers[3].SetEventCb([&](EventDic& event) { told += Text(event); });
  managers[2].SetEventCb(nullptr);
  for (const int i : {0, 1}) managers[i].SetEventCb([&](EventDic&) { told += "wrong"; });
  managers[1].UnsetEventCb();
  managers[0].SetEventCb([&](EventDic& event) { told += std::to_string(event.type_); });
  int ends[2];
  EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM, 0, ends));
  EXPECT_EQ(ssize_t(datagram.size()), send(ends[1], datagram.data(), datagram.size(), 0));
  NetworkMonitor::GetInstance()->FdCallback(ends[0], hvn::util::kRead);
  EXPECT_EQ(0, close(ends[0]) + close(ends[1]));
  for (NetworkManager& manager : managers) manager.UnsetEventCb();
  return told;
}

std::string Words(const std::vector<uint32_t>& words) {
  return {reinterpret_cast<const char*>(words.data()), 4 * words.size()};
}

// `length` is what they say of themselves, if not the truth.
std::string Attribute(uint32_t type, const std::string& data, uint32_t length = 0) {
  return Words({type << 16 | (length > 0 ? length : uint32_t(4 + data.size()))}) + data;
}

std::string Message(uint32_t type, uint32_t family = 0, const std::string& data = "",
                    uint32_t length = 0, uint32_t index = 1) {
  length = length > 0 ? length : uint32_t(32 + data.size());
  return Words({length, type, 0, 0, family, index, 0, 0}) + data;
}

TEST(EventDic, KeepsTheLastValueAndEntersWhatIsAskedFor) {
  EventDic event;
  event.AddParam(EventDic::kIfName, "eth0");
  event.AddParam(EventDic::kIfName, "eth1");
  EXPECT_EQ("eth1", event.GetParam(EventDic::kIfName));
  EXPECT_EQ("", event.GetParam(EventDic::kNetState));
  event.AddParam(EventDic::kNetState, std::string("a\0b", 3));
  EXPECT_EQ(std::string("a\0b", 3), event.GetParam(EventDic::kNetState));
}

TEST(NetworkMonitor, TellsEachKindOfMessageAndItsLinkAttributes) {
  std::string messages, events;
  int event = EventDic::kEventNewLink;
  for (uint32_t type = 0; type < 64; ++type) {
    messages += Message(type);
    if (type < RTM_NEWLINK || type > RTM_GETTFILTER || type % 4 == 3) continue;
    events += std::to_string(type == RTM_GETRULE ? EventDic::kEventDelRule : event) + "|||lo|| ";
    ++event;
  }
  EXPECT_EQ(events, Decoded(messages));
  EXPECT_SAID(LOG_DEBUG, kFdCallback, "ifidx %d: ifname:%s\n", 1, "lo");
  const std::string link = Attribute(IFLA_ADDRESS, "\2\xab\3\4\5\6..", 10) +
                           Attribute(IFLA_BROADCAST, "\xff\xff\xff\xff\xff\xff..", 10) +
                           Attribute(IFLA_IFNAME, std::string("wan0\0..x", 8));
  for (char state = 0; state < 8; ++state) {
    const std::string told = state == 2 || state == 5 || state == 6 ? "NetStateDown" : "";
    EXPECT_EQ("256|02:ab:03:04:05:06|ff:ff:ff:ff:ff:ff|wan0|" + told + "|6 ",
              Decoded(Message(16, AF_INET6, link + Attribute(16, std::string(1, state)))));
  }
  EXPECT_SAID(LOG_DEBUG, kFdCallback, "l2 [%s]\n", "02:ab:03:04:05:06");
  EXPECT_EQ(
      "257|||lo||4 259||||| 259|||lo|| ",
      Decoded(Message(17, AF_INET) + Message(20, 0, "", 0, 99999) + Message(20, 0, "x..", 33)));
  // The kernel's IPv4 addresses have four bytes: the other two are of what follows.
  const std::string ipv4 = Attribute(2, "\1\2\3\4") + Attribute(3, "lan0") + Attribute(0, "text");
  EXPECT_EQ("259||01:02:03:04:08:00|lan0\b||4 ", Decoded(Message(20, AF_INET, ipv4)));
}

TEST(NetworkMonitor, ReadsNeitherBrokenMessagesNorBeyondItsBuffer) {
  const std::string good = Message(16), text = "256|||lo|| ", mac = Attribute(1, "12345678");
  for (const std::string& bad :
       {good.substr(0, 15), Message(16, 0, good, 15), Message(16, 0, "", 33),
        Message(16, 0, "", 0xfffffff0), Message(16, 0, std::string(5000, 'x'))}) {
    EXPECT_EQ(text, Decoded(good + bad));
    EXPECT_EQ("", Decoded(bad));
  }
  for (const std::string& bad : {Attribute(0, mac, 3), Attribute(2, mac, 99)}) {
    EXPECT_EQ("256|31:32:33:34:35:36||lo|| " + text, Decoded(Message(16, 0, mac + bad) + good));
  }
  EXPECT_EQ(0, CountLogged("%s %d:  netlink packet too small or truncated"));
  EXPECT_EQ(text, Decoded(good + Message(16, 0, good, 20)));
  EXPECT_SAID(LOG_ERR, kFdCallback, " netlink packet too small or truncated");
  const std::string filler = Attribute(0, std::string(4096 - 32 - 4 - 8, 'x'));
  EXPECT_EQ("256|31:32:33:34:00:00||lo|| ", Decoded(Message(16, 0, filler + Attribute(1, "1234"))));
  EXPECT_EQ("256|||wan0|| ", Decoded(Message(16, 0, filler + Attribute(3, "wan0"))));
  EXPECT_EQ(text, Decoded(Message(16, 0, filler + "\4..." + Attribute(16, ""))));
}

TEST(NetworkMonitor, HearsTheKernelAlsoAfterAFailedReadOrStart) {
  AllowLeftovers(2, 1);  // its socket and loop
  FailNext(Call::kSocket, EMFILE);
  std::make_unique<NetworkMonitor>();
  EXPECT_SAID(LOG_ERR, kMake, "Cannot create NETLINK socket\n");
  std::make_unique<NetworkMonitor>();
  EXPECT_SAID(LOG_ERR, kMake, "Cannot create fd monitor");
  std::thread another(NetworkMonitor::GetInstance);
  NetworkManager network;
  network.SetEventCb([](EventDic& e) { syslog(LOG_NOTICE, "%d%s", e.type_, Text(e).c_str()); });
  another.join();
  EXPECT_TRUE(Hears("269|||||4 ", "ip rule del from all lookup main"));
  EXPECT_TRUE(Hears("271|||hutil1|| ", "tc qdisc add dev hutil1 root pfifo"));
  EXPECT_TRUE(Hears("259||0a:4e:00:01:0b:00|hutil1||4 ", "ip addr add 10.78.0.1 dev hutil1"));
  EXPECT_TRUE(Hears("259|||hutil1||6 ", "ip addr add 2001:db8::5/64 dev hutil1"));
  FailNext(Call::kRead, ENOBUFS);
  const std::string link = "|02:00:00:00:00:01|ff:ff:ff:ff:ff:ff|hutil1|NetStateDown| ";
  EXPECT_TRUE(Hears("256" + link, "ip link set hutil1 down address 02:00:00:00:00:01"));
  EXPECT_SAID(LOG_ERR, kFdCallback, "Cannot read data from Network monitor");
  EXPECT_TRUE(Hears("257" + link, "ip link del hutil1"));
  EXPECT_EQ(1U, hvn::util::FdMonitor::Count());
  network.UnsetEventCb();
}

}  // namespace hutil_test
