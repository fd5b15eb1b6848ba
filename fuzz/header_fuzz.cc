// The header readers and the parsers of structured values under arbitrary
// bytes, read as a CR LF stream (the input as it comes, and with bare LF
// made CR LF, as the host hands mail over).
//
// Invariants:
// - the three forms of read_header_field (copies, views, views with the
//   line kept between calls) read the same fields and leave the stream at
//   the same places with the same status;
// - fields written with write_raw_field and read again are the same fields
//   (as long as no written line reaches the line limit, which the space
//   behind a colon can make it do);
// - unfold_field_lines and in_quoted_string give what the rules give when
//   they are applied naively, rescanning from the front;
// - tokenise_field gives tokens that stand in the value in order, with only
//   white space and control bytes (and dropped comments) between them, each
//   of the shape its type says, a quoted string or comment ending where a
//   byte-by-byte reading ends it;
// - the parsers, which walk the tokens one at a time, yield nothing for a
//   value the lexer fails on, and a bare Content-Type is the one atom;
// - the parsers and the repairs end on every value; a repair that says it
//   changed nothing left the value alone, and a cleaned Encoding value holds
//   no special but ',', '(' and ')' outside its comments;
// - read_header_block ends inside the data and gives no more fields than it
//   saw names.
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "contracts/status_codes.h"
#include "contracts/vek.h"
#include "fuzz/fuzz_check.h"
#include "reader/char_class.h"
#include "reader/content_type_repair.h"
#include "reader/field_parsers.h"
#include "reader/header_block.h"
#include "reader/header_reader.h"
#include "reader/tokeniser.h"

namespace {

struct Field {
  std::string name;
  std::vector<std::string> lines;
  bool operator==(const Field&) const = default;
};

struct Read_result {
  std::vector<Field> fields;
  std::vector<uint64_t> ends;  // the stream position behind each call
  std::vector<uint32_t> statuses;
};

struct Stream {
  explicit Stream(std::string_view text)
      : buffer(text.size(), text.data(), 0), stream(&buffer, true, status, vek_eol_crlf) {}
  Vek_raw_memory_buffer buffer;
  Vek_status status;
  Vek_buffered_istream stream;
};

// Reads field after field until a call gives false, the status fails or a
// blank line stands next; `read_one` is one form of the reader.
template <typename Read_one>
Read_result read_fields(std::string_view text, Read_one read_one) {
  Read_result result;
  Stream in(text);
  for (size_t calls = 0;; ++calls) {
    FUZZ_CHECK(calls <= text.size() + 1, "the reader does not move on");
    Vek_status status;
    Field field;
    const bool got = read_one(in.stream, field, status);
    result.ends.push_back(in.stream.tell());
    result.statuses.push_back(status.value());
    if (!got) break;
    result.fields.push_back(std::move(field));
    if (!status.ok()) break;
  }
  return result;
}

Read_result read_with_copies(std::string_view text) {
  return read_fields(text, [](Vek_istream& stream, Field& field, Vek_status& status) {
    return read_header_field(stream, smtp_max_header_line, field.name, field.lines, status);
  });
}

Read_result read_with_views(std::string_view text, bool keep_line) {
  Smtp_line_lookahead lookahead;
  return read_fields(text, [&](Vek_istream& stream, Field& field, Vek_status& status) {
    Smtp_raw_field_view view;
    const bool got = keep_line ? read_header_field(stream, smtp_max_header_line, view, lookahead, status)
                               : read_header_field(stream, smtp_max_header_line, view, status);
    field.name.assign(view.name);
    for (size_t i = 0; i < view.count(); ++i) field.lines.emplace_back(view.line(i));
    return got;
  });
}

bool naive_in_quoted_string(std::string_view text, size_t length) {
  bool odd = false;
  for (size_t i = 0; i < length && i < text.size(); ++i) {
    if (text[i] == '\\') {
      ++i;
    } else if (text[i] == '"') {
      odd = !odd;
    }
  }
  return odd;
}

// The end of the quoted string (opening '\0') or comment at `at`, read a
// byte at a time; npos where it is not closed.
size_t naive_delimited_end(std::string_view text, size_t at, char opening, char closing) {
  size_t depth = 0;
  for (size_t i = at; i < text.size(); ++i) {
    if (text[i] == '\\') {
      ++i;
    } else if (text[i] == closing && i != at) {
      if (--depth == 0) return i + 1;
    } else if ((opening != '\0' && text[i] == opening) || i == at) {
      if (++depth > smtp_max_comment_depth) return std::string_view::npos;
    }
  }
  return std::string_view::npos;
}

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }

