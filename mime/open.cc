// Opening a MIME entity: its header, its type and transfer encoding, and
// its body as records.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "codecs/base64.h"
#include "codecs/encoded_words.h"
#include "codecs/quoted_printable.h"
#include "contracts/zor.h"
#include "encoding/block_scanner.h"
#include "manager/header_export.h"
#include "manager/signed_content.h"
#include "manager/table_access.h"
#include "mime/rfc1521_handler.h"
#include "reader/content_type_repair.h"
#include "reader/field_parsers.h"
#include "reader/tokeniser.h"

namespace {

// Severity of every log entry of this handler.
constexpr uint32_t smtp_log_severity = 2;

// Converts an exported header value for the host: a MIME message may carry
// RFC 2047 encoded words in its fields, which the host gets decoded.
void decode_header_value(std::string_view value, Vek_wstring& text) { decode_encoded_words(value, text); }

// Adds `value`, a field's value that outlives `values`, to `values`: a
// view on the value itself while it is the only one (most entities have
// one field of a name), on copies in `copies` once there are more.
void keep_value(const std::string& value, Smtp_field_values& values, std::vector<std::string>& copies) {
  if (values.empty()) {
    values = Smtp_field_values(&value, 1);
    return;
  }
  if (copies.empty()) copies.push_back(values.front());
  copies.push_back(value);
  values = copies;
}

// The first word of a field value as mail clients take it when the value
// does not parse: behind any blanks and an opening quote, the bytes up to
// the first that cannot stand in an atom ("base64 (x)", "\"base64\"",
// "attachment filename=a").
std::string first_word(std::string_view value) {
  size_t start = 0;
  while (start < value.size() && (value[start] == ' ' || value[start] == '\t' || value[start] == '"'))
    ++start;
  size_t end = start;
  while (end < value.size() && is_atom_char(value[end], false) && value[end] != ' ' && value[end] != '\t')
    ++end;
  return std::string(value.substr(start, end - start));
}

// A Content-Type that does not parse, read by a split at ';': the head
// counts where it is "type/subtype" (comments aside), else the content is
// application/octet-stream, the type of bytes nobody can tell.
void read_content_type_leniently(std::string_view value, std::string& type, std::string& subtype,
                                 std::vector<Smtp_header_field>& parameters) {
  std::string head;
  split_parameters(value, head, parameters);
  Smtp_token_list tokens;
  Vek_status status;
  tokenise_field(head, false, false, tokens, status);
  if (status.ok() && tokens.count() == 3 && tokens[0].type == token_atom && tokens[1].type == token_special &&
      tokens[1].text == "/" && tokens[2].type == token_atom) {
    type = tokens[0].text;
    subtype = tokens[2].text;
  } else {
    type = "application";
    subtype = "octet-stream";
  }
}

// How a transfer encoding makes the bytes of a body: decoded as
// quoted-printable, as Base64, or taken as they stand.
enum class Smtp_decoding { raw, quoted_printable, base64 };

Smtp_decoding decoding_of(std::string_view encoding) {
  if (vek_string_equal_nc(encoding, "quoted-printable")) return Smtp_decoding::quoted_printable;
  if (vek_string_equal_nc(encoding, "base64")) return Smtp_decoding::base64;
  return Smtp_decoding::raw;
}

// The transfer encodings of uuencode that mailers wrote before MIME had one.
bool is_uuencode(std::string_view encoding) {
  return vek_string_equal_nc(encoding, "x-uuencode") || vek_string_equal_nc(encoding, "uuencode") ||
         vek_string_equal_nc(encoding, "x-uue") || vek_string_equal_nc(encoding, "uue");
}

// The file name in the "begin" line of the first closed frame of a body
// from `start` on; empty when the scanner finds none.
std::string first_block_name(Vek_buffer* data, uint64_t start) {
  Vek_status status;
  Vek_buffered_istream stream(data, true, status, vek_eol_crlf);
  if (!status.ok()) return std::string();
  stream.seek(start);
  Smtp_block_scanner scanner;
  scanner.scan(stream);
  while (auto block = scanner.next_block())
    if (block->encoded) return block->name;
  return std::string();
}

}  // namespace

Smtp_rfc1521_handler::Smtp_rfc1521_handler(const Vek_wstring& source_name,
                                           const std::vector<std::string>& export_headers, bool is_message,
                                           bool add_empty_body, const Smtp_profile& profile)
    : source_name_(source_name),
      export_headers_(export_headers),
      is_message_(is_message),
      add_empty_body_(add_empty_body),
      profile_(profile) {}

