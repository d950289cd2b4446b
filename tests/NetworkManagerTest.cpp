#include <net/if.h>
#include <netdb.h>

#include "support/Kit.h"
#include "util/NetworkManager.h"

#define STATIC(result, call) "static " result " hvn::util::NetworkManager::" call

namespace hutil_test {

using Network = hvn::util::NetworkManager;
using Texts = std::vector<std::string>;

constexpr char kCall[] = STATIC("bool", "CallGeneral(std::string, int, ifreq&)");
constexpr char kSetIp[] = STATIC("bool", "SetIpAddress(std::string, std::string)");
constexpr char kSetMask[] = STATIC("bool", "SetSubnetMask(std::string, std::string)");
constexpr char kNames[] = STATIC("std::vector<std::basic_string<char> >", "GetIfNames()");
constexpr char kHostName[] = STATIC("std::string", "GetHostNameByIp(std::string)");
constexpr char kDerive[] =
    STATIC("bool", "GetIpv4DhcpRange(std::string, std::string, std::string&, std::string&)");
constexpr char kCheck[] = STATIC(
    "bool", "CheckIpv4DhcpRangeValidation(std::string, std::string, std::string, std::string)");
constexpr char kResolve[] =
    STATIC("hvn::Result",
           "ResolveHostName(std::string, std::vector<std::basic_string<char> >&, "
           "std::vector<std::basic_string<char> >&)");

void Shell(const std::string& command) { EXPECT_EQ(0, pclose(popen(command.c_str(), "r"))); }

std::string Address(const std::string& ifname, bool ipv6) {
  std::string text = "stale";
  return Network::GetIpAddress(ifname, text, ipv6) ? text : "none" + text;
}

TEST(NetworkManager, TellsWhatAnInterfaceIs) {
  AllowLeftovers(2, 1);  // the monitor's socket and loop
  Shell("ip link set hutil0 address 02:00:00:ab:cd:ef; ip link set hutil1 arp off down");
  const auto kind = [](const std::string& name) {
    Network network;
    return network.GetMacAddress(name) + (network.IsLoopBackDevice(name) ? " loopback" : "") +
           (network.IsWirelessDevice(name) ? " wireless" : "") +
           (network.IsArpSupportedDevice(name) ? " arp" : "") +
           (network.IsEthernetDevice(name) ? " ethernet" : "") +
           (Network::IsUpState(name) ? " up" : "");
  };
  EXPECT_EQ("00:00:00:00:00:00 loopback arp up", kind("lo"));
  EXPECT_EQ("02:00:00:AB:CD:EF arp ethernet up", kind("hutil0"));
  EXPECT_EQ(17U, kind("hutil1").size()) << "neither up nor anything else";
  EXPECT_EQ("", kind("nosuch"));
  Shell("cd /sys/class/net && mount -t tmpfs sys hutil0 && mkdir hutil0/wireless");
  EXPECT_EQ("02:00:00:AB:CD:EF wireless arp up", kind("hutil0"));
}

TEST(NetworkManager, LogsWhatTheKernelRefuses) {
  ifreq ifr = {};
  EXPECT_FALSE(Network::CallGeneral("", 0, ifr));
  EXPECT_TRUE(Said(LOG_ERR, kCall, "no ifname"));
  FailNext(Call::kSocket, EMFILE);
  EXPECT_FALSE(Network::IsUpState("lo"));
  EXPECT_TRUE(Said(LOG_ERR, kCall, "failed to open socket\n"));
  EXPECT_FALSE(Network::WakeUpIfNeeded("a-name-of-20-letters", ifr));
  EXPECT_EQ("a-name-of-20-let", std::string(ifr.ifr_name, IFNAMSIZ));
  EXPECT_TRUE(Said(LOG_ERR, kCall, "ioctlno [%d] errno [%d]\n", 0x8913, ENODEV));
  FailNext(Call::kGetIfAddrs, ENOMEM);
  EXPECT_EQ(Texts{}, Network::GetIfNames());
  EXPECT_TRUE(Said(LOG_ERR, kNames, "getifaddrs errno [%d]\n", ENOMEM));
}

TEST(NetworkManager, SetsAndGetsAddresses) {
  Shell("ip link set hutil1 down; ip addr flush dev hutil1");
  EXPECT_EQ((Texts{"hutil0", "hutil1", "lo"}), Network::GetIfNames());
  EXPECT_TRUE(Network::SetIpAddress("hutil1", "10.78.3.9") && Network::IsUpState("hutil1"));
  EXPECT_EQ("10.78.3.9", Address("hutil1", false));
  EXPECT_TRUE(Network::SetSubnetMask("hutil1", "255.255.252.0"));
  std::string mask;
  EXPECT_TRUE(Network::GetSubnetMask("hutil1", mask));
  EXPECT_TRUE(Network::SetIpAddress("hutil1", "bogus"));  // 0.0.0.0: no address from now on
  EXPECT_FALSE(Network::GetSubnetMask("hutil1", mask));
  EXPECT_EQ("255.255.252.0", mask);
  EXPECT_EQ("none", Address("hutil1", false));
  EXPECT_TRUE(Said(LOG_DEBUG, kSetIp, "ifname [%s] ip set as [%s]\n", "hutil1", "bogus"));
  EXPECT_TRUE(Said(LOG_DEBUG, kSetMask, "ifname [%s] ip set as [%s]\n", "hutil1", "255.255.252.0"));
  for (const int failing : {0, 1, 2}) {  // getting the flags, setting them though up, the mask
    const Fault fault(Call::kIoctl, EPERM, 1, failing);
    EXPECT_FALSE(Network::SetSubnetMask("hutil1", "255.0.0.0")) << failing;
  }
  Shell("ip addr add fd00::5/64 dev hutil1");
  EXPECT_EQ("none", Address("hutil1", true));
  Shell("ip addr add 2001:db8::a1/64 dev hutil1");
  EXPECT_EQ("2001:0db8:0000:0000:0000:0000:0000:00a1", Address("hutil1", true));
  EXPECT_EQ("none", Address("util1", true));
  FailNext(Call::kFopen, ENOENT);
  EXPECT_EQ("none", Address("hutil1", true));
}

TEST(NetworkManager, ChecksAddressesAndDhcpRanges) {
  const auto& mac = Network::CheckIpv4MacValidation;
  EXPECT_TRUE(mac("aa:BB:0c:dd:9E:fF") && !mac("AA-BB-CC-DD-EE-FF") && !mac("aa:bb:cc:dd:ee:fg"));
  EXPECT_FALSE(mac("aa:bb:cc:dd:ee:f") || mac("aa:bb:cc:dd:ee:ff0"));
  const auto& valid = Network::IsValidAddress;
  EXPECT_TRUE(valid("1.2.3.4", false) && !valid("1.2.3", false) && !valid("::1", false));
  EXPECT_TRUE(valid("::1", true) && !valid("1.2.3.4", true) && !valid("", true));
  const auto& ones = Network::CheckIpv4SubnetMaskValidation;
  EXPECT_TRUE(ones("0.0.0.0") && ones("128.0.0.0") && ones("255.255.255.255"));
  EXPECT_FALSE(ones("") || ones("255.0.255.0") || ones("0.0.0.1") || ones("127.255.255.255"));

  std::string from = "as", to = "was";
  EXPECT_FALSE(Network::GetIpv4DhcpRange("10.0.0", "255.255.255.0", from, to));
  EXPECT_FALSE(Network::GetIpv4DhcpRange("10.0.0.1", "255.0.255.0", from, to));
  EXPECT_FALSE(Network::GetIpv4DhcpRange("10.0.0.255", "255.255.255.0", from, to));
  EXPECT_EQ("as was", from + " " + to);
  EXPECT_TRUE(Network::GetIpv4DhcpRange("10.0.0.1", "255.255.0.0", from, to));
  EXPECT_EQ("10.0.0.2 10.0.255.255", from + " " + to);
  EXPECT_TRUE(Said(LOG_DEBUG, kDerive, "gw [%x] nm [%x] start [%x] end [%x]\n", 0xa0000ffu,
                   0xffffff00u, 0xa000100u, 0xa0000ffu));
  EXPECT_TRUE(Said(LOG_DEBUG, kDerive, "start [%s] end [%s]\n", "10.0.0.2", "10.0.255.255"));
  const auto& good = Network::CheckIpv4DhcpRangeValidation;
  const char *const mask = "255.255.255.0", *const ip = "10.0.0.9";
  EXPECT_TRUE(good("10.0.0.1", mask, ip, ip) && good("10.0.0.1", mask, ip, "10.0.0.255"));
  EXPECT_FALSE(good("x", mask, ip, ip) || good("10.0.0.1", "255.0.255.0", ip, ip));
  EXPECT_FALSE(good("10.0.0.1", mask, "x", ip) || good("10.0.0.1", mask, ip, "x"));
  EXPECT_EQ(0, CountLogged("%s %d: gw [%s] netmask [%s] start [%s] end [%s]\n"));
  for (const char* const start : {"10.0.0.1", "10.0.0.10", "10.0.1.9"}) {
    EXPECT_FALSE(good("10.0.0.1", mask, start, ip));
    EXPECT_TRUE(Said(LOG_ERR, kCheck, "gw [%s] netmask [%s] start [%s] end [%s]\n", "10.0.0.1",
                     mask, start, ip));
  }
  EXPECT_FALSE(good("10.0.0.1", mask, ip, "10.0.1.9"));
}

TEST(NetworkManager, LooksUpNamesAndAddresses) {
  const TempDir folder;
  WriteFile(folder / "hosts",
            "127.0.0.1 localhost\n10.77.0.7 lan.test\n2001:db8::7 lan.test\n"
            "255.255.255.255 everybody\n");
  Shell("mount --bind " + (folder / "hosts") + " /etc/hosts");
  EXPECT_EQ("localhost", Network::GetHostNameByIp("127.0.0.1"));
  EXPECT_EQ("everybody", Network::GetHostNameByIp("no address"));
  EXPECT_EQ("", Network::GetHostNameByIp("10.77.0.99"));
  EXPECT_TRUE(Said(LOG_ERR, kHostName, "cannot get host info from ip [%s]\n", "10.77.0.99"));
  Texts ipv4{"stale"}, ipv6{"stale"};
  EXPECT_EQ(hvn::kSuccess, Network::ResolveHostName("lan.test", ipv4, ipv6));
  EXPECT_EQ(Texts{"10.77.0.7"}, ipv4);
  EXPECT_EQ(Texts{"2001:db8::7"}, ipv6);
  EXPECT_TRUE(Said(LOG_DEBUG, kResolve, "<bind info:  %d %d %s>\n", 6, 1, "10.77.0.7"));
  EXPECT_TRUE(Said(LOG_DEBUG, kResolve, "<bind info: %d %d %s>\n", 6, 1, "2001:db8::7"));
  const std::string timing = Logs().at(1).text;
  EXPECT_EQ(hvn::kFailure, Network::ResolveHostName("no.such.host.invalid", ipv4, ipv6));
  EXPECT_EQ(0U, ipv4.size() + ipv6.size());
  FailWithResult(Call::kGetAddrInfo, EAI_AGAIN, ETIMEDOUT);
  EXPECT_EQ(hvn::kFailure, Network::ResolveHostName("lan.test", ipv4, ipv6));
  EXPECT_TRUE(Said(LOG_ERR, kResolve, "getaddrinfo errno %d\n", ETIMEDOUT));
  long s, s_us, e, e_us;
  const char* const times = timing.c_str() + timing.find("#: s ");
  ASSERT_EQ(4, std::sscanf(times, "#: s %ld %ld e %ld %ld", &s, &s_us, &e, &e_us)) << timing;
  EXPECT_TRUE(Said(LOG_DEBUG, kResolve, "s %ld %ld e %ld %ld diff %jd host_name %s\n", s, s_us, e,
                   e_us, intmax_t{e - s} * 1000000 + e_us - s_us, "lan.test"));
}

}  // namespace hutil_test