// The unfolding rule, applied as it is written.
std::string naive_unfold(const std::vector<std::string>& lines) {
  std::string result;
  for (const std::string& line : lines) {
    if (result.empty()) {
      result = line;
    } else if (result.back() == '\\' && naive_in_quoted_string(result, result.size() - 1)) {
      result.back() = '\r';
      result += "\n" + (line.empty() ? std::string() : line.substr(1));
    } else {
      size_t lead = 0;
      while (lead < line.size() && is_space(line[lead])) ++lead;
      size_t end = result.size();
      while (end > 0 && is_space(result[end - 1])) --end;
      size_t start = 0;
      while (start < end && is_space(result[start])) ++start;
      result = result.substr(start, end - start) + " " + line.substr(lead);
    }
  }
  return result;
}

// Prints the first field where two readings differ.
void print_difference(const std::vector<Field>& a, const std::vector<Field>& b) {
  auto print = [](const char* label, const Field& field) {
    std::fprintf(stderr, "%s: name \"%s\", %zu lines:\n", label, field.name.c_str(), field.lines.size());
    for (const std::string& line : field.lines) std::fprintf(stderr, "  [%s]\n", line.c_str());
  };
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
    if (a[i] == b[i]) continue;
    std::fprintf(stderr, "field %zu differs\n", i);
    print("first", a[i]);
    print("second", b[i]);
    return;
  }
  std::fprintf(stderr, "%zu fields, then %zu\n", a.size(), b.size());
}

bool is_skipped(char c) { return (char_class_of(c) & (char_white | char_control)) != 0; }

// Moves `at` over white space and control bytes, and over comments when
// they are dropped.
size_t skip_between(std::string_view value, size_t at, bool rfc822_specials, bool keep_comments) {
  for (;;) {
    while (at < value.size() && is_skipped(value[at])) ++at;
    if (keep_comments || at >= value.size() || value[at] != '(') return at;
    // A dropped comment: its end as the tokeniser finds it.
    Smtp_token_list one;
    Vek_status own;
    tokenise_field(value.substr(at), rfc822_specials, true, one, own);
    if (one.count() == 0 || one[0].type != token_comment) return at;
    at += one[0].text.size();
  }
}

