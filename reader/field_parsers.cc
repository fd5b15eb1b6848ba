// Parsing structured field values from their tokens.
//
// RFC 1521 section 4 and RFC 2183 section 2:
//   content    := "Content-Type" ":" type "/" subtype *(";" parameter)
//   disposition := disposition-type *(";" disposition-parm)
//   parameter  := attribute "=" value
//   value      := token / quoted-string
// RFC 1505 section 4:
//   encoding   := "Encoding" ":" 1#( [ number ] keywords [ comment ] )
//
// Where these parsers knowingly differ from the RFCs:
// - Repeated ";" between parameters are skipped.
// - Unquoted values of several atoms are joined by one space, so that an
//   unquoted file name with a blank survives.
// - An unquoted Content-Type "boundary" (exactly that attribute, in that
//   case) takes tspecials other than ";" into its value; an unquoted value
//   of another attribute that runs into a tspecial is dropped and the rest
//   of the field is still read.
// - A domain literal is taken as a parameter value, brackets included.
#include "reader/field_parsers.h"

#include <algorithm>
#include <limits>

#include "codecs/encoded_words.h"
#include "reader/tokeniser.h"

namespace {

// Whether `token` (a Smtp_token or a Smtp_token_view) is the special `byte`.
template <typename Token>
bool is_special(const Token& token, char byte) {
  return token.type == token_special && token.text.size() == 1 && token.text[0] == byte;
}

// The tokens of a value with the RFC 1521 tspecials, comments passed over,
// read one at a time as views into the value: a parser builds no token
// list, and copies only what it keeps. A failure of the lexer ends the
// tokens like the end of the value does; failed() tells them apart.
class Token_cursor {
 public:
  explicit Token_cursor(std::string_view value) : value_(value) { advance(); }

  // Whether the tokens ran out (or the lexer failed).
  bool at_end() const { return code_ != vek_ok; }
  // The current token; only while !at_end().
  const Smtp_token_view& token() const { return token_; }
  // Moves to the next token.
  void advance() {
    if (code_ == vek_ok) code_ = next_token(value_, false, false, pos_, token_);
  }
  // Reads the rest of the value; true when the lexer failed anywhere in it.
  bool failed() {
    while (!at_end()) advance();
    return code_ != vek_end_of_stream;
  }

