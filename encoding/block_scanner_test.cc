#include "encoding/block_scanner.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct Scan_result {
  bool found = false;
  std::vector<Smtp_block_record> records;
  uint64_t stopped_at = 0;
};

// Lines joined with CR LF, as a body comes to the scanner.
std::string crlf(const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& line : lines) text += line + "\r\n";
  return text;
}

Scan_result scan_text(const std::string& text) {
  Vek_raw_memory_buffer buffer(text.size(), text.data(), 0);
  Vek_status status;
  Vek_buffered_istream stream(&buffer, true, status, vek_eol_crlf);
  EXPECT_TRUE(status.ok());
  Smtp_block_scanner scanner;
  Scan_result result;
  result.found = scanner.scan(stream);
  result.stopped_at = stream.tell();
  while (auto record = scanner.next_block()) result.records.push_back(*record);
  EXPECT_EQ(scanner.next_block(), nullptr);
  return result;
}

size_t encoded_count(const Scan_result& result) {
  size_t count = 0;
  for (const auto& record : result.records) count += record.encoded ? 1 : 0;
  return count;
}

TEST(BlockScanner, BlockBetweenTextGivesTextBlockText) {
  std::string body = crlf({"Here it is:", "begin 644 a.txt", "M86)C", "`", "end", "bye"});
  Scan_result r = scan_text(body);
  ASSERT_TRUE(r.found);
  ASSERT_EQ(r.records.size(), 3u);

  const Smtp_block_record& before = r.records[0];
  EXPECT_EQ(before.name, "text");
  EXPECT_EQ(before.data_start, 0u);
  EXPECT_EQ(before.end_position, 13u);
  EXPECT_TRUE(before.closed);
  EXPECT_FALSE(before.encoded);

  const Smtp_block_record& block = r.records[1];
  EXPECT_EQ(block.name, "a.txt");
  EXPECT_EQ(block.begin_position, 13u);
  EXPECT_EQ(block.data_start, 30u);
  EXPECT_EQ(block.end_position, body.find("end\r\n"));
  EXPECT_EQ(block.section, 1u);
  EXPECT_EQ(block.column, 0u);
  EXPECT_TRUE(block.open && block.closed && block.encoded);

  const Smtp_block_record& after = r.records[2];
  EXPECT_EQ(after.name, "text");
  EXPECT_EQ(after.data_start, body.find("bye"));
  EXPECT_EQ(after.end_position, body.size());
}

// Which frames close, and what the queue holds afterwards.
struct Frame_case {
  const char* label;
  std::vector<std::string> lines;
  bool found;
  size_t encoded;
};

class BlockScannerFrames : public ::testing::TestWithParam<Frame_case> {};

TEST_P(BlockScannerFrames, FoundAndEncodedRecords) {
  const Frame_case& c = GetParam();
  Scan_result r = scan_text(crlf(c.lines));
  EXPECT_EQ(r.found, c.found);
  EXPECT_EQ(encoded_count(r), c.encoded);
}

const std::string pad85(85, 'x');
const std::string pad86(86, 'x');

