// RFC 2047 encoded words:
//
//   encoded-word = "=?" charset "?" encoding "?" encoded-text "?="
//   encoding     = "Q" / "B"      (either case)
//
// Where this decoder knowingly deviates from the RFC, to be lenient with
// real mail:
//   - words are found anywhere in a value, also inside comments, quoted
//     strings and other words, and need no white space around them;
//   - charset and text are not checked for their allowed characters: the
//     charset goes to the character set library as it stands, and in a Q
//     text every byte other than "=" and "_" passes unchanged;
//   - "=00" in a Q text gives a space, and a zero byte ends the text;
//   - a B text decodes up to its first "=" or zero byte, and what follows
//     is not looked at;
//   - "ascii" is taken for US-ASCII even when the library has no such name;
//   - one word that is too long, or a "=?" that is never closed, ends all
//     decoding of the value: the rest goes through as it stands.
#include "codecs/encoded_words.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

#include "contracts/mib.h"

namespace {

constexpr std::string_view word_open = "=?";
constexpr std::string_view word_close = "?=";

// Base64 values of the B encoding, for the 128 bytes of ASCII; every byte
// from 0x80 up is invalid as well. A zero byte (the end of the text), a
// line feed and "=" stop the text; anything else not in the alphabet makes
// it invalid. This is not the table of the body decoder, which skips
// blanks and line ends.
constexpr uint8_t b_stop = 0xfe;
constexpr uint8_t b_invalid = 0xff;

constexpr std::array<uint8_t, 128> make_b_table() {
  std::array<uint8_t, 128> table{};
  for (auto& entry : table) entry = b_invalid;
  constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (size_t i = 0; i < alphabet.size(); ++i)
    table[static_cast<uint8_t>(alphabet[i])] = static_cast<uint8_t>(i);
  table[0] = b_stop;
  table['\n'] = b_stop;
  table['='] = b_stop;
  return table;
}
constexpr std::array<uint8_t, 128> b_table = make_b_table();

uint8_t b_value(char c) {
  const auto byte = static_cast<uint8_t>(c);
  return byte < 0x80 ? b_table[byte] : b_invalid;
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// The first encoding marker ("?Q?", "?q?", "?B?", "?b?") at or behind a
// position. `from` and `at` remember the last answer: positions only grow
// while one value is decoded, and the first marker behind `from` is still
// the first one behind any later position up to it. Without this, a long
// value full of words without markers would be searched to its end once
// per word.
struct Marker_search {
  size_t from = std::string_view::npos;
  size_t at = std::string_view::npos;
};

size_t find_marker(std::string_view value, size_t position, Marker_search& memo) {
  if (memo.from != std::string_view::npos && memo.from <= position &&
      (memo.at == std::string_view::npos || memo.at >= position)) {
    return memo.at;
  }
  size_t found = std::string_view::npos;
  size_t i = position;
  while (i + 3 <= value.size()) {
    const void* hit = std::memchr(value.data() + i, '?', value.size() - 2 - i);
    if (hit == nullptr) break;
    i = static_cast<size_t>(static_cast<const char*>(hit) - value.data());
    const char letter = value[i + 1];
    if ((letter == 'Q' || letter == 'q' || letter == 'B' || letter == 'b') && value[i + 2] == '?') {
      found = i;
      break;
    }
    ++i;
  }
  memo.from = position;
  memo.at = found;
  return found;
}

bool find_word(std::string_view value, size_t position, Marker_search& memo, size_t& start, size_t& end,
               std::string& charset, std::string& encoding, std::string& text) {
  charset.clear();
  encoding.clear();
  text.clear();
  if (position >= value.size()) return false;
  start = value.find(word_open, position);
  if (start == std::string_view::npos) return false;
  const size_t marker = find_marker(value, start + 2, memo);
  // Only a "?=" that lies wholly within the longest word can close it; one
  // further on, or none, leaves no usable word.
  const std::string_view window = value.substr(0, std::min(value.size(), start + smtp_max_encoded_word));
  const size_t close = window.find(word_close, marker == std::string_view::npos ? start + 2 : marker + 3);
  if (close == std::string_view::npos) return false;
  end = close + 2;
  // Without a marker the word is still one, so that it can be passed over,
  // but it has no charset and no text and will not decode.
  if (marker == std::string_view::npos) return true;
  charset.assign(value.substr(start + 2, marker - start - 2));
  encoding = (value[marker + 1] == 'Q' || value[marker + 1] == 'q') ? "Q" : "B";
  text.assign(value.substr(marker + 3, close - marker - 3));
  return true;
}

// Decodes one word into wide text; false if it is bad.
bool decode_word(const std::string& charset, const std::string& encoding, const std::string& text,
                 std::string& bytes, Vek_wstring& wide) {
  const bool decoded =
      vek_string_equal_nc(encoding, "Q") ? decode_q_text(text, bytes) : decode_b_text(text, bytes);
  return decoded && charset_to_wide(charset, bytes, wide);
}

bool is_folding_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

bool next_encoded_word(std::string_view value, size_t position, size_t& start, size_t& end,
                       std::string& charset, std::string& encoding, std::string& text) {
  Marker_search memo;
  return find_word(value, position, memo, start, end, charset, encoding, text);
}

bool is_valid_utf8(std::string_view bytes) {
  size_t i = 0;
  while (i < bytes.size()) {
    const auto lead = static_cast<unsigned char>(bytes[i]);
    size_t length = 0;
    if (lead < 0x80) length = 1;
    else if (lead >= 0xc2 && lead <= 0xdf) length = 2;
    else if (lead >= 0xe0 && lead <= 0xef) length = 3;
    else if (lead >= 0xf0 && lead <= 0xf4) length = 4;
    else return false;
    if (i + length > bytes.size()) return false;
    for (size_t k = 1; k < length; ++k)
      if ((static_cast<unsigned char>(bytes[i + k]) & 0xc0) != 0x80) return false;
    i += length;
  }
  return true;
}

void decode_encoded_words(std::string_view value, Vek_wstring& result, bool raw_utf8) {
  result.clear();
  // Text outside the words: widened byte for byte, or read as UTF-8.
  Vek_wstring utf16;
  auto widen = [&](std::string_view text) {
    if (raw_utf8 && !std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; }) &&
        is_valid_utf8(text) && charset_to_wide("UTF-8", text, utf16)) {
      result += utf16;
    } else {
      result += vek_stow(text);
    }
  };
  Marker_search memo;
  std::string charset, encoding, text, bytes;
  Vek_wstring wide;
  size_t position = 0;
  bool after_word = false;  // the word just before decoded and ended at `position`
  while (position < value.size()) {
    size_t start = 0, end = 0;
    if (!find_word(value, position, memo, start, end, charset, encoding, text)) {
      widen(value.substr(position));
      return;
    }
    if (!decode_word(charset, encoding, text, bytes, wide)) {
      widen(value.substr(position, end - position));
      position = end;
      after_word = false;
      continue;
    }
    // RFC 2047, section 6.2: white space between two adjacent encoded
    // words is not displayed, so that a long text can be split over words
    // and folded lines.
    if (after_word) {
      size_t i = position;
      while (i < start && is_folding_space(value[i])) ++i;
      if (i == start) position = start;
    }
    if (start > position) widen(value.substr(position, start - position));
    result += wide;
    position = end;
    after_word = true;
  }
}

