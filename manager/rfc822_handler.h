// Smtp_rfc822_handler: the handler of a message with no MIME structure, a
// header, a blank line and a body that is plain text.
//
// Its sub-items, in the host's order: the exported header fields, the rest
// of the body from its first embedded encoded block on (if it has one), and
// the body. When the host replaces a sub-item, rebuild writes the header
// bytes of the message as they were and the records behind them.
//
// Ownership: `data` is the host's and must stay live and unchanged while the
// handler lives, since the body record views it. `export_headers` is the
// manager's list, held by reference: the manager outlives its handlers. The
// records and their buffers are the handler's; a buffer from get_item stays
// the handler's, one given to set_item becomes the handler's, and the result
// of rebuild is the caller's.
#ifndef SMTPFM_MANAGER_RFC822_HANDLER_H_
#define SMTPFM_MANAGER_RFC822_HANDLER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "manager/coverage.h"
#include "manager/handler_base.h"
#include "manager/item_table.h"
#include "reader/profile.h"

class Smtp_rfc822_handler : public Fmg_handler_base, public Smtp_coverage_source {
 public:
  // `export_headers` must outlive the handler; `is_message` says whether the
  // item is a message of its own (else no header is exported and the body
  // is an attachment); `profile` is a static constant.
  Smtp_rfc822_handler(const std::vector<std::string>& export_headers, bool is_message,
                      const Smtp_profile& profile = smtp_reference_profile);

  // Reads the header, exports the listed fields and adds the body, cut at
  // its first encoded block; starts from an empty table every time.
  void set_data(Vek_buffer* buffer, Fmg_item& item, Vek_status& status) override;
  // True once set_data has run: there is always a body record.
  bool has_items(Fmg_item& item, Vek_status& status) override;
  // Sets the sub-item's properties on `item`, moves `position` on (to
  // smtp_no_position after the last) and returns its buffer, which stays the
  // handler's. Throws invalid_argument for a bad position.
  Vek_buffer* get_item(uint32_t& position, Fmg_item& item, Vek_status& status) override;
  // Takes over `buffer` as the new data of a body record; a header record or
  // a bad position throws invalid_argument, and `buffer` stays the caller's.
  void set_item(uint32_t position, Vek_buffer* buffer, Fmg_item& item, Vek_status& status) override;
  // Checks the position; records stay until the handler ends.
  void free_item(uint32_t position, Fmg_item& item, Vek_status& status) override;
  // False for an exported header and an extra reading, true for the other
  // records.
  bool can_modify_item(uint32_t position, Fmg_item& item, Vek_status& status) override;
  // Whether the host replaced this record.
  bool is_item_modified(uint32_t position, Fmg_item& item, Vek_status& status) override;
  // Whether the host replaced any record.
  bool is_modified(Fmg_item& item, Vek_status& status) override;
  // The message written anew, owned by the caller whatever the status says:
  // a copy of `data` if nothing changed, else the header bytes of `data`
  // followed by the non-header records in the order of the message.
  Vek_buffer* rebuild(Fmg_item& item, Vek_status& status) override;
  // The body reaches the host whole once set_data has added it.
  const Smtp_coverage& coverage() const override { return coverage_; }

 protected:
  ~Smtp_rfc822_handler() override;

 private:
  const std::vector<std::string>& export_headers_;
  bool is_message_;
  const Smtp_profile& profile_;
  // Position in `data` of the first byte behind the blank line that ends
  // the header.
  uint64_t body_offset_ = 0;
  // A blank line stood behind the header.
  bool blank_line_ = true;
  // The message lies under a signature; its sub-items are marked so.
  bool signed_content_ = false;
  Smtp_item_table table_;
  Smtp_coverage coverage_;
};

#endif  // SMTPFM_MANAGER_RFC822_HANDLER_H_
