// Splitting a multipart entity (RFC 1521, section 7.2) into one record per
// part. Each record views the part's raw text, its own headers included,
// so that an untouched part is written back byte for byte and the host can
// open the part as an entity of its own. Only the part's header is read,
// to decide whether the part is the body of a message.
//
// The body is walked first, for where its parts and delimiter lines are
// (a split); the records are made from the split. The hardened profile
// walks it more than once where readers differ (another reading of the
// boundary parameter, the prefix rule of RFC 2046): each further split
// that cuts the body elsewhere gives its parts as extra readings.
#include <algorithm>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "codecs/encoded_words.h"
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

// Readings of the boundary beside the primary one are tried up to this
// many: two fields of two readings, each with its first and last value,
// its RFC 2231 and RFC 2047 forms and its raw quoted text give fewer.
constexpr size_t smtp_max_boundary_readings = 24;

void add_reading(std::vector<std::string>& readings, std::string text) {
  vek_trim(text);
  if (text.empty() || readings.size() >= smtp_max_boundary_readings) return;
  if (std::find(readings.begin(), readings.end(), text) == readings.end())
    readings.push_back(std::move(text));
}

// The readings of "boundary" in one list of parameters: the first and the
// last plain value, the RFC 2231 value, and each with RFC 2047 encoded
// words decoded.
void add_parameter_readings(std::vector<std::string>& readings,
                            const std::vector<Smtp_header_field>& parameters) {
  // Views on `parameters` and `value`, which outlive them.
  std::string_view found[3];
  size_t count = 0;
  const Smtp_header_field* last = nullptr;
  for (const Smtp_header_field& parameter : parameters) {
    if (!vek_string_equal_nc(parameter.name, "boundary")) continue;
    if (last == nullptr) found[count++] = parameter.value;
    last = &parameter;
  }
  if (last != nullptr) found[count++] = last->value;
  Smtp_parameter_value value;
  if (find_parameter_value(parameters, "boundary", value)) found[count++] = value.bytes;
  for (const std::string_view text : std::span(found, count)) {
    add_reading(readings, std::string(text));
    // Up to the first blank or comment, as a reader of tokens stops.
    const auto stop = std::find_if(text.begin(), text.end(), [](char c) { return c == ' ' || c == '\t' || c == '('; });
    if (stop != text.end() && stop != text.begin()) add_reading(readings, std::string(text.begin(), stop));
    const size_t word = text.find("=?");
    if (word != std::string_view::npos && text.find("?=", word + 2) != std::string_view::npos) {
      Vek_wstring decoded;
      decode_encoded_words(text, decoded);
      add_reading(readings, vek_wtos(decoded));
    }
  }
}

// A quoted boundary as a reader takes it that keeps its backslashes.
void add_raw_quoted_readings(std::vector<std::string>& readings, std::string_view value) {
  for (size_t at = value.find("oundary"); at != std::string_view::npos; at = value.find("oundary", at + 1)) {
    size_t i = at + 7;
    while (i < value.size() && (value[i] == ' ' || value[i] == '\t' || value[i] == '*' || value[i] == '0'))
      ++i;
    if (i >= value.size() || value[i] != '=') continue;
    ++i;
    while (i < value.size() && (value[i] == ' ' || value[i] == '\t')) ++i;
    if (i >= value.size() || value[i] != '"') continue;
    const size_t close = value.find('"', i + 1);
    if (close != std::string_view::npos)
      add_reading(readings, std::string(value.substr(i + 1, close - i - 1)));
  }
}

}  // namespace

bool may_read_otherwise(Smtp_field_values content_types) {
  if (content_types.size() != 1) return content_types.size() > 1;
  const std::string_view value = content_types.front();
  if (value.find('*') != std::string_view::npos || value.find('\\') != std::string_view::npos ||
      value.find('(') != std::string_view::npos || value.find("=?") != std::string_view::npos)
    return true;
  // A "boundary" parameter: the name behind a ';' and in front of an '='
  // (a boundary value may hold the word itself).
  constexpr std::string_view name = "boundary";
  int parameters = 0;
  for (size_t at = value.find(';'); at != std::string_view::npos; at = value.find(';', at + 1)) {
    size_t i = at + 1;
    while (i < value.size() && (value[i] == ' ' || value[i] == '\t')) ++i;
    if (value.size() - i < name.size() || !vek_string_equal_nc(value.substr(i, name.size()), name)) continue;
    i += name.size();
    while (i < value.size() && (value[i] == ' ' || value[i] == '\t')) ++i;
    if (i < value.size() && value[i] == '=' && ++parameters > 1) return true;
  }
  return false;
}