 private:
  std::string_view value_;
  size_t pos_ = 0;
  uint32_t code_ = vek_ok;
  Smtp_token_view token_;
};

// Reads ";" attribute "=" value pairs from the cursor on. False on a break
// of the grammar; the parameters read before it stay in `parameters`.
// `content_type` selects the Content-Type rules for unquoted values, else
// those of Content-Disposition.
bool parse_parameters(Token_cursor& tokens, bool content_type, std::vector<Smtp_header_field>& parameters) {
  while (!tokens.at_end()) {
    if (!is_special(tokens.token(), ';')) return false;
    tokens.advance();
    while (!tokens.at_end() && is_special(tokens.token(), ';')) tokens.advance();
    if (tokens.at_end() || tokens.token().type != token_atom) return false;
    const std::string_view attribute = tokens.token().text;
    tokens.advance();
    if (tokens.at_end() || !is_special(tokens.token(), '=')) return false;
    tokens.advance();
    if (tokens.at_end()) return false;

    const Smtp_token_view first = tokens.token();
    if (first.type == token_quoted_string) {
      parameters.push_back(Smtp_header_field{std::string(attribute), unquote_value(first.text)});
      tokens.advance();
      continue;
    }
    if (first.type == token_domain_literal) {
      parameters.push_back(Smtp_header_field{std::string(attribute), std::string(first.text)});
      tokens.advance();
      continue;
    }
    if (first.type != token_atom) return false;

    // An unquoted value: a run of atoms, one space between two of them; a
    // boundary also takes the tspecials that mailers leave unquoted.
    const bool is_boundary = content_type && attribute == "boundary";
    std::string value;
    bool after_atom = false;
    for (; !tokens.at_end(); tokens.advance()) {
      const Smtp_token_view& token = tokens.token();
      const bool is_atom = token.type == token_atom;
      if (!is_atom && !(is_boundary && token.type == token_special && !is_special(token, ';'))) break;
      if (is_atom && after_atom) value.push_back(' ');
      value.append(token.text);
      after_atom = is_atom;
    }
    if (!content_type || tokens.at_end() || is_special(tokens.token(), ';')) {
      parameters.push_back(Smtp_header_field{std::string(attribute), std::move(value)});
    } else {
      // The value ran into something it cannot hold: drop the parameter
      // and go on at the next ";".
      while (!tokens.at_end() && !is_special(tokens.token(), ';')) tokens.advance();
    }
  }
  return true;
}

// A value of exactly one atom.
void parse_single_atom(std::string_view value, std::string& result, uint32_t failure, Vek_status& status) {
  status.clear();
  result.clear();
  Token_cursor tokens(value);
  if (tokens.at_end() || tokens.token().type != token_atom) {
    status = failure;
    return;
  }
  const std::string_view atom = tokens.token().text;
  tokens.advance();
  if (!tokens.at_end() || tokens.failed()) {
    status = failure;
    return;
  }
  result.assign(atom);
}

// The decimal value of a run of digits; a count too large for the field is
// taken as the largest there is.
int32_t decimal_value(std::string_view digits) {
  int64_t value = 0;
  for (char c : digits) {
    value = value * 10 + (c - '0');
    if (value > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
  }
  return static_cast<int32_t>(value);
}

}  // namespace

void parse_content_type(std::string_view value, std::string& type, std::string& subtype,
                        std::vector<Smtp_header_field>& parameters, Vek_status& status) {
  status.clear();
  type.clear();
  subtype.clear();
  parameters.clear();
  // type "/" subtype: the first three tokens, read before anything is kept.
  Token_cursor tokens(value);
  Smtp_token_view head[3];
  size_t head_count = 0;
  for (; head_count < 3 && !tokens.at_end(); ++head_count) {
    head[head_count] = tokens.token();
    tokens.advance();
  }
  bool parsed = false;
  if (head_count == 3 && head[0].type == token_atom) {
    type.assign(head[0].text);
    if (is_special(head[1], '/') && head[2].type == token_atom) {
      subtype.assign(head[2].text);
      parsed = parse_parameters(tokens, true, parameters);
    }
  }
  // A value the lexer fails on yields nothing, wherever the failure lies.
  if (tokens.failed()) {
    type.clear();
    subtype.clear();
    parameters.clear();
    parsed = false;
  }
  if (!parsed) status = smtp_bad_content_type;
}

void parse_content_disposition(std::string_view value, std::string& disposition,
                               std::vector<Smtp_header_field>& parameters, Vek_status& status) {
  status.clear();
  disposition.clear();
  parameters.clear();
  Token_cursor tokens(value);
  bool parsed = false;
  if (!tokens.at_end() && tokens.token().type == token_atom) {
    disposition.assign(tokens.token().text);
    tokens.advance();
    parsed = parse_parameters(tokens, false, parameters);
  }
  // A value the lexer fails on yields nothing, wherever the failure lies.
  if (tokens.failed()) {
    disposition.clear();
    parameters.clear();
    parsed = false;
  }
  if (!parsed) status = smtp_bad_content_disposition;
}

void parse_transfer_encoding(std::string_view value, std::string& encoding, Vek_status& status) {
  parse_single_atom(value, encoding, smtp_bad_transfer_encoding, status);
}

void parse_bare_content_type(std::string_view value, std::string& type, Vek_status& status) {
  parse_single_atom(value, type, smtp_content_type_not_single_word, status);
}

void parse_encoding_field(std::string_view value, std::vector<Smtp_encoding_entry>& entries,
                          Vek_status& status) {
  status.clear();
  entries.clear();
  Smtp_token_list tokens;
  tokenise_field(value, true, true, tokens, status);
  if (!status.ok()) {
    status = smtp_bad_encoding_field;
    return;
  }
  const size_t count = tokens.count();
  size_t i = 0;
  while (i < count) {
    Smtp_encoding_entry entry;
    if (tokens[i].type != token_atom) {
      status = smtp_bad_encoding_field;
      return;
    }
    if (vek_is_number(vek_stow(tokens[i].text))) {
      entry.line_count = decimal_value(tokens[i].text);
      ++i;
    }
    for (; i < count && tokens[i].type == token_atom; ++i) {
      if (!entry.keywords.empty()) entry.keywords.push_back(' ');
      entry.keywords.append(tokens[i].text);
    }
    // Only the last entry may go without its line count.
    if (entry.line_count == -1 && (count - i > 1 || entry.keywords.empty())) {
      status = smtp_bad_encoding_field;
      return;
    }
    if (i < count) {
      if (is_special(tokens[i], ',')) {
        ++i;
      } else if (tokens[i].type == token_comment) {
        entry.comment = tokens[i].text;
        ++i;
        if (i < count && is_special(tokens[i], ',')) ++i;
      } else {
        status = smtp_bad_encoding_field;
        return;
      }
    }
    entries.push_back(std::move(entry));
  }
}

std::string unquote_value(std::string_view text) { return vek_unquote(text); }

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string_view trim_blanks(std::string_view text) {
  while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_blank(text.back())) text.remove_suffix(1);
  return text;
}

