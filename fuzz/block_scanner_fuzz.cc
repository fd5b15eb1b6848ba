// The scanner of uuencoded blocks under arbitrary text bodies, read as a
// CR LF stream (as the input comes, and with bare LF made CR LF) and as an
// LF stream.
//
// Invariants: the scan ends, at the end of the data or at a line over the
// limit; records come in stream order and lie within the data; a block's
// "begin" line lies in front of its data and its closing line behind them,
// and the lines named by the positions carry the keywords that made them
// (a frame that never closed becomes text at the next "begin" or at the
// "table" in front of it, keeping its "encoded" flag);
// the answer is true exactly when a record was closed by "end"; names and
// alphabets stay within their bounds; the scan that passes over ordinary
// lines by searching for keywords gives the same records, answer and end
// position as the one that reads every line, with long lines passed or not.
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "contracts/vek.h"
#include "encoding/block_scanner.h"
#include "fuzz/fuzz_check.h"

namespace {

// The line that starts at `position`, without its line end.
std::string_view line_at(std::string_view text, uint64_t position, Vek_eol eol) {
  std::string_view rest = text.substr(position);
  size_t end = eol == vek_eol_crlf ? rest.find("\r\n") : rest.find('\n');
  return rest.substr(0, end);
}

// The records of a scan, field by field, its answer and where it stopped.
std::string scan_result(std::string_view text, Vek_eol eol, bool pass_long_lines,
                        Smtp_block_scanner::Reading reading) {
  Vek_status status;
  Vek_raw_memory_buffer buffer(text.size(), text.data(), 0);
  Vek_buffered_istream stream(&buffer, true, status, eol);
  Smtp_block_scanner scanner(pass_long_lines, reading);
  std::string result = scanner.scan(stream) ? "found " : "none ";
  result += std::to_string(stream.tell());
  for (auto record = scanner.next_block(); record != nullptr; record = scanner.next_block())
    result += "\n" + std::to_string(record->section) + " " + record->name + " " + std::to_string(record->column) +
              " " + record->table + " " + std::to_string(record->data_start) + " " +
              std::to_string(record->end_position) + " " + std::to_string(record->begin_position) + " " +
              std::to_string(record->table_position) + " " + std::to_string(record->open) +
              std::to_string(record->closed) + std::to_string(record->encoded);
  return result;
}

void check_scan(std::string_view text, Vek_eol eol) {
  for (bool pass_long_lines : {false, true})
    FUZZ_CHECK(scan_result(text, eol, pass_long_lines, Smtp_block_scanner::Reading::skip_ordinary_lines) ==
                   scan_result(text, eol, pass_long_lines, Smtp_block_scanner::Reading::every_line),
               "passing over ordinary lines changed the scan (long lines %s)", pass_long_lines ? "passed" : "end it");
  Vek_status status;
  Vek_raw_memory_buffer buffer(text.size(), text.data(), 0);
  Vek_buffered_istream stream(&buffer, true, status, eol);
  Smtp_block_scanner scanner;
  const bool found = scanner.scan(stream);
  FUZZ_CHECK(stream.tell() <= text.size(), "the scan stopped at %llu of %zu",
             static_cast<unsigned long long>(stream.tell()), text.size());

  bool closed_by_end = false;
  uint64_t previous_start = 0;
  for (auto record = scanner.next_block(); record != nullptr; record = scanner.next_block()) {
    const bool is_text = record->name == "text" && !record->encoded;
    FUZZ_CHECK(record->data_start <= text.size() && record->end_position <= text.size(),
               "a record beyond the data: %llu..%llu of %zu", static_cast<unsigned long long>(record->data_start),
               static_cast<unsigned long long>(record->end_position), text.size());
    FUZZ_CHECK(record->name.size() <= 255, "a name of %zu bytes", record->name.size());
    FUZZ_CHECK(record->table[Smtp_block_record::table_size] == '\0', "an alphabet without its end");
    FUZZ_CHECK(record->closed || record->encoded, "a record in the queue that was never closed");
    const uint64_t start = is_text ? record->data_start : record->begin_position;
    FUZZ_CHECK(start >= previous_start, "records out of order: %llu behind %llu",
               static_cast<unsigned long long>(start), static_cast<unsigned long long>(previous_start));
    previous_start = start;
    if (is_text) continue;
    FUZZ_CHECK(record->begin_position < record->data_start, "a block whose data start at its begin line");
    const std::string_view begin = line_at(text, record->begin_position, eol);
    FUZZ_CHECK(begin.find("begin") != std::string_view::npos, "a block without a begin line");
    // A block closes at an "end", "sum" or "section" line; a frame that
    // turned into text at the next "begin" or at a "table" in front of it.
    const std::string_view end = line_at(text, record->end_position, eol);
    const bool by_end = end.find("end", record->column) != std::string_view::npos;
    bool keyword = by_end;
    for (const char* word : {"sum", "section", "begin", "table"})
      keyword = keyword || end.find(word) != std::string_view::npos;
    FUZZ_CHECK(keyword, "a record closed by a line without a frame keyword");
    // Text that ends at a "table" line may have begun behind it.
    if (end.find("table") == std::string_view::npos)
      FUZZ_CHECK(record->data_start <= record->end_position, "a record that ends before its data");
    if (record->closed && record->encoded && by_end) closed_by_end = true;
  }
  if (found) FUZZ_CHECK(closed_by_end, "found, but no record closed by \"end\"");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  check_scan(text, vek_eol_crlf);
  check_scan(text, vek_eol_lf);
  std::string canonical;
  canonical.reserve(size + size / 16);
  for (size_t i = 0; i < size; ++i) {
    if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) canonical.push_back('\r');
    canonical.push_back(text[i]);
  }
  if (canonical != text) check_scan(canonical, vek_eol_crlf);
  return 0;
}
