#include "support/SyslogCapture.h"

#include <dlfcn.h>

#include <cstdarg>
#include <cstdio>

namespace hutil_test {
namespace {

std::mutex s_mutex;
// Never destroyed: threads may log while the process exits.
auto& s_logs = *new std::vector<LogLine>;
auto& s_commands = *new std::vector<std::string>;

std::string Render(const char* format, va_list arguments) {
  char text[1 << 16];
  vsnprintf(text, sizeof(text), format, arguments);
  return text;
}

}  // namespace

std::vector<LogLine> Logs() {
  const std::lock_guard<std::mutex> guard(s_mutex);
  return s_logs;
}

std::vector<std::string> Messages() {
  std::vector<std::string> messages;
  for (const LogLine& log : Logs()) {
    messages.push_back(std::to_string(log.priority) + log.text.substr(log.text.find('#') + 1));
  }
  return messages;
}

std::vector<std::string> SystemLines() {
  const std::lock_guard<std::mutex> guard(s_mutex);
  return s_commands;
}

void ClearLogs() {
  const std::lock_guard<std::mutex> guard(s_mutex);
  s_logs.clear();
  s_commands.clear();
}

testing::AssertionResult Said(int priority, const char* function, const char* message, ...) {
  va_list arguments;
  va_start(arguments, message);
  std::string format = message, text = Render(message, arguments);
  va_end(arguments);
  if (function != nullptr) {
    const std::string colon = format.rfind(" : ", 0) == 0 ? "" : ": ";
    format = "%s %d" + colon + format;
    text = function + (" #" + colon) + text;
  }
  auto failure = testing::AssertionFailure();
  failure << "not logged: <" << priority << "> \"" << format << "\" \"" << text << "\"; logged:";
  for (const LogLine& log : Logs()) {
    if (log.priority == priority && log.format == format && log.text == text) {
      return testing::AssertionSuccess();
    }
    failure << "\n  <" << log.priority << "> \"" << log.format << "\" \"" << log.text << "\"";
  }
  return failure;
}

int CountLogged(const std::string& format) {
  int count = 0;
  for (const LogLine& log : Logs()) count += log.format == format ? 1 : 0;
  return count;
}

void ExpectAnnounced(const std::string& function, long tid) {
  EXPECT_SAID(LOG_DEBUG, function.c_str(), "TID [%ld]\n", tid);
  const std::string line = std::to_string(Logs().at(0).line + 1);
  EXPECT_EQ(
      "echo \"" + function + " " + line + ": TID [" + std::to_string(tid) + "]\n\" > /dev/kmsg",
      SystemLines().at(0));
}

extern "C" void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  LogLine log{priority, format, "", 0};
  if (log.format.rfind("%s %d: ", 0) == 0 || log.format.rfind("%s %d : ", 0) == 0) {
    const char* const function = va_arg(arguments, const char*);
    Dl_info object;  // whoever takes the place of syslog may keep the pointer
    EXPECT_NE(0, dladdr(function, &object)) << function << " is a copy";
    log.text = function + std::string(" #");
    log.line = va_arg(arguments, int);
    format += sizeof("%s %d") - 1;
  }
  log.text += Render(format, arguments);
  va_end(arguments);
  const std::lock_guard<std::mutex> guard(s_mutex);
  s_logs.push_back(log);
}

extern "C" int system(const char* command) {
  const std::lock_guard<std::mutex> guard(s_mutex);
  s_commands.emplace_back(command);
  return 0;
}

}  // namespace hutil_test
