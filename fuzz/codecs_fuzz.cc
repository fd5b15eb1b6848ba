// Quoted-printable and Base64 under arbitrary bytes.
//
// Invariants:
// - each decoder gives the same bytes and status as a plain decoder that
//   takes one byte at a time by the rules (the real ones read in blocks);
// - the Base64 decoder that decodes whole lines straight from the buffer
//   gives the same bytes, status, position and end of the data as the
//   one that reads every line, strictly, as clients decode and past the
//   padding;
// - decode(encode(x)) == x for both codecs, with a good status, and no
//   encoded line is longer than 76 bytes;
// - encoded Base64 with one byte put in anywhere (every byte value at every
//   offset of a block, over the runs) decodes as the byte-at-a-time one.
//
// Input: byte 0 picks the line-end mode and how the decoders' window is
// chosen, byte 1 the window's start; the rest is the data.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "codecs/base64.h"
#include "codecs/quoted_printable.h"
#include "contracts/status_codes.h"
#include "contracts/vek.h"
#include "fuzz/fuzz_check.h"

namespace {

struct Outcome {
  std::string out;
  uint32_t status = vek_ok;
};

std::string text_of(const Vek_memory_buffer& buffer) {
  return std::string(reinterpret_cast<const char*>(buffer.data()), buffer.size());
}

bool is_hex(unsigned char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f'); }
int hex_value(unsigned char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; }

// The quoted-printable decoder, one byte at a time.
Outcome reference_qp(std::string_view data, uint64_t start, uint64_t length) {
  Outcome result;
  if (start >= data.size()) return result;
  const std::string_view in = data.substr(start, length);
  size_t i = 0;
  while (i < in.size()) {
    const unsigned char c = in[i++];
    if (c != '=') {
      result.out.push_back(static_cast<char>(c));
      continue;
    }
    if (i >= in.size()) {
      result.status = smtp_qp_end_in_escape;
      break;
    }
    const unsigned char n = in[i++];
    if (n == '\r') {  // soft line break: the byte behind the CR goes too
      if (i >= in.size()) {
        result.status = smtp_qp_end_in_escape;
        break;
      }
      ++i;
      continue;
    }
    if (!is_hex(n)) {
      result.out.push_back('=');
      --i;  // N again, as an ordinary byte
      continue;
    }
    if (i >= in.size()) {
      result.status = smtp_qp_end_in_escape;
      break;
    }
    const unsigned char m = in[i++];
    if (is_hex(m)) {
      result.out.push_back(static_cast<char>(hex_value(n) * 16 + hex_value(m)));
    } else {
      result.out.push_back('=');
      result.out.push_back(static_cast<char>(n));  // N is a digit: it stands for itself
      --i;                                         // M again
    }
  }
  return result;
}

// The Base64 decoder, one byte at a time over the lines of the stream.
Outcome reference_base64(const Vek_buffer& buffer, Vek_eol eol, uint64_t start, uint64_t length) {
  Outcome result;
  Vek_status status;
  Vek_buffered_istream in(&buffer, true, status, eol);
  in.seek(start);
  uint32_t group = 0, bits = 0;
  bool stopped = false;  // by "=" or by a bad byte
  while (!stopped && in.tell() < start + length) {
    std::string_view line;
    in.readln_view(1024, line, status);
    if (status == vek_line_too_long) {
      result.status = smtp_bad_base64;
      stopped = true;
      break;
    }
    for (const char byte : line) {
      const unsigned char c = static_cast<unsigned char>(byte);
      int value = -1;
      if (c >= 'A' && c <= 'Z') value = c - 'A';
      else if (c >= 'a' && c <= 'z') value = c - 'a' + 26;
      else if (c >= '0' && c <= '9') value = c - '0' + 52;
      else if (c == '+') value = 62;
      else if (c == '/') value = 63;
      if (value >= 0) {
        // Position 0 gives the top six bits; 1, 2 and 3 each complete a byte.
        switch (group) {
          case 0:
            bits = static_cast<uint32_t>(value);
            break;
          case 1:
            result.out.push_back(static_cast<char>(bits << 2 | static_cast<uint32_t>(value) >> 4));
            bits = static_cast<uint32_t>(value) & 0xf;
            break;
          case 2:
            result.out.push_back(static_cast<char>(bits << 4 | static_cast<uint32_t>(value) >> 2));
            bits = static_cast<uint32_t>(value) & 0x3;
            break;
          default:
            result.out.push_back(static_cast<char>(bits << 6 | static_cast<uint32_t>(value)));
            break;
        }
        group = (group + 1) % 4;
        continue;
      }
      if (c == ' ' || c == '\t') continue;
      if (c == '\0' || c == '\n' || c == '\r') break;  // the rest of the line is skipped
      if (c == '=') {
        stopped = true;
        break;
      }
      result.status = smtp_bad_base64;
      stopped = true;
      break;
    }
    if (status == vek_end_of_stream) break;
  }
  if (!stopped && group != 0) result.status = smtp_bad_base64;
  return result;
}

template <typename Codec>
Outcome run(std::string_view in, Vek_eol eol, Codec codec) {
  Vek_status status;
  Vek_raw_memory_buffer input(in.size(), in.data(), 0);
  Vek_buffered_istream is(&input, true, status, eol);
  Vek_memory_buffer output;
  Vek_ostream os(&output, status, eol);
  codec(input, is, os, status);
  return {text_of(output), status.value()};
}

// The Base64 decoder's two ways of reading, under each reading rule.
void check_base64_readings(std::string_view data, Vek_eol eol, uint64_t start, uint64_t length) {
  for (int rule = 0; rule < 3; ++rule) {
    uint64_t data_end[2], position[2];
    Outcome outcome[2];
    for (int way = 0; way < 2; ++way)
      outcome[way] = run(data, eol, [&](const Vek_buffer&, Vek_istream& is, Vek_ostream& os, Vek_status& status) {
        Smtp_base64_reading reading;
        reading.lenient = rule != 0;
        reading.past_padding = rule == 2;
        reading.line_by_line = way == 1;
        position[way] = decode_base64(is, os, start, length, status, reading);
        data_end[way] = reading.data_end;
      });
    FUZZ_CHECK(outcome[0].status == outcome[1].status, "base64 rule %d: status 0x%08x, line by line 0x%08x", rule,
               outcome[0].status, outcome[1].status);
    FUZZ_CHECK(data_end[0] == data_end[1], "base64 rule %d: data end %llu, line by line %llu", rule,
               (unsigned long long)data_end[0], (unsigned long long)data_end[1]);
    // Strict decoding that fails drops what it decoded; how much of it had
    // reached the stream is left open, as above.
    if (outcome[0].status != vek_ok && rule == 0) continue;
    FUZZ_CHECK(outcome[0].out == outcome[1].out && position[0] == position[1],
               "base64 rule %d: %zu bytes out at %llu, line by line %zu at %llu", rule, outcome[0].out.size(),
               (unsigned long long)position[0], outcome[1].out.size(), (unsigned long long)position[1]);
  }
}

void check_lines(std::string_view encoded, size_t most, const char* codec) {
  size_t line_start = 0;
  for (size_t end; (end = encoded.find("\r\n", line_start)) != std::string_view::npos; line_start = end + 2)
    FUZZ_CHECK(end - line_start <= most, "%s: an encoded line of %zu bytes", codec, end - line_start);
  FUZZ_CHECK(encoded.size() - line_start <= most, "%s: a last line of %zu bytes", codec, encoded.size() - line_start);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  if (size < 2) return 0;
  const uint8_t control = bytes[0];
  const std::string_view data(reinterpret_cast<const char*>(bytes + 2), size - 2);
  const Vek_eol eol = (control & 1) != 0 ? vek_eol_lf : vek_eol_crlf;
  uint64_t start = (control & 2) != 0 ? bytes[1] % (data.size() + 1) : 0;
  // A window that may end before the data or run past them.
  uint64_t length = data.size() - start;
  if ((control & 4) != 0) length -= std::min<uint64_t>(length, control >> 3);
  else length += control >> 3;

  // The decoders against their references.
  const Outcome qp = run(data, eol, [&](const Vek_buffer&, Vek_istream& is, Vek_ostream& os, Vek_status& status) {
    const uint64_t position = decode_quoted_printable(is, os, start, length, status);
    FUZZ_CHECK(position == os.tell(), "qp: position %llu, output %llu", (unsigned long long)position,
               (unsigned long long)os.tell());
  });
  const Outcome qp_want = reference_qp(data, start, length);
  FUZZ_CHECK(qp.status == qp_want.status, "qp: status 0x%08x, want 0x%08x", qp.status, qp_want.status);
  FUZZ_CHECK(qp.out == qp_want.out, "qp: %zu bytes out, want %zu", qp.out.size(), qp_want.out.size());

  Outcome base64_want;
  const Outcome base64 =
      run(data, eol, [&](const Vek_buffer& input, Vek_istream& is, Vek_ostream& os, Vek_status& status) {
        base64_want = reference_base64(input, eol, start, length);
        const uint64_t position = decode_base64(is, os, start, length, status);
        FUZZ_CHECK(position == os.tell(), "base64: position %llu, output %llu", (unsigned long long)position,
                   (unsigned long long)os.tell());
      });
  FUZZ_CHECK(base64.status == base64_want.status, "base64: status 0x%08x, want 0x%08x", base64.status,
             base64_want.status);
  // On a failure the decoded output is dropped by the caller; how much of
  // it reached the stream is left open.
  if (base64.status == vek_ok)
    FUZZ_CHECK(base64.out == base64_want.out, "base64: %zu bytes out, want %zu", base64.out.size(),
               base64_want.out.size());

  check_base64_readings(data, eol, start, length);

  // Round trips of the whole data.
  const Outcome qp_encoded = run(data, vek_eol_crlf, [](const Vek_buffer&, Vek_istream& is, Vek_ostream& os,
                                                        Vek_status& status) { encode_quoted_printable(is, os, status); });
  FUZZ_CHECK(qp_encoded.status == vek_ok, "qp encode: status 0x%08x", qp_encoded.status);
  check_lines(qp_encoded.out, smtp_qp_max_line, "qp");
  const Outcome qp_back = run(qp_encoded.out, vek_eol_crlf,
                              [&](const Vek_buffer&, Vek_istream& is, Vek_ostream& os, Vek_status& status) {
                                decode_quoted_printable(is, os, 0, qp_encoded.out.size(), status);
                              });
  FUZZ_CHECK(qp_back.status == vek_ok, "qp round trip: status 0x%08x", qp_back.status);
  FUZZ_CHECK(qp_back.out == data, "qp round trip: %zu bytes back from %zu", qp_back.out.size(), data.size());

  const Outcome base64_encoded =
      run(data, vek_eol_crlf, [&](const Vek_buffer&, Vek_istream& is, Vek_ostream& os, Vek_status& status) {
        encode_base64(is, os, data.size(), status);
      });
  FUZZ_CHECK(base64_encoded.status == vek_ok, "base64 encode: status 0x%08x", base64_encoded.status);
  check_lines(base64_encoded.out, smtp_base64_line, "base64");
  const Outcome base64_back = run(base64_encoded.out, eol,
                                  [&](const Vek_buffer&, Vek_istream& is, Vek_ostream& os, Vek_status& status) {
                                    decode_base64(is, os, 0, base64_encoded.out.size(), status);
                                  });
  FUZZ_CHECK(base64_back.status == vek_ok, "base64 round trip: status 0x%08x", base64_back.status);
  check_base64_readings(base64_encoded.out, eol, start, length);
  FUZZ_CHECK(base64_back.out == data, "base64 round trip: %zu bytes back from %zu", base64_back.out.size(),
             data.size());

  // Encoded lines are long enough for the decoder's block path, which the
  // raw input seldom reaches: with the first byte of the data put in at a
  // place byte 1 chooses, they must decode as the reference decodes them.
  if (!data.empty()) {
    std::string stray = base64_encoded.out;
    stray[(bytes[1] * 7u + data.size()) % stray.size()] = data[0];
    Outcome stray_want;
    const Outcome stray_got =
        run(stray, eol, [&](const Vek_buffer& input, Vek_istream& is, Vek_ostream& os, Vek_status& status) {
          stray_want = reference_base64(input, eol, 0, stray.size());
          decode_base64(is, os, 0, stray.size(), status);
        });
    FUZZ_CHECK(stray_got.status == stray_want.status, "base64 with a stray byte: status 0x%08x, want 0x%08x",
               stray_got.status, stray_want.status);
    if (stray_got.status == vek_ok)
      FUZZ_CHECK(stray_got.out == stray_want.out, "base64 with a stray byte: %zu bytes out, want %zu",
                 stray_got.out.size(), stray_want.out.size());
  }
  return 0;
}
