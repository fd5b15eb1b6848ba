#include "codecs/base64.h"

#include <gtest/gtest.h>

#include <random>

namespace {

struct Outcome {
  std::string out;
  uint32_t status;
};

template <typename Codec>
Outcome run(std::string_view in, Vek_eol eol, Codec codec) {
  Vek_status status;
  Vek_raw_memory_buffer input(in.size(), in.data(), 0);
  Vek_buffered_istream is(&input, true, status, eol);
  Vek_memory_buffer output;
  Vek_ostream os(&output, status, eol);
  codec(is, os, status);
  return {std::string(reinterpret_cast<const char*>(output.data()), output.size()), status.value()};
}

Outcome decode(std::string_view in, Vek_eol eol = vek_eol_crlf) {
  return run(in, eol, [&](Vek_istream& is, Vek_ostream& os, Vek_status& status) {
    const uint64_t position = decode_base64(is, os, 0, in.size(), status);
    EXPECT_EQ(position, os.tell());
  });
}

Outcome encode(std::string_view in, uint64_t length) {
  return run(in, vek_eol_crlf, [&](Vek_istream& is, Vek_ostream& os, Vek_status& status) {
    encode_base64(is, os, length, status);
  });
}

struct Case {
  const char* name;
  std::string in;
  std::string want;
  uint32_t want_status = vek_ok;
};

TEST(Base64, DecodeTableEntries) {
  const std::vector<Case> cases = {
      {"empty", "", ""},
      {"one group", "QUJD", "ABC"},
      {"blanks are skipped", " Q\tU J D ", "ABC"},
      {"group over two lines", "QU\r\nJD\r\n", "ABC"},
      {"group over three lines, LF mode", "Q\nUJ\n\nD\n", "ABC"},
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
  };
  for (const auto& c : cases) {
    const Outcome got = decode(
        c.in, std::string_view(c.name).find("LF mode") != std::string_view::npos ? vek_eol_lf : vek_eol_crlf);
    EXPECT_EQ(got.out, c.want) << c.name;
    EXPECT_EQ(got.status, c.want_status) << c.name;
  }
}

TEST(Base64, EveryByteInsideALongLine) {
  // Long lines go through a faster path in blocks; each byte must still
  // take its table entry there, at the start, middle and end of a block.
  const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (size_t at : {0u, 5u, 31u, 37u, 75u}) {
    for (int byte = 0; byte < 256; ++byte) {
      std::string line;
      for (int i = 0; i < 19; ++i) line += "QUJD";
      line[at] = static_cast<char>(byte);
      const Outcome got = decode(line);
      const size_t before = at / 4 * 3;  // bytes of the groups in front
      if (alphabet.find(static_cast<char>(byte)) != std::string::npos) {
        EXPECT_EQ(got.status, vek_ok) << byte << " at " << at;
        EXPECT_EQ(got.out.size(), 57u) << byte << " at " << at;
      } else if (byte == '=') {
        EXPECT_EQ(got.status, vek_ok) << byte << " at " << at;
        EXPECT_EQ(got.out.size(), before + (at % 4 == 0 ? 0 : at % 4 - 1)) << byte << " at " << at;
      } else if (byte == 0 || byte == '\r' || byte == '\n') {
        // The line's data end there: good only between two groups.
        EXPECT_EQ(got.status, at % 4 == 0 ? vek_ok : smtp_bad_base64) << byte << " at " << at;
        EXPECT_EQ(got.out.size(), at % 4 == 0 ? before : 0) << byte << " at " << at;
      } else {
        // A blank leaves 75 values, inside a group at the end; other bytes
        // are bad.
        EXPECT_EQ(got.status, smtp_bad_base64) << byte << " at " << at;
      }
    }
  }
}

TEST(Base64, DecodeLineLimit) {
  // Lines are read in pieces of 1024 bytes: a line that fills one is bad.
  EXPECT_EQ(decode(std::string(1020, 'A') + "\r\nQUJD").out, std::string(765, '\0') + "ABC");
  EXPECT_EQ(decode(std::string(1024, 'A') + "\r\n").status, smtp_bad_base64);
}

TEST(Base64, DecodeReadsLinesThatBeginWithinTheLength) {
  const std::string in = "junk\r\nQUJD\r\nQUJD\r\nQUJD";
  const Outcome got = run(in, vek_eol_crlf, [](Vek_istream& is, Vek_ostream& os, Vek_status& status) {
    decode_base64(is, os, 6, 7, status);  // the second line starts at 12
    EXPECT_EQ(is.tell(), 18u);
  });
  EXPECT_EQ(got.out, "ABCABC");
  EXPECT_EQ(got.status, vek_ok);
}

TEST(Base64, Encode) {
  // "bbb" is "YmJi": 57 bytes of "b" make one full line of 76 characters.
  std::string line;
  for (int i = 0; i < 19; ++i) line += "YmJi";
  const std::string b57(57, 'b');
  const std::vector<Case> cases = {
      {"nothing", "", ""},
      {"one byte", "A", "QQ==\r\n"},
      {"two bytes", "AB", "QUI=\r\n"},
      {"three bytes", "ABC", "QUJD\r\n"},
      {"57 bytes: one line, no empty one", b57, line + "\r\n"},
      {"58 bytes: two lines", b57 + "b", line + "\r\nYg==\r\n"},
  };
  for (const auto& c : cases) {
    const Outcome got = encode(c.in, c.in.size());
    EXPECT_EQ(got.out, c.want) << c.name;
    EXPECT_EQ(got.status, vek_ok) << c.name;
  }
  EXPECT_EQ(encode("ABCDEF", 4).out, "QUJDRA==\r\n");  // the length counts, not the stream
  const Outcome short_stream = encode("ABCD", 10);
  EXPECT_EQ(short_stream.out, "QUJDRA==\r\n");
  EXPECT_EQ(short_stream.status, smtp_base64_encoder_end);
}

void expect_round_trip(const std::string& data) {
  const Outcome encoded = encode(data, data.size());
  ASSERT_EQ(encoded.status, vek_ok);
  const Outcome decoded = decode(encoded.out);
  ASSERT_EQ(decoded.status, vek_ok) << "length " << data.size();
  ASSERT_TRUE(decoded.out == data) << "length " << data.size();
}

TEST(Base64, RoundTripsOfRandomData) {
  std::mt19937 random(2045);
  std::string data;
  for (size_t length = 0; length <= 4096; ++length) {
    data.resize(length);
    for (auto& b : data) b = static_cast<char>(random());
    expect_round_trip(data);
  }
  for (size_t length : {1u << 20, 3u * (1u << 20) + 2}) {
    data.resize(length);
    for (auto& b : data) b = static_cast<char>(random());
    expect_round_trip(data);
  }
}

}  // namespace
