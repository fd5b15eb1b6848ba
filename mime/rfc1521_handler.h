// Smtp_rfc1521_handler: the handler of one MIME entity (RFC 1521), a
// message that the manager took for MIME or one part of another entity.
//
// It looks at one level only. A single body becomes one sub-item: the raw
// bytes, or the decoded bytes of a quoted-printable or Base64 body. A
// multipart body becomes one sub-item per part, each the part's raw text
// with its own headers, which the host opens again as an entity of its own
// (so nesting costs no recursion here; the host bounds the depth). The
// host gets the exported header fields first, then the other sub-items in
// the order of the entity, and the main body last. When the host has
// replaced sub-items, rebuild writes the entity anew: what did not change
// byte for byte, with regenerated delimiters, refolded "Content-Type"
// fields and re-encoded bodies.
//
// Ownership: `data` is the host's and must stay live and unchanged while
// the handler lives, since raw bodies and parts are views on it. The name
// and `export_headers` are the manager's, held by reference: the manager
// outlives its handlers. The records and their buffers are the handler's;
// a buffer from get_item stays the handler's, one given to set_item becomes
// the handler's, and the result of rebuild is the caller's.
#ifndef SMTPFM_MIME_RFC1521_HANDLER_H_
#define SMTPFM_MIME_RFC1521_HANDLER_H_

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "codecs/boundary.h"
#include "manager/coverage.h"
#include "manager/handler_base.h"
#include "manager/item_table.h"
#include "reader/header_block.h"
#include "reader/profile.h"

// Every value of a field of the header, in order: views on the values
// where the entity has one field of the name, on copies where it has more.
using Smtp_field_values = std::span<const std::string>;

// One reading of a multipart body: where its parts and delimiter lines
// are, as offsets in the entity's data.
struct Smtp_split {
  uint64_t body_start = 0;
  // Where the first delimiter line begins; the end of the data if none.
  uint64_t preamble_end = 0;
  // The parts with a delimiter line behind them, without its line break.
  std::vector<Smtp_range> parts;
  // Each delimiter line with the line break in front of it and its own.
  std::vector<Smtp_range> delimiters;
  // The last part, where the data end in it; empty otherwise.
  Smtp_range unclosed;
  // Behind the closing delimiter line; 0 where none closes the body.
  uint64_t epilogue_start = 0;
};

class Smtp_rfc1521_handler : public Fmg_handler_base, public Smtp_coverage_source {
 public:
  // `source_name` (the text of every log entry) and `export_headers` must
  // outlive the handler; `is_message` says whether the entity stands for a
  // message, `add_empty_body` whether a message without text gets one;
  // `profile` is a static constant.
  Smtp_rfc1521_handler(const Vek_wstring& source_name, const std::vector<std::string>& export_headers,
                       bool is_message, bool add_empty_body, const Smtp_profile& profile = smtp_reference_profile);

  // Reads the header, exports the listed fields, settles type and transfer
  // encoding (repairing the "Content-Type" where needed) and takes the body;
  // faults of the message are logged (code 33) and leave less. A failed
  // status means the entity could not be opened at all.
  void set_data(Vek_buffer* buffer, Fmg_item& item, Vek_status& status) override;
  // False for an encrypted entity; otherwise whether there is any record.
  bool has_items(Fmg_item& item, Vek_status& status) override;
  // Sets the sub-item's properties on `item`, moves `position` on (to
  // smtp_no_position after the last) and returns its buffer, which stays
  // the handler's. Throws invalid_argument for a bad position.
  Vek_buffer* get_item(uint32_t& position, Fmg_item& item, Vek_status& status) override;
  // Takes over `buffer` as the new data of a record: a whole entity for a
  // part, the plain bytes for a single body. An exported header or a bad
  // position throws invalid_argument, and `buffer` stays the caller's.
  void set_item(uint32_t position, Vek_buffer* buffer, Fmg_item& item, Vek_status& status) override;
  // Checks the position; records stay until the handler ends.
  void free_item(uint32_t position, Fmg_item& item, Vek_status& status) override;
  // False for an exported header and for every record of a signed entity
  // or a certificate; true otherwise.
  bool can_modify_item(uint32_t position, Fmg_item& item, Vek_status& status) override;
  // Whether the host replaced this record.
  bool is_item_modified(uint32_t position, Fmg_item& item, Vek_status& status) override;
  // Whether the host replaced a record or the "Content-Type" was repaired
  // (outside a signature only).
  bool is_modified(Fmg_item& item, Vek_status& status) override;
  // The entity written anew, owned by the caller whatever the status says;
  // the caller must look at the status before using it.
  Vek_buffer* rebuild(Fmg_item& item, Vek_status& status) override;

