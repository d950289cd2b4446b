#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include "support/Kit.h"
#include "util/NetworkManager.h"
#include "util/NetworkMonitor.h"

using namespace hutil_test;
using hvn::util::EventDic;
using Network = hvn::util::NetworkManager;
using Texts = std::vector<std::string>;

struct NetworkManager : testing::Test {
  NetworkManager() {
    FailNext(Call::kSocket, EMFILE);  // the monitor's: no kernel's events disturb
    hvn::util::NetworkMonitor::GetInstance();
    ClearLogs();
  }
  // Has the monitor read of a change, as its loop does.
  static void Tell() {
    const uint32_t message[] = {32, RTM_NEWLINK, 0, 0, 0, 1, 0, 0};
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    EXPECT_EQ(32, write(ends[1], message, sizeof(message)));
    hvn::util::NetworkMonitor::GetInstance()->FdCallback(ends[0], hvn::util::kRead);
    for (const int end : ends) close(end);
  }
  static std::string Address(const std::string& ifname, bool ipv6) {
    std::string text = "old";
    const bool found = Network::GetIpAddress(ifname, text, ipv6);
    EXPECT_NE(text.empty(), found);
    return text;
  }
};

TEST_F(NetworkManager, TellsWhatKindAnInterfaceIs) {
  Network net;
  Shell("ip link set hutil1 arp off address 02:00:00:ab:cd:ef");
  EXPECT_TRUE(net.IsLoopBackDevice("lo"));
  EXPECT_FALSE(net.IsEthernetDevice("lo"));
  EXPECT_TRUE(net.IsEthernetDevice("hutil0"));
  EXPECT_FALSE(net.IsEthernetDevice("hutil1")) << "without ARP";
  EXPECT_FALSE(net.IsArpSupportedDevice("nosuch"));
  EXPECT_EQ("02:00:00:AB:CD:EF", net.GetMacAddress("hutil1"));
  EXPECT_EQ("", net.GetMacAddress("nosuch"));
}

TEST_F(NetworkManager, WirelessIsWhatSysfsSays) {
  EXPECT_FALSE(Network().IsWirelessDevice("hutil0"));
  Shell("cd /sys/class/net && mount -t tmpfs sys hutil0 && mkdir hutil0/wireless");
  EXPECT_TRUE(Network().IsWirelessDevice("hutil0"));
  EXPECT_FALSE(Network().IsEthernetDevice("hutil0"));
}

TEST_F(NetworkManager, TellsWhetherAnInterfaceIsUpAndHasItsCable) {
  EXPECT_TRUE(Network::IsRunning("hutil0"));
  Shell("ip link set hutil1 down");
  EXPECT_FALSE(Network::IsUpState("hutil1"));
  EXPECT_TRUE(WaitFor([] { return !Network::IsRunning("hutil0"); }, 5000));
  EXPECT_TRUE(Network::IsUpState("hutil0"));
}

TEST_F(NetworkManager, SetsAddressAndMaskOfAnInterfaceThatItBringsUp) {
  Shell("ip link set hutil1 down");
  EXPECT_TRUE(Network::SetIpAddress("hutil1", "10.78.3.9"));
  EXPECT_TRUE(Network::IsUpState("hutil1"));
  EXPECT_TRUE(Network::SetSubnetMask("hutil1", "255.255.252.0"));
  EXPECT_EQ("10.78.3.9", Address("hutil1", false));
  std::string mask = "old";
  EXPECT_FALSE(Network::GetSubnetMask("nosuch", mask));
  EXPECT_EQ(1, CountLogged("%s %d: ioctlno [%d] errno [%d]\n"));
  EXPECT_TRUE(Network::GetSubnetMask("hutil1", mask));
  EXPECT_EQ("255.255.252.0", mask);
}

TEST_F(NetworkManager, FindsTheIpv6AddressThatBeginsWithTwo) {
  Shell("ip addr add fd00::5/64 dev hutil1; ip addr add 2001:db8::a1/64 dev hutil0");
  EXPECT_EQ("2001:0db8:0000:0000:0000:0000:0000:00a1", Address("hutil0", true));
  EXPECT_EQ("", Address("hutil1", true));
  EXPECT_EQ("", Address("util0", true));
}

TEST_F(NetworkManager, ListsEachInterfaceOnceInOrder) {
  EXPECT_THAT(Network::GetIfNames(), testing::ElementsAre("hutil0", "hutil1", "lo"));
}

TEST_F(NetworkManager, MacAddressIsPairsOfHexDigitsJoinedByColons) {
  EXPECT_TRUE(Network::CheckIpv4MacValidation("aF:09:cc:dd:9E:f0"));
  for (const char* bad :
       {"aa:bb:cc:dd:ee-ff", "ga:bb:cc:dd:ee:ff", "aa:bb:cc:dd:ee:fg", "aa:bb:cc:dd:ee:ff0"}) {
    EXPECT_FALSE(Network::CheckIpv4MacValidation(bad)) << bad;
  }
}

