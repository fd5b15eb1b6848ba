// Quoted-printable content transfer encoding (RFC 1521, section 5.1), on
// the base library's streams.
//
// The caller owns both streams; the codecs keep nothing between calls and
// free their buffers on every way out. Each clears the status it is given
// and reports through it.
#ifndef SMTPFM_CODECS_QUOTED_PRINTABLE_H_
#define SMTPFM_CODECS_QUOTED_PRINTABLE_H_

#include <cstdint>
#include <string>

#include "contracts/vek.h"

// The longest line the encoder writes, the "=" of a soft line break
// included (RFC 1521, section 5.1, rule 5).
inline constexpr size_t smtp_qp_max_line = 76;

// Decodes `length` bytes of `in` from `start` onto `out`; returns the
// output's position. Data that end inside an escape give
// smtp_qp_end_in_escape; a bad escape passes through as it stands.
// `lenient` writes such an unfinished escape out as it stands too, as
// clients show it, and still reports smtp_qp_end_in_escape.
// `padded_breaks` takes a "=" with only blanks behind it on its line, or
// with a bare LF behind it, for a soft line break (RFC 2045, section 6.7,
// rule 3: blanks at the end of a line were added in transit and go), as
// mail clients read it; otherwise the "=" and the blanks stay.
uint64_t decode_quoted_printable(Vek_istream& in, Vek_ostream& out, uint64_t start, uint64_t length,
                                 Vek_status& status, bool lenient = false, bool padded_breaks = false);

// Encodes `in` from its position to its end onto `out`. Each CR LF of the
// input becomes a line end of `out`; lines end with `out`'s writeln.
void encode_quoted_printable(Vek_istream& in, Vek_ostream& out, Vek_status& status);

// Replaces `text` by the escape of `byte`: "=" and two upper-case
// hexadecimal digits.
void escape_byte(uint8_t byte, std::string& text);

#endif  // SMTPFM_CODECS_QUOTED_PRINTABLE_H_
