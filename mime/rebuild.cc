// Rebuilding a MIME entity after the host replaced some of its records.
//
// The header block, and the preamble and epilogue of a multipart entity,
// are read again from `data`; the bodies come from the records. What did
// not change goes out byte for byte; what is regenerated is the blank line
// behind the header, the delimiter lines, a repaired or new "Content-Type"
// field (refolded), and the encoding of quoted-printable and Base64 bodies.
// No transfer encoding is chosen anew, with one exception: a "7bit" text
// that now holds 8-bit bytes in a known character set becomes
// quoted-printable, since sending it as it is would break RFC 1521; its
// header then carries one "Content-Transfer-Encoding" that says so.
// Header text that the field reader refuses (a line at its length limit
// that opening took all the same) is copied as it stands.
//
// The source is read in the line mode of opening (a line ends at LF, a CR
// in front of it is dropped), so that the writers see the lines that
// opening saw, also in a decoded message with bare LF line ends; every line
// that they write ends in CR LF.
//
// Content is never dropped. Where the records cannot carry the entity (the
// cases below), the writer takes the bytes from `data` instead:
//   - an entity whose body is in no record (encrypted, undecodable, with a
//     "Content-Transfer-Encoding" or a "Content-Type" that did not parse, a
//     multipart without a boundary or without a part): its body is copied
//     from the source as it stands, behind the rewritten header;
//   - a signed multipart entity, of which only the signed part is a
//     record: the signature part, the closing delimiter and the epilogue
//     are copied from the source behind it;
//   - a transfer encoding that is not decoded ("binary", "x-uuencode" and
//     the like): the record is the raw body, and it is written raw;
//   - a Base64 body that add_body cut in two records: both are encoded as
//     one run, since a decoder stops at the first "=" of padding.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "codecs/base64.h"
#include "codecs/boundary.h"
#include "codecs/quoted_printable.h"
#include "contracts/mib.h"
#include "manager/item_table.h"
#include "mime/rfc1521_handler.h"
#include "reader/content_type_repair.h"
#include "reader/field_parsers.h"
#include "reader/header_reader.h"
#include "reader/part_walker.h"

namespace {

// Bytes looked at per step when searching a record for 8-bit bytes.
constexpr size_t smtp_scan_block = 4096;

// Whether a record is part of the content that the writers put out. A body
// that the handler added itself counts only once the host filled it.
bool is_content_record(const Smtp_item_record& record) {
  if (record.type == smtp_item_header || record.type == smtp_item_extra_reading) return false;
  return record.type != smtp_item_added_body || record.modified;
}

// A parameter value as it goes into a rewritten "Content-Type": bare, as
// it is read back the same way; in quotes if it holds what would end or
// change a bare value (a tspecial, a run of blanks, nothing at all).
std::string parameter_value_text(const std::string& value) {
  std::string type;
  std::string subtype;
  std::vector<Smtp_header_field> parsed;
  Vek_status status;
  parse_content_type("x/x; v=" + value, type, subtype, parsed, status);
  if (status.ok() && parsed.size() == 1 && parsed[0].value == value) return value;
  std::string quoted = "\"";
  for (char c : value) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  quoted += '"';
  return quoted;
}

// Keeps the first failure of a run of steps that goes on after a failure.
void keep_failure(const Vek_status& step, Vek_status& status) {
  if (!step.ok() && status.ok()) status = step.value();
}

}  // namespace

bool Smtp_rfc1521_handler::has_body_records() const {
  return std::any_of(table_.items.begin(), table_.items.end(),
                     [](const auto& record) { return is_content_record(*record); });
}

