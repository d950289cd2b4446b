#include "util/internal/Outbox.h"

#include <algorithm>

namespace hvn {
namespace util {

void Outbox::Add(std::string_view answer, int64_t until) {
  if (answer.empty()) return;
  bytes_.append(answer);
  answers_.push_back({answer.size(), until});
}

void Outbox::Take(size_t count) {
  taken_ += count;
  while (!answers_.empty() && count >= answers_.front().left) {
    count -= answers_.front().left;
    answers_.pop_front();
  }
  if (answers_.empty()) {
    std::string().swap(bytes_);
    taken_ = 0;
    return;
  }
  answers_.front().left -= count;
  // Moved to the front only now and then: each byte is moved once at the most, on average.
  if (taken_ > bytes_.size() / 2) {
    bytes_.erase(0, taken_);
    taken_ = 0;
  }
}

}  // namespace util
}  // namespace hvn
