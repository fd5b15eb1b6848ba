#include "contracts/mib.h"

#include <gtest/gtest.h>

namespace {

Vek_wstring convert(std::u16string_view name, std::string_view bytes) {
  Vek_status status;
  Mib_charset charset = mib_display_name(name, status);
  EXPECT_TRUE(status.ok()) << vek_wtos(name);
  Vek_wstring text = u"stale";
  EXPECT_TRUE(mib_charset_to_unicode(charset, bytes, text, status));
  return text;
}

TEST(Mib, ResolvesNamesAndAliases) {
  Vek_status status;
  // Names of real mail that the conversions below do not use.
  for (auto name : {u"UTF-8", u"ISO-8859-15", u"windows-1251", u"gbk", u"gb18030", u"big5", u"shift_jis",
                    u"euc-jp", u"euc-kr", u"ks_c_5601-1987", u"ascii", u"latin1"}) {
    mib_display_name(name, status);
    EXPECT_TRUE(status.ok()) << vek_wtos(name);
  }
  for (auto name : {u"", u"x-no-such-charset", u"utf-8\u00E9"}) {
    mib_display_name(name, status);
    EXPECT_FALSE(status.ok()) << vek_wtos(name);
  }
  EXPECT_EQ(mib_display_name(u"US-ASCII", status), 0u);
  EXPECT_EQ(mib_display_name(u"latin1", status), mib_display_name(u"ISO-8859-1", status));
}

// ICU keeps the name of an algorithmic converter in the converter itself;
// a name found by loose matching must outlive the probe that found it.
TEST(Mib, LooselyMatchedAlgorithmicName) {
  for (int round = 0; round < 2; ++round) {
    Vek_status status;
    const Mib_charset charset = mib_display_name(u"is+cii", status);
    ASSERT_TRUE(status.ok());
    EXPECT_NE(charset, 0u);
    EXPECT_EQ(mib_display_name(u"ISCII", status), charset);
    Vek_wstring text;
    EXPECT_TRUE(mib_charset_to_unicode(charset, "abc", text, status));
    EXPECT_EQ(text, u"abc");
  }
}

// (Multi-byte charsets are read through encoded words of real mail:
// codecs/encoded_words_test.cc.)
TEST(Mib, ConvertsAndReplaces) {
  EXPECT_EQ(convert(u"utf-8", "caf\xC3\xA9"), u"caf\u00E9");
  EXPECT_EQ(convert(u"iso-8859-1", "caf\xE9"), u"caf\u00E9");
  EXPECT_EQ(convert(u"windows-1252", "\x80"), u"\u20AC");
  EXPECT_EQ(convert(u"utf-8", "a\377b"), u"a\uFFFDb");  // an invalid byte, 0xFF
  EXPECT_EQ(convert(u"us-ascii", "a\xE9"), u"a\uFFFD");
  EXPECT_EQ(convert(u"utf-8", ""), u"");  // replaces, never appends
  // A charset that was never resolved.
  Vek_status status;
  Vek_wstring text;
  EXPECT_FALSE(mib_charset_to_unicode(99999, "abc", text, status));
  EXPECT_FALSE(status.ok());
}

}  // namespace