Smtp_rfc1521_handler::~Smtp_rfc1521_handler() { clear_items(); }

Fmg_handler_base* make_rfc1521_handler(const Vek_wstring& name,
                                       const std::vector<std::string>& export_headers, bool is_message,
                                       bool add_empty_body, const Smtp_profile& profile) {
  return new (std::nothrow) Smtp_rfc1521_handler(name, export_headers, is_message, add_empty_body, profile);
}

const Smtp_header_field* find_parameter(const std::vector<Smtp_header_field>& parameters,
                                        std::string_view name) {
  for (const Smtp_header_field& parameter : parameters)
    if (vek_string_equal_nc(parameter.name, name)) return &parameter;
  return nullptr;
}

void Smtp_rfc1521_handler::clear_items() {
  table_.clear_items();
  last_part_unclosed_ = false;
}

void Smtp_rfc1521_handler::set_data(Vek_buffer* buffer, Fmg_item& item, Vek_status& status) {
  status.clear();
  data = buffer;
  clear_items();
  content_type_repaired_ = false;
  content_type_as_sent_ = false;
  signed_content_ = is_signed_content(item);
  header_end_ = 0;
  encoding_ = "7bit";
  mime_type_.clear();
  mime_subtype_.clear();
  // A value worked out for other data would be wrong for this one.
  new_content_type_.clear();
  parameters_.clear();
  file_names_.clear();
  boundary_text_.clear();
  nested_boundaries_.clear();
  coverage_ = Smtp_coverage();

  Vek_buffered_istream stream(data, true, status, vek_eol_lf);
  if (!status.ok()) return;

  std::string content_type;
  std::string transfer_encoding;
  std::string disposition_text;
  std::vector<Smtp_header_field> fields;
  // Every value of these two fields: clients differ on which one counts,
  // and a name in any of them is one that some client shows. They view
  // `fields`, or the copies beside them, which outlive them.
  Smtp_field_values content_types;
  Smtp_field_values dispositions;
  std::vector<std::string> content_type_copies;
  std::vector<std::string> disposition_copies;
  // Points into `fields`, which outlives it.
  const std::string* first_transfer_encoding = nullptr;
  size_t transfer_encoding_count = 0;
  {
    bool block_reads = false;
    if (handed_header_.buffer == buffer) {
      // Recognition read this header already and kept what opens it.
      fields = std::move(handed_header_.fields);
      block_reads = handed_header_.block_reads;
      stream.seek(handed_header_.end);
    } else {
      block_reads = read_header_block(stream, fields, status, nullptr, nullptr, profile_.header_lines);
    }
    handed_header_ = Smtp_header_reading();
    // A block that the reader refuses counts for nothing: the entity is
    // then taken as if it had no fields, its body where the reader stopped.
    if (block_reads) {
      for (Smtp_header_field& field : fields) {
        if (!status.ok()) break;
        if (is_message_ && is_exported_header(export_headers_, field.name))
          export_header_field(table_, field, decode_header_value, status);
        // The last of several fields of a name counts.
        if (vek_string_equal_nc(field.name, "Content-Type")) {
          content_type = field.value;
          if (profile_.file_names_as_clients_read_them || profile_.every_boundary_reading)
            keep_value(field.value, content_types, content_type_copies);
        } else if (vek_string_equal_nc(field.name, "Content-Transfer-Encoding")) {
          transfer_encoding = field.value;
          if (transfer_encoding_count++ == 0) first_transfer_encoding = &field.value;
        } else if (vek_string_equal_nc(field.name, "Content-Disposition")) {
          disposition_text = field.value;
          if (profile_.file_names_as_clients_read_them) keep_value(field.value, dispositions, disposition_copies);
        }
      }
    }
  }
  if (!status.ok()) return;
  header_end_ = stream.tell();
  skip_blank_line(stream);
  coverage_.start(data, stream.tell());

  // Every field's value is kept where the profile reads them all; the last
  // is then the value that opens the entity, as sent.
  const bool sent_kept = !content_type.empty() && !content_types.empty();
  // Without a field of its own, a part has the type that its parent gave
  // it (message/rfc822 in a digest); anything else is plain text.
  if (content_type.empty()) {
    const Tav_property* type = item.properties().find(ZOR_ENCLOSED_MIME_TYPE);
    std::string type_text;
    std::string subtype_text;
    if (type != nullptr) {
      type_text = vek_wtos(type->string_value());
      const Tav_property* subtype = item.properties().find(ZOR_ENCLOSED_MIME_SUBTYPE);
      if (subtype != nullptr) subtype_text = vek_wtos(subtype->string_value());
    }
    content_type = type_text.empty() ? std::string("text/plain") : type_text + "/" + subtype_text;
  }
  // Clients never see the repair: the lenient reading splits what was sent.
  std::string given_content_type;
  if (profile_.bad_content_type_read_leniently && !sent_kept) given_content_type = content_type;
  const std::string& sent_content_type = sent_kept ? content_types.back() : given_content_type;
  content_type_repaired_ = repair_content_type(content_type);

  bool malformed = false;
  parse_content_type(content_type, mime_type_, mime_subtype_, parameters_, status);
  // What the parser made of the last field serves the names as well.
  const bool type_parsed = status.ok() && !content_types.empty();
  if (!status.ok()) {
    item.log(33, smtp_log_severity, source_name_, status);
    status.clear();
    if (profile_.bad_content_type_read_leniently) {
      read_content_type_leniently(sent_content_type, mime_type_, mime_subtype_, parameters_);
      // What was read is the field as sent: a rebuild writes it so, neither
      // repaired nor refolded, either of which could read otherwise.
      content_type_repaired_ = false;
      content_type_as_sent_ = true;
    } else {
      malformed = true;
    }
  }

  std::string disposition;
  std::vector<Smtp_header_field> disposition_parameters;
  bool disposition_parsed = false;
  if (!disposition_text.empty()) {
    // A disposition that does not parse is a failure of the opening: the
    // manager then keeps the entity with no sub-items.
    parse_content_disposition(disposition_text, disposition, disposition_parameters, status);
    disposition_parsed = status.ok() && !dispositions.empty();
    if (!status.ok()) {
      if (!profile_.bad_disposition_read_leniently) return;
      // Only what the field says is lost; the rest of the entity stands.
      item.log(33, smtp_log_severity, source_name_, status);
      status.clear();
      std::string head;
      split_parameters(disposition_text, head, disposition_parameters);
      disposition = first_word(head);
    }
  }

  classify_secure_entity(disposition_parameters, status);
  if (!status.ok()) return;
  if (is_encrypted_) {
    // Nothing of an enciphered body is of use to the host, unless it is
    // not what its label says.
    item.log(36, smtp_log_severity, source_name_, Vek_status());
    if (!profile_.encrypted_content_offered) return;
  }

  if (!transfer_encoding.empty()) {
    parse_transfer_encoding(transfer_encoding, encoding_, status);
    if (!status.ok()) {
      item.log(33, smtp_log_severity, source_name_, status);
      status.clear();
      if (profile_.transfer_encoding_by_first_word) {
        encoding_ = first_word(transfer_encoding);
        if (encoding_.empty()) encoding_ = "7bit";
      } else {
        malformed = true;
      }
    }
  }
  if (profile_.file_names_as_clients_read_them && !vek_string_equal_nc(mime_type_, "multipart")) {
    // Only content is named; the parts of a multipart name themselves.
    // A uuencoded body names its file in its "begin" line, which is the
    // name a client gives the file it decodes from it.
    std::string block_name;
    if (profile_.transfer_encoding_by_first_word && is_uuencode(encoding_))
      block_name = first_block_name(data, stream.tell());
    collect_file_names(content_types, dispositions, type_parsed ? &parameters_ : nullptr,
                       disposition_parsed ? &disposition_parameters : nullptr, block_name);
  }

  const bool is_body = vek_string_equal_nc(disposition, "attachment") ? false : is_message_;
  const uint64_t body_start = stream.tell();
  if (!malformed) {
    if (vek_string_equal_nc(mime_type_, "multipart")) {
      open_multipart(stream, item, content_types, status);
    } else if (vek_string_equal_nc(encoding_, "quoted-printable")) {
      decode_quoted_printable_body(stream, item, is_body, status);
    } else if (vek_string_equal_nc(encoding_, "base64")) {
      decode_base64_body(stream, item, is_body, status);
    } else {
      // A body that is not decoded is a view on the entity. It is a body
      // of a message even with the disposition "attachment": nothing marks
      // it as a file of its own, as an encoding would.
      auto body = std::make_unique<Vek_sub_buffer>(data, stream.tell(), vek_to_end);
      const uint32_t type = record_type(is_message_);
      uint32_t index = add_body(status, table_.items, table_.item_order, std::move(body), mime_type_,
                                mime_subtype_, encoding_, type, profile_.blocks_past_long_lines);
      if (status.ok()) {
        if (type == smtp_item_body) table_.body_index = index;
        coverage_.cover(body_start, data->size());
      }
    }
    // Clients that read another Content-Type field may take the body for
    // a multipart and show its parts.
    if (profile_.every_boundary_reading && content_types.size() > 1 && status.ok() &&
        !vek_string_equal_nc(mime_type_, "multipart"))
      add_other_type_readings(stream, body_start, content_types);
    if (profile_.every_transfer_encoding_reading && transfer_encoding_count > 1 && status.ok() &&
        !vek_string_equal_nc(mime_type_, "multipart")) {
      // Clients that read the first of two fields decode the body their way.
      std::string first;
      Vek_status parsed;
      parse_transfer_encoding(*first_transfer_encoding, first, parsed);
      if (!parsed.ok() && profile_.transfer_encoding_by_first_word)
        first = first_word(*first_transfer_encoding);
      if (!first.empty() && decoding_of(first) != decoding_of(encoding_))
        add_extra_reading(body_start, first);
    }
    // The host gets the main body last; item_order is still 0, 1, 2...
    move_body_last(table_);
    if (status.ok() && is_message_) {
      int32_t count = 0;
      for (const auto& record : table_.items)
        if (record->type == smtp_item_attachment || record->type == smtp_item_block_rest) ++count;
      item.add_property(Tav_property(ZOR_ATTACHMENT_COUNT, count));
    }
  }
  if (status.ok() && is_signed_) item.log(35, smtp_log_severity, source_name_, Vek_status());
}

