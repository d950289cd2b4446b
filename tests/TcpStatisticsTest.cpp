// With the source of what is tested, so that the figures it reads can be others than a kernel's.
#include <cstring>

#include "support/Kit.h"
#include "util/internal/TcpStatistics.cpp"

namespace hvn::util {

// 1, 2, 3, ... in the order of the kernel's record; its two halves of a byte are 1 and 2.
bool ReadTcpInfo(int fd, tcp_info& info) {
  uint8_t bytes[] = {1, 2, 3, 4, 5, 6, 0x21, 0};
  std::memcpy(&info, bytes, sizeof(bytes));
  uint32_t words[24];
  for (uint32_t i = 0; i < 24; ++i) words[i] = 7 + i;
  std::memcpy(&info.tcpi_rto, words, sizeof(words));
  return fd > 0;
}

}  // namespace hvn::util

namespace hutil_test {

TEST(TcpStatistics, TellsEachFigureUnderItsName) {
  EXPECT_TRUE(hvn::util::LogTcpStatistics(1, "f"));
  std::string said;
  for (const LogLine& line : Logs()) said += line.text.substr(5) + "\n";
  EXPECT_EQ(
      "state [1] ca_state [2] retransmits [3] probes [4] backoff [5] options [6] snd_wscale [1]\n"
      "rcv_wscale [2] rto [7] ato [8] snd_mss [9] rcv_mss [10] unacked [11] sacked [12]\n"
      "tcpi_lost [13] retrans [14] fackets [15] last_data_sent [16] last_ack_sent [17] "
      "last_data_recv [18]\n"
      "last_ack_recv [19] pmtu [20] rcv_ssthresh [21] rtt [22] rttvar [23] snd_ssthresh [24] "
      "snd_cwnd [25]\n"
      "advmss [26] reordering [27] rcv_rtt [28] rcv_space [29] total_retrans [30]\n",
      said);
}

}  // namespace hutil_test
