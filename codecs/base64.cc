// Base64 (RFC 1521, section 5.2): groups of four characters of a 64-letter
// alphabet carry three bytes; "=" pads the last group, and "characters not
// in the alphabet are to be ignored".
//
// Where this decoder knowingly deviates from the RFC:
//   - only blanks are ignored; any other byte outside the alphabet, CR and
//     LF apart, is bad data, as the RFC's advice on errors allows;
//   - a CR, an LF or a zero byte ends the data of its line, whatever follows;
//   - the first "=" ends all data, in any place of a group, and nothing
//     behind it is looked at;
//   - data that end inside a group without a "=" are bad, and the bytes
//     decoded so far are dropped.
#include "codecs/base64.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <string_view>

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define SMTPFM_BASE64_AVX2 1
#endif

namespace {

// Lines are read in pieces of this size; a longer line is bad data.
constexpr uint32_t line_limit = 1024;
// The decoder's output goes through a buffer of this fixed size.
constexpr size_t output_block = 16384;
// The encoder reads this much at a time: whole output lines of input.
constexpr size_t input_block = smtp_base64_line_bytes * 18;

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Entries of the stream table beside the values 0 to 63.
constexpr uint8_t skip = 0xfd;         // blank: ignored
constexpr uint8_t end_of_line = 0xfe;  // CR, LF, zero byte: the rest of the line is no data
constexpr uint8_t end_of_data = 0xfc;  // "=": no data follow at all
constexpr uint8_t invalid = 0xff;

constexpr std::array<uint8_t, 256> make_table() {
  std::array<uint8_t, 256> table{};
  for (auto& entry : table) entry = invalid;
  for (int i = 0; i < 64; ++i) table[static_cast<uint8_t>(alphabet[i])] = static_cast<uint8_t>(i);
  table['\t'] = skip;
  table[' '] = skip;
  table[0] = end_of_line;
  table['\n'] = end_of_line;
  table['\r'] = end_of_line;
  table['='] = end_of_data;
  return table;
}
constexpr std::array<uint8_t, 256> table = make_table();

#ifdef SMTPFM_BASE64_AVX2
// Decodes blocks of 32 characters of the alphabet into 24 bytes each, as
// long as whole blocks of nothing but the alphabet follow and `room` bytes
// of output hold 32 more, and the whole groups of the alphabet that end
// the run. Returns the number of characters decoded. (The
// translation and check by nibble lookups follow Mula and Lemire, "Faster
// Base64 encoding and decoding using AVX2 instructions", 2018.)
__attribute__((target("avx2"))) size_t decode_blocks_avx2(const uint8_t* p, size_t count, uint8_t* o,
                                                          size_t room) {
  // Bit i of lookup_low[low nibble] and lookup_high[high nibble] are both
  // set only for bytes outside the alphabet.
  const __m256i lookup_low = _mm256_setr_epi8(
      0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1a, 0x1b, 0x1b, 0x1b, 0x1a, 0x15,
      0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1a, 0x1b, 0x1b, 0x1b, 0x1a);
  const __m256i lookup_high = _mm256_setr_epi8(
      0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10,
      0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10);
  // What to add to a character, by its high nibble ("/" apart), to get its
  // value.
  const __m256i shift = _mm256_setr_epi8(0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0, 0, 16, 19,
                                         4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0);
  const __m256i slash = _mm256_set1_epi8(0x2f);
  const __m256i order = _mm256_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1, 2, 1, 0, 6,
                                         5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
  const __m256i lanes = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 7, 7);
  size_t done = 0;
  bool tail = false;
  size_t finish = 0;  // what a tail block ends the run with
  for (;;) {
    const size_t left = count - done;
    const uint8_t* from = p + done;
    uint8_t* to = o;
    if (left < 32 || room < 32) {
      // Whole groups short of a block at the end of a line: the last 32
      // characters are decoded once more, with their first part again.
      if (tail || left >= 32 || left == 0 || left % 4 != 0 || count < 32) break;
      const size_t again = (32 - left) / 4 * 3;
      if (room + again < 32) break;
      from = p + count - 32;
      to = o - again;
      finish = count;
      tail = true;
    }
    __m256i text = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from));
    __m256i high = _mm256_and_si256(_mm256_srli_epi32(text, 4), slash);
    const __m256i low = _mm256_and_si256(text, slash);
    const __m256i bad =
        _mm256_and_si256(_mm256_shuffle_epi8(lookup_low, low), _mm256_shuffle_epi8(lookup_high, high));
    if (!_mm256_testz_si256(bad, bad)) {
      // The block holds the end of the line's data: where its first k
      // characters make whole groups, the 32 characters that end with
      // them are decoded once more, with their first part again.
      const uint32_t good =
          static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(bad, _mm256_setzero_si256())));
      const unsigned k = static_cast<unsigned>(__builtin_ctz(~good));
      if (tail || k == 0 || k % 4 != 0 || done + k < 32) break;
      finish = done + k;
      from = p + finish - 32;
      to += k / 4 * 3;
      to -= 24;
      tail = true;
      text = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from));
      high = _mm256_and_si256(_mm256_srli_epi32(text, 4), slash);
    }
    const __m256i roll = _mm256_shuffle_epi8(shift, _mm256_add_epi8(_mm256_cmpeq_epi8(text, slash), high));
    const __m256i values = _mm256_add_epi8(text, roll);
    // Four 6-bit values to one 24-bit number per 32-bit lane, then its
    // three bytes in order, packed together.
    const __m256i pairs = _mm256_maddubs_epi16(values, _mm256_set1_epi32(0x01400140));
    const __m256i groups = _mm256_madd_epi16(pairs, _mm256_set1_epi32(0x00011000));
    const __m256i bytes = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(groups, order), lanes);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), bytes);
    if (tail) return finish;
    o += 24;
    room -= 24;
    done += 32;
  }
  return done;
}

