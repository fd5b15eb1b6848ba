// Encoded words (RFC 2047) in header field values.
//
// Turns the bytes of one field value into wide text for the host: every
// encoded word that decodes is replaced by its text, converted from its
// character set; everything else, bad words included, is widened byte for
// byte. Pure functions: the caller owns all strings, and nothing is kept
// between calls. Nothing fails outwards.
#ifndef SMTPFM_CODECS_ENCODED_WORDS_H_
#define SMTPFM_CODECS_ENCODED_WORDS_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "contracts/vek.h"

// An encoded word is at most this long, "=?" and "?=" included (RFC 2047,
// section 2).
inline constexpr size_t smtp_max_encoded_word = 75;

// Replaces `result` by the wide text of `value`, with its encoded words
// decoded where they can be. With `raw_utf8`, text outside the words that
// is valid UTF-8 (RFC 6532 lets it stand in a header) is read as UTF-8
// instead of byte for byte.
void decode_encoded_words(std::string_view value, Vek_wstring& result, bool raw_utf8 = false);

// Whether `bytes` are well-formed UTF-8 (no overlong two-byte forms, no
// lead byte above 0xF4).
bool is_valid_utf8(std::string_view bytes);

// Finds the next encoded word at or behind `position`: true with its start,
// its end (behind the "?="), charset, encoding letter ("Q" or "B") and
// text; false when no usable word follows.
bool next_encoded_word(std::string_view value, size_t position, size_t& start, size_t& end,
                       std::string& charset, std::string& encoding, std::string& text);

// Replaces `wide` by `bytes` read in the character set named `charset`
// (any name or alias the character set library knows, or "ascii"); false
// when the name is unknown. Parameter values of RFC 2231 carry their
// charset this way as well.
bool charset_to_wide(std::string_view charset, std::string_view bytes, Vek_wstring& wide);

// Replaces `bytes` by the decoded Q text `text`; false on a bad escape.
bool decode_q_text(std::string_view text, std::string& bytes);

// True if `text` is a B text that decodes: a non-empty multiple of four
// bytes of the Base64 alphabet, up to a stop byte or its end.
bool is_valid_b_text(std::string_view text);

// Replaces `bytes` by the decoded B text `text`; false if it is not valid.
bool decode_b_text(std::string_view text, std::string& bytes);

#endif  // SMTPFM_CODECS_ENCODED_WORDS_H_
