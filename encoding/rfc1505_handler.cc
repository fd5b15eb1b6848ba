#include "encoding/rfc1505_handler.h"

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>

#include "manager/header_export.h"
#include "manager/signed_content.h"
#include "manager/table_access.h"
#include "reader/content_type_repair.h"
#include "reader/header_block.h"
#include "reader/header_reader.h"

namespace {

constexpr const char* handler_name = "Smtp_rfc1505_handler";

}  // namespace

Smtp_rfc1505_handler::Smtp_rfc1505_handler(const Vek_wstring& name,
                                           const std::vector<std::string>& export_headers, bool is_message,
                                           const Smtp_profile& profile)
    : name_(name), export_headers_(export_headers), is_message_(is_message), profile_(profile) {}

Smtp_rfc1505_handler::~Smtp_rfc1505_handler() { table_.clear_items(); }

Fmg_handler_base* make_rfc1505_handler(const Vek_wstring& name,
                                       const std::vector<std::string>& export_headers, bool is_message,
                                       const Smtp_profile& profile) {
  return new Smtp_rfc1505_handler(name, export_headers, is_message, profile);
}

void Smtp_rfc1505_handler::set_data(Vek_buffer* buffer, Fmg_item& item, Vek_status& status) {
  status.clear();
  data = buffer;
  header_end_ = 0;
  body_offset_ = 0;
  signed_content_ = is_signed_content(item);
  table_.clear_items();
  coverage_ = Smtp_coverage();

  Vek_buffered_istream stream(data, true, status, vek_eol_lf);
  if (!status.ok()) return;
  std::string encoding;
  {
    std::vector<Smtp_header_field> fields;
    // The manager has judged the header already; only a failure of the
    // stream ends the work here.
    read_header_block(stream, fields, status, nullptr, nullptr, profile_.header_lines);
    if (status.ok()) {
      export_header_fields(table_, fields, export_headers_, is_message_, widen_header_value, status);
      // RFC 1505 allows one such field; if a message has several, the last
      // one describes the body, as a later field overrides an earlier one.
      for (const Smtp_header_field& field : fields)
        if (vek_string_equal_nc(field.name, "Encoding")) encoding = field.value;
    }
  }
  if (!status.ok()) return;
  header_end_ = stream.tell();
  skip_blank_line(stream);
  body_offset_ = stream.tell();
  coverage_.start(data, body_offset_);

  // The manager chose this handler for its "Encoding" field; one that is
  // gone, or has no value to cut the body by, is a fault of the caller,
  // unless the whole body is to be read as one part.
  const bool whole_body = profile_.unreadable_encoding_body_whole;
  if (encoding.empty() && !whole_body)
    throw std::logic_error("Smtp_rfc1505_handler::set_data - lost the Encoding header field.");

  field_repaired_ = !encoding.empty() && clean_encoding_field(encoding);
  std::vector<Smtp_encoding_entry> entries;
  if (!encoding.empty()) parse_encoding_field(encoding, entries, status);
  if (!status.ok() || entries.empty()) {
    // A field that makes no sense leaves the message whole, with no parts:
    // nothing is cut by counts that cannot be trusted.
    if (!status.ok()) item.log(33, 2, name_, status);
    status.clear();
    if (!whole_body) return;
    // Read leniently, the whole body is one text part.
    entries.assign(1, Smtp_encoding_entry{-1, "text", ""});
  }
  split_body(stream, entries, item, status);
  // The first part is the text of the message; the host reads it last,
  // behind the enclosures, as it reads the body of a plain message.
  move_body_last(table_);
}

void Smtp_rfc1505_handler::split_body(Vek_istream& stream, const std::vector<Smtp_encoding_entry>& entries,
                                      Fmg_item& item, Vek_status& status) {
  stream.seek(body_offset_);
  for (size_t i = 0; i < entries.size() && status.ok(); ++i) {
    const Smtp_encoding_entry& entry = entries[i];
    // Parts are separated by one blank line, which belongs to neither.
    if (i != 0) skip_blank_line(stream);
    uint64_t start = stream.tell();
    // The count of the last part is not trusted: it runs to the end of the
    // body, so that no byte of the message falls outside every part.
    bool last = i + 1 == entries.size();
    uint32_t lines =
        skip_lines(stream, last ? smtp_unknown_count : static_cast<uint32_t>(entry.line_count), status);
    if (!status.ok()) break;
    uint64_t end = stream.tell();
    // The part views `data`; keywords name the encoding of its text, but
    // nothing is decoded: the host gets the lines as they stand.
    auto part = std::make_unique<Vek_sub_buffer>(data, start, end);
    uint32_t length = static_cast<uint32_t>(std::min<uint64_t>(end - start, smtp_unknown_count));
    uint32_t index = add_counted_record(table_.items, i == 0 ? smtp_item_body : smtp_item_attachment,
                                        std::move(part), length, lines, entry.keywords, entry.comment);
    table_.item_order.push_back(index);
    if (i == 0) table_.body_index = index;
    coverage_.cover(start, end);
  }
  if (!status.ok()) {
    item.log(33, 2, name_, status);
    status.clear();
  }
}

bool Smtp_rfc1505_handler::has_items(Fmg_item&, Vek_status& status) {
  status.clear();
  return !table_.items.empty();
}

