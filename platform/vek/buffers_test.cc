#include <gtest/gtest.h>

#include <string>

#include "contracts/vek.h"

namespace {

std::string bytes_of(const Vek_buffer& buffer) {
  return std::string(reinterpret_cast<const char*>(buffer.data()), buffer.size());
}

TEST(SubBuffer, Edges) {
  std::string text = "0123456789";
  Vek_raw_memory_buffer raw(text.size(), text.data(), 0);
  struct Case {
    const char* name;
    uint64_t start, end;
    std::string want;
  } cases[] = {
      {"whole", 0, vek_to_end, "0123456789"},
      {"middle", 2, 5, "234"},
      {"to the end", 7, vek_to_end, "789"},
      {"end beyond parent", 8, 100, "89"},
      {"empty", 4, 4, ""},
      {"end before start", 6, 4, ""},
      {"start at the end", 10, vek_to_end, ""},
      {"start beyond the end", 12, vek_to_end, ""},
  };
  for (const auto& c : cases) {
    Vek_sub_buffer sub(&raw, c.start, c.end);
    EXPECT_EQ(sub.size(), c.want.size()) << c.name;
    EXPECT_EQ(bytes_of(sub), c.want) << c.name;
  }
}

TEST(SubBuffer, FollowsAGrowingParent) {
  Vek_memory_buffer parent;
  Vek_status status;
  parent.write_at(0, "abc", 3, status);
  Vek_sub_buffer sub(&parent, 1, vek_to_end);
  EXPECT_EQ(bytes_of(sub), "bc");
  parent.write_at(3, "def", 3, status);
  EXPECT_EQ(bytes_of(sub), "bcdef");
}

TEST(MemoryBuffer, WritesFillGapsAndOverwrite) {
  Vek_page_buffer buffer(0, 128);
  Vek_status status;
  buffer.write_at(3, "xy", 2, status);
  EXPECT_TRUE(status.ok());
  EXPECT_EQ(bytes_of(buffer), std::string("\0\0\0xy", 5));
  buffer.write_at(0, "ab", 2, status);
  EXPECT_EQ(bytes_of(buffer), std::string("ab\0xy", 5));
}

TEST(RawMemoryBuffer, TakesOverItsBlockWithMethodTwo) {
  auto* block = new uint8_t[4]{'a', 'b', 'c', 'd'};
  Vek_raw_memory_buffer owned(4, block, 2);  // freed by the buffer; the sanitizer build checks
  Vek_status status;
  owned.write_at(1, "X", 1, status);
  EXPECT_TRUE(status.ok());
  EXPECT_EQ(bytes_of(owned), "aXcd");
  owned.write_at(3, "YZ", 2, status);  // cannot grow
  EXPECT_EQ(status.value(), vek_not_writable);
}

}  // namespace
