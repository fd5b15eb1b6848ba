// Reading a header block and judging it.
//
// RFC 822 section 3.1: a message is a header of fields, then optionally a
// blank line and a body. Real mail breaks this in many ways; the block
// reader draws the line as follows, beyond what the raw reader tolerates:
// - Fields without field shape ("Bad-Header") and clock-time lines are
//   tolerated up to three in a row and up to 20 per cent of all fields.
//   Four in a row end the block behind the last good field: that is a body
//   that follows the header with no blank line.
// - A block of X- and X400- fields alone proves no header.
// - A line too long or too binary for a header refuses the whole block.
#include "reader/header_block.h"

#include <cstring>

#include "reader/header_reader.h"

namespace {

// Bad fields with no ordinary field between them that end a block.
constexpr int smtp_bad_fields_in_a_row = 4;
// The share of bad fields, in per cent, above which a block is refused.
constexpr double smtp_max_bad_percent = 20.0;

#define SMTP_NAME(text) \
  { text, sizeof(text) - 1, 0 }
#define SMTP_PREFIX(text) \
  { text, sizeof(text) - 1, 1 }

inline bool is_digit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

const Smtp_field_name smtp_message_field_names[] = {
    SMTP_NAME("alternate-recipient"),
    SMTP_NAME("auto-forwarded"),
    SMTP_NAME("apparently-to"),
    SMTP_NAME("bcc"),
    SMTP_NAME("cc"),
    SMTP_PREFIX("content-"),
    SMTP_NAME("date"),
    SMTP_NAME("disclose-recipients"),
    SMTP_NAME("encoding"),
    SMTP_NAME("errors-to"),
    SMTP_NAME("followup-to"),
    SMTP_NAME("from"),
    SMTP_NAME("in-reply-to"),
    SMTP_NAME("keywords"),
    SMTP_NAME("message-id"),
    SMTP_NAME("mime-version"),
    SMTP_NAME("newsgroups"),
    SMTP_NAME("organisation"),
    SMTP_NAME("organization"),
    SMTP_NAME("path"),
    SMTP_NAME("received"),
    SMTP_NAME("references"),
    SMTP_NAME("reply-to"),
    SMTP_PREFIX("resent-"),
    SMTP_NAME("return-path"),
    SMTP_NAME("return-recipient-to"),
    SMTP_NAME("sender"),
    SMTP_NAME("subject"),
    SMTP_NAME("to"),
    SMTP_PREFIX("x-"),
    {nullptr, 0, 0},
};

const Smtp_field_name smtp_delivery_field_names[] = {
    SMTP_NAME("action"),
    SMTP_NAME("arrival-date"),
    SMTP_NAME("bad-header"),
    SMTP_NAME("diagnostic-code"),
    SMTP_NAME("dsn-gateway"),
    SMTP_NAME("final-recipient"),
    SMTP_NAME("last-attempted-date"),
    SMTP_NAME("original-envelope-id"),
    SMTP_NAME("original-recipient"),
    SMTP_NAME("received-from-mta"),
    SMTP_NAME("remote-mta"),
    SMTP_NAME("reporting-mta"),
    SMTP_NAME("status"),
    SMTP_NAME("will-retry-until"),
    {nullptr, 0, 0},
};

#undef SMTP_NAME
#undef SMTP_PREFIX

namespace {

// The block reader; `note_name` is told the name of every field seen.
template <typename Note_name>
bool read_block(Vek_istream& stream, std::vector<Smtp_header_field>& fields, Vek_status& status,
                Smtp_field_filter field_filter, Note_name note_name, const Smtp_line_rules& rules) {
  status.clear();
  bool ordinary_seen = false;
  int bad_run = 0;
  int bad_total = 0;
  int fields_seen = 0;
  size_t good_size = fields.size();
  const bool keep_bad = field_filter == nullptr || field_filter(smtp_bad_header_name);
  uint64_t block_end = stream.tell();
  // Room for a usual header, so that the lists grow seldom.
  fields.reserve(fields.size() + 16);

  auto admitted = [field_filter](std::string_view name) {
    return field_filter == nullptr || field_filter(name);
  };
  auto append = [&fields](std::string_view name, const Smtp_raw_field_view& field) {
    if (field.count() == 1) {
      fields.push_back(Smtp_header_field{std::string(name), std::string(field.line(0))});
    } else {
      fields.push_back(Smtp_header_field{std::string(name), unfold_field_lines(field)});
    }
  };

  // The envelope line is told by its first five bytes, looked at in the
  // buffer: reading a line to find it would cost every header a line more.
  const Vek_buffer* buffer = stream.buffer();
  const uint64_t start = stream.tell();
  if (rules.skip_envelope_line && buffer != nullptr && start <= buffer->size() &&
      buffer->size() - start >= 5 && std::memcmp(buffer->data() + start, "From ", 5) == 0) {
    std::string_view line;
    stream.readln_view(rules.max_line, line, status);
    if (!status.ok()) stream.seek(start);
    status.clear();
  }
  Smtp_raw_field_view field;
  Smtp_line_lookahead lookahead;
  while (read_header_field(stream, field, lookahead, status, rules) && status.ok()) {
    const std::string_view name = field.name;
    if (name == smtp_bad_header_name) {
      if (keep_bad) append(name, field);
      ++bad_run;
      ++bad_total;
    } else if (is_x_field(name) || is_x400_field(name)) {
      // Extensions prove nothing and break no run of bad fields, but they
      // belong to the header.
      if (admitted(name)) {
        append(name, field);
        good_size = fields.size();
      }
      block_end = stream.tell();
    } else if (is_time_line(name, field.line(0))) {
      // "12:34:56 ..." at the start of a line: a log or a body, not a field.
      if (keep_bad) {
        Smtp_header_field& added = fields.emplace_back();
        added.name.assign(smtp_bad_header_name);
        added.value.assign(name).append(1, ':').append(unfold_field_lines(field));
      }
      ++bad_run;
      ++bad_total;
    } else {
      if (admitted(name)) {
        append(name, field);
        good_size = fields.size();
      }
      block_end = stream.tell();
      bad_run = 0;
      ordinary_seen = true;
    }
    note_name(name);
    ++fields_seen;
    if (bad_run >= smtp_bad_fields_in_a_row) {
      // The header ended behind the last good field, without a blank line.
      stream.seek(block_end);
      while (fields.size() > good_size) {
        fields.pop_back();
        --bad_total;
      }
      break;
    }
  }

  if (status.ok() && bad_total != 0 && fields_seen != 0 &&
      static_cast<double>(bad_total) / fields_seen * 100.0 > smtp_max_bad_percent) {
    status = smtp_not_header_line;
  }
  if (status == smtp_not_header_line) {
    status.clear();
    return false;
  }
  return ordinary_seen;
}

}  // namespace

bool read_header_block(Vek_istream& stream, std::vector<Smtp_header_field>& fields, Vek_status& status,
                       Smtp_field_filter field_filter, std::vector<std::string>* field_names,
                       const Smtp_line_rules& rules) {
  if (field_names == nullptr)
    return read_block(stream, fields, status, field_filter, [](std::string_view) {}, rules);
  // Room for a usual header, so that the list grows seldom.
  field_names->reserve(field_names->size() + 16);
  return read_block(
      stream, fields, status, field_filter, [field_names](std::string_view name) { field_names->emplace_back(name); },
      rules);
}

bool read_header_block(Vek_istream& stream, std::vector<Smtp_header_field>& fields, Vek_status& status,
                       Smtp_field_filter field_filter, Smtp_name_counts& counts, const Smtp_line_rules& rules) {
  return read_block(stream, fields, status, field_filter, [&counts](std::string_view name) { counts.add(name); },
                    rules);
}

namespace {

inline char lower_ascii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// The rows of a name table by the first byte of the name: a row can only
// match a name that begins as it does, and the rows of one letter stand
// together. Every name of a header is looked up twice, so recognition
// looks at the few rows of its letter instead of walking the table.
class Name_index {
 public:
  explicit Name_index(const Smtp_field_name* table) : table_(table) {
    for (uint32_t row = 0; table[row].text != nullptr; ++row) {
      const auto first = static_cast<unsigned char>(table[row].text[0]);
      if (end_[first] == 0) begin_[first] = static_cast<uint8_t>(row);
      end_[first] = static_cast<uint8_t>(row + 1);
    }
  }
  // Whether `name`, in any case, matches a row: as find_field_name finds
  // the lower-case name.
  bool contains(std::string_view name) const {
    if (name.empty()) return false;
    const auto first = static_cast<unsigned char>(lower_ascii(name[0]));
    for (uint32_t row = begin_[first]; row < end_[first]; ++row) {
      const Smtp_field_name& entry = table_[row];
      if (entry.is_prefix != 0 ? name.size() < entry.length : name.size() != entry.length) continue;
      uint32_t i = 1;
      while (i < entry.length && lower_ascii(name[i]) == entry.text[i]) ++i;
      if (i == entry.length) return true;
    }
    return false;
  }

