#include "uue/uuencode.h"

namespace {

// Bytes on a full line, as uuencode(1) writes them (60 characters).
constexpr size_t bytes_per_line = 45;
// Encoded characters beyond what a line's length needs that a data line
// may carry (padding that some encoders add, and a checksum character).
constexpr size_t line_slack = 4;

// A line of `text` from `at`, without its line end; `next` is the start of
// the line behind it.
std::string_view line_at(std::string_view text, size_t at, size_t& next) {
  size_t lf = text.find('\n', at);
  next = lf == std::string_view::npos ? text.size() : lf + 1;
  std::string_view line = text.substr(at, (lf == std::string_view::npos ? text.size() : lf) - at);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

std::string_view trimmed(std::string_view line) {
  while (!line.empty() && (line.back() == ' ' || line.back() == '\t')) line.remove_suffix(1);
  return line;
}

bool is_uu_char(char c) { return c >= ' ' && c <= '`'; }

unsigned value_of(char c) { return static_cast<unsigned>(c - ' ') & 0x3f; }

// "begin" SP mode SP name, mode of 3 or 4 octal digits.
bool read_begin_line(std::string_view line, Uue_block& block) {
  if (!line.starts_with("begin ")) return false;
  size_t at = 6;
  size_t digits = 0;
  while (at + digits < line.size() && line[at + digits] >= '0' && line[at + digits] <= '7') ++digits;
  if (digits < 3 || digits > 4 || at + digits >= line.size() || line[at + digits] != ' ') return false;
  block.mode = std::string(line.substr(at, digits));
  block.name = std::string(trimmed(line.substr(at + digits + 1)));
  return !block.name.empty();
}

// A data line: its length character, and as many characters as that
// length needs (trailing blanks stripped by mailers count as "`").
bool is_data_line(std::string_view line) {
  line = trimmed(line);
  if (line.empty() || !is_uu_char(line[0])) return false;
  for (char c : line)
    if (!is_uu_char(c)) return false;
  const size_t count = value_of(line[0]);
  const size_t needed = (count + 2) / 3 * 4;
  return line.size() - 1 <= needed + line_slack;
}

bool is_end_of_data(std::string_view line) {
  line = trimmed(line);
  return line == "`" || line.empty() || line == " ";
}

// The start of the first line at or behind the line start `at` that starts
// with "begin ", or npos. Only such a line opens a block, so a substring
// search steps over the text between them instead of reading every line.
size_t next_begin_line(std::string_view text, size_t line) {
  for (size_t from = line;;) {
    const size_t hit = text.find("begin ", from);
    if (hit == std::string_view::npos || hit == line || text[hit - 1] == '\n') return hit;
    from = hit + 1;
  }
}

}  // namespace

std::vector<Uue_block> find_uue_blocks(std::string_view text) {
  std::vector<Uue_block> blocks;
  size_t next = 0;
  for (size_t at = 0; at < text.size(); at = next) {
    at = next_begin_line(text, at);
    if (at == std::string_view::npos) break;
    Uue_block block;
    if (!read_begin_line(line_at(text, at, next), block)) continue;
    block.begin = at;
    block.data = next;
    size_t data_lines = 0;
    size_t line_start = next;
    size_t after = next;
    // Data lines, then the zero-length line, then "end".
    while (line_start < text.size()) {
      const std::string_view line = line_at(text, line_start, after);
      if (trimmed(line) == "end") {
        block.closed = true;
        block.stop = line_start;
        block.end = after;
        break;
      }
      if (!is_data_line(line) && !is_end_of_data(line)) break;
      if (value_of(trimmed(line).empty() ? '`' : trimmed(line)[0]) != 0) ++data_lines;
      line_start = after;
    }
    if (!block.closed) block.stop = block.end = line_start;
    if (data_lines == 0 && !block.closed) continue;
    blocks.push_back(block);
    next = block.end;
  }
  return blocks;
}

std::string uudecode(std::string_view lines) {
  std::string out;
  size_t next = 0;
  for (size_t at = 0; at < lines.size(); at = next) {
    const std::string_view line = trimmed(line_at(lines, at, next));
    if (line.empty()) continue;
    size_t count = value_of(line[0]);
    // Characters past the line's end stand for zero bits, as blanks that a
    // mailer stripped did.
    auto sextet = [&](size_t i) { return i < line.size() ? value_of(line[i]) : 0u; };
    for (size_t i = 1; count > 0; i += 4) {
      const unsigned group = sextet(i) << 18 | sextet(i + 1) << 12 | sextet(i + 2) << 6 | sextet(i + 3);
      for (int shift = 16; shift >= 0 && count > 0; shift -= 8, --count)
        out.push_back(static_cast<char>((group >> shift) & 0xff));
    }
  }
  return out;
}

std::string uuencode_block(std::string_view mode, std::string_view name, std::string_view bytes,
                           std::string_view eol) {
  auto character = [](unsigned bits) { return bits == 0 ? '`' : static_cast<char>(' ' + bits); };
  std::string out = "begin ";
  out.append(mode).append(" ").append(name).append(eol);
  for (size_t at = 0; at < bytes.size(); at += bytes_per_line) {
    const std::string_view piece = bytes.substr(at, bytes_per_line);
    out.push_back(character(static_cast<unsigned>(piece.size())));
    for (size_t i = 0; i < piece.size(); i += 3) {
      unsigned group = 0;
      for (size_t k = 0; k < 3; ++k)
        group = group << 8 | (i + k < piece.size() ? static_cast<unsigned char>(piece[i + k]) : 0u);
      for (int shift = 18; shift >= 0; shift -= 6) out.push_back(character((group >> shift) & 0x3f));
    }
    out.append(eol);
  }
  out.append("`").append(eol).append("end").append(eol);
  return out;
}
