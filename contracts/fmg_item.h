// The host's node of an item, as the plug-in sees it.
//
// The host makes one for every item it hands to a format manager and for
// every sub-item it asks a handler for. The plug-in never owns one; it
// reads and writes its properties and logs on it.
#ifndef SMTPFM_CONTRACTS_FMG_ITEM_H_
#define SMTPFM_CONTRACTS_FMG_ITEM_H_

#include <cstdint>

#include "contracts/tav.h"
#include "contracts/vek.h"

class Fmg_item {
 public:
  virtual ~Fmg_item() = default;
  // The item this one was taken from; null for the top of the tree.
  virtual Fmg_item* parent_item() = 0;
  // The item that keeps the message-wide properties; never null.
  virtual Fmg_item* top_item() = 0;
  // Records one entry: code 32 (taken), 33 (a step failed; `status` says
  // why), 35 (signed), 36 (encrypted). `severity` is 2 and `text` the
  // format manager's name.
  virtual void log(uint32_t code, uint32_t severity, const Vek_wstring& text, const Vek_status& status) = 0;
  virtual Tav_property_list& properties() = 0;
  // The string property `name` holds `value` afterwards.
  virtual void set_property(std::u16string_view name, std::u16string_view value) = 0;
  // The item gets `property` (replacing one of the same name).
  virtual void add_property(const Tav_property& property) = 0;
  // Records a published property; `code` is 7 and the last two words 0.
  virtual void report_property(uint32_t code, const Vek_status& status, const char16_t* name,
                               const char16_t* value, uint32_t zero1, uint32_t zero2) = 0;
};

#endif  // SMTPFM_CONTRACTS_FMG_ITEM_H_
