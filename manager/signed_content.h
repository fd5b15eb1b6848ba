// The mark of an item that lies under a signature.
//
// A signed entity (multipart/signed, S/MIME signed data) puts the property
// "SignedContent" on each of its sub-items, and every handler whose item
// carries it puts it on its own sub-items in turn, so that each item inside
// a signature knows it is there. A handler there repairs nothing on its own
// account (a Content-Type, an Encoding field): one byte changed breaks the
// signature, so only a record that the host replaced makes such an item
// modified. The property is a plain bool on the host's item; nothing is
// owned.
#ifndef SMTPFM_MANAGER_SIGNED_CONTENT_H_
#define SMTPFM_MANAGER_SIGNED_CONTENT_H_

#include <string_view>

#include "contracts/fmg_item.h"

inline constexpr std::u16string_view smtp_signed_content = u"SignedContent";

// Whether `item` carries the mark.
inline bool is_signed_content(Fmg_item& item) {
  const Tav_property* mark = item.properties().find(smtp_signed_content);
  return mark != nullptr && mark->type() == Tav_property::type_bool && mark->bool_value();
}

// Puts the mark on a sub-item.
inline void mark_signed_content(Fmg_item& item) {
  item.add_property(Tav_property(Vek_wstring(smtp_signed_content), true));
}

#endif  // SMTPFM_MANAGER_SIGNED_CONTENT_H_
