#include "encoding/block_scanner.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct Scan_result {
  bool found = false;
  std::vector<Smtp_block_record> records;
  size_t encoded = 0;
};

std::string crlf(const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& line : lines) text += line + "\r\n";
  return text;
}

Scan_result scan_text(const std::string& text, bool pass_long_lines = false) {
  Vek_raw_memory_buffer buffer(text.size(), text.data(), 0);
  Vek_status status;
  Vek_buffered_istream stream(&buffer, true, status, vek_eol_crlf);
  Smtp_block_scanner scanner(pass_long_lines);
  Scan_result result;
  result.found = scanner.scan(stream);
  while (auto record = scanner.next_block()) {
    result.encoded += record->encoded ? 1 : 0;
    result.records.push_back(*record);
  }
  return result;
}

TEST(BlockScanner, FoundAndEncodedRecords) {
  const std::string x85(85, 'x'), x86(86, 'x');
  const struct {
    const char* name;
    std::vector<std::string> lines;
    bool found;
    size_t encoded;
  } cases[] = {
      {"never closes", {"begin 644 a", "M86)C", "more"}, false, 0},
      {"frame lines only", {"begin 644 a", "", "end"}, true, 1},
      {"sum closes but is not found", {"begin 644 a", "sum -r/size 12/34"}, false, 1},
      {"sum then end", {"begin 644 a", "sum 1", "end"}, true, 2},
      {"repeated section", {"begin 644 a", "M", "section 1 of 2"}, false, 1},
      {"new section closes nothing", {"begin 644 a", "section 2 of 2", "end"}, true, 1},
      {"four digit mode", {"begin 6444 a", "end"}, false, 0},
      {"digits glued to keyword", {"begin644", "end"}, true, 1},
      {"end before any block", {"end", "begin 644 a"}, false, 0},
      {"second begin turns the open frame into text", {"begin 644 a", "begin 644 b", "end"}, true, 1},
      {"quoted frame, quoted end", {"> begin 644 a", "> end"}, true, 1},
      {"quoted frame, bare end", {"> begin 644 a", "end"}, false, 0},
      {"word holding end", {"begin 644 a", "the legend"}, true, 1},
      {"begin at 85", {x85 + "begin 644 a", x85 + "end"}, true, 1},
      {"begin at 86", {x86 + "begin 644 a", x86 + "end"}, false, 0},
      // Keywords across the 32-byte steps of the quick search for them.
      {"begin across 32", {std::string(30, 'x') + "begin 644 a", std::string(31, 'x') + "end"}, true, 1},
      {"sum across 64", {"begin 644 a", std::string(62, 'x') + "sum 1"}, false, 1},
      {"end at 87", {"begin 644 a", std::string(87, 'x') + "end"}, true, 1},
      {"end at 88", {"begin 644 a", std::string(88, 'x') + "end"}, false, 0},
      {"section at 83", {"begin 644 a", std::string(83, 'x') + "section 1"}, false, 1},
      {"section at 84", {"begin 644 a", std::string(84, 'x') + "section 1"}, false, 0},
      {"first occurrence only", {"begin 64 begin 644 a", "end"}, false, 0},
      {"table swallows begin", {"see the table", "begin 644 a", std::string(70, 'q'), "end"}, false, 0},
      {"section run over 99", {"begin 644 a", "section " + std::string(100, '1')}, false, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Scan_result r = scan_text(crlf(c.lines));
    EXPECT_EQ(r.found, c.found);
    EXPECT_EQ(r.encoded, c.encoded);
  }
}

// The quick search for keywords steps 32 bytes at a time over the whole
// body. Against what a line-by-line reading must find: a frame behind
// lines and columns of every length around the steps, filled with 8-bit
// and control bytes and with near misses of the keywords, is found where
// it begins; a keyword broken by one such byte is none.
TEST(BlockScanner, QuickSearchAgreesAtEveryOffset) {
  const std::string junk_bytes = std::string("\x80\xff\x01\x7f", 4) + '\0' + "bexntasu";
  auto junk = [&](size_t length, size_t seed) {
    std::string out;
    for (size_t i = 0; i < length; ++i) out += junk_bytes[(i * 7 + seed) % junk_bytes.size()];
    return out;
  };
  for (size_t lead = 0; lead <= 40; ++lead) {
    for (size_t column = 0; column <= 40; ++column) {
      SCOPED_TRACE("line of " + std::to_string(lead) + ", column " + std::to_string(column));
      const std::string head = junk(lead, column) + "\r\n";
      Scan_result r =
          scan_text(head + junk(column, lead) + "begin 644 a\r\nM\r\n" + junk(column, 3) + "end\r\n");
      ASSERT_TRUE(r.found);
      ASSERT_EQ(r.encoded, 1u);
      EXPECT_EQ(r.records.back().name, "a");
      EXPECT_EQ(r.records.back().begin_position, head.size());
      const std::string broken = "beg" + junk(1, column) + "in 644 a";
      EXPECT_FALSE(scan_text(head + junk(column, lead) + broken + "\r\nend\r\n").found);
    }
  }
}

TEST(BlockScanner, PositionsOfTextBlockAndText) {
  std::string body = crlf({"Here it is:", "begin 644 a.txt", "M86)C", "end", "bye"});
  Scan_result r = scan_text(body);
  ASSERT_TRUE(r.found);
  ASSERT_EQ(r.records.size(), 3u);
  EXPECT_EQ(r.records[0].name, "text");
  EXPECT_EQ(r.records[0].end_position, 13u);
  EXPECT_EQ(r.records[1].name, "a.txt");
  EXPECT_EQ(r.records[1].begin_position, 13u);
  EXPECT_EQ(r.records[1].data_start, 30u);
  EXPECT_EQ(r.records[1].end_position, body.find("end"));
  EXPECT_EQ(r.records[2].data_start, body.find("bye"));
  EXPECT_EQ(r.records[2].end_position, body.size());
}

TEST(BlockScanner, NewSectionMovesDataStart) {
  // 99 digits is the limit; the value saturates and differs from 1.
  std::string body = crlf({"begin 644 a", "section " + std::string(99, '9'), "M", "end"});
  Scan_result r = scan_text(body);
  ASSERT_EQ(r.records.size(), 1u);
  EXPECT_EQ(r.records[0].section, 0xFFFFFFFFu);
  EXPECT_EQ(r.records[0].data_start, body.find("M\r\n"));
}

TEST(BlockScanner, FileNameStopsAtForbiddenCharactersAndAt255Bytes) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"begin 644 C:\\dir\\file.txt", "C"},
      {"begin 644 two words.txt  ", "two words.txt"},
      {"begin 644 " + std::string(300, 'n'), std::string(255, 'n')},
      {"begin 644 " + std::string(254, 'n') + "    tail", std::string(254, 'n')},
  };
  for (const auto& [line, name] : cases) {
    Scan_result r = scan_text(crlf({line, "end"}));
    ASSERT_EQ(r.records.size(), 1u);
    EXPECT_EQ(r.records[0].name, name);
  }
}