void check_tokens(std::string_view value, bool rfc822_specials, bool keep_comments) {
  Smtp_token_list tokens;
  Vek_status status;
  tokenise_field(value, rfc822_specials, keep_comments, tokens, status);
  size_t at = 0;
  for (const Smtp_token& token : tokens) {
    const std::string& text = token.text;
    FUZZ_CHECK(!text.empty(), "an empty token");
    at = skip_between(value, at, rfc822_specials, keep_comments);
    FUZZ_CHECK(value.compare(at, text.size(), text) == 0, "token %zu bytes at %zu is not the value's bytes",
               text.size(), at);
    at += text.size();
    switch (token.type) {
      case token_special:
        FUZZ_CHECK(text.size() == 1 && !is_atom_char(text[0], rfc822_specials), "a special of %zu bytes",
                   text.size());
        break;
      case token_quoted_string:
        FUZZ_CHECK(text.size() >= 2 && text.front() == '"' && text.back() == '"', "an open quoted string");
        FUZZ_CHECK(naive_delimited_end(value, at - text.size(), '\0', '"') == at,
                   "a quoted string ends early");
        break;
      case token_domain_literal:
        FUZZ_CHECK(text.size() >= 2 && text.front() == '[' && text.back() == ']', "an open domain literal");
        break;
      case token_comment:
        FUZZ_CHECK(text.size() >= 2 && text.front() == '(' && text.back() == ')', "an open comment");
        FUZZ_CHECK(naive_delimited_end(value, at - text.size(), '(', ')') == at, "a comment ends early");
        break;
      case token_atom:
        for (char c : text)
          FUZZ_CHECK(!is_skipped(c) && is_atom_char(c, rfc822_specials), "a byte 0x%02x in an atom",
                     static_cast<unsigned char>(c));
        break;
      default:
        FUZZ_CHECK(false, "token type %u", token.type);
    }
  }
  if (status.ok()) {
    at = skip_between(value, at, rfc822_specials, keep_comments);
    FUZZ_CHECK(at == value.size(), "tokens end at %zu of %zu with a good status", at, value.size());
  }
}

void check_value(const std::string& value) {
  FUZZ_CHECK(in_quoted_string(value, value.size()) == naive_in_quoted_string(value, value.size()),
             "in_quoted_string over %zu bytes", value.size());
  FUZZ_CHECK(in_quoted_string(value, value.size() / 2) == naive_in_quoted_string(value, value.size() / 2),
             "in_quoted_string over half of %zu bytes", value.size());

  for (bool rfc822 : {true, false})
    for (bool comments : {true, false}) check_tokens(value, rfc822, comments);

  Vek_status status;
  std::string type, subtype, word;
  std::vector<Smtp_header_field> parameters;
  Smtp_token_list tokens;
  Vek_status lexed;
  tokenise_field(value, false, false, tokens, lexed);
  parse_content_type(value, type, subtype, parameters, status);
  if (status.ok()) FUZZ_CHECK(!type.empty() && !subtype.empty(), "a good Content-Type without its type");
  if (!lexed.ok())
    FUZZ_CHECK(!status.ok() && type.empty() && subtype.empty() && parameters.empty(),
               "a Content-Type the lexer fails on yields something");
  parse_content_disposition(value, word, parameters, status);
  if (status.ok()) FUZZ_CHECK(!word.empty(), "a good Content-Disposition without its type");
  if (!lexed.ok())
    FUZZ_CHECK(!status.ok() && word.empty() && parameters.empty(),
               "a Content-Disposition the lexer fails on yields something");
  parse_transfer_encoding(value, word, status);
  parse_bare_content_type(value, word, status);
  const bool one_atom = lexed.ok() && tokens.count() == 1 && tokens[0].type == token_atom;
  FUZZ_CHECK(status.ok() == one_atom && (!one_atom || word == tokens[0].text),
             "a bare Content-Type not one atom");
  std::vector<Smtp_encoding_entry> entries;
  parse_encoding_field(value, entries, status);

  std::string repaired = value;
  if (repair_content_type(repaired)) {
    FUZZ_CHECK(repaired != value, "a repair that changed nothing says it did");
    parse_content_type(repaired, type, subtype, parameters, status);
  } else {
    FUZZ_CHECK(repaired == value, "a repair that says it changed nothing changed the value");
  }
  std::string cleaned = value;
  const bool dropped = clean_encoding_field(cleaned);
  FUZZ_CHECK(dropped == (cleaned.size() != value.size()), "clean_encoding_field's answer");
  // Outside comments no special is left but ',' and the parentheses;
  // inside them (nested, with quoted pairs) everything stays.
  size_t depth = 0;
  bool quoted_pair = false;
  for (char c : cleaned) {
    if (quoted_pair) {
      quoted_pair = false;
    } else if (c == '(') {
      ++depth;
    } else if (c == ')') {
      if (depth != 0) --depth;
    } else if (depth != 0) {
      quoted_pair = c == '\\';
    } else {
      FUZZ_CHECK((char_class_of(c) & char_rfc822_special) == 0 || c == ',',
                 "a special 0x%02x left after cleaning", static_cast<unsigned char>(c));
    }
  }

  // The writer with folding, which tokenises the value itself.
  Vek_memory_buffer output;
  Vek_ostream out(&output, status, vek_eol_crlf);
  write_header_field(out, "Subject", value, true, status);
  write_header_field(out, smtp_bad_header_name, value, true, status);
  FUZZ_CHECK(status.ok(), "write_header_field failed with 0x%08x", status.value());
}

