#include "codecs/quoted_printable.h"

#include "codecs/test_support.h"

namespace {

using codec_test::Outcome;

uint64_t strict(Vek_istream& in, Vek_ostream& out, uint64_t start, uint64_t length, Vek_status& status) {
  return decode_quoted_printable(in, out, start, length, status);
}

uint64_t lenient(Vek_istream& in, Vek_ostream& out, uint64_t start, uint64_t length, Vek_status& status) {
  return decode_quoted_printable(in, out, start, length, status, true);
}

Outcome decode(std::string_view in, Vek_eol = vek_eol_crlf) { return codec_test::decode(strict, in); }

Outcome encode(std::string_view in, Vek_eol = vek_eol_crlf) {
  return codec_test::run(in, encode_quoted_printable);
}

const std::string x72(72, 'x'), x73(73, 'x'), x75(75, 'x'), x76(76, 'x');

TEST(QuotedPrintable, Decode) {
  codec_test::check(
      {
          {"escape", "a=3Db", "a=b"},
          {"lower-case escape", "=3d=c3=A9", "=\xc3\xa9"},
          {"bad second digit", "=G1", "=G1"},
          {"bad first digit, blank", "a= b", "a= b"},
          {"bad M goes round again", "=4=41", "=4A"},
          {"= before an escape", "==41", "=A"},
          {"soft line break", "ab=\r\ncd", "abcd"},
          {"soft break drops any byte behind the CR", "ab=\rxcd", "abcd"},
          {"= before a bare LF stays", "ab=\ncd", "ab=\ncd"},
          {"trailing blanks and line ends pass", "a \t\r\nb\n", "a \t\r\nb\n"},
          {"zero byte", "=00", std::string(1, '\0')},
          {"= at the very end", "ab=", "ab", smtp_qp_end_in_escape},
          {"= CR at the very end", "ab=\r", "ab", smtp_qp_end_in_escape},
          {"= and one digit at the end", "ab=4", "ab", smtp_qp_end_in_escape},
          {"empty", "", ""},
      },
      decode);
  // Leniently, an unfinished escape stays as it stands; the status says so.
  for (const auto& [in, want] :
       {std::pair<const char*, const char*>{"ab=", "ab="}, {"ab=4", "ab=4"}, {"ab=\r", "ab"}}) {
    const Outcome got = codec_test::decode(lenient, in);
    EXPECT_EQ(got.out, want) << in;
    EXPECT_EQ(got.status, smtp_qp_end_in_escape) << in;
  }
}

// A "=" with blanks behind it to the line end, or with a bare LF, is a
// soft line break where padded breaks are read.
TEST(QuotedPrintable, PaddedSoftBreaks) {
  const auto padded = [](Vek_istream& in, Vek_ostream& out, uint64_t start, uint64_t length,
                         Vek_status& status) {
    return decode_quoted_printable(in, out, start, length, status, false, true);
  };
  codec_test::check(
      {
          {"blanks behind =", "ab= \t\r\ncd", "abcd"},
          {"bare LF", "ab=\ncd", "abcd"},
          {"blanks and text stay", "a= \tb", "a= \tb"},
          {"blanks at the very end", "ab=  ", "ab"},
          {"a run longer than any line stays", "a=" + std::string(1100, ' ') + "\r\nb",
           "a=" + std::string(1100, ' ') + "\r\nb"},
      },
      [&](std::string_view in, Vek_eol) { return codec_test::decode(padded, in); });
}

TEST(QuotedPrintable, DecodeFromAPositionForALength) {
  uint64_t stop = 0;
  const Outcome got = codec_test::decode(strict, "skip=41=42tail", vek_eol_crlf, 4, 6, &stop);
  EXPECT_EQ(got.out, "AB");
  EXPECT_EQ(got.status, vek_ok);
  EXPECT_EQ(stop, 10u);
  // A length past the end is the end of the data, no failure.
  EXPECT_EQ(codec_test::decode(strict, "skip=41=42tail", vek_eol_crlf, 10, 1000).status, vek_ok);
}

TEST(QuotedPrintable, Encode) {
  std::string soft_lines;  // of 1025 bytes, a whole read of the encoder, without a line end
  for (int i = 0; i < 13; ++i) soft_lines += x75 + "=\r\n";
  codec_test::check(
      {
          // Line lengths: at most 76 bytes, the "=" of a soft line break included.
          {"76 plain bytes stay whole", x76 + "\r\n", x76 + "\r\n"},
          {"77 plain bytes", x75 + "yz", x75 + "=\r\nyz"},
          {"73 bytes and an escape make 76", x73 + "\x01\r\n", x73 + "=01\r\n"},
          {"escape then a byte moves the escape", x73 + "\x01y", x73 + "=\r\n=01y"},
          {"75 bytes take no escape", x75 + "\x01", x75 + "=\r\n=01"},
          {"escape behind 76 bytes takes the last one along", x76 + "\x01", x75 + "=\r\nx=01"},
          {"plain byte behind an escape at 76", x73 + "=" + "y", x73 + "=\r\n=3Dy"},
          {"blank ending a line of 73", x72 + " \r\n", x72 + "=20\r\n"},
          {"blank ending a line of 74", x73 + "\t\r\n", x73 + "=\r\n=09\r\n"},
          {"blank ending a line of 76", x75 + " \r\n", x75 + "=\r\n=20\r\n"},
          {"only the last blank is escaped", "a  b \r\n", "a  b=20\r\n"},
          {"blank at the end of the data stays", "a ", "a "},
          {"no line end: soft breaks only", x76 + x76, x75 + "=\r\n" + x75 + "=\r\nxx"},
          {"empty lines", "\r\n\r\n", "\r\n\r\n"},
          {"data that end with a read", std::string(1025, 'x'), soft_lines + std::string(50, 'x')},
          // Escapes.
          {"equals sign", "a=b", "a=3Db"},
          {"7f and up", "\x7f\x80\xff", "=7F=80=FF"},
          {"bare CR", "a\rb", "a=0Db"},
          {"bare LF", "a\nb", "a=0Ab"},
          {"LF CR is no line end", "a\n\rb", "a=0A=0Db"},
          {"CR CR LF", "a\r\r\nb", "a=0D\r\nb"},
      },
      encode);
  std::string text;
  escape_byte(0xab, text);
  EXPECT_EQ(text, "=AB");
}

// A body of megabytes with frequent CR LF pairs, trailing blanks and
// escapes, so that they fall on the edges of the codecs' blocks: a CR kept
// back at the end of the encoder's block, an escape split between two of
// the decoder's. (Small data of every length are the fuzz target's.)
TEST(QuotedPrintable, RoundTripOfALargeBody) {
  codec_test::expect_round_trip(3 * (1 << 20) + 7, " \t\r\n=\r\n", encode, decode, smtp_qp_max_line);
}

}  // namespace
