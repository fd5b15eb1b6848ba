#include "manager/rfc822_handler.h"

#include <string>

#include "manager/header_export.h"
#include "manager/signed_content.h"
#include "manager/table_access.h"
#include "reader/header_block.h"

Smtp_rfc822_handler::Smtp_rfc822_handler(const std::vector<std::string>& export_headers, bool is_message,
                                         const Smtp_profile& profile)
    : export_headers_(export_headers), is_message_(is_message), profile_(profile) {}

Smtp_rfc822_handler::~Smtp_rfc822_handler() { table_.clear_items(); }

namespace {

constexpr const char* handler_name = "Smtp_rfc822_handler";

}  // namespace

void Smtp_rfc822_handler::set_data(Vek_buffer* buffer, Fmg_item& item, Vek_status& status) {
  status.clear();
  data = buffer;
  signed_content_ = is_signed_content(item);
  body_offset_ = 0;
  table_.clear_items();
  coverage_ = Smtp_coverage();

  Vek_buffered_istream stream(data, true, status, vek_eol_lf);
  if (!status.ok()) return;
  {
    std::vector<Smtp_header_field> fields;
    // Whether the block proves a header does not matter here: the manager
    // has judged that already. Only a failure of the stream ends the work.
    read_header_block(stream, fields, status, nullptr, nullptr, profile_.header_lines);
    if (status.ok())
      export_header_fields(table_, fields, export_headers_, is_message_, widen_header_value, status);
  }
  if (!status.ok()) return;
  blank_line_ = skip_blank_line(stream);
  body_offset_ = stream.tell();
  coverage_.start(data, body_offset_);

  // The body of a message is text whatever it looks like; the body of an
  // item that is no message of its own is an attachment and is never cut.
  auto body_view = std::make_unique<Vek_sub_buffer>(data, body_offset_, vek_to_end);
  table_.body_index =
      add_body(status, table_.items, table_.item_order, std::move(body_view), "text", "plain", "7bit",
               is_message_ ? smtp_item_body : smtp_item_attachment, profile_.blocks_past_long_lines);
  if (status.ok()) coverage_.cover(body_offset_, data->size());

  // Moving the body to the end puts it behind the rest of a cut body, so the
  // host gets the body last.
  move_body_last(table_);
}

bool Smtp_rfc822_handler::has_items(Fmg_item&, Vek_status& status) {
  status.clear();
  return !table_.items.empty();
}

Vek_buffer* Smtp_rfc822_handler::get_item(uint32_t& position, Fmg_item& item, Vek_status& status) {
  if (signed_content_ && table_.valid_position(position) && position >= table_.header_item_count)
    mark_signed_content(item);
  return get_table_item(table_, position, item, is_message_, handler_name, status);
}

void Smtp_rfc822_handler::set_item(uint32_t position, Vek_buffer* buffer, Fmg_item&, Vek_status& status) {
  status.clear();
  replace_table_item(table_, position, buffer, handler_name);
}

void Smtp_rfc822_handler::free_item(uint32_t position, Fmg_item&, Vek_status& status) {
  test_table_position(table_, position, handler_name, "free_item");
  status.clear();
}

bool Smtp_rfc822_handler::can_modify_item(uint32_t position, Fmg_item&, Vek_status& status) {
  status.clear();
  test_table_position(table_, position, handler_name, "can_modify_item");
  // Another reading of a body is never written back.
  return position >= table_.header_item_count && table_.at_position(position).type != smtp_item_extra_reading;
}

bool Smtp_rfc822_handler::is_item_modified(uint32_t position, Fmg_item&, Vek_status& status) {
  status.clear();
  test_table_position(table_, position, handler_name, "is_item_modified");
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
  // A header that a "begin" line ended has no blank line behind it; what
  // replaced the file must not read as more header.
  if (status.ok() && !blank_line_ && profile_.header_lines.begin_line_ends_header) out.writeln("", status);
  if (!status.ok()) return result.release();
  for (const auto& record : table_.items) {
    if (record->type == smtp_item_header || record->type == smtp_item_extra_reading) continue;
    // A failed record does not stop the others, and its failure stays in
    // the status for the caller: opening the next record's stream would
    // clear it, and the host would take a message with a hole for whole.
    Vek_status step;
    Vek_buffered_istream part(record->buffer.get(), true, step, vek_eol_crlf);
    if (step.ok()) copy_bytes(part, out, record->length, step);
    if (!step.ok() && status.ok()) status = step.value();
  }
  return result.release();
}
