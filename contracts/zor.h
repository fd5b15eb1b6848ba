// Classification: the names of the properties that host and plug-in share,
// and the policy condition of a format manager (zor.dll on Windows,
// platform/zor here).
#ifndef SMTPFM_CONTRACTS_ZOR_H_
#define SMTPFM_CONTRACTS_ZOR_H_

#include <string_view>
#include <vector>

#include "contracts/vek.h"

extern const char16_t ZOR_ITEM_TYPE[];              // "ItemType"
extern const char16_t ZOR_ITEM_NAME[];              // "ItemName"
extern const char16_t ZOR_ITEM_LENGTH[];            // "ItemLength"
extern const char16_t ZOR_ITEM_CHARSET[];           // "ItemCharset"
extern const char16_t ZOR_HEADER_ITEM[];            // "HeaderItem", a value of ZOR_ITEM_TYPE
extern const char16_t ZOR_BODY_ITEM[];              // "BodyItem", a value of ZOR_ITEM_TYPE
extern const char16_t ZOR_ATTACHMENT_ITEM[];        // "AttachmentItem", a value of ZOR_ITEM_TYPE
extern const char16_t ZOR_MESSAGE_ITEM[];           // "MessageItem"
extern const char16_t ZOR_FORMAT_TYPE[];            // "FormatType"
extern const char16_t ZOR_FORMAT_SUBTYPE[];         // "FormatSubtype"
extern const char16_t ZOR_MIME_TYPE[];              // "MimeType"
extern const char16_t ZOR_MIME_SUBTYPE[];           // "MimeSubtype"
extern const char16_t ZOR_ENCLOSED_MIME_TYPE[];     // "EnclosedMimeType"
extern const char16_t ZOR_ENCLOSED_MIME_SUBTYPE[];  // "EnclosedMimeSubtype"
extern const char16_t ZOR_ATTACHMENT_COUNT[];       // "AttachmentCount"
extern const char16_t ZOR_SUBJECT[];                // "Subject"
extern const char16_t ZOR_DATE[];                   // "Date"
extern const char16_t ZOR_POLICY_LIST[];            // "PolicyList"

// A policy: a list of names separated by commas or semicolons.
class Zor_condition {
 public:
  Zor_condition() = default;
  // Replaces the list. Blanks around the names are dropped; empty names
  // are ignored.
  void initialise(std::u16string_view text);
  // True when `text` equals one of the names without regard to case; an
  // empty or uninitialised list is satisfied by nothing.
  bool is_satisfied(std::u16string_view text) const;

 private:
  std::vector<Vek_wstring> names_;
};

#endif  // SMTPFM_CONTRACTS_ZOR_H_
