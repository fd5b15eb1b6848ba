// Part access: the host walks, reads and replaces the records of an entity.
#include <algorithm>
#include <memory>

#include "codecs/encoded_words.h"
#include "contracts/zor.h"
#include "manager/signed_content.h"
#include "manager/table_access.h"
#include "mime/rfc1521_handler.h"
#include "reader/content_type_repair.h"
#include "reader/field_parsers.h"

namespace {

constexpr const char* smtp_handler_class = "Smtp_rfc1521_handler";

// A property value widened as vek_stow widens it (each byte to its own
// code unit), on the stack where it is short, as types, subtypes and
// charsets are: the host copies the value, and a leaf then costs no string
// of its own for each of them.
class Wide_text {
 public:
  // Widens `text`, in upper case where `upper` (ASCII letters only).
  explicit Wide_text(std::string_view text, bool upper = false) {
    char16_t* out = inline_;
    if (text.size() > inline_size) {
      long_.resize(text.size());
      out = long_.data();
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    std::copy(bytes, bytes + text.size(), out);
    if (upper)
      for (size_t i = 0; i < text.size(); ++i)
        if (out[i] >= u'a' && out[i] <= u'z') out[i] = static_cast<char16_t>(out[i] - (u'a' - u'A'));
    view_ = std::u16string_view(out, text.size());
  }
  Wide_text(const Wide_text&) = delete;
  Wide_text& operator=(const Wide_text&) = delete;
  // The widened text; valid while this lives.
  std::u16string_view view() const { return view_; }

 private:
  // Longer than most charset names ("ISO-2022-JP-2", "windows-1252").
  static constexpr size_t inline_size = 40;
  char16_t inline_[inline_size];
  Vek_wstring long_;
  std::u16string_view view_;
};

// The properties of the names of the content besides ItemName, in the
// order of preference: an item holds one value per property name, so the
// second alternate is "ItemAlternateName2", and so on.
constexpr std::u16string_view smtp_item_alternate_name = u"ItemAlternateName";

// Names kept per entity. The readings below give at most 25 (two fields of
// each kind, two readings of each, three names per reading, and the
// "begin" line); the bound only guards that count.
constexpr size_t smtp_max_file_names = 32;

void add_name(std::vector<Vek_wstring>& names, Vek_wstring name) {
  if (name.empty() || names.size() >= smtp_max_file_names) return;
  if (std::find(names.begin(), names.end(), name) != names.end()) return;
  names.push_back(std::move(name));
}

// RFC 2231, section 5: an encoded word may name a language behind its
// charset ("=?US-ASCII*EN?Q?...?="). The language says nothing about the
// bytes, and Thunderbird drops it; so does this copy of `value`.
std::string without_word_languages(std::string_view value) {
  std::string out;
  out.reserve(value.size());
  size_t i = 0;
  while (i < value.size()) {
    const size_t open = value.find("=?", i);
    if (open == std::string_view::npos) break;
    const size_t charset_end = value.find('?', open + 2);
    if (charset_end == std::string_view::npos) break;
    const size_t star = value.substr(0, charset_end).find('*', open + 2);
    out.append(value, i, (star != std::string_view::npos ? star : charset_end) - i);
    i = charset_end;
  }
  out.append(value, i);
  return out;
}

// A name as clients show it. A plain value may hold RFC 2047 encoded
// words, which Outlook and Thunderbird write into quoted file names and
// every client decodes; an RFC 2231 value has its charset instead.
Vek_wstring name_text(std::string_view bytes, bool extended, std::string_view charset) {
  if (!extended && bytes.find("=?") != std::string_view::npos) {
    Vek_wstring text;
    decode_encoded_words(without_word_languages(bytes), text);
    return text;
  }
  return parameter_text(bytes, charset);
}

// Whether `bytes` stand among `names` already, each byte an ASCII
// character: such a value without an encoded word is its own name.
bool known_ascii_name(const std::vector<Vek_wstring>& names, std::string_view bytes) {
  const auto same = [](char byte, char16_t c) { return static_cast<unsigned char>(byte) < 0x80 && c == byte; };
  return std::any_of(names.begin(), names.end(), [&](const Vek_wstring& name) {
    return name.size() == bytes.size() && std::equal(bytes.begin(), bytes.end(), name.begin(), same);
  });
}

void add_plain_name(std::vector<Vek_wstring>& names, const Smtp_header_field& parameter) {
  // Most mailers write the same "filename" and "name": the second is not
  // converted only to be refused as a repeat.
  const std::string_view bytes = parameter.value;
  if (bytes.find("=?") == std::string_view::npos && known_ascii_name(names, bytes)) return;
  add_name(names, name_text(bytes, false, std::string_view()));
}

// The names that `attribute` gives in one list of parameters: its RFC 2231
// value, then the first and the last plain parameter of that name (beside
// an extended value the plain one is what older Outlook shows, and of two
// plain ones clients take either the first or the last).
void add_parameter_names(std::vector<Vek_wstring>& names, const std::vector<Smtp_header_field>& parameters,
                         std::string_view attribute) {
  const Smtp_header_field* first = nullptr;
  const Smtp_header_field* last = nullptr;
  // A parameter "attribute*..." may make an RFC 2231 value; without one,
  // the value is the first plain parameter.
  bool starred = false;
  for (const Smtp_header_field& parameter : parameters) {
    const std::string_view name = parameter.name;
    if (name.size() < attribute.size() || (name.size() > attribute.size() && name[attribute.size()] != '*'))
      continue;
    const std::string_view prefix = name.substr(0, attribute.size());
    if (prefix != attribute && !vek_string_equal_nc(prefix, attribute)) continue;
    if (name.size() > attribute.size()) {
      starred = true;
      continue;
    }
    if (first == nullptr) first = &parameter;
    last = &parameter;
  }
  bool extended = false;
  if (starred) {
    Smtp_parameter_value value;
    if (find_parameter_value(parameters, attribute, value))
      add_name(names, name_text(value.bytes, value.extended, value.charset));
    extended = value.extended;
  }
  if (first != nullptr && (!starred || extended)) add_plain_name(names, *first);
  if (last != first) add_plain_name(names, *last);
}

// Whether `value` holds "name" in any case: a field without it names
// nothing, and most fields (a text part's type, "inline") are such.
bool may_hold_a_name(std::string_view value) {
  // A byte with bit 5 set is the lower case of a letter only where it
  // is one: 'n' stands for "n" and "N" alone.
  const auto is = [](char c, char lower) { return (c | 0x20) == lower; };
  for (size_t at = 0; at + 4 <= value.size(); ++at)
    if (is(value[at], 'n') && is(value[at + 1], 'a') && is(value[at + 2], 'm') && is(value[at + 3], 'e')) return true;
  return false;
}

// The names in one field, as the parser reads it and as a split at ';'
// reads it, which keeps an unquoted name with blanks, parentheses or
// tspecials whole. `parsed`, where not null, is what the parser made of
// this very value already, so it is not parsed twice.
void add_field_names(std::vector<Vek_wstring>& names, const std::string& value, bool content_type,
                     const std::vector<Smtp_header_field>* parsed) {
  if (!may_hold_a_name(value)) return;
  const std::string_view attribute = content_type ? "name" : "filename";
  std::string head;
  std::vector<Smtp_header_field> parameters;
  if (parsed == nullptr) {
    std::string type, subtype;
    Vek_status status;
    if (content_type) {
      std::string repaired = value;
      repair_content_type(repaired);
      parse_content_type(repaired, type, subtype, parameters, status);
    } else {
      parse_content_disposition(value, head, parameters, status);
    }
    parsed = &parameters;
  }
  // A list cut short by a failure still holds what came before it.
  add_parameter_names(names, *parsed, attribute);
  // Most fields split as they parse, and then name nothing new.
  if (split_agrees_on(value, *parsed, attribute)) return;
  std::vector<Smtp_header_field> split;
  split_parameters(value, head, split);
  add_parameter_names(names, split, attribute);
}

// The names of the last field of a kind (the one this handler reads, and
// parsed into `last_parsed` where not null), then of the first (the one
// Thunderbird and Python's email package read).
void add_fields_names(std::vector<Vek_wstring>& names, Smtp_field_values values,
                      bool content_type, const std::vector<Smtp_header_field>* last_parsed) {
  if (values.empty()) return;
  add_field_names(names, values.back(), content_type, last_parsed);
  if (values.size() > 1) add_field_names(names, values.front(), content_type, nullptr);
}

}  // namespace

void Smtp_rfc1521_handler::collect_file_names(Smtp_field_values content_types, Smtp_field_values dispositions,
                                              const std::vector<Smtp_header_field>* type_parameters,
                                              const std::vector<Smtp_header_field>* disposition_parameters,
                                              std::string_view block_name) {
  file_names_.clear();
  // Clients name an attachment by the disposition's "filename" before the
  // type's "name" (RFC 2183, section 2.3).
  add_fields_names(file_names_, dispositions, false, disposition_parameters);
  add_fields_names(file_names_, content_types, true, type_parameters);
  if (!block_name.empty()) add_name(file_names_, parameter_text(block_name, std::string_view()));
}

bool Smtp_rfc1521_handler::has_items(Fmg_item&, Vek_status& status) {
  status.clear();
  // The records of an encrypted entity can only be its exported headers;
  // the host is not shown an entity it cannot look into, unless its
  // content is offered all the same.
  if (is_encrypted_ && !profile_.encrypted_content_offered) return false;
  return !table_.items.empty();
}

Vek_buffer* Smtp_rfc1521_handler::get_item(uint32_t& position, Fmg_item& item, Vek_status& status) {
  status.clear();
  test_table_position(table_, position, smtp_handler_class, "get_item");
  const Smtp_item_record& record = table_.at_position(position);
  // The length goes out as a signed number: an unknown length reads -1.
  const Tav_property length(ZOR_ITEM_LENGTH, static_cast<int32_t>(record.length));
  if ((is_signed_ || signed_content_) && record.type != smtp_item_header) mark_signed_content(item);
  if (record.type == smtp_item_extra_reading)
    item.add_property(Tav_property(smtp_alternate_reading, true));
  if (record.type == smtp_item_header) {
    item.set_property(ZOR_ITEM_TYPE, ZOR_HEADER_ITEM);
    item.add_property(length);
    item.set_property(ZOR_ITEM_NAME, Wide_text(record.name).view());
    item.set_property(ZOR_ITEM_CHARSET, u"UNICODE");
  } else {
    if (is_message_) {
      const bool body = record.type == smtp_item_body || record.type == smtp_item_added_body;
      item.set_property(ZOR_ITEM_TYPE, body ? ZOR_BODY_ITEM : ZOR_ATTACHMENT_ITEM);
    }
    item.add_property(length);
    if (vek_string_equal_nc(mime_type_, "multipart") || record.part) {
      // A part: its own handler will publish its type; this one only
      // passes on the type to assume when the part has no field of its own.
      item.set_property(ZOR_ENCLOSED_MIME_TYPE, Wide_text(record.mime_type).view());
      item.set_property(ZOR_ENCLOSED_MIME_SUBTYPE, Wide_text(record.mime_subtype).view());
    } else {
      // The content of this entity; a file decoded from it is of a type
      // of its own, under the name of its "begin" line.
      const bool own_file = record.type == smtp_item_extra_reading && !record.file_name.empty();
      item.set_property(ZOR_MIME_TYPE, Wide_text(own_file ? record.mime_type : mime_type_).view());
      item.set_property(ZOR_MIME_SUBTYPE, Wide_text(own_file ? record.mime_subtype : mime_subtype_).view());
      if (own_file) {
        item.set_property(ZOR_ITEM_NAME, file_name_text(record.file_name));
      } else if (profile_.file_names_as_clients_read_them) {
        if (!file_names_.empty()) item.set_property(ZOR_ITEM_NAME, file_names_.front());
        for (size_t i = 1; i < file_names_.size(); ++i) {
          Vek_wstring property(smtp_item_alternate_name);
          if (i > 1) property += vek_stow(std::to_string(i));
          item.set_property(property, file_names_[i]);
        }
      } else if (const Smtp_header_field* name = find_parameter(parameters_, "name")) {
        // The reference names the content by the "name" parameter alone, as
        // written.
        item.set_property(ZOR_ITEM_NAME, Wide_text(name->value).view());
      }
      // A message with UTF-8 headers (RFC 6532) is a message all the same:
      // the host offers message/rfc822 as one by itself, this one on our word.
      if (profile_.message_global_is_message && !own_file && vek_string_equal_nc(mime_type_, "message") &&
          vek_string_equal_nc(mime_subtype_, "global"))
        item.add_property(Tav_property(ZOR_MESSAGE_ITEM, true));
      if (!own_file && vek_string_equal_nc(mime_type_, "text")) {
        const Smtp_header_field* charset = find_parameter(parameters_, "charset");
        item.set_property(ZOR_ITEM_CHARSET, charset == nullptr ? std::u16string_view(u"US-ASCII")
                                                               : Wide_text(charset->value, true).view());
      }
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
  // to be changed. Another reading of a body is never written back.
  return position >= table_.header_item_count && !is_signed_ && !is_certificate_ &&
         table_.at_position(position).type != smtp_item_extra_reading;
}

bool Smtp_rfc1521_handler::is_item_modified(uint32_t position, Fmg_item&, Vek_status& status) {
  status.clear();
  test_table_position(table_, position, smtp_handler_class, "is_item_modified");
  return table_.at_position(position).modified;
}

bool Smtp_rfc1521_handler::is_modified(Fmg_item&, Vek_status& status) {
  status.clear();
  // A repaired "Content-Type" is written back even if nothing else changed,
  // except under a signature, which the repair would break.
  return (content_type_repaired_ && !signed_content_) || table_.any_modified();
}

Vek_wstring Smtp_rfc1521_handler::charset_or(std::u16string_view fallback) const {
  const Smtp_header_field* charset = find_parameter(parameters_, "charset");
  if (charset == nullptr) return Vek_wstring(fallback);
  Vek_wstring text = vek_stow(charset->value);
  vek_upper(text);
  return text;
}