std::vector<std::string> boundary_readings(Smtp_field_values content_types,
                                           const std::vector<Smtp_header_field>* last_parsed) {
  std::vector<std::string> readings;
  // The last field is the one this handler reads; Thunderbird and Python's
  // email package read the first.
  std::vector<const std::string*> fields;
  if (!content_types.empty()) fields.push_back(&content_types.back());
  if (content_types.size() > 1) fields.push_back(&content_types.front());
  for (const std::string* field : fields) {
    std::vector<Smtp_header_field> parameters;
    const std::vector<Smtp_header_field>* parsed = &parameters;
    if (field == &content_types.back() && last_parsed != nullptr) {
      parsed = last_parsed;
    } else {
      std::string value = *field;
      repair_content_type(value);
      std::string type, subtype;
      Vek_status status;
      parse_content_type(value, type, subtype, parameters, status);
    }
    add_parameter_readings(readings, *parsed);
    // A field that splits as it parses reads no otherwise split.
    if (!split_agrees_on(*field, *parsed, "boundary")) {
      std::string head;
      std::vector<Smtp_header_field> split;
      split_parameters(*field, head, split);
      add_parameter_readings(readings, split);
    }
    add_raw_quoted_readings(readings, *field);
  }
  return readings;
}

Smtp_split Smtp_rfc1521_handler::split_body(Vek_istream& stream, uint64_t body_start,
                                            const Smtp_boundary& boundary, bool whole,
                                            Vek_status& status) const {
  status.clear();
  Smtp_split split;
  split.body_start = body_start;
  stream.seek(body_start);
  bool end = false;
  bool found = false;
  uint64_t line_start = 0;
  // The preamble, all in front of the first delimiter line, is no part.
  find_part_delimiter(stream, boundary, end, found, line_start, status);
  split.preamble_end = found ? line_start : stream.tell();
  if (found) split.delimiters.push_back(Smtp_range{line_start, stream.tell() - line_start});
  if (found && end) split.epilogue_start = stream.tell();
  const bool is_signed_entity = vek_string_equal_nc(mime_subtype_, "signed");
  while (status.ok() && !end) {
    const uint64_t start = stream.tell();
    // The extent of the part comes first, and its header is read within
    // it: a header reader let loose on the body could take a delimiter
    // line for the continuation of a broken field and run past it.
    skip_to_part_delimiter(stream, boundary, status);
    if (!status.ok()) break;
    const uint64_t stop = part_end(stream.tell());
    find_part_delimiter(stream, boundary, end, found, status);
    if (!status.ok()) break;
    if (found) {
      split.parts.push_back(Smtp_range{start, stop - start});
      split.delimiters.push_back(Smtp_range{stop, stream.tell() - stop});
      if (end) split.epilogue_start = stream.tell();
    } else {
      // A part that the data end in, with no delimiter behind it.
      split.unclosed = Smtp_range{start, stop - start};
    }
    // A signed entity shows its signed content only, not the signature,
    // unless every part is asked for.
    if (is_signed_entity && !whole) break;
  }
  return split;
}

