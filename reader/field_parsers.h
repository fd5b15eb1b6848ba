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

#endif  // SMTPFM_READER_FIELD_PARSERS_H_