// Asked once, at load; the detection must be run first, since this
// initialiser may run before the one of the runtime library that does it.
const bool have_avx2 = [] {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") != 0;
}();
#endif

// Decodes whole groups of the alphabet from `p`, as many as `count`
// characters and `room` bytes of output hold, up to the first group that
// holds anything else; returns the number of characters decoded.
size_t decode_groups(const uint8_t* p, size_t count, uint8_t* o, size_t room) {
  size_t done = 0;
#ifdef SMTPFM_BASE64_AVX2
  if (have_avx2 && count >= 32) done = decode_blocks_avx2(p, count, o, room);
#endif
  const uint8_t* q = p + done;
  o += done / 4 * 3;
  for (size_t groups = std::min((count - done) / 4, (room - done / 4 * 3) / 3); groups != 0; --groups) {
    const uint32_t a = table[q[0]], b = table[q[1]], c = table[q[2]], d = table[q[3]];
    if ((a | b | c | d) & 0xc0) break;
    const uint32_t bits = a << 18 | b << 12 | c << 6 | d;
    o[0] = static_cast<uint8_t>(bits >> 16);
    o[1] = static_cast<uint8_t>(bits >> 8);
    o[2] = static_cast<uint8_t>(bits);
    o += 3;
    q += 4;
  }
  return static_cast<size_t>(q - p);
}

// The decoder's state: it outlives a line, since a group of four
// characters may be spread over several.
struct Decoder {
  Decoder(Vek_ostream& out, bool lenient, bool past_padding)
      : out(out), lenient(lenient), past_padding(lenient && past_padding) {}

  // Writes out the buffer; false, with `failure` set, if that fails.
  bool flush() {
    if (used != 0) out.write(used, bytes, failure);
    used = 0;
    return failure.ok();
  }

  enum Stop { go_on, padding, bad_byte, write_failed };

  // Decodes the data of one line.
  Stop line(const uint8_t* p, const uint8_t* end) {
    while (p < end) {
      // Whole groups of four values, while the buffer has room for them.
      if (group == 0) {
        const size_t n = decode_groups(p, end - p, bytes + used, output_block - used);
        p += n;
        used += n / 4 * 3;
        if (output_block - used < 3 && !flush()) return write_failed;
        if (p == end) break;
      }
      // One byte at a time: blanks, a group that spans lines, the end.
      const uint8_t value = table[*p++];
      if (value < 64) {
        switch (group) {
          case 0:
            break;
          case 1:
            bytes[used++] = static_cast<uint8_t>(previous << 2 | value >> 4);
            break;
          case 2:
            bytes[used++] = static_cast<uint8_t>(previous << 4 | value >> 2);
            break;
          case 3:
            bytes[used++] = static_cast<uint8_t>(previous << 6 | value);
            break;
        }
        previous = value;
        group = (group + 1) & 3;
        if (output_block - used < 3 && !flush()) return write_failed;
      } else if (value == end_of_line) {
        break;
      } else if (value == end_of_data) {
        if (past_padding && group >= 2) {
          // The group ends here with the bytes it gave; the next begins
          // behind the padding.
          group = 0;
        } else if (!lenient || group >= 2) {
          stopped_at = p;
          return padding;
        } else {
          irregular = true;
        }
      } else if (value == invalid) {
        if (!lenient) return bad_byte;
        irregular = true;
      }
    }
    return go_on;
  }

