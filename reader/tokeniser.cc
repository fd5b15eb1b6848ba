// The lexer works on a span of bytes and a position in it. Every token is a
// contiguous stretch of the source, so it is found as a range and copied
// once, when it is appended. The stream operations run the same code over
// the stream's buffer and seek the stream to where the lexer stopped.
//
// Where this lexer knowingly differs from RFC 822:
// - Control bytes (CR, LF, NUL, DEL, ...) count as white space, so that a
//   folded value needs no unfolding first and stray controls vanish.
// - '(' , '"' and '[' open their token in both sets of specials, and a
//   lone ')' or ']' is a special, never a failure.
// - A backslash means nothing inside a domain literal.
// - Comments nest at most smtp_max_comment_depth levels.
#include "reader/tokeniser.h"

#include <cstring>

namespace {

// A stretch of source bytes under the lexer.
struct Source {
  const char* data;
  size_t size;
};

inline bool is_skipped(char c) { return (char_class_of(c) & (char_white | char_control)) != 0; }

size_t skip_white(Source src, size_t pos) {
  while (pos < src.size && is_skipped(src.data[pos])) ++pos;
  return pos;
}

// Reads a token that runs from the opening byte at `pos` to `closing`, a
// backslash taking the byte behind it along; where `opening` is not 0, the
// token nests up to `max_depth` levels. Leaves `pos` behind the closing
// byte, or where the text ran out. The token may run to kilobytes (a
// quoted boundary): the bytes between the ones that count are passed over
// by memchr, and each search starts where the one before it found its
// byte, so that no byte is searched twice for the same thing.
uint32_t lex_delimited(Source src, size_t& pos, char opening, char closing, size_t max_depth,
                       uint32_t not_closed) {
  const char* const end = src.data + src.size;
  const char* p = src.data + pos + 1;
  // The first closing byte at or behind p (or end), and the first
  // backslash at or behind p in front of it (or it); both found again
  // once p passed them.
  const char* close = p - 1;
  const char* backslash = p - 1;
  size_t depth = 1;
  for (;;) {
    if (close < p) close = find_byte(p, end, closing);
    if (backslash < p) backslash = find_byte(p, close, '\\');
    const char* const at = opening == '\0' ? backslash : find_byte(p, backslash, opening);
    if (at == end) {
      pos = src.size;
      return not_closed;
    }
    p = at + 1;
    pos = static_cast<size_t>(p - src.data);
    if (at != backslash) {
      if (++depth > max_depth) return not_closed;
    } else if (*at == '\\') {
      if (p >= end) return not_closed;
      ++p;
    } else if (--depth == 0) {
      return vek_ok;
    }
  }
}

// comment = "(" *(ctext / quoted-pair / comment) ")"
uint32_t lex_comment(Source src, size_t& pos) {
  return lex_delimited(src, pos, '(', ')', smtp_max_comment_depth, smtp_comment_not_closed);
}

// quoted-string = <"> *(qtext / quoted-pair) <">
uint32_t lex_quoted_string(Source src, size_t& pos) {
  return lex_delimited(src, pos, '\0', '"', 1, smtp_quoted_string_not_closed);
}

// domain-literal = "[" *(dtext / quoted-pair) "]", read up to the first ']'
// whatever stands in front of it.
uint32_t lex_domain_literal(Source src, size_t& pos) {
  const void* close = std::memchr(src.data + pos + 1, ']', src.size - pos - 1);
  if (close == nullptr) {
    pos = src.size;
    return smtp_domain_literal_not_closed;
  }
  pos = static_cast<size_t>(static_cast<const char*>(close) - src.data) + 1;
  return vek_ok;
}

// atom = 1*<any CHAR except specials, SPACE and CTLs>; bytes of 128 and
// above are atom bytes too.
size_t lex_atom(Source src, size_t pos, bool rfc822_specials) {
  const uint32_t stop =
      char_white | char_control | (rfc822_specials ? char_rfc822_special : char_mime_special);
  while (pos < src.size && (char_class_of(src.data[pos]) & stop) == 0) ++pos;
  return pos;
}

// Reads the token at or behind `pos`. Gives vek_end_of_stream when only
// white space is left; otherwise the token's type and range.
uint32_t lex_token(Source src, bool rfc822_specials, size_t& pos, uint32_t& type, size_t& start) {
  pos = skip_white(src, pos);
  if (pos >= src.size) return vek_end_of_stream;
  start = pos;
  const char c = src.data[pos];
  if (c == '(') {
    type = token_comment;
    return lex_comment(src, pos);
  }
  if (c == '"') {
    type = token_quoted_string;
    return lex_quoted_string(src, pos);
  }
  if (c == '[') {
    type = token_domain_literal;
    return lex_domain_literal(src, pos);
  }
  if (!is_atom_char(c, rfc822_specials)) {
    type = token_special;
    ++pos;
    return vek_ok;
  }
  type = token_atom;
  pos = lex_atom(src, pos, rfc822_specials);
  return vek_ok;
}

// The bytes of the stream's buffer and the stream's position in them.
Source stream_source(const Vek_istream& stream) {
  const Vek_buffer* buffer = stream.buffer();
  if (buffer == nullptr || buffer->size() == 0) return Source{"", 0};
  return Source{reinterpret_cast<const char*>(buffer->data()), static_cast<size_t>(buffer->size())};
}

// Runs one of the delimited readers on a stream: skips white space, checks
// the opening byte and hands the token's bytes to `text`.
template <typename Lex>
void read_delimited(Vek_istream& stream, char opening, uint32_t no_opening, Lex lex, std::string& text,
                    Vek_status& status) {
  status.clear();
  text.clear();
  const Source src = stream_source(stream);
  if (stream.tell() >= src.size) {
    status = no_opening;
    return;
  }
  size_t pos = skip_white(src, static_cast<size_t>(stream.tell()));
  stream.seek(pos);
  if (pos >= src.size || src.data[pos] != opening) {
    status = no_opening;
    return;
  }
  const size_t start = pos;
  const uint32_t code = lex(src, pos);
  text.assign(src.data + start, pos - start);
  stream.seek(pos);
  if (code != vek_ok) status = code;
}

}  // namespace