Vek_buffer* Smtp_rfc1521_handler::rebuild(Fmg_item&, Vek_status& status) {
  auto result = std::make_unique<Vek_page_buffer>(0, 128);
  if (!has_body_records()) {
    write_source_body(*result, status);
    return result.release();
  }
  if (vek_string_equal_nc(mime_type_, "multipart")) {
    // A multipart entity with records was split at a boundary.
    if (boundary_text_.empty()) {
      write_source_body(*result, status);
      return result.release();
    }
    write_multipart(*result, status);
  } else if (vek_string_equal_nc(encoding_, "7bit")) {
    Vek_wstring charset = charset_or(u"ISO-8859-1");
    if (!has_eight_bit_text(charset, status)) {
      write_raw(*result, status);
      return result.release();
    }
    // Plain ASCII cannot hold the new bytes; Latin-1 is the usual meaning
    // of undeclared 8-bit text.
    if (vek_string_equal_nc(charset, u"US-ASCII") || vek_string_equal_nc(charset, u"ASCII"))
      charset = u"ISO-8859-1";
    std::string value = mime_type_ + "/" + mime_subtype_;
    for (const Smtp_header_field& parameter : parameters_) {
      if (vek_string_equal_nc(parameter.name, "charset")) continue;
      value += "; " + parameter.name + "=" + parameter_value_text(parameter.value);
    }
    value += "; charset=" + vek_wtos(charset);
    new_content_type_ = std::move(value);
    write_quoted_printable(*result, true, status);
  } else if (vek_string_equal_nc(encoding_, "quoted-printable")) {
    write_quoted_printable(*result, false, status);
  } else if (vek_string_equal_nc(encoding_, "base64")) {
    write_base64(*result, status);
  } else {
    // "8bit", and any encoding that opening took raw: the record is the
    // body as it stood, so it goes out as it is.
    write_raw(*result, status);
  }
  return result.release();
}

bool Smtp_rfc1521_handler::has_eight_bit_text(const Vek_wstring& charset, Vek_status& status) const {
  status.clear();
  if (!vek_string_equal_nc(mime_type_, "text")) return false;
  mib_display_name(charset, status);
  if (!status.ok()) {
    // A character set that is not known: the text goes out raw.
    status.clear();
    return false;
  }
  for (const auto& record : table_.items) {
    if (record->type == smtp_item_header || record->type == smtp_item_extra_reading || record->buffer == nullptr)
      continue;
    const Vek_buffer& buffer = *record->buffer;
    const uint64_t size = record->length == smtp_unknown_count
                              ? buffer.size()
                              : std::min<uint64_t>(record->length, buffer.size());
    const uint8_t* bytes = buffer.data();
    for (uint64_t at = 0; at < size; at += smtp_scan_block) {
      const uint8_t* block = bytes + at;
      const uint8_t* block_end = bytes + std::min<uint64_t>(size, at + smtp_scan_block);
      if (std::any_of(block, block_end, [](uint8_t byte) { return byte >= 0x80; })) return true;
    }
  }
  return false;
}

void Smtp_rfc1521_handler::write_headers(Vek_istream& input, Vek_ostream& output, bool refold_content_type,
                                         bool quoted_printable, Vek_status& status) {
  status.clear();
  std::string name;
  std::vector<std::string> lines;
  lines.reserve(8);
  bool content_type_seen = false;
  bool encoding_seen = false;
  // The header ends where opening found it to end: lines that opening took
  // for the body are written with the body, not as fields.
  while (input.tell() < header_end_) {
    const uint64_t field_start = input.tell();
    const bool read = read_header_field(input, name, lines, status, profile_.header_lines);
    if (!status.ok()) {
      // A line that the field reader refuses (one at its length limit, say)
      // where opening took the header all the same: nothing of it changes,
      // so it goes out as it came, up to where opening stopped.
      status.clear();
      copy_header_text(field_start, header_end_, output, status);
      input.seek(header_end_);
      return;
    }
    if (!read) break;
    const bool is_content_type = vek_string_equal_nc(name, "Content-Type");
    if (is_content_type && !content_type_as_sent_ && (refold_content_type || content_type_repaired_)) {
      content_type_seen = true;
      std::string value =
          refold_content_type && !new_content_type_.empty() ? new_content_type_ : unfold_field_lines(lines);
      if (content_type_repaired_) repair_content_type(value);
      write_header_field(output, name, value, true, status);
    } else if (quoted_printable && vek_string_equal_nc(name, "Content-Transfer-Encoding")) {
      // The body is now quoted-printable: one field says so, in the place
      // of the first old one, so that no reader takes the old "7bit".
      if (!encoding_seen) write_header_field(output, name, "quoted-printable", true, status);
      encoding_seen = true;
    } else {
      content_type_seen = content_type_seen || is_content_type;
      // A name with white space in front of its colon (the obsolete form)
      // goes out as it came; the lines alone would lose that space.
      if (name != smtp_bad_header_name && field_start + name.size() < data->size() &&
          data->data()[field_start + name.size()] != ':')
        copy_header_text(field_start, input.tell(), output, status);
      else
        write_raw_field(output, name, lines, status);
    }
    if (!status.ok()) return;
  }
  if (!status.ok()) return;
  if (refold_content_type && !content_type_seen && !new_content_type_.empty())
    write_header_field(output, "Content-Type", new_content_type_, true, status);
  if (status.ok() && quoted_printable && !encoding_seen)
    write_header_field(output, "Content-Transfer-Encoding", "quoted-printable", true, status);
}