void Smtp_rfc1521_handler::decode_quoted_printable_body(Vek_istream& stream, Fmg_item& item, bool is_body,
                                                        Vek_status& status) {
  status.clear();
  auto decoded = std::make_unique<Vek_page_buffer>(0, 128);
  Vek_ostream out(decoded.get(), status, vek_eol_crlf);
  if (!status.ok()) return;
  const uint64_t start = stream.tell();
  const uint64_t size = stream.size(status);
  if (!status.ok()) return;
  const uint64_t length = size > start ? size - start : 0;
  // Decoding never makes more bytes than it reads: the buffer of a small
  // body stays small, that of a large one grows only once.
  decoded->reserve(length);
  decode_quoted_printable(stream, out, start, length, status, profile_.quoted_printable_as_clients_decode,
                          profile_.quoted_printable_padded_breaks);
  if (status == smtp_qp_end_in_escape && profile_.quoted_printable_as_clients_decode) {
    // Decoded all the same, the unfinished escape as it stands.
    item.log(33, smtp_log_severity, source_name_, status);
    status.clear();
  }
  if (status.ok()) {
    out.detach();
    const uint32_t type = record_type(is_body);
    uint32_t index =
        add_body(status, table_.items, table_.item_order, std::move(decoded), mime_type_, mime_subtype_,
                 "quoted-printable", type, profile_.blocks_past_long_lines);
    if (status.ok()) {
      if (type == smtp_item_body) table_.body_index = index;
      coverage_.cover(start, size);
    }
    return;
  }
  // Data that end inside an escape are a fault of the message: the entity
  // goes on without a body, which stays in `data` untouched.
  if (status == smtp_qp_end_in_escape) {
    item.log(33, smtp_log_severity, source_name_, status);
    status.clear();
  }
}

