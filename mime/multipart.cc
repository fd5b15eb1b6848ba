// Splitting a multipart entity (RFC 1521, section 7.2) into one record per
// part. Each record views the part's raw text, its own headers included,
// so that an untouched part is written back byte for byte and the host can
// open the part as an entity of its own. Only the part's header is read,
// to decide whether the part is the body of a message.
#include <memory>
#include <string>
#include <vector>

#include "manager/item_table.h"
#include "mime/rfc1521_handler.h"
#include "reader/content_type_repair.h"
#include "reader/field_parsers.h"
#include "reader/header_reader.h"
#include "reader/part_walker.h"

namespace {

// What a part's own header says about it.
struct Smtp_part_header {
  std::string type;
  std::string subtype;
  // The trimmed "Content-Transfer-Encoding" text, not parsed; may be empty.
  std::string encoding;
  bool seen_content_type = false;
  // The part is the text of the message (only asked of a first part).
  bool is_body = false;
};

}  // namespace

void Smtp_rfc1521_handler::open_multipart(Vek_istream& stream, Fmg_item& item, Vek_status& status) {
  status.clear();
  const Smtp_header_field* boundary_parameter = find_parameter(parameters_, "boundary");
  if (boundary_parameter == nullptr) {
    // Without a boundary no part can be told; the body stays in `data`.
    item.log(33, 2, source_name_, Vek_status(smtp_multipart_without_boundary));
    return;
  }
  std::string boundary_text = boundary_parameter->value;
  vek_trim(boundary_text);
  const Smtp_boundary boundary(std::move(boundary_text), profile_.delimiter_padding);

  bool first_part = true;
  // The parts of an alternative are the same text in different forms: in a
  // message every one is a body.
  const bool all_bodies = is_message_ && vek_string_equal_nc(mime_subtype_, "alternative");
  const bool is_digest = vek_string_equal_nc(mime_subtype_, "digest");
  const bool is_signed_entity = vek_string_equal_nc(mime_subtype_, "signed");
  bool end = false;
  bool found = false;

  // The preamble, all in front of the first delimiter line, is no part.
  find_part_delimiter(stream, boundary, end, found, status);

  Smtp_part_header part;
  Smtp_raw_field_view field;
  std::vector<Smtp_header_field> part_parameters;
  while (status.ok() && !end) {
    const uint64_t start = stream.tell();
    part = Smtp_part_header();

    // The extent of the part comes first, and its header is read within
    // it: a header reader let loose on the body could take a delimiter
    // line for the continuation of a broken field and run past it.
    skip_to_part_delimiter(stream, boundary, status);
    // A delimiter right behind the one in front ends the part before it
    // starts: the view is empty, and the part an empty record. Rebuilding
    // writes it as an empty part (a delimiter line, an empty line, the next
    // delimiter), which opens again as the same empty record: nothing of
    // the source is lost, and no content is made up.
    auto text = std::make_unique<Vek_sub_buffer>(data, start, part_end(stream.tell()));
    {
      Vek_status header_status;
      Vek_buffered_istream header(text.get(), true, header_status, vek_eol_lf);
      while (header_status.ok() &&
             read_header_field(header, profile_.header_lines.max_line, field, header_status,
                               profile_.header_lines.eight_bit_text) &&
             header_status.ok()) {
        if (vek_string_equal_nc(field.name, "Content-Type")) {
          part.seen_content_type = true;
          std::string value = unfold_field_lines(field);
          // The part's own handler repairs and reports; here the repair
          // only helps to read the type.
          repair_content_type(value);
          // What the parser got before a failure counts.
          Vek_status parse_status;
          parse_content_type(value, part.type, part.subtype, part_parameters, parse_status);
          part_parameters.clear();
        } else if (vek_string_equal_nc(field.name, "Content-Transfer-Encoding")) {
          part.encoding = unfold_field_lines(field);
          vek_trim(part.encoding);
        }
        if (is_message_ && first_part && part.seen_content_type && !part.is_body) {
          part.is_body =
              vek_string_equal_nc(part.type, "text") || (vek_string_equal_nc(part.type, "multipart") &&
                                                         (vek_string_equal_nc(part.subtype, "alternative") ||
                                                          vek_string_equal_nc(part.subtype, "related")));
        }
      }
    }

    if (part.type.empty()) {
      // RFC 1521, section 7.2.4: a part of a digest is a message by default.
      if (is_digest) {
        part.type = "message";
        part.subtype = "rfc822";
      } else {
        part.type = "text";
        part.subtype = "plain";
        if (is_message_ && first_part) part.is_body = true;
      }
    }
    if (all_bodies) part.is_body = true;
    // A message whose first part is no text has no text of its own; the
    // host may be asked to have one all the same.
    if (is_message_ && add_empty_body_ && first_part && !part.is_body) add_empty_text_body();

    if (!status.ok()) break;
    find_part_delimiter(stream, boundary, end, found, status);
    // A part that the data end in, with no delimiter behind it, is no
    // record; rebuild writes its text behind the closing delimiter. Clients
    // show it as the last part, and so does the hardened reading.
    const bool unclosed = !found && profile_.last_part_without_delimiter && text->size() != 0;
    if (found || unclosed) {
      last_part_unclosed_ = unclosed;
      const uint32_t index = add_body(
          status, table_.items, table_.item_order, std::move(text), part.type, part.subtype, part.encoding,
          part.is_body ? smtp_item_body : smtp_item_attachment, profile_.blocks_past_long_lines);
      if (part.is_body && status.ok()) table_.body_index = index;
    }
    first_part = false;
    // A signed entity shows its signed content only, not the signature.
    if (is_signed_entity) break;
  }
}

// The walker stops two bytes in front of a delimiter line, for its CR LF.
// A decoded message (the content of a Base64 message/rfc822, say) may have
// bare LF line ends, and then only one byte there belongs to the delimiter:
// the byte in front of the LF is the part's last, and is kept.
uint64_t Smtp_rfc1521_handler::part_end(uint64_t position) const {
  const uint64_t size = data->size();
  if (position + 1 >= size) return position;
  const uint8_t* bytes = data->data();
  return bytes[position + 1] == '\n' && bytes[position] != '\r' ? position + 1 : position;
}

void Smtp_rfc1521_handler::add_empty_text_body() {
  Vek_status status;
  auto buffer = std::make_unique<Vek_memory_buffer>();
  Vek_ostream out(buffer.get(), status, vek_eol_crlf);
  if (status.ok()) write_header_field(out, "Content-Type", "text/plain", true, status);
  if (status.ok()) out.writeln("", status);
  out.detach();
  if (!status.ok()) return;
  // An entity with a header and no text: 28 bytes that rebuild writes only
  // if the host fills them.
  const uint32_t index = add_body(status, table_.items, table_.item_order, std::move(buffer), "text", "plain",
                                  "7bit", smtp_item_added_body, profile_.blocks_past_long_lines);
  if (status.ok()) table_.body_index = index;
}
