// Quoted-printable (RFC 1521, section 5.1):
//
//   quoted-printable := ([*(ptext / SPACE / TAB) ptext] ["="] CRLF)
//                       ; Maximum line length of 76 characters excluding CRLF
//   ptext            := octet / <any ASCII character except "=", SPACE, or TAB>
//   octet            := "=" 2(DIGIT / "A" / "B" / "C" / "D" / "E" / "F")
//
// Where this code knowingly deviates from the RFC:
//   - the decoder takes lower-case hexadecimal digits too, and passes a bad
//     escape through as it stands instead of failing;
//   - the decoder keeps blanks at the end of a line (the RFC would delete
//     them as added by a gateway) and takes "=" CR and any byte behind it
//     for a soft line break;
//   - the encoder escapes nothing for safety beyond what the RFC requires:
//     no "From " at a line start, no lone dot, none of the characters that
//     some gateways change;
//   - the encoder leaves a blank at the very end of the data, where no line
//     end follows, unescaped.
#include "codecs/quoted_printable.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <string>

namespace {

// Fixed buffer sizes, so that memory does not grow with the body.
constexpr size_t input_block = 1024;
constexpr size_t output_block = 16384;

constexpr char hex_digits[] = "0123456789ABCDEF";

// A line that ends in a blank and a hard line break is this long or
// longer: the blank goes to a line of its own behind a soft line break, so
// that a line with an escaped blank at its end stays within 75 bytes.
constexpr size_t soft_break_before_blank = 74;

int hex_value(uint8_t c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// Collects decoded bytes and writes them out whenever the block is full.
class Output_block {
 public:
  explicit Output_block(Vek_ostream& out) : out_(out) {}

  // False once a write has failed; `failure` then holds its status.
  bool put(uint8_t byte) {
    if (used_ == output_block && !flush()) return false;
    bytes_[used_++] = byte;
    return true;
  }
  bool put(const uint8_t* bytes, size_t count) {
    while (count != 0) {
      if (used_ == output_block && !flush()) return false;
      const size_t n = std::min(count, output_block - used_);
      std::memcpy(bytes_ + used_, bytes, n);
      used_ += n;
      bytes += n;
      count -= n;
    }
    return true;
  }
  bool flush() {
    if (used_ != 0) out_.write(used_, bytes_, failure);
    used_ = 0;
    return failure.ok();
  }

  Vek_status failure;

 private:
  Vek_ostream& out_;
  // On the stack: a body per part, and many parts are small, so a block
  // from the heap would cost more than decoding them.
  uint8_t bytes_[output_block];
  size_t used_ = 0;
};

// Where the decoder stands between two input bytes.
enum class Qp_state {
  text,           // outside an escape
  after_equals,   // behind "=", waiting for N
  after_soft_cr,  // behind "=" CR: the next byte is dropped
  after_digit,    // behind "=" and a hexadecimal digit N, waiting for M
  after_blanks,   // behind "=" and blanks, with padded breaks: a soft line break if CR follows
};

// Blanks held behind a "=" while it may still be a padded soft line break;
// a longer run goes out as text, since no line of an encoder is that long.
constexpr size_t max_held_blanks = 1024;

}  // namespace

uint64_t decode_quoted_printable(Vek_istream& in, Vek_ostream& out, uint64_t start, uint64_t length,
                                 Vek_status& status, bool lenient, bool padded_breaks) {
  status.clear();
  in.seek(0, static_cast<int64_t>(std::min<uint64_t>(start, INT64_MAX)), status);
  if (!status.ok()) return out.tell();
  std::array<uint8_t, input_block> input;
  Output_block output(out);
  Qp_state state = Qp_state::text;
  uint8_t digit = 0;  // N, while waiting for M
  std::string blanks;  // behind "=", while after_blanks
  bool written = true;
  uint64_t remaining = length;
  while (remaining != 0 && status.ok() && written) {
    const size_t n =
        in.read(static_cast<size_t>(std::min<uint64_t>(remaining, input_block)), input.data(), status);
    remaining -= n;
    size_t i = 0;
    while (i < n && written) {
      const uint8_t c = input[i];
      switch (state) {
        case Qp_state::text: {
          const void* equals = std::memchr(input.data() + i, '=', n - i);
          const size_t stop =
              equals == nullptr ? n : static_cast<size_t>(static_cast<const uint8_t*>(equals) - input.data());
          written = output.put(input.data() + i, stop - i);
          i = stop;
          if (equals == nullptr) break;
          if (stop + 2 < n) {
            // The common cases at once, when the whole escape is at hand.
            const uint8_t first = input[stop + 1], second = input[stop + 2];
            const int high = hex_value(first), low = hex_value(second);
            if (first == '\r') {
              i = stop + 3;
              break;
            }
            if (high >= 0 && low >= 0) {
              written = output.put(static_cast<uint8_t>(high * 16 + low));
              i = stop + 3;
              break;
            }
          }
          state = Qp_state::after_equals;
          ++i;
          break;
        }
        case Qp_state::after_equals:
          if (c == '\r') {
            state = Qp_state::after_soft_cr;
            ++i;
          } else if (padded_breaks && c == '\n') {
            state = Qp_state::text;
            ++i;
          } else if (padded_breaks && (c == ' ' || c == '\t')) {
            blanks.assign(1, static_cast<char>(c));
            state = Qp_state::after_blanks;
            ++i;
          } else if (hex_value(c) < 0) {
            // Not an escape: the "=" stays, and N is looked at again.
            written = output.put('=');
            state = Qp_state::text;
          } else {
            digit = c;
            state = Qp_state::after_digit;
            ++i;
          }
          break;
        case Qp_state::after_blanks:
          if ((c == ' ' || c == '\t') && blanks.size() < max_held_blanks) {
            blanks.push_back(static_cast<char>(c));
            ++i;
          } else if (c == '\r' || c == '\n') {
            // A soft line break padded in transit: the blanks go with it.
            state = c == '\r' ? Qp_state::after_soft_cr : Qp_state::text;
            ++i;
          } else {
            // Not a line break: the "=" and the blanks stay as they are.
            written =
                output.put('=') && output.put(reinterpret_cast<const uint8_t*>(blanks.data()), blanks.size());
            state = Qp_state::text;
          }
          break;
        case Qp_state::after_soft_cr:
          ++i;  // the line feed of the soft line break, or whatever stands there
          state = Qp_state::text;
          break;
        case Qp_state::after_digit:
          if (hex_value(c) >= 0) {
            written = output.put(static_cast<uint8_t>(hex_value(digit) * 16 + hex_value(c)));
            ++i;
          } else {
            // "=" and N stay as they are, and M is looked at again.
            written = output.put('=') && output.put(digit);
          }
          state = Qp_state::text;
          break;
      }
    }
  }
  // Blanks behind a "=" at the very end: a soft line break padded in
  // transit, with nothing behind it.
  if (state == Qp_state::after_blanks) state = Qp_state::text;
  if (state != Qp_state::text && written && (status.ok() || status == vek_end_of_stream)) {
    if (lenient && state == Qp_state::after_equals) written = output.put('=');
    if (lenient && state == Qp_state::after_digit) written = output.put('=') && output.put(digit);
    status = smtp_qp_end_in_escape;
  }
  if (written) written = output.flush();
  if (!written && (status.ok() || status == vek_end_of_stream)) status = output.failure;
  if (status == vek_end_of_stream) status.clear();
  return out.tell();
}

void escape_byte(uint8_t byte, std::string& text) {
  text.assign({'=', hex_digits[byte >> 4], hex_digits[byte & 0x0f]});
}

namespace {

// Bytes that stand for themselves in the encoding: the printable ASCII
// characters other than "=", and the two blanks (RFC 1521, rules 2 and 3).
constexpr std::array<bool, 256> make_literal_table() {
  std::array<bool, 256> table{};
  for (int c = 0x21; c <= 0x7e; ++c) table[c] = c != '=';
  table[' '] = true;
  table['\t'] = true;
  return table;
}
constexpr std::array<bool, 256> literal = make_literal_table();

// The encoder's output line, with the carry that moves to the next line
// when a soft line break is made.
class Qp_line_writer {
 public:
  explicit Qp_line_writer(Vek_ostream& out) : out_(out) {}