 private:
  const Smtp_field_name* table_;
  uint8_t begin_[256] = {};
  uint8_t end_[256] = {};
};

}  // namespace

void Smtp_name_counts::add(std::string_view name) {
  static const Name_index delivery_names(smtp_delivery_field_names);
  static const Name_index message_names(smtp_message_field_names);
  ++fields;
  if (delivery_names.contains(name)) {
    ++delivery;
  } else if (message_names.contains(name)) {
    ++message;
  }
}

bool skip_blank_line(Vek_istream& stream) {
  const uint64_t start = stream.tell();
  Vek_status status;
  std::string_view line;
  stream.readln_view(smtp_max_header_line, line, status);
  if (status == vek_line_too_long) status.clear();
  if (status.ok() && vek_is_blank(line)) return true;
  stream.seek(start);
  return false;
}

bool is_x_field(std::string_view name) {
  return name.size() >= 3 && (name[0] == 'x' || name[0] == 'X') && name[1] == '-';
}

bool is_x400_field(std::string_view name) {
  return name.size() >= 6 && (name[0] == 'x' || name[0] == 'X') &&
         vek_string_equal_nc(name.substr(0, 5), "X400-");
}

bool is_time_line(std::string_view name, const std::vector<std::string>& lines) {
  return !lines.empty() && is_time_line(name, std::string_view(lines[0]));
}

bool is_time_line(std::string_view name, std::string_view first_line) {
  return name.size() == 2 && is_digit(name[0]) && is_digit(name[1]) && first_line.size() >= 11 &&
         is_digit(first_line[0]) && is_digit(first_line[1]) && first_line[2] == ':' &&
         is_digit(first_line[3]) && is_digit(first_line[4]);
}

bool looks_like_message_header(const std::vector<std::string>& field_names) {
  Smtp_name_counts counts;
  for (const std::string& name : field_names) counts.add(name);
  return looks_like_message_header(counts);
}

bool looks_like_message_header(const Smtp_name_counts& counts) {
  return counts.message != 0 && counts.message > counts.delivery && counts.message > counts.fields / 4;
}

bool find_field_name(const Smtp_field_name* table, std::string_view name) {
  // The walk ends early at an exact row past the name's first letter; the
  // bytes compare as signed, so a name that begins with an 8-bit byte ends
  // it at the first exact row.
  const signed char first = name.empty() ? 0 : static_cast<signed char>(name[0]);
  for (const Smtp_field_name* row = table; row->text != nullptr; ++row) {
    const std::string_view text(row->text, row->length);
    if (row->is_prefix != 0) {
      if (name.size() >= text.size() && name.substr(0, text.size()) == text) return true;
    } else {
      if (name == text) return true;
      if (static_cast<signed char>(text[0]) > first) return false;
    }
  }
  return false;
}