  // Decodes the lines from `p`, the start of a line where no group is
  // open, as long as each begins before `stop` and holds nothing but
  // whole groups of the alphabet, fewer than line_limit of them, ended by
  // a line end of the stream (`crlf_only`: CR LF, else LF or CR LF). These
  // are the lines that line() decodes without a choice to make; returns
  // the start of the first other line, where line() takes over. A failed
  // write stops it, with `failure` set.
  const uint8_t* whole_lines(const uint8_t* p, const uint8_t* end, const uint8_t* stop, bool crlf_only) {
    while (p < stop) {
      // Room for a whole line, and for the 8 bytes that a block store
      // writes beyond its 24.
      if (output_block - used < line_limit && !flush()) return p;
      const size_t window = std::min<size_t>(end - p, line_limit);
      const size_t n = decode_groups(p, window, bytes + used, output_block - used);
      const uint8_t* const q = p + n;
      size_t line_end = 0;
      if (q - p < static_cast<ptrdiff_t>(line_limit)) {
        if (end - q >= 2 && q[0] == '\r' && q[1] == '\n')
          line_end = 2;
        else if (!crlf_only && end - q >= 1 && q[0] == '\n')
          line_end = 1;
      }
      // Anything else (a blank, a "=", a group cut short, a long line, the
      // last line of the data) is line()'s, and what was written goes.
      if (line_end == 0) return p;
      used += n / 4 * 3;
      p = q + line_end;
    }
    return p;
  }

  Vek_ostream& out;
  const bool lenient;
  const bool past_padding;
  // Behind the "=" that ended the data, once one has.
  const uint8_t* stopped_at = nullptr;
  // Lenient decoding passed over something that strict decoding refuses.
  bool irregular = false;
  // On the stack: a body per part, and many parts are small, so a block
  // from the heap would cost more than decoding them.
  uint8_t bytes[output_block];
  size_t used = 0;
  unsigned group = 0;    // place in the group of four: 0 to 3
  uint8_t previous = 0;  // the value before, whose low bits are not yet out
  Vek_status failure;
};

}  // namespace

uint64_t decode_base64(Vek_istream& in, Vek_ostream& out, uint64_t start, uint64_t length,
                       Vek_status& status, bool lenient) {
  Smtp_base64_reading reading;
  reading.lenient = lenient;
  return decode_base64(in, out, start, length, status, reading);
}

