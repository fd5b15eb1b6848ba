#include "codecs/encoded_words.h"

#include <gtest/gtest.h>

#include <string>

namespace {

const std::string max_word = "=?utf-8?q?" + std::string(63, 'x') + "?=";   // 75 bytes
const std::string long_word = "=?utf-8?q?" + std::string(64, 'x') + "?=";  // 76 bytes

TEST(EncodedWords, Decode) {
  const struct {
    const char* name;
    std::string in;
    std::u16string want;
  } cases[] = {
      // White space between two words that decode is not shown.
      {"empty value", "", u""},
      {"no word", "plain \xe9 text", u"plain \u00e9 text"},
      {"folded words join", "=?utf-8?q?a?=\r\n =?utf-8?q?b?=", u"ab"},
      {"tab and blanks join", "=?utf-8?q?a?= \t =?utf-8?b?Yg==?=", u"ab"},
      {"text between words stays", "=?utf-8?q?a?= x =?utf-8?q?b?=", u"a x b"},
      {"blank before a word after text stays", "x =?utf-8?q?a?= y", u"x a y"},
      {"good, blank, bad", "=?utf-8?q?a?= =?no-such-set?q?b?=", u"a =?no-such-set?q?b?="},
      {"bad, blank, good", "=?no-such-set?q?b?= =?utf-8?q?a?=", u"=?no-such-set?q?b?= a"},
      // The shape and length of a word.
      {"75 bytes decode", max_word, std::u16string(63, u'x')},
      {"76 bytes end all decoding", long_word + " =?utf-8?q?y?=", vek_stow(long_word + " =?utf-8?q?y?=")},
      {"good word before a long one decodes", "=?utf-8?q?a?= " + long_word, u"a " + vek_stow(long_word)},
      {"unclosed word ends decoding", "=?utf-8?q?a =?utf-8?q?b?=", u"=?utf-8?q?a =?utf-8?q?b?="},
      {"word without marker passed over", "=?abc?= tail", u"=?abc?= tail"},
      {"lower-case markers", "=?UTF-8?b?QUJD?= =?UTF-8?q?d?=", u"ABCd"},
      {"unknown charset, decoding goes on", "=?x-unknown?q?a?= =?utf-8?q?b?=x", u"=?x-unknown?q?a?= bx"},
      {"empty charset is bad", "=??q?hi?=", u"=??q?hi?="},
      {"empty Q text decodes",
       "=?utf-8?q?"
       "?=",
       u""},
      // The text of a word.
      {"underscore and escapes", "=?utf-8?q?a_b=3Dc=3d?=", u"a b=c="},
      {"=00 gives a space", "=?utf-8?q?a=00b?=", u"a b"},
      {"escape runs into the end", "=?utf-8?q?a=4?=", u"=?utf-8?q?a=4?="},
      {"escape with a bad digit", "=?utf-8?q?a=4G?=", u"=?utf-8?q?a=4G?="},
      {"B length no multiple of 4", "=?utf-8?b?QUJ?=", u"=?utf-8?b?QUJ?="},
      {"B invalid byte", "=?utf-8?b?QU*D?=", u"=?utf-8?b?QU*D?="},
      {"B = ends the text, rest unseen", "=?utf-8?b?QUJD=*!?QUJD?=", u"ABC"},
      {"B group with one =", "=?utf-8?b?QUI=?=", u"AB"},
      {"B text of padding only", "=?utf-8?b?====?=", u""},
      {"zero byte ends a Q text", std::string("=?utf-8?q?a\0=ZZ?=", 17), u"a"},
      {"B control bytes", "=?utf-8?b?AAEC?=", std::u16string(u"\0\1\2", 3)},
      {"B line feed stops the text", "=?utf-8?b?QUJD\nQUJ?=", u"ABC"},
      {"B CR is invalid", "=?utf-8?b?QUJD\rQUJ?=", u"=?utf-8?b?QUJD\rQUJ?="},
      {"B byte above 0x7f", "=?utf-8?b?QUJD\xc3QUJ?=", u"=?utf-8?b?QUJD\u00c3QUJ?="},
      {"empty B text",
       "=?utf-8?b?"
       "?=",
       u"=?utf-8?b?"
       u"?="},
      // Real charsets, from field values of the mime4j test messages.
      {"three folded words in three charsets",
       "=?ISO-8859-1?B?SWYgeW91IGNhbiByZWFkIHRoaXMgeW8=?=\r\n "
       "=?ISO-8859-2?B?dSB1bmRlcnN0YW5kIHRoZSBleGFtcGxlLg==?="
       "\r\n =?US-ASCII?Q?.._so,_cool!?=",
       u"If you can read this you understand the example... so, cool!"},
      {"koi8-r glued to text",
       "attachment; filename==?koi8-r?B?89DJ08/LLmRvYw==?=", u"attachment; filename=Список.doc"},
      {"utf-8 in quotes", "\"=?UTF-8?B?YXR0YWNobWVudC7DpMO2w7w=?=\"", u"\"attachment.äöü\""},
      // Written here from the charsets.
      {"windows-1252", "=?windows-1252?Q?=93Smart=94_quotes_=96_=805?=", u"“Smart” quotes – €5"},
      {"gb2312", "=?gb2312?B?08q8/tb3zOI=?=", u"邮件主题"},
      {"iso-2022-jp", "Re: =?ISO-2022-JP?B?GyRCMnE1RCRON28bKEI=?=", u"Re: 会議の件"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Vek_wstring result = u"stale";
    decode_encoded_words(c.in, result);
    EXPECT_EQ(result, c.want);
  }
}

// Read as UTF-8 where asked and where it is UTF-8; byte for byte otherwise.
TEST(EncodedWords, RawUtf8) {
  const std::tuple<std::string, bool, std::u16string> cases[] = {
      {"M\xc3\xbcnchen =?utf-8?q?a?=", true, u"M\u00fcnchen a"},
      {"M\xc3\xbcnchen", false, u"M\u00c3\u00bcnchen"},
      {"M\xfcnchen", true, u"M\u00fcnchen"},
  };
  for (const auto& [in, raw_utf8, want] : cases) {
    Vek_wstring got;
    decode_encoded_words(in, got, raw_utf8);
    EXPECT_TRUE(got == want) << in;
  }
}

TEST(EncodedWords, NextWordParts) {
  size_t start = 0, end = 0;
  std::string charset, encoding, text;
  ASSERT_TRUE(next_encoded_word("ab =?iso-8859-1?Q?x=41?= c", 1, start, end, charset, encoding, text));
  EXPECT_EQ(start, 3u);
  EXPECT_EQ(end, 24u);
  EXPECT_EQ(charset, "iso-8859-1");
  EXPECT_EQ(encoding, "Q");
  EXPECT_EQ(text, "x=41");
  EXPECT_FALSE(next_encoded_word("ab =?iso-8859-1?Q?x=41?= c", 4, start, end, charset, encoding, text));
  EXPECT_TRUE(charset.empty() && encoding.empty() && text.empty());
  // A marker is searched for behind the "=?", across a "?=": the first
  // "word" here reaches into the second.
  ASSERT_TRUE(next_encoded_word("=?a?= =?c?B?x?=", 0, start, end, charset, encoding, text));
  EXPECT_EQ(charset, "a?= =?c");
  EXPECT_EQ(end, 15u);
}

}  // namespace
