#include <climits>

#include "support/Kit.h"
#include "util/Buffer.h"

TEST(Buffer, AppendsIntoItsRoomAndGrowsToTheExactNeed) {
  unsigned char bytes[] = "0123456789\0abcde";
  hvn::util::Buffer buffer(16);
  const auto text = [](const auto& b) { return std::string(b.data(), b.data() + b.size()); };
  const unsigned char* const room = buffer.data();
  ASSERT_TRUE(buffer.Copy(bytes, 10));
  EXPECT_TRUE(room == buffer.data() && buffer.capacity() == 16) << "no reallocation";
  EXPECT_EQ(std::string(6, '\0'), std::string(room + 10, room + 16));
  ASSERT_TRUE(buffer.Copy(bytes + 7, 9));
  EXPECT_EQ(std::string("0123456789789\0abcde", 19), text(buffer));
  EXPECT_EQ(19u, buffer.capacity());
  const hvn::util::Buffer copy(buffer);
  buffer.Clear();
  EXPECT_EQ(0u, buffer.length() + buffer.size() + buffer.capacity());
  ASSERT_TRUE(buffer.Copy(bytes, 3) && buffer.Copy(buffer.data(), 3) && buffer.Copy(nullptr, 0));
  EXPECT_FALSE(buffer.Copy(nullptr, 1) || buffer.Copy(bytes, UINT_MAX - 5));
  EXPECT_EQ("012012", text(buffer));
  EXPECT_EQ(19u, copy.length());
}