  // False once a write has failed; `failure` then holds its status.
  bool add(uint8_t c) {
    if (!literal[c]) {
      char escape[3] = {'=', hex_digits[c >> 4], hex_digits[c & 0x0f]};
      if (length_ <= smtp_qp_max_line - 3) {
        append(line_, length_, escape, 3);
      } else if (length_ < smtp_qp_max_line) {
        line_[length_++] = '=';
        append(carry_, carry_length_, escape, 3);
      } else {
        move_last_unit();
        line_[length_++] = '=';
        append(carry_, carry_length_, escape, 3);
      }
      last_unit_ = 3;
    } else {
      if (length_ == smtp_qp_max_line) {
        move_last_unit();
        line_[length_++] = '=';
        carry_[carry_length_++] = static_cast<char>(c);
      } else {
        line_[length_++] = static_cast<char>(c);
      }
      last_unit_ = 1;
    }
    if (carry_length_ == 0) return true;
    if (!writeln()) return false;
    std::memcpy(line_, carry_, carry_length_);
    length_ = carry_length_;
    carry_length_ = 0;
    return true;
  }

  // A hard line break. A blank must not end an encoded line (rule 3), so
  // the last one is escaped; where the escape would not fit, it goes onto
  // a line of its own behind a soft line break.
  bool end_line() {
    if (length_ != 0 && (line_[length_ - 1] == ' ' || line_[length_ - 1] == '\t')) {
      const auto blank = static_cast<uint8_t>(line_[length_ - 1]);
      if (length_ >= soft_break_before_blank) {
        line_[length_ - 1] = '=';
        if (!writeln()) return false;
        length_ = 0;
      } else {
        --length_;
      }
      const char escape[3] = {'=', hex_digits[blank >> 4], hex_digits[blank & 0x0f]};
      append(line_, length_, escape, 3);
    }
    if (!writeln()) return false;
    length_ = 0;
    return true;
  }

