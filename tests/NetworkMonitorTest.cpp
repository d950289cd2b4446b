#include <linux/rtnetlink.h>

#include "support/Kit.h"
#include "util/NetworkManager.h"
#include "util/NetworkMonitor.h"

using namespace hutil_test;
using hvn::util::EventDic, hvn::util::NetworkManager;
using testing::ElementsAre;

// "type|address|broadcast|interface|state|version ".
std::string Text(EventDic& event) {
  std::string text = std::to_string(event.type_);
  for (int key = 8; key < 13; ++key) text += "|" + event.GetParam(EventDic::Param(key));
  return text + " ";
}

std::string Words(const std::vector<uint32_t>& words) {
  return {reinterpret_cast<const char*>(words.data()), 4 * words.size()};
}

// `length` is what they say of themselves, if not the truth.
std::string Attribute(uint32_t type, const std::string& data, uint32_t length = 0) {
  return Words({type << 16 | (length > 0 ? length : uint32_t(4 + data.size()))}) + data;
}

std::string Message(uint32_t type, uint32_t family = 0, const std::string& data = "",
                    uint32_t length = 0) {
  length = length > 0 ? length : uint32_t(32 + data.size());
  return Words({length, type, 0, 0, family, 1, 0, 0}) + data;
}

// What a subscriber hears of a datagram, and of a loss. The process's monitor hears nobody else.
std::string Decoded(const std::string& datagram) {
  FailNext(Call::kSocket, EMFILE);
  auto* const monitor = hvn::util::NetworkMonitor::GetInstance();
  std::string told;
  NetworkManager network;
  network.SetEventCb([&told](EventDic& event) { told += Text(event); });
  network.SetLossCb([&told] { told += "loss "; });
  int ends[2];
  EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends));
  EXPECT_EQ(ssize_t(datagram.size()), write(ends[1], datagram.data(), datagram.size()));
  ClearLogs();
  monitor->FdCallback(ends[0], hvn::util::kRead);
  for (const int end : ends) close(end);
  network.UnsetEventCb();
  network.SetLossCb(nullptr);
  return told;
}

std::string OfLink(const std::string& attributes) {
  return Decoded(Message(RTM_NEWLINK, 0, attributes));
}

TEST(NetworkMonitor, TellsTheKindAndFamilyOfEachMessage) {
  EXPECT_EQ("259|||lo||4 260|||lo||6 ", Decoded(Message(20, AF_INET) + Message(21, AF_INET6)));
  EXPECT_EQ("256|||lo|| 258|||lo|| ", Decoded(Message(16) + Message(18)));
  EXPECT_EQ("269|||lo|| 269|||lo|| ", Decoded(Message(33) + Message(34)));
  EXPECT_EQ("277|||lo|| 279|||lo|| ", Decoded(Message(44) + Message(46)));
  EXPECT_EQ("", Decoded(Message(0) + Message(15) + Message(19) + Message(43) + Message(47)));
  EXPECT_EQ("7: ifidx 1: ifname:lo\n", Messages().at(0));
}

TEST(NetworkMonitor, TellsALinksAddressesAndName) {
  EXPECT_EQ(
      "256|02:ab:03:04:05:06|ff:ff:ff:ff:ff:fe|wan0|| ",
      OfLink(Attribute(1, "\2\xab\3\4\5\6..", 10) + Attribute(2, "\xff\xff\xff\xff\xff\xfe..", 10) +
             Attribute(3, std::string("wan0\0..x", 8))));
  EXPECT_THAT(Messages(), ElementsAre("7: l2 [02:ab:03:04:05:06]\n"));
}

TEST(NetworkMonitor, TellsOfStatesOnlyThatTheyMayBeNew) {
  for (const char* state : {"\2", "\5", "\6"}) {
    EXPECT_EQ("256|||lo|NetStateDown| ", OfLink(Attribute(16, state)));
  }
  EXPECT_EQ("256|||lo|| ", OfLink(Attribute(16, "\4")));
}

// An IPv4 address has four bytes, and its label may come without a terminator.
TEST(NetworkMonitor, ReadsWhatIsTooShortIntoWhatFollows) {
  const std::string next = Attribute(0, "text");  // whose length is the byte 8
  EXPECT_EQ("256|31:32:33:34:08:00||lo|| ", OfLink(Attribute(1, "1234") + next));
  EXPECT_EQ("256|||lan0\b|| ", OfLink(Attribute(3, "lan0") + next));
}

TEST(NetworkMonitor, LeavesTheRestOfADatagramFromABrokenMessageOn) {
  const std::string good = Message(16), text = "256|||lo|| ";
  EXPECT_EQ(text, Decoded(good + good.substr(0, 15)));
  for (const uint32_t length : {15U, 33U, UINT32_MAX}) {
    EXPECT_EQ(text, Decoded(good + Message(16, 0, "", length))) << length;
  }
  for (const std::string& small : {Words({16, 16, 0, 0}), Message(16, 0, good, 31)}) {
    EXPECT_EQ(text, Decoded(good + small));
    EXPECT_EQ("3:  netlink packet too small or truncated", Messages().back());
  }
  EXPECT_EQ("", Decoded(""));
  EXPECT_THAT(Messages(), ElementsAre("3: Cannot read data from Network monitor"));
}

