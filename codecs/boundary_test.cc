#include "codecs/boundary.h"

#include <gtest/gtest.h>

namespace {

// RFC 2046's transport padding: tabs as well as spaces at the end of any
// delimiter line, taken only where asked for; a boundary that ends in a
// space keeps its own lines.
TEST(Boundary, TransportPadding) {
  const std::tuple<const char*, const char*, bool, bool, bool> cases[] = {
      // boundary, line, padding taken, matches, closes
      {"abc", "--abc--\t ", true, true, true},  {"abc", "--abc--\t ", false, false, false},
      {"abc", "--abc\t", true, true, false},    {"abc", "--abcd \t", true, false, false},
      {"abc ", "--abc ", true, true, false},
  };
  for (const auto& [boundary, line, padding, matches, closes] : cases) {
    bool closing = false;
    EXPECT_EQ(Smtp_boundary(boundary, padding).match_line(line, closing), matches) << line << padding;
    EXPECT_EQ(closing, closes) << line << padding;
  }
}

TEST(Boundary, MatchLine) {
  enum Want { no_match, match, match_closing };
  const struct {
    const char* name;
    const char* boundary;
    std::string line;
    Want want;
  } cases[] = {
      {"plain", "abc", "--abc", match},
      {"blanks behind the dashes", "abc", "--  abc", match},
      {"blanks at the end", "abc", "--abc  ", match},
      {"closing", "abc", "--abc--", match_closing},
      {"blanks before closing dashes", "abc", "--abc  --", match_closing},
      {"blanks behind closing dashes", "abc", "--abc--  ", match_closing},
      {"blanks on both sides of closing dashes", "abc", "--abc -- ", no_match},
      {"blank and one dash", "abc", "--abc -", no_match},
      {"a tab", "abc", "--abc\t", no_match},
      {"longer boundary", "abc", "--abcd", no_match},
      {"case counts", "abc", "--ABC", no_match},
      {"one dash in front", "abc", "-abc", no_match},
      // Strict: the line must be exact.
      {"strict: exact", "abc ", "--abc ", match},
      {"strict: exact closing", "abc ", "--abc --", match_closing},
      {"strict: without the space", "abc ", "--abc", no_match},
      {"strict: blank behind the dashes", "abc ", "-- abc ", no_match},
      {"empty: four dashes close", "", "----", match_closing},
      {"empty: dashes and blanks", "", "--  ", no_match},
      {"empty: blanks between dashes", "", "-- --", no_match},
      {"one byte", "a", "-- a ", match},
      {"one byte closing", "a", "--a --", match_closing},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    bool closing = false;
    const bool matched = Smtp_boundary(c.boundary).match_line(c.line, closing);
    EXPECT_EQ(!matched ? no_match : closing ? match_closing : match, c.want);
  }
}

// RFC 2046's prefix rule: a line that begins with "--" and the boundary is
// a delimiter whatever follows, and closes where "--" follows; a watch
// notes such lines that the exact rules refuse.
TEST(Boundary, PrefixRule) {
  const std::tuple<const char*, bool, bool, bool> cases[] = {
      // line, matches by the prefix rule, closes, noted by the watch
      {"--abc", true, false, false},  {"--abc--", true, true, false},   {"--abc junk", true, false, true},
      {"--abc---", true, true, true}, {"--abc -- ", true, false, true}, {"--abd", false, false, false},
      {"--ab", false, false, false},
  };
  for (const auto& [line, matches, closes, noted] : cases) {
    bool closing = false;
    EXPECT_EQ(Smtp_boundary("abc", false, true).match_line(line, closing), matches) << line;
    EXPECT_EQ(closing, closes) << line;
    Smtp_prefix_lines seen;
    Smtp_boundary watched("abc");
    watched.watch_prefix_lines(&seen);
    watched.match_line(line, closing);
    EXPECT_EQ(seen.any(), noted) << line;
  }
}

TEST(Boundary, ClosingFlagIsClearedOnlyByALineOfClosingLength) {
  const Smtp_boundary abc("abc");
  bool closing = true;
  EXPECT_TRUE(abc.match_line("--abc", closing));
  EXPECT_TRUE(closing);  // left alone
  EXPECT_FALSE(abc.match_line("--abcxy", closing));
  EXPECT_FALSE(closing);
}

}  // namespace
