// Smtp_rfc1505_handler: the handler of a message whose body RFC 1505
// describes with an "Encoding" header field, a list of entries such as
// "12 text, 40 uuencode (report.doc)": a line count and keywords per part.
//
// The body is cut by those counts, one sub-item per entry, and nothing is
// decoded. The host gets the exported header fields, then the parts from the
// second on, and the first part (the text of the message) last. When the
// host replaces a part, or the field had to be cleaned of bytes that RFC 822
// does not allow in it, rebuild writes the message again with a new
// "Encoding" field whose counts fit the parts.
//
// Ownership: `data` is the host's and must stay live and unchanged while the
// handler lives, since the part records view it. `name` and
// `export_headers` are the manager's, held by reference: the manager
// outlives its handlers. The records and their buffers are the handler's; a
// buffer from get_item stays the handler's, one given to set_item becomes
// the handler's, and the result of rebuild is the caller's.
#ifndef SMTPFM_ENCODING_RFC1505_HANDLER_H_
#define SMTPFM_ENCODING_RFC1505_HANDLER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "manager/coverage.h"
#include "manager/handler_base.h"
#include "manager/item_table.h"
#include "reader/field_parsers.h"
#include "reader/profile.h"

class Smtp_rfc1505_handler : public Fmg_handler_base, public Smtp_coverage_source {
 public:
  // `name` (used in log entries) and `export_headers` must outlive the
  // handler; `is_message` says whether the item is a message of its own;
  // `profile` is a static constant.
  Smtp_rfc1505_handler(const Vek_wstring& name, const std::vector<std::string>& export_headers,
                       bool is_message, const Smtp_profile& profile = smtp_reference_profile);

  // Reads the header, exports the listed fields and cuts the body by the
  // "Encoding" field; starts from an empty table every time. A field that
  // does not parse is logged and leaves only the exported headers. Throws
  // logic_error if the header has no "Encoding" field with a value.
  void set_data(Vek_buffer* buffer, Fmg_item& item, Vek_status& status) override;
  // True if the table holds any record.
  bool has_items(Fmg_item& item, Vek_status& status) override;
  // Sets the sub-item's properties on `item`, moves `position` on (to
  // smtp_no_position after the last) and returns its buffer, which stays the
  // handler's. Throws invalid_argument for a bad position.
  Vek_buffer* get_item(uint32_t& position, Fmg_item& item, Vek_status& status) override;
  // Takes over `buffer` as the new data of a part; an exported header or a
  // bad position throws invalid_argument, and `buffer` stays the caller's.
  // The status is left as it came.
  void set_item(uint32_t position, Vek_buffer* buffer, Fmg_item& item, Vek_status& status) override;
  // Checks the position; records stay until the handler ends.
  void free_item(uint32_t position, Fmg_item& item, Vek_status& status) override;
  // False for an exported header and an extra reading, true for every part.
  bool can_modify_item(uint32_t position, Fmg_item& item, Vek_status& status) override;
  // Whether the host replaced this record.
  bool is_item_modified(uint32_t position, Fmg_item& item, Vek_status& status) override;
  // Whether the host replaced a part, or the field was cleaned (outside a
  // signature) and there are parts to write a new field from.
  bool is_modified(Fmg_item& item, Vek_status& status) override;
  // The message written anew, owned by the caller, who must look at the
  // status: a copy of `data` if nothing changed, else the header with a new
  // "Encoding" field and the parts in the order of the message.
  Vek_buffer* rebuild(Fmg_item& item, Vek_status& status) override;
  // The parts reach the host; a body with none does not.
  const Smtp_coverage& coverage() const override { return coverage_; }

 protected:
  ~Smtp_rfc1505_handler() override;

 private:
  // Cuts the body, from `body_offset_`, into one record per entry of
  // `entries`; the last runs to the end of the body whatever its count says.
  // A failure is logged on `item` and cleared; the parts made so far stay.
  void split_body(Vek_istream& stream, const std::vector<Smtp_encoding_entry>& entries, Fmg_item& item,
                  Vek_status& status);
  // The value of the new "Encoding" field: "count keywords (comment)" for
  // each part, joined by ", ".
  std::string encoding_value() const;
  // Writes the parts behind the header, each behind a blank line and ending
  // in a line end.
  void write_parts(Vek_ostream& out, Vek_status& status) const;

  const Vek_wstring& name_;
  const std::vector<std::string>& export_headers_;
  bool is_message_;
  const Smtp_profile& profile_;
  // clean_encoding_field dropped bytes from the field's value.
  bool field_repaired_ = false;
  // The message lies under a signature: the cleaning is not written back.
  bool signed_content_ = false;
  // Position in `data` where the header block ended, in front of its blank
  // line; the header is rewritten up to here and no further.
  uint64_t header_end_ = 0;
  // Position in `data` of the first byte behind the header block and its
  // blank line.
  uint64_t body_offset_ = 0;
  // body_index is the first part; smtp_no_position when there is none.
  Smtp_item_table table_;
  Smtp_coverage coverage_;
};

// The factory that the module hands to the format manager: a new handler,
// owned by the caller, who ends it with release().
Fmg_handler_base* make_rfc1505_handler(const Vek_wstring& name,
                                       const std::vector<std::string>& export_headers, bool is_message,
                                       const Smtp_profile& profile);

#endif  // SMTPFM_ENCODING_RFC1505_HANDLER_H_