uint64_t decode_base64(Vek_istream& in, Vek_ostream& out, uint64_t start, uint64_t length, Vek_status& status,
                       Smtp_base64_reading& reading) {
  status.clear();
  const bool lenient = reading.lenient;
  reading.data_end = start;
  in.seek(0, static_cast<int64_t>(std::min<uint64_t>(start, INT64_MAX)), status);
  if (!status.ok()) return out.tell();
  const uint64_t stop_at = length > UINT64_MAX - start ? UINT64_MAX : start + length;
  Decoder decoder(out, lenient, reading.past_padding);
  Decoder::Stop stop = Decoder::go_on;
  bool data_ended = true;  // false when decoding stopped for another reason
  std::string_view line;
  uint64_t line_start = start;
  // Lines of whole groups are decoded straight from the buffer; after a
  // line that is not one, line() reads a few before they are tried again.
  const Vek_buffer* source = in.buffer();
  const uint8_t* const base = reading.line_by_line || source == nullptr ? nullptr : source->data();
  const uint64_t size = base != nullptr ? source->size() : 0;
  constexpr unsigned lines_before_retry = 8;
  unsigned line_by_line = 0;
  while (stop == Decoder::go_on && in.tell() < stop_at) {
    if (base != nullptr && decoder.group == 0 && line_by_line == 0 && in.tell() < size) {
      const uint8_t* from = base + in.tell();
      const uint8_t* to = decoder.whole_lines(from, base + size, base + std::min(stop_at, size),
                                              in.eol() == vek_eol_crlf);
      if (!decoder.failure.ok()) {
        stop = Decoder::write_failed;
        break;
      }
      if (to == from) line_by_line = lines_before_retry;
      in.seek(static_cast<uint64_t>(to - base));
      if (in.tell() >= stop_at) break;
    } else if (line_by_line != 0) {
      --line_by_line;
    }
    line_start = in.tell();
    in.readln_view(line_limit, line, status);
    bool last = false;
    if (status == vek_line_too_long) {
      if (line.size() >= line_limit && lenient) {
        // The rest of the line comes with the next read.
        decoder.irregular = true;
        status.clear();
      } else if (line.size() >= line_limit) {
        status = smtp_bad_base64;
        data_ended = false;
        break;
      }
      status.clear();
    } else if (status == vek_end_of_stream) {
      status.clear();
      last = true;
    } else if (!status.ok()) {
      data_ended = false;
      break;
    }
    const auto* p = reinterpret_cast<const uint8_t*>(line.data());
    stop = decoder.line(p, p + line.size());
    if (last) break;
  }
  reading.data_end = in.tell();
  if (stop == Decoder::padding && decoder.stopped_at != nullptr) {
    // Behind the padding and any "=" that follows it on its line.
    const auto* p = reinterpret_cast<const uint8_t*>(line.data());
    size_t at = static_cast<size_t>(decoder.stopped_at - p);
    while (at < line.size() && line[at] == '=') ++at;
    reading.data_end = line_start + at;
  }
  if (stop == Decoder::bad_byte) {
    status = smtp_bad_base64;
  } else if (stop == Decoder::write_failed) {
    status = decoder.failure;
    return out.tell();
  } else if (stop == Decoder::go_on && data_ended && decoder.group != 0) {
    // The data end inside a group: strictly, what was decoded goes nowhere.
    if (!lenient) {
      status = smtp_bad_base64;
      return out.tell();
    }
    decoder.irregular = true;
  }
  if (!decoder.flush() && status.ok()) status = decoder.failure;
  if (status.ok() && decoder.irregular) status = smtp_bad_base64;
  return out.tell();
}

void encode_base64(Vek_istream& in, Vek_ostream& out, uint64_t length, Vek_status& status) {
  status.clear();
  if (length == 0) return;
  std::array<uint8_t, input_block> input;
  char line[smtp_base64_line];
  Vek_status written;
  uint64_t done = 0;
  bool ended = false;
  while (done < length && !ended) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(length - done, input_block));
    const size_t n = in.read(want, input.data(), status);
    if (status == vek_end_of_stream || status == vek_line_too_long) {
      ended = status == vek_end_of_stream || n == 0;
      status.clear();
    } else if (!status.ok()) {
      return;
    } else if (n == 0) {
      ended = true;
    }
    done += n;
    // Whole lines of 57 bytes; a shorter line only at the end.
    for (size_t at = 0; at < n; at += smtp_base64_line_bytes) {
      const size_t count = std::min(n - at, smtp_base64_line_bytes);
      const uint8_t* p = input.data() + at;
      char* o = line;
      size_t i = 0;
      for (; i + 3 <= count; i += 3) {
        const uint32_t bits = uint32_t{p[i]} << 16 | uint32_t{p[i + 1]} << 8 | p[i + 2];
        o[0] = alphabet[bits >> 18];
        o[1] = alphabet[(bits >> 12) & 0x3f];
        o[2] = alphabet[(bits >> 6) & 0x3f];
        o[3] = alphabet[bits & 0x3f];
        o += 4;
      }
      if (i < count) {
        // One byte left gives two characters and "=="; two give three and "=".
        const uint32_t bits = uint32_t{p[i]} << 16 | (i + 1 < count ? uint32_t{p[i + 1]} << 8 : 0);
        o[0] = alphabet[bits >> 18];
        o[1] = alphabet[(bits >> 12) & 0x3f];
        o[2] = i + 1 < count ? alphabet[(bits >> 6) & 0x3f] : '=';
        o[3] = '=';
        o += 4;
      }
      out.writeln(std::string_view(line, o - line), written);
      if (!written.ok()) {
        status = written;
        return;
      }
    }
  }
  if (ended && done < length) status = smtp_base64_encoder_end;
}
