#include "util/internal/TcpStatistics.h"

#include <netinet/tcp.h>

#include "util/internal/Log.h"
#include "util/internal/SocketOptions.h"

namespace hvn {
namespace util {

bool LogTcpStatistics(int fd, const char* function) {
  tcp_info k = {};
  if (!ReadTcpInfo(fd, k)) {
    HUTIL_LOG(LOG_ERR, "%s %d: Cannot get getsockopt(TCP_INFO)\n", function, __LINE__);
    return false;
  }
  HUTIL_LOG(LOG_DEBUG,
            "%s %d: state [%u] ca_state [%u] retransmits [%u] probes [%u] backoff [%u] options "
            "[%u] snd_wscale [%u]",
            function, __LINE__, k.tcpi_state, k.tcpi_ca_state, k.tcpi_retransmits, k.tcpi_probes,
            k.tcpi_backoff, k.tcpi_options, k.tcpi_snd_wscale);
  HUTIL_LOG(LOG_DEBUG,
            "%s %d: rcv_wscale [%u] rto [%u] ato [%u] snd_mss [%u] rcv_mss [%u] unacked [%u] "
            "sacked [%u]",
            function, __LINE__, k.tcpi_rcv_wscale, k.tcpi_rto, k.tcpi_ato, k.tcpi_snd_mss,
            k.tcpi_rcv_mss, k.tcpi_unacked, k.tcpi_sacked);
  HUTIL_LOG(LOG_DEBUG,
            "%s %d: tcpi_lost [%u] retrans [%u] fackets [%u] last_data_sent [%u] last_ack_sent "
            "[%u] last_data_recv [%u]",
            function, __LINE__, k.tcpi_lost, k.tcpi_retrans, k.tcpi_fackets, k.tcpi_last_data_sent,
            k.tcpi_last_ack_sent, k.tcpi_last_data_recv);
  HUTIL_LOG(LOG_DEBUG,
            "%s %d: last_ack_recv [%u] pmtu [%u] rcv_ssthresh [%u] rtt [%u] rttvar [%u] "
            "snd_ssthresh [%u] snd_cwnd [%u]",
            function, __LINE__, k.tcpi_last_ack_recv, k.tcpi_pmtu, k.tcpi_rcv_ssthresh, k.tcpi_rtt,
            k.tcpi_rttvar, k.tcpi_snd_ssthresh, k.tcpi_snd_cwnd);
  HUTIL_LOG(LOG_DEBUG,
            "%s %d: advmss [%u] reordering [%u] rcv_rtt [%u] rcv_space [%u] total_retrans [%u]",
            function, __LINE__, k.tcpi_advmss, k.tcpi_reordering, k.tcpi_rcv_rtt, k.tcpi_rcv_space,
            k.tcpi_total_retrans);
  return true;
}

}  // namespace util
}  // namespace hvn
