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
//   the line a broken field, kept as "Bad-Header", unless the rules take
//   obsolete field names.
// - Lines of smtp_max_header_line bytes or more, and lines with more than
//   smtp_max_refused_bytes bytes outside printable ASCII, end the header.
// - Lines with no field shape are kept as "Bad-Header" instead of failing.
// - The bytes of a line behind a NUL are not looked at, and a value stops
//   at a NUL.
#include "reader/header_reader.h"

#include <algorithm>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "reader/char_class.h"
#include "reader/tokeniser.h"

namespace {

// The white space that unfolding and vek_trim remove: space, tab, CR, LF,
// VT and FF.
inline bool is_trim_white(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

enum class Line_kind : uint32_t { blank, name, continuation, colon, other };

inline bool is_refused(unsigned char c, bool eight_bit_text) {
  return (c < 32 && c != '\t' && c != '\r' && c != '\n') || c == 127 || (c > 127 && !eight_bit_text);
}

// What a line holds that no header line should: the count of bytes outside
// 32 to 126 other than tab, CR and LF up to the first NUL (counting stops
// once the limit is passed), and the position of that NUL.
struct Line_scan {
  int refused = 0;
  size_t nul = std::string_view::npos;
};

#if defined(__SSE2__)
// True when the sixteen bytes at `bytes` may hold a NUL or a refused byte.
inline bool may_hold_odd_bytes(const char* bytes) {
  const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
  // As signed bytes, 128 to 255 are negative: below 32 with the controls.
  const __m128i odd =
      _mm_or_si128(_mm_cmplt_epi8(block, _mm_set1_epi8(32)), _mm_cmpeq_epi8(block, _mm_set1_epi8(127)));
  return _mm_movemask_epi8(odd) != 0;
}
#endif

// Header text is nearly all printable ASCII, so a line is first tested
// sixteen bytes at a time, the last block overlapping the one before, and
// only from the first block that may hold an odd byte on is it looked at
// byte by byte.
inline __attribute__((always_inline)) Line_scan scan_line(std::string_view line, bool eight_bit_text) {
  const size_t size = line.size();
  size_t i = 0;
#if defined(__SSE2__)
  if (size >= 16) {
    while (i + 16 <= size && !may_hold_odd_bytes(line.data() + i)) i += 16;
    if (i + 16 > size && (i == size || !may_hold_odd_bytes(line.data() + size - 16))) return Line_scan{};
  }
#endif
  Line_scan scan;
  for (; i < size; ++i) {
    const auto c = static_cast<unsigned char>(line[i]);
    if (c == 0) {
      scan.nul = i;
      break;
    }
    if (is_refused(c, eight_bit_text) && ++scan.refused > smtp_max_refused_bytes) break;
  }
  return scan;
}

// The position of the colon that ends the field name at the start of
// `line`, or npos when the line has no name: a byte with char_white or
// char_control, or the name limit, comes first.
inline __attribute__((always_inline)) size_t name_colon(std::string_view line) {
  const size_t scan = std::min(line.size(), smtp_max_field_name + 1);
  size_t i = 0;
#if defined(__SSE2__)
  for (; i + 16 <= line.size() && i < scan; i += 16) {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(line.data() + i));
    const __m128i space_or_control = _mm_cmpeq_epi8(_mm_min_epu8(block, _mm_set1_epi8(32)), block);
    const __m128i stop =
        _mm_or_si128(_mm_or_si128(space_or_control, _mm_cmpeq_epi8(block, _mm_set1_epi8(127))),
                     _mm_cmpeq_epi8(block, _mm_set1_epi8(':')));
    const int mask = _mm_movemask_epi8(stop);
    if (mask != 0) {
      const size_t at = i + static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(mask)));
      return at < scan && line[at] == ':' ? at : std::string_view::npos;
    }
  }
#endif
  for (; i < scan; ++i) {
    const char c = line[i];
    if (c == ':') return i;
    if ((char_class_of(c) & (char_white | char_control)) != 0) break;
  }
  return std::string_view::npos;
}

// Finds the kind of a line; for a name line also the position of its colon.
inline __attribute__((always_inline)) Line_kind line_kind(std::string_view line, size_t& colon) {
  // Most lines begin with a printable byte; only the others may be blank.
  if (line.empty() || (static_cast<unsigned char>(line[0]) <= ' ' && vek_is_blank(line)))
    return Line_kind::blank;
  colon = name_colon(line);
  if (colon != std::string_view::npos) return Line_kind::name;
  if ((char_class_of(line[0]) & char_white) != 0) return Line_kind::continuation;
  if (std::memchr(line.data(), ':', std::min(line.size(), smtp_colon_zone)) != nullptr)
    return Line_kind::colon;
  return Line_kind::other;
}

// The colon of a name line in RFC 822's (obsolete) form, with white space
// in front of the colon: "Content-Type : text/plain". npos for any other.
//   field = field-name *WSP ":" ...
size_t obsolete_name_colon(std::string_view line) {
  size_t i = 0;
  while (i < line.size() && i <= smtp_max_field_name && line[i] != ':' &&
         (char_class_of(line[i]) & (char_white | char_control)) == 0)
    ++i;
  if (i == 0 || i > smtp_max_field_name) return std::string_view::npos;
  size_t j = i;
  while (j < line.size() && (line[j] == ' ' || line[j] == '\t')) ++j;
  return j > i && j < line.size() && line[j] == ':' ? j : std::string_view::npos;
}

