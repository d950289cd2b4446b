#include <sys/stat.h>

#include "support/Kit.h"
#include "util/DhcpServer.h"

using namespace hutil_test;
using hvn::util::DhcpServer;
constexpr char kFile[] = "/var/lib/misc/dnsmasq.leases";

std::string Leases(const std::string& file) {
  WriteFile(kFile, file);
  std::string text;
  for (const auto& [expiry, mac, ip, name, id] : DhcpServer::GetAllLeaseInfo()) {
    text += std::to_string(expiry) + "|" + mac + "|" + ip + "|" + name + "|" + id + "\n";
  }
  return text;
}

TEST(DhcpServer, ReadsFiveColumnsOfEachLineOfWhatIsThere) {
  EXPECT_EQ("1700000000|aa:bb:cc:dd:ee:ff|192.168.1.100|phone|01:aa\n",
            Leases("1700000000 aa:bb:cc:dd:ee:ff 192.168.1.100 phone 01:aa sixth seventh\n"));
  EXPECT_EQ("123|11:22|||\n0||||\n0|last||*|\n",
            Leases("123 11:22\n\n99999999999999999999 last  *"));
  EXPECT_EQ("0|00:01|||\n2||||\n", Leases(std::string("duid 00:01\n2 \0b c\n", 19)));
}

TEST(DhcpServer, FindsTheFirstLeaseOfAnAddress) {
  WriteFile(kFile, "1 aa:bb 10.0.0.1\n2 aa:cc 10.0.0.2\n3 aa:cc 10.0.0.3\n");
  EXPECT_EQ("10.0.0.2", DhcpServer::GetLeaseInfo("aa:cc").ip_address);
  EXPECT_EQ("", DhcpServer::GetLeaseInfo("AA:CC").mac_address);
}

TEST(DhcpServer, ReadsNothingWhereThereIsNoRegularFile) {
  EXPECT_TRUE(DhcpServer::GetAllLeaseInfo().empty());
  ASSERT_EQ(0, mkfifo(kFile, 0600));
  EXPECT_TRUE(DhcpServer::GetAllLeaseInfo().empty());
}
