#include <sys/stat.h>

#include "support/Kit.h"
#include "util/DhcpServer.h"

using namespace hutil_test;
using namespace hvn::util;
constexpr char kFile[] = "/var/lib/misc/dnsmasq.leases";

std::string Text(const std::vector<DhcpServer::LeaseInfo>& leases) {
  std::string text;
  for (const auto& [expiry, mac, ip, name, id] : leases) {
    text += std::to_string(expiry) + "|" + mac + "|" + ip + "|" + name + "|" + id + "\n";
  }
  return text;
}

TEST(DhcpServer, ReadsFiveColumnsOfEveryLineOfWhateverIsThere) {
  EXPECT_EQ("", Text(DhcpServer::GetAllLeaseInfo()));
  for (const bool folder : {false, true}) {
    ASSERT_EQ(0, folder ? mkdir(kFile, 0700) : mkfifo(kFile, 0600));
    EXPECT_EQ("", Text(DhcpServer::GetAllLeaseInfo()));
    ASSERT_EQ(0, remove(kFile));
  }
  WriteFile(kFile,
            "1700000000 aa:bb:cc:dd:ee:ff 192.168.1.100 phone 01:aa:bb:cc:dd:ee:ff\n\n"
            "123 11:22:33:44:55:66\nabc aa:bb:cc:dd:ee:ff  host id sixth seventh\n"
            "duid 00:01:00:01\n99999999999999999999 last");
  EXPECT_EQ(
      "1700000000|aa:bb:cc:dd:ee:ff|192.168.1.100|phone|01:aa:bb:cc:dd:ee:ff\n0||||\n"
      "123|11:22:33:44:55:66|||\n0|aa:bb:cc:dd:ee:ff||host|id\n0|00:01:00:01|||\n0|last|||\n",
      Text(DhcpServer::GetAllLeaseInfo()));
  EXPECT_EQ("phone", DhcpServer::GetLeaseInfo("aa:bb:cc:dd:ee:ff").host_name);
  EXPECT_EQ("0||||\n", Text({DhcpServer::GetLeaseInfo("AA:BB:CC:DD:EE:FF")}));
  WriteFile(kFile, std::string("1 a\n2 \0b c\n", 11));
  FailWithResult(Call::kLseek, 5000, 0);  // a file that shrinks while it is read
  EXPECT_EQ("1|a|||\n2||||\n", Text(DhcpServer::GetAllLeaseInfo()));
  EXPECT_TRUE(Logs().empty());
}
