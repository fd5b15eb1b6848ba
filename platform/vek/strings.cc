// String helpers of the base library stand-in. Case mapping and white space
// are ASCII only: mail headers are bytes, and their keywords are ASCII.
#include <cstring>
#include <mutex>

#include "contracts/vek.h"

namespace {

template <class Char>
Char lower_ascii(Char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<Char>(c + ('a' - 'A')) : c;
}

template <class Char>
Char upper_ascii(Char c) {
  return (c >= 'a' && c <= 'z') ? static_cast<Char>(c - ('a' - 'A')) : c;
}

template <class Char>
bool is_space(Char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

template <class View>
bool equal_nc(View a, View b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (a[i] != b[i] && lower_ascii(a[i]) != lower_ascii(b[i])) return false;
  return true;
}

// Eight bytes at a time, each upper-case ASCII letter made lower case: a
// field name is compared with every name a reader knows, on every field of
// every part, and most names are longer than a word.
constexpr uint64_t ones = 0x0101010101010101ull;

uint64_t lower_word(uint64_t word) {
  const uint64_t low7 = word & (0x7F * ones);
  // The high bit of each byte: set where the byte is at least 'A', and
  // where it is above 'Z'; a letter has the first and not the second. A
  // byte with its own high bit set is no ASCII letter.
  const uint64_t from_a = low7 + (0x80 - 'A') * ones;
  const uint64_t past_z = low7 + (0x80 - 'Z' - 1) * ones;
  const uint64_t upper = (from_a & ~past_z & ~word) & (0x80 * ones);
  return word | (upper >> 2);
}

uint64_t load_word(const char* at) {
  uint64_t word;
  std::memcpy(&word, at, sizeof word);
  return word;
}

bool equal_nc_bytes(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  size_t i = 0;
  for (; i + sizeof(uint64_t) <= a.size(); i += sizeof(uint64_t)) {
    const uint64_t x = load_word(a.data() + i);
    const uint64_t y = load_word(b.data() + i);
    if (x != y && lower_word(x) != lower_word(y)) return false;
  }
  return equal_nc(a.substr(i), b.substr(i));
}

template <class View>
bool blank(View text) {
  for (auto c : text)
    if (!is_space(c)) return false;
  return true;
}

}  // namespace

Vek_wstring vek_stow(std::string_view text) {
  // Through unsigned bytes, so that each widens to its own value in one
  // pass; a signed char would widen 0xE9 to 0xFFE9.
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  return Vek_wstring(bytes, bytes + text.size());
}

std::string vek_wtos(std::u16string_view text) {
  std::string narrow(text.size(), '\0');
  for (size_t i = 0; i < text.size(); ++i) narrow[i] = text[i] > 0xFF ? '?' : static_cast<char>(text[i]);
  return narrow;
}

void vek_upper(std::string& text) {
  for (auto& c : text) c = upper_ascii(c);
}

void vek_upper(Vek_wstring& text) {
  for (auto& c : text) c = upper_ascii(c);
}

void vek_lower(std::string& text) {
  // Every content type and encoding name is lowered: a word at a time.
  size_t i = 0;
  for (; i + sizeof(uint64_t) <= text.size(); i += sizeof(uint64_t)) {
    const uint64_t word = lower_word(load_word(text.data() + i));
    std::memcpy(text.data() + i, &word, sizeof word);
  }
  for (; i < text.size(); ++i) text[i] = lower_ascii(text[i]);
}

void vek_trim(std::string& text) {
  size_t end = text.size();
  while (end > 0 && is_space(text[end - 1])) --end;
  size_t start = 0;
  while (start < end && is_space(text[start])) ++start;
  if (start == 0 && end == text.size()) return;
  text.assign(text, start, end - start);
}

bool vek_string_equal_nc(std::string_view a, std::string_view b) { return equal_nc_bytes(a, b); }

bool vek_string_equal_nc(std::u16string_view a, std::u16string_view b) { return equal_nc(a, b); }

bool vek_is_blank(std::string_view text) { return blank(text); }

bool vek_is_blank(std::u16string_view text) { return blank(text); }

bool vek_is_number(std::u16string_view text) {
  if (text.empty()) return false;
  for (auto c : text)
    if (c < '0' || c > '9') return false;
  return true;
}

std::string vek_unquote(std::string_view text) {
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"') text = text.substr(1, text.size() - 2);
  // Most quoted values hold no backslash: the stretches between quoted
  // pairs are copied whole.
  std::string result;
  if (text.empty()) return result;
  const char* p = text.data();
  const char* const end = p + text.size();
  for (;;) {
    const void* found = std::memchr(p, '\\', static_cast<size_t>(end - p));
    if (found == nullptr || found == end - 1) {
      result.append(p, end);
      return result;
    }
    const char* const backslash = static_cast<const char*>(found);
    if (result.empty()) result.reserve(text.size());
    result.append(p, backslash);
    result.push_back(backslash[1]);
    p = backslash + 2;
  }
}

Vek_wstring vek_itow(int64_t value) { return vek_stow(std::to_string(value)); }

Vek_wstring Vek_path::extension() const {
  size_t element = path_.find_last_of(u"\\/");
  size_t start = element == Vek_wstring::npos ? 0 : element + 1;
  size_t dot = path_.rfind(u'.');
  if (dot == Vek_wstring::npos || dot < start) return {};
  return path_.substr(dot + 1);
}

Vek_critical::Vek_critical(bool locked) {
  if (locked) mutex_.lock();
}
