#include "manager/format_manager.h"

#include <algorithm>
#include <string_view>

#include "codecs/encoded_words.h"
#include "contracts/zor.h"
#include "manager/coverage.h"
#include "manager/rfc822_handler.h"
#include "reader/field_parsers.h"
#include "reader/header_block.h"

namespace {

// The only fields that recognition keeps: those that choose the handler,
// those that are published, and those that the MIME handler opens an
// entity by, which it is handed. All others are counted by name only.
bool is_recognition_field(std::string_view name) {
  // Every field of every item is asked: the length sorts out most names.
  switch (name.size()) {
    case 12:
      return vek_string_equal_nc(name, "MIME-Version") || vek_string_equal_nc(name, "Content-Type");
    case 8:
      return vek_string_equal_nc(name, "Encoding");
    case 7:
      return vek_string_equal_nc(name, "Subject");
    case 4:
      return vek_string_equal_nc(name, "Date");
    case 25:
      return vek_string_equal_nc(name, "Content-Transfer-Encoding");
    case 19:
      return vek_string_equal_nc(name, "Content-Disposition");
    default:
      return false;
  }
}

enum class Smtp_handler_kind { rfc1521, rfc1505, rfc822 };

// The text of the entity's body that no sub-item holds, as the handler
// counted it; a handler that failed counts what it had reached, so a body
// it never opened counts whole.
void publish_unexamined(const Smtp_coverage_source* source, Fmg_item& item) {
  if (source == nullptr || !source->coverage().started()) return;
  const std::vector<Smtp_range> ranges = source->coverage().unexamined();
  if (!ranges.empty()) item.set_property(smtp_unexamined, vek_stow(unexamined_text(ranges)));
}

}  // namespace

void Smtp_format_manager::begin_properties(Vek_status& status) {
  status.clear();
  export_headers_.clear();
  add_empty_body_ = false;
  report_unexamined_ = false;
  profile_ = &smtp_reference_profile;
}

void Smtp_format_manager::set_property(const Tav_property& property, Vek_status& status) {
  status.clear();
  if (vek_string_equal_nc(property.name(), u"ExportHeader")) {
    std::string name = vek_wtos(property.string_value());
    vek_upper(name);
    // Kept sorted so that handlers find a name by binary search.
    auto at = std::lower_bound(export_headers_.begin(), export_headers_.end(), name);
    export_headers_.insert(at, std::move(name));
  } else if (vek_string_equal_nc(property.name(), u"AddBody")) {
    add_empty_body_ = property.bool_value();
  } else if (vek_string_equal_nc(property.name(), smtp_report_unexamined)) {
    report_unexamined_ = property.bool_value();
  } else if (vek_string_equal_nc(property.name(), u"Hardened")) {
    profile_ = property.bool_value() ? &smtp_hardened_profile : &smtp_reference_profile;
  } else {
    Fmg_manager_base::set_property(property, status);
  }
}