Vek_buffer* Smtp_rfc1505_handler::get_item(uint32_t& position, Fmg_item& item, Vek_status& status) {
  if (signed_content_ && table_.valid_position(position) && position >= table_.header_item_count)
    mark_signed_content(item);
  return get_table_item(table_, position, item, is_message_, handler_name, status);
}

void Smtp_rfc1505_handler::set_item(uint32_t position, Vek_buffer* buffer, Fmg_item&, Vek_status&) {
  replace_table_item(table_, position, buffer, handler_name);
}

void Smtp_rfc1505_handler::free_item(uint32_t position, Fmg_item&, Vek_status& status) {
  test_table_position(table_, position, handler_name, "free_item");
  status.clear();
}

bool Smtp_rfc1505_handler::can_modify_item(uint32_t position, Fmg_item&, Vek_status& status) {
  status.clear();
  test_table_position(table_, position, handler_name, "can_modify_item");
  // Another reading of a body is never written back.
  return position >= table_.header_item_count && table_.at_position(position).type != smtp_item_extra_reading;
}

bool Smtp_rfc1505_handler::is_item_modified(uint32_t position, Fmg_item&, Vek_status& status) {
  status.clear();
  test_table_position(table_, position, handler_name, "is_item_modified");
  return table_.at_position(position).modified;
}

bool Smtp_rfc1505_handler::is_modified(Fmg_item&, Vek_status& status) {
  status.clear();
  // A cleaned field is written anew with the counts of the parts. When the
  // table holds no part (the field did not parse, or named no entry) there
  // is nothing to count: the new field would be empty and the body would
  // go with it. The message then counts as unchanged, so the host passes
  // it on as it came and rebuild gives a copy of it.
  // Under a signature the field stays as it was sent.
  return table_.any_modified() ||
         (field_repaired_ && !signed_content_ && table_.body_index != smtp_no_position);
}

std::string Smtp_rfc1505_handler::encoding_value() const {
  std::string value;
  for (const auto& record : table_.items) {
    if (record->type == smtp_item_header || record->type == smtp_item_extra_reading) continue;
    if (!value.empty()) value += ", ";
    // A replaced part has the count of its new lines, so the field fits it.
    value += std::to_string(record->line_count);
    value += ' ';
    value += record->encoding;
    if (!record->file_name.empty()) {
      value += ' ';
      value += record->file_name;
    }
  }
  return value;
}

void Smtp_rfc1505_handler::write_parts(Vek_ostream& out, Vek_status& status) const {
  for (const auto& record : table_.items) {
    if (record->type == smtp_item_header || record->type == smtp_item_extra_reading) continue;
    // A part that cannot be read, or a blank line that cannot be written,
    // fails the rebuild: a message with a part missing must not go out.
    Vek_buffered_istream part(record->buffer.get(), true, status, vek_eol_crlf);
    if (!status.ok()) return;
    // The blank line behind the header in front of the first part, and
    // between two parts after that.
    out.writeln("", status);
    if (!status.ok()) return;
    copy_bytes(part, out, record->length, status);
    if (!status.ok()) return;

    // A part that does not end in a line end (a replacement, say) gets one,
    // so that the blank line in front of the next part stands on a line of
    // its own and the counts still fit. An empty part gets nothing.
    Vek_status probe;
    part.seek(2, -1, probe);
    if (!probe.ok()) continue;
    char tail[2] = {0, 0};
    part.seek(2, -2, probe);
    if (probe.ok()) part.read(2, tail, probe);
    if (!probe.ok() || tail[0] != '\r' || tail[1] != '\n') {
      out.writeln("", status);
      if (!status.ok()) return;
    }
  }
}

Vek_buffer* Smtp_rfc1505_handler::rebuild(Fmg_item& item, Vek_status& status) {
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

  Vek_ostream out(result.get(), status, vek_eol_crlf);
  if (!status.ok()) return result.release();
  Vek_buffered_istream in(data, true, status, vek_eol_lf);
  if (!status.ok()) return result.release();

  // The header goes out field by field, each as it was read, except that
  // every "Encoding" field gets the new counts. The copy stops where the
  // header block ended when the message was opened. In a damaged header
  // (a run of junk lines, say) that is short of where the field reader
  // alone would stop, and the lines behind it already went to the first
  // part: copying them here as well would write them twice.
  const std::string value = encoding_value();
  std::string name;
  std::vector<std::string> lines;
  uint64_t field_start = in.tell();
  while (in.tell() < header_end_ && read_header_field(in, name, lines, status, profile_.header_lines) &&
         status.ok()) {
    if (vek_string_equal_nc(name, "Encoding")) {
      write_header_field(out, "Encoding", value, true, status);
    } else if (name != smtp_bad_header_name && field_start + name.size() < data->size() &&
               data->data()[field_start + name.size()] != ':') {
      // A name with white space in front of its colon goes out as it came.
      write_source_lines(out,
                         std::string_view(reinterpret_cast<const char*>(data->data()) + field_start,
                                          in.tell() - field_start),
                         status);
    } else {
      write_raw_field(out, name, lines, status);
    }
    if (!status.ok()) return result.release();
    field_start = in.tell();
  }
  if (status.ok()) write_parts(out, status);
  return result.release();
}
