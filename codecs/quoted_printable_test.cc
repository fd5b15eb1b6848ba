#include "codecs/quoted_printable.h"

#include <gtest/gtest.h>

#include <random>

namespace {

struct Outcome {
  std::string out;
  uint32_t status;
};

// Runs a codec from `in` to a fresh buffer; both streams in mode 3, so that
// writeln ends lines with CR LF, the line end that the decoder takes for a
// soft line break. (In mode 0 "=" LF would be no soft line break, and a
// CR LF of the data would come back as LF.)
template <typename Codec>
Outcome run(std::string_view in, Codec codec) {
  Vek_status status;
  Vek_raw_memory_buffer input(in.size(), in.data(), 0);
  Vek_buffered_istream is(&input, true, status, vek_eol_crlf);
  Vek_memory_buffer output;
  Vek_ostream os(&output, status, vek_eol_crlf);
  codec(is, os, status);
  return {std::string(reinterpret_cast<const char*>(output.data()), output.size()), status.value()};
}

Outcome decode(std::string_view in) {
  return run(in, [&](Vek_istream& is, Vek_ostream& os, Vek_status& status) {
    const uint64_t position = decode_quoted_printable(is, os, 0, in.size(), status);
    EXPECT_EQ(position, os.tell());
  });
}

Outcome encode(std::string_view in) { return run(in, encode_quoted_printable); }

struct Case {
  const char* name;
  std::string in;
  std::string want;
  uint32_t want_status = vek_ok;
};

const std::string x72(72, 'x'), x73(73, 'x'), x74(74, 'x'), x75(75, 'x'), x76(76, 'x');

TEST(QuotedPrintable, Decode) {
  const std::vector<Case> cases = {
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
  };
  for (const auto& c : cases) {
    const Outcome got = decode(c.in);
    EXPECT_EQ(got.out, c.want) << c.name;
    EXPECT_EQ(got.status, c.want_status) << c.name;
  }
}

TEST(QuotedPrintable, DecodeFromAPositionForALength) {
  const std::string in = "skip=41=42tail";
  const Outcome got = run(in, [](Vek_istream& is, Vek_ostream& os, Vek_status& status) {
    decode_quoted_printable(is, os, 4, 6, status);
    EXPECT_EQ(is.tell(), 10u);
  });
  EXPECT_EQ(got.out, "AB");
  EXPECT_EQ(got.status, vek_ok);
  // A length past the end is the end of the data, no failure.
  EXPECT_EQ(run(in, [](Vek_istream& is, Vek_ostream& os,
                       Vek_status& status) { decode_quoted_printable(is, os, 10, 1000, status); })
                .status,
            vek_ok);
}

TEST(QuotedPrintable, EncodeLineLengths) {
  const std::vector<Case> cases = {
      {"76 plain bytes stay whole", x76 + "\r\n", x76 + "\r\n"},
      {"77 plain bytes", x75 + "yz", x75 + "=\r\nyz"},
      {"73 bytes and an escape make 76", x73 + "\x01\r\n", x73 + "=01\r\n"},
      {"escape then a byte moves the escape", x73 + "\x01y", x73 + "=\r\n=01y"},
      {"74 bytes take no escape", x74 + "\x01", x74 + "=\r\n=01"},
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
  };
  for (const auto& c : cases) {
    const Outcome got = encode(c.in);
    EXPECT_EQ(got.out, c.want) << c.name;
    EXPECT_EQ(got.status, vek_ok) << c.name;
  }
}

TEST(QuotedPrintable, EncodeEscapes) {
  const std::vector<Case> cases = {
      {"equals sign", "a=b", "a=3Db"},
      {"7f and up", "\x7f\x80\xff", "=7F=80=FF"},
      {"tab inside a line", "a\tb", "a\tb"},
      {"bare CR", "a\rb", "a=0Db"},
      {"bare LF", "a\nb", "a=0Ab"},
      {"CR at the end of the data", "a\r", "a=0D"},
      {"LF CR is no line end", "a\n\rb", "a=0A=0Db"},
      {"CR CR LF", "a\r\r\nb", "a=0D\r\nb"},
  };
  for (const auto& c : cases) EXPECT_EQ(encode(c.in).out, c.want) << c.name;
  std::string text;
  escape_byte(0xab, text);
  EXPECT_EQ(text, "=AB");
}

// Random bytes, a third of them blanks, CR, LF and "=", so that CR LF
// pairs, trailing blanks and escapes are frequent.
std::string random_bytes(std::mt19937& random, size_t length) {
  static constexpr char special[] = {' ', '\t', '\r', '\n', '=', '\r', '\n'};
  std::string bytes(length, '\0');
  for (auto& b : bytes) {
    const uint32_t r = random();
    b = (r & 3) == 0 ? special[(r >> 8) % sizeof special] : static_cast<char>(r >> 16);
  }
  return bytes;
}

void expect_round_trip(const std::string& data) {
  const Outcome encoded = encode(data);
  ASSERT_EQ(encoded.status, vek_ok);
  size_t line_start = 0;
  for (size_t end; (end = encoded.out.find("\r\n", line_start)) != std::string::npos; line_start = end + 2) {
    ASSERT_LE(end - line_start, smtp_qp_max_line) << "length " << data.size();
  }
  ASSERT_LE(encoded.out.size() - line_start, smtp_qp_max_line);
  const Outcome decoded = decode(encoded.out);
  ASSERT_EQ(decoded.status, vek_ok);
  ASSERT_TRUE(decoded.out == data) << "length " << data.size();
}

TEST(QuotedPrintable, RoundTripsOfRandomData) {
  std::mt19937 random(1521);
  for (size_t length = 0; length <= 4096; ++length) expect_round_trip(random_bytes(random, length));
  expect_round_trip(random_bytes(random, 1 << 20));
  expect_round_trip(random_bytes(random, 3 * (1 << 20) + 7));
}

}  // namespace