// The source's header text from `start` to `end`, as it stands: at the
// header's end a line cut in two goes out without its line end, and the
// body goes on with it.
void Smtp_rfc1521_handler::copy_header_text(uint64_t start, uint64_t end, Vek_ostream& output,
                                            Vek_status& status) const {
  end = std::min<uint64_t>(end, data->size());
  if (start >= end) return;
  write_source_lines(
      output, std::string_view(reinterpret_cast<const char*>(data->data()) + start, end - start), status);
}

void Smtp_rfc1521_handler::write_header_end(Vek_ostream& output, Vek_status& status) const {
  status.clear();
  // Where opening stopped inside a line, the body goes on with that line.
  if (header_end_ != 0 && header_end_ < data->size() && data->data()[header_end_ - 1] != '\n') return;
  output.writeln("", status);
}

void Smtp_rfc1521_handler::write_raw(Vek_buffer& out, Vek_status& status) {
  status.clear();
  Vek_ostream output(&out, status, vek_eol_crlf);
  if (!status.ok()) return;
  Vek_buffered_istream input(data, true, status, vek_eol_lf);
  if (!status.ok()) return;
  write_headers(input, output, false, false, status);
  if (status.ok()) write_header_end(output, status);
  if (!status.ok()) return;
  for (const auto& record : table_.items) {
    if (!is_content_record(*record)) continue;
    Vek_status step;
    Vek_buffered_istream body(record->buffer.get(), true, step, vek_eol_crlf);
    if (step.ok()) copy_bytes(body, output, record->length, step);
    keep_failure(step, status);
  }
}

void Smtp_rfc1521_handler::write_quoted_printable(Vek_buffer& out, bool add_encoding_field,
                                                  Vek_status& status) {
  status.clear();
  Vek_ostream output(&out, status, vek_eol_crlf);
  if (!status.ok()) return;
  Vek_buffered_istream input(data, true, status, vek_eol_lf);
  if (!status.ok()) return;
  write_headers(input, output, true, add_encoding_field, status);
  if (status.ok()) write_header_end(output, status);
  if (!status.ok()) return;
  for (const auto& record : table_.items) {
    if (!is_content_record(*record)) continue;
    Vek_status step;
    Vek_buffered_istream body(record->buffer.get(), true, step, vek_eol_crlf);
    if (step.ok()) encode_quoted_printable(body, output, step);
    keep_failure(step, status);
  }
}

void Smtp_rfc1521_handler::write_base64(Vek_buffer& out, Vek_status& status) {
  status.clear();
  Vek_ostream output(&out, status, vek_eol_crlf);
  if (!status.ok()) return;
  Vek_buffered_istream input(data, true, status, vek_eol_lf);
  if (!status.ok()) return;
  write_headers(input, output, true, false, status);
  if (status.ok()) write_header_end(output, status);
  if (!status.ok()) return;

  std::vector<const Vek_buffer*> bodies;
  for (const auto& record : table_.items)
    if (is_content_record(*record)) bodies.push_back(record->buffer.get());
  // A body in two records (cut at an embedded block) is one run of Base64:
  // padding in the middle would end the data for every decoder.
  std::unique_ptr<Vek_page_buffer> joined;
  if (bodies.size() > 1) {
    joined = std::make_unique<Vek_page_buffer>(0, 128);
    Vek_ostream join(joined.get(), status, vek_eol_crlf);
    for (const Vek_buffer* body : bodies) {
      if (!status.ok()) break;
      if (body != nullptr && body->size() != 0)
        join.write(static_cast<size_t>(body->size()), body->data(), status);
    }
    join.detach();
    if (!status.ok()) return;
    bodies.assign(1, joined.get());
  }
  for (const Vek_buffer* body : bodies) {
    Vek_status step;
    Vek_buffered_istream stream(body, true, step, vek_eol_crlf);
    if (step.ok()) {
      const uint64_t size = stream.size(step);
      if (step.ok()) encode_base64(stream, output, size, step);
    }
    keep_failure(step, status);
  }
}

