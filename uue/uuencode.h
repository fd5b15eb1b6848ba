// Uuencoded files in text: finding their blocks, decoding and encoding
// them. Pure functions over bytes; nothing is kept between calls.
//
// A block, as uuencode(1) writes it:
//   begin-line = "begin" SP mode SP name EOL      ; mode: 3 or 4 octal digits
//   data-line  = length-char *encoded-char EOL    ; length-char: 32 + bytes on the line
//   end        = "`" EOL "end" EOL                ; or " " for "`"
// Every character stands for six bits as its code minus 32 ("`" for 0).
#ifndef SMTPFM_UUE_UUENCODE_H_
#define SMTPFM_UUE_UUENCODE_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// One block in a text: offsets into it.
struct Uue_block {
  size_t begin = 0;  // the start of the "begin" line
  size_t data = 0;   // the first data line
  size_t stop = 0;   // the start of the "end" line, or of the line that ended the data
  size_t end = 0;    // behind the "end" line and its line end; where the block ends
  std::string mode;  // as written on the "begin" line
  std::string name;  // the rest of the "begin" line, trailing blanks removed
  bool closed = false;  // an "end" line closed it
};

// The blocks of `text` in order. A "begin" line at the start of a line,
// followed by at least one data line, opens a block; it runs to its "end"
// line, or where the data lines stop (as clients decode a block cut short).
std::vector<Uue_block> find_uue_blocks(std::string_view text);

// The bytes that the data lines stand for.
std::string uudecode(std::string_view lines);

// A whole block of `bytes` under `mode` and `name`, each line ended by
// `eol`, 45 bytes a line as uuencode(1) writes them.
std::string uuencode_block(std::string_view mode, std::string_view name, std::string_view bytes,
                           std::string_view eol);

#endif  // SMTPFM_UUE_UUENCODE_H_
