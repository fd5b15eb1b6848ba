#include "manager/refusal.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "reader/header_block.h"
#include "reader/header_reader.h"

namespace {

// The longest deciding line quoted: the room in Smtp_refusal_text.
constexpr size_t max_quoted_line = sizeof(Smtp_refusal_text::line);
// read_header_block's own bounds: a run of bad fields that ends a header,
// and the share of bad fields above which a header is refused.
constexpr int bad_fields_in_a_row = 4;
constexpr double max_bad_share = 0.2;

struct Place {
  uint32_t number;
  std::string line;
};

// The line that begins at `position`, and its number.
Place place_of(std::string_view bytes, uint64_t position) {
  position = std::min<uint64_t>(position, bytes.size());
  Place place{static_cast<uint32_t>(std::count(bytes.begin(), bytes.begin() + position, '\n') + 1), {}};
  std::string_view line = bytes.substr(position);
  line = line.substr(0, line.find('\n'));
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  place.line = std::string(line.substr(0, max_quoted_line));
  return place;
}

Smtp_refusal refused_at(std::string_view bytes, uint64_t position, std::string reason) {
  Place place = place_of(bytes, position);
  return {true, std::move(reason), std::move(place.line), place.number};
}

// The first line from `start` that the raw reader refuses outright: too
// long, or with more bytes outside printable ASCII than a header line may
// hold (counted up to a NUL, as the reader counts them).
Smtp_refusal refused_line(std::string_view bytes, uint64_t start, const Smtp_line_rules& rules) {
  for (uint64_t at = start; at < bytes.size();) {
    const size_t lf = bytes.find('\n', at);
    const uint64_t end = lf == std::string_view::npos ? bytes.size() : lf;
    std::string_view line = bytes.substr(at, end - at);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.size() >= rules.max_line)
      return refused_at(bytes, at,
                        "a line of " + std::to_string(line.size()) + " bytes, too long for a header (the limit is " +
                            std::to_string(rules.max_line - 1) + ")");
    int odd = 0;
    for (unsigned char c : line) {
      if (c == 0) break;
      if ((c < 32 && c != '\t') || c == 127 || (c > 127 && !rules.eight_bit_text)) ++odd;
    }
    if (odd > smtp_max_refused_bytes)
      return refused_at(bytes, at, "binary data: a line with " + std::to_string(odd) +
                                       " bytes that are no header text (a header line may have " +
                                       std::to_string(smtp_max_refused_bytes) + ")");
    at = end + 1;
  }
  return refused_at(bytes, start, "a line that is no header line");
}

// Where a field that the reader turned into "Bad-Header" went wrong: its
// first line that neither has the shape "Name: value" nor continues one.
uint64_t bad_line_of(std::string_view bytes, uint64_t field_start) {
  for (uint64_t at = field_start; at < bytes.size();) {
    const size_t lf = bytes.find('\n', at);
    const std::string_view line = bytes.substr(at, (lf == std::string_view::npos ? bytes.size() : lf) - at);
    if (vek_is_blank(line)) break;
    const size_t colon = line.find(':');
    const bool continues = line[0] == ' ' || line[0] == '\t';
    const bool named = colon != std::string_view::npos && colon > 0 && colon <= smtp_max_field_name &&
                       line.substr(0, colon).find_first_of(" \t") == std::string_view::npos;
    if (!continues && !named) return at;
    if (lf == std::string_view::npos) break;
    at = lf + 1;
  }
  return field_start;
}

bool is_message_name(std::string_view name) {
  std::string lower(name);
  vek_lower(lower);
  return find_field_name(smtp_message_field_names, lower) && !find_field_name(smtp_delivery_field_names, lower);
}

}  // namespace