INSTANTIATE_TEST_SUITE_P(
    Cases, BlockScannerFrames,
    ::testing::Values(
        Frame_case{"never_closes", {"begin 644 a", "M86)C", "more"}, false, 0},
        Frame_case{"frame_lines_only", {"begin 644 a", "end"}, true, 1},
        Frame_case{"empty_data_lines", {"begin 644 a", "", "", "end"}, true, 1},
        Frame_case{"sum_closes_but_is_not_found", {"begin 644 a", "M", "sum -r/size 12/34"}, false, 1},
        Frame_case{"sum_then_end", {"begin 644 a", "M", "sum 1", "end"}, true, 2},
        Frame_case{"end_then_sum", {"begin 644 a", "M", "end", "sum 1"}, true, 1},
        Frame_case{"repeated_section", {"begin 644 a", "M", "section 1 of 2"}, false, 1},
        Frame_case{"new_section_closes_nothing", {"begin 644 a", "M", "section 2 of 2", "M", "end"}, true, 1},
        Frame_case{"four_digit_mode", {"begin 6444 a", "M", "end"}, false, 0},
        Frame_case{"two_digit_mode", {"begin 64 a", "M", "end"}, false, 0},
        Frame_case{"digits_glued_to_keyword", {"begin644 a", "end"}, true, 1},
        Frame_case{"no_name", {"begin 644", "end"}, true, 1},
        Frame_case{"end_before_any_block", {"end", "begin 644 a"}, false, 0},
        Frame_case{"quoted_frame_quoted_end", {"> begin 644 a", "> M", "> end"}, true, 1},
        Frame_case{"quoted_frame_bare_end", {"> begin 644 a", "> M", "end"}, false, 0},
        Frame_case{"word_holding_end", {"begin 644 a", "M", "the legend"}, true, 1},
        Frame_case{"begin_at_85", {pad85 + "begin 644 a", pad85 + "end"}, true, 1},
        Frame_case{"begin_at_86", {pad86 + "begin 644 a", pad86 + "end"}, false, 0},
        Frame_case{"end_at_87", {"begin 644 a", std::string(87, 'x') + "end"}, true, 1},
        Frame_case{"end_at_88", {"begin 644 a", std::string(88, 'x') + "end"}, false, 0},
        Frame_case{"section_at_83", {"begin 644 a", std::string(83, 'x') + "section 1"}, false, 1},
        Frame_case{"section_at_84", {"begin 644 a", std::string(84, 'x') + "section 1"}, false, 0},
        Frame_case{"first_occurrence_only", {"begin 64 begin 644 a", "end"}, false, 0},
        Frame_case{
            "table_swallows_begin", {"see the table", "begin 644 a", std::string(70, 'q'), "end"}, false, 0}),
    [](const ::testing::TestParamInfo<Frame_case>& info) { return std::string(info.param.label); });

TEST(BlockScanner, LastEndWithoutLineEndCloses) {
  Scan_result r = scan_text("begin 644 a\r\nM\r\nend");
  EXPECT_TRUE(r.found);
  EXPECT_EQ(encoded_count(r), 1u);
}

TEST(BlockScanner, SecondBeginTurnsOpenFrameIntoText) {
  std::string body = crlf({"begin 644 first", "M", "begin 644 second", "M", "end"});
  Scan_result r = scan_text(body);
  ASSERT_TRUE(r.found);
  ASSERT_EQ(r.records.size(), 2u);
  EXPECT_EQ(r.records[0].name, "text");
  EXPECT_FALSE(r.records[0].encoded);
  EXPECT_EQ(r.records[0].begin_position, 0u);
  EXPECT_EQ(r.records[0].end_position, body.find("begin 644 second"));
  EXPECT_EQ(r.records[1].name, "second");
  EXPECT_EQ(r.records[1].begin_position, body.find("begin 644 second"));
}

TEST(BlockScanner, SectionsMoveDataStartAndOneRecordCoversAll) {
  std::string body = crlf({"begin 644 a", "M", "section 2 of 2", "M", "end"});
  Scan_result r = scan_text(body);
  ASSERT_EQ(r.records.size(), 1u);
  EXPECT_EQ(r.records[0].section, 2u);
  EXPECT_EQ(r.records[0].data_start, body.find("M\r\nend"));
}

TEST(BlockScanner, SumBeforeEndGivesTwoRecordsOfOneBlock) {
  std::string body = crlf({"begin 644 a", "M", "sum 1", "end"});
  Scan_result r = scan_text(body);
  ASSERT_EQ(r.records.size(), 2u);
  EXPECT_EQ(r.records[0].begin_position, 0u);
  EXPECT_EQ(r.records[1].begin_position, 0u);
  EXPECT_EQ(r.records[0].end_position, body.find("sum"));
  EXPECT_EQ(r.records[1].end_position, body.find("end"));
}