void Smtp_rfc1521_handler::write_multipart(Vek_buffer& out, Vek_status& status) {
  const std::string& boundary_text = boundary_text_;
  status.clear();
  Vek_ostream output(&out, status, vek_eol_crlf);
  if (!status.ok()) return;
  Vek_buffered_istream input(data, true, status, vek_eol_lf);
  if (!status.ok()) return;
  const Smtp_boundary boundary(boundary_text, profile_.delimiter_padding);

  write_headers(input, output, true, false, status);
  // The blank line behind the header and the preamble, without the line
  // end in front of the first delimiter, which belongs to the delimiter.
  if (status.ok()) copy_to_part_delimiter(input, output, boundary, status);
  if (!status.ok()) return;

  // Of a signed entity only the signed part is a record. Where the source
  // goes on behind it with a delimiter, all from there (the signature
  // part, the closing delimiter, the epilogue) is copied as it stands.
  uint64_t signature_start = 0;
  bool copy_signature = false;
  if (is_signed_ && vek_string_equal_nc(mime_subtype_, "signed")) {
    const uint64_t first_delimiter = input.tell();
    bool end = false;
    bool found = false;
    Vek_status walk;
    find_part_delimiter(input, boundary, end, found, walk);
    if (walk.ok() && found && !end) {
      skip_to_part_delimiter(input, boundary, walk);
      const uint64_t size = input.size(walk);
      if (walk.ok() && input.tell() < size) {
        signature_start = part_end(input.tell());
        copy_signature = true;
      }
    }
    input.seek(first_delimiter);
  }

  for (const auto& record : table_.items) {
    if (!status.ok()) break;
    if (!is_content_record(*record)) continue;
    // The rest of a cut body continues the record in front of it.
    if (record->type != smtp_item_block_rest) {
      output.writeln("", status);
      if (status.ok()) output.write("--", status);
      if (status.ok()) output.writeln(boundary_text, status);
      if (!status.ok()) break;
    }
    Vek_buffered_istream part(record->buffer.get(), true, status, vek_eol_crlf);
    if (status.ok()) vek_copy_stream(part, output, status);
  }
  if (!status.ok()) return;

  if (copy_signature) {
    input.seek(signature_start);
    vek_copy_stream(input, output, status);
    return;
  }

  // The closing delimiter is always written, also where the source lacked
  // it; the last part's line end and the delimiter's come from here.
  output.writeln("", status);
  if (status.ok()) output.write("--", status);
  if (status.ok()) output.write(boundary_text, status);
  if (status.ok()) output.writeln("--", status);
  if (!status.ok()) return;

  // The epilogue: behind the last delimiter line of the source. Where the
  // source has no closing delimiter, the text of its last part (which is
  // no record) is put behind the new closing delimiter instead of lost.
  bool end = false;
  bool found = true;
  uint64_t last = input.tell();
  while (!end && found && status.ok()) {
    last = input.tell();
    find_part_delimiter(input, boundary, end, found, status);
  }
  // An unclosed last part that opening made a record is written already.
  if (!found && last_part_unclosed_) return;
  if (!found) input.seek(last);
  if (status.ok()) copy_remaining_lines(input, output, status);
}

void Smtp_rfc1521_handler::write_source_body(Vek_buffer& out, Vek_status& status) {
  status.clear();
  Vek_ostream output(&out, status, vek_eol_crlf);
  if (!status.ok()) return;
  Vek_buffered_istream input(data, true, status, vek_eol_lf);
  if (!status.ok()) return;
  // The header as write_raw writes it (a repaired "Content-Type" refolded),
  // and every byte behind it, the blank line included, as it stands.
  write_headers(input, output, false, false, status);
  if (status.ok()) vek_copy_stream(input, output, status);
}
