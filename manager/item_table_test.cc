#include "manager/item_table.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "manager/test_util.h"

namespace {

using smtp_test::crlf;
using smtp_test::make_buffer;
using smtp_test::text_of;

// A text body is cut at its first encoded block: the text in front stays
// the body, the block and all behind it become one record of type 5. A body
// that is not cut is taken over as it is, not copied.
TEST(AddBody, CutsTextBodiesAtTheFirstBlock) {
  const std::string intro = crlf({"Here is the file:", ""});
  const std::string block = crlf({"begin 644 a.bin", "M86)C", "end", "", "Regards"});
  const struct {
    const char* what;
    uint32_t type;
    const char* mime_type;
    std::string body;
    size_t body_length;  // shorter than the body: the rest is a record of type 5
  } cases[] = {
      {"text body with block", 2, "text", intro + block, intro.size()},
      {"added body, type in upper case", 3, "TEXT", intro + block, intro.size()},
      {"block at the start", 2, "text", block, 0},
      {"attachment stays whole", 4, "text", intro + block, intro.size() + block.size()},
      {"not text", 2, "image", intro + block, intro.size() + block.size()},
      {"frame never closes", 2, "text", intro + "begin 644 a\r\n", intro.size() + 13},
      {"empty", 2, "text", "", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Smtp_item_list items;
    std::vector<uint32_t> order;
    Vek_status status;
    auto buffer = make_buffer(c.body);
    const Vek_buffer* given = buffer.get();
    EXPECT_EQ(add_body(status, items, order, std::move(buffer), c.mime_type, "plain", "qp", c.type), 0u);
    ASSERT_TRUE(status.ok());
    const bool cut = c.body_length != c.body.size();
    ASSERT_EQ(order, cut ? std::vector<uint32_t>({0, 1}) : std::vector<uint32_t>({0}));
    EXPECT_EQ(items[0]->type, c.type);
    EXPECT_EQ(items[0]->length, c.body_length);
    EXPECT_EQ(text_of(items[0]->buffer.get()), c.body.substr(0, c.body_length));
    EXPECT_EQ(items[0]->encoding, "qp");
    if (!cut) {
      EXPECT_EQ(items[0]->buffer.get(), given);
      continue;
    }
    const Smtp_item_record& rest = *items[1];
    EXPECT_EQ(rest.type, smtp_item_block_rest);
    EXPECT_EQ(rest.length, c.body.size() - c.body_length);
    EXPECT_EQ(text_of(rest.buffer.get()), c.body.substr(c.body_length));
    EXPECT_EQ(rest.mime_type + rest.mime_subtype + "|" + rest.encoding, "|7bit");
  }
}

TEST(ItemRecord, ReplaceBuffer) {
  Smtp_item_record record(2, "text", "plain", "7bit", "", 5, smtp_unknown_count, make_buffer("hello"));
  record.replace_buffer(make_buffer("one\r\ntwo\r\nthree"));
  EXPECT_TRUE(record.modified);
  EXPECT_EQ(record.length, smtp_unknown_count);
  EXPECT_EQ(record.line_count, 3u);
  // Null frees the data and leaves `modified`; a record without data then
  // takes nothing.
  Smtp_item_record fresh(2, "text", "plain", "7bit", "", 5, smtp_unknown_count, make_buffer("hello"));
  fresh.replace_buffer(nullptr);
  fresh.replace_buffer(make_buffer("new"));
  EXPECT_FALSE(fresh.modified);
  EXPECT_EQ(fresh.buffer, nullptr);
}

TEST(StreamHelpers, CountAndSkipLines) {
  const uint64_t all = UINT64_MAX;
  const struct {
    std::string text;
    uint64_t start, end;
    uint32_t counted;
    uint32_t skip, skipped;
  } cases[] = {
      {"a\r\nb\r\n", 0, all, 2, 5, 2},
      // A last line without line end counts, but is not skipped unless long.
      {"a\r\nb", 0, all, 2, 5, 1},
      {std::string(3000, 'x'), 0, all, 1, 5, 1},
      {std::string(5000, 'x') + "\r\n", 0, all, 1, 1, 1},
      {"", 0, all, 0, 1, 0},
      {"a\r\nb\r\nc\r\n", 3, all, 2, 2, 2},
      {"a\r\nb\r\nc\r\n", 0, 4, 2, 0, 0},
      {"a\r\nb\r\nc\r\n", 0, 3, 1, 1, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 9) + " " + std::to_string(c.start) + " " + std::to_string(c.end));
    auto buffer = make_buffer(c.text);
    Vek_status status;
    Vek_buffered_istream stream(buffer.get(), false, status, vek_eol_crlf);
    EXPECT_EQ(count_lines(stream, c.start, c.end), c.counted);
    stream.seek(0);
    EXPECT_EQ(skip_lines(stream, c.skip, status), c.skipped);
    EXPECT_TRUE(status.ok());
  }
}

}  // namespace
