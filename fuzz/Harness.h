// What every fuzz target starts from. The library's log is rendered and dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// A finding unless it holds.
#define REQUIRE(condition)                                                         \
  do {                                                                             \
    if (!(condition)) {                                                            \
      std::fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                \
    }                                                                              \
  } while (false)

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace hutil_fuzz {

inline std::string Text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// How many lines this thread has logged at LOG_ERR so far.
int ErrorsLogged();

// What the delimiters part; one at the end begins no further field.
std::vector<std::string> Fields(const std::string& text, char delimiter);

// Whether `text` is a dotted quad without leading zeros, and its value.
bool ReadIpv4(const std::string& text, std::uint32_t& value);
std::string Ipv4Text(std::uint64_t value);

// A file where the library expects it. Ends the process unless scripts/isolate.sh has made the
// folder.
class PrivateFile {
 public:
  explicit PrivateFile(const char* path);
  void Write(const std::string& text);
  std::string Read() const;

 private:
  int fd_;
};

}  // namespace hutil_fuzz
