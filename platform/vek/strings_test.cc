#include <gtest/gtest.h>

#include "contracts/vek.h"

namespace {

TEST(Strings, WideningAndNarrowing) {
  EXPECT_EQ(vek_stow("a\xE9"), (Vek_wstring{u'a', u'\xE9'}));
  EXPECT_EQ(vek_wtos(u"a\u00E9\u4E2D"), "a\xE9?");
}

TEST(Strings, CaseTrimAndBlanks) {
  std::string s = "Content-Type\xC4";
  vek_upper(s);
  EXPECT_EQ(s, "CONTENT-TYPE\xC4");
  vek_lower(s);
  EXPECT_EQ(s, "content-type\xC4");
  std::string t = " \t a b \r\n";
  vek_trim(t);
  EXPECT_EQ(t, "a b");
  std::string blank = " \t ";
  vek_trim(blank);
  EXPECT_EQ(blank, "");
  EXPECT_TRUE(vek_string_equal_nc("MIME-Version", "mime-version"));
  EXPECT_FALSE(vek_string_equal_nc("MIME-Version", "mime-versio"));
  EXPECT_TRUE(vek_string_equal_nc(u"UNICODE", u"unicode"));
  EXPECT_TRUE(vek_is_blank(""));
  EXPECT_TRUE(vek_is_blank(" \t\r"));
  EXPECT_FALSE(vek_is_blank(" x"));
}

TEST(Strings, NumbersQuotesAndPaths) {
  EXPECT_TRUE(vek_is_number(u"0123"));
  EXPECT_FALSE(vek_is_number(u""));
  EXPECT_FALSE(vek_is_number(u"-1"));
  EXPECT_EQ(vek_unquote("\"a \\\"b\\\\\""), "a \"b\\");
  EXPECT_EQ(vek_unquote("plain"), "plain");
  EXPECT_EQ(vek_itow(-1), u"-1");
  EXPECT_EQ(Vek_path(u"C:\\dir.x\\smime.P7M").extension(), u"P7M");
  EXPECT_EQ(Vek_path(u"dir.x/noext").extension(), u"");
  EXPECT_EQ(Vek_path(u"a.tar.gz").extension(), u"gz");
}

}  // namespace
