#include <dlfcn.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <thread>

#include "support/Kit.h"
#include "util/NetworkManager.h"
#include "util/NetworkMonitor.h"

static bool s_refuse_loops = false;

// In place of the library's, which gives none only where five exist.
hvn::util::FdMonitor* hvn::util::FdMonitor::Create() {
  void* const real = dlsym(RTLD_NEXT, "_ZN3hvn4util9FdMonitor6CreateEv");
  return s_refuse_loops ? nullptr : reinterpret_cast<FdMonitor* (*)()>(real)();
}

namespace hutil_test {

using hvn::util::EventDic, hvn::util::NetworkManager, hvn::util::NetworkMonitor;

constexpr char kFdCallback[] = "void hvn::util::NetworkMonitor::FdCallback(int, hvn::util::FdType)";
constexpr char kMake[] = "hvn::util::NetworkMonitor::NetworkMonitor()";

// "type|address|broadcast|interface|state|version ".
std::string Text(EventDic& event) {
  std::string text = std::to_string(event.type_);
  for (int key = 8; key < 13; ++key) text += "|" + event.GetParam(EventDic::Param(key));
  return text + " ";
}

// Whether the kernel tells of what this command does.
bool Hears(const std::string& event, const std::string& command) {
  return pclose(popen(command.c_str(), "r")) == 0 &&
         WaitFor([&] { return bool(Logged(LOG_NOTICE, "%s", event)); }, 3000);
}

// What becomes of a datagram, in a process whose monitor hears nobody else.
std::string Decoded(const std::string& datagram) {
  FailNext(Call::kSocket, EMFILE);
  NetworkManager network;
  std::string events;
  network.SetEventCb([&events](EventDic& event) { events += Text(event); });
  int ends[2];
  EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM, 0, ends));
  EXPECT_EQ(ssize_t(datagram.size()), send(ends[1], datagram.data(), datagram.size(), 0));
  NetworkMonitor::GetInstance()->FdCallback(ends[0], hvn::util::kRead);
  close(ends[0]), close(ends[1]);
  network.UnsetEventCb();
  return events;
}

template <typename T>
std::string Bytes(const T& value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}

// `length` is what they say of themselves, if not the truth.
std::string Attribute(uint16_t type, const std::string& data, size_t length = 0) {
  return Bytes(rtattr{uint16_t(length > 0 ? length : 4 + data.size()), type}) + data;
}

std::string Message(uint16_t type, uint8_t family = 0, const std::string& data = "",
                    size_t length = 0, int index = 1) {
  return Bytes(nlmsghdr{uint32_t(length > 0 ? length : 32 + data.size()), type, 0, 0, 0}) +
         Bytes(ifinfomsg{family, 0, 0, index, 0, 0}) + data;
}

TEST(NetworkMonitor, GivesEachKindOfMessageItsEvent) {
  std::string messages, events;
  int event = EventDic::kEventNewLink;
  for (uint16_t type = 0; type < 64; ++type) {
    messages += Message(type);
    if (type < RTM_NEWLINK || type > RTM_GETTFILTER || type % 4 == 3) continue;
    events += std::to_string(type == RTM_GETRULE ? EventDic::kEventDelRule : event) + "|||lo|| ";
    ++event;
  }
  EXPECT_EQ(events, Decoded(messages));
  EXPECT_EQ(EventDic::kEventGetTfilter + 1, event);
}