void Smtp_rfc1521_handler::decode_base64_body(Vek_istream& stream, Fmg_item& item, bool is_body,
                                              Vek_status& status) {
  status.clear();
  auto decoded = std::make_unique<Vek_page_buffer>(0, 128);
  Vek_ostream out(decoded.get(), status, vek_eol_crlf);
  if (!status.ok()) return;
  const uint64_t start = stream.tell();
  const uint64_t size = stream.size(status);
  if (!status.ok()) return;
  const uint64_t length = size > start ? size - start : 0;
  // Four characters give at most three bytes.
  decoded->reserve(length / 4 * 3 + 3);
  Smtp_base64_reading reading;
  reading.lenient = profile_.base64_as_clients_decode;
  decode_base64(stream, out, start, length, status, reading);
  if (status == smtp_bad_base64 && profile_.base64_as_clients_decode) {
    // Decoded all the same, as clients decode it: the fault is logged and
    // the attachment still reaches the host.
    item.log(33, smtp_log_severity, source_name_, status);
    status.clear();
  }
  if (status.ok()) {
    out.detach();
    // The record's encoding is the label that all decoded bodies carry; it
    // is never read back, since the entity's own encoding rules rebuild.
    const uint32_t type = record_type(is_body);
    uint32_t index =
        add_body(status, table_.items, table_.item_order, std::move(decoded), mime_type_, mime_subtype_,
                 "quoted-printable", type, profile_.blocks_past_long_lines);
    if (!status.ok()) return;
    if (type == smtp_item_body) table_.body_index = index;
    coverage_.cover(start, reading.data_end);
    if (reading.data_end >= size) return;
    if (is_padding_or_blank(reading.data_end, size)) {
      // More "=" on the lines behind the padding ("Cg=" and then "=" is
      // "Cg==" broken over two lines) decode to nothing in any reader: they
      // are markup of the encoding, as the line breaks are, not hidden text.
      coverage_.cover(reading.data_end, size);
    } else if (profile_.base64_past_padding) {
      // What follows the padding that ended the data, read as more Base64.
      add_extra_reading(reading.data_end, "base64");
      coverage_.cover(reading.data_end, size);
    }
    return;
  }
  if (status == smtp_bad_base64) {
    item.log(33, smtp_log_severity, source_name_, status);
    status.clear();
  }
}