uint32_t next_token(std::string_view value, bool rfc822_specials, bool keep_comments, size_t& pos,
                    Smtp_token_view& token) {
  const Source src{value.data(), value.size()};
  for (;;) {
    uint32_t type = token_atom;
    size_t start = 0;
    const uint32_t code = lex_token(src, rfc822_specials, pos, type, start);
    if (code != vek_ok) return code;
    if (type != token_comment || keep_comments) {
      token = Smtp_token_view{type, value.substr(start, pos - start)};
      return vek_ok;
    }
  }
}

void tokenise_field(std::string_view value, bool rfc822_specials, bool keep_comments, Smtp_token_list& tokens,
                    Vek_status& status) {
  status.clear();
  tokens.clear();
  // A Content-Type with a parameter or two is about a dozen tokens: room
  // for them at once instead of growing the list four times.
  tokens.reserve(16);
  size_t pos = 0;
  Smtp_token_view token;
  for (;;) {
    const uint32_t code = next_token(value, rfc822_specials, keep_comments, pos, token);
    if (code == vek_end_of_stream) return;
    if (code != vek_ok) {
      status = code;
      return;
    }
    tokens.append(token.type, token.text);
  }
}

void read_token(Vek_istream& stream, bool rfc822_specials, Smtp_token& token, Vek_status& status) {
  status.clear();
  const Source src = stream_source(stream);
  if (stream.tell() >= src.size) {
    status = vek_end_of_stream;
    return;
  }
  size_t pos = static_cast<size_t>(stream.tell());
  uint32_t type = token_atom;
  size_t start = 0;
  const uint32_t code = lex_token(src, rfc822_specials, pos, type, start);
  if (code == vek_end_of_stream) {
    stream.seek(pos);
    status = code;
    return;
  }
  token.type = type;
  token.text.assign(src.data + start, pos - start);
  stream.seek(pos);
  if (code != vek_ok) status = code;
}

void read_comment(Vek_istream& stream, std::string& text, Vek_status& status) {
  read_delimited(stream, '(', smtp_no_opening_parenthesis, lex_comment, text, status);
}

void read_quoted_string(Vek_istream& stream, std::string& text, Vek_status& status) {
  read_delimited(stream, '"', smtp_no_opening_quote, lex_quoted_string, text, status);
}

void read_domain_literal(Vek_istream& stream, std::string& text, Vek_status& status) {
  read_delimited(stream, '[', smtp_no_opening_bracket, lex_domain_literal, text, status);
}

void read_atom(Vek_istream& stream, bool rfc822_specials, std::string& text, Vek_status& status) {
  status.clear();
  text.clear();
  const Source src = stream_source(stream);
  if (stream.tell() >= src.size) {
    status = vek_end_of_stream;
    return;
  }
  const size_t pos = skip_white(src, static_cast<size_t>(stream.tell()));
  const size_t end = lex_atom(src, pos, rfc822_specials);
  text.assign(src.data + pos, end - pos);
  stream.seek(end);
  if (text.empty() && end >= src.size) status = vek_end_of_stream;
}

void skip_white_space(Vek_istream& stream) {
  const Source src = stream_source(stream);
  if (stream.tell() >= src.size) return;
  stream.seek(skip_white(src, static_cast<size_t>(stream.tell())));
}
