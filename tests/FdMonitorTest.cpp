#include <sys/eventfd.h>
#include <sys/resource.h>

#include "support/Kit.h"
#include "util/FdMonitor.h"

using namespace hutil_test;
using namespace hvn::util;
constexpr char kThreadLoop[] = "void hvn::util::FdMonitor::ThreadLoop()";

struct Event {  // always writable; readable while its count is not 0
  explicit Event(unsigned count) : fd(eventfd(count, EFD_NONBLOCK)) {}
  ~Event() { close(fd); }
  bool Take(eventfd_t count = 0) const { return eventfd_read(fd, &count) == 0; }
  static void Never(int, FdType) { ADD_FAILURE(); }
  const int fd;
};

// Whether two more descriptors, ready in one pass, are called in it though the first removes both.
bool Serves(FdMonitor& monitor) {
  const Event begin(1), one(1), other(1);
  std::atomic<int> calls{0};
  const auto call = [&](int, FdType) {
    calls += monitor.Remove(one.fd, kRead) == monitor.Remove(other.fd, kRead) ? 1 : 0;
  };
  monitor.Add(begin.fd, kRead, [&](int fd, FdType) {
    monitor.Remove(fd, kRead);
    for (const int ready : {one.fd, other.fd}) monitor.Add(ready, kRead, call);
  });
  return WaitFor([&calls] { return calls == 2; }, 5000);
}

TEST(FdMonitor, RegistryHoldsFiveForTheLifeOfTheProcess) {
  AllowLeftovers(5, 5);
  FdMonitor own;
  for (unsigned int i = 0; i < 6; ++i) {
    FdMonitor* const made = FdMonitor::Create();
    EXPECT_TRUE(made == FdMonitor::Get(i) && (made == nullptr) == (i == 5)) << i;
    EXPECT_TRUE(FdMonitor::Delete(0) == hvn::kSuccess && FdMonitor::Count() == std::min(i + 1, 5u));
  }
  EXPECT_TRUE(FdMonitor::Get(0) != FdMonitor::Get(4) && Serves(*FdMonitor::Get(0)));
}

TEST(FdMonitor, AnnouncesItsThreadAndServesTheFirstReadCallbackOnIt) {
  FdMonitor monitor;
  const Event event(0), thrown_away(1);
  std::atomic<int> calls{0}, tid{0};
  monitor.Add(event.fd, FdType(7), [&](int fd, FdType type) {
    tid = gettid();
    calls += fd == event.fd && type == kRead && event.Take() ? 1 : 9;
  });
  for (const auto type : {kRead, kWrite, kExcept})
    EXPECT_FALSE(monitor.Add(event.fd, type, event.Never));
  EXPECT_TRUE(WaitFor([] { return CallCount(Call::kSelect) > 50; }, 5000)) << "always writable";
  eventfd_write(event.fd, 1);
  EXPECT_TRUE(WaitFor([&calls] { return calls == 1; }, 5000));
  EXPECT_FALSE(monitor.Remove(event.fd, kRead) || monitor.Remove(event.fd, kRead));
  eventfd_write(event.fd, 1);
  monitor.Add(thrown_away.fd, kRead, nullptr);
  EXPECT_TRUE(Serves(monitor) && !thrown_away.Take() && calls == 1);
  EXPECT_SAID(LOG_DEBUG, kThreadLoop, "TID [%ld]\n", long{tid});
  EXPECT_EQ(SystemLines().at(0), "echo \"" + std::string(kThreadLoop) + " " +
                                     std::to_string(Logs().at(0).line + 1) + ": TID [" +
                                     std::to_string(tid) + "]\n\" > /dev/kmsg");
}

TEST(FdMonitor, EndsAtAnyMomentAndItsWakeUpIsNeitherZeroNorTooHighForSelect) {
  const rlimit limit{2048, 2048};
  const Event event(1);
  ASSERT_TRUE(setrlimit(RLIMIT_NOFILE, &limit) == 0 && dup2(event.fd, 1500) == 1500);
  FailWithResult(Call::kEventFd, 1500, 0);  // closed again
  FailNext(Call::kEventFd, EMFILE);
  FdMonitor too_high, none, monitor;
  none.ThreadLoop();
  ASSERT_TRUE(fcntl(1500, F_GETFD) == -1 && dup2(event.fd, 1500) == 1500);
  for (const FdType type : {kRead, kWrite, kExcept}) {
    for (const int fd : {-1, 1500}) monitor.Add(fd, type, event.Never);
  }
  EXPECT_TRUE(Serves(monitor) && Logs().size() == 1);  // its announcement
  FailNext(Call::kSelect, EBADF, 3);
  FailWithResult(Call::kSelect, 0, 0);
  EXPECT_TRUE(Serves(monitor) && CountLogged("%s %d: select error") == 3);
  EXPECT_SAID(LOG_ERR, kThreadLoop, "select error");
  EXPECT_SAID(LOG_DEBUG, kThreadLoop, "select timeout");
  EXPECT_EQ(0, close(1500) + close(STDIN_FILENO));
  for (int i = 0; i < 300; ++i) {
    FdMonitor brief;
    if (i % 2 > 0) brief.Add(event.fd, kExcept, nullptr);  // never ready
    EXPECT_TRUE(fcntl(STDIN_FILENO, F_GETFD) == -1 && (i < 299 || Serves(brief)));
  }
  EXPECT_EQ(STDIN_FILENO, open("/dev/null", O_RDONLY));
}
