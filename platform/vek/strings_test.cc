#include <gtest/gtest.h>

#include <string>

#include "contracts/vek.h"

namespace {

TEST(Strings, WideningAndNarrowing) {
  EXPECT_EQ(vek_stow("a\xE9"), (Vek_wstring{u'a', u'\xE9'}));
  EXPECT_EQ(vek_wtos(u"a\u00E9\u4E2D"), "a\xE9?");
}

// Names are compared eight bytes at a time: every pair of bytes, at a
// position inside a word and in the tail behind it, must compare as one
// byte at a time does (only A-Z and a-z meet).
TEST(Strings, EqualNoCaseEveryBytePair) {
  auto lower = [](unsigned c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; };
  for (unsigned x = 0; x < 256; ++x) {
    for (unsigned y = 0; y < 256; ++y) {
      const bool want = lower(x) == lower(y);
      for (size_t at : {size_t{3}, size_t{9}}) {
        std::string a = "Content-Ty", b = "cONTENT-tY";
        a[at] = static_cast<char>(x);
        b[at] = static_cast<char>(y);
        ASSERT_EQ(vek_string_equal_nc(a, b), want) << x << " " << y << " at " << at;
      }
    }
  }
  EXPECT_FALSE(vek_string_equal_nc("Content-Type", "Content-Typ"));
}

TEST(Strings, LowerFoldsOnlyAsciiLetters) {
  std::string all;
  for (unsigned c = 0; c < 256; ++c) all.push_back(static_cast<char>(c));
  std::string lowered = all;
  vek_lower(lowered);
  for (unsigned c = 0; c < 256; ++c)
    ASSERT_EQ(static_cast<unsigned char>(lowered[c]), c >= 'A' && c <= 'Z' ? c + 32 : c) << c;
}

// Runs without a backslash are copied whole; a backslash takes the byte
// behind it, except the last, which stays.
TEST(Strings, UnquoteResolvesQuotedPairs) {
  const std::pair<std::string, std::string> cases[] = {
      {"\"a b\"", "a b"}, {"\"a\\\"b\\\\c\"", "a\"b\\c"}, {"ab\\", "ab\\"}, {"\"", "\""}, {"", ""}};
  for (const auto& [in, want] : cases) EXPECT_EQ(vek_unquote(in), want) << in;
}

}  // namespace
