#include "support/SyslogCapture.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "support/Kit.h"

namespace hutil_test {
namespace {

std::mutex s_mutex;
// Never destroyed: threads may log while the process exits.
auto& s_logs = *new std::vector<LogLine>;
auto& s_commands = *new std::vector<std::string>;

std::string Render(const char* format, va_list arguments) {
  char* text = nullptr;
  const int length = vasprintf(&text, format, arguments);
  std::string rendered(text, length < 0 ? 0 : static_cast<std::size_t>(length));
  free(text);
  return rendered;
}

void Record(int priority, const char* format, va_list arguments) {
  const int saved_errno = errno;  // the caller's, which %m reads
  LogLine log{priority, format, "", 0};
  if (log.format.rfind("%s %d: ", 0) == 0 || log.format.rfind("%s %d : ", 0) == 0) {
    log.text = va_arg(arguments, const char*);
    log.text += " #";
    log.line = va_arg(arguments, int);
    format += sizeof("%s %d") - 1;
  }
  errno = saved_errno;
  log.text += Render(format, arguments);
  const std::lock_guard<std::mutex> guard(s_mutex);
  s_logs.push_back(std::move(log));
  errno = saved_errno;
}

}  // namespace

std::vector<LogLine> Logs() {
  const std::lock_guard<std::mutex> guard(s_mutex);
  return s_logs;
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

testing::AssertionResult Logged(int priority, const std::string& format, const std::string& text) {
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

testing::AssertionResult Said(int priority, const char* function, const char* message, ...) {
  va_list arguments;
  va_start(arguments, message);
  const std::string text = Render(message, arguments);
  va_end(arguments);
  if (function == nullptr) return Logged(priority, message, text);
  const std::string colon = message[0] == ' ' ? "" : ": ";
  return Logged(priority, "%s %d" + colon + message, function + (" #" + colon) + text);
}

int CountLogged(const std::string& format) {
  const std::vector<LogLine> logs = Logs();
  const auto same = [&format](const LogLine& log) { return log.format == format; };
  return static_cast<int>(std::count_if(logs.begin(), logs.end(), same));
}

bool WaitForLog(const std::string& format, int milliseconds) {
  return WaitFor([&format] { return CountLogged(format) > 0; }, milliseconds);
}

extern "C" void vsyslog(int priority, const char* format, va_list arguments) {
  Record(priority, format, arguments);
}

extern "C" void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Record(priority, format, arguments);
  va_end(arguments);
}

extern "C" int system(const char* command) {
  const std::lock_guard<std::mutex> guard(s_mutex);
  s_commands.emplace_back(command);
  return 0;
}

}  // namespace hutil_test
