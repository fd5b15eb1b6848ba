#include "manager/item_table.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "manager/test_util.h"

namespace {

using smtp_test::crlf;
using smtp_test::make_buffer;
using smtp_test::text_of;

const std::string block = crlf({"begin 644 a.bin", "M86)C", "`", "end"});

struct Body_case {
  const char* label;
  uint32_t type;
  const char* mime_type;
  std::string body;
  // Length of the body record; the rest, if any, is in a record of type 5.
  size_t body_length;
};

class AddBody : public ::testing::TestWithParam<Body_case> {};

TEST_P(AddBody, CutsTextBodiesAtTheFirstBlock) {
  const Body_case& c = GetParam();
  Smtp_item_list items;
  std::vector<uint32_t> order;
  Vek_status status;
  uint32_t index =
      add_body(status, items, order, make_buffer(c.body), c.mime_type, "plain", "quoted-printable", c.type);
  ASSERT_TRUE(status.ok());
  ASSERT_EQ(index, 0u);
  const bool cut = c.body_length != c.body.size();
  ASSERT_EQ(items.size(), cut ? 2u : 1u);
  ASSERT_EQ(order, cut ? std::vector<uint32_t>({0, 1}) : std::vector<uint32_t>({0}));

  const Smtp_item_record& body = *items[0];
  EXPECT_EQ(body.type, c.type);
  EXPECT_EQ(body.length, c.body_length);
  EXPECT_EQ(text_of(body.buffer.get()), c.body.substr(0, c.body_length));
  EXPECT_EQ(body.mime_type, c.mime_type);
  EXPECT_EQ(body.encoding, "quoted-printable");
  EXPECT_EQ(body.line_count, smtp_unknown_count);
  if (!cut) return;
  const Smtp_item_record& rest = *items[1];
  EXPECT_EQ(rest.type, smtp_item_block_rest);
  EXPECT_EQ(rest.length, c.body.size() - c.body_length);
  EXPECT_EQ(text_of(rest.buffer.get()), c.body.substr(c.body_length));
  EXPECT_EQ(rest.mime_type, "");
  EXPECT_EQ(rest.mime_subtype, "");
  EXPECT_EQ(rest.encoding, "7bit");
  EXPECT_FALSE(rest.modified);
}

const std::string intro = crlf({"Here is the file:", ""});
const std::string outro = crlf({"", "Regards"});

INSTANTIATE_TEST_SUITE_P(
    Cases, AddBody,
    ::testing::Values(
        Body_case{"text_body_with_block", 2, "text", intro + block + outro, intro.size()},
        Body_case{"type_ignores_case", 2, "TEXT", intro + block, intro.size()},
        Body_case{"added_body", 3, "text", intro + block, intro.size()},
        Body_case{"block_at_start", 2, "text", block + outro, 0},
        Body_case{"attachment_stays_whole", 4, "text", intro + block, intro.size() + block.size()},
        Body_case{"not_text", 2, "application", intro + block, intro.size() + block.size()},
        Body_case{"frame_never_closes", 2, "text", intro + crlf({"begin 644 a", "M"}), intro.size() + 16},
        Body_case{"no_block", 2, "text", intro + outro, intro.size() + outro.size()},
        Body_case{"empty", 2, "text", "", 0}),
    [](const ::testing::TestParamInfo<Body_case>& info) { return std::string(info.param.label); });

TEST(AddBodyTable, WholeBodyKeepsTheBufferItWasGiven) {
  auto parent = make_buffer("header\r\n\r\nbody\r\n");
  auto view = std::make_unique<Vek_sub_buffer>(parent.get(), 10, vek_to_end);
  Vek_buffer* given = view.get();
  Smtp_item_list items;
  std::vector<uint32_t> order;
  Vek_status status;
  add_body(status, items, order, std::move(view), "text", "plain", "7bit", 2);
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0]->buffer.get(), given);
}

TEST(AddBodyTable, AppendsBehindRecordsAlreadyThere) {
  Smtp_item_list items;
  std::vector<uint32_t> order;
  add_item_record(items, 4, make_buffer("x"), 1, "image", "gif", "base64", "a.gif");
  order.push_back(0);
  Vek_status status;
  uint32_t index = add_body(status, items, order, make_buffer(intro + block), "text", "plain", "7bit", 2);
  EXPECT_EQ(index, 1u);
  EXPECT_EQ(order, std::vector<uint32_t>({0, 1, 2}));
  EXPECT_EQ(items[2]->type, smtp_item_block_rest);
}

TEST(ItemRecord, ReplaceBuffer) {
  Smtp_item_record record(2, "text", "plain", "7bit", "", 5, smtp_unknown_count, make_buffer("hello"));
  record.replace_buffer(make_buffer("one\r\ntwo\r\nthree"));
  EXPECT_TRUE(record.modified);
  EXPECT_EQ(record.length, smtp_unknown_count);
  EXPECT_EQ(record.line_count, 3u);
  EXPECT_EQ(text_of(record.buffer.get()), "one\r\ntwo\r\nthree");

  // Null frees the old data and leaves `modified` alone.
  Smtp_item_record fresh(2, "text", "plain", "7bit", "", 5, smtp_unknown_count, make_buffer("hello"));
  fresh.replace_buffer(nullptr);
  EXPECT_FALSE(fresh.modified);
  EXPECT_EQ(fresh.buffer, nullptr);
  // A record without data takes nothing.
  fresh.replace_buffer(make_buffer("new"));
  EXPECT_FALSE(fresh.modified);
  EXPECT_EQ(fresh.buffer, nullptr);
}

