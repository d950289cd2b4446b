#include <climits>

#include "support/Kit.h"
#include "util/Buffer.h"

using hvn::util::Buffer;

unsigned char s_digits[] = "0123456789";

std::string Room(const Buffer& buffer) {
  return {reinterpret_cast<const char*>(buffer.data()), buffer.capacity()};
}

TEST(Buffer, AppendsIntoTheZerosThatItWasMadeWith) {
  Buffer buffer(16);
  EXPECT_TRUE(buffer.Copy(s_digits, 10));
  EXPECT_EQ(10u, buffer.size());
  EXPECT_EQ(std::string("0123456789\0\0\0\0\0\0", 16), Room(buffer));
}

TEST(Buffer, GrowsToTheExactNeedAlsoByItsOwnBytes) {
  Buffer buffer(10);
  buffer.Copy(s_digits, 8);
  EXPECT_TRUE(buffer.Copy(buffer.data() + 2, 5));
  EXPECT_EQ("0123456723456", Room(buffer));
}

TEST(Buffer, RefusesBytesFromNowhereAndMoreThanItCanCount) {
  Buffer buffer;
  buffer.Copy(s_digits, 6);
  EXPECT_FALSE(buffer.Copy(nullptr, 1));
  EXPECT_FALSE(buffer.Copy(s_digits, UINT_MAX - 5));
  EXPECT_TRUE(buffer.Copy(nullptr, 0));
  EXPECT_EQ("012345", Room(buffer));
}

TEST(Buffer, ClearGivesTheMemoryBack) {
  Buffer buffer(4096);
  buffer.Copy(s_digits, 3);
  buffer.Clear();
  EXPECT_EQ("", Room(buffer));
  EXPECT_EQ(0u, buffer.length());
}
