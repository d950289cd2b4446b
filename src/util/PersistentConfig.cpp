#include "util/PersistentConfig.h"

#include <fcntl.h>
#include <unistd.h>

#include <mutex>
#include <string_view>

#include "util/Fields.h"
#include "util/FileText.h"
#include "util/Log.h"
#include "util/UniqueFd.h"

namespace hvn {
namespace util {

namespace {

constexpr char kFile[] = "/data/persistent_data.conf";
constexpr off_t kMaxSize = 1048576;
constexpr mode_t kMode = 0644;
constexpr char kSave[] =
    "static hvn::Result hvn::util::PersistentConfig::SaveData(std::string, std::string)";

int OpenFile() { return open(kFile, O_RDWR | O_CREAT | O_SYNC | O_CLOEXEC, kMode); }

/// A line feed would split a record, and a NUL would end the file for its readers.
bool IsStorable(const std::string& text) {
  return text.find('\n') == std::string::npos && text.find('\0') == std::string::npos;
}

bool StartsWith(std::string_view line, std::string_view prefix) {
  return line.substr(0, prefix.size()) == prefix;
}

/// `text` with the value of `prefix` replaced on each of its lines, or added at the end. False
/// where a line holds it already.
bool Rewrite(std::string_view text, const std::string& prefix, const std::string& value,
             std::string& output) {
  output.reserve(text.size() + prefix.size() + value.size() + 2);
  bool replaced = false;
  for (std::string_view line; NextField(text, '\n', line);) {
    if (StartsWith(line, prefix)) {
      if (line.substr(prefix.size()) == value) return false;
      output.append(prefix).append(value);
      replaced = true;
    } else {
      output.append(line);
    }
    output += '\n';
  }
  if (!replaced) output.append(prefix).append(value) += '\n';
  return true;
}

/// In place and in one write: what a power loss can leave is old and new text, line by line.
void WriteText(int fd, const std::string& text) {
  lseek(fd, 0, SEEK_SET);
  const ssize_t n = write(fd, text.data(), text.size());
  if (n != static_cast<ssize_t>(text.size())) {
    HUTIL_LOG(LOG_ERR, "%s %d: Cannot write data requested size [%zu] writed size [%zd]\n", kSave,
              __LINE__, text.size(), n);
  }
  if (ftruncate(fd, static_cast<off_t>(text.size())) != 0) return;  // the result stays a success
}

}  // namespace

Mutex PersistentConfig::mutex_;
const std::string PersistentConfig::kIndexer = "=!=%=";

hvn::Result PersistentConfig::SaveData(std::string key, std::string value) {
  if (!IsStorable(key) || !IsStorable(value)) {
    HUTIL_LOG(LOG_ERR, "%s %d: line feed or NUL in key or value\n", kSave, __LINE__);
    return hvn::kFailure;
  }
  std::lock_guard<Mutex> lock(mutex_);
  const UniqueFd fd(OpenFile());
  if (fd.get() < 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: cannot open file [%s]\n", kSave, __LINE__, kFile);
    return hvn::kFailure;
  }
  const off_t size = FileSize(fd.get());
  if (size < 0 || size > kMaxSize) return hvn::kFailure;
  const FileText content(fd.get(), static_cast<size_t>(size));
  std::string text;
  if (!Rewrite(content.view(), key + kIndexer, value, text)) return hvn::kSuccess;
  HUTIL_LOG(LOG_DEBUG, "%s %d: %s\n", kSave, __LINE__, text.c_str());
  WriteText(fd.get(), text);
  return hvn::kSuccess;
}

std::string PersistentConfig::LoadData(std::string key) {
  std::lock_guard<Mutex> lock(mutex_);
  const UniqueFd fd(OpenFile());
  if (fd.get() < 0) {
    HUTIL_LOG(LOG_ERR, "%s %d: Cannot open file %s\n",
              "static std::string hvn::util::PersistentConfig::LoadData(std::string)", __LINE__,
              kFile);
    return {};
  }
  const off_t size = FileSize(fd.get());
  if (size <= 0 || size > kMaxSize) return {};
  const FileText content(fd.get(), static_cast<size_t>(size));
  const std::string prefix = key + kIndexer;
  std::string_view rest = content.view();
  for (std::string_view line; NextField(rest, '\n', line);) {
    if (StartsWith(line, prefix)) return std::string(line.substr(prefix.size()));
  }
  return {};
}

}  // namespace util
}  // namespace hvn
