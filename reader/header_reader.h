// The raw header reader: reads one header field at a time from a stream and
// writes fields back, either from their raw lines or freshly folded.
//
// A field comes out as its name and its raw lines. In an ordinary field the
// first line is the text behind the colon, without the spaces right behind
// it; every further line is a whole continuation line with its leading white
// space. Text with no field shape becomes the pseudo field "Bad-Header",
// whose lines are kept whole, so that a message can be written back without
// loss. Line ends are never stored.
//
// The caller owns the name and the lines. The view form of the reader
// points into the stream's buffer, which must stay unchanged while the
// views are used. The reader keeps nothing between calls: a loop of calls
// walks a header because each call leaves the stream on the first line that
// does not belong to the field it read.
#ifndef SMTPFM_READER_HEADER_READER_H_
#define SMTPFM_READER_HEADER_READER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "contracts/vek.h"

// The longest header line taken, in bytes. RFC 822 sets no bound; 1087
// leaves room for a 1024-byte line of an old mailer plus folding and line
// end. A line of this length or longer means that the text is no header.
inline constexpr uint32_t smtp_max_header_line = 1087;
// Bytes outside 32 to 126 (other than tab, CR and LF) tolerated in one line:
// a few 8-bit letters in a name or an unencoded value pass, binary does not.
inline constexpr int smtp_max_refused_bytes = 4;
// The longest header line that lenient rules take (a long unfolded
// "References:" runs past a few thousand bytes); it bounds the work on one
// line while every real header fits.
inline constexpr uint32_t smtp_max_lenient_header_line = 1 << 20;
// The longest field name taken; RFC 2822 section 2.1.1 keeps a line under 78
// bytes, and a name is followed by at least a colon.
inline constexpr size_t smtp_max_field_name = 75;
// A colon in front of this position marks a line as a field that went
// wrong (a space before the colon, say) rather than as text.
inline constexpr size_t smtp_colon_zone = 16;
// The most lines of one "Bad-Header"; past this the text is taken for a body
// that lacks its blank separator line.
inline constexpr size_t smtp_max_bad_header_lines = 10;
// Column at which write_header_field folds (RFC 2047 section 2 keeps an
// encoded line within 76 bytes).
inline constexpr size_t smtp_fold_column = 76;

// The pseudo field name of header text that has no field shape. It is
// compared exactly, in this case.
inline constexpr std::string_view smtp_bad_header_name = "Bad-Header";

// One field as the reader found it, without copies. `name` and the lines
// view the stream's buffer (or a constant); the first line of a field that
// turned bad had to be put together and lives in `joined_first`.
struct Smtp_raw_field_view {
  std::string_view name;
  std::vector<std::string_view> lines;
  std::string joined_first;
  bool first_is_joined = false;

  size_t count() const { return lines.size(); }
  std::string_view line(size_t index) const {
    return index == 0 && first_is_joined ? std::string_view(joined_first) : lines[index];
  }
};

// The line on which a read of a field stopped (it belongs to the next
// field), as the reader found and judged it. A caller that reads field
// after field from one stream passes it back in, so that each line is read
// and judged once; the buffer must not change in between.
// How strictly header lines are judged. The defaults are the rules above;
// the hardened profile loosens them (reader/profile.h).
struct Smtp_line_rules {
  // Lines of this many bytes or more are no header.
  uint32_t max_line = smtp_max_header_line;
  // Bytes above 0x7F are text, as RFC 6532 lets UTF-8 stand in a header,
  // and do not count against smtp_max_refused_bytes; control bytes do.
  bool eight_bit_text = false;
  // A first line "From " (the envelope line of an mbox, RFC 4155) is no
  // field: it is passed over, and the header starts behind it.
  bool skip_envelope_line = false;
  // A "begin" line of a uuencoded file ends the header even inside a field
  // (a file right behind the header, with no blank line); otherwise it only
  // ends it where a field would start.
  bool begin_line_ends_header = false;
  // White space between a field name and its colon (RFC 822's field
  // syntax allows it; RFC 5322, section 4.5, keeps it as obsolete syntax)
  // makes an ordinary field, named without that white space; otherwise the
  // line is a broken field, kept as "Bad-Header".
  bool obsolete_field_names = false;
};

struct Smtp_line_lookahead {
  const Vek_buffer* buffer = nullptr;  // null: nothing kept
  uint64_t start = 0;                  // where the line begins
  uint64_t next = 0;                   // where the line behind it begins
  uint32_t max_line = 0;               // the limit it was read with
  bool eight_bit_text = false;         // and the rule for 8-bit bytes
  bool obsolete_field_names = false;   // and the rule for white space before a colon
  std::string_view line;
  uint32_t kind = 0;
  size_t colon = 0;
  size_t nul = 0;
};

// Reads the field at the stream's position into `name` and `lines` (which is
// emptied first). True when a field was read; the stream then stands on the
// first line behind it. A true result may come with a failed status (the
// line that failed was consumed); a failed status on entry gives false.
// `eight_bit_text` as in Smtp_line_rules.
bool read_header_field(Vek_istream& stream, uint32_t max_line, std::string& name,
                       std::vector<std::string>& lines, Vek_status& status, bool eight_bit_text = false);
// The same, filling views of the stream's buffer instead of copies.
bool read_header_field(Vek_istream& stream, uint32_t max_line, Smtp_raw_field_view& field,
                       Vek_status& status, bool eight_bit_text = false);
// The same, taking the line kept in `lookahead` instead of reading it
// again where the stream stands on it, and keeping the line it stops on.
bool read_header_field(Vek_istream& stream, uint32_t max_line, Smtp_raw_field_view& field,
                       Smtp_line_lookahead& lookahead, Vek_status& status, bool eight_bit_text = false);
// The same under every one of `rules`, the line limit among them.
bool read_header_field(Vek_istream& stream, Smtp_raw_field_view& field, Smtp_line_lookahead& lookahead,
                       Vek_status& status, const Smtp_line_rules& rules);
bool read_header_field(Vek_istream& stream, std::string& name, std::vector<std::string>& lines,
                       Vek_status& status, const Smtp_line_rules& rules);

// The value of a field made from its raw lines: continuation lines are
// joined by one space, and a backslash that ends a line inside a quoted
// string stands for a line break.
std::string unfold_field_lines(const std::vector<std::string>& lines);
std::string unfold_field_lines(const Smtp_raw_field_view& field);

// True when an odd number of unescaped double quotes stands in the first
// `length` bytes of `text`.
bool in_quoted_string(std::string_view text, size_t length);

// True when the first "begin" of `line` is followed, behind optional white
// space, by exactly three digits: the frame line of a uuencoded block.
bool is_begin_line(std::string_view line);

// Writes "name: value" and a line end; with `fold`, a value that would pass
// column 76 is refolded at token boundaries. A "Bad-Header" has no name.
void write_header_field(Vek_ostream& out, std::string_view name, std::string_view value, bool fold,
                        Vek_status& status);

// Writes `text` as it stands, each whole line (ended by LF, a CR in front
// of it dropped) with the stream's line end, and a last line that has none
// without one: source text that a writer copies unchanged.
void write_source_lines(Vek_ostream& out, std::string_view text, Vek_status& status);

// Writes a field from its raw lines, each with the stream's line end; an
// ordinary field gets its name (which may be empty), a colon and one space
// where needed.
void write_raw_field(Vek_ostream& out, std::string_view name, const std::vector<std::string>& lines,
                     Vek_status& status);

#endif  // SMTPFM_READER_HEADER_READER_H_