TEST_F(NetworkManager, NetmaskIsOnesBeforeZeros) {
  for (const char* good : {"0.0.0.0", "128.0.0.0", "255.255.255.255"}) {
    EXPECT_TRUE(Network::CheckIpv4SubnetMaskValidation(good)) << good;
  }
  EXPECT_FALSE(Network::CheckIpv4SubnetMaskValidation("255.0.255.0"));
}

TEST_F(NetworkManager, DhcpRangeIsWhatFollowsTheGatewayInItsSubnet) {
  std::string start = "old", end = "old";
  EXPECT_FALSE(Network::GetIpv4DhcpRange("10.0.0.255", "255.255.255.0", start, end));
  EXPECT_FALSE(Network::GetIpv4DhcpRange("10.0.0", "255.255.0.0", start, end));
  EXPECT_FALSE(Network::GetIpv4DhcpRange("10.0.0.1", "255.0.255.0", start, end));
  EXPECT_EQ("old", start);
  EXPECT_TRUE(Network::GetIpv4DhcpRange("10.7.8.1", "255.255.0.0", start, end));
  EXPECT_EQ("10.7.8.2", start);
  EXPECT_EQ("10.7.255.255", end);
}

TEST_F(NetworkManager, DhcpRangeLiesInTheSubnetAboveTheGateway) {
  const auto is_range = [](const char* gateway, const char* start, const char* end) {
    return Network::CheckIpv4DhcpRangeValidation(gateway, "255.255.255.0", start, end);
  };
  EXPECT_TRUE(is_range("10.0.0.1", "10.0.0.2", "10.0.0.2"));
  EXPECT_TRUE(is_range("10.0.0.1", "10.0.0.2", "10.0.0.255"));
  EXPECT_FALSE(is_range("x", "10.0.0.2", "10.0.0.9"));
  EXPECT_FALSE(is_range("10.0.0.1", "10.0.0.2", "x"));
  EXPECT_FALSE(is_range("10.0.0.2", "10.0.0.2", "10.0.0.9"));
  EXPECT_FALSE(is_range("10.0.0.1", "10.0.0.9", "10.0.0.8"));
  EXPECT_FALSE(is_range("10.0.0.1", "10.0.1.2", "10.0.1.9"));
  EXPECT_FALSE(is_range("10.0.0.1", "10.0.0.2", "10.0.1.9"));
}

TEST_F(NetworkManager, ResolvesNamesAndAddresses) {
  WriteFile("/tmp/hosts", "10.77.0.7 lan.test\n2001:db8::7 lan.test\n");
  WriteFile("/tmp/order", "hosts: files\n");
  Shell("cd /tmp; mount -B hosts /etc/hosts; mount -B order /etc/nsswitch.conf");
  EXPECT_EQ("lan.test", Network::GetHostNameByIp("10.77.0.7"));
  EXPECT_EQ("", Network::GetHostNameByIp("10.77.0.8"));
  Texts ipv4{"old"}, ipv6{"old"};
  EXPECT_EQ(hvn::kSuccess, Network::ResolveHostName("lan.test", ipv4, ipv6));
  EXPECT_EQ(Texts{"10.77.0.7"}, ipv4);
  EXPECT_EQ(Texts{"2001:db8::7"}, ipv6);
  EXPECT_EQ(hvn::kFailure, Network::ResolveHostName("no.test", ipv4, ipv6));
  EXPECT_EQ(Texts{}, ipv4);
}

TEST_F(NetworkManager, SubscribersHearOfAChangeInOrderAndShareItsEvent) {
  Network net[2];
  std::string heard;
  net[1].SetEventCb([&heard](EventDic& event) { heard = event.GetParam(EventDic::kMacAddress); });
  net[0].SetEventCb([](EventDic&) { ADD_FAILURE() << "was replaced"; });
  net[0].SetEventCb([](EventDic& event) { event.AddParam(EventDic::kMacAddress, "first's"); });
  Tell();
  EXPECT_EQ("first's", heard);
  net[0].UnsetEventCb();
  Tell();
  EXPECT_EQ("", heard);
  net[1].UnsetEventCb();
}

TEST_F(NetworkManager, UnsubscribingWaitsForTheCallUnderWay) {
  Network net;
  Barrier barrier;
  net.SetEventCb([&barrier](EventDic&) { barrier.Pass(); });
  auto loop = std::async(std::launch::async, Tell);
  barrier.AwaitArrival();
  EXPECT_TRUE(WaitsFor(barrier, [&net] { net.UnsetEventCb(); }));
}
