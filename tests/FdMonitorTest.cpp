#include <fcntl.h>
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
  const int fd;
};

// Whether two more descriptors, ready in one pass, are called in it though the first removes both.
bool Serves(FdMonitor& monitor) {
  const Event begin(1), one(1), other(1);
  std::atomic<int> calls{0};
  const auto end = [&](int, FdType) {
    for (const int fd : {one.fd, other.fd}) monitor.Remove(fd, kRead);
    ++calls;
  };
  monitor.Add(begin.fd, kRead, [&](int fd, FdType) {
    monitor.Remove(fd, kRead);
    for (const int ready : {one.fd, other.fd}) monitor.Add(ready, kRead, end);
  });
  return WaitFor([&calls] { return calls == 2; }, 5000);
}

TEST(FdMonitor, RegistryHoldsFiveForTheLifeOfTheProcess) {
  AllowLeftovers(5, 5);
  FdMonitor own;
  for (unsigned int i = 0; i < 6; ++i) {
    FdMonitor* const made = FdMonitor::Create();
    EXPECT_TRUE(made == FdMonitor::Get(i) && (made == nullptr) == (i == 5)) << i;
  }
  FdMonitor* const first = FdMonitor::Get(0);
  EXPECT_EQ(hvn::kSuccess, FdMonitor::Delete(0));
  EXPECT_TRUE(first == FdMonitor::Get(0) && first != FdMonitor::Get(4) && FdMonitor::Count() == 5);
  EXPECT_TRUE(Serves(*first));
}

TEST(FdMonitor, AnnouncesItsThreadAndServesTheFirstReadCallbackOnIt) {
  FdMonitor monitor;
  const Event event(0), thrown_away(1);
  std::atomic<int> calls{0}, wrong{0}, tid{0};
  monitor.Add(event.fd, FdType(7), [&](int fd, FdType type) {
    wrong += fd != event.fd || type != kRead || !event.Take();
    tid = gettid();
    ++calls;
  });
  for (const FdType type : {kRead, kWrite, kExcept}) {
    EXPECT_EQ(hvn::kSuccess, monitor.Add(event.fd, type, [&wrong](int, FdType) { ++wrong; }));
  }
  EXPECT_TRUE(WaitFor([] { return CallCount(Call::kSelect) > 50; }, 5000)) << "always writable";
  eventfd_write(event.fd, 1);
  EXPECT_TRUE(WaitFor([&calls] { return calls == 1; }, 5000));
  for (int i = 0; i < 2; ++i) EXPECT_EQ(hvn::kSuccess, monitor.Remove(event.fd, kRead));
  eventfd_write(event.fd, 1);
  monitor.Add(thrown_away.fd, kRead, nullptr);
  EXPECT_TRUE(Serves(monitor) && !thrown_away.Take());
  EXPECT_EQ(1, calls + wrong);
  EXPECT_TRUE(Said(LOG_DEBUG, kThreadLoop, "TID [%ld]\n", long{tid}));
  EXPECT_EQ(SystemLines().at(0), "echo \"" + std::string(kThreadLoop) + " " +
                                     std::to_string(Logs().at(0).line + 1) + ": TID [" +
                                     std::to_string(tid) + "]\n\" > /dev/kmsg");
}

TEST(FdMonitor, EndsAtAnyMomentAndItsWakeUpIsNeverZero) {
  const Event event(0);
  close(STDIN_FILENO);
  for (int i = 0; i < 300; ++i) {
    FdMonitor monitor;
    EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD));
    if (i % 2 > 0) monitor.Add(event.fd, kRead, nullptr);
    EXPECT_TRUE(i < 299 || Serves(monitor));
  }
  EXPECT_EQ(STDIN_FILENO, open("/dev/null", O_RDONLY));
}

TEST(FdMonitor, WaitsForNoDescriptorThatSelectCannotHoldAndGoesOnWhenItFails) {
  const rlimit limit{2048, 2048};
  const Event event(1);
  std::atomic<int> calls{0};
  ASSERT_TRUE(setrlimit(RLIMIT_NOFILE, &limit) == 0 && dup2(event.fd, 1500) == 1500);
  FailWithResult(Call::kEventFd, 1500, 0);  // closed again
  FailNext(Call::kEventFd, EMFILE);
  FdMonitor too_high, none;
  none.ThreadLoop();
  EXPECT_TRUE(Logs().empty());
  ASSERT_TRUE(fcntl(1500, F_GETFD) == -1 && dup2(event.fd, 1500) == 1500);
  FdMonitor monitor;
  for (const FdType type : {kRead, kWrite, kExcept}) {
    for (const int fd : {-1, 1500}) monitor.Add(fd, type, [&calls](int, FdType) { ++calls; });
  }
  EXPECT_TRUE(Serves(monitor));
  EXPECT_EQ(0, calls + CountLogged("%s %d: select error"));

  FailNext(Call::kSelect, EBADF, 3);
  FailWithResult(Call::kSelect, 0, 0);
  EXPECT_TRUE(Serves(monitor));
  EXPECT_EQ(3, CountLogged("%s %d: select error"));
  EXPECT_TRUE(Said(LOG_ERR, kThreadLoop, "select error"));
  EXPECT_TRUE(Said(LOG_DEBUG, kThreadLoop, "select timeout"));
  close(1500);
}
