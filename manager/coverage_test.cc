#include "manager/coverage.h"

#include <gtest/gtest.h>

namespace {

// The gaps between covered ranges, less their white space; the body's
// start bounds the first.
TEST(Coverage, UnexaminedTextIsTheGapsLessWhiteSpace) {
  const std::string data = "HEAD\r\n\r\n pre \r\n--b\r\npart\r\n--b--\r\n \t\r\nepi\r\n";
  const uint64_t body = 8;
  const struct {
    const char* name;
    std::vector<std::pair<uint64_t, uint64_t>> covers;
    std::vector<Smtp_range> want;
  } cases[] = {
      {"nothing covered: the body less the blanks at its ends", {}, {{9, 31}}},
      {"the preamble and the epilogue left", {{15, 34}}, {{9, 3}, {37, 3}}},
      {"nothing but white space between covers", {{8, 13}, {15, 20}, {20, 38}}, {{38, 2}}},
      {"all", {{8, 42}}, {}},
      {"a cover that starts inside the covered part extends it", {{8, 20}, {10, 42}}, {}},
      {"a cover behind the end stops there", {{8, 1000}}, {}},
  };
  Vek_raw_memory_buffer buffer(data.size(), data.data(), 0);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Smtp_coverage coverage;
    coverage.start(&buffer, body);
    for (const auto& [start, end] : c.covers) coverage.cover(start, end);
    EXPECT_EQ(coverage.unexamined(), c.want);
  }
}

TEST(Coverage, TextOfThePropertyReadsBack) {
  const std::vector<Smtp_range> ranges = {{0, 12}, {4096, 3}};
  EXPECT_EQ(unexamined_text(ranges), "0+12,4096+3");
  EXPECT_EQ(parse_unexamined_text("0+12,4096+3"), ranges);
  EXPECT_EQ(parse_unexamined_text("0+12,x+3"), std::vector<Smtp_range>({{0, 12}}));
  EXPECT_TRUE(parse_unexamined_text("").empty());
}

}  // namespace