TEST(NetworkMonitor, CountsWhatItsBufferCannotHoldAsALoss) {
  const std::string link = Message(16, 0, std::string(4096 - 32, '\0'));
  EXPECT_EQ("256|||lo|| ", Decoded(link));
  EXPECT_EQ("256|||lo|| loss ", Decoded(link + "x"));
  EXPECT_EQ("loss ", Decoded(Message(16, 0, std::string(5000, 'x'))));
}

TEST(NetworkMonitor, LeavesTheRestOfAMessageFromABrokenAttributeOn) {
  const std::string mac = Attribute(1, "12345678"), text = "256|31:32:33:34:35:36||lo|| ";
  EXPECT_EQ(text, OfLink(mac + Attribute(0, mac, 3)));
  EXPECT_EQ(text + "256|||lo|| ",
            Decoded(Message(16, 0, mac + Attribute(2, mac, 99)) + Message(16)));
}

// Subscribed to the process's monitor and its kernel.
struct KernelEvents : testing::Test {
  KernelEvents() {
    AllowLeftovers(2, 1);  // the monitor's socket and loop
    network.SetEventCb([](EventDic& event) { syslog(LOG_NOTICE, "#: %s", Text(event).c_str()); });
  }
  ~KernelEvents() override { network.UnsetEventCb(); }
  static bool Hears(const std::string& told) {
    return WaitFor([&] { return testing::Value(Messages(), testing::Contains(told)); }, 5000);
  }
  const int fd = NextFd();
  NetworkManager network;
};

TEST_F(KernelEvents, TellOfLinksAndAddresses) {
  Shell("ip link set hutil1 down address 02:00:00:00:00:01; ip addr add 10.78.0.1 dev hutil1");
  EXPECT_TRUE(Hears("5: 256|02:00:00:00:00:01|ff:ff:ff:ff:ff:ff|hutil1|NetStateDown| "));
  EXPECT_TRUE(Hears("5: 259||0a:4e:00:01:0b:00|hutil1||4 "));
}

TEST_F(KernelEvents, TellOfRulesAndQueues) {
  Shell("ip rule del from all lookup main; tc qdisc add dev hutil1 root pfifo");
  EXPECT_TRUE(Hears("5: 269|||||4 "));
  EXPECT_TRUE(Hears("5: 271|||hutil1|| "));
}

TEST_F(KernelEvents, ComeAgainAfterAnOverrunWhichIsALossAndToldWhenAllIsRead) {
  std::atomic<int> losses{0};
  network.SetLossCb([&] { losses += WaitUntilReadable(fd, 0) ? 100 : 1; });
  int size = 0;
  socklen_t length = sizeof(size);
  EXPECT_EQ(0, getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, &length));
  EXPECT_EQ(2 << 20, size) << "of which half is for the kernel's own use";
  FailNext(Call::kRecv, EIO, 1, 0, fd);  // is none
  FailNext(Call::kRecv, ENOBUFS, 1, 0, fd);
  Shell("ip addr add 2001:db8::5/64 dev lo");
  EXPECT_TRUE(Hears("5: 259|||lo||6 "));
  EXPECT_TRUE(WaitFor([&losses] { return losses > 0; }, 5000));
  network.SetLossCb(nullptr);
  EXPECT_EQ(1, losses);
}

TEST_F(KernelEvents, OfAResyncAreAllLinksAndAddresses) {
  for (const int error : {EAGAIN, EINTR}) FailNext(Call::kRecv, error);
  ResetFaults(Call::kSocket);
  network.Resync();
  network.Resync();  // while the first is under way
  EXPECT_TRUE(Hears("5: 256|00:00:00:00:00:00|00:00:00:00:00:00|lo|| "));
  EXPECT_TRUE(Hears("5: 259||0a:4d:00:01:0b:00|hutil0||4 "));
  EXPECT_TRUE(Hears("5: 259|||lo||6 "));
  EXPECT_TRUE(WaitFor([] { return CallCount(Call::kSocket) == 2; }, 5000));
}

TEST_F(KernelEvents, EndAResyncThatFailsWhichIsSaidAndNotTheNext) {
  const auto resync = [this](const char* told) {
    network.Resync();
    EXPECT_TRUE(Hears(told));
  };
  FailNext(Call::kSocket, ENFILE);
  resync("3: cannot begin listing the network errno [23]\n");
  FailNext(Call::kSend, EPERM);
  resync("3: cannot begin listing the network errno [1]\n");
  FailNext(Call::kSend, EIO, 1, 1);
  resync("3: cannot go on listing the network errno [5]\n");
  FailNext(Call::kRecv, EIO);
  resync("3: cannot read listing the network errno [5]\n");
  resync("5: 259|||lo||6 ");
}