// The type of a record of this entity's content: an extra reading where
// the entity is encrypted (its content is offered, never written back).
uint32_t Smtp_rfc1521_handler::record_type(bool is_body) const {
  if (is_encrypted_) return smtp_item_extra_reading;
  return is_body ? smtp_item_body : smtp_item_attachment;
}

// Whether the bytes of `data` from `start` to `end` are all "=" and white
// space.
bool Smtp_rfc1521_handler::is_padding_or_blank(uint64_t start, uint64_t end) const {
  const uint8_t* bytes = data->data();
  return std::all_of(bytes + start, bytes + end,
                     [](uint8_t c) { return c == '=' || c == ' ' || c == '\t' || c == '\r' || c == '\n'; });
}

// The body from `start` on read by another transfer encoding, as a record
// that the host classifies and rebuild never writes. Data that do not
// decode that way give no record: no client shows them either.
void Smtp_rfc1521_handler::add_extra_reading(uint64_t start, const std::string& encoding) {
  std::unique_ptr<Vek_buffer> bytes;
  const Smtp_decoding decoding = decoding_of(encoding);
  if (decoding == Smtp_decoding::raw) {
    bytes = std::make_unique<Vek_sub_buffer>(data, start, vek_to_end);
  } else {
    Vek_status step;
    Vek_buffered_istream input(data, true, step, vek_eol_lf);
    auto decoded = std::make_unique<Vek_page_buffer>(0, 128);
    Vek_ostream out(decoded.get(), step, vek_eol_crlf);
    const uint64_t size = step.ok() ? input.size(step) : 0;
    const uint64_t length = size > start ? size - start : 0;
    if (step.ok() && decoding == Smtp_decoding::quoted_printable)
      decode_quoted_printable(input, out, start, length, step, profile_.quoted_printable_as_clients_decode,
                              profile_.quoted_printable_padded_breaks);
    else if (step.ok()) {
      Smtp_base64_reading reading;
      reading.lenient = profile_.base64_as_clients_decode;
      reading.past_padding = profile_.base64_past_padding;
      decode_base64(input, out, start, length, step, reading);
    }
    if (step == smtp_bad_base64 && profile_.base64_as_clients_decode) step.clear();
    if (step == smtp_qp_end_in_escape && profile_.quoted_printable_as_clients_decode) step.clear();
    if (!step.ok()) return;
    out.detach();
    bytes = std::move(decoded);
  }
  const auto length = static_cast<uint32_t>(bytes->size());
  const uint32_t index = add_item_record(table_.items, smtp_item_extra_reading, std::move(bytes), length,
                                         mime_type_, mime_subtype_, encoding, std::string());
  table_.item_order.push_back(index);
}
