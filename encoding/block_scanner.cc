// The frame lines of uuencoded blocks, as the encoders of the day wrote
// them and as mail clients quote them:
//
//   begin 644 name.zip        mode of three octal digits, then the name
//   table                     xxencode and friends: a private alphabet of
//   <rows of 64 bytes>        64 bytes on the lines that follow
//   section 2 of file ...     multi-part encoders: a new number moves on,
//                             the same number again closes what came before
//   sum -r/size 1234          a checksum line that closes a part
//   end                       closes the block
//
// A reply quotes a block behind "> " or similar, so keywords are searched
// anywhere in the first 90 bytes of a line, and the closing lines are
// looked for from the column of the keyword that opened the frame. Data
// lines are never judged: whatever the encoding, a frame that closes is a
// block.
#include "encoding/block_scanner.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define SMTPFM_SCANNER_AVX2 1
#endif

namespace {

// Lines are read in pieces of this size; a longer line ends the scan.
constexpr uint32_t smtp_scan_line_limit = 1024;
// A keyword counts only if its last byte stands within the first 90 bytes
// of the line ("begin" at 85, "section" at 83, "end" at 87 at the latest).
// Only the first occurrence of a keyword is tried, so the search never needs
// to look further than this: past it, the first occurrence is refused anyway.
constexpr size_t smtp_keyword_zone = 90;
// The longest file name kept from a "begin" line. A line of 1024 bytes can
// hold a longer one; the first 255 bytes are kept and the rest is dropped.
// The name is only a label of the descriptor, so nothing is lost that the
// cut of a body needs.
constexpr size_t smtp_max_file_name = 255;
// The longest digit run of a "section" line. A longer run makes no section
// line at all (the line then counts as text). Within the limit the value
// saturates at 0xFFFFFFFF, so that no run can overflow the field; two runs
// both beyond that value then count as the same section.
constexpr size_t smtp_max_section_digits = 99;
// A file mode is three octal digits; two or four make no frame line.
constexpr size_t smtp_mode_digits = 3;

inline bool is_white(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
inline bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Characters that cannot stand in a file name on the systems that wrote
// these blocks; the name ends at the first of them, or at a zero byte.
inline bool ends_file_name(char c) {
  switch (c) {
    case '\0':
    case '\\':
    case '/':
    case ':':
    case '*':
    case '?':
    case '"':
    case '<':
    case '>':
    case '|':
      return true;
    default:
      return false;
  }
}

size_t skip_white(std::string_view line, size_t at) {
  while (at < line.size() && is_white(line[at])) ++at;
  return at;
}

// Counts the digits at `at`, but no more than `most` + 1 of them.
size_t count_digits(std::string_view line, size_t at, size_t most) {
  size_t count = 0;
  while (count <= most && at + count < line.size() && is_digit(line[at + count])) ++count;
  return count;
}

// Position of the first occurrence of `word` at or behind `from`, if it
// ends within the keyword zone; npos otherwise.
size_t find_keyword(std::string_view line, std::string_view word, size_t from) {
  std::string_view zone = line.substr(0, std::min(line.size(), smtp_keyword_zone));
  if (from >= zone.size()) return std::string_view::npos;
  return zone.find(word, from);
}

#ifdef SMTPFM_SCANNER_AVX2
const bool have_avx2 = [] {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") != 0;
}();
#endif

// Most lines of a text hold no keyword at all. Rather than have every
// test search every line's zone for its word, one forward pass over the
// body finds the places where a keyword might start: its first two letters
// and one further letter at the right distance ("be..n", "end", "ta..e",
// "se....n", "sum"). Each such place in a line's zone is checked for the
// whole word, and only the tests of the words found there run; a line
// with none is text. The pass goes on from where it stopped, so every
// byte of the body is looked at about once.
enum Keyword_bit : uint32_t {
  keyword_begin = 1,
  keyword_end = 2,
  keyword_table = 4,
  keyword_section = 8,
  keyword_sum = 16,
  keyword_any = 31,
};

class Keyword_finder {
 public:
  // `base` to `limit` are the contiguous bytes that the lines view.
  Keyword_finder(const char* base, const char* limit) : base_(base), limit_(limit), next_(base) {}

  // The keywords that stand whole in `line`'s keyword zone, a bit each. A
  // line outside the bytes given may hold any.
  uint32_t words_in(std::string_view line) {
    const char* begin = line.data();
    if (base_ == nullptr || begin < base_ || begin + line.size() > limit_) return keyword_any;
    const char* zone_end = begin + std::min(line.size(), smtp_keyword_zone);
    if (next_ < begin) next_ = find_next(begin);
    uint32_t words = 0;
    while (next_ < zone_end) {
      words |= words_at(next_, zone_end);
      next_ = find_next(next_ + 1);
    }
    return words;
  }

 private:
  static bool could_start(const char* q, const char* limit) {
    const size_t left = static_cast<size_t>(limit - q);
    switch (*q) {
      case 'b':
        return left >= 5 && q[1] == 'e' && q[4] == 'n';
      case 'e':
        return left >= 3 && q[1] == 'n' && q[2] == 'd';
      case 't':
        return left >= 5 && q[1] == 'a' && q[4] == 'e';
      case 's':
        return (left >= 7 && q[1] == 'e' && q[6] == 'n') || (left >= 3 && q[1] == 'u' && q[2] == 'm');
      default:
        return false;
    }
  }

  // The first place at or behind `from` where a keyword might start;
  // `limit_` when there is none.
  const char* find_next(const char* from) const {
    const char* p = from;
#ifdef SMTPFM_SCANNER_AVX2
    if (have_avx2) p = find_next_avx2(p, limit_);
#endif
    for (; p < limit_; ++p)
      if (could_start(p, limit_)) return p;
    return limit_;
  }

  // The keywords that start at `q` and end before `end`.
  static uint32_t words_at(const char* q, const char* end) {
    const std::string_view rest(q, static_cast<size_t>(end - q));
    if (rest.starts_with("begin")) return keyword_begin;
    if (rest.starts_with("end")) return keyword_end;
    if (rest.starts_with("table")) return keyword_table;
    if (rest.starts_with("section")) return keyword_section;
    if (rest.starts_with("sum")) return keyword_sum;
    return 0;
  }

#ifdef SMTPFM_SCANNER_AVX2
  // Steps of 32 places while every load stays inside the bytes; returns the
  // place found, or where the steps stopped.
  __attribute__((target("avx2"))) static const char* find_next_avx2(const char* p, const char* limit) {
    while (limit - p >= 32 + 6) {
#define SMTPFM_LOAD(at) _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at))
#define SMTPFM_EQ(bytes, c) _mm256_cmpeq_epi8(bytes, _mm256_set1_epi8(c))
      const __m256i at0 = SMTPFM_LOAD(p), at1 = SMTPFM_LOAD(p + 1), at2 = SMTPFM_LOAD(p + 2),
                    at4 = SMTPFM_LOAD(p + 4), at6 = SMTPFM_LOAD(p + 6);
      const __m256i begin =
          _mm256_and_si256(_mm256_and_si256(SMTPFM_EQ(at0, 'b'), SMTPFM_EQ(at1, 'e')), SMTPFM_EQ(at4, 'n'));
      const __m256i end =
          _mm256_and_si256(_mm256_and_si256(SMTPFM_EQ(at0, 'e'), SMTPFM_EQ(at1, 'n')), SMTPFM_EQ(at2, 'd'));
      const __m256i table =
          _mm256_and_si256(_mm256_and_si256(SMTPFM_EQ(at0, 't'), SMTPFM_EQ(at1, 'a')), SMTPFM_EQ(at4, 'e'));
      const __m256i s_words = _mm256_and_si256(
          SMTPFM_EQ(at0, 's'), _mm256_or_si256(_mm256_and_si256(SMTPFM_EQ(at1, 'e'), SMTPFM_EQ(at6, 'n')),
                                               _mm256_and_si256(SMTPFM_EQ(at1, 'u'), SMTPFM_EQ(at2, 'm'))));
      const __m256i any = _mm256_or_si256(_mm256_or_si256(begin, end), _mm256_or_si256(table, s_words));
#undef SMTPFM_EQ
#undef SMTPFM_LOAD
      const uint32_t mask = static_cast<uint32_t>(_mm256_movemask_epi8(any));
      if (mask != 0) return p + __builtin_ctz(mask);
      p += 32;
    }
    return p;
  }
#endif

  const char* base_;
  const char* limit_;
  const char* next_;  // the last place found; before it, from where the search began, there is none
};

// Between the lines that open, close or move a frame, the scan has nothing
// to do: inside a frame only a keyword line matters, and outside one,
// after the first line of a stretch of text, only a "begin" or a "table"
// line. Rather than read those lines one by one, the bytes are searched
// for the first three letters of the keywords that could matter (data
// lines hold no lower case letters, and text seldom holds these runs),
// and the scan goes on at the start of the line where one stands. A line
// that might be over the limit is never passed over: a run of this many
// bytes without a line end stops the search at its line, which is then
// read.
constexpr size_t smtp_skip_stop_run = smtp_scan_line_limit - 24;

enum Skip_words : uint32_t {
  skip_begin_table = 1,  // "beg", "tab"
  skip_all = 2,          // and "end", "sec", "sum"
};

inline bool could_matter(const char* q, uint32_t words) {
  const bool opens = (q[0] == 'b' && q[1] == 'e' && q[2] == 'g') || (q[0] == 't' && q[1] == 'a' && q[2] == 'b');
  if (opens || words == skip_begin_table) return opens;
  return (q[0] == 'e' && q[1] == 'n' && q[2] == 'd') || (q[0] == 's' && q[1] == 'e' && q[2] == 'c') ||
         (q[0] == 's' && q[1] == 'u' && q[2] == 'm');
}

#ifdef SMTPFM_SCANNER_AVX2
// The AVX2 steps of skip_lines: 32 places at a time while the loads stay
// inside the bytes. Returns where they stopped; `line_start` follows the
// line ends passed, and `stop` is set when a keyword was met.
__attribute__((target("avx2"))) const char* skip_lines_avx2(const char* p, const char* end, uint32_t words,
                                                            bool crlf, const char*& line_start, bool& stop) {
#define SMTPFM_LOAD(at) _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at))
#define SMTPFM_EQ(bytes, c) _mm256_cmpeq_epi8(bytes, _mm256_set1_epi8(c))
#define SMTPFM_RUN(a, b, c) _mm256_and_si256(_mm256_and_si256(SMTPFM_EQ(at0, a), SMTPFM_EQ(at1, b)), SMTPFM_EQ(at2, c))
  const ptrdiff_t stop_run = static_cast<ptrdiff_t>(smtp_skip_stop_run);
  while (end - p >= 32 + 2) {
    const __m256i at0 = SMTPFM_LOAD(p), at1 = SMTPFM_LOAD(p + 1), at2 = SMTPFM_LOAD(p + 2);
    __m256i found = _mm256_or_si256(SMTPFM_RUN('b', 'e', 'g'), SMTPFM_RUN('t', 'a', 'b'));
    if (words == skip_all)
      found = _mm256_or_si256(found, _mm256_or_si256(SMTPFM_RUN('e', 'n', 'd'),
                                                      _mm256_or_si256(SMTPFM_RUN('s', 'e', 'c'), SMTPFM_RUN('s', 'u', 'm'))));
    const uint32_t keywords = static_cast<uint32_t>(_mm256_movemask_epi8(found));
    // Bit i: a line ends at place i (its LF, or the CR of its CR LF); the
    // next line starts behind it.
    const uint32_t ends = crlf ? static_cast<uint32_t>(_mm256_movemask_epi8(
                                     _mm256_and_si256(SMTPFM_EQ(at0, '\r'), SMTPFM_EQ(at1, '\n'))))
                               : static_cast<uint32_t>(_mm256_movemask_epi8(SMTPFM_EQ(at0, '\n')));
    const int end_size = crlf ? 2 : 1;
    // Only the line ends in front of a keyword move the line start on.
    const uint32_t passed = keywords != 0 ? ends & ((1u << __builtin_ctz(keywords)) - 1) : ends;
    if (passed != 0) {
      if (p + __builtin_ctz(passed) - line_start >= stop_run) return p;
      line_start = p + (31 - __builtin_clz(passed)) + end_size;
    } else if (p + 32 - line_start >= stop_run) {
      return p;
    }
    if (keywords != 0) {
      stop = true;
      return p;
    }
    p += 32;
  }
#undef SMTPFM_RUN
#undef SMTPFM_EQ
#undef SMTPFM_LOAD
  return p;
}
#endif

// From `from`, the start of a line, to the start of the first line that
// holds one of `words`, or of the first line that may be over the limit;
// `end` when there is neither. `crlf`: lines end in CR LF only, as the
// stream reads them.
const char* skip_lines(const char* from, const char* end, uint32_t words, bool crlf) {
  const char* line_start = from;
  const char* p = from;
#ifdef SMTPFM_SCANNER_AVX2
  if (have_avx2) {
    bool stop = false;
    p = skip_lines_avx2(p, end, words, crlf, line_start, stop);
    if (stop) return line_start;
  }
#endif
  // One place at a time: the rest, and where the steps found a long run
  // (the line start is then checked again here).
  for (; p < end; ++p) {
    if (p - line_start >= static_cast<ptrdiff_t>(smtp_skip_stop_run)) return line_start;
    if (crlf ? (*p == '\r' && end - p >= 2 && p[1] == '\n') : *p == '\n') {
      line_start = p + (crlf ? 2 : 1);
      if (crlf) ++p;
    } else if (end - p >= 3 && could_matter(p, words)) {
      return line_start;
    }
  }
  return end - line_start >= static_cast<ptrdiff_t>(smtp_skip_stop_run) ? line_start : end;
}

// A "begin" line: the keyword, optional white space, exactly three digits,
// optional white space and a file name. Sets `column` to the keyword's
// position, and `file_name` if the line has a name.
bool begin_test(std::string_view line, uint32_t& column, std::string& file_name) {
  size_t at = find_keyword(line, "begin", 0);
  if (at == std::string_view::npos) return false;
  size_t digits_at = skip_white(line, at + 5);
  if (count_digits(line, digits_at, smtp_mode_digits) != smtp_mode_digits) return false;
  column = static_cast<uint32_t>(at);

  size_t name_at = skip_white(line, digits_at + smtp_mode_digits);
  size_t name_end = name_at;
  while (name_end < line.size() && !ends_file_name(line[name_end])) ++name_end;
  size_t length = std::min(name_end - name_at, smtp_max_file_name);
  while (length > 0 && is_white(line[name_at + length - 1])) --length;
  if (length > 0) file_name.assign(line.data() + name_at, length);
  return true;
}

// A "table" line: the 64 bytes of the alphabet follow on the next lines,
// from the keyword's column on. The rows are consumed whether the test
// passes or not.
bool table_test(std::string_view line, Vek_istream& stream, uint32_t& column,
                char (&table)[Smtp_block_record::table_size + 1]) {
  size_t at = find_keyword(line, "table", 0);
  if (at == std::string_view::npos) return false;
  char gathered[Smtp_block_record::table_size];
  size_t count = 0;
  Vek_status status;
  while (count < Smtp_block_record::table_size) {
    std::string_view row;
    stream.readln_view(smtp_scan_line_limit, row, status);
    // The text that came with the status is used first: a last row without
    // a line end still counts.
    if (row.size() > at) {
      std::string_view rest = row.substr(at);
      rest = rest.substr(0, rest.find('\n'));
      size_t take = std::min(rest.size(), Smtp_block_record::table_size - count);
      std::memcpy(gathered + count, rest.data(), take);
      count += take;
    }
    if (count < Smtp_block_record::table_size && !status.ok()) return false;
  }
  std::memcpy(table, gathered, sizeof gathered);
  table[Smtp_block_record::table_size] = '\0';
  column = static_cast<uint32_t>(at);
  return true;
}

// A "section" line: the keyword, optional white space and a number.
bool section_test(std::string_view line, uint32_t& number) {
  size_t at = find_keyword(line, "section", 0);
  if (at == std::string_view::npos) return false;
  size_t digits_at = skip_white(line, at + 7);
  size_t digits = count_digits(line, digits_at, smtp_max_section_digits);
  if (digits == 0 || digits > smtp_max_section_digits) return false;
  uint64_t value = 0;
  for (size_t i = 0; i < digits; ++i)
    value = std::min<uint64_t>(value * 10 + static_cast<uint64_t>(line[digits_at + i] - '0'), 0xFFFFFFFFu);
  number = static_cast<uint32_t>(value);
  return true;
}

}  // namespace

void Smtp_block_record::reset() {
  section = 1;
  column = 0;
  std::memset(table, 0, sizeof table);
  data_start = 0;
  end_position = 0;
  begin_position = 0;
  table_position = 0;
  open = false;
  closed = false;
  encoded = false;
}

bool Smtp_block_scanner::scan(Vek_istream& stream) {
  Smtp_block_record w;
  std::string file_name;
  uint32_t column = 0;
  bool found = false;
  bool in_text = false;
  Vek_status status;

  auto push_copy = [this](const Smtp_block_record& record) {
    queue_.push_back(std::make_unique<Smtp_block_record>(record));
  };
  // The text that stood in front of a "begin" line (or that an unclosed
  // frame turned out to be) becomes a record of its own. A table read just
  // before the block belongs to the block, so the text ends at the table.
  auto push_text = [&](uint64_t end) {
    w.end_position = w.has_table() ? w.table_position : end;
    w.open = true;
    w.closed = true;
    w.name = "text";
    auto copy = std::make_unique<Smtp_block_record>(w);
    std::memset(copy->table, 0, sizeof copy->table);
    copy->table_position = 0;
    queue_.push_back(std::move(copy));
  };

  const Vek_buffer* bytes = stream.buffer();
  const char* base = bytes != nullptr ? reinterpret_cast<const char*>(bytes->data()) : nullptr;
  Keyword_finder finder(base, base != nullptr ? base + bytes->size() : nullptr);

  const bool skip = base != nullptr && reading_ == Reading::skip_ordinary_lines;
  for (;;) {
    if (skip && (w.open || in_text)) {
      const uint64_t at = stream.tell();
      if (at < bytes->size()) {
        const char* next = skip_lines(base + at, base + bytes->size(), w.open ? skip_all : skip_begin_table,
                                      stream.eol() == vek_eol_crlf);
        stream.seek(static_cast<uint64_t>(next - base));
      }
    }
    uint64_t line_start = stream.tell();
    std::string_view line;
    stream.readln_view(smtp_scan_line_limit, line, status);
    if (status == vek_line_too_long && pass_long_lines_) {
      // Judged by its first piece; the rest of the line is passed over.
      std::string_view rest;
      do {
        status.clear();
        stream.readln_view(smtp_scan_line_limit, rest, status);
      } while (status == vek_line_too_long);
    }
    if (!line.empty()) {
      uint32_t number = 0;
      const uint32_t words = finder.words_in(line);
      if ((words & keyword_begin) != 0 && begin_test(line, column, file_name)) {
        if (in_text || w.open) push_text(line_start);
        w.begin_position = line_start;
        w.open = true;
        w.section = 1;
        in_text = false;
        // A table stays with its block only if its keyword stood in the
        // same column as "begin", that is, behind the same quote prefix.
        if (column != w.column) {
          w.column = column;
          std::memset(w.table, 0, sizeof w.table);
          w.table_position = 0;
        }
        w.name = file_name;
        w.closed = false;
        w.data_start = stream.tell();
      } else if ((words & keyword_end) != 0 && find_keyword(line, "end", column) != std::string_view::npos) {
        // An "end" with no open frame is ordinary text, but starts no
        // stretch of it either.
        if (w.open) {
          w.end_position = line_start;
          found = true;
          w.encoded = true;
          w.closed = true;
          push_copy(w);
          w.reset();
        }
      } else if ((words & keyword_table) != 0 && table_test(line, stream, column, w.table)) {
        w.table_position = line_start;
        w.column = column;
      } else if ((words & keyword_section) != 0 && section_test(line, number)) {
        if (w.open && !w.closed) {
          if (number != w.section) {
            w.data_start = stream.tell();
            w.section = number;
          } else {
            w.end_position = line_start;
            w.encoded = true;
            push_copy(w);
          }
        }
      } else if ((words & keyword_sum) != 0 && find_keyword(line, "sum", column) != std::string_view::npos) {
        if (w.open && !w.closed) {
          w.end_position = line_start;
          w.encoded = true;
          push_copy(w);
        }
      } else if (!w.open && !in_text) {
        w.data_start = line_start;
        in_text = true;
        w.encoded = false;
      }
    }
    if (!status.ok()) break;
  }

  // A line over the limit ends the scan like the end of the data does: the
  // rest of such a body is no text that an encoder would have written. A
  // frame still open here never closed, and is no block.
  if (status == vek_end_of_stream || status == vek_line_too_long) {
    if (found && in_text) push_text(stream.tell());
    status.clear();
  }
  return found;
}

std::unique_ptr<Smtp_block_record> Smtp_block_scanner::next_block() {
  if (queue_.empty()) return nullptr;
  std::unique_ptr<Smtp_block_record> first = std::move(queue_.front());
  queue_.pop_front();
  return first;
}
