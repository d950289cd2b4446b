// What the library reports, captured in place of the system log and of the shell.
#pragma once

#include <gtest/gtest.h>
#include <syslog.h>

#include <mutex>
#include <string>
#include <vector>

namespace hutil_test {

struct LogLine {
  int priority;
  std::string format;
  std::string text;  // rendered; behind "%s %d: " and "%s %d : " the source line reads '#'
  int line;          // that source line, or 0
};

std::vector<LogLine> Logs();
std::vector<std::string> SystemLines();
std::vector<std::string> Messages();  // of each log its priority and the text behind '#'
void ClearLogs();                     // both of them

// Was "%s %d: MESSAGE" logged by `function` with these arguments? " : MESSAGE" has its own colon;
// with a null function the message is the whole format. A failure shows all that was logged.
//   EXPECT_SAID(LOG_ERR, "void hvn::util::Thing::Run()", "errno [%d]\n", EIO);
testing::AssertionResult Said(int priority, const char* function, const char* message, ...)
    __attribute__((format(printf, 3, 4)));
#define EXPECT_SAID(...) EXPECT_TRUE(hutil_test::Said(__VA_ARGS__))
int CountLogged(const std::string& format);
// Did `function` announce its thread first, in the log and from the next source line by an echo?
void ExpectAnnounced(const std::string& function, long tid);

}  // namespace hutil_test
