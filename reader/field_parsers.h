// Parsers of structured header values: Content-Type, Content-Disposition,
// Content-Transfer-Encoding (RFC 1521, RFC 2183) and the Encoding field of
// RFC 1505.
//
// Each parser takes an unfolded value, empties its outputs and fills them;
// on failure the outputs hold what was parsed up to that point, and the
// status is the parser's own code whatever went wrong inside. Names and
// values keep the case of the source. The caller owns every output.
#ifndef SMTPFM_READER_FIELD_PARSERS_H_
#define SMTPFM_READER_FIELD_PARSERS_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "contracts/vek.h"
#include "reader/header_block.h"

// One entry of an Encoding field, such as "35 Text" or "EDIFACT (X12)".
struct Smtp_encoding_entry {
  int32_t line_count = -1;  // the number in front of the keywords; -1 when there is none
  std::string keywords;     // the atoms behind the number, joined by one space
  std::string comment;      // the comment behind the keywords, with its parentheses
};

// "type/subtype; attribute=value ..." into its parts; status
// smtp_bad_content_type on failure.
void parse_content_type(std::string_view value, std::string& type, std::string& subtype,
                        std::vector<Smtp_header_field>& parameters, Vek_status& status);
// "disposition; attribute=value ..." into its parts; status
// smtp_bad_content_disposition on failure.
void parse_content_disposition(std::string_view value, std::string& disposition,
                               std::vector<Smtp_header_field>& parameters, Vek_status& status);
// A value of exactly one atom; status smtp_bad_transfer_encoding otherwise.
void parse_transfer_encoding(std::string_view value, std::string& encoding, Vek_status& status);
// A Content-Type of exactly one atom (a bare word, no subtype); status
// smtp_content_type_not_single_word otherwise.
void parse_bare_content_type(std::string_view value, std::string& type, Vek_status& status);
// The comma-separated entries of an Encoding field; status
// smtp_bad_encoding_field on failure.
void parse_encoding_field(std::string_view value, std::vector<Smtp_encoding_entry>& entries,
                          Vek_status& status);
// The text of a quoted-string token without its quotes, quoted pairs resolved.
std::string unquote_value(std::string_view text);

// A Content-Type or Content-Disposition value split the way mail clients
// split it (Thunderbird, Python's email package): at every ';' outside a
// quoted string. `head` is the text in front of the first ';', trimmed.
// Each further piece "attribute=value" gives a parameter: the attribute
// trimmed; the value trimmed and, if it opens with a double quote, taken up
// to the closing quote with quoted pairs resolved (to its end when no quote
// closes it), else taken whole, blanks, parentheses and tspecials included.
// A piece without '=' is passed over. Never fails; where the grammar of
// RFC 2045 holds, the result is that of the parsers above.
void split_parameters(std::string_view value, std::string& head, std::vector<Smtp_header_field>& parameters);

// Whether split_parameters gives `value` the very parameters named `name`
// (any case) or one of its RFC 2231 forms ("name*", "name*0"...) that
// `parsed` holds: the same names, values and order. Then every reading of
// `name` is the same from either list. False where it cannot tell cheaply
// (a backslash in a quoted value).
bool split_agrees_on(std::string_view value, const std::vector<Smtp_header_field>& parsed, std::string_view name);

// An RFC 2231 parameter value: sections joined, %XX escapes resolved.
struct Smtp_parameter_value {
  std::string bytes;       // the value's bytes, in `charset`
  std::string charset;     // the charset of an extended value; empty otherwise
  bool extended = false;   // read from "name*" or from "name*0", "name*1"...
};

// RFC 2231 sections beyond this number are ignored: a value needs a
// handful (one per folded line), and the number would otherwise size the
// table of sections from text an attacker writes.
inline constexpr size_t smtp_max_parameter_sections = 1000;

// The value of the parameter `name` (any case) under RFC 2231: "name*"
// (charset'language'%XX...), else the sections "name*0", "name*1"... (each
// plain or, with a trailing '*', %XX-escaped; the charset stands in the
// first), joined as far as their numbers run without a gap, else the plain
// "name". False when there is none of these. Boundaries and file names are
// read through this.
bool find_parameter_value(const std::vector<Smtp_header_field>& parameters, std::string_view name,
                          Smtp_parameter_value& value);

// The text of a parameter value for the host: the bytes in the value's
// charset; with no charset (or one the library does not know), UTF-8 where
// the bytes are valid UTF-8 (RFC 6532 mail writes them raw), else one
// character per byte.
Vek_wstring parameter_text(const Smtp_parameter_value& value);
// The same for `bytes` in `charset` (empty for none), without a copy.
Vek_wstring parameter_text(std::string_view bytes, std::string_view charset);

#endif  // SMTPFM_READER_FIELD_PARSERS_H_
