#include <net/if.h>
#include <netdb.h>

#include "support/Kit.h"
#include "util/NetworkManager.h"

#define STR "std::string"
#define STRS "std::vector<std::basic_string<char> >"
#define STATIC(result, call) "static " result " hvn::util::NetworkManager::" call

namespace hutil_test {
using Network = hvn::util::NetworkManager;
using Texts = std::vector<std::string>;
constexpr char kCall[] = STATIC("bool", "CallGeneral(" STR ", int, ifreq&)");
constexpr char kRange[] = STATIC("bool", "GetIpv4DhcpRange(" STR ", " STR ", " STR "&, " STR "&)");
constexpr char kResolve[] = STATIC("hvn::Result", "ResolveHostName(" STR ", " STRS "&, " STRS "&)");

void Shell(const std::string& command) { EXPECT_EQ(0, pclose(popen(command.c_str(), "r"))); }

std::string Address(const std::string& ifname, bool ipv6) {
  std::string text = "stale";
  return Network::GetIpAddress(ifname, text, ipv6) ? text : "none" + text;
}

TEST(NetworkManager, TellsWhatAnInterfaceIsAndChangesIt) {
  AllowLeftovers(2, 1);  // the monitor's socket and loop
  Shell("ip link set hutil0 address 02:00:00:ab:cd:ef; ip link set hutil1 arp off down");
  Network net;
  const auto kind = [&net](const std::string& id) {
    return net.GetMacAddress(id) + (net.IsLoopBackDevice(id) ? " lo" : "") +
           (net.IsWirelessDevice(id) ? " wifi" : "") + (Network::IsUpState(id) ? " up" : "") +
           (net.IsArpSupportedDevice(id) ? " arp" : "") + (net.IsEthernetDevice(id) ? " eth" : "");
  };
  EXPECT_EQ("00:00:00:00:00:00 lo up arp", kind("lo"));
  EXPECT_EQ("02:00:00:AB:CD:EF up arp eth", kind("hutil0"));
  EXPECT_EQ(17U, kind("hutil1").size()) << "neither up nor anything else";
  EXPECT_EQ("", kind("nosuch") + kind(""));
  EXPECT_SAID(LOG_ERR, kCall, "no ifname");
  ifreq ifr = {};
  EXPECT_FALSE(Network::WakeUpIfNeeded("a-name-of-20-letters", ifr));
  EXPECT_EQ("a-name-of-20-let", std::string(ifr.ifr_name, IFNAMSIZ));
  EXPECT_SAID(LOG_ERR, kCall, "ioctlno [%d] errno [%d]\n", 0x8913, ENODEV);
  FailNext(Call::kSocket, EMFILE);
  EXPECT_FALSE(Network::IsUpState("lo"));
  EXPECT_SAID(LOG_ERR, kCall, "failed to open socket\n");
  EXPECT_EQ((Texts{"hutil0", "hutil1", "lo"}), Network::GetIfNames());
  FailNext(Call::kGetIfAddrs, ENOMEM);
  EXPECT_EQ(Texts{}, Network::GetIfNames());
  EXPECT_SAID(LOG_ERR, STATIC(STRS, "GetIfNames()"), "getifaddrs errno [%d]\n", ENOMEM);
  std::string mask;
  EXPECT_TRUE(Network::SetIpAddress("hutil1", "10.78.3.9") && Network::IsUpState("hutil1"));
  EXPECT_EQ("10.78.3.9", Address("hutil1", false));
  EXPECT_TRUE(Network::SetSubnetMask("hutil1", "255.255.252.0"));
  EXPECT_SAID(LOG_DEBUG, STATIC("bool", "SetSubnetMask(" STR ", " STR ")"),
              "ifname [%s] ip set as [%s]\n", "hutil1", "255.255.252.0");
  EXPECT_TRUE(Network::GetSubnetMask("hutil1", mask));
  EXPECT_TRUE(Network::SetIpAddress("hutil1", "bogus"));  // 0.0.0.0: no address from now on
  EXPECT_SAID(LOG_DEBUG, STATIC("bool", "SetIpAddress(" STR ", " STR ")"),
              "ifname [%s] ip set as [%s]\n", "hutil1", "bogus");
  EXPECT_FALSE(Network::GetSubnetMask("hutil1", mask));
  EXPECT_EQ("255.255.252.0 none", mask + " " + Address("hutil1", false));
  Shell("ip addr add fd00::5/64 dev hutil1; ip addr add 2001:db8::a1/64 dev hutil0");
  EXPECT_EQ("none none", Address("hutil1", true) + " " + Address("util0", true));
  EXPECT_EQ("2001:0db8:0000:0000:0000:0000:0000:00a1", Address("hutil0", true));
  FailNext(Call::kFopen, ENOENT);
  EXPECT_EQ("none", Address("hutil0", true));
  Shell("cd /sys/class/net && mount -t tmpfs sys hutil0 && mkdir hutil0/wireless");
  EXPECT_EQ("02:00:00:AB:CD:EF wifi up arp", kind("hutil0"));
}

TEST(NetworkManager, ChecksAddressesAndDhcpRanges) {
  const auto& mac = Network::CheckIpv4MacValidation;
  EXPECT_TRUE(mac("aa:BB:0c:dd:9E:fF") && !mac("aa:bb:cc:dd:ee0ff") && !mac("aa:bb:cc:dd:ee:fg"));
  EXPECT_FALSE(mac("aa:bb:cc:dd:ee:f") || mac("aa:bb:cc:dd:ee:ff0"));
  const auto& valid = Network::IsValidAddress;
  EXPECT_TRUE(valid("1.2.3.4", false) && !valid("1.2.3", false) && !valid("::1", false));
  EXPECT_TRUE(valid("::1", true) && !valid("1.2.3.4", true) && !valid("", true));
  const auto& ones = Network::CheckIpv4SubnetMaskValidation;
  EXPECT_TRUE(ones("0.0.0.0") && ones("128.0.0.0") && ones("255.255.255.255"));
  EXPECT_FALSE(ones("") || ones("255.0.255.0") || ones("0.0.0.1") || ones("127.255.255.255"));
  const char *const gw = "10.0.0.1", *const mask = "255.255.255.0", *const ip = "10.0.0.9";
  std::string from = "as", to = "was";
  const auto& range = Network::GetIpv4DhcpRange;
  EXPECT_FALSE(range("10.0.0", mask, from, to) || range(gw, "255.0.255.0", from, to));
  EXPECT_FALSE(range("10.0.0.255", mask, from, to));
  EXPECT_SAID(LOG_DEBUG, kRange, "gw [%x] nm [%x] start [%x] end [%x]\n", 0xa0000ffu, 0xffffff00u,
              0xa000100u, 0xa0000ffu);
  EXPECT_EQ("as was", from + " " + to);
  EXPECT_TRUE(range(gw, "255.255.0.0", from, to) && from == "10.0.0.2" && to == "10.0.255.255");
  EXPECT_SAID(LOG_DEBUG, kRange, "start [%s] end [%s]\n", "10.0.0.2", "10.0.255.255");
  const auto& good = Network::CheckIpv4DhcpRangeValidation;
  EXPECT_TRUE(good(gw, mask, ip, ip) && good(gw, mask, ip, "10.0.0.255"));
  EXPECT_FALSE(good("x", mask, ip, ip) || good(gw, "255.0.255.0", ip, ip));
  EXPECT_FALSE(good(gw, mask, "x", ip) || good(gw, mask, ip, "x"));
  EXPECT_EQ(0, CountLogged("%s %d: gw [%s] netmask [%s] start [%s] end [%s]\n"));
  EXPECT_FALSE(good(gw, mask, gw, ip) || good(gw, mask, ip, "10.0.0.8"));
  EXPECT_FALSE(good(gw, mask, ip, "10.0.1.9"));
  EXPECT_SAID(LOG_ERR,
              STATIC("bool", "CheckIpv4DhcpRangeValidation(" STR ", " STR ", " STR ", " STR ")"),
              "gw [%s] netmask [%s] start [%s] end [%s]\n", gw, mask, ip, "10.0.1.9");
}

TEST(NetworkManager, LooksUpNamesAndAddresses) {
  WriteFile("/tmp/hosts", "127.0.0.1 localhost\n10.77.0.7 lan.test\n2001:db8::7 lan.test\n");
  WriteFile("/tmp/order", "hosts: files\n");
  Shell("cd /tmp; mount -B hosts /etc/hosts; mount -B order /etc/nsswitch.conf");
  EXPECT_EQ("localhost", Network::GetHostNameByIp("127.0.0.1") + Network::GetHostNameByIp("bad"));
  EXPECT_SAID(LOG_ERR, STATIC("std::string", "GetHostNameByIp(std::string)"),
              "cannot get host info from ip [%s]\n", "bad");
  Texts ipv4{"stale"}, ipv6{"stale"};
  EXPECT_EQ(hvn::kSuccess, Network::ResolveHostName("lan.test", ipv4, ipv6));
  const std::string times = Logs().at(1).text;
  long s, s_us, e, e_us;
  ASSERT_EQ(4, std::sscanf(times.c_str(), "%*[^#]#: s %ld %ld e %ld %ld", &s, &s_us, &e, &e_us));
  EXPECT_SAID(LOG_DEBUG, kResolve, "s %ld %ld e %ld %ld diff %jd host_name %s\n", s, s_us, e, e_us,
              intmax_t{e - s} * 1000000 + e_us - s_us, "lan.test");
  EXPECT_SAID(LOG_DEBUG, kResolve, "<bind info:  %d %d %s>\n", 6, 1, "10.77.0.7");
  EXPECT_SAID(LOG_DEBUG, kResolve, "<bind info: %d %d %s>\n", 6, 1, "2001:db8::7");
  EXPECT_TRUE(ipv4 == Texts{"10.77.0.7"} && ipv6 == Texts{"2001:db8::7"});
  FailWithResult(Call::kGetAddrInfo, EAI_AGAIN, ETIMEDOUT);
  EXPECT_EQ(hvn::kFailure, Network::ResolveHostName("lan.test", ipv4, ipv6));
  EXPECT_SAID(LOG_ERR, kResolve, "getaddrinfo errno %d\n", ETIMEDOUT);
  EXPECT_EQ(0U, ipv4.size() + ipv6.size());
}

}  // namespace hutil_test
