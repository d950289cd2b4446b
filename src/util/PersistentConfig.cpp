#include "util/PersistentConfig.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>

#include "util/internal/AtomicFile.h"
#include "util/internal/Fields.h"
#include "util/internal/FileText.h"
#include "util/internal/IgnoreResult.h"
#include "util/internal/Log.h"
#include "util/internal/UniqueFd.h"

namespace hvn {
namespace util {

namespace {

constexpr char kFolder[] = "/data";
constexpr char kFileName[] = "persistent_data.conf";
constexpr char kFile[] = "/data/persistent_data.conf";
// Neither a link, whose target would stay, nor a FIFO, which would be waited for.
constexpr int kReadOnly = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr off_t kMaxSize = 1048576;
constexpr mode_t kMode = 0644;
constexpr char kSave[] =
    "static hvn::Result hvn::util::PersistentConfig::SaveData(std::string, std::string)";
constexpr char kSaveAtomically[] =
    "static hvn::Result hvn::util::PersistentConfig::SaveDataAtomically(std::string, std::string)";

int OpenFile() { return open(kFile, O_RDWR | O_CREAT | O_SYNC | O_CLOEXEC, kMode); }

/// A line feed would split a record, and a NUL would end the file for its readers.
bool IsStorable(const std::string& text) {
  return text.find('\n') == std::string::npos && text.find('\0') == std::string::npos;
}

bool StartsWith(std::string_view line, std::string_view prefix) {
  return line.substr(0, prefix.size()) == prefix;
}

/// Takes the next line that holds `key`, and all before it, off the front of `rest`, which begins
/// with a line; false where none does. A search for the key alone is faster than a walk through the
/// lines, and than one for the prefix, the end of which stands in each of them.
bool NextValue(std::string_view& rest, const std::string& key, const std::string& prefix,
               std::string_view& value) {
  const std::string later = '\n' + key;
  while (!StartsWith(rest, prefix)) {
    if (rest.empty()) return false;  // it may be null then, which memmem does not take
    const void* const found = memmem(rest.data(), rest.size(), later.data(), later.size());
    if (found == nullptr) return false;
    rest.remove_prefix(static_cast<size_t>(static_cast<const char*>(found) - rest.data()) + 1);
  }
  NextField(rest, '\n', value);
  value.remove_prefix(prefix.size());
  return true;
}

bool Holds(std::string_view text, const std::string& key, const std::string& prefix,
           const std::string& value) {
  for (std::string_view held; NextValue(text, key, prefix, held);) {
    if (held == value) return true;
  }
  return false;
}

/// `text` with `record` in the place of each line that begins with `prefix`, or added at the end.
std::string Rewrite(std::string_view text, std::string_view prefix, std::string_view record) {
  std::string output;
  output.reserve(text.size() + record.size() + 2);
  bool replaced = false;
  for (std::string_view line; NextField(text, '\n', line);) {
    const bool replace = StartsWith(line, prefix);
    output.append(replace ? record : line) += '\n';
    replaced |= replace;
  }
  if (!replaced) output.append(record) += '\n';
  return output;
}

/// In place and in one write; the header says what an interruption can leave.
void WriteText(int fd, const std::string& text) {
  lseek(fd, 0, SEEK_SET);
  const ssize_t n = write(fd, text.data(), text.size());
  if (n != static_cast<ssize_t>(text.size())) {
    HUTIL_LOG(LOG_ERR, "%s %d: Cannot write data requested size [%zu] writed size [%zd]\n", kSave,
              __LINE__, text.size(), n);
  }
  IgnoreResult(ftruncate(
      fd, static_cast<off_t>(text.size())));  // longer than the text, the file still begins with it
}

/// All of the open file, which is none below 0. Null, with errno, where not all can be had: what is
/// not read would be lost.
std::unique_ptr<FileText> ReadAll(int fd) {
  const off_t size = fd < 0 ? 0 : FileSize(fd);
  if (size > kMaxSize) errno = EFBIG;
  if (size < 0 || size > kMaxSize) return nullptr;
  auto content = std::make_unique<FileText>(fd, static_cast<size_t>(size));
  if (size == 0 || content->is_whole()) return content;
  errno = EIO;
  return nullptr;
}

hvn::Result NotSaved(const char* undone) {
  HUTIL_LOG(LOG_ERR, "%s %d: cannot %s for [%s] errno [%d]\n", kSaveAtomically, __LINE__, undone,
            kFile, errno);
  return hvn::kFailure;
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
  const std::string prefix = key + kIndexer;
  if (Holds(content.view(), key, prefix, value)) return hvn::kSuccess;
  const std::string text = Rewrite(content.view(), prefix, prefix + value);
  HUTIL_LOG(LOG_DEBUG, "%s %d: %s\n", kSave, __LINE__, text.c_str());
  WriteText(fd.get(), text);
  return hvn::kSuccess;
}

hvn::Result PersistentConfig::SaveDataAtomically(std::string key, std::string value) {
  if (!IsStorable(key) || !IsStorable(value)) {
    HUTIL_LOG(LOG_ERR, "%s %d: line feed or NUL in key or value\n", kSaveAtomically, __LINE__);
    return hvn::kFailure;
  }
  static Mutex queue;  // threads wait for one another here, however long that takes
  std::lock_guard<Mutex> turn(queue);
  const LockedFolder folder(kFolder);
  if (!folder.is_locked()) return NotSaved("lock folder");
  std::lock_guard<Mutex> lock(mutex_);
  const UniqueFd fd(openat(folder.fd(), kFileName, kReadOnly));
  if (fd.get() < 0 && errno != ENOENT) return NotSaved("open file");
  const std::unique_ptr<FileText> content = ReadAll(fd.get());
  if (!content) return NotSaved("read file");
  const std::string prefix = key + kIndexer;
  if (Holds(content->view(), key, prefix, value)) {
    // Who saved it may have been killed before this was done.
    const bool is_synced = fsync(fd.get()) == 0 && fsync(folder.fd()) == 0;
    return is_synced ? hvn::kSuccess : NotSaved("sync file");
  }
  const std::string text = Rewrite(content->view(), prefix, prefix + value);
  errno = EFBIG;
  const bool fits = text.size() <= static_cast<size_t>(kMaxSize);
  const bool is_saved = fits && ReplaceFile(folder.fd(), kFileName, text, fd.get());
  return is_saved ? hvn::kSuccess : NotSaved("replace file");
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
  if (size <= 0 || size > kMaxSize || !IsStorable(key)) return {};
  const FileText content(fd.get(), static_cast<size_t>(size));
  std::string_view rest = content.view();
  std::string_view value;
  return NextValue(rest, key, key + kIndexer, value) ? std::string(value) : std::string();
}

}  // namespace util
}  // namespace hvn