TEST(BlockScanner, TableStaysWithABlockInItsColumn) {
  const std::string alphabet = "+-0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  for (const std::string prefix : {"", "> "}) {
    std::string body = crlf({"intro", prefix + "table", prefix + alphabet.substr(0, 32),
                             prefix + alphabet.substr(32), "begin 644 x", "end"});
    Scan_result r = scan_text(body);
    ASSERT_EQ(r.records.size(), 2u);
    // The text ends where the table starts; the table is the block's.
    EXPECT_EQ(r.records[0].end_position, body.find(prefix + "table"));
    EXPECT_FALSE(r.records[0].has_table());
    EXPECT_EQ(std::string(r.records[1].table), prefix.empty() ? alphabet : "");
  }
}

// A line over 1024 bytes ends the scan, unless long lines are passed: then
// the block behind it is found too.
TEST(BlockScanner, LongLineEndsTheScanUnlessPassed) {
  const std::string body = crlf({"begin 644 a", "end", std::string(2000, 'x'), "begin 644 b", "end"});
  Scan_result r = scan_text(body);
  EXPECT_TRUE(r.found);
  ASSERT_EQ(r.records.size(), 2u);
  EXPECT_EQ(r.records[1].name, "text");
  EXPECT_EQ(r.records[1].end_position, 18u + 1024u);
  r = scan_text(body, true);
  ASSERT_EQ(r.records.size(), 3u);
  EXPECT_EQ(r.records[1].end_position, body.find("begin 644 b"));
  EXPECT_EQ(r.records[2].name, "b");
}

}  // namespace