TEST(BlockScanner, FileNames) {
  struct Case {
    std::string line;
    std::string name;
  };
  const std::vector<Case> cases = {
      {"begin 644 plain.zip  ", "plain.zip"},
      {"begin 644 C:\\dir\\file.txt", "C"},
      {"begin 644 two words.txt", "two words.txt"},
      {"begin 644", ""},
      {"begin 644 " + std::string(300, 'n'), std::string(255, 'n')},
      {"begin 644 " + std::string(254, 'n') + "    tail", std::string(254, 'n')},
  };
  for (const auto& c : cases) {
    Scan_result r = scan_text(crlf({c.line, "end"}));
    ASSERT_EQ(r.records.size(), 1u) << c.line;
    EXPECT_EQ(r.records[0].name, c.name) << c.line;
  }
}

TEST(BlockScanner, NamelessBeginKeepsEarlierName) {
  Scan_result r = scan_text(crlf({"begin 644 kept", "end", "begin 644", "end"}));
  ASSERT_EQ(r.records.size(), 2u);
  EXPECT_EQ(r.records[1].name, "kept");
}

TEST(BlockScanner, SectionDigitRuns) {
  const std::string max99(99, '9');
  const std::string over(100, '9');
  // Within the limit the value saturates and differs from 1: a new section.
  Scan_result in_limit = scan_text(crlf({"begin 644 a", "section " + max99, "M", "end"}));
  ASSERT_EQ(in_limit.records.size(), 1u);
  EXPECT_EQ(in_limit.records[0].section, 0xFFFFFFFFu);
  // A longer run makes no section line: the data start stays behind "begin".
  Scan_result too_long = scan_text(crlf({"begin 644 a", "section " + over, "M", "end"}));
  ASSERT_EQ(too_long.records.size(), 1u);
  EXPECT_EQ(too_long.records[0].section, 1u);
  EXPECT_EQ(too_long.records[0].data_start, 13u);
  // No digits at all: no section line either.
  Scan_result none = scan_text(crlf({"begin 644 a", "section one", "end"}));
  ASSERT_EQ(none.records.size(), 1u);
  EXPECT_EQ(none.records[0].section, 1u);
}

TEST(BlockScanner, TableInBeginColumnStaysWithBlock) {
  const std::string alphabet = "+-0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  ASSERT_EQ(alphabet.size(), 64u);
  std::string body =
      crlf({"intro", "table", alphabet.substr(0, 32), alphabet.substr(32), "begin 644 x", "h", "end"});
  Scan_result r = scan_text(body);
  ASSERT_TRUE(r.found);
  ASSERT_EQ(r.records.size(), 2u);
  // The text ends where the table starts, and the table is not in it.
  EXPECT_EQ(r.records[0].end_position, body.find("table"));
  EXPECT_FALSE(r.records[0].has_table());
  EXPECT_EQ(std::string(r.records[1].table), alphabet);
  EXPECT_EQ(r.records[1].table_position, body.find("table"));

  // A table behind a quote prefix does not belong to a bare "begin" line.
  std::string quoted =
      crlf({"> table", "> " + alphabet.substr(0, 32), "> " + alphabet.substr(32), "begin 644 x", "h", "end"});
  Scan_result q = scan_text(quoted);
  ASSERT_EQ(q.records.size(), 1u);
  EXPECT_FALSE(q.records[0].has_table());
  EXPECT_EQ(q.records[0].table_position, 0u);
}

TEST(BlockScanner, TableCutShortByEndOfData) {
  // The rows run out before 64 bytes: no table, and nothing found.
  Scan_result r = scan_text(crlf({"table", "short"}));
  EXPECT_FALSE(r.found);
  EXPECT_TRUE(r.records.empty());
}

TEST(BlockScanner, LongLineEndsScan) {
  std::string body = crlf({"begin 644 a", "end", std::string(2000, 'x'), "begin 644 b", "end"});
  Scan_result r = scan_text(body);
  EXPECT_TRUE(r.found);
  ASSERT_EQ(r.records.size(), 2u);
  EXPECT_EQ(r.records[0].name, "a");
  EXPECT_EQ(r.records[1].name, "text");
  EXPECT_EQ(r.records[1].end_position, 18u + 1024u);
  EXPECT_EQ(r.stopped_at, 18u + 1024u);
}

TEST(BlockScanner, EmptyBody) {
  Scan_result r = scan_text("");
  EXPECT_FALSE(r.found);
  EXPECT_TRUE(r.records.empty());
}

}  // namespace
