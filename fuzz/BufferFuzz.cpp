// Buffer against a vector. The first byte is the room to begin with, each following pair of bytes a
// step: what to do, and with how many of the bytes behind the pair.
#include <algorithm>
#include <climits>

#include "Harness.h"
#include "util/Buffer.h"

using hvn::util::Buffer;

namespace {

struct Pair {
  explicit Pair(unsigned int room) : buffer(room), capacity(room) {}

  void Append(const std::uint8_t* from, unsigned int count) {
    // Read before Copy, which may move or overwrite what `from` points to.
    const std::vector<std::uint8_t> bytes(from, from + count);
    REQUIRE(buffer.Copy(const_cast<std::uint8_t*>(from), count));
    model.insert(model.end(), bytes.begin(), bytes.end());
    capacity = std::max(capacity, model.size());
  }
  void AppendOwn(unsigned int offset, unsigned int count) {
    if (model.size() > 4096) return;  // doubling soon fills the memory
    offset = std::min(offset, buffer.capacity());
    Append(buffer.data() + offset, std::min(count, buffer.capacity() - offset));
  }
  void RefuseWhatCannotBe() {
    REQUIRE(!buffer.Copy(nullptr, 1));
    if (!model.empty()) REQUIRE(!buffer.Copy(buffer.data(), UINT_MAX - buffer.length() + 1));
    REQUIRE(buffer.Copy(nullptr, 0));
  }
  void Clear() {
    buffer.Clear();
    model.clear();
    capacity = 0;
  }
  void Compare() const {
    const Buffer& read = buffer;
    REQUIRE(read.length() == model.size() && read.size() == model.size());
    REQUIRE(read.capacity() == capacity);
    REQUIRE(std::equal(model.begin(), model.end(), read.data()));
    const auto is_zero = [](std::uint8_t byte) { return byte == 0; };
    REQUIRE(std::all_of(read.data() + read.length(), read.data() + read.capacity(), is_zero));
  }

  Buffer buffer;
  std::vector<std::uint8_t> model;
  std::size_t capacity;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::uint8_t* const end = data + size;
  Pair pair(*data++);
  Pair other(0);
  for (int steps = 0; end - data >= 2 && steps < 64; ++steps) {
    const int step = *data++ % 8;
    const unsigned int wanted = *data++;
    const auto count = std::min(wanted, static_cast<unsigned int>(end - data));
    if (step == 0) pair.Clear();
    if (step == 1) pair.AppendOwn(count, wanted);
    if (step == 2) pair.AppendOwn(0, pair.buffer.length());
    if (step == 3) pair.RefuseWhatCannotBe();
    if (step == 4) std::swap(pair, other);
    if (step == 5) other = pair;
    if (step == 6) pair = Pair(pair);
    if (step == 7) pair.Append(data, count);
    if (step == 7) data += count;
    pair.Compare();
    other.Compare();
  }
  return 0;
}
