// Reading a header line by line and deciding what each line is.
//
// RFC 822 section 3.2:
//   field       = field-name ":" [ field-body ] CRLF
//   field-name  = 1*<any CHAR, excluding CTLs, SPACE, and ":">
//   field-body  = field-body-contents [CRLF LWSP-char field-body]
//
// Where this reader knowingly differs from RFC 822:
// - A name may hold any byte but white space and controls, specials and
//   8-bit bytes included, and may be empty; it may not be longer than
//   smtp_max_field_name bytes.
// - White space between a name and its colon, which RFC 822 allows, makes
//   the line a broken field, kept as "Bad-Header".
// - Lines of smtp_max_header_line bytes or more, and lines with more than
//   smtp_max_refused_bytes bytes outside printable ASCII, end the header.
// - Lines with no field shape are kept as "Bad-Header" instead of failing.
// - The bytes of a line behind a NUL are not looked at, and a value stops
//   at a NUL.
#include "reader/header_reader.h"

#include <algorithm>
#include <cstring>

#include "reader/char_class.h"
#include "reader/tokeniser.h"

namespace {

// The white space that unfolding and vek_trim remove: space, tab, CR, LF,
// VT and FF.
inline bool is_trim_white(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

inline bool is_refused(unsigned char c) {
  return (c < 32 && c != '\t' && c != '\r' && c != '\n') || c >= 127;
}

// Counts the bytes of `line` outside 32 to 126 other than tab, CR and LF,
// up to the first NUL, and stops counting once the limit is passed. Header
// text is nearly all printable ASCII, so eight bytes are tested at a time
// and only a word that may hold such a byte is looked at closely.
int count_refused_bytes(std::string_view line) {
  constexpr uint64_t ones = 0x0101010101010101ull;
  constexpr uint64_t highs = 0x8080808080808080ull;
  const auto* bytes = reinterpret_cast<const unsigned char*>(line.data());
  const size_t size = line.size();
  int count = 0;
  size_t i = 0;
  while (i < size) {
    size_t stop = size;
    if (i + 8 <= size) {
      uint64_t word;
      std::memcpy(&word, bytes + i, 8);
      const uint64_t below_32 = (word - ones * 32) & ~word & highs;
      const uint64_t above_126 = ((word + ones) | word) & highs;
      if ((below_32 | above_126) == 0) {
        i += 8;
        continue;
      }
      stop = i + 8;
    }
    for (; i < stop; ++i) {
      if (bytes[i] == 0) return count;
      if (is_refused(bytes[i]) && ++count > smtp_max_refused_bytes) return count;
    }
  }
  return count;
}

enum class Line_kind { blank, name, continuation, colon, other };

// Finds the kind of a line; for a name line also the position of its colon.
Line_kind line_kind(std::string_view line, size_t& colon) {
  // Most lines begin with a printable byte; only the others may be blank.
  if (line.empty() || (static_cast<unsigned char>(line[0]) <= ' ' && vek_is_blank(line)))
    return Line_kind::blank;
  const size_t name_scan = std::min(line.size(), smtp_max_field_name + 1);
  for (size_t i = 0; i < name_scan; ++i) {
    const char c = line[i];
    if (c == ':') {
      colon = i;
      return Line_kind::name;
    }
    if ((char_class_of(c) & (char_white | char_control)) != 0) break;
  }
  if ((char_class_of(line[0]) & char_white) != 0) return Line_kind::continuation;
  if (std::memchr(line.data(), ':', std::min(line.size(), smtp_colon_zone)) != nullptr)
    return Line_kind::colon;
  return Line_kind::other;
}

// "%!PS-Adobe..." opens a PostScript file.
bool is_postscript_line(std::string_view line) {
  return line.size() >= 3 && line[0] == '%' && line[1] == '!' && (line[2] == 'P' || line[2] == 'p');
}

// The two shapes a field can be read into.
struct View_target {
  Smtp_raw_field_view& field;

  void reset() {
    field.name = {};
    field.lines.clear();
    field.first_is_joined = false;
  }
  size_t count() const { return field.lines.size(); }
  bool is_bad() const { return field.name == smtp_bad_header_name; }
  void open(std::string_view name, std::string_view first) {
    field.name = name;
    field.lines.push_back(first);
  }
  void append(std::string_view line) { field.lines.push_back(line); }
  void turn_bad() {
    const std::string_view first = field.line(0);
    std::string joined;
    joined.reserve(field.name.size() + 1 + first.size());
    joined.append(field.name).append(1, ':').append(first);
    field.joined_first = std::move(joined);
    field.first_is_joined = true;
    field.name = smtp_bad_header_name;
  }
};

struct String_target {
  std::string& name;
  std::vector<std::string>& lines;

  void reset() { lines.clear(); }
  size_t count() const { return lines.size(); }
  bool is_bad() const { return name == smtp_bad_header_name; }
  void open(std::string_view field_name, std::string_view first) {
    name.assign(field_name);
    lines.emplace_back(first);
  }
  void append(std::string_view line) { lines.emplace_back(line); }
  void turn_bad() {
    lines[0].insert(0, 1, ':');
    lines[0].insert(0, name);
    name.assign(smtp_bad_header_name);
  }
};

template <typename Target>
bool read_field(Vek_istream& stream, uint32_t max_line, Target& target, Vek_status& status) {
  target.reset();
  if (!status.ok()) return false;
  const uint64_t field_start = stream.tell();
  bool open = false;
  size_t bad_lines = 0;
  std::string_view line;
  while (status.ok()) {
    const uint64_t line_start = stream.tell();
    stream.readln_view(max_line, line, status);
    if (status == vek_line_too_long) {
      if (line.size() >= max_line) {
        status = smtp_not_header_line;
      } else {
        status.clear();
      }
    }
    if (status == vek_end_of_stream && !line.empty()) status.clear();
    if (count_refused_bytes(line) > smtp_max_refused_bytes) status = smtp_not_header_line;
    if (!status.ok()) {
      if (status == vek_end_of_stream) status.clear();
      break;
    }

    size_t colon = 0;
    Line_kind kind = line_kind(line, colon);
    if (kind == Line_kind::blank || (open && (kind == Line_kind::name || kind == Line_kind::colon))) {
      stream.seek(line_start);
      break;
    }
    if (!open && kind == Line_kind::name) {
      std::string_view value = line.substr(colon + 1);
      const void* nul = std::memchr(value.data(), '\0', value.size());
      if (nul != nullptr) value = value.substr(0, static_cast<const char*>(nul) - value.data());
      const size_t spaces = value.find_first_not_of(' ');
      value.remove_prefix(spaces == std::string_view::npos ? value.size() : spaces);
      target.open(line.substr(0, colon), value);
      open = true;
      continue;
    }
    if (!open && kind == Line_kind::other && (is_begin_line(line) || is_postscript_line(line))) {
      // A uuencoded block or a PostScript file where a header should start.
      stream.seek(line_start);
      break;
    }
    if (!open) {
      // A continuation, colon or other line where a field should start.
      target.open(smtp_bad_header_name, line);
      open = true;
      bad_lines = 1;
    } else if (kind == Line_kind::continuation) {
      target.append(line);
      if (target.is_bad()) ++bad_lines;
    } else if (target.is_bad()) {
      target.append(line);
      ++bad_lines;
    } else {
      // Text with no field shape behind an ordinary field: the field and
      // the text become one "Bad-Header".
      target.turn_bad();
      target.append(line);
      bad_lines = target.count();
    }
    if (bad_lines > smtp_max_bad_header_lines) {
      target.reset();
      open = false;
      stream.seek(field_start);
      break;
    }
  }
  return open;
}

// The state of a walk over text that counts unescaped double quotes.
struct Quote_scan {
  size_t scanned = 0;  // bytes walked
  bool odd = false;    // an odd number of quotes so far
  bool escaped = false;

  void walk_to(std::string_view text, size_t length) {
    for (; scanned < length; ++scanned) {
      const char c = text[scanned];
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        odd = !odd;
      }
    }
  }
};

// Joins the lines of a field. The quote count of the growing value is kept
// from line to line, so that the test for a line break inside a quoted
// string walks every byte once; it starts again from the front only where
// trimming cut into bytes already walked.
template <typename Line_at>
std::string unfold(size_t count, Line_at line_at) {
  std::string result;
  if (count == 0) return result;
  result.assign(line_at(0));
  Quote_scan quotes;
  for (size_t i = 1; i < count; ++i) {
    const std::string_view line = line_at(i);
    if (result.empty()) {
      result.assign(line);
      quotes = Quote_scan{};
      continue;
    }
    if (result.back() == '\\') {
      const size_t length = result.size() - 1;
      if (quotes.scanned > length) quotes = Quote_scan{};
      quotes.walk_to(result, length);
      if (quotes.odd) {
        // quoted-pair = "\" CHAR: a backslash at the end of a line inside a
        // quoted string escapes the line break.
        result.back() = '\r';
        result.push_back('\n');
        if (!line.empty()) result.append(line.substr(1));
        continue;
      }
    }
    size_t lead = 0;
    while (lead < line.size() && is_trim_white(line[lead])) ++lead;
    while (!result.empty() && is_trim_white(result.back())) result.pop_back();
    size_t front = 0;
    while (front < result.size() && is_trim_white(result[front])) ++front;
    if (front > 0) {
      result.erase(0, front);
      quotes = Quote_scan{};
    }
    if (quotes.scanned > result.size()) quotes = Quote_scan{};
    result.push_back(' ');
    result.append(line.substr(lead));
  }
  return result;
}

}  // namespace