void Smtp_rfc1521_handler::open_multipart(Vek_istream& stream, Fmg_item& item, Smtp_field_values content_types,
                                          Vek_status& status) {
  status.clear();
  const uint64_t body_start = stream.tell();
  const Smtp_header_field* boundary_parameter = find_parameter(parameters_, "boundary");
  // Most fields can be read one way only; the others are read every way.
  std::vector<std::string> readings;
  if (profile_.every_boundary_reading && (boundary_parameter == nullptr || may_read_otherwise(content_types)))
    readings = boundary_readings(content_types, content_type_as_sent_ ? nullptr : &parameters_);
  if (boundary_parameter == nullptr) {
    // Without a boundary no part can be told; the body stays in `data`.
    item.log(33, 2, source_name_, Vek_status(smtp_multipart_without_boundary));
    if (readings.empty()) {
      add_text_outside_parts(body_start, data->size(), status);
      return;
    }
  }
  std::string boundary_text = boundary_parameter == nullptr ? readings.front() : boundary_parameter->value;
  vek_trim(boundary_text);
  Smtp_prefix_lines prefix_lines;
  Smtp_boundary boundary(boundary_text, profile_.delimiter_padding);
  if (profile_.every_boundary_reading) boundary.watch_prefix_lines(&prefix_lines);
  const bool whole = profile_.every_part_of_signed;
  Smtp_split split = split_body(stream, body_start, boundary, whole, status);
  if (!status.ok()) return;
  // Whether `prefix_lines` are those of the walk that made `split`.
  bool watched = whole;

  // Where the parameter's boundary cuts nothing, the first other reading
  // that does is the entity's: its parts are records like any. Not one by
  // the prefix rule: a rebuild writes delimiters anew, and one that only
  // that rule tells would come out as a delimiter that every reader takes,
  // also the reader of a multipart around this one with the same boundary.
  if (profile_.every_boundary_reading && split.delimiters.empty()) {
    for (const std::string& text : readings) {
      Vek_status walk;
      Smtp_split other =
          split_body(stream, body_start, Smtp_boundary(text, profile_.delimiter_padding), whole, walk);
      if (!walk.ok() || other.delimiters.empty()) continue;
      boundary_text = text;
      split = std::move(other);
      watched = false;
      break;
    }
  }
  boundary_text_ = boundary_text;
  add_split_records(split, true, status);
  if (!status.ok()) return;

  if (!profile_.every_boundary_reading) return;
  // Every other reading that cuts the body elsewhere, as extra readings:
  // the boundary as other readers read the parameter, and the prefix rule
  // of RFC 2046 where a line begins with a delimiter and goes on.
  std::vector<std::vector<Smtp_range>> seen{split.delimiters};
  if (prefix_lines.any() && !(watched && only_nested_prefix_lines(split, prefix_lines)))
    add_other_reading(stream, split, boundary_text, true, seen);
  for (const std::string& text : readings) {
    if (text == boundary_text) continue;
    add_other_reading(stream, split, text, false, seen);
    add_other_reading(stream, split, text, true, seen);
  }
}

void Smtp_rfc1521_handler::add_other_reading(Vek_istream& stream, const Smtp_split& primary,
                                             const std::string& text, bool prefix,
                                             std::vector<std::vector<Smtp_range>>& seen) {
  Vek_status walk;
  const Smtp_split other = split_body(stream, primary.body_start,
                                      Smtp_boundary(text, profile_.delimiter_padding, prefix), true, walk);
  if (!walk.ok() || other.delimiters.empty()) return;
  if (std::find(seen.begin(), seen.end(), other.delimiters) != seen.end()) return;
  seen.push_back(other.delimiters);
  if (only_nested_delimiters(primary, other)) return;
  add_split_records(other, false, walk);
}

// Whether every delimiter line of `other` that `primary` does not have is
// one of a multipart part of `primary` by its own boundary: then `other`
// cuts the body where the handler of that part cuts it, and shows the host
// nothing new. (Mail often gives an inner multipart the outer boundary with
// something behind it, which the prefix rule reads as the outer's.)
bool Smtp_rfc1521_handler::only_nested_delimiters(const Smtp_split& primary, const Smtp_split& other) const {
  const auto* bytes = reinterpret_cast<const char*>(data->data());
  for (const Smtp_range& line : other.delimiters) {
    if (std::binary_search(primary.delimiters.begin(), primary.delimiters.end(), line,
                           [](const Smtp_range& a, const Smtp_range& b) { return a.offset < b.offset; }))
      continue;
    std::string_view text(bytes + line.offset, line.length);
    while (!text.empty() && (text.front() == '\r' || text.front() == '\n')) text.remove_prefix(1);
    if (!is_nested_delimiter(primary, line.offset, text)) return false;
  }
  return true;
}

