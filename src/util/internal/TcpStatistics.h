#ifndef HUTIL_UTIL_INTERNAL_TCPSTATISTICS_H_
#define HUTIL_UTIL_INTERNAL_TCPSTATISTICS_H_

namespace hvn {
namespace util {

/// Logs the kernel's figures for the TCP connection `fd` in five lines, for `function`. False where
/// the kernel has none.
bool LogTcpStatistics(int fd, const char* function);

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_TCPSTATISTICS_H_