// A field name in front of `colon`, without the white space of the
// obsolete form.
std::string_view name_before(std::string_view line, size_t colon) {
  std::string_view name = line.substr(0, colon);
  while (!name.empty() && (name.back() == ' ' || name.back() == '\t')) name.remove_suffix(1);
  return name;
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
bool read_field(Vek_istream& stream, const Smtp_line_rules& rules, Target& target,
                Smtp_line_lookahead* lookahead, Vek_status& status) {
  const uint32_t max_line = rules.max_line;
  const bool eight_bit_text = rules.eight_bit_text;
  target.reset();
  if (!status.ok()) return false;
  const uint64_t field_start = stream.tell();
  bool open = false;
  size_t bad_lines = 0;
  std::string_view line;
  while (status.ok()) {
    const uint64_t line_start = stream.tell();
    size_t colon = 0;
    size_t nul = std::string_view::npos;
    Line_kind kind;
    if (lookahead != nullptr && lookahead->buffer == stream.buffer() && lookahead->buffer != nullptr &&
        lookahead->start == line_start && lookahead->max_line == max_line &&
        lookahead->eight_bit_text == eight_bit_text &&
        lookahead->obsolete_field_names == rules.obsolete_field_names) {
      // The line that ended the previous field, already read and judged.
      line = lookahead->line;
      kind = static_cast<Line_kind>(lookahead->kind);
      colon = lookahead->colon;
      nul = lookahead->nul;
      stream.seek(lookahead->next);
      lookahead->buffer = nullptr;
    } else {
      stream.readln_view(max_line, line, status);
      if (status == vek_line_too_long) {
        if (line.size() >= max_line) {
          status = smtp_not_header_line;
        } else {
          status.clear();
        }
      }
      if (status == vek_end_of_stream && !line.empty()) status.clear();
      const Line_scan scan = scan_line(line, eight_bit_text);
      if (scan.refused > smtp_max_refused_bytes) status = smtp_not_header_line;
      nul = scan.nul;
      if (!status.ok()) {
        if (status == vek_end_of_stream) status.clear();
        break;
      }
      kind = line_kind(line, colon);
      // An "other" line has no colon in the zone line_kind looked at; the
      // obsolete form needs one somewhere.
      if (rules.obsolete_field_names &&
          (kind == Line_kind::colon ||
           (kind == Line_kind::other && line.size() > smtp_colon_zone &&
            std::memchr(line.data() + smtp_colon_zone, ':', line.size() - smtp_colon_zone) != nullptr))) {
        const size_t at = obsolete_name_colon(line);
        if (at != std::string_view::npos) {
          kind = Line_kind::name;
          colon = at;
        }
      }
    }

    const bool ends_field =
        kind == Line_kind::blank || (open && (kind == Line_kind::name || kind == Line_kind::colon));
    // A uuencoded file may follow the header with no blank line between;
    // lenient rules let its "begin" line end a field as well as a block.
    const bool ends_block =
        kind == Line_kind::other && ((!open && (is_begin_line(line) || is_postscript_line(line))) ||
                                     (open && rules.begin_line_ends_header && is_begin_line(line)));
    if (ends_field || ends_block) {
      if (lookahead != nullptr) {
        *lookahead = Smtp_line_lookahead{stream.buffer(),
                                         line_start,
                                         stream.tell(),
                                         max_line,
                                         eight_bit_text,
                                         rules.obsolete_field_names,
                                         line,
                                         static_cast<uint32_t>(kind),
                                         colon,
                                         nul};
      }
      stream.seek(line_start);
      break;
    }
    if (!open && kind == Line_kind::name) {
      // The value stops at a NUL; a NUL ahead of the colon makes no name line.
      std::string_view value = line.substr(colon + 1, nul == std::string_view::npos ? nul : nul - colon - 1);
      const size_t spaces = value.find_first_not_of(' ');
      value.remove_prefix(spaces == std::string_view::npos ? value.size() : spaces);
      target.open(name_before(line, colon), value);
      open = true;
      continue;
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
                       std::vector<std::string>& lines, Vek_status& status, bool eight_bit_text) {
  String_target target{name, lines};
  return read_field(stream, Smtp_line_rules{max_line, eight_bit_text}, target, nullptr, status);
}

bool read_header_field(Vek_istream& stream, uint32_t max_line, Smtp_raw_field_view& field,
                       Vek_status& status, bool eight_bit_text) {
  View_target target{field};
  return read_field(stream, Smtp_line_rules{max_line, eight_bit_text}, target, nullptr, status);
}

bool read_header_field(Vek_istream& stream, uint32_t max_line, Smtp_raw_field_view& field,
                       Smtp_line_lookahead& lookahead, Vek_status& status, bool eight_bit_text) {
  View_target target{field};
  return read_field(stream, Smtp_line_rules{max_line, eight_bit_text}, target, &lookahead, status);
}

bool read_header_field(Vek_istream& stream, Smtp_raw_field_view& field, Smtp_line_lookahead& lookahead,
                       Vek_status& status, const Smtp_line_rules& rules) {
  View_target target{field};
  return read_field(stream, rules, target, &lookahead, status);
}

bool read_header_field(Vek_istream& stream, std::string& name, std::vector<std::string>& lines,
                       Vek_status& status, const Smtp_line_rules& rules) {
  String_target target{name, lines};
  return read_field(stream, rules, target, nullptr, status);
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

void write_source_lines(Vek_ostream& out, std::string_view text, Vek_status& status) {
  status.clear();
  while (!text.empty() && status.ok()) {
    const size_t lf = text.find('\n');
    if (lf == std::string_view::npos) {
      out.write(text, status);
      return;
    }
    std::string_view line = text.substr(0, lf);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    out.writeln(line, status);
    text.remove_prefix(lf + 1);
  }
}

void write_raw_field(Vek_ostream& out, std::string_view name, const std::vector<std::string>& lines,
                     Vek_status& status) {
  status.clear();
  // A field with an empty name (a line that began with ':') keeps its
  // colon; without it the line would read back as text of another shape.
  if (name != smtp_bad_header_name) {
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
