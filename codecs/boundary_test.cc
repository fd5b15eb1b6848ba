#include "codecs/boundary.h"

#include <gtest/gtest.h>

namespace {

enum Want { no_match, match, match_closing };

struct Case {
  const char* name;
  std::string line;
  Want want;
};

void check(const Smtp_boundary& boundary, const std::vector<Case>& cases) {
  for (const auto& c : cases) {
    bool closing = false;
    const bool matched = boundary.match_line(c.line, closing);
    const Want got = !matched ? no_match : closing ? match_closing : match;
    EXPECT_EQ(got, c.want) << c.name << ": \"" << c.line << "\"";
  }
}

TEST(Boundary, Tolerant) {
  const Smtp_boundary abc("abc");
  EXPECT_TRUE(abc.tolerant());
  check(abc, {
                 {"plain", "--abc", match},
                 {"blanks behind the dashes", "--  abc", match},
                 {"blanks at the end", "--abc  ", match},
                 {"blanks at both", "-- abc ", match},
                 {"closing", "--abc--", match_closing},
                 {"blanks before closing dashes", "--abc  --", match_closing},
                 {"blanks behind closing dashes", "--abc--  ", match_closing},
                 {"blanks on both sides of closing dashes", "--abc -- ", no_match},
                 {"blank and one dash", "--abc -", no_match},
                 {"two other bytes behind", "--abcxy", no_match},
                 {"a tab", "--abc\t", no_match},
                 {"longer boundary", "--abcd", no_match},
                 {"case counts", "--ABC", no_match},
                 {"dashes alone", "--", no_match},
                 {"one dash in front", "-abc", no_match},
                 {"text behind", "--abc and more", no_match},
             });
}

TEST(Boundary, StrictWhenTheBoundaryHasBlanksAtItsEnds) {
  const Smtp_boundary trailing("abc ");
  EXPECT_FALSE(trailing.tolerant());
  check(trailing, {
                      {"exact", "--abc ", match},
                      {"exact closing", "--abc --", match_closing},
                      {"without the space", "--abc", no_match},
                      {"blank behind the dashes", "-- abc ", no_match},
                  });
  EXPECT_FALSE(Smtp_boundary(" abc").tolerant());
}

TEST(Boundary, ShortBoundaries) {
  // One byte is judged by that byte; an empty boundary is strict.
  EXPECT_TRUE(Smtp_boundary("a").tolerant());
  EXPECT_FALSE(Smtp_boundary(" ").tolerant());
  const Smtp_boundary empty("");
  EXPECT_FALSE(empty.tolerant());
  check(empty, {
                   {"four dashes close", "----", match_closing},
                   {"dashes and blanks", "--  ", no_match},
                   {"blanks between dashes", "-- --", no_match},
               });
  check(Smtp_boundary("a"), {
                                {"one byte", "-- a ", match},
                                {"closing", "--a --", match_closing},
                            });
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
