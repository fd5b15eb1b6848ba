#include "manager/item_table.h"

#include <algorithm>
#include <limits>

#include "encoding/block_scanner.h"

namespace {

// Lines are counted and skipped in pieces of this size.
constexpr uint32_t smtp_count_line_limit = 2048;
// Bytes moved per read and write when copying.
constexpr size_t smtp_copy_block = 16384;

// Where the first encoded block of a text begins, read from the stream's
// position on; false when it holds none.
bool first_block_begin(Vek_istream& stream, bool pass_long_lines, uint64_t& begin) {
  Smtp_block_scanner scanner(pass_long_lines);
  if (!scanner.scan(stream)) return false;
  while (auto block = scanner.next_block()) {
    if (block->encoded) {
      begin = block->begin_position;
      return true;
    }
  }
  return false;
}

}  // namespace

Smtp_item_record::Smtp_item_record(uint32_t type, std::string mime_type, std::string mime_subtype,
                                   std::string encoding, std::string file_name, uint32_t length,
                                   uint32_t line_count, std::unique_ptr<Vek_buffer> buffer)
    : type(type),
      length(length),
      line_count(line_count),
      buffer(std::move(buffer)),
      mime_type(std::move(mime_type)),
      mime_subtype(std::move(mime_subtype)),
      encoding(std::move(encoding)),
      file_name(std::move(file_name)) {}

Smtp_item_record::Smtp_item_record(std::string name, std::unique_ptr<Vek_buffer> buffer, uint32_t length)
    : type(smtp_item_header),
      length(length),
      line_count(smtp_unknown_count),
      buffer(std::move(buffer)),
      name(std::move(name)) {}

void Smtp_item_record::replace_buffer(std::unique_ptr<Vek_buffer> new_buffer) {
  if (buffer == nullptr) return;
  length = smtp_unknown_count;
  line_count = smtp_unknown_count;
  buffer.reset();
  if (new_buffer != nullptr) {
    modified = true;
    Vek_status status;
    Vek_buffered_istream stream(new_buffer.get(), false, status, vek_eol_lf);
    line_count = count_lines(stream, 0, std::numeric_limits<uint64_t>::max());
    stream.detach();
  }
  buffer = std::move(new_buffer);
}

void Smtp_item_table::clear_items() {
  items.clear();
  item_order.clear();
  header_item_count = 0;
  body_index = smtp_no_position;
}

bool Smtp_item_table::any_modified() const {
  return std::any_of(items.begin(), items.end(), [](const auto& record) { return record->modified; });
}

uint32_t add_item_record(Smtp_item_list& items, uint32_t type, std::unique_ptr<Vek_buffer> buffer,
                         uint32_t length, const std::string& mime_type, const std::string& mime_subtype,
                         const std::string& encoding, const std::string& file_name) {
  items.push_back(std::make_unique<Smtp_item_record>(type, mime_type, mime_subtype, encoding, file_name,
                                                     length, smtp_unknown_count, std::move(buffer)));
  return static_cast<uint32_t>(items.size() - 1);
}

uint32_t add_counted_record(Smtp_item_list& items, uint32_t type, std::unique_ptr<Vek_buffer> buffer,
                            uint32_t length, uint32_t line_count, const std::string& encoding,
                            const std::string& file_name) {
  items.push_back(std::make_unique<Smtp_item_record>(type, std::string(), std::string(), encoding, file_name,
                                                     length, line_count, std::move(buffer)));
  return static_cast<uint32_t>(items.size() - 1);
}

