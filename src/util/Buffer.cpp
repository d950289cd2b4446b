#include "util/Buffer.h"

#include <algorithm>
#include <limits>

namespace hvn {
namespace util {

Buffer::Buffer() : length_(0), head_(0) {}

Buffer::Buffer(unsigned int size) : storage_(size, '\0'), length_(0), head_(0) {}

Buffer::Buffer(const Buffer& other) = default;

Buffer& Buffer::operator=(const Buffer& other) = default;

Buffer::~Buffer() = default;

bool Buffer::Copy(unsigned char* data, unsigned int len) {
  if (len == 0) return true;
  const unsigned int used = length_ + head_;
  constexpr size_t kMost = std::numeric_limits<unsigned int>::max();
  if (data == nullptr || len > std::min(kMost, storage_.max_size()) - used) return false;
  // Overwrites the room that is there and grows by what is missing, in one step that also copes
  // with `data` pointing into the storage.
  storage_.replace(used, len, reinterpret_cast<const char*>(data), len);
  length_ += len;
  return true;
}

unsigned char* Buffer::data() { return reinterpret_cast<unsigned char*>(&storage_[head_]); }

const unsigned char* Buffer::data() const {
  return reinterpret_cast<const unsigned char*>(&storage_[head_]);
}

unsigned int Buffer::length() const { return length_; }

unsigned int Buffer::capacity() const { return static_cast<unsigned int>(storage_.size()); }

unsigned int Buffer::size() const { return length_ - head_; }

void Buffer::Clear() {
  std::string().swap(storage_);  // clear() would keep the memory
  length_ = 0;
}

}  // namespace util
}  // namespace hvn
