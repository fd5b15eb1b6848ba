// Part access: the host walks, reads and replaces the records of an entity.
#include <memory>

#include "contracts/zor.h"
#include "manager/table_access.h"
#include "mime/rfc1521_handler.h"

namespace {

constexpr const char* smtp_handler_class = "Smtp_rfc1521_handler";

}  // namespace

bool Smtp_rfc1521_handler::has_items(Fmg_item&, Vek_status& status) {
  status.clear();
  // The records of an encrypted entity can only be its exported headers;
  // the host is not shown an entity it cannot look into.
  if (is_encrypted_) return false;
  return !table_.items.empty();
}

Vek_buffer* Smtp_rfc1521_handler::get_item(uint32_t& position, Fmg_item& item, Vek_status& status) {
  status.clear();
  test_table_position(table_, position, smtp_handler_class, "get_item");
  const Smtp_item_record& record = table_.at_position(position);
  // The length goes out as a signed number: an unknown length reads -1.
  const Tav_property length(ZOR_ITEM_LENGTH, static_cast<int32_t>(record.length));
  if (record.type == smtp_item_header) {
    item.set_property(ZOR_ITEM_TYPE, ZOR_HEADER_ITEM);
    item.add_property(length);
    item.set_property(ZOR_ITEM_NAME, vek_stow(record.name));
    item.set_property(ZOR_ITEM_CHARSET, u"UNICODE");
  } else {
    if (is_message_) {
      const bool body = record.type == smtp_item_body || record.type == smtp_item_added_body;
      item.set_property(ZOR_ITEM_TYPE, body ? ZOR_BODY_ITEM : ZOR_ATTACHMENT_ITEM);
    }
    item.add_property(length);
    if (vek_string_equal_nc(mime_type_, "multipart")) {
      // A part: its own handler will publish its type; this one only
      // passes on the type to assume when the part has no field of its own.
      item.set_property(ZOR_ENCLOSED_MIME_TYPE, vek_stow(record.mime_type));
      item.set_property(ZOR_ENCLOSED_MIME_SUBTYPE, vek_stow(record.mime_subtype));
    } else {
      // The content of this entity. A file name reaches the host from the
      // "name" parameter only, as written.
      item.set_property(ZOR_MIME_TYPE, vek_stow(mime_type_));
      item.set_property(ZOR_MIME_SUBTYPE, vek_stow(mime_subtype_));
      if (const Smtp_header_field* name = find_parameter(parameters_, "name"))
        item.set_property(ZOR_ITEM_NAME, vek_stow(name->value));
      if (vek_string_equal_nc(mime_type_, "text"))
        item.set_property(ZOR_ITEM_CHARSET, charset_or(u"US-ASCII"));
    }
  }
  ++position;
  if (position == table_.count()) position = smtp_no_position;
  return record.buffer.get();
}

void Smtp_rfc1521_handler::set_item(uint32_t position, Vek_buffer* buffer, Fmg_item&, Vek_status&) {
  // What the host may change is said by can_modify_item; this trusts it.
  replace_table_item(table_, position, buffer, smtp_handler_class);
}

void Smtp_rfc1521_handler::free_item(uint32_t position, Fmg_item&, Vek_status& status) {
  test_table_position(table_, position, smtp_handler_class, "free_item");
  status.clear();
}

bool Smtp_rfc1521_handler::can_modify_item(uint32_t position, Fmg_item&, Vek_status& status) {
  status.clear();
  test_table_position(table_, position, smtp_handler_class, "can_modify_item");
  // A changed part would break a signature, and a certificate is no content
  // to be changed.
  return position >= table_.header_item_count && !is_signed_ && !is_certificate_;
}

bool Smtp_rfc1521_handler::is_item_modified(uint32_t position, Fmg_item&, Vek_status& status) {
  status.clear();
  test_table_position(table_, position, smtp_handler_class, "is_item_modified");
  return table_.at_position(position).modified;
}

bool Smtp_rfc1521_handler::is_modified(Fmg_item&, Vek_status& status) {
  status.clear();
  // A repaired "Content-Type" is written back even if nothing else changed.
  return content_type_repaired_ || table_.any_modified();
}

Vek_wstring Smtp_rfc1521_handler::charset_or(std::u16string_view fallback) const {
  const Smtp_header_field* charset = find_parameter(parameters_, "charset");
  if (charset == nullptr) return Vek_wstring(fallback);
  Vek_wstring text = vek_stow(charset->value);
  vek_upper(text);
  return text;
}
