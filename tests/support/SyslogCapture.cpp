#include "support/SyslogCapture.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

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
  const std::string colon = std::string(message).rfind(" : ", 0) == 0 ? "" : ": ";
  return Logged(priority, "%s %d" + colon + message, function + (" #" + colon) + text);
}

int CountLogged(const std::string& format) {
  int count = 0;
  for (const LogLine& log : Logs()) count += log.format == format ? 1 : 0;
  return count;
}

extern "C" void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  LogLine log{priority, format, "", 0};
  if (log.format.rfind("%s %d: ", 0) == 0 || log.format.rfind("%s %d : ", 0) == 0) {
    log.text = va_arg(arguments, const char*) + std::string(" #");
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
