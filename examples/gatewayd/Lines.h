#ifndef EXAMPLES_GATEWAYD_LINES_H_
#define EXAMPLES_GATEWAYD_LINES_H_

#include <string>
#include <vector>

/// What a command answers: lines, or the reason why there are none.
struct Reply {
  static Reply Lines(std::vector<std::string> lines) { return {std::move(lines), "", false}; }
  static Reply Line(std::string line) { return Lines({std::move(line)}); }
  static Reply Error(std::string reason) { return {{}, std::move(reason), false}; }

  /// "ok N" and N lines, or "error: REASON". Whatever a stranger may have put into a host name or
  /// a web page, only printable bytes leave here, so that a line stays a line.
  std::string Text() const;

  std::vector<std::string> lines;
  std::string error;
  bool close;  ///< The connection ends with this answer.
};

/// Puts the lines of a stream together again: several arrive in one read, or one in several.
class LineBuffer {
 public:
  enum class State { kNone, kLine, kTooLong };

  void Add(const char* data, size_t size) { input_.append(data, size); }
  /// The next complete line, without its "\n" or "\r\n". kTooLong stands for one that was dropped.
  State Take(std::string& line);
  /// More than a client may send ahead of its answers.
  bool full() const { return input_.size() > kMaxAhead; }

 private:
  static constexpr size_t kMaxLine = 1024;
  static constexpr size_t kMaxAhead = 65536;

  std::string input_;
  bool dropping_ = false;
};

#endif  // EXAMPLES_GATEWAYD_LINES_H_
