// The host's side of a handler's item table: the operations by which the
// host reads, replaces and checks the sub-items of a message. Every message
// handler answers them in the same way from its Smtp_item_table; they
// differ only in the class name that their exceptions carry.
//
// Nothing here owns anything: the table is the handler's, and so are the
// buffers that get_table_item gives out. replace_table_item takes over the
// new buffer for the table once the position has passed its test.
#ifndef SMTPFM_MANAGER_TABLE_ACCESS_H_
#define SMTPFM_MANAGER_TABLE_ACCESS_H_

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include "contracts/fmg_item.h"
#include "contracts/vek.h"
#include "contracts/zor.h"
#include "manager/item_table.h"
#include "reader/field_parsers.h"

// A file name written in a message, for the host: UTF-8 where the bytes
// are valid UTF-8, else one character per byte.
inline Vek_wstring file_name_text(const std::string& name) {
  Smtp_parameter_value value;
  value.bytes = name;
  return parameter_text(value);
}

// Throws invalid_argument "<handler>::<operation> - invalid position." unless
// `position` names a record of `table`.
inline void test_table_position(const Smtp_item_table& table, uint32_t position, const char* handler,
                                const char* operation) {
  if (!table.valid_position(position))
    throw std::invalid_argument(std::string(handler) + "::" + operation + " - invalid position.");
}

// Clears the status, puts the properties of the sub-item at `position` on
// `item`, moves `position` on (to smtp_no_position after the last) and
// returns the sub-item's buffer, which stays the table's. Throws for a bad
// position. Only a message's sub-items get an item type.
inline Vek_buffer* get_table_item(const Smtp_item_table& table, uint32_t& position, Fmg_item& item,
                                  bool is_message, const char* handler, Vek_status& status) {
  status.clear();
  test_table_position(table, position, handler, "get_item");
  const Smtp_item_record& record = table.at_position(position);
  // The length goes out as a signed number: an unknown length reads -1.
  Tav_property length(ZOR_ITEM_LENGTH, static_cast<int32_t>(record.length));
  if (record.type == smtp_item_header) {
    item.set_property(ZOR_ITEM_TYPE, ZOR_HEADER_ITEM);
    item.add_property(length);
    item.set_property(ZOR_ITEM_NAME, vek_stow(record.name));
    item.set_property(ZOR_ITEM_CHARSET, u"UNICODE");
  } else {
    if (is_message)
      item.set_property(ZOR_ITEM_TYPE, record.type == smtp_item_body ? ZOR_BODY_ITEM : ZOR_ATTACHMENT_ITEM);
    item.add_property(length);
    if (record.type == smtp_item_extra_reading) {
      item.add_property(Tav_property(smtp_alternate_reading, true));
      if (!record.file_name.empty()) item.set_property(ZOR_ITEM_NAME, file_name_text(record.file_name));
    }
  }
  ++position;
  if (position == table.count()) position = smtp_no_position;
  return record.buffer.get();
}

// Puts `buffer` in place of the data of the sub-item at `position`; the
// table owns it from then on. An exported header or a bad position throws,
// and `buffer` stays the caller's. The status is not touched.
inline void replace_table_item(Smtp_item_table& table, uint32_t position, Vek_buffer* buffer,
                               const char* handler) {
  if (position < table.header_item_count || !table.valid_position(position))
    throw std::invalid_argument(std::string(handler) + "::set_item - invalid position.");
  table.at_position(position).replace_buffer(std::unique_ptr<Vek_buffer>(buffer));
}

// Makes the body record the host's last sub-item. Call it while
// `item_order` is still 0, 1, 2...: then position `body_index` holds the
// body, and what stood behind it moves up by one.
inline void move_body_last(Smtp_item_table& table) {
  uint32_t body = table.body_index;
  if (body == smtp_no_position || table.items.empty() || body >= table.item_order.size() ||
      body == table.item_order.size() - 1)
    return;
  table.item_order.erase(table.item_order.begin() + body);
  table.item_order.push_back(body);
}

#endif  // SMTPFM_MANAGER_TABLE_ACCESS_H_
