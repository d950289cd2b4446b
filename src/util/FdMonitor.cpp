#include "util/FdMonitor.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <utility>

#include "util/internal/IgnoreResult.h"
#include "util/internal/Log.h"
#include "util/internal/Select.h"
#include "util/internal/StartThread.h"
#include "util/internal/UniqueFd.h"

namespace hvn {
namespace util {

namespace {

[[maybe_unused]] const std::string kTag = "util::FdMonitor";  // for a debugger
constexpr size_t kMaxMonitors = 5;
constexpr size_t kDiscardSize = 4096;

/// A wake-up descriptor that is not 0, which counts as none, and that select can hold; or -1.
int OpenWakeFd() {
  int fd = CloseOnExec(eventfd(0, EFD_NONBLOCK));
  if (fd == 0) {
    fd = fcntl(0, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(0);
  }
  if (fd < 0 || FitsSelect(fd)) return fd;
  close(fd);
  return -1;
}

/// What cannot be read now is heard of again, or not.
void Discard(int fd) {
  char scratch[kDiscardSize];
  IgnoreResult(read(fd, scratch, sizeof(scratch)));
}

}  // namespace

/// What one pass of the loop waits for.
struct FdMonitor::Sets {
  fd_set read, write, except;
};

Mutex FdMonitor::s_monitor_vector_mutex_;
std::vector<FdMonitor*> FdMonitor::s_monitor_v_;

FdMonitor* FdMonitor::Create() {
  std::lock_guard<Mutex> lock(s_monitor_vector_mutex_);
  if (s_monitor_v_.size() >= kMaxMonitors) return nullptr;
  s_monitor_v_.push_back(new FdMonitor());
  return s_monitor_v_.back();
}

FdMonitor* FdMonitor::Get(unsigned int index) {
  std::lock_guard<Mutex> lock(s_monitor_vector_mutex_);
  return index < s_monitor_v_.size() ? s_monitor_v_[index] : nullptr;
}

unsigned int FdMonitor::Count() {
  std::lock_guard<Mutex> lock(s_monitor_vector_mutex_);
  return static_cast<unsigned int>(s_monitor_v_.size());
}

hvn::Result FdMonitor::Delete(unsigned int /*index*/) {
  std::lock_guard<Mutex> lock(s_monitor_vector_mutex_);
  return hvn::kSuccess;
}

// running_ is true before the thread exists, so that a destructor that comes first is not undone.
FdMonitor::FdMonitor()
    : maker_(getpid()),
      exit_word_("evt_exit"),
      modify_word_("evt_modi"),
      wake_fd_(OpenWakeFd()),
      running_(true) {
  if (wake_fd_ < 0) return;
  std::thread thread = StartThread("hvn::util::FdMonitor::FdMonitor()", [this] { ThreadLoop(); });
  if (!thread.joinable()) {
    close(wake_fd_);
    wake_fd_ = -1;
    return;
  }
  thread_ = std::move(thread);
}

FdMonitor::~FdMonitor() {
  if (getpid() != maker_) {
    Abandon(thread_);
    return;
  }
  running_ = false;
  if (wake_fd_ <= 0) return;
  Wake(exit_word_);
  thread_.Join();
  close(wake_fd_);
}

hvn::Result FdMonitor::Add(int fd, FdType type, Callback cb) {
  std::lock_guard<Mutex> lock(mutex_);
  if (MapOf(type).try_emplace(fd, std::move(cb)).second) Wake(modify_word_);
  return hvn::kSuccess;
}

hvn::Result FdMonitor::Remove(int fd, FdType type) {
  CallbackMap::node_type removed;  // destroyed without the lock: what it owns may call back in here
  std::lock_guard<Mutex> lock(mutex_);
  removed = MapOf(type).extract(fd);
  if (!removed.empty()) Wake(modify_word_);
  return hvn::kSuccess;
}

FdMonitor::CallbackMap& FdMonitor::MapOf(FdType type) {
  if (type == kWrite) return write_map_;
  if (type == kExcept) return except_map_;
  return read_map_;
}

/// A write that finds the counter full needs no repetition: the loop is awake then.
void FdMonitor::Wake(const std::string& word) const {
  IgnoreResult(write(wake_fd_, word.data(), word.size()));
}

void FdMonitor::ThreadLoop() {
  static constexpr char kFunction[] = "void hvn::util::FdMonitor::ThreadLoop()";
  if (wake_fd_ < 0) return;
  HUTIL_ANNOUNCE_THREAD(kFunction);
  ReadyList ready;
  while (running_) {
    Sets sets;
    const int max_fd = BuildSets(sets);
    const int count = select(max_fd + 1, &sets.read, &sets.write, &sets.except, nullptr);
    if (count < 0) {
      HUTIL_LOG(LOG_ERR, "%s %d: select error", kFunction, __LINE__);
      continue;
    }
    if (count == 0) {
      HUTIL_LOG(LOG_DEBUG, "%s %d: select timeout", kFunction, __LINE__);
      continue;
    }
    CollectReady(sets, ready);
    for (const auto& entry : ready) entry.second(entry.first, kRead);
    ready.clear();
  }
}

int FdMonitor::BuildSets(Sets& sets) {
  int max_fd = wake_fd_;
  const auto fill = [&max_fd](const CallbackMap& map, fd_set& set) {
    FD_ZERO(&set);
    for (const auto& entry : map) {
      if (!FitsSelect(entry.first)) continue;
      FD_SET(entry.first, &set);
      max_fd = std::max(max_fd, entry.first);
    }
  };
  std::lock_guard<Mutex> lock(mutex_);
  fill(read_map_, sets.read);
  FD_SET(wake_fd_, &sets.read);
  fill(write_map_, sets.write);
  fill(except_map_, sets.except);
  return max_fd;
}

void FdMonitor::CollectReady(const Sets& sets, ReadyList& ready) {
  std::lock_guard<Mutex> lock(mutex_);
  for (const auto& entry : read_map_) {
    if (!FitsSelect(entry.first) || !FD_ISSET(entry.first, &sets.read)) continue;
    if (entry.second) {
      ready.push_back(entry);
    } else {
      Discard(entry.first);
    }
  }
  if (FD_ISSET(wake_fd_, &sets.read)) ReadWakeUp();
}

/// Words that came together add up to another one; the destructor clears running_ itself.
void FdMonitor::ReadWakeUp() {
  char word[12] = {};
  if (read(wake_fd_, word, 8) == 8 && exit_word_ == word) running_ = false;
}

}  // namespace util
}  // namespace hvn
