// Names and texts that a person reads: item names and subjects as UTF-8,
// escaped where a terminal would act on them, and made safe as file names.
#ifndef SMTPFM_HOST_NAMES_H_
#define SMTPFM_HOST_NAMES_H_

#include <string>
#include <string_view>

#include "contracts/vek.h"

// A property's text as a reader sees it, in UTF-8: a value widened byte
// for byte from valid UTF-8 (a raw UTF-8 name in a header) is read as
// UTF-8, and RFC 2047 encoded words left in it are decoded.
std::string readable_text(const Vek_wstring& value);

// `text` (UTF-8) with every character that a terminal acts on or that
// reorders what follows it written as an escape: C0 and C1 controls and
// DEL as \xHH, the bidirectional controls as \u{HHHH}, bytes that are no
// UTF-8 as \xHH, and the backslash as "\\".
std::string escaped_for_terminal(std::string_view text);

// `text` (UTF-8) with each control, bidirectional control and byte that is
// no UTF-8 replaced by "_": a name that shows what it says.
std::string without_hazards(std::string_view text);

// The longest file name written, in bytes: room for real attachment names
// and a path in front within every file system's 255.
inline constexpr size_t max_file_name = 120;

// `name` (UTF-8) cut to `limit` bytes in its stem, so that its extension
// (up to 16 bytes) stays.
std::string cut_keeping_extension(std::string name, size_t limit);

// `prefix` and `name` (UTF-8) joined by "_" as one file name: no
// separators, controls or bidirectional controls, no leading dots, at most
// max_file_name bytes, cut in the stem so that the extension stays.
std::string safe_file_name(const std::string& prefix, std::string_view name);

#endif  // SMTPFM_HOST_NAMES_H_