Fmg_handler_base* Smtp_format_manager::open(Vek_buffer* buffer, Fmg_item& item, Vek_status& status) {
  // Exported header fields come back to us as sub-items; they are text that
  // we made, never a message.
  const Tav_property* charset = item.properties().find(ZOR_ITEM_CHARSET);
  if (charset != nullptr && charset->type() == Tav_property::type_string &&
      vek_string_equal_nc(charset->string_value(), u"UNICODE"))
    return nullptr;

  status.clear();
  Vek_buffered_istream stream(buffer, true, status, vek_eol_lf);
  if (!status.ok()) return nullptr;

  std::vector<Smtp_header_field> fields;
  // The names are judged by their counts; none is copied.
  Smtp_name_counts names;
  bool header = read_header_block(stream, fields, status, is_recognition_field, names, profile_->header_lines);
  const uint64_t header_end = stream.tell();

  // A part of a MIME entity may start with no header at all: its content
  // type came from the entity around it.
  bool enclosed = item.properties().find(ZOR_ENCLOSED_MIME_TYPE) != nullptr;
  bool taken = (header && status.ok() && looks_like_message_header(names)) || (names.fields == 0 && enclosed);
  if (!taken) return nullptr;

  bool is_message = true;
  if (item.parent_item() != nullptr) {
    const Tav_property* message = item.properties().find(ZOR_MESSAGE_ITEM);
    is_message = message != nullptr && message->type() == Tav_property::type_bool && message->bool_value();
  }

  // The handler: the entity's own content type rules an enclosed part; a
  // MIME-Version, or a Content-Type that is a real media type, makes a MIME
  // message; an Encoding field an RFC 1505 message; all else is plain.
  Smtp_handler_kind kind = Smtp_handler_kind::rfc822;
  std::string subject;
  std::string date;
  if (enclosed) {
    kind = Smtp_handler_kind::rfc1521;
  } else {
    const Smtp_header_field* mime_version = nullptr;
    const Smtp_header_field* content_type = nullptr;
    const Smtp_header_field* encoding = nullptr;
    for (const Smtp_header_field& field : fields) {
      if (vek_string_equal_nc(field.name, "MIME-Version"))
        mime_version = &field;
      else if (vek_string_equal_nc(field.name, "Content-Type"))
        content_type = &field;
      else if (vek_string_equal_nc(field.name, "Encoding"))
        encoding = &field;
      else if (vek_string_equal_nc(field.name, "Subject"))
        subject = field.value;
      else if (vek_string_equal_nc(field.name, "Date"))
        date = field.value;
    }
    if (mime_version != nullptr) {
      kind = Smtp_handler_kind::rfc1521;
    } else if (content_type != nullptr) {
      // Old mailers wrote a bare word ("Content-Type: text") with no MIME
      // behind it; such a message is plain.
      std::string type;
      parse_bare_content_type(content_type->value, type, status);
      if (status.ok()) {
        kind = Smtp_handler_kind::rfc822;
      } else {
        status.clear();
        kind = Smtp_handler_kind::rfc1521;
      }
    } else if (encoding != nullptr) {
      kind = Smtp_handler_kind::rfc1505;
    }
  }

  Fmg_handler_ptr handler;
  switch (kind) {
    case Smtp_handler_kind::rfc1521:
      if (factories_.rfc1521 != nullptr)
        handler.reset(factories_.rfc1521(name(), export_headers_, is_message, add_empty_body_, *profile_));
      break;
    case Smtp_handler_kind::rfc1505:
      if (factories_.rfc1505 != nullptr)
        handler.reset(factories_.rfc1505(name(), export_headers_, is_message, *profile_));
      break;
    case Smtp_handler_kind::rfc822:
      handler.reset(new Smtp_rfc822_handler(export_headers_, is_message, *profile_));
      break;
  }
  if (handler == nullptr) handler.reset(new Smtp_opaque_handler);

  // The first message of a tree gives the tree its subject and date.
  if (!enclosed && is_message) {
    Tav_property_list& list = item.top_item()->properties();
    if (!subject.empty() && list.find(ZOR_SUBJECT) == nullptr) {
      Vek_wstring decoded;
      decode_encoded_words(subject, decoded, profile_->raw_utf8_text);
      list.add(ZOR_SUBJECT, decoded);
      item.report_property(7, status, ZOR_SUBJECT, decoded.c_str(), 0, 0);
      status.clear();
    }
    if (!date.empty() && list.find(ZOR_DATE) == nullptr) list.add(ZOR_DATE, vek_stow(date));
  }

  item.set_property(ZOR_FORMAT_TYPE, u"Container");
  item.set_property(ZOR_FORMAT_SUBTYPE, u"SMTP");
  item.log(32, 2, name(), Vek_status());
  Smtp_coverage_source* source = dynamic_cast<Smtp_coverage_source*>(handler.get());
  // The header need not be read again: what recognition kept is all that
  // opens an entity, unless fields are exported, which may be any.
  if (source != nullptr && export_headers_.empty())
    source->take_header(Smtp_header_reading{buffer, std::move(fields), header_end, header});
  handler->set_data(buffer, item, status);
  if (report_unexamined_) publish_unexamined(source, item);
  if (!status.ok()) {
    // A message that we recognised stays taken even if its handler cannot
    // open it: the host sees it with no sub-items.
    item.log(33, 2, name(), status);
    status.clear();
    Fmg_handler_ptr opaque(new Smtp_opaque_handler);
    handler.reset();
    opaque->set_data(buffer, item, status);
    handler = std::move(opaque);
  }
  return handler.release();
}