// Whether `line` (a delimiter line of another split, with the line break in
// front of it at `offset`) lies in a multipart part of `primary` and is a
// delimiter of that part's own boundary.
bool Smtp_rfc1521_handler::is_nested_delimiter(const Smtp_split& primary, uint64_t offset,
                                               std::string_view line) const {
  // The part of the primary reading that holds the line, and its boundary.
  auto part = std::upper_bound(primary.parts.begin(), primary.parts.end(), offset,
                               [](uint64_t at, const Smtp_range& range) { return at < range.offset; });
  size_t index = primary.parts.size();  // the unclosed last part
  if (part != primary.parts.begin() && offset < (part - 1)->offset + (part - 1)->length)
    index = static_cast<size_t>(part - primary.parts.begin()) - 1;
  else if (primary.unclosed.length == 0 || offset < primary.unclosed.offset)
    return false;
  auto nested = std::find_if(nested_boundaries_.begin(), nested_boundaries_.end(),
                             [index](const auto& entry) { return entry.first == index; });
  if (nested == nested_boundaries_.end()) return false;
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
  bool closing = false;
  return Smtp_boundary(nested->second, profile_.delimiter_padding).match_line(line, closing);
}

// Whether reading the body again by the prefix rule would find only what
// only_nested_delimiters lets pass, told from the lines that the walk of
// `primary` saw (`lines`) without walking again. Both walks read the same
// line starts from the body's start, each line in the same piece; a line
// that the prefix boundary takes is a delimiter of `primary` or one of
// `lines`, and that walk ends where `primary` ends or sooner. So where the
// first of `lines` comes behind the first delimiter, the two readings agree
// on that delimiter, on the place of every later one of `primary`, and put
// each of `lines` they share with the break in front of it at part_end of
// its start less 2 (where the walk backs up to), which no delimiter of
// `primary` has. Lines the other walk never reaches are asked about too,
// which can only send the body to the walk. Skipping the walk leaves its
// delimiters out of `seen`; a later reading with the same delimiters then
// passes only_nested_delimiters as this one would have, and adds nothing.
bool Smtp_rfc1521_handler::only_nested_prefix_lines(const Smtp_split& primary,
                                                    const Smtp_prefix_lines& lines) const {
  if (lines.more || primary.delimiters.empty()) return false;
  const auto* bytes = reinterpret_cast<const char*>(data->data());
  const uint64_t size = data->size();
  for (size_t i = 0; i < lines.count; ++i) {
    const std::string_view line = lines.line(i);
    // A piece of a longer line reads otherwise in the other walk.
    if (line.data() < bytes || line.size() >= smtp_max_body_line ||
        static_cast<uint64_t>(line.data() - bytes) + line.size() > size)
      return false;
    const auto start = static_cast<uint64_t>(line.data() - bytes);
    if (start <= primary.preamble_end || !is_nested_delimiter(primary, part_end(start - 2), line)) return false;
  }
  return true;
}

void Smtp_rfc1521_handler::add_other_type_readings(Vek_istream& stream, uint64_t body_start,
                                                   Smtp_field_values content_types) {
  std::vector<std::vector<Smtp_range>> seen;
  for (const std::string& value : content_types) {
    std::string repaired = value;
    repair_content_type(repaired);
    std::string type, subtype;
    std::vector<Smtp_header_field> parameters;
    Vek_status status;
    parse_content_type(repaired, type, subtype, parameters, status);
    if (!vek_string_equal_nc(type, "multipart")) continue;
    Smtp_split none;
    none.body_start = body_start;
    // The value parses in boundary_readings as it did here.
    for (const std::string& text : boundary_readings(Smtp_field_values(&value, 1), &parameters)) {
      add_other_reading(stream, none, text, false, seen);
      add_other_reading(stream, none, text, true, seen);
    }
  }
}

void Smtp_rfc1521_handler::cover(const Smtp_range& range) {
  coverage_.cover(range.offset, range.offset + range.length);
}

