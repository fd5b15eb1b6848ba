#include "host/log_codes.h"

#include "contracts/status_codes.h"
#include "host/host.h"

namespace {

struct Name {
  uint32_t value;
  const char* name;
};

constexpr Name log_codes[] = {
    {log_taken, "taken"},
    {log_step_failed, "a step failed"},
    {log_signed, "signed"},
    {log_encrypted, "encrypted"},
};

constexpr Name status_codes[] = {
    {vek_bad_argument, "bad argument"},
    {vek_bad_seek, "seek before the start"},
    {vek_not_writable, "buffer not writable"},
    {vek_no_memory, "out of memory"},
    {vek_registry_failure, "registry failure"},
    {vek_end_of_stream, "end of the data"},
    {vek_line_too_long, "line too long"},
    {smtp_bad_base64, "bad Base64"},
    {smtp_comment_not_closed, "comment not closed"},
    {smtp_not_header_line, "not a header line"},
    {smtp_bad_content_type, "bad Content-Type"},
    {smtp_bad_content_disposition, "bad Content-Disposition"},
    {smtp_bad_transfer_encoding, "bad Content-Transfer-Encoding"},
    {smtp_bad_encoding_field, "bad Encoding field"},
    {smtp_quoted_string_not_closed, "quoted string not closed"},
    {smtp_no_opening_bracket, "no opening bracket"},
    {smtp_no_opening_parenthesis, "no opening parenthesis"},
    {smtp_no_opening_quote, "no opening quote"},
    {smtp_domain_literal_not_closed, "domain literal not closed"},
    {smtp_qp_end_in_escape, "quoted-printable ends inside an escape"},
    {smtp_base64_encoder_end, "data ended before the Base64 encoder's length"},
    {smtp_content_type_not_single_word, "Content-Type not a single word"},
    {smtp_multipart_without_boundary, "multipart without a boundary"},
};

template <size_t n>
const char* find(const Name (&table)[n], uint32_t value) {
  for (const Name& row : table)
    if (row.value == value) return row.name;
  return nullptr;
}

}  // namespace

const char* log_code_name(uint32_t code) { return find(log_codes, code); }

const char* status_name(uint32_t status) { return find(status_codes, status); }

std::string log_entry_text(uint32_t code, uint32_t status) {
  std::string text = std::to_string(code);
  if (const char* name = log_code_name(code)) text += std::string(" ") + name;
  if (status != 0) {
    text += " (" + status_text(status);
    if (const char* name = status_name(status)) text += std::string(" ") + name;
    text += ")";
  }
  return text;
}
