#include "gatewayd/Lines.h"

#include <algorithm>

namespace {

std::string Printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, '.');
  return text;
}

}  // namespace

std::string Reply::Text() const {
  if (!error.empty()) return "error: " + Printable(error) + "\n";
  std::string text = "ok " + std::to_string(lines.size()) + "\n";
  for (const std::string& line : lines) text += Printable(line) + "\n";
  return text;
}

LineBuffer::State LineBuffer::Take(std::string& line) {
  const size_t end = input_.find('\n');
  if (end == std::string::npos) {
    dropping_ = dropping_ || input_.size() > kMaxLine;
    if (dropping_) input_.clear();
    return State::kNone;
  }
  line = input_.substr(0, end);
  input_.erase(0, end + 1);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  const bool too_long = dropping_ || line.size() > kMaxLine;
  dropping_ = false;
  return too_long ? State::kTooLong : State::kLine;
}