void Smtp_rfc1521_handler::add_split_records(const Smtp_split& split, bool primary, Vek_status& status) {
  status.clear();
  if (primary) add_text_outside_parts(split.body_start, split.preamble_end, status);
  bool first_part = true;
  // The parts of an alternative are the same text in different forms: in a
  // message every one is a body.
  const bool all_bodies = is_message_ && vek_string_equal_nc(mime_subtype_, "alternative");
  const bool is_digest = vek_string_equal_nc(mime_subtype_, "digest");
  const bool is_signed_entity = vek_string_equal_nc(mime_subtype_, "signed");
  Smtp_part_header part;
  Smtp_raw_field_view field;
  Smtp_line_lookahead lookahead;
  std::vector<Smtp_header_field> part_parameters;
  size_t delimiter = 0;
  const size_t count = split.parts.size() + (split.unclosed.length != 0 ? 1 : 0);
  for (size_t i = 0; i < count && status.ok(); ++i) {
    const bool unclosed = i == split.parts.size();
    const Smtp_range range = unclosed ? split.unclosed : split.parts[i];
    // A part that the data end in is no record; rebuild writes its text
    // behind the closing delimiter. Clients show it as the last part, and
    // so does the hardened reading.
    const bool recorded = !unclosed || profile_.last_part_without_delimiter;
    // Of a signed entity the signed part is the record; the rest are for
    // the host to look at, never written back.
    const bool extra = !primary || (is_signed_entity && !first_part) || is_encrypted_;
    // The delimiter lines in front of the part are markup.
    for (; delimiter < split.delimiters.size() && split.delimiters[delimiter].offset <= range.offset;
         ++delimiter)
      if (primary) cover(split.delimiters[delimiter]);
    part = Smtp_part_header();
    // A delimiter right behind the one in front ends the part before it
    // starts: the view is empty, and the part an empty record. Rebuilding
    // writes it as an empty part (a delimiter line, an empty line, the next
    // delimiter), which opens again as the same empty record: nothing of
    // the source is lost, and no content is made up.
    auto text = std::make_unique<Vek_sub_buffer>(data, range.offset, range.offset + range.length);
    {
      Vek_status header_status;
      Vek_buffered_istream header(text.get(), true, header_status, vek_eol_lf);
      lookahead = Smtp_line_lookahead();
      while (header_status.ok() &&
             read_header_field(header, field, lookahead, header_status, profile_.header_lines) &&
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
          // A multipart part's boundary tells which lines of other readings
          // are its own.
          if (primary && profile_.every_boundary_reading && vek_string_equal_nc(part.type, "multipart")) {
            if (const Smtp_header_field* nested = find_parameter(part_parameters, "boundary")) {
              std::string text = nested->value;
              vek_trim(text);
              nested_boundaries_.emplace_back(i, std::move(text));
            }
          }
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
    // (Not to an encrypted one, whose parts are never written back.)
    if (primary && is_message_ && add_empty_body_ && first_part && !part.is_body && !is_encrypted_)
      add_empty_text_body();
    first_part = false;
    if (!recorded) continue;

    if (unclosed) last_part_unclosed_ = primary;
    uint32_t index = 0;
    if (extra) {
      index = add_item_record(table_.items, smtp_item_extra_reading, std::move(text), range.length, part.type,
                              part.subtype, part.encoding, std::string());
      table_.item_order.push_back(index);
    } else {
      index = add_body(status, table_.items, table_.item_order, std::move(text), part.type, part.subtype,
                       part.encoding, part.is_body ? smtp_item_body : smtp_item_attachment,
                       profile_.blocks_past_long_lines);
      if (!status.ok()) break;
      if (part.is_body) table_.body_index = index;
    }
    table_.items[index]->part = true;
    if (primary) cover(range);
  }
  if (!primary || !status.ok()) return;
  for (; delimiter < split.delimiters.size(); ++delimiter) cover(split.delimiters[delimiter]);
  if (split.epilogue_start != 0) add_text_outside_parts(split.epilogue_start, data->size(), status);
}

// Text of a multipart body that no part holds (a preamble, an epilogue, a
// body that no delimiter cuts), as an extra reading of plain text when it
// holds more than white space.
void Smtp_rfc1521_handler::add_text_outside_parts(uint64_t start, uint64_t end, Vek_status& status) {
  status.clear();
  if (!profile_.text_outside_parts || end <= start) return;
  const uint8_t* bytes = data->data();
  const bool blank = std::all_of(bytes + start, bytes + end,
                                 [](uint8_t c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; });
  if (blank) return;
  auto text = std::make_unique<Vek_sub_buffer>(data, start, end);
  const uint32_t index = add_item_record(table_.items, smtp_item_extra_reading, std::move(text),
                                         static_cast<uint32_t>(std::min<uint64_t>(end - start, UINT32_MAX)),
                                         "text", "plain", "7bit", std::string());
  table_.item_order.push_back(index);
  coverage_.cover(start, end);
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