TEST(NetworkMonitor, ReadsTheAttributesOfALinkMessage) {
  const std::string link = Attribute(IFLA_ADDRESS, "\2\xab\3\4\5\6..", 10) +
                           Attribute(IFLA_BROADCAST, "\xff\xff\xff\xff\xff\xff..", 10) +
                           Attribute(IFLA_IFNAME, std::string("wan0\0..x", 8));
  for (char state = 0; state < 8; ++state) {
    const std::string told = state == 2 || state == 5 || state == 6 ? "NetStateDown" : "";
    EXPECT_EQ("256|02:ab:03:04:05:06|ff:ff:ff:ff:ff:ff|wan0|" + told + "|6 ",
              Decoded(Message(16, AF_INET6, link + Attribute(16, std::string(1, state)))));
  }
  EXPECT_TRUE(Said(LOG_DEBUG, kFdCallback, "l2 [%s]\n", "02:ab:03:04:05:06"));
  EXPECT_EQ(0, CountLogged("%s %d: ifidx %d: ifname:%s\n"));
  EXPECT_EQ(
      "257|||lo||4 259||||| 259|||lo|| ",
      Decoded(Message(17, AF_INET) + Message(20, 0, "", 0, 99999) + Message(20, 0, "x..", 33)));
  EXPECT_TRUE(Said(LOG_DEBUG, kFdCallback, "ifidx %d: ifname:%s\n", 1, "lo"));
  // The kernel's IPv4 addresses have four bytes: the other two are of what follows.
  EXPECT_EQ(
      "259||01:02:03:04:08:00|lan0||4 ",
      Decoded(Message(20, AF_INET,
                      Attribute(2, "\1\2\3\4") + Attribute(3, "lan0") + Attribute(0, "text"))));
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
  EXPECT_TRUE(Said(LOG_ERR, kFdCallback, " netlink packet too small or truncated"));
  const std::string filler = Attribute(0, std::string(4096 - 32 - 4 - 8, 'x'));
  EXPECT_EQ("256|31:32:33:34:00:00||lo|| ", Decoded(Message(16, 0, filler + Attribute(1, "1234"))));
  EXPECT_EQ("256|||wan0|| ", Decoded(Message(16, 0, filler + Attribute(3, "wan0"))));
  EXPECT_EQ(text, Decoded(Message(16, 0, filler + "\4..." + Attribute(16, ""))));
}

TEST(NetworkMonitor, CallsItsSubscribersInTheOrderOfTheirAddresses) {
  FailNext(Call::kSocket, EMFILE);
  NetworkManager managers[3];
  std::string called;
  managers[2].SetEventCb([&](EventDic& event) { called += event.GetParam(EventDic::kIfName); });
  managers[1].SetEventCb(nullptr);
  managers[0].SetEventCb([&](EventDic&) { called += "replaced"; });
  managers[0].SetEventCb([&](EventDic& event) { event.AddParam(EventDic::kIfName, "wan0"); });
  Decoded(Message(RTM_NEWLINK));
  for (NetworkManager& manager : managers) manager.UnsetEventCb();
  Decoded(Message(RTM_NEWLINK));
  EXPECT_EQ("wan0", called);
}

TEST(NetworkMonitor, HearsTheKernelAlsoAfterAFailedReadOrStart) {
  AllowLeftovers(2, 1);  // its socket and loop
  FailNext(Call::kSocket, EMFILE);
  std::make_unique<NetworkMonitor>();
  EXPECT_TRUE(Said(LOG_ERR, kMake, "Cannot create NETLINK socket\n"));
  s_refuse_loops = true;
  std::make_unique<NetworkMonitor>();
  EXPECT_TRUE(Said(LOG_ERR, kMake, "Cannot create fd monitor"));
  s_refuse_loops = false;
  std::thread another(NetworkMonitor::GetInstance);
  NetworkManager network;
  network.SetEventCb([](EventDic& event) { syslog(LOG_NOTICE, "%s", Text(event).c_str()); });
  another.join();
  EXPECT_TRUE(Hears("262|||||4 ", "ip route add 10.99.0.0/24 via 10.77.0.9"));
  EXPECT_TRUE(Hears("268|||||4 ", "ip rule add from 10.1.1.1 table 100"));
  EXPECT_TRUE(Hears("269|||||4 ", "ip rule del from 10.1.1.1 table 100"));
  EXPECT_TRUE(Hears("271|||hutil1|| ", "tc qdisc add dev hutil1 root pfifo"));
  EXPECT_TRUE(Hears("259||0a:4e:00:01:0b:00|hutil1||4 ", "ip addr add 10.78.0.1 dev hutil1"));
  EXPECT_TRUE(Hears("259|||hutil1||6 ", "ip addr add 2001:db8::5/64 dev hutil1"));
  EXPECT_TRUE(Hears("260|||hutil1||6 ", "ip addr del 2001:db8::5/64 dev hutil1"));
  FailNext(Call::kRead, ENOBUFS);
  const std::string link = "|02:00:00:00:00:01|ff:ff:ff:ff:ff:ff|hutil1|NetStateDown| ";
  EXPECT_TRUE(Hears("256" + link, "ip link set hutil1 down address 02:00:00:00:00:01"));
  EXPECT_TRUE(Said(LOG_ERR, kFdCallback, "Cannot read data from Network monitor"));
  EXPECT_TRUE(Hears("257" + link, "ip link del hutil1"));
  EXPECT_EQ(1U, hvn::util::FdMonitor::Count());
  network.UnsetEventCb();
}

}  // namespace hutil_test