bool read_header_field(Vek_istream& stream, uint32_t max_line, std::string& name,
                       std::vector<std::string>& lines, Vek_status& status) {
  String_target target{name, lines};
  return read_field(stream, max_line, target, status);
}

bool read_header_field(Vek_istream& stream, uint32_t max_line, Smtp_raw_field_view& field,
                       Vek_status& status) {
  View_target target{field};
  return read_field(stream, max_line, target, status);
}

std::string unfold_field_lines(const std::vector<std::string>& lines) {
  return unfold(lines.size(), [&lines](size_t i) { return std::string_view(lines[i]); });
}

std::string unfold_field_lines(const Smtp_raw_field_view& field) {
  return unfold(field.count(), [&field](size_t i) { return field.line(i); });
}

bool in_quoted_string(std::string_view text, size_t length) {
  Quote_scan quotes;
  quotes.walk_to(text, std::min(length, text.size()));
  return quotes.odd;
}

// begin-line = "begin" *WSP 3DIGIT ..., the mode of the file in octal.
bool is_begin_line(std::string_view line) {
  const size_t at = line.find("begin");
  if (at == std::string_view::npos) return false;
  size_t i = at + 5;
  while (i < line.size() && (char_class_of(line[i]) & char_white) != 0) ++i;
  auto is_digit = [&line](size_t k) { return k < line.size() && line[k] >= '0' && line[k] <= '9'; };
  return is_digit(i) && is_digit(i + 1) && is_digit(i + 2) && !is_digit(i + 3);
}