Smtp_refusal smtp_explain(const Vek_buffer& buffer, const Smtp_profile& profile) {
  const Smtp_line_rules& rules = profile.header_lines;
  const std::string_view bytes(reinterpret_cast<const char*>(buffer.data()), buffer.size());
  Vek_status status;
  // The decision, exactly as recognition makes it.
  {
    Vek_buffered_istream stream(&buffer, true, status, vek_eol_lf);
    std::vector<Smtp_header_field> fields;
    Smtp_name_counts names;
    const bool header =
        read_header_block(stream, fields, status, [](std::string_view) { return false; }, names, rules);
    if (header && status.ok() && looks_like_message_header(names)) return {};
  }
  if (bytes.empty()) return {true, "it is empty", {}, 0};

  // The explanation: the same fields again, one at a time.
  status.clear();
  Vek_buffered_istream stream(&buffer, true, status, vek_eol_lf);
  if (rules.skip_envelope_line) {
    std::string_view line;
    stream.readln_view(rules.max_line, line, status);
    if (!status.ok() || !line.starts_with("From ")) stream.seek(0);
    status.clear();
  }
  struct Field {
    uint64_t start;
    std::string name;
    bool bad;
  };
  std::vector<Field> fields;
  Smtp_raw_field_view field;
  Smtp_line_lookahead lookahead;
  int bad_run = 0;
  while (true) {
    const uint64_t start = stream.tell();
    const bool read = read_header_field(stream, field, lookahead, status, rules);
    if (status == smtp_not_header_line) return refused_line(bytes, start, rules);
    if (!read || !status.ok()) break;
    const bool bad = field.name == smtp_bad_header_name || is_time_line(field.name, field.line(0));
    const bool extension = is_x_field(field.name) || is_x400_field(field.name);
    fields.push_back({start, std::string(field.name), bad});
    bad_run = bad ? bad_run + 1 : extension ? bad_run : 0;
    if (bad_run >= bad_fields_in_a_row) break;
  }
  if (fields.empty()) {
    return refused_at(bytes, 0,
                      vek_is_blank(place_of(bytes, 0).line) ? "it begins with a blank line, so it has no header"
                                                            : "its first line is no header field (\"Name: value\")");
  }
  if (fields.front().bad) {
    const uint64_t at = bad_line_of(bytes, fields.front().start);
    return refused_at(bytes, at,
                      at == 0 ? "its first line is no header field (\"Name: value\")"
                              : "a line of its first header field is no header text (\"Name: value\")");
  }
  const auto bad = std::count_if(fields.begin(), fields.end(), [](const Field& f) { return f.bad; });
  const auto first_bad = std::find_if(fields.begin(), fields.end(), [](const Field& f) { return f.bad; });
  if (bad != 0 && static_cast<double>(bad) / fields.size() > max_bad_share)
    return refused_at(bytes, bad_line_of(bytes, first_bad->start),
                      "header fields without field shape: " + std::to_string(bad) + " of " +
                          std::to_string(fields.size()) + ", more than the fifth a header may have");
  const auto ordinary = std::find_if(fields.begin(), fields.end(), [](const Field& f) {
    return !f.bad && !is_x_field(f.name) && !is_x400_field(f.name);
  });
  if (ordinary == fields.end())
    return refused_at(bytes, fields.front().start, "its header has only X- fields, which prove no message");
  const auto message =
      std::count_if(fields.begin(), fields.end(), [](const Field& f) { return is_message_name(f.name); });
  const auto other =
      std::find_if(fields.begin(), fields.end(), [](const Field& f) { return !is_message_name(f.name); });
  return refused_at(bytes, other == fields.end() ? 0 : other->start,
                    "only " + std::to_string(message) + " of its " + std::to_string(fields.size()) +
                        " field names are those of mail (From, To, Subject, Date, Received, Content-...)");
}

int smtp_explain_into(const char* data, size_t size, int hardened, Smtp_refusal_text* out) {
  const Vek_raw_memory_buffer buffer(size, data, 0);
  const Smtp_refusal refusal = smtp_explain(buffer, hardened != 0 ? smtp_hardened_profile : smtp_reference_profile);
  const size_t reason = std::min(refusal.reason.size(), sizeof out->reason - 1);
  std::memcpy(out->reason, refusal.reason.data(), reason);
  out->reason[reason] = '\0';
  out->line_length = static_cast<uint32_t>(std::min(refusal.line.size(), sizeof out->line));
  std::memcpy(out->line, refusal.line.data(), out->line_length);
  out->line_number = refusal.line_number;
  return refusal.refused ? 1 : 0;
}
