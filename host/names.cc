#include "host/names.h"

#include <algorithm>
#include <cstdio>

#include "codecs/encoded_words.h"
#include "platform/vek/registry.h"

namespace {

// The longest extension kept whole when a name is cut ("tar.gz" is two).
constexpr size_t max_extension = 16;

// The length of the UTF-8 sequence at `at`, or 0 when it is none.
size_t sequence_length(std::string_view text, size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  const size_t length = lead < 0x80 ? 1 : lead >= 0xc2 && lead <= 0xdf ? 2 : lead >= 0xe0 && lead <= 0xef ? 3
                                      : lead >= 0xf0 && lead <= 0xf4   ? 4
                                                                       : 0;
  if (length == 0 || at + length > text.size()) return 0;
  for (size_t k = 1; k < length; ++k)
    if ((static_cast<unsigned char>(text[at + k]) & 0xc0) != 0x80) return 0;
  return length;
}

uint32_t code_point(std::string_view sequence) {
  const auto lead = static_cast<unsigned char>(sequence[0]);
  if (sequence.size() == 1) return lead;
  uint32_t value = lead & (0x7f >> sequence.size());
  for (size_t k = 1; k < sequence.size(); ++k) value = value << 6 | (static_cast<unsigned char>(sequence[k]) & 0x3f);
  return value;
}

// Controls that make a terminal act, and the characters of Unicode's
// bidirectional algorithm that make "exe.pdf" of "fdp.exe".
bool is_hazard(uint32_t c) {
  return c < 0x20 || c == 0x7f || (c >= 0x80 && c <= 0x9f) || c == 0x061c || c == 0x200e || c == 0x200f ||
         (c >= 0x202a && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069);
}

}  // namespace

std::string readable_text(const Vek_wstring& value) {
  std::string text;
  const bool bytes_only = std::all_of(value.begin(), value.end(), [](char16_t c) { return c <= 0xff; });
  if (bytes_only && std::any_of(value.begin(), value.end(), [](char16_t c) { return c >= 0x80; })) {
    std::string bytes(value.begin(), value.end());
    text = is_valid_utf8(bytes) ? bytes : vek_utf16_to_utf8(value);
  } else {
    text = vek_utf16_to_utf8(value);
  }
  if (text.find("=?") != std::string::npos) {
    Vek_wstring decoded;
    decode_encoded_words(text, decoded, true);
    text = vek_utf16_to_utf8(decoded);
  }
  return text;
}

std::string escaped_for_terminal(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  char escape[16];
  for (size_t at = 0; at < text.size();) {
    const size_t length = sequence_length(text, at);
    if (length == 0) {
      std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned char>(text[at]));
      out += escape;
      ++at;
      continue;
    }
    const uint32_t c = code_point(text.substr(at, length));
    if (c == '\\') {
      out += "\\\\";
    } else if (is_hazard(c)) {
      std::snprintf(escape, sizeof escape, c < 0x100 ? "\\x%02x" : "\\u{%04x}", c);
      out += escape;
    } else {
      out.append(text, at, length);
    }
    at += length;
  }
  return out;
}

std::string without_hazards(std::string_view text) {
  std::string out;
  for (size_t at = 0; at < text.size();) {
    const size_t length = sequence_length(text, at);
    if (length == 0 || is_hazard(code_point(text.substr(at, length))))
      out += '_';
    else
      out.append(text, at, length);
    at += length == 0 ? 1 : length;
  }
  return out;
}

std::string cut_keeping_extension(std::string name, size_t limit) {
  if (name.size() <= limit) return name;
  // Cut the stem, not the extension that says what the file is.
  const size_t dot = name.rfind('.');
  std::string extension;
  if (dot != std::string::npos && dot > 0 && name.size() - dot <= max_extension &&
      name.find(' ', dot) == std::string::npos)
    extension = name.substr(dot);
  size_t cut = limit - extension.size();
  while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xc0) == 0x80) --cut;
  return name.substr(0, cut) + extension;
}

std::string safe_file_name(const std::string& prefix, std::string_view name) {
  std::string safe = without_hazards(name);
  std::replace_if(safe.begin(), safe.end(), [](char c) { return c == '/' || c == '\\' || c == ':'; }, '_');
  safe.erase(0, std::min(safe.size(), safe.find_first_not_of(". ")));
  if (safe.empty()) return prefix;
  return prefix + "_" + cut_keeping_extension(safe, max_file_name - prefix.size() - 1);
}
