#include "manager/rfc822_handler.h"

#include <stdexcept>
#include <string>

#include "contracts/zor.h"
#include "manager/header_export.h"
#include "reader/header_block.h"

Smtp_rfc822_handler::Smtp_rfc822_handler(const std::vector<std::string>& export_headers, bool is_message)
    : export_headers_(export_headers), is_message_(is_message) {}

Smtp_rfc822_handler::~Smtp_rfc822_handler() { table_.clear_items(); }

void Smtp_rfc822_handler::test_position(uint32_t position, const char* operation) const {
  if (!table_.valid_position(position))
    throw std::invalid_argument(std::string("Smtp_rfc822_handler::") + operation + " - invalid position.");
}

void Smtp_rfc822_handler::set_data(Vek_buffer* buffer, Fmg_item&, Vek_status& status) {
  status.clear();
  data = buffer;
  body_offset_ = 0;
  table_.clear_items();

  Vek_buffered_istream stream(data, true, status, vek_eol_lf);
  if (!status.ok()) return;
  {
    std::vector<Smtp_header_field> fields;
    // Whether the block proves a header does not matter here: the manager
    // has judged that already. Only a failure of the stream ends the work.
    read_header_block(stream, fields, status);
    if (status.ok())
      export_header_fields(table_, fields, export_headers_, is_message_, widen_header_value, status);
  }
  if (!status.ok()) return;
  skip_blank_line(stream);
  body_offset_ = stream.tell();

  // The body of a message is text whatever it looks like; the body of an
  // item that is no message of its own is an attachment and is never cut.
  auto body_view = std::make_unique<Vek_sub_buffer>(data, body_offset_, vek_to_end);
  table_.body_index = add_body(status, table_.items, table_.item_order, std::move(body_view), "text", "plain",
                               "7bit", is_message_ ? smtp_item_body : smtp_item_attachment);

  // item_order is still 0, 1, 2...: moving the body to the end puts it
  // behind the rest of a cut body, so the host gets the body last.
  uint32_t body = table_.body_index;
  if (body != smtp_no_position && !table_.items.empty() && body != table_.count() - 1 &&
      body < table_.item_order.size()) {
    table_.item_order.erase(table_.item_order.begin() + body);
    table_.item_order.push_back(body);
  }
}

bool Smtp_rfc822_handler::has_items(Fmg_item&, Vek_status& status) {
  status.clear();
  return !table_.items.empty();
}

Vek_buffer* Smtp_rfc822_handler::get_item(uint32_t& position, Fmg_item& item, Vek_status& status) {
  status.clear();
  test_position(position, "get_item");
  const Smtp_item_record& record = table_.at_position(position);
  // The length goes out as a signed number: an unknown length reads -1.
  Tav_property length(ZOR_ITEM_LENGTH, static_cast<int32_t>(record.length));
  if (record.type == smtp_item_header) {
    item.set_property(ZOR_ITEM_TYPE, ZOR_HEADER_ITEM);
    item.add_property(length);
    item.set_property(ZOR_ITEM_NAME, vek_stow(record.name));
    item.set_property(ZOR_ITEM_CHARSET, u"UNICODE");
  } else {
    if (is_message_)
      item.set_property(ZOR_ITEM_TYPE, record.type == smtp_item_body ? ZOR_BODY_ITEM : ZOR_ATTACHMENT_ITEM);
    item.add_property(length);
  }
  ++position;
  if (position == table_.count()) position = smtp_no_position;
  return record.buffer.get();
}

void Smtp_rfc822_handler::set_item(uint32_t position, Vek_buffer* buffer, Fmg_item&, Vek_status& status) {
  status.clear();
  if (position < table_.header_item_count || !table_.valid_position(position))
    throw std::invalid_argument("Smtp_rfc822_handler::set_item - invalid position.");
  table_.at_position(position).replace_buffer(std::unique_ptr<Vek_buffer>(buffer));
}

void Smtp_rfc822_handler::free_item(uint32_t position, Fmg_item&, Vek_status& status) {
  test_position(position, "free_item");
  status.clear();
}

bool Smtp_rfc822_handler::can_modify_item(uint32_t position, Fmg_item&, Vek_status& status) {
  status.clear();
  test_position(position, "can_modify_item");
  return position >= table_.header_item_count;
}

bool Smtp_rfc822_handler::is_item_modified(uint32_t position, Fmg_item&, Vek_status& status) {
  status.clear();
  test_position(position, "is_item_modified");
  return table_.at_position(position).modified;
}

bool Smtp_rfc822_handler::is_modified(Fmg_item&, Vek_status& status) {
  status.clear();
  return table_.any_modified();
}

Vek_buffer* Smtp_rfc822_handler::rebuild(Fmg_item& item, Vek_status& status) {
  status.clear();
  auto result = std::make_unique<Vek_page_buffer>(0, 128);

  if (!is_modified(item, status)) {
    Vek_buffered_istream in(data, true, status, vek_eol_crlf);
    if (status.ok()) {
      Vek_ostream out(result.get(), status, vek_eol_crlf);
      if (status.ok()) vek_copy_stream(in, out, status);
    }
    return result.release();
  }

  Vek_buffered_istream in(data, true, status, vek_eol_crlf);
  if (!status.ok()) return result.release();
  Vek_ostream out(result.get(), status, vek_eol_crlf);
  // The header block and its blank line go out byte for byte; the header
  // records are views for the host and are never written back.
  copy_bytes(in, out, static_cast<uint32_t>(std::min<uint64_t>(body_offset_, 0xFFFFFFFFu)), status);
  if (!status.ok()) return result.release();
  for (const auto& record : table_.items) {
    if (record->type == smtp_item_header) continue;
    // A failed record does not stop the others; the status tells the caller.
    Vek_buffered_istream part(record->buffer.get(), true, status, vek_eol_crlf);
    if (status.ok()) copy_bytes(part, out, record->length, status);
  }
  return result.release();
}