// The end of the piece that starts at `from`: the first ';' outside a
// quoted string, or the end of the value. A backslash in a quoted string
// takes the byte behind it along. (A value may be a few kilobytes: the
// bytes between the ones that count are passed over by memchr.)
size_t piece_end(std::string_view value, size_t from) {
  const char* const begin = value.data();
  const char* const end = begin + value.size();
  const char* p = begin + from;
  while (p < end) {
    const char* semicolon = find_byte(p, end, ';');
    const char* quote = find_byte(p, semicolon, '"');
    if (quote == semicolon) return static_cast<size_t>(semicolon - begin);
    // Inside the quoted string, up to the quote that closes it.
    p = quote + 1;
    for (;;) {
      const char* close = find_byte(p, end, '"');
      const char* backslash = find_byte(p, close, '\\');
      if (backslash != close) {
        p = backslash + 2;
        if (p >= end) return value.size();
        continue;
      }
      if (close == end) return value.size();
      p = close + 1;
      break;
    }
  }
  return value.size();
}

// A quoted value up to its closing quote, or to its end without one.
std::string unquote_leniently(std::string_view text) {
  std::string out;
  for (size_t i = 1; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '"') break;
    if (c == '\\' && i + 1 < text.size()) ++i;
    out.push_back(text[i]);
  }
  return out;
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// Resolves the %XX escapes of an extended value; a '%' without two hex
// digits behind it stays, as clients leave it.
void append_percent_decoded(std::string_view text, std::string& out) {
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      const int high = hex_digit(text[i + 1]);
      const int low = hex_digit(text[i + 2]);
      if (high >= 0 && low >= 0) {
        out.push_back(static_cast<char>(high * 16 + low));
        i += 2;
        continue;
      }
    }
    out.push_back(text[i]);
  }
}

// Splits "charset'language'text" into charset and text; a value without
// the two quotes is all text.
void split_extended(std::string_view value, std::string& charset, std::string_view& text) {
  const size_t first = value.find('\'');
  const size_t second = first == std::string_view::npos ? first : value.find('\'', first + 1);
  if (second == std::string_view::npos) {
    charset.clear();
    text = value;
    return;
  }
  charset.assign(value.substr(0, first));
  text = value.substr(second + 1);
}

// The section number of an attribute "name*N" or "name*N*" (N decimal, no
// sign); -1 for anything else. `extended` tells the trailing '*'.
int64_t section_number(std::string_view attribute, std::string_view name, bool& extended) {
  if (attribute.size() < name.size() + 2 || attribute[name.size()] != '*' ||
      !vek_string_equal_nc(attribute.substr(0, name.size()), name))
    return -1;
  std::string_view digits = attribute.substr(name.size() + 1);
  extended = !digits.empty() && digits.back() == '*';
  if (extended) digits.remove_suffix(1);
  if (digits.empty() || digits.size() > 4) return -1;
  int64_t number = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return -1;
    number = number * 10 + (c - '0');
  }
  return number;
}

// Calls `take(attribute, text)` for each piece "attribute=value" behind the
// first ';', both trimmed, as long as it returns true; `text` still has
// its quotes. Returns the end of the head.
template <typename Take>
size_t for_each_piece(std::string_view value, Take take) {
  const size_t head_end = piece_end(value, 0);
  size_t end = head_end;
  while (end < value.size()) {
    const size_t start = end + 1;
    end = piece_end(value, start);
    const std::string_view piece = value.substr(start, end - start);
    const size_t equals = piece.find('=');
    if (equals == std::string_view::npos) continue;
    const std::string_view attribute = trim_blanks(piece.substr(0, equals));
    if (attribute.empty()) continue;
    if (!take(attribute, trim_blanks(piece.substr(equals + 1)))) break;
  }
  return head_end;
}

}  // namespace

