// Helpers of the codec tests: a codec run from text to text over the base
// library's streams, and tables of cases run through it.
#ifndef SMTPFM_CODECS_TEST_SUPPORT_H_
#define SMTPFM_CODECS_TEST_SUPPORT_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "contracts/vek.h"

namespace codec_test {

struct Outcome {
  std::string out;
  uint32_t status;
};

// Runs `codec` from a stream over `in` to a fresh buffer. Both streams are
// in mode 3 unless told otherwise, so that writeln ends lines with CR LF,
// the line end that the quoted-printable decoder takes for a soft line
// break (in mode 0 "=" LF would be none, and a CR LF of the data would come
// back as LF).
template <typename Codec>
Outcome run(std::string_view in, Codec codec, Vek_eol eol = vek_eol_crlf) {
  Vek_status status;
  Vek_raw_memory_buffer input(in.size(), in.data(), 0);
  Vek_buffered_istream is(&input, true, status, eol);
  Vek_memory_buffer output;
  Vek_ostream os(&output, status, eol);
  codec(is, os, status);
  return {std::string(reinterpret_cast<const char*>(output.data()), output.size()), status.value()};
}

// Decodes `in`, or what the decoder takes of it from `start` for `length`;
// `stop`, if given, gets where it left the input. A decoder returns the
// output's position.
template <typename Decoder>
Outcome decode(Decoder decoder, std::string_view in, Vek_eol eol = vek_eol_crlf, uint64_t start = 0,
               uint64_t length = UINT64_MAX, uint64_t* stop = nullptr) {
  return run(
      in,
      [&](Vek_istream& is, Vek_ostream& os, Vek_status& status) {
        const uint64_t position = decoder(is, os, start, length == UINT64_MAX ? in.size() : length, status);
        EXPECT_EQ(position, os.tell());
        if (stop != nullptr) *stop = is.tell();
      },
      eol);
}

struct Case {
  const char* name;
  std::string in;
  std::string want;
  uint32_t want_status = vek_ok;
  Vek_eol eol = vek_eol_crlf;
};

// Each case through `codec(in, eol)`.
template <typename Codec>
void check(const std::vector<Case>& cases, Codec codec) {
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Outcome got = codec(c.in, c.eol);
    EXPECT_EQ(got.out, c.want);
    EXPECT_EQ(got.status, c.want_status);
  }
}

// Encodes `length` random bytes, a quarter of them from `frequent`, and
// decodes them back; no encoded line may be longer than `longest`.
template <typename Encoder, typename Decoder>
void expect_round_trip(size_t length, std::string_view frequent, Encoder encode, Decoder decode,
                       size_t longest) {
  SCOPED_TRACE(::testing::Message() << "length " << length);
  std::mt19937 random(static_cast<uint32_t>(length));
  std::string data(length, '\0');
  for (auto& b : data) {
    const uint32_t r = random();
    b = (r & 3) == 0 && !frequent.empty() ? frequent[(r >> 8) % frequent.size()] : static_cast<char>(r >> 16);
  }
  const Outcome encoded = encode(data, vek_eol_crlf);
  ASSERT_EQ(encoded.status, vek_ok);
  for (size_t at = 0, end; (end = encoded.out.find("\r\n", at)) != std::string::npos; at = end + 2)
    ASSERT_LE(end - at, longest);
  const Outcome decoded = decode(encoded.out, vek_eol_crlf);
  EXPECT_EQ(decoded.status, vek_ok);
  EXPECT_TRUE(decoded.out == data);
}

}  // namespace codec_test

#endif  // SMTPFM_CODECS_TEST_SUPPORT_H_