  // The records, for tests and tools that look inside.
  const Smtp_item_table& table() const { return table_; }
  // The flags of a signed, an encrypted and a certificate entity.
  bool is_signed() const { return is_signed_; }
  bool is_encrypted() const { return is_encrypted_; }
  bool is_certificate() const { return is_certificate_; }
  // Whether the "Content-Type" text needed repair.
  bool content_type_repaired() const { return content_type_repaired_; }
  // Type, subtype and transfer encoding as written in the entity.
  const std::string& mime_type() const { return mime_type_; }
  const std::string& mime_subtype() const { return mime_subtype_; }
  const std::string& encoding() const { return encoding_; }
  // The "Content-Type" value that rebuild wrote last in place of the old
  // one; empty until a 7-bit text had to become quoted-printable.
  const std::string& new_content_type() const { return new_content_type_; }
  // Which bytes of the body reach the host, as the last set_data found.
  const Smtp_coverage& coverage() const override { return coverage_; }
  // Keeps the header that recognition read of the buffer that the next
  // set_data gets; set_data uses it once instead of reading the header.
  void take_header(Smtp_header_reading&& header) override { handed_header_ = std::move(header); }

 protected:
  // Deletes the records; `data` stays the host's.
  ~Smtp_rfc1521_handler() override;

 private:
  // Opening (open.cc).
  void clear_items();
  void decode_quoted_printable_body(Vek_istream& stream, Fmg_item& item, bool is_body, Vek_status& status);
  void decode_base64_body(Vek_istream& stream, Fmg_item& item, bool is_body, Vek_status& status);
  void add_extra_reading(uint64_t start, const std::string& encoding);
  uint32_t record_type(bool is_body) const;
  bool is_padding_or_blank(uint64_t start, uint64_t end) const;
  // Access (access.cc).
  Vek_wstring charset_or(std::u16string_view fallback) const;
  // The names of the content; the parameter lists, where not null, are
  // what set_data parsed of the last field of each kind.
  void collect_file_names(Smtp_field_values content_types, Smtp_field_values dispositions,
                          const std::vector<Smtp_header_field>* type_parameters,
                          const std::vector<Smtp_header_field>* disposition_parameters,
                          std::string_view block_name);
  // Signed and encrypted entities (secure.cc).
  void classify_secure_entity(const std::vector<Smtp_header_field>& disposition_parameters,
                              Vek_status& status);
  bool classify_by_file_name(const std::vector<Smtp_header_field>& disposition_parameters);
  // Splitting (multipart.cc).
  void open_multipart(Vek_istream& stream, Fmg_item& item, Smtp_field_values content_types, Vek_status& status);
  Smtp_split split_body(Vek_istream& stream, uint64_t body_start, const Smtp_boundary& boundary, bool whole,
                        Vek_status& status) const;
  void add_split_records(const Smtp_split& split, bool primary, Vek_status& status);
  void add_text_outside_parts(uint64_t start, uint64_t end, Vek_status& status);
  void add_other_reading(Vek_istream& stream, const Smtp_split& primary, const std::string& text, bool prefix,
                         std::vector<std::vector<Smtp_range>>& seen);
  bool only_nested_delimiters(const Smtp_split& primary, const Smtp_split& other) const;
  bool is_nested_delimiter(const Smtp_split& primary, uint64_t offset, std::string_view line) const;
  bool only_nested_prefix_lines(const Smtp_split& primary, const Smtp_prefix_lines& lines) const;
  void add_other_type_readings(Vek_istream& stream, uint64_t body_start,
                               Smtp_field_values content_types);
  void cover(const Smtp_range& range);
  void add_empty_text_body();
  uint64_t part_end(uint64_t position) const;
  // Rebuilding (rebuild.cc).
  bool has_body_records() const;
  void write_headers(Vek_istream& input, Vek_ostream& output, bool refold_content_type, bool quoted_printable,
                     Vek_status& status);
  void copy_header_text(uint64_t start, uint64_t end, Vek_ostream& output, Vek_status& status) const;
  void write_header_end(Vek_ostream& output, Vek_status& status) const;
  void write_raw(Vek_buffer& out, Vek_status& status);
  void write_quoted_printable(Vek_buffer& out, bool add_encoding_field, Vek_status& status);
  void write_base64(Vek_buffer& out, Vek_status& status);
  void write_multipart(Vek_buffer& out, Vek_status& status);
  void write_source_body(Vek_buffer& out, Vek_status& status);
  bool has_eight_bit_text(const Vek_wstring& charset, Vek_status& status) const;