bool charset_to_wide(std::string_view charset, std::string_view bytes, Vek_wstring& wide) {
  Vek_status status;
  Mib_charset set = mib_display_name(vek_stow(charset), status);
  if (!status.ok()) {
    if (!vek_string_equal_nc(charset, "ascii")) return false;
    status.clear();
    set = 0;
  }
  return mib_charset_to_unicode(set, bytes, wide, status) && status.ok();
}

bool decode_q_text(std::string_view text, std::string& bytes) {
  bytes.clear();
  bytes.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\0') break;
    if (c == '_') {
      // RFC 2047, section 4.2: "_" stands for a space, whatever the charset.
      bytes += ' ';
    } else if (c == '=') {
      if (text.size() - i < 3) return false;
      const int high = hex_value(text[i + 1]);
      const int low = hex_value(text[i + 2]);
      if (high < 0 || low < 0) return false;
      const int byte = high * 16 + low;
      bytes += byte == 0 ? ' ' : static_cast<char>(byte);
      i += 2;
    } else {
      bytes += c;
    }
  }
  return true;
}

bool is_valid_b_text(std::string_view text) {
  if (text.empty() || text.size() % 4 != 0) return false;
  for (char c : text) {
    const uint8_t value = b_value(c);
    if (value == b_stop) return true;
    if (value == b_invalid) return false;
  }
  return true;  // the end of the text stops it like a zero byte
}

bool decode_b_text(std::string_view text, std::string& bytes) {
  bytes.clear();
  if (!is_valid_b_text(text)) return false;
  bytes.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    const uint8_t a = b_value(text[i]);
    const uint8_t b = b_value(text[i + 1]);
    if (a == b_stop || b == b_stop) break;
    bytes += static_cast<char>((a << 2) | (b >> 4));
    const uint8_t c = b_value(text[i + 2]);
    if (c == b_stop) break;
    bytes += static_cast<char>(((b << 4) | (c >> 2)) & 0xff);
    const uint8_t d = b_value(text[i + 3]);
    if (d == b_stop) break;
    bytes += static_cast<char>(((c << 6) | d) & 0xff);
  }
  return true;
}