uint32_t add_body(Vek_status& status, Smtp_item_list& items, std::vector<uint32_t>& item_order,
                  std::unique_ptr<Vek_buffer> buffer, const std::string& mime_type,
                  const std::string& mime_subtype, const std::string& encoding, uint32_t type,
                  bool pass_long_lines) {
  uint32_t result = 0;
  Vek_buffered_istream stream(buffer.get(), true, status, vek_eol_crlf);
  if (!status.ok()) return result;

  // Only text can hide a block; an attachment that is a uuencoded file is
  // already an item of its own, and needs no scanner (which allocates).
  uint64_t cut = 0;
  const bool cut_found = (type == smtp_item_body || type == smtp_item_added_body) &&
                         vek_string_equal_nc(mime_type, "text") &&
                         first_block_begin(stream, pass_long_lines, cut);

  if (cut_found) {
    // The text in front of the block stays the body; the block and all
    // behind it become one further item, written back right after it.
    uint64_t rest = stream.size(status) - cut;
    stream.detach();
    auto first = std::make_unique<Vek_memory_buffer>();
    copy_range(*buffer, *first, 0, cut, status);
    if (status.ok()) {
      result = add_item_record(items, type, std::move(first), static_cast<uint32_t>(cut), mime_type,
                               mime_subtype, encoding, std::string());
      item_order.push_back(result);
      auto second = std::make_unique<Vek_page_buffer>(0, 128);
      copy_range(*buffer, *second, cut, rest, status);
      if (status.ok()) {
        uint32_t index =
            add_item_record(items, smtp_item_block_rest, std::move(second), static_cast<uint32_t>(rest),
                            std::string(), std::string(), "7bit", std::string());
        item_order.push_back(index);
      }
    }
    return result;
  }

  uint64_t size = stream.size(status);
  stream.detach();
  uint32_t index = add_item_record(items, type, std::move(buffer), static_cast<uint32_t>(size), mime_type,
                                   mime_subtype, encoding, std::string());
  if (status.ok()) {
    result = index;
    item_order.push_back(result);
  }
  return result;
}

uint32_t count_lines(Vek_istream& stream, uint64_t start, uint64_t end) {
  Vek_status status;
  stream.seek(start);
  if (start >= end) return 0;
  uint32_t count = 0;
  while (status.ok()) {
    std::string_view piece;
    stream.readln_view(smtp_count_line_limit, piece, status);
    uint64_t sum = piece.size();
    while (status == vek_line_too_long) {
      status.clear();
      stream.readln_view(smtp_count_line_limit, piece, status);
      sum += piece.size();
    }
    if (status.ok() || (status == vek_end_of_stream && sum != 0)) ++count;
    if (stream.tell() >= end) break;
  }
  return count;
}

uint32_t skip_lines(Vek_istream& stream, uint32_t count, Vek_status& status) {
  status.clear();
  uint32_t passed = 0;
  while (status.ok() && passed < count) {
    std::string_view piece;
    stream.readln_view(smtp_count_line_limit, piece, status);
    while (status == vek_line_too_long) {
      status.clear();
      stream.readln_view(smtp_count_line_limit, piece, status);
      if (status == vek_end_of_stream) ++passed;
    }
    if (status.ok()) ++passed;
  }
  if (status == vek_end_of_stream) status.clear();
  return passed;
}

void copy_bytes(Vek_istream& stream, Vek_ostream& output, uint32_t count, Vek_status& status) {
  status.clear();
  auto block = std::make_unique<uint8_t[]>(smtp_copy_block);
  while (count != 0 && status.ok()) {
    size_t want = std::min<size_t>(count, smtp_copy_block);
    size_t got = stream.read(want, block.get(), status);
    bool at_end = status == vek_end_of_stream;
    if (!status.ok() && !at_end) break;
    // The write sets the status afresh, so the end of the input is noted
    // before it.
    if (got != 0) {
      output.write(got, block.get(), status);
      if (!status.ok()) break;
    }
    count -= static_cast<uint32_t>(got);
    if (at_end || got == 0) break;
  }
  if (status == vek_end_of_stream) status.clear();
}

void copy_range(const Vek_buffer& source, Vek_buffer& target, uint64_t offset, uint64_t count,
                Vek_status& status) {
  Vek_unbuffered_istream in(&source, false, status, vek_eol_crlf);
  if (!status.ok()) return;
  Vek_ostream out(&target, status, vek_eol_crlf);
  if (!status.ok()) return;
  in.seek(offset);
  // copy_bytes counts in 32 bits; a larger range goes in several calls.
  do {
    uint32_t step = static_cast<uint32_t>(std::min<uint64_t>(count, 0xFFFFFFFFu));
    copy_bytes(in, out, step, status);
    count -= step;
  } while (count != 0 && status.ok());
}