  const Vek_wstring& source_name_;
  const std::vector<std::string>& export_headers_;
  const bool is_message_;
  const bool add_empty_body_;
  const Smtp_profile& profile_;
  Smtp_item_table table_;
  // Set by the classification of signed and encrypted entities; a repeated
  // set_data never resets them.
  bool is_signed_ = false;
  bool is_encrypted_ = false;
  bool is_certificate_ = false;
  bool content_type_repaired_ = false;
  // The "Content-Type" did not parse and was read as sent: it goes out so.
  bool content_type_as_sent_ = false;
  // The entity lies under a signature: it repairs nothing on its own.
  bool signed_content_ = false;
  // The last part had no delimiter behind it and is a record all the same.
  bool last_part_unclosed_ = false;
  // The boundary that split the body into its records; empty when none did.
  std::string boundary_text_;
  // The boundaries of the multipart parts of that split, by part index.
  std::vector<std::pair<size_t, std::string>> nested_boundaries_;
  // Which bytes of the body reach the host.
  Smtp_coverage coverage_;
  // The header read by recognition, until set_data takes it.
  Smtp_header_reading handed_header_;
  // Where the header block that set_data read ends in `data` (in front of
  // its blank line); the writers read the header no further.
  uint64_t header_end_ = 0;
  std::string encoding_ = "7bit";
  std::string mime_type_;
  std::string mime_subtype_;
  std::string new_content_type_;
  // The parameters of the "Content-Type" field, in order of appearance.
  std::vector<Smtp_header_field> parameters_;
  // Every name a mail client may show for the content, the one clients
  // prefer first; filled only where the profile reads names as clients do.
  std::vector<Vek_wstring> file_names_;
};

// The factory that the module hands to the manager: a new handler, owned
// by the caller, which ends it with release().
Fmg_handler_base* make_rfc1521_handler(const Vek_wstring& name,
                                       const std::vector<std::string>& export_headers, bool is_message,
                                       bool add_empty_body, const Smtp_profile& profile);

// Whether these "Content-Type" values can give more than one boundary
// reading: two fields, or a value with a comment, an RFC 2231 or RFC 2047
// form, a quoted pair or two "boundary" parameters.
bool may_read_otherwise(Smtp_field_values content_types);

// Every value that a reader may take for the boundary of a multipart
// entity with these "Content-Type" values: the first and the last
// "boundary" of each field as parsed and as split at ';', its RFC 2231 and
// RFC 2047 forms, and a quoted value with its backslashes kept; trimmed,
// without repeats. `last_parsed`, where not null, holds the parameters that
// the last value (repaired) parses into, which are then not parsed again.
std::vector<std::string> boundary_readings(Smtp_field_values content_types,
                                           const std::vector<Smtp_header_field>* last_parsed = nullptr);

// The first parameter named `name` (any case), or null.
const Smtp_header_field* find_parameter(const std::vector<Smtp_header_field>& parameters,
                                        std::string_view name);

#endif  // SMTPFM_MIME_RFC1521_HANDLER_H_
