#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "contracts/vek.h"

namespace {

using Pieces = std::vector<std::pair<std::string, uint32_t>>;  // text and status of each readln

// Reads `input` line by line until the end of the stream.
Pieces read_all(const std::string& input, uint32_t limit, Vek_eol eol) {
  Vek_raw_memory_buffer buffer(input.size(), input.data(), 0);
  Vek_status status;
  Vek_buffered_istream in(&buffer, true, status, eol);
  Pieces pieces;
  std::string line;
  while (pieces.size() < 100 && (pieces.empty() || pieces.back().second != vek_end_of_stream)) {
    in.readln(limit, line, status);
    pieces.emplace_back(line, status.value());
  }
  return pieces;
}

constexpr uint32_t ok = vek_ok, eos = vek_end_of_stream, tl = vek_line_too_long;

TEST(Readln, Table) {
  const struct {
    const char* name;
    std::string in;
    uint32_t limit;
    Vek_eol eol;
    Pieces want;
  } cases[] = {
      // Mode 0: LF ends a line, a CR in front of it goes.
      {"lf", "ab\ncd\n", 10, vek_eol_lf, {{"ab", ok}, {"cd", ok}, {"", eos}}},
      {"crlf in lf mode", "ab\r\ncd\r\n", 10, vek_eol_lf, {{"ab", ok}, {"cd", ok}, {"", eos}}},
      {"last line without end", "ab\ncd", 10, vek_eol_lf, {{"ab", ok}, {"cd", eos}}},
      {"lone cr is text", "a\rb\n", 10, vek_eol_lf, {{"a\rb", ok}, {"", eos}}},
      // Mode 3: only CR LF ends a line.
      {"crlf", "ab\r\ncd\r\n", 10, vek_eol_crlf, {{"ab", ok}, {"cd", ok}, {"", eos}}},
      {"bare lf is text", "ab\ncd\r\n", 10, vek_eol_crlf, {{"ab\ncd", ok}, {"", eos}}},
      {"cr at the end", "ab\r", 10, vek_eol_crlf, {{"ab\r", eos}}},
      // The limit: below, at and above.
      {"below limit", "abcd\r\n", 5, vek_eol_crlf, {{"abcd", ok}, {"", eos}}},
      {"at limit", "abcde\r\nf\r\n", 5, vek_eol_crlf, {{"abcde", tl}, {"", ok}, {"f", ok}, {"", eos}}},
      {"above limit",
       "abcdefg\r\nh\r\n",
       3,
       vek_eol_crlf,
       {{"abc", tl}, {"def", tl}, {"g", ok}, {"h", ok}, {"", eos}}},
      {"last line above limit", "abcde", 3, vek_eol_lf, {{"abc", tl}, {"de", eos}}},
      {"cr lf split by limit", "abc\r\n", 3, vek_eol_crlf, {{"abc", tl}, {"", ok}, {"", eos}}},
  };
  for (const auto& c : cases) EXPECT_EQ(read_all(c.in, c.limit, c.eol), c.want) << c.name;
}

TEST(Stream, ReadAndSeekAcrossTheEnd) {
  std::string input = "0123456789";
  Vek_raw_memory_buffer buffer(input.size(), input.data(), 0);
  Vek_status status;
  Vek_buffered_istream in(&buffer, true, status, vek_eol_crlf);
  char target[16] = {};
  EXPECT_EQ(in.read(4, target, status), 4u);
  EXPECT_TRUE(status.ok());
  EXPECT_EQ(in.read_at(8, 4, target, status), 2u);  // does not move
  EXPECT_EQ(status.value(), vek_end_of_stream);
  EXPECT_EQ(in.tell(), 4u);
  EXPECT_EQ(in.read(16, target, status), 6u);
  EXPECT_EQ(status.value(), vek_end_of_stream);
  EXPECT_EQ(std::string(target, 6), "456789");

  in.seek(2, -3, status);  // from the end
  EXPECT_TRUE(status.ok());
  EXPECT_EQ(in.tell(), 7u);
  in.seek(1, -10, status);  // before the start: refused, position kept
  EXPECT_EQ(status.value(), vek_bad_seek);
  EXPECT_EQ(in.tell(), 7u);
  in.seek(100);  // beyond the end is allowed, and reads nothing
  EXPECT_EQ(in.read(1, target, status), 0u);
  EXPECT_EQ(status.value(), vek_end_of_stream);
}

}  // namespace
