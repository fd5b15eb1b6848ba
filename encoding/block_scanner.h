// Smtp_block_scanner: finds the frames of uuencoded (and xxencoded, and
// similar) blocks that hide in a plain text body without any MIME around
// them.
//
// It reads a body line by line and judges a block by its frame lines alone:
// "begin" with a three-digit mode and a file name, the closing "end", the
// "sum" and "section" lines of multi-part encoders and a "table" line with
// a private alphabet. Data lines are never looked at. The result is a queue
// of descriptors in stream order and whether any frame was closed by "end".
//
// Ownership: the records in the queue belong to the scanner and go with it;
// a record taken out by next_block belongs to the caller. A scanner is meant
// for one body: made, scanned once, drained as far as the caller wishes and
// destroyed. It keeps no reference to the stream.
#ifndef SMTPFM_ENCODING_BLOCK_SCANNER_H_
#define SMTPFM_ENCODING_BLOCK_SCANNER_H_

#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "contracts/vek.h"

// One descriptor: an encoded block, or a stretch of text between blocks.
struct Smtp_block_record {
  // Length of a private alphabet from a "table" frame.
  static constexpr size_t table_size = 64;

  // The section the block is in; 1 after a "begin" line.
  uint32_t section = 1;
  // File name from the "begin" line; "text" in a text record.
  std::string name;
  // Position in its line (from 0) of the "begin" or "table" keyword that
  // opened the frame.
  uint32_t column = 0;
  // Alphabet from a "table" frame, zero-terminated; empty when there is none.
  char table[table_size + 1] = {};
  // Stream position of the first data line: behind the "begin" line, or
  // behind the last "section" line that moved to a new number. In a text
  // record, the position of the stretch's first line.
  uint64_t data_start = 0;
  // Stream position of the start of the line that closed the record.
  uint64_t end_position = 0;
  // Stream position of the start of the "begin" line.
  uint64_t begin_position = 0;
  // Stream position of the start of the "table" line; 0 when there is none.
  uint64_t table_position = 0;
  // A frame has begun and "end" has not closed it yet.
  bool open = false;
  // Closed by "end", or made into a text record.
  bool closed = false;
  // The frame was closed by "end", "sum" or a repeated "section".
  bool encoded = false;

  // Zeroes the numbers, positions and flags, empties the table and sets the
  // section to 1; the name stays.
  void reset();
  // Whether a private alphabet was read.
  bool has_table() const { return table[0] != '\0'; }
};

class Smtp_block_scanner {
 public:
  // With `pass_long_lines`, a line over 1024 bytes is text like any other
  // and the scan goes on behind it.
  explicit Smtp_block_scanner(bool pass_long_lines = false) : pass_long_lines_(pass_long_lines) {}
  // How lines that cannot change the result are passed over: by a search
  // of the bytes for the keywords that could (the default), or read one by
  // one, the reference that the search must agree with.
  enum class Reading { skip_ordinary_lines, every_line };
  Smtp_block_scanner(bool pass_long_lines, Reading reading)
      : pass_long_lines_(pass_long_lines), reading_(reading) {}
  virtual ~Smtp_block_scanner() = default;
  Smtp_block_scanner(const Smtp_block_scanner&) = delete;
  Smtp_block_scanner& operator=(const Smtp_block_scanner&) = delete;

  // Reads `stream` from its position to its end (or to the first line over
  // 1024 bytes unless they are passed, or the first failure), appends what it finds to the queue,
  // and returns true if at least one frame was closed by an "end" line.
  // Read failures stay inside. The stream is left where reading stopped.
  bool scan(Vek_istream& stream);

  // Takes the first record out of the queue and gives it to the caller;
  // null when the queue is empty.
  std::unique_ptr<Smtp_block_record> next_block();

  // Records still in the queue.
  size_t size() const { return queue_.size(); }

 private:
  std::deque<std::unique_ptr<Smtp_block_record>> queue_;
  bool pass_long_lines_;
  Reading reading_ = Reading::skip_ordinary_lines;
};

#endif  // SMTPFM_ENCODING_BLOCK_SCANNER_H_
