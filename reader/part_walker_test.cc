#include "reader/part_walker.h"

#include <gtest/gtest.h>

#include "reader/test_support.h"

namespace {

const Smtp_boundary abc("abc");
const std::string x2048(2048, 'x'), x5000(5000, 'x');

// A stream over `text` and an output, both with CR LF line ends unless told.
struct Walk {
  explicit Walk(std::string_view text, uint64_t start = 0, Vek_eol in_eol = vek_eol_crlf,
                Vek_eol out_eol = vek_eol_crlf)
      : input(text.size(), text.data(), 0), in(&input, true, status, in_eol), out(&output, status, out_eol) {
    in.seek(start);
  }
  std::string written() const {
    return std::string(reinterpret_cast<const char*>(output.data()), output.size());
  }

  Vek_status status;
  Vek_raw_memory_buffer input;
  Vek_buffered_istream in;
  Vek_memory_buffer output;
  Vek_ostream out;
};

// A row's result is whether a delimiter was found, whether it was the
// closing one or the data ended ("end"), and where the stream was left.
// Only the first piece of a line longer than a piece can be a delimiter.
TEST(PartWalker, FindLeavesTheStreamBehindTheDelimiter) {
  const Row rows[] = {
      {"delimiter on the first line", "--abc\r\ntext\r\n", "found @7"},
      {"closing delimiter without a line end", "a\r\n--abcd\r\n--\r\n--abc--", "found end @22"},
      {"no delimiter", "a\r\n--abc-\r\n", "none end @11"},
      {"empty data", "", "none end @0"},
      {"delimiter 2048 bytes into a line", x2048 + "--abc\r\n--abc--\r\n", "found end @2064"},
      {"first piece of a long line", "--abc" + std::string(3000, ' ') + "\r\n", "none end @3007"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Walk walk(row.in);
    bool end = false, found = true;
    find_part_delimiter(walk.in, abc, end, found, walk.status);
    EXPECT_EQ(std::tuple(std::string(found ? "found" : "none") + (end ? " end" : "") + at(walk.in.tell()),
                         walk.status.value()),
              std::tuple(row.want, row.want_status));
  }
}

TEST(PartWalker, SkipLeavesTheStreamInFrontOfTheLineBreak) {
  struct Case {
    const char* name;
    std::string in;
    uint64_t start, position;
    Vek_eol eol = vek_eol_crlf;
  };
  const Case cases[] = {
      {"lines of a part", "a\r\n-b\r\n--abc\r\n", 0, 5},
      // Only a line start can hold a delimiter; what starts a line depends
      // on the stream's line ends.
      {"bare LF is no line break in CR LF mode", "a\n--abc\r\n--abc\r\n", 0, 7},
      {"bare LF ends a line in LF mode", "a\n--abc\n", 0, 0, vek_eol_lf},
      {"a line break split by the start", "\r\n--abc\r\n", 1, 9},
      {"empty part", "--abc\r\n--abc--\r\n", 7, 5},
      {"delimiter at the start goes no further back", "--abc\r\n", 0, 0},
      {"no delimiter: the end", "a\r\nb", 0, 4},
      {"delimiter 2048 bytes into a line", x2048 + "--abc\r\n--abc\r\n", 0, 2048 + 5},
      {"first piece of a long line is classified", "a\r\n--abc" + std::string(3000, ' '), 0, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Walk walk(c.in, c.start, c.eol);
    skip_to_part_delimiter(walk.in, abc, walk.status);
    EXPECT_EQ(std::tuple(walk.in.tell(), walk.status.value()), std::tuple(c.position, vek_ok));
  }
}

void copy_remaining(Vek_istream& in, Vek_ostream& out, const Smtp_boundary&, Vek_status& status) {
  copy_remaining_lines(in, out, status);
}

// The line break in front of a delimiter belongs to it, not to the part;
// all that is left of a body is copied with every line ended. A row's
// result is what was written and where the stream was left.
TEST(PartWalker, Copy) {
  struct Case {
    void (*copy)(Vek_istream&, Vek_ostream&, const Smtp_boundary&, Vek_status&);
    Row row;
  };
  const auto part = copy_to_part_delimiter;
  const Case cases[] = {
      {part, {"lines of a part", "a\r\n--b\r\n--abc\r\nz", "a\r\n--b @8"}},
      {part, {"empty last line", "a\r\n\r\n--abc--", "a\r\n @5"}},
      {part, {"delimiter on the first line", "--abc\r\na", " @0"}},
      {part, {"no delimiter, no last line end", "a\r\nb", "a\r\nb\r\n @4"}},
      {part,
       {"over-long line before a delimiter", "a\r\n" + x5000 + "\r\n--abc\r\n", "a\r\n" + x5000 + " @5005"}},
      {part, {"over-long last line", x5000, x5000 + "\r\n @5000"}},
      {part, {"last line of exactly one piece", x2048, x2048 + "\r\n @2048"}},
      {part, {"empty data", "", " @0"}},
      {copy_remaining, {"remaining: last line without line end", "--abc\r\nb", "--abc\r\nb\r\n @8"}},
      {copy_remaining, {"remaining: over-long line", x5000 + "\r\nz", x5000 + "\r\nz\r\n @5003"}},
  };
  for (const auto& [copy, row] : cases) {
    SCOPED_TRACE(row.name);
    Walk walk(row.in);
    copy(walk.in, walk.out, abc, walk.status);
    EXPECT_EQ(std::tuple(walk.written() + at(walk.in.tell()), walk.status.value()),
              std::tuple(row.want, row.want_status));
  }
}

TEST(PartWalker, CopyWritesTheOutputsLineEnds) {
  // Lines are copied in runs where the input's line ends are the output's;
  // elsewhere each line gets the output's line end.
  const std::string in = "a\nb\r\nc\n\n--abc\n";
  Walk lf(in, 0, vek_eol_lf, vek_eol_lf), crlf(in, 0, vek_eol_lf, vek_eol_crlf);
  copy_to_part_delimiter(lf.in, lf.out, abc, lf.status);
  copy_to_part_delimiter(crlf.in, crlf.out, abc, crlf.status);
  EXPECT_EQ(lf.written(), "a\nb\nc\n");
  EXPECT_EQ(crlf.written(), "a\r\nb\r\nc\r\n");
  EXPECT_EQ(crlf.in.tell(), 8u);
}

TEST(PartWalker, AFailedWriteEndsACopy) {
  Vek_status status;
  const std::string text = "a\r\nb\r\n--abc\r\n";
  char block[4];
  Vek_raw_memory_buffer input(text.size(), text.data(), 0), readonly(sizeof block, block, 0);
  Vek_buffered_istream in(&input, true, status, vek_eol_crlf);
  Vek_ostream out(&readonly, status, vek_eol_crlf);
  copy_to_part_delimiter(in, out, abc, status);
  EXPECT_FALSE(status.ok());
  EXPECT_EQ(in.tell(), 6u);  // ended at the write of the first line
  in.seek(0);
  copy_remaining_lines(in, out, status);
  EXPECT_FALSE(status.ok());
}

}  // namespace