  // The data have ended: what is left goes out with no line end.
  bool finish() {
    if (length_ != 0) out_.write(length_, line_, failure);
    length_ = 0;
    return failure.ok();
  }

  Vek_status failure;

 private:
  static void append(char* to, size_t& length, const char* bytes, size_t count) {
    std::memcpy(to + length, bytes, count);
    length += count;
  }
  void move_last_unit() {
    length_ -= last_unit_;
    append(carry_, carry_length_, line_ + length_, last_unit_);
  }
  bool writeln() {
    out_.writeln(std::string_view(line_, length_), failure);
    return failure.ok();
  }

  Vek_ostream& out_;
  char line_[smtp_qp_max_line + 4];
  size_t length_ = 0;
  char carry_[8];
  size_t carry_length_ = 0;
  size_t last_unit_ = 1;  // length of the last thing put on the line: 1 or 3
};

}  // namespace

void encode_quoted_printable(Vek_istream& in, Vek_ostream& out, Vek_status& status) {
  status.clear();
  std::array<uint8_t, input_block + 1> input;
  Qp_line_writer line(out);
  size_t count = 0;  // bytes in `input`
  bool ended = false;
  while (!ended) {
    count += in.read(input_block + 1 - count, input.data() + count, status);
    if (!status.ok()) {
      if (status != vek_end_of_stream) return;
      ended = true;
    }
    // A CR at the end of the block is kept back until the byte behind it
    // is known, unless the data end there.
    const size_t usable = (!ended && count != 0 && input[count - 1] == '\r') ? count - 1 : count;
    for (size_t i = 0; i < usable; ++i) {
      const uint8_t c = input[i];
      bool ok;
      if (c == '\r' && i + 1 < count && input[i + 1] == '\n') {
        ok = line.end_line();
        ++i;
      } else {
        ok = line.add(c);
      }
      if (!ok) {
        status = line.failure;
        return;
      }
    }
    std::memmove(input.data(), input.data() + usable, count - usable);
    count -= usable;
  }
  status.clear();
  if (!line.finish()) status = line.failure;
}
