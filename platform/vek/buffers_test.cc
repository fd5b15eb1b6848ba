#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "contracts/vek.h"

namespace {

std::string bytes_of(const Vek_buffer& buffer) {
  return std::string(reinterpret_cast<const char*>(buffer.data()), buffer.size());
}

TEST(SubBuffer, Edges) {
  std::string text = "0123456789";
  Vek_raw_memory_buffer raw(text.size(), text.data(), 0);
  Vek_sub_buffer middle(&raw, 2, 8);  // "234567"
  Vek_sub_buffer empty(&raw, 6, 4);
  struct Case {
    const char* name;
    const Vek_buffer* parent;
    uint64_t start, end;
    std::string want;
  } cases[] = {
      {"whole", &raw, 0, vek_to_end, "0123456789"},
      {"to the end", &raw, 7, vek_to_end, "789"},
      {"end beyond parent", &raw, 8, 100, "89"},
      {"empty", &raw, 4, 4, ""},
      {"end before start", &raw, 6, 4, ""},
      {"start beyond the end", &raw, 12, vek_to_end, ""},
      {"view: inside", &middle, 1, 3, "34"},
      {"view: end beyond the view", &middle, 4, 100, "67"},
      {"view: start beyond the view", &middle, 7, vek_to_end, ""},
      {"view: start near the top", &middle, vek_to_end - 1, vek_to_end, ""},
      {"view of an empty view", &empty, 0, vek_to_end, ""},
  };
  for (const auto& c : cases) {
    Vek_sub_buffer sub(c.parent, c.start, c.end);
    EXPECT_EQ(sub.size(), c.want.size()) << c.name;
    EXPECT_EQ(bytes_of(sub), c.want) << c.name;
  }
}

TEST(SubBuffer, DeepChainOfViews) {
  // As deep as nested message parts make it; each level drops the first byte.
  std::string long_text(5000, 'x');
  long_text += "end";
  Vek_raw_memory_buffer root(long_text.size(), long_text.data(), 0);
  std::vector<std::unique_ptr<Vek_sub_buffer>> chain;
  const Vek_buffer* parent = &root;
  for (int level = 0; level < 5000; ++level) {
    chain.push_back(std::make_unique<Vek_sub_buffer>(parent, 1, vek_to_end));
    parent = chain.back().get();
  }
  EXPECT_EQ(bytes_of(*parent), "end");
}

TEST(SubBuffer, ViewsFollowAGrowingParent) {
  Vek_memory_buffer parent;
  Vek_status status;
  parent.write_at(0, "abc", 3, status);
  Vek_sub_buffer outer(&parent, 1, vek_to_end);
  Vek_sub_buffer inner(&outer, 1, vek_to_end);
  EXPECT_EQ(bytes_of(outer), "bc");
  parent.write_at(3, "def", 3, status);
  EXPECT_EQ(bytes_of(outer), "bcdef");
  EXPECT_EQ(bytes_of(inner), "cdef");
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
