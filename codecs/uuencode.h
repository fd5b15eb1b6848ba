// The uuencode format of Unix mailers (POSIX uuencode, historical form),
// decoded only: a "begin" line with a mode and a file name, data lines of
// at most 45 bytes each, a line of length zero and "end".
//
// Pure functions over bytes and the base library's output stream; they
// keep nothing and own nothing.
#ifndef SMTPFM_CODECS_UUENCODE_H_
#define SMTPFM_CODECS_UUENCODE_H_

#include <string>
#include <string_view>

#include "contracts/vek.h"

// The file name of a "begin" line ("begin 644 report.doc"): the text behind
// the mode, white space at its ends dropped; empty where there is none.
std::string uuencoded_file_name(std::string_view begin_line);

// Decodes the data lines of `text` (from behind the "begin" line) onto
// `out`, up to a line of length zero, an "end" line or the end of `text`,
// as decoders take them: each line gives as many bytes as its first
// character says, a line cut short gives zero bits for what is missing,
// and bytes outside the alphabet count by their low six bits. The first
// `column` bytes of each line are a quote prefix ("> ") and are passed
// over. Returns the bytes written; the status is that of the output.
uint64_t decode_uuencoded(std::string_view text, size_t column, Vek_ostream& out, Vek_status& status);

#endif  // SMTPFM_CODECS_UUENCODE_H_