void split_parameters(std::string_view value, std::string& head, std::vector<Smtp_header_field>& parameters) {
  parameters.clear();
  const size_t head_end = for_each_piece(value, [&](std::string_view attribute, std::string_view text) {
    parameters.push_back(Smtp_header_field{
        std::string(attribute), !text.empty() && text.front() == '"' ? unquote_leniently(text) : std::string(text)});
    return true;
  });
  head.assign(trim_blanks(value.substr(0, head_end)));
}

bool split_agrees_on(std::string_view value, const std::vector<Smtp_header_field>& parsed, std::string_view name) {
  const auto named = [name](std::string_view attribute) {
    if (attribute.size() < name.size() || (attribute.size() > name.size() && attribute[name.size()] != '*'))
      return false;
    // Mostly written in the case of `name`.
    const std::string_view prefix = attribute.substr(0, name.size());
    return prefix == name || vek_string_equal_nc(prefix, name);
  };
  size_t next = 0;
  const auto next_named = [&]() -> const Smtp_header_field* {
    while (next < parsed.size() && !named(parsed[next].name)) ++next;
    return next < parsed.size() ? &parsed[next++] : nullptr;
  };
  bool agrees = true;
  for_each_piece(value, [&](std::string_view attribute, std::string_view text) {
    if (!named(attribute)) return true;
    if (!text.empty() && text.front() == '"') {
      // A quoted value up to its closing quote, compared without a copy.
      text.remove_prefix(1);
      const char* const end = text.data() + text.size();
      const char* const close = find_byte(text.data(), end, '"');
      if (find_byte(text.data(), close, '\\') != close) return agrees = false;
      text = text.substr(0, static_cast<size_t>(close - text.data()));
    }
    const Smtp_header_field* parameter = next_named();
    agrees = parameter != nullptr && parameter->name == attribute && parameter->value == text;
    return agrees;
  });
  return agrees && next_named() == nullptr;
}

bool find_parameter_value(const std::vector<Smtp_header_field>& parameters, std::string_view name,
                          Smtp_parameter_value& value) {
  value = Smtp_parameter_value{};
  // RFC 2231, section 4: "name*" is one extended value.
  for (const Smtp_header_field& parameter : parameters) {
    if (parameter.name.size() != name.size() + 1 || parameter.name.back() != '*' ||
        !vek_string_equal_nc(std::string_view(parameter.name).substr(0, name.size()), name))
      continue;
    std::string_view text;
    split_extended(parameter.value, value.charset, text);
    append_percent_decoded(text, value.bytes);
    value.extended = true;
    return true;
  }
  // RFC 2231, section 3: sections "name*0", "name*1"..., the first of
  // several with the same number counting; they join from 0 up to the
  // first gap.
  std::vector<const Smtp_header_field*> sections;
  std::vector<bool> extended_sections;
  for (const Smtp_header_field& parameter : parameters) {
    bool extended = false;
    const int64_t number = section_number(parameter.name, name, extended);
    if (number < 0 || static_cast<size_t>(number) >= smtp_max_parameter_sections) continue;
    const auto index = static_cast<size_t>(number);
    if (index >= sections.size()) {
      sections.resize(index + 1, nullptr);
      extended_sections.resize(index + 1, false);
    }
    if (sections[index] != nullptr) continue;
    sections[index] = &parameter;
    extended_sections[index] = extended;
  }
  if (!sections.empty() && sections[0] != nullptr) {
    value.extended = true;
    for (size_t i = 0; i < sections.size() && sections[i] != nullptr; ++i) {
      if (!extended_sections[i]) {
        value.bytes.append(sections[i]->value);
        continue;
      }
      std::string_view text = sections[i]->value;
      // Only the first section carries charset and language.
      if (i == 0) split_extended(sections[i]->value, value.charset, text);
      append_percent_decoded(text, value.bytes);
    }
    return true;
  }
  for (const Smtp_header_field& parameter : parameters) {
    if (!vek_string_equal_nc(parameter.name, name)) continue;
    value.bytes = parameter.value;
    return true;
  }
  return false;
}

Vek_wstring parameter_text(const Smtp_parameter_value& value) { return parameter_text(value.bytes, value.charset); }

Vek_wstring parameter_text(std::string_view bytes, std::string_view charset) {
  Vek_wstring text;
  if (!charset.empty() && charset_to_wide(charset, bytes, text)) return text;
  const bool ascii =
      std::all_of(bytes.begin(), bytes.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (!ascii && is_valid_utf8(bytes) && charset_to_wide("UTF-8", bytes, text)) return text;
  return vek_stow(bytes);
}
