#include "host/entity.h"

#include "codecs/encoded_words.h"
#include "platform/vek/registry.h"
#include "reader/field_parsers.h"
#include "reader/header_block.h"
#include "reader/profile.h"

namespace {

bool is_content_field(std::string_view name) {
  return name.size() >= 8 && vek_string_equal_nc(name.substr(0, 8), "Content-");
}

// RFC 822 section 3.1.1: unfolding removes each CRLF that is immediately
// followed by white space.
std::string unfold(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\r' || text[i] == '\n') continue;
    out.push_back(text[i]);
  }
  return out;
}

std::string value_of(const Entity_field& field) {
  std::string text = unfold(field.text);
  const size_t colon = text.find(':');
  text.erase(0, colon == std::string::npos ? text.size() : colon + 1);
  text.erase(0, text.find_first_not_of(" \t"));
  return text;
}

// The text in front of the first line end of `text`, or all of it.
std::string_view line_end_of(std::string_view text) {
  const size_t lf = text.find('\n');
  if (lf == std::string_view::npos) return "\r\n";
  return lf > 0 && text[lf - 1] == '\r' ? "\r\n" : "\n";
}

}  // namespace

Entity_header read_entity_header(std::string_view entity, bool hardened) {
  const Smtp_line_rules& rules = (hardened ? smtp_hardened_profile : smtp_reference_profile).header_lines;
  Entity_header header;
  Vek_raw_memory_buffer buffer(entity.size(), entity.data(), 0);
  Vek_status status;
  Vek_buffered_istream stream(&buffer, true, status, vek_eol_lf);
  std::vector<Smtp_header_field> fields;
  read_header_block(stream, fields, status, [](std::string_view) { return false; }, nullptr, rules);
  if (!status.ok()) return header;
  const uint64_t end = stream.tell();
  stream.seek(0);
  if (rules.skip_envelope_line) {
    std::string_view line;
    stream.readln_view(rules.max_line, line, status);
    if (status.ok() && line.starts_with("From ") && stream.tell() <= end)
      header.fields.push_back({{}, entity.substr(0, stream.tell())});
    else
      stream.seek(0);
    status.clear();
  }
  Smtp_raw_field_view field;
  Smtp_line_lookahead lookahead;
  while (stream.tell() < end) {
    const uint64_t start = stream.tell();
    if (!read_header_field(stream, field, lookahead, status, rules) || stream.tell() <= start) break;
    const uint64_t stop = std::min<uint64_t>(stream.tell(), end);
    const std::string_view text = entity.substr(start, stop - start);
    // The name views the buffer, which is the caller's bytes.
    header.fields.push_back({field.name == smtp_bad_header_name ? smtp_bad_header_name : field.name, text});
    status.clear();
  }
  stream.seek(end);
  skip_blank_line(stream);
  header.body = stream.tell();
  return header;
}

std::string field_value(const Entity_header& header, std::string_view name) {
  for (const Entity_field& field : header.fields)
    if (vek_string_equal_nc(field.name, name)) return value_of(field);
  return {};
}

bool disposition_is_attachment(const Entity_header& header) {
  for (const Entity_field& field : header.fields) {
    if (!vek_string_equal_nc(field.name, "Content-Disposition")) continue;
    std::string head;
    std::vector<Smtp_header_field> parameters;
    split_parameters(value_of(field), head, parameters);
    if (vek_string_equal_nc(head, "attachment")) return true;
  }
  return false;
}

std::string entity_file_name(const Entity_header& header) {
  for (const auto& [field, attribute] : {std::pair{"Content-Disposition", "filename"}, {"Content-Type", "name"}}) {
    std::string head;
    std::vector<Smtp_header_field> parameters;
    split_parameters(field_value(header, field), head, parameters);
    Smtp_parameter_value name;
    if (!find_parameter_value(parameters, attribute, name)) continue;
    if (!name.extended && name.bytes.find("=?") != std::string::npos) {
      Vek_wstring text;
      decode_encoded_words(name.bytes, text, true);
      return vek_utf16_to_utf8(text);
    }
    return vek_utf16_to_utf8(parameter_text(name));
  }
  return {};
}

std::string replace_content(std::string_view entity, std::string_view replacement, bool is_message,
                            bool hardened) {
  const Entity_header old_header = read_entity_header(entity, hardened);
  const Entity_header new_header = read_entity_header(replacement, hardened);
  std::string content;
  for (const Entity_field& field : new_header.fields)
    if (is_content_field(field.name)) content += field.text;
  bool mime_version = false;
  bool placed = false;
  std::string out;
  for (const Entity_field& field : old_header.fields) {
    // Text with no field shape is no field, and a reader that meets it
    // takes the rest for the body; it goes with the content it stood by.
    if (field.name == smtp_bad_header_name) continue;
    if (is_content_field(field.name)) {
      if (!placed) out += content;
      placed = true;
      continue;
    }
    if (vek_string_equal_nc(field.name, "MIME-Version")) mime_version = true;
    out += field.text;
    if (!field.text.ends_with('\n')) out += line_end_of(entity);
  }
  if (is_message && !mime_version) out += "MIME-Version: 1.0" + std::string(line_end_of(replacement));
  if (!placed) out += content;
  out += line_end_of(replacement);
  out += replacement.substr(std::min(new_header.body, replacement.size()));
  return out;
}
