// The lexer of structured header values (RFC 822 section 3.3, with the
// tspecials of RFC 1521 as an alternative set of specials).
//
// A token keeps the bytes of the source with their delimiters (quotes,
// brackets, parentheses, backslashes), so that a value can be put together
// again from its tokens; unquoting is the parsers' business. A token list
// owns copies of its tokens. The lexer keeps no state between calls: all of
// it lies in the stream position or in the value passed in.
#ifndef SMTPFM_READER_TOKENISER_H_
#define SMTPFM_READER_TOKENISER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "contracts/vek.h"
#include "reader/char_class.h"

// Token types.
inline constexpr uint32_t token_special = 0;         // one byte of the active set of specials
inline constexpr uint32_t token_quoted_string = 1;   // "..." with both quotes, backslashes in place
inline constexpr uint32_t token_domain_literal = 2;  // [...] with both brackets
inline constexpr uint32_t token_comment = 3;         // (...) with nested comments, backslashes in place
inline constexpr uint32_t token_atom = 4;            // a run of atom bytes, at least one

// Comments nest (RFC 822 section 3.4.3). Real mail nests one or two levels;
// past this depth a comment counts as not closed, so that a value made of
// nothing but '(' fails quickly instead of nesting without end.
inline constexpr size_t smtp_max_comment_depth = 256;

struct Smtp_token {
  uint32_t type = token_atom;
  std::string text;
};

// An ordered list of tokens that owns copies of what is appended to it.
class Smtp_token_list {
 public:
  size_t count() const { return tokens_.size(); }
  // The token at `index`, from 0; the caller stays below count().
  const Smtp_token& operator[](size_t index) const { return tokens_[index]; }
  // Appends a copy of `token`.
  void append(const Smtp_token& token) { tokens_.push_back(token); }
  // Appends a token made of `type` and a copy of `text`.
  void append(uint32_t type, std::string_view text) {
    tokens_.push_back(Smtp_token{type, std::string(text)});
  }
  // Frees every token.
  void clear() { tokens_.clear(); }
  // Makes room for `count` tokens in all.
  void reserve(size_t count) { tokens_.reserve(count); }

  std::vector<Smtp_token>::const_iterator begin() const { return tokens_.begin(); }
  std::vector<Smtp_token>::const_iterator end() const { return tokens_.end(); }

 private:
  std::vector<Smtp_token> tokens_;
};

// True when `byte` may stand in an atom: it is no special of the active set
// (RFC 822 specials when `rfc822_specials`, else the RFC 1521 tspecials).
// White space and controls are tested apart by the callers.
inline bool is_atom_char(char byte, bool rfc822_specials) {
  return (char_class_of(byte) & (rfc822_specials ? char_rfc822_special : char_mime_special)) == 0;
}

// A token as a view into the value it was read from.
struct Smtp_token_view {
  uint32_t type = token_atom;
  std::string_view text;
};

// Reads the token of `value` at or behind `pos`, passing over comments
// unless `keep_comments`, and leaves `pos` behind it. vek_ok with the token
// in `token`; vek_end_of_stream when nothing but white space (and comments)
// is left; else the lexer's failure, `token` untouched.
uint32_t next_token(std::string_view value, bool rfc822_specials, bool keep_comments, size_t& pos,
                    Smtp_token_view& token);

// Empties `tokens` and cuts the whole of `value` into tokens, dropping
// comments unless `keep_comments`. The end of the value is no failure; on a
// failure the tokens read before it stay in the list.
void tokenise_field(std::string_view value, bool rfc822_specials, bool keep_comments, Smtp_token_list& tokens,
                    Vek_status& status);

// The stream operations below read the bytes of the stream's buffer
// directly and leave the stream behind what they consumed.

// Reads the next token; at the end of the text the status is
// vek_end_of_stream and `token` is left untouched.
void read_token(Vek_istream& stream, bool rfc822_specials, Smtp_token& token, Vek_status& status);
// Empties `text`, skips white space and reads a comment: needs '(' next.
void read_comment(Vek_istream& stream, std::string& text, Vek_status& status);
// Empties `text`, skips white space and reads a quoted string: needs '"' next.
void read_quoted_string(Vek_istream& stream, std::string& text, Vek_status& status);
// Empties `text`, skips white space and reads a domain literal: needs '[' next.
void read_domain_literal(Vek_istream& stream, std::string& text, Vek_status& status);
// Empties `text`, skips white space and reads an atom; an empty atom at the
// end of the text gives vek_end_of_stream.
void read_atom(Vek_istream& stream, bool rfc822_specials, std::string& text, Vek_status& status);
// Moves over white space and control bytes (CR, LF, NUL, DEL among them).
void skip_white_space(Vek_istream& stream);

#endif  // SMTPFM_READER_TOKENISER_H_
