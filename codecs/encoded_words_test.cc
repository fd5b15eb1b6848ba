#include "codecs/encoded_words.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "reader/test_corpus.h"

namespace {

std::u16string decoded(std::string_view value) {
  Vek_wstring result = u"stale";
  decode_encoded_words(value, result);
  return result;
}

struct Case {
  const char* name;
  std::string in;
  std::u16string want;
};

void check(const std::vector<Case>& cases) {
  for (const auto& c : cases) EXPECT_EQ(decoded(c.in), c.want) << c.name;
}

const std::string max_word = "=?utf-8?q?" + std::string(63, 'x') + "?=";   // 75 bytes
const std::string long_word = "=?utf-8?q?" + std::string(64, 'x') + "?=";  // 76 bytes
const std::u16string max_text(63, u'x');

TEST(EncodedWords, SpacingBetweenWords) {
  check({
      {"empty value", "", u""},
      {"no word", "plain \xe9 text", u"plain \u00e9 text"},
      {"folded words join", "=?utf-8?q?a?=\r\n =?utf-8?q?b?=", u"ab"},
      {"tab and blanks join", "=?utf-8?q?a?= \t =?utf-8?b?Yg==?=", u"ab"},
      {"text between words stays", "=?utf-8?q?a?= x =?utf-8?q?b?=", u"a x b"},
      {"blank before a word after text stays", "x =?utf-8?q?a?= y", u"x a y"},
      {"good, blank, bad", "=?utf-8?q?a?= =?no-such-set?q?b?=", u"a =?no-such-set?q?b?="},
      {"bad, blank, good", "=?no-such-set?q?b?= =?utf-8?q?a?=", u"=?no-such-set?q?b?= a"},
  });
}

TEST(EncodedWords, WordShapeAndLength) {
  check({
      {"75 bytes decode", max_word, max_text},
      {"76 bytes end all decoding", long_word + " =?utf-8?q?y?=", vek_stow(long_word + " =?utf-8?q?y?=")},
      {"good word before a long one decodes", "=?utf-8?q?a?= " + long_word, u"a " + vek_stow(long_word)},
      {"unclosed word ends decoding", "=?utf-8?q?a =?utf-8?q?b?=", vek_stow("=?utf-8?q?a =?utf-8?q?b?=")},
      {"word without marker passed over", "=?abc?= tail", u"=?abc?= tail"},
      {"lower-case markers", "=?UTF-8?b?QUJD?= =?UTF-8?q?d?=", u"ABCd"},
      {"unknown charset, decoding goes on", "=?x-unknown?q?a?= =?utf-8?q?b?=x", u"=?x-unknown?q?a?= bx"},
      {"ascii always resolves", "=?ASCII?q?hi?=", u"hi"},
      {"empty charset is bad", "=??q?hi?=", u"=??q?hi?="},
      {"empty Q text decodes",
       "=?utf-8?q?"
       "?=",
       u""},
  });
}

TEST(EncodedWords, TextDecoding) {
  check({
      {"underscore and escapes", "=?utf-8?q?a_b=3Dc=3d?=", u"a b=c="},
      {"=00 gives a space", "=?utf-8?q?a=00b?=", u"a b"},
      {"escape runs into the end", "=?utf-8?q?a=4?=", u"=?utf-8?q?a=4?="},
      {"escape with a bad digit", "=?utf-8?q?a=4G?=", u"=?utf-8?q?a=4G?="},
      {"B length no multiple of 4", "=?utf-8?b?QUJ?=", u"=?utf-8?b?QUJ?="},
      {"B invalid byte", "=?utf-8?b?QU*D?=", u"=?utf-8?b?QU*D?="},
      {"B = ends the text, rest unseen", "=?utf-8?b?QUJD=*!?QUJD?=", u"ABC"},
      {"B group with one =", "=?utf-8?b?QUI=?=", u"AB"},
      {"B text of padding only", "=?utf-8?b?====?=", u""},
  });
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

TEST(EncodedWords, QAndBText) {
  std::string bytes;
  EXPECT_TRUE(decode_q_text(std::string_view("a\0=ZZ", 5), bytes));
  EXPECT_EQ(bytes, "a");  // a zero byte ends the text
  EXPECT_FALSE(decode_q_text("=4", bytes));
  EXPECT_TRUE(decode_b_text("AAEC", bytes));
  EXPECT_EQ(bytes, std::string("\0\1\2", 3));
  EXPECT_TRUE(is_valid_b_text("QUJD\nQUJ"));  // the line feed stops the walk
  EXPECT_FALSE(is_valid_b_text("QUJD\rQUJ"));
  EXPECT_FALSE(is_valid_b_text(""));
  EXPECT_FALSE(is_valid_b_text("QUJD\xc3QUJ"));
}

// Field values taken from the corpus, where it has words in the charset.
std::string corpus_line(const std::string& file, std::string_view prefix) {
  std::ifstream in(corpus_dir() + "/" + file, std::ios::binary);
  std::string line, value;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!value.empty() && (line.starts_with(" ") || line.starts_with("\t"))) {
      value += "\r\n" + line;  // a folded continuation
    } else if (!value.empty()) {
      break;
    } else if (line.starts_with(prefix)) {
      value = line.substr(prefix.size());
    }
  }
  return value;
}

TEST(EncodedWords, RealCharsets) {
  const std::string subject = corpus_line("mime4j/mimetools-testmsgs/intl.msg", "Subject: ");
  ASSERT_FALSE(subject.empty());
  EXPECT_EQ(decoded(subject), u"If you can read this you understand the example... so, cool!");
  EXPECT_EQ(decoded(corpus_line("mime4j/mimetools-testmsgs/intl.msg", "To: ")),
            u"Keld J\u00f8rn Simonsen <keld@dkuug.dk>");
  EXPECT_EQ(decoded(corpus_line("mime4j/mimetools-testmsgs/german-qp.msg", "From: ")).substr(0, 4),
            u"J\u00f6rn");
  const std::string russian = corpus_line("mime4j/mimetools-testmsgs/russian.msg", "Content-Disposition: ");
  EXPECT_EQ(decoded(russian), u"attachment; filename=Список.doc");
  const std::string utf8 =
      corpus_line("mime4j/mimetools-testmsgs/attachment-filename-encoding-UTF8.msg", " name=");
  EXPECT_EQ(decoded(utf8), u"\"attachment.äöü\"");
  // The corpus has no words in these; written here from the charsets.
  check({
      {"windows-1252", "=?windows-1252?Q?=93Smart=94_quotes_=96_=805?=", u"“Smart” quotes – €5"},
      {"gb2312", "=?gb2312?B?08q8/tb3zOI=?=", u"邮件主题"},
      {"iso-2022-jp", "Re: =?ISO-2022-JP?B?GyRCMnE1RCRON28bKEI=?=", u"Re: 会議の件"},
  });
}

}  // namespace
