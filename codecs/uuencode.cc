// uuencode data lines (POSIX, "uuencode: historical algorithm"):
//
//   line := length-char *(4 encoded-chars) line-end
//
// A character stands for (c - 0x20) & 0x3F, so that both the space and the
// backquote stand for zero; four characters carry three bytes, and the
// length character says how many of the line's bytes are data.
#include "codecs/uuencode.h"

#include <algorithm>
#include <array>

namespace {

// The most bytes one data line carries: a length character reaches 63.
constexpr size_t max_line_bytes = 63;

uint8_t value_of(char c) { return static_cast<uint8_t>((static_cast<uint8_t>(c) - 0x20) & 0x3F); }

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

std::string uuencoded_file_name(std::string_view begin_line) {
  size_t at = begin_line.find("begin");
  if (at == std::string_view::npos) return std::string();
  at += 5;
  while (at < begin_line.size() && is_blank(begin_line[at])) ++at;
  while (at < begin_line.size() && !is_blank(begin_line[at])) ++at;  // the mode
  while (at < begin_line.size() && is_blank(begin_line[at])) ++at;
  size_t end = begin_line.size();
  while (end > at && is_blank(begin_line[end - 1])) --end;
  return std::string(begin_line.substr(at, end - at));
}

uint64_t decode_uuencoded(std::string_view text, size_t column, Vek_ostream& out, Vek_status& status) {
  status.clear();
  uint64_t written = 0;
  std::array<uint8_t, max_line_bytes + 3> bytes;
  size_t start = 0;
  while (start < text.size() && status.ok()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(start, end - start);
    start = end + 1;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    line.remove_prefix(std::min(column, line.size()));
    if (line.starts_with("end") && (line.size() == 3 || is_blank(line[3]))) break;
    if (line.empty()) continue;
    const size_t count = value_of(line[0]);
    if (count == 0) break;
    size_t made = 0;
    for (size_t at = 1; made < count; at += 4) {
      uint8_t group[4] = {0, 0, 0, 0};
      for (size_t k = 0; k < 4; ++k)
        if (at + k < line.size()) group[k] = value_of(line[at + k]);
      bytes[made++] = static_cast<uint8_t>(group[0] << 2 | group[1] >> 4);
      bytes[made++] = static_cast<uint8_t>(group[1] << 4 | group[2] >> 2);
      bytes[made++] = static_cast<uint8_t>(group[2] << 6 | group[3]);
    }
    out.write(count, bytes.data(), status);
    written += count;
  }
  return written;
}