TEST(ItemTable, ClearItems) {
  Smtp_item_table table;
  add_counted_record(table.items, 4, make_buffer("abc"), 3, 1, "x-uuencode", "a.bin");
  table.item_order.push_back(0);
  table.header_item_count = 1;
  table.body_index = 0;
  EXPECT_EQ(table.items[0]->line_count, 1u);
  EXPECT_EQ(table.items[0]->mime_type, "");
  table.clear_items();
  EXPECT_TRUE(table.items.empty());
  EXPECT_TRUE(table.item_order.empty());
  EXPECT_EQ(table.header_item_count, 0u);
  EXPECT_EQ(table.body_index, smtp_no_position);
}

TEST(StreamHelpers, CountLines) {
  struct Case {
    std::string text;
    uint64_t start;
    uint64_t end;
    uint32_t lines;
  };
  const uint64_t all = UINT64_MAX;
  const std::vector<Case> cases = {
      {"a\r\nb\r\n", 0, all, 2},
      {"a\r\nb", 0, all, 2},
      {"a\nb\n", 0, all, 2},
      {"", 0, all, 0},
      {std::string(5000, 'x') + "\r\n", 0, all, 1},
      {std::string(4096, 'x'), 0, all, 1},
      {"a\r\nb\r\nc\r\n", 3, all, 2},
      // Up to the first line that ends at or behind `end`.
      {"a\r\nb\r\nc\r\n", 0, 4, 2},
      {"a\r\nb\r\nc\r\n", 0, 3, 1},
      {"a\r\nb\r\n", 4, 4, 0},
  };
  for (const auto& c : cases) {
    auto buffer = make_buffer(c.text);
    Vek_status status;
    Vek_buffered_istream stream(buffer.get(), false, status, vek_eol_lf);
    EXPECT_EQ(count_lines(stream, c.start, c.end), c.lines) << c.text.substr(0, 20) << " " << c.start;
  }
}

TEST(StreamHelpers, SkipLines) {
  struct Case {
    std::string text;
    uint32_t count;
    uint32_t passed;
    uint64_t position;
  };
  const std::vector<Case> cases = {
      {"a\r\nb\r\nc\r\n", 2, 2, 6},
      {"a\r\nb\r\n", 5, 2, 6},
      // A short last line without a line end is not counted, a long one is.
      {"a\r\nb", 5, 1, 4},
      {std::string(3000, 'x') + "\r\nb\r\n", 1, 1, 3002},
      {"a\r\n", 0, 0, 0},
  };
  for (const auto& c : cases) {
    auto buffer = make_buffer(c.text);
    Vek_status status;
    Vek_buffered_istream stream(buffer.get(), false, status, vek_eol_crlf);
    EXPECT_EQ(skip_lines(stream, c.count, status), c.passed) << c.text.substr(0, 20);
    EXPECT_TRUE(status.ok());
    EXPECT_EQ(stream.tell(), c.position);
  }
}

TEST(StreamHelpers, CopyBytes) {
  struct Case {
    size_t size;
    uint64_t from;
    uint32_t count;
    size_t copied;
  };
  const std::vector<Case> cases = {
      {10, 0, 0xFFFFFFFF, 10},  {10, 0, 4, 4},
      {10, 8, 100, 2},          {10, 20, 5, 0},
      {40000, 0, 40000, 40000}, {40000, 1, 16384, 16384},
      {0, 0, 0xFFFFFFFF, 0},
  };
  for (const auto& c : cases) {
    std::string text;
    for (size_t i = 0; i < c.size; ++i) text += static_cast<char>('a' + i % 26);
    auto source = make_buffer(text);
    Vek_memory_buffer target;
    Vek_status status;
    Vek_buffered_istream in(source.get(), false, status, vek_eol_crlf);
    Vek_ostream out(&target, status, vek_eol_crlf);
    in.seek(c.from);
    copy_bytes(in, out, c.count, status);
    EXPECT_TRUE(status.ok()) << c.size << " " << c.count;
    EXPECT_EQ(text_of(&target), text.substr(std::min<size_t>(c.from, text.size()), c.copied));
  }
}

TEST(StreamHelpers, CopyBytesReportsAFailedOutput) {
  auto source = make_buffer("data");
  Vek_sub_buffer read_only(source.get(), 0, vek_to_end);
  Vek_status status;
  Vek_buffered_istream in(source.get(), false, status, vek_eol_crlf);
  Vek_ostream out(&read_only, status, vek_eol_crlf);
  copy_bytes(in, out, 4, status);
  EXPECT_FALSE(status.ok());
}

TEST(StreamHelpers, CopyRange) {
  auto source = make_buffer("0123456789");
  Vek_memory_buffer target;
  Vek_status status;
  copy_range(*source, target, 3, 4, status);
  EXPECT_TRUE(status.ok());
  EXPECT_EQ(text_of(&target), "3456");
}

}  // namespace