void write_header_field(Vek_ostream& out, std::string_view name, std::string_view value, bool fold,
                        Vek_status& status) {
  status.clear();
  size_t column = 0;
  if (!name.empty() && name != smtp_bad_header_name) {
    out.write(name, status);
    if (status.ok()) out.write(":", status);
    if (!status.ok()) return;
    column = name.size() + 1;
  }

  auto write_plain = [&] {
    if (!value.empty() && (char_class_of(value[0]) & char_white) == 0) {
      out.write(" ", status);
      if (!status.ok()) return;
    }
    out.writeln(value, status);
  };
  if (!fold || value.size() + column <= smtp_fold_column) {
    write_plain();
    return;
  }
  Smtp_token_list tokens;
  Vek_status token_status;
  tokenise_field(value, true, true, tokens, token_status);
  if (!token_status.ok()) {
    write_plain();
    return;
  }

  // Tokens go out one space apart; a line is ended once a token would reach
  // the fold column, and the next one is indented by four spaces. A token
  // ending in '=' keeps the next token right behind it (attribute=value).
  constexpr std::string_view indent = "    ";
  out.write(" ", status);
  if (!status.ok()) return;
  char last = ' ';
  column += 1;
  const size_t count = tokens.count();
  for (size_t i = 0; i < count; ++i) {
    const std::string& text = tokens[i].text;
    const bool is_last = i + 1 == count;
    if (column + text.size() >= smtp_fold_column && column > indent.size() && last != '=') {
      out.writeln("", status);
      if (status.ok()) out.write(indent, status);
      if (!status.ok()) return;
      column = indent.size();
    }
    out.write(text, status);
    if (!status.ok()) return;
    last = text.empty() ? '\0' : text.back();
    column += text.size();
    if (column < smtp_fold_column && last != '=' && !is_last) {
      out.write(" ", status);
      if (!status.ok()) return;
      last = ' ';
      column += 1;
    }
    if (column >= smtp_fold_column && last != '=') {
      out.writeln("", status);
      if (!status.ok()) return;
      if (!is_last) {
        out.write(indent, status);
        if (!status.ok()) return;
        last = ' ';
        column = indent.size();
      } else {
        column = 0;
      }
    }
  }
  if (column != 0) out.writeln("", status);
}

void write_raw_field(Vek_ostream& out, std::string_view name, const std::vector<std::string>& lines,
                     Vek_status& status) {
  status.clear();
  if (!name.empty() && name != smtp_bad_header_name) {
    out.write(name, status);
    if (status.ok()) out.write(":", status);
    if (status.ok() && !lines.empty() && !lines[0].empty() &&
        (char_class_of(lines[0][0]) & char_white) == 0) {
      out.write(" ", status);
    }
    if (!status.ok()) return;
  }
  for (const std::string& line : lines) {
    out.writeln(line, status);
    if (!status.ok()) return;
  }
}
