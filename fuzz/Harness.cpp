#include "Harness.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>

namespace {
thread_local int t_errors = 0;
}

// Rendered all the same: an argument that the format cannot take is a finding too.
extern "C" void syslog(int priority, const char* format, ...) {
  char text[256];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  if (priority == LOG_ERR) ++t_errors;
}

// The quarantine's usual quarter of a gigabyte makes what OpenSSL allocates slow.
extern "C" const char* __asan_default_options() {  // NOLINT(bugprone-reserved-identifier)
  return "quarantine_size_mb=32:detect_stack_use_after_return=1:strict_string_checks=1";
}

extern "C" int system(const char* /*command*/) { return 0; }

namespace hutil_fuzz {

int ErrorsLogged() { return t_errors; }

std::vector<std::string> Fields(const std::string& text, char delimiter) {
  std::vector<std::string> fields;
  bool is_open = false;
  for (char c : text) {
    if (!is_open) fields.emplace_back();
    is_open = c != delimiter;
    if (is_open) fields.back() += c;
  }
  return fields;
}

bool ReadIpv4(const std::string& text, std::uint32_t& value) {
  unsigned int a = 0, b = 0, c = 0, d = 0;
  if (std::sscanf(text.c_str(), "%3u.%3u.%3u.%3u", &a, &b, &c, &d) != 4) return false;
  if (a > 255 || b > 255 || c > 255 || d > 255) return false;
  value = ((a * 256 + b) * 256 + c) * 256 + d;
  return Ipv4Text(value) == text;
}

std::string Ipv4Text(std::uint64_t value) {
  std::string text;
  for (std::uint64_t unit : {1U << 24, 1U << 16, 1U << 8, 1U}) {
    text += (text.empty() ? "" : ".") + std::to_string(value / unit % 256);
  }
  return text;
}

PrivateFile::PrivateFile(const char* path) {
  const std::string folder(path, std::string(path).rfind('/'));
  struct statfs fs = {};
  const bool is_private = statfs(folder.c_str(), &fs) == 0 && fs.f_type == TMPFS_MAGIC;
  fd_ = is_private ? open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644) : -1;
  if (fd_ >= 0) return;
  std::fprintf(stderr, "%s is not ours to write: run this through scripts/isolate.sh\n", path);
  std::_Exit(2);  // libFuzzer would call anything gentler a finding
}

void PrivateFile::Write(const std::string& text) {
  REQUIRE(ftruncate(fd_, 0) == 0);
  REQUIRE(pwrite(fd_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
}

std::string PrivateFile::Read() const {
  std::string text(static_cast<std::size_t>(lseek(fd_, 0, SEEK_END)), '\0');
  REQUIRE(pread(fd_, &text[0], text.size(), 0) == static_cast<ssize_t>(text.size()));
  return text;
}

}  // namespace hutil_fuzz
