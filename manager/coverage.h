// Smtp_coverage: which bytes of an entity's body reach the host.
//
// A handler hands the host its body as records: views of the body, or
// bytes decoded from it. Whatever lies in no record is hidden from the
// host's policies, and a client may still show it (a preamble, text behind
// Base64 padding, a part the reference reading does not open). The handler
// tells its coverage the source of every record and every piece of markup
// (a delimiter line), in the order of the data; the coverage keeps the gaps
// between them, less the white space at their ends, which no client shows
// as content. What is left is the entity's unexamined text.
//
// A coverage views the handler's `data` and owns nothing; it is started
// anew for every set_data. The format manager publishes it on the entity's
// item as the property "Unexamined" when the host asks for it with the
// configuration property "ReportUnexamined" (both names below).
#ifndef SMTPFM_MANAGER_COVERAGE_H_
#define SMTPFM_MANAGER_COVERAGE_H_

#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "contracts/vek.h"
#include "reader/header_block.h"

// The configuration property that asks for the measure, and the property
// of an entity's item that carries it: "OFFSET+LENGTH" for each range of
// the item's bytes, joined by ",", ranges in ascending order. An item with
// nothing unexamined does not get the property.
inline constexpr std::u16string_view smtp_report_unexamined = u"ReportUnexamined";
inline constexpr std::u16string_view smtp_unexamined = u"Unexamined";

struct Smtp_range {
  uint64_t offset = 0;
  uint64_t length = 0;
  bool operator==(const Smtp_range&) const = default;
};

class Smtp_coverage {
 public:
  // Starts over for `data`, whose body begins at `body_start`; nothing is
  // covered yet. Until the first start, the coverage knows nothing.
  void start(const Vek_buffer* data, uint64_t body_start);
  // Marks [start, end) as reaching the host (a record's source) or as
  // markup. Ranges come in the order of the data; one that starts inside
  // the covered part only extends it.
  void cover(uint64_t start, uint64_t end);
  // The body's unexamined ranges, the text behind the last covered byte
  // included.
  std::vector<Smtp_range> unexamined() const;
  bool started() const { return data_ != nullptr; }

 private:
  // Adds [start, end) less its white space at both ends, if anything is
  // left.
  void add_gap(uint64_t start, uint64_t end, std::vector<Smtp_range>& gaps) const;

  const Vek_buffer* data_ = nullptr;
  uint64_t covered_to_ = 0;
  std::vector<Smtp_range> gaps_;
};

// The value of the "Unexamined" property for `ranges`. Inline, as its
// reader below: the host reads the property without linking the plug-in.
inline std::string unexamined_text(const std::vector<Smtp_range>& ranges) {
  std::string text;
  for (const Smtp_range& range : ranges) {
    if (!text.empty()) text += ',';
    text += std::to_string(range.offset);
    text += '+';
    text += std::to_string(range.length);
  }
  return text;
}

// The ranges of such a value; a value that does not read gives what came
// before the fault.
inline std::vector<Smtp_range> parse_unexamined_text(std::string_view text) {
  std::vector<Smtp_range> ranges;
  const char* at = text.data();
  const char* end = text.data() + text.size();
  while (at < end) {
    Smtp_range range;
    auto [plus, offset_error] = std::from_chars(at, end, range.offset);
    if (offset_error != std::errc() || plus == end || *plus != '+') break;
    auto [next, length_error] = std::from_chars(plus + 1, end, range.length);
    if (length_error != std::errc()) break;
    ranges.push_back(range);
    if (next == end || *next != ',') break;
    at = next + 1;
  }
  return ranges;
}

// A handler that keeps a coverage of its body. Beside Fmg_handler_base, so
// that the base's slots stay as the contract orders them; the manager finds
// it by a cross cast, once per entity, and hands it the header that
// recognition read before set_data, if the handler takes one.
class Smtp_coverage_source {
 public:
  virtual const Smtp_coverage& coverage() const = 0;
  // Takes the header block of the buffer that the next set_data gets, read
  // as Smtp_header_reading says, in place of reading it again. Handlers
  // that read their header otherwise leave it.
  virtual void take_header(Smtp_header_reading&&) {}

 protected:
  ~Smtp_coverage_source() = default;
};

#endif  // SMTPFM_MANAGER_COVERAGE_H_