bool has_real_bad_header(std::string_view text) {
  constexpr std::string_view name = "Bad-Header:";
  for (size_t at = text.find(name); at != std::string_view::npos; at = text.find(name, at + 1))
    if (at == 0 || (at >= 2 && text.substr(at - 2, 2) == "\r\n")) return true;
  return false;
}

void check_text(std::string_view text) {
  const Read_result copies = read_with_copies(text);
  for (bool keep_line : {false, true}) {
    const Read_result views = read_with_views(text, keep_line);
    FUZZ_CHECK(views.fields == copies.fields, "the readers disagree on the fields (kept line: %d)", keep_line);
    FUZZ_CHECK(views.ends == copies.ends, "the readers disagree on the stream (kept line: %d)", keep_line);
    FUZZ_CHECK(views.statuses == copies.statuses, "the readers disagree on the status (kept line: %d)", keep_line);
  }

  // Written back and read again.
  Vek_status status;
  Vek_memory_buffer output;
  Vek_ostream out(&output, status, vek_eol_crlf);
  for (const Field& field : copies.fields) write_raw_field(out, field.name, field.lines, status);
  FUZZ_CHECK(status.ok(), "write_raw_field failed with 0x%08x", status.value());
  const std::string_view written(reinterpret_cast<const char*>(output.data()), output.size());
  // A real field named exactly "Bad-Header" is taken for the pseudo field
  // and written back without its name, so its value reads as a line of
  // junk that can turn the field in front of it bad. That loss is by
  // design; such a header is not expected to read back the same.
  bool comparable = !has_real_bad_header(text);
  for (size_t start = 0, end; start < written.size(); start = end + 2) {
    end = written.find("\r\n", start);
    if (end == std::string_view::npos) end = written.size();
    if (end - start >= smtp_max_header_line - 1) comparable = false;
  }
  if (comparable) {
    const Read_result again = read_with_copies(written);
    if (again.fields != copies.fields) print_difference(copies.fields, again.fields);
    FUZZ_CHECK(again.fields == copies.fields, "%zu fields read back as %zu (or changed)", copies.fields.size(),
               again.fields.size());
  }

  for (const Field& field : copies.fields) {
    const std::string value = unfold_field_lines(field.lines);
    FUZZ_CHECK(value == naive_unfold(field.lines), "unfold_field_lines of %zu lines", field.lines.size());
    check_value(value);
  }

  Stream in(text);
  std::vector<Smtp_header_field> fields;
  std::vector<std::string> names;
  read_header_block(in.stream, fields, status, nullptr, &names);
  FUZZ_CHECK(in.stream.tell() <= text.size(), "the block reader ends at %llu of %zu",
             static_cast<unsigned long long>(in.stream.tell()), text.size());
  FUZZ_CHECK(fields.size() <= names.size(), "%zu fields of %zu names", fields.size(), names.size());
  looks_like_message_header(names);
  skip_blank_line(in.stream);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  check_text(text);
  std::string canonical;
  canonical.reserve(size + size / 16);
  for (size_t i = 0; i < size; ++i) {
    if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) canonical.push_back('\r');
    canonical.push_back(text[i]);
  }
  if (canonical != text) check_text(canonical);
  // The whole input as one value, as a parser may be handed it.
  if (size <= 4096) check_value(std::string(text));
  return 0;
}
