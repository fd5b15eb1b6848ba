// The header block reader: reads the whole header of a message or MIME
// entity field by field, decides where it ends, and whether the text is a
// header at all. Also the tables of field names that tell a message header
// from other text that has the shape of one.
//
// The block reader appends copies of the fields it keeps to the caller's
// list and never empties it. It knows three classes of names only: the
// pseudo field "Bad-Header", the X- and X400- fields, and lines that look
// like clock times; the judgement by name lies in
// looks_like_message_header. Nothing is kept between calls.
#ifndef SMTPFM_READER_HEADER_BLOCK_H_
#define SMTPFM_READER_HEADER_BLOCK_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "contracts/vek.h"
#include "reader/header_reader.h"

// A parsed header field: the name as written (or "Bad-Header") and the
// unfolded value. Also a parameter of a structured field: attribute in
// `name`, value in `value`.
struct Smtp_header_field {
  std::string name;
  std::string value;
};

// Answers whether a field of this name is to be kept; null keeps all.
using Smtp_field_filter = bool (*)(std::string_view name);

// A row of a name table. A table ends with a row whose `text` is null; its
// rows stand in the order of their first letter.
struct Smtp_field_name {
  const char* text;    // the name in lower case
  uint32_t length;     // its length in bytes
  uint32_t is_prefix;  // non-zero: the row matches every name that begins with `text`
};

// Names of RFC 822, RFC 1036, RFC 1327 and RFC 1521 header fields, and
// common extensions; 30 rows and the end row.
extern const Smtp_field_name smtp_message_field_names[];
// The fields of a delivery status notification (RFC 1894) and the pseudo
// field; 14 rows and the end row.
extern const Smtp_field_name smtp_delivery_field_names[];

// What recognition keeps of the names of a header block: counts, not
// copies. A name counts as a delivery status field where it matches that
// table, else as a message field where it matches that one.
struct Smtp_name_counts {
  size_t fields = 0;    // every field seen, bad ones included
  size_t message = 0;   // names of smtp_message_field_names
  size_t delivery = 0;  // names of smtp_delivery_field_names
  // Counts one more field of this name.
  void add(std::string_view name);
};

// A header block as recognition read it, handed to the handler it chose so
// that the handler does not read it again: the fields that open an entity
// (Content-Type, Content-Transfer-Encoding, Content-Disposition and those
// that choose the handler), where the block ends, and whether the block
// reads. The fields are the handler's to take.
//
// They are what the reader that keeps every field gives of those names: a
// filter changes which fields are kept, never where the block ends, and
// only bad fields are dropped where a run of them ends a block. Nor does
// the decision differ where recognition took the block: recognition keeps
// no bad field and so drops none, while the reader that keeps every field
// drops such a trailing run and counts fewer bad fields against the block,
// never more.
struct Smtp_header_reading {
  const Vek_buffer* buffer = nullptr;  // the bytes read; null when nothing is handed
  std::vector<Smtp_header_field> fields;
  uint64_t end = 0;          // the stream's position behind the block
  bool block_reads = false;  // what read_header_block returned
};

// Reads a header block from the stream's position, appending the fields
// kept (all, or those `field_filter` admits) to `fields` and the name of
// every field seen to `field_names`. True when an ordinary field was seen
// and the block was not refused; the stream stands at the end of the block.
// `rules` judge its lines.
bool read_header_block(Vek_istream& stream, std::vector<Smtp_header_field>& fields, Vek_status& status,
                       Smtp_field_filter field_filter = nullptr,
                       std::vector<std::string>* field_names = nullptr, const Smtp_line_rules& rules = {});
// The same, counting the names of the fields seen into `counts` instead of
// copying them.
bool read_header_block(Vek_istream& stream, std::vector<Smtp_header_field>& fields, Vek_status& status,
                       Smtp_field_filter field_filter, Smtp_name_counts& counts, const Smtp_line_rules& rules);

// Consumes the blank line behind a header and gives true; leaves the stream
// alone and gives false if the next line is not blank.
bool skip_blank_line(Vek_istream& stream);

// "X-" followed by at least one byte, in either case.
bool is_x_field(std::string_view name);
// "X400-" followed by at least one byte, in any case.
bool is_x400_field(std::string_view name);
// True for a name of two digits whose first line reads like "mm:ss" and at
// least six more bytes: the rest of a clock time "hh:mm:ss ...".
bool is_time_line(std::string_view name, const std::vector<std::string>& lines);
bool is_time_line(std::string_view name, std::string_view first_line);

// True when the names (as delivered by read_header_block) are those of a
// message header rather than of a delivery report or of junk.
bool looks_like_message_header(const std::vector<std::string>& field_names);
bool looks_like_message_header(const Smtp_name_counts& counts);

// True when the lower-case `name` matches a row of `table`.
bool find_field_name(const Smtp_field_name* table, std::string_view name);

#endif  // SMTPFM_READER_HEADER_BLOCK_H_
