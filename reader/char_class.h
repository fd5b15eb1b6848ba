// Byte classes of message header text: one constant table of 256 masks,
// indexed by the byte taken as unsigned. The tokeniser, the raw header
// reader and the Content-Type repair all draw from it. Read-only; nothing
// owns anything.
#ifndef SMTPFM_READER_CHAR_CLASS_H_
#define SMTPFM_READER_CHAR_CLASS_H_

#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>

// Class bits. Bytes 128 to 255 belong to no class.
inline constexpr uint32_t char_control = 8;          // 0 to 31, and 127 (DEL)
inline constexpr uint32_t char_white = 16;           // tab and space; tab is also a control
inline constexpr uint32_t char_rfc822_special = 32;  // RFC 822: ( ) < > @ , ; : \ " . [ ]
inline constexpr uint32_t char_mime_special = 64;    // RFC 1521 tspecials: ( ) < > @ , ; : \ " / [ ] ? =

namespace smtp_char_class_detail {
constexpr std::array<uint32_t, 256> make_table() {
  std::array<uint32_t, 256> table{};
  for (int c = 0; c < 32; ++c) table[c] |= char_control;
  table[127] |= char_control;
  table['\t'] |= char_white;
  table[' '] |= char_white;
  for (char c : std::string_view("()<>@,;:\\\".[]"))
    table[static_cast<unsigned char>(c)] |= char_rfc822_special;
  for (char c : std::string_view("()<>@,;:\\\"/[]?="))
    table[static_cast<unsigned char>(c)] |= char_mime_special;
  return table;
}
}  // namespace smtp_char_class_detail

inline constexpr std::array<uint32_t, 256> smtp_char_class = smtp_char_class_detail::make_table();

// The class mask of one byte.
inline constexpr uint32_t char_class_of(char c) { return smtp_char_class[static_cast<unsigned char>(c)]; }

// The first `byte` from `from` on in front of `end`, or `end`. Header
// values may run to kilobytes (a quoted boundary): the readers pass over
// the bytes between the ones that count with it.
inline const char* find_byte(const char* from, const char* end, char byte) {
  const void* found = std::memchr(from, byte, static_cast<size_t>(end - from));
  return found == nullptr ? end : static_cast<const char*>(found);
}

#endif  // SMTPFM_READER_CHAR_CLASS_H_
