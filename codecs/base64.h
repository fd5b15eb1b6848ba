// Base64 content transfer encoding (RFC 1521, section 5.2), on the base
// library's streams.
//
// The caller owns both streams; the codecs keep nothing between calls and
// free their buffers on every way out. Each clears the status it is given
// and reports through it.
#ifndef SMTPFM_CODECS_BASE64_H_
#define SMTPFM_CODECS_BASE64_H_

#include <cstdint>

#include "contracts/vek.h"

// Encoded characters on one output line (RFC 1521: at most 76), from 57
// input bytes.
inline constexpr size_t smtp_base64_line = 76;
inline constexpr size_t smtp_base64_line_bytes = 57;

// Decodes the lines of `in` from `start` while they begin within `length`
// bytes of it, onto `out`; returns the output's position. The first "="
// ends the data. Bad data give smtp_bad_base64, and what they held goes
// nowhere.
//
// `lenient` decodes as mail clients do, after RFC 2045 section 6.8 ("any
// characters outside of the base64 alphabet are to be ignored"): bytes
// outside the alphabet are passed over, a line of any length is read, a
// "=" that cannot be padding (in the first two places of a group) is
// passed over, and data that end inside a group keep the bytes they gave.
// All of it is decoded and written; the status is still smtp_bad_base64
// where any of this was met, so that the fault can be logged.
uint64_t decode_base64(Vek_istream& in, Vek_ostream& out, uint64_t start, uint64_t length,
                       Vek_status& status, bool lenient = false);

// How decode_base64 reads, and where the data it read ended.
struct Smtp_base64_reading {
  // As the `lenient` above.
  bool lenient = false;
  // With `lenient`: a padding ends its group but not the data, which go on
  // behind it, as runs of Base64 put one behind the other decode.
  bool past_padding = false;
  // Read every line through the stream, one by one: the reference that the
  // decoding of whole lines straight from the buffer must agree with.
  bool line_by_line = false;
  // Set by the decoder: where the data ended in `in`, behind the "=" run
  // that ended them, or where reading stopped.
  uint64_t data_end = 0;
};
uint64_t decode_base64(Vek_istream& in, Vek_ostream& out, uint64_t start, uint64_t length, Vek_status& status,
                       Smtp_base64_reading& reading);

// Encodes `length` bytes of `in` from its position onto `out`, in lines of
// 76 characters, each ended with `out`'s writeln. A stream that ends
// before `length` bytes gives smtp_base64_encoder_end.
void encode_base64(Vek_istream& in, Vek_ostream& out, uint64_t length, Vek_status& status);

#endif  // SMTPFM_CODECS_BASE64_H_
