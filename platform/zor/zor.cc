// Classification names and the policy condition (stand-in).
#include "contracts/zor.h"

const char16_t ZOR_ITEM_TYPE[] = u"ItemType";
const char16_t ZOR_ITEM_NAME[] = u"ItemName";
const char16_t ZOR_ITEM_LENGTH[] = u"ItemLength";
const char16_t ZOR_ITEM_CHARSET[] = u"ItemCharset";
const char16_t ZOR_HEADER_ITEM[] = u"HeaderItem";
const char16_t ZOR_BODY_ITEM[] = u"BodyItem";
const char16_t ZOR_ATTACHMENT_ITEM[] = u"AttachmentItem";
const char16_t ZOR_MESSAGE_ITEM[] = u"MessageItem";
const char16_t ZOR_FORMAT_TYPE[] = u"FormatType";
const char16_t ZOR_FORMAT_SUBTYPE[] = u"FormatSubtype";
const char16_t ZOR_MIME_TYPE[] = u"MimeType";
const char16_t ZOR_MIME_SUBTYPE[] = u"MimeSubtype";
const char16_t ZOR_ENCLOSED_MIME_TYPE[] = u"EnclosedMimeType";
const char16_t ZOR_ENCLOSED_MIME_SUBTYPE[] = u"EnclosedMimeSubtype";
const char16_t ZOR_ATTACHMENT_COUNT[] = u"AttachmentCount";
const char16_t ZOR_SUBJECT[] = u"Subject";
const char16_t ZOR_DATE[] = u"Date";
const char16_t ZOR_POLICY_LIST[] = u"PolicyList";

namespace {
bool is_blank(char16_t c) { return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n'; }
}  // namespace

void Zor_condition::initialise(std::u16string_view text) {
  names_.clear();
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find_first_of(u",;", start);
    if (end == std::u16string_view::npos) end = text.size();
    size_t a = start, b = end;
    while (a < b && is_blank(text[a])) ++a;
    while (b > a && is_blank(text[b - 1])) --b;
    if (b > a) names_.emplace_back(text.substr(a, b - a));
    start = end + 1;
  }
}

bool Zor_condition::is_satisfied(std::u16string_view text) const {
  for (const auto& name : names_)
    if (vek_string_equal_nc(name, text)) return true;
  return false;
}
