// The table of sub-items that every message handler keeps, and the stream
// helpers that go with it.
//
// Smtp_item_record describes one sub-item and owns its buffer. Most
// records hold a Vek_sub_buffer on the host's buffer of the open item (so a
// body is not copied); such a view must not outlive that buffer, which the
// host keeps live as long as the handler. Smtp_item_table holds the records
// in the order in which they are written back (`items`) and the order in
// which the host gets them (`item_order`); it owns the records.
//
// A text body of a message can hide a uuencoded file; add_body cuts such a
// body at its first block, so that the host sees the block as a sub-item of
// its own.
#ifndef SMTPFM_MANAGER_ITEM_TABLE_H_
#define SMTPFM_MANAGER_ITEM_TABLE_H_

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "contracts/vek.h"
#include "manager/handler_base.h"

// Record types.
inline constexpr uint32_t smtp_item_header = 1;      // an exported header field
inline constexpr uint32_t smtp_item_body = 2;        // the body
inline constexpr uint32_t smtp_item_added_body = 3;  // a body the handler added itself
inline constexpr uint32_t smtp_item_attachment = 4;  // an attachment, or the body of a non-message
inline constexpr uint32_t smtp_item_block_rest = 5;  // a text body from its first encoded block on
inline constexpr uint32_t smtp_item_extra_reading =
    6;  // another reading of bytes that another record holds: for the host to classify, never written back

// The property (a bool, true) that marks the sub-item of an extra reading
// for the host: its bytes are another reading of the entity's, which no
// rebuild writes back, so a host that counts items or replaces them can
// tell it from the items it may change.
inline constexpr std::u16string_view smtp_alternate_reading = u"AlternateReading";

// A length or line count that is not known (after a replacement).
inline constexpr uint32_t smtp_unknown_count = 0xFFFFFFFF;

class Smtp_item_record {
 public:
  // A general record; it takes over `buffer`. `name` stays empty.
  Smtp_item_record(uint32_t type, std::string mime_type, std::string mime_subtype, std::string encoding,
                   std::string file_name, uint32_t length, uint32_t line_count,
                   std::unique_ptr<Vek_buffer> buffer);
  // A record of an exported header field (type 1); it takes over `buffer`.
  Smtp_item_record(std::string name, std::unique_ptr<Vek_buffer> buffer, uint32_t length);
  virtual ~Smtp_item_record() = default;
  Smtp_item_record(const Smtp_item_record&) = delete;
  Smtp_item_record& operator=(const Smtp_item_record&) = delete;

  // Puts `new_buffer` (taken over) in place of the data: the length becomes
  // unknown, the line count is that of the new data, and `modified` is set.
  // A record without a buffer takes nothing, and `new_buffer` is freed.
  void replace_buffer(std::unique_ptr<Vek_buffer> new_buffer);

  uint32_t type;
  // Bytes of data in `buffer`; smtp_unknown_count after a replacement.
  uint32_t length;
  // Lines of data; smtp_unknown_count when not known.
  uint32_t line_count;
  // The host replaced the data.
  bool modified = false;
  // The data are the raw text of a part of a multipart reading, its header
  // included, which the host opens as an entity of its own.
  bool part = false;
  // The data, owned; may view the handler's `data`.
  std::unique_ptr<Vek_buffer> buffer;
  // Upper-case field name of a header record; else empty.
  std::string name;
  // Content type, subtype, transfer encoding and file name as written in
  // the message; any may be empty.
  std::string mime_type;
  std::string mime_subtype;
  std::string encoding;
  std::string file_name;
};

using Smtp_item_list = std::vector<std::unique_ptr<Smtp_item_record>>;

// The table of one handler.
struct Smtp_item_table {
  // The records, in the order of the message, which is the order of
  // writing back; owned.
  Smtp_item_list items;
  // Position n as the host knows it is items[item_order[n]].
  std::vector<uint32_t> item_order;
  // Records of type 1; they stand first, and positions below this count
  // cannot be replaced.
  uint32_t header_item_count = 0;
  // Index in `items` of the body record; smtp_no_position when none.
  uint32_t body_index = smtp_no_position;

  // Deletes every record and empties both vectors.
  void clear_items();
  // Number of records, which is the number of valid positions.
  uint32_t count() const { return static_cast<uint32_t>(items.size()); }
  // Whether `position` names a record.
  bool valid_position(uint32_t position) const { return position < items.size(); }
  // The record the host knows as `position`, which must be valid.
  Smtp_item_record& at_position(uint32_t position) const { return *items[item_order[position]]; }
  // Whether the host replaced any record.
  bool any_modified() const;
};

// Appends a general record with an unknown line count; it takes over
// `buffer`. Returns its index in `items`.
uint32_t add_item_record(Smtp_item_list& items, uint32_t type, std::unique_ptr<Vek_buffer> buffer,
                         uint32_t length, const std::string& mime_type, const std::string& mime_subtype,
                         const std::string& encoding, const std::string& file_name);

// Appends a general record of known line count with no content type; it
// takes over `buffer`. Returns its index in `items`.
uint32_t add_counted_record(Smtp_item_list& items, uint32_t type, std::unique_ptr<Vek_buffer> buffer,
                            uint32_t length, uint32_t line_count, const std::string& encoding,
                            const std::string& file_name);

// Adds a body (taken over, whatever happens) to the table. A text body of
// type 2 or 3 that holds an encoded block is cut at the block's "begin"
// line: the part before it is the body, the rest a record of type 5 behind
// it. Each record's index goes to `item_order` as well. Returns the index
// of the body record; 0 with a failed status when nothing could be added.
// `pass_long_lines` goes to the block scanner.
uint32_t add_body(Vek_status& status, Smtp_item_list& items, std::vector<uint32_t>& item_order,
                  std::unique_ptr<Vek_buffer> buffer, const std::string& mime_type,
                  const std::string& mime_subtype, const std::string& encoding, uint32_t type,
                  bool pass_long_lines = false);

// Number of lines from `start` up to the first line that ends at or behind
// `end`; a last line without a line end counts. Read failures end the
// count silently. The stream is left behind the last line counted.
uint32_t count_lines(Vek_istream& stream, uint64_t start, uint64_t end);

// Reads over `count` lines; returns how many it passed. The end of the
// stream is no failure.
uint32_t skip_lines(Vek_istream& stream, uint32_t count, Vek_status& status);

// Copies up to `count` bytes from the stream's position onto `output`, in
// blocks of 16384 bytes. Running into the end of the stream is no failure.
void copy_bytes(Vek_istream& stream, Vek_ostream& output, uint32_t count, Vek_status& status);

// Copies `count` bytes from `offset` of `source` onto `target`, written from
// its start.
void copy_range(const Vek_buffer& source, Vek_buffer& target, uint64_t offset, uint64_t count,
                Vek_status& status);

#endif  // SMTPFM_MANAGER_ITEM_TABLE_H_
