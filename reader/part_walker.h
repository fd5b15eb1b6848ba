// The walker of a multipart body: finds delimiter lines, passes over the
// lines of a part, copies them, or copies all that is left.
//
// It reads the caller's seekable stream line by line, in pieces of a fixed
// size, and writes to the caller's output stream; it owns nothing and holds
// nothing but the current piece. The walks differ in where they leave the
// stream and in what becomes of the line break in front of a delimiter,
// which belongs to the delimiter (RFC 1521, section 7.2.1). All walks clear
// the status first, and none leaves vek_end_of_stream behind: the end of
// the data is an ordinary end.
#ifndef SMTPFM_READER_PART_WALKER_H_
#define SMTPFM_READER_PART_WALKER_H_

#include <cstdint>
#include <string_view>

#include "codecs/boundary.h"
#include "contracts/vek.h"

// Lines of a body are read in pieces of this size; a longer line comes in
// several, and only its first can be a delimiter.
inline constexpr uint32_t smtp_max_body_line = 2048;

// What a line is to a boundary.
inline constexpr uint32_t smtp_no_delimiter = 0;
inline constexpr uint32_t smtp_delimiter = 1;
inline constexpr uint32_t smtp_closing_delimiter = 2;

// Classifies `line` (without its line end): 0 no delimiter, 1 delimiter,
// 2 closing delimiter. An empty line or a null boundary gives 0.
uint32_t classify_part_line(std::string_view line, const Smtp_boundary* boundary);

// Reads up to and past the next delimiter line: `found` if one was read,
// `end` if it was the closing one or the data ended first.
void find_part_delimiter(Vek_istream& stream, const Smtp_boundary& boundary, bool& end, bool& found,
                         Vek_status& status);
// The same, setting `line_start` to where the delimiter line begins when
// one was found.
void find_part_delimiter(Vek_istream& stream, const Smtp_boundary& boundary, bool& end, bool& found,
                         uint64_t& line_start, Vek_status& status);

// Passes over the lines in front of the next delimiter and leaves the
// stream 2 bytes (the CR LF) in front of it, or at the end of the data.
void skip_to_part_delimiter(Vek_istream& stream, const Smtp_boundary& boundary, Vek_status& status);

// Copies the lines in front of the next delimiter onto `out`, all but the
// last with their line ends, and leaves the stream at the start of the
// delimiter line. Without a delimiter it copies all, each line ended.
void copy_to_part_delimiter(Vek_istream& stream, Vek_ostream& out, const Smtp_boundary& boundary,
                            Vek_status& status);

// Copies every line left in `stream` onto `out`, each with a line end.
void copy_remaining_lines(Vek_istream& stream, Vek_ostream& out, Vek_status& status);

#endif  // SMTPFM_READER_PART_WALKER_H_
