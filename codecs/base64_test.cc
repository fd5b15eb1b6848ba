#include "codecs/base64.h"

#include "codecs/test_support.h"

namespace {

using codec_test::Outcome;

uint64_t strict(Vek_istream& in, Vek_ostream& out, uint64_t start, uint64_t length, Vek_status& status) {
  return decode_base64(in, out, start, length, status);
}

Outcome decode(std::string_view in, Vek_eol eol = vek_eol_crlf) { return codec_test::decode(strict, in, eol); }

Outcome decode_leniently(std::string_view in, Vek_eol eol) {
  return codec_test::decode(
      [](Vek_istream& is, Vek_ostream& os, uint64_t start, uint64_t length, Vek_status& status) {
        return decode_base64(is, os, start, length, status, true);
      },
      in, eol);
}

Outcome encode(std::string_view in, uint64_t length) {
  return codec_test::run(in, [&](Vek_istream& is, Vek_ostream& os, Vek_status& status) {
    encode_base64(is, os, length, status);
  });
}

Outcome encode_all(std::string_view in, Vek_eol) { return encode(in, in.size()); }

TEST(Base64, Decode) {
  codec_test::check(
      {
          {"empty", "", ""},
          {"one group", "QUJD", "ABC"},
          {"blanks are skipped", " Q\tU J D ", "ABC"},
          {"group over two lines", "QU\r\nJD\r\n", "ABC"},
          {"group over three lines, LF mode", "Q\nUJ\n\nD\n", "ABC", vek_ok, vek_eol_lf},
          {"CR ends the line's data", "QUJD\rQUJD\r\nQUJD", "ABCABC"},
          {"zero byte ends the line's data", std::string("QUJD\0**\r\nQUJD", 13), "ABCABC"},
          {"one =", "QUI=", "AB"},
          {"two =", "QQ==", "A"},
          {"= in any place ends all data", "QUJDQ=Q", "ABC"},
          {"data behind = are not looked at", "QQ==\r\nQUJD\r\n***", "A"},
          {"invalid byte mid-line", "QUJD*UJD", "ABC", smtp_bad_base64},
          {"byte above 0x7f", "QUJD\xc3\xa9", "ABC", smtp_bad_base64},
          {"end inside a group drops the output", "QUJDQU", "", smtp_bad_base64},
          {"end inside a group after a line", "QUJD\r\nQ\r\n", "", smtp_bad_base64},
          // Lines are read in pieces of 1024 bytes: a line that fills one is bad.
          {"line short of a piece", std::string(1020, 'A') + "\r\nQUJD", std::string(765, '\0') + "ABC"},
          {"line that fills a piece", std::string(1024, 'A') + "\r\n", "", smtp_bad_base64},
      },
      decode);
  // Leniently, what strict decoding refuses is passed over and the rest is
  // decoded; the status still tells that something was.
  const std::string long_line = std::string(2000, 'A') + "QUJD";
  codec_test::check(
      {
          {"clean data stay good", "QUJD\r\nQQ==", "ABCA"},
          {"invalid bytes passed over", "QU*JD\xc3\xa9QU\r\n-JD", "ABCABC", smtp_bad_base64},
          {"end inside a group keeps its bytes", "QUJDQUI", "ABCAB", smtp_bad_base64},
          {"= where no padding can stand", "=Q=UJD", "ABC", smtp_bad_base64},
          {"padding still ends the data", "QUI=\r\n-- \r\nlist footer", "AB"},
          {"a line of any length", long_line, std::string(1500, '\0') + "ABC", smtp_bad_base64},
      },
      decode_leniently);
}

// Where the data that a padding ends stop (behind its "=" run, on its
// line), and the reading that goes on behind each padding, as runs put one
// behind the other decode.
TEST(Base64, DataEndAndRunsPastPadding) {
  const struct {
    const char* name;
    std::string in;
    bool past_padding;
    std::string want;
    uint64_t data_end;
  } cases[] = {
      {"padding: behind its = run", "QQ==\r\nQUJD", false, "A", 4},
      {"padding mid-line", "QUI=QUJD", false, "AB", 4},
      {"no padding: where reading stopped", "QUJD\r\nQUJD", false, "ABCABC", 10},
      {"runs joined", "QQ==\r\nQUI=QUJD", true, "AABABC", 14},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Smtp_base64_reading reading;
    reading.lenient = true;
    reading.past_padding = c.past_padding;
    const Outcome got = codec_test::decode(
        [&](Vek_istream& is, Vek_ostream& os, uint64_t start, uint64_t length, Vek_status& status) {
          return decode_base64(is, os, start, length, status, reading);
        },
        c.in);
    EXPECT_EQ(got.out, c.want);
    EXPECT_EQ(reading.data_end, c.data_end);
  }
}

TEST(Base64, DecodeReadsLinesThatBeginWithinTheLength) {
  uint64_t stop = 0;  // the second line starts at 12, within 7 bytes of 6
  const Outcome got =
      codec_test::decode(strict, "junk\r\nQUJD\r\nQUJD\r\nQUJD", vek_eol_crlf, 6, 7, &stop);
  EXPECT_EQ(got.out, "ABCABC");
  EXPECT_EQ(got.status, vek_ok);
  EXPECT_EQ(stop, 18u);
}

TEST(Base64, Encode) {
  // "bbb" is "YmJi": 57 bytes of "b" make one full line of 76 characters.
  std::string line;
  for (int i = 0; i < 19; ++i) line += "YmJi";
  const std::string b57(57, 'b');
  codec_test::check(
      {
          {"nothing", "", ""},
          {"one byte", "A", "QQ==\r\n"},
          {"two bytes", "AB", "QUI=\r\n"},
          {"three bytes", "ABC", "QUJD\r\n"},
          {"57 bytes: one line, no empty one", b57, line + "\r\n"},
          {"58 bytes: two lines", b57 + "b", line + "\r\nYg==\r\n"},
      },
      encode_all);
  EXPECT_EQ(encode("ABCDEF", 4).out, "QUJDRA==\r\n");  // the length counts, not the stream
  const Outcome short_stream = encode("ABCD", 10);
  EXPECT_EQ(short_stream.out, "QUJDRA==\r\n");
  EXPECT_EQ(short_stream.status, smtp_base64_encoder_end);
}

// Bodies of megabytes, of both remainders of three bytes: the decoder's
// output block fills many times over, and its blocks of 32 characters meet
// that end with too little room left. (Small data of every length are the
// fuzz target's.)
TEST(Base64, RoundTripsOfLargeBodies) {
  for (size_t length : {1u << 20, 3u * (1u << 20) + 2})
    codec_test::expect_round_trip(length, "", encode_all, decode, smtp_base64_line);
}

}  // namespace
