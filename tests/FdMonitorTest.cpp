#include <sys/eventfd.h>
#include <sys/socket.h>

#include <memory>
#include <optional>

#include "support/Kit.h"
#include "util/FdMonitor.h"

using namespace hutil_test;
using namespace hvn::util;
constexpr char kSelectError[] = "%s %d: select error";

struct Event {  // always writable; readable while its count is not 0
  explicit Event(unsigned count) : fd(eventfd(count, EFD_NONBLOCK)) {}
  ~Event() { close(fd); }
  const int fd;
};

void Never(int, FdType) { ADD_FAILURE(); }

// The thread that calls back for a ready descriptor; 0 where none does.
long ServingThread(FdMonitor& monitor) {
  const Event event(1);
  std::atomic<long> tid{0};
  monitor.Add(event.fd, kRead, [&](int fd, FdType) {
    monitor.Remove(fd, kRead);
    tid = gettid();
  });
  WaitFor([&tid] { return tid != 0; }, 5000);
  return tid;
}

TEST(FdMonitor, RegistryHoldsFiveInTheOrderOfCreationForGood) {
  AllowLeftovers(5, 5);
  for (unsigned i = 0; i < 5; ++i) {
    EXPECT_EQ(nullptr, FdMonitor::Get(i));
    const FdMonitor* const made = FdMonitor::Create();
    EXPECT_NE(nullptr, made);
    EXPECT_EQ(made, FdMonitor::Get(i));
  }
  EXPECT_EQ(nullptr, FdMonitor::Create());
  EXPECT_EQ(hvn::kSuccess, FdMonitor::Delete(0));
  EXPECT_NE(0, ServingThread(*FdMonitor::Get(0)));
  EXPECT_EQ(5u, FdMonitor::Count());
}

TEST(FdMonitor, CallsTheFirstCallbackUntilItsDescriptorIsConsumed) {
  const Event event(1);
  std::atomic<int> calls{0};
  eventfd_t count = 0;
  FdMonitor monitor;
  monitor.Add(event.fd, FdType(7), [&](int fd, FdType type) {
    EXPECT_EQ(event.fd, fd);
    EXPECT_EQ(kRead, type) << "which unknown types count as";
    if (++calls == 3) eventfd_read(fd, &count);
  });
  monitor.Add(event.fd, kRead, Never);
  EXPECT_TRUE(WaitFor([&calls] { return calls == 3; }, 5000));
  ExpectAnnounced("void hvn::util::FdMonitor::ThreadLoop()", ServingThread(monitor));
  EXPECT_EQ(3, calls);
}

TEST(FdMonitor, ReportsAClosedDescriptorOfAnySetUntilItIsRemoved) {
  FdMonitor monitor;
  for (const FdType type : {kRead, kWrite, kExcept}) {
    const int closed = NextFd();
    ClearLogs();
    monitor.Add(closed, type, Never);
    EXPECT_TRUE(WaitForLog(kSelectError, 5000));
    monitor.Remove(closed, type);
    EXPECT_NE(0, ServingThread(monitor));
  }
}

// While select waits for a descriptor, closing it does not end the connection.
TEST(FdMonitor, LetsGoOfWhatIsRemovedWhileItWaits) {
  int ends[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
  FdMonitor monitor;
  monitor.Add(ends[0], kRead, Never);
  EXPECT_TRUE(WaitUntilAsleep(ServingThread(monitor)));
  monitor.Remove(ends[0], kRead);
  EXPECT_EQ(0, close(ends[0]));
  EXPECT_TRUE(WaitUntilReadable(ends[1], 5000));
  EXPECT_EQ(0, close(ends[1]));
}

TEST(FdMonitor, DestroysARemovedCallbackWithoutItsLock) {
  FdMonitor monitor;
  const auto call_back_in = [&monitor](void*) { monitor.Remove(-1, kRead); };
  std::shared_ptr<void> owned(nullptr, call_back_in);
  monitor.Add(-1, kRead, [owned](int, FdType) {});
  owned.reset();
  EXPECT_EQ(hvn::kSuccess, monitor.Remove(-1, kRead));
}

TEST(FdMonitor, NeverWaitsForWhatASetCannotHold) {
  FdMonitor monitor;
  monitor.Add(-1, kRead, Never);
  monitor.Add(FD_SETSIZE, kRead, Never);
  EXPECT_NE(0, ServingThread(monitor));
  EXPECT_EQ(0, CountLogged(kSelectError));
}

TEST(FdMonitor, IsInertWithoutAWakeUpThatASetCanHold) {
  FailNext(Call::kEventFd, EMFILE);
  FailWithResult(Call::kEventFd, FD_SETSIZE, 0);
  const FdMonitor without, beyond;
  EXPECT_THAT(Messages(), testing::IsEmpty());
}

TEST(FdMonitor, IsInertWithoutAThreadWhichIsSaid) {
  WithoutThreads([] { const FdMonitor inert; });
  EXPECT_SAID(LOG_ERR, "hvn::util::FdMonitor::FdMonitor()", "cannot start thread errno [%d]\n",
              EAGAIN);
}

TEST(FdMonitor, WakeUpIsNeverStandardInputAndKeptFromExecutedPrograms) {
  const int wake_up = NextFd();
  close(STDIN_FILENO);
  const FdMonitor monitor;
  EXPECT_EQ(FD_CLOEXEC, fcntl(wake_up, F_GETFD));
  EXPECT_EQ(STDIN_FILENO, open("/dev/null", O_RDONLY));
}

TEST(FdMonitor, EndsAsSoonAsItIsMade) {
  for (int i = 0; i < 100; ++i) FdMonitor().Add(-1, kRead, Never);  // both wake-ups add up
}

TEST(FdMonitor, ServesOnWhenAForkedChildDestroysIt) {
  std::optional<FdMonitor> monitor(std::in_place);
  EXPECT_TRUE(WaitUntilAsleep(ServingThread(*monitor)));
  EXPECT_TRUE(EndsInChild([&monitor] { monitor.reset(); }));
  EXPECT_NE(0, ServingThread(*monitor));
}
