#ifndef HUTIL_UTIL_INTERNAL_OUTBOX_H_
#define HUTIL_UTIL_INTERNAL_OUTBOX_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

namespace hvn {
namespace util {

/// Bytes that a peer has not taken yet, answer behind answer, each with a time by which all of it
/// has to be taken: a peer that takes some now and then gains nothing.
class Outbox {
 public:
  static constexpr int64_t kNever = INT64_MAX;

  bool empty() const { return answers_.empty(); }
  /// What is still to be taken; valid until the next change.
  std::string_view bytes() const { return {bytes_.data() + taken_, bytes_.size() - taken_}; }
  /// When the oldest answer has to be taken, or kNever.
  int64_t until() const { return answers_.empty() ? kNever : answers_.front().until; }

  void Add(std::string_view answer, int64_t until);
  /// The first `count` bytes are.
  void Take(size_t count);

 private:
  struct Answer {
    size_t left;
    int64_t until;
  };

  std::string bytes_;
  size_t taken_ = 0;  ///< Bytes at the front that are no longer needed.
  std::deque<Answer> answers_;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_OUTBOX_H_
