// The decoder of encoded words under arbitrary header values.
//
// Invariants: decode_encoded_words, next_encoded_word, decode_q_text,
// is_valid_b_text and decode_b_text give exactly what the rules give when
// they are applied naively (every search from the front, no remembered
// positions); a value without "=?" comes out widened byte for byte.
#include <cstdint>
#include <string>
#include <string_view>

#include "codecs/encoded_words.h"
#include "contracts/mib.h"
#include "contracts/vek.h"
#include "fuzz/fuzz_check.h"

namespace {

constexpr size_t npos = std::string_view::npos;

struct Word {
  bool found = false;
  size_t start = 0, end = 0;
  std::string charset, encoding, text;
  bool operator==(const Word&) const = default;
};

size_t naive_marker(std::string_view value, size_t from) {
  for (size_t i = from; i + 3 <= value.size(); ++i) {
    const char letter = value[i + 1];
    if (value[i] == '?' && value[i + 2] == '?' &&
        (letter == 'Q' || letter == 'q' || letter == 'B' || letter == 'b'))
      return i;
  }
  return npos;
}

Word naive_next_word(std::string_view value, size_t position) {
  Word word;
  if (position >= value.size()) return word;
  const size_t start = value.find("=?", position);
  if (start == npos) return word;
  const size_t marker = naive_marker(value, start + 2);
  const size_t close = value.find("?=", marker == npos ? start + 2 : marker + 3);
  if (close == npos || close + 2 - start > smtp_max_encoded_word) return word;
  word.found = true;
  word.start = start;
  word.end = close + 2;
  if (marker != npos) {
    word.charset = value.substr(start + 2, marker - start - 2);
    word.encoding = (value[marker + 1] == 'Q' || value[marker + 1] == 'q') ? "Q" : "B";
    word.text = value.substr(marker + 3, close - marker - 3);
  }
  return word;
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

bool naive_q(std::string_view text, std::string& bytes) {
  bytes.clear();
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\0') break;
    if (text[i] == '_') {
      bytes += ' ';
    } else if (text[i] == '=') {
      if (i + 2 >= text.size() || hex_digit(text[i + 1]) < 0 || hex_digit(text[i + 2]) < 0) return false;
      const int byte = hex_digit(text[i + 1]) * 16 + hex_digit(text[i + 2]);
      bytes += byte == 0 ? ' ' : static_cast<char>(byte);
      i += 2;
    } else {
      bytes += text[i];
    }
  }
  return true;
}

// 0 to 63, 0xfe for a stop byte, 0xff for an invalid one.
int b_entry(char c) {
  static const std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  if (c == '\0' || c == '\n' || c == '=') return 0xfe;
  const size_t at = alphabet.find(c);
  return at == npos ? 0xff : static_cast<int>(at);
}

bool naive_b_valid(std::string_view text) {
  if (text.empty() || text.size() % 4 != 0) return false;
  for (char c : text) {
    if (b_entry(c) == 0xfe) return true;
    if (b_entry(c) == 0xff) return false;
  }
  return true;
}

bool naive_b(std::string_view text, std::string& bytes) {
  bytes.clear();
  if (!naive_b_valid(text)) return false;
  for (size_t i = 0; i + 4 <= text.size(); i += 4) {
    int v[4];
    for (int k = 0; k < 4; ++k) v[k] = b_entry(text[i + k]);
    if (v[0] == 0xfe || v[1] == 0xfe) break;
    bytes += static_cast<char>((v[0] << 2) | (v[1] >> 4));
    if (v[2] == 0xfe) break;
    bytes += static_cast<char>(((v[1] << 4) | (v[2] >> 2)) & 0xff);
    if (v[3] == 0xfe) break;
    bytes += static_cast<char>(((v[2] << 6) | v[3]) & 0xff);
  }
  return true;
}

bool naive_decode_word(const Word& word, Vek_wstring& wide) {
  Vek_status status;
  Mib_charset charset = mib_display_name(vek_stow(word.charset), status);
  if (!status.ok()) {
    if (!vek_string_equal_nc(word.charset, "ascii")) return false;
    status.clear();
    charset = 0;
  }
  std::string bytes;
  if (!(vek_string_equal_nc(word.encoding, "Q") ? naive_q(word.text, bytes) : naive_b(word.text, bytes)))
    return false;
  return mib_charset_to_unicode(charset, bytes, wide, status) && status.ok();
}

Vek_wstring naive_decode(std::string_view value) {
  Vek_wstring result;
  size_t position = 0;
  size_t previous_end = npos;
  while (position < value.size()) {
    const Word word = naive_next_word(value, position);
    if (!word.found) {
      result += vek_stow(value.substr(position));
      break;
    }
    Vek_wstring wide;
    if (!naive_decode_word(word, wide)) {
      result += vek_stow(value.substr(position, word.end - position));
      position = word.end;
      previous_end = npos;
      continue;
    }
    if (previous_end != npos) {
      const std::string_view between = value.substr(previous_end, word.start - previous_end);
      if (between.find_first_not_of(" \t\r\n") == npos) position = word.start;
    }
    result += vek_stow(value.substr(position, word.start - position));
    result += wide;
    position = previous_end = word.end;
  }
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const std::string_view value(reinterpret_cast<const char*>(bytes), size);

  Vek_wstring result;
  decode_encoded_words(value, result);
  FUZZ_CHECK(result == naive_decode(value), "decode_encoded_words of %zu bytes", size);
  if (value.find("=?") == npos) FUZZ_CHECK(result == vek_stow(value), "a value without words changed");

  // Every word the naive search finds, from every start that matters.
  std::string q, b, naive;
  for (size_t position = 0; position <= value.size();) {
    Word word;
    word.found =
        next_encoded_word(value, position, word.start, word.end, word.charset, word.encoding, word.text);
    const Word want = naive_next_word(value, position);
    if (!want.found) {
      FUZZ_CHECK(!word.found, "a word found at %zu that is none", word.start);
      break;
    }
    FUZZ_CHECK(word == want, "the word from %zu: at %zu..%zu, want %zu..%zu", position, word.start, word.end,
               want.start, want.end);
    FUZZ_CHECK(decode_q_text(word.text, q) == naive_q(word.text, naive) && q == naive, "decode_q_text");
    FUZZ_CHECK(is_valid_b_text(word.text) == naive_b_valid(word.text), "is_valid_b_text");
    FUZZ_CHECK(decode_b_text(word.text, b) == naive_b(word.text, naive) && b == naive, "decode_b_text");
    position = word.start + 1;
  }
  // The whole value as the text of one word.
  FUZZ_CHECK(decode_q_text(value, q) == naive_q(value, naive) && q == naive, "decode_q_text of the value");
  FUZZ_CHECK(is_valid_b_text(value) == naive_b_valid(value), "is_valid_b_text of the value");
  FUZZ_CHECK(decode_b_text(value, b) == naive_b(value, naive) && b == naive, "decode_b_text of the value");
  return 0;
}
