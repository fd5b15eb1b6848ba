#include "reader/header_block.h"

#include <gtest/gtest.h>


#include "reader/header_reader.h"
#include "reader/test_support.h"

namespace {

// `count` good fields "F0: v" ..., as text or, `rendered`, as read.
std::string good(int count, bool rendered = false) {
  std::string out;
  for (int i = 0; i < count; ++i) out += "F" + std::to_string(i) + (rendered ? "=v|" : ": v\r\n");
  return out;
}

bool subject_only(std::string_view name) { return vek_string_equal_nc(name, "Subject"); }

// The ends of a block: a blank line, the end of the stream, a long
// "Bad-Header", a run of bad fields, a line no header has, too many bad
// fields; and what each class of field proves. A row's text stands behind
// `goods` good fields; its result is "!" for a refused block or a block of
// no ordinary field, the fields kept, and where the stream was left, all
// without the good fields.
TEST(ReadHeaderBlock, Ends) {
  struct Case {
    const char* name;
    int goods;
    std::string in, want;
    Smtp_field_filter filter = nullptr;
  };
  const std::string three_bad = "B X: 1\r\nC X: 2\r\nD X: 3\r\n";
  const std::string bad3 = "Bad-Header=B X: 1|Bad-Header=C X: 2|Bad-Header=D X: 3|";
  const Case cases[] = {
      {"blank line", 0, "A: 1\r\nB: 2\r\n\r\nbody", "A=1|B=2| @12"},
      {"end of stream, value unfolded", 0, "A: 1\r\nB:  2\r\n c", "A=1|B=2 c| @15"},
      {"starts with blank", 0, "\r\nA: 1\r\n", "! @0"},
      {"bad header of eleven lines", 0, "A: 1\r\nB X: 2\r\n" + rep("junk\r\n", 10), "A=1| @6"},
      // Four bad fields in a row are a body behind a header with no blank
      // line; an ordinary field breaks a run, an X- field does not.
      {"four bad in a row", 0, "A: 1\r\n" + three_bad + "E X: 4\r\n\r\n", "A=1| @6"},
      {"three bad then blank", 12, three_bad + "\r\n", bad3 + at(24)},
      {"run broken by ordinary field", 24, three_bad + "G: 1\r\n" + three_bad, bad3 + "G=1|" + bad3 + at(54)},
      {"X field keeps run going", 12, three_bad + "X-Y: 1\r\nE X: 4\r\n", bad3 + "X-Y=1|" + at(32)},
      {"long line loses open field", 0, "A: 1\r\nB: 2\r\n" + rep("x", 1087), "!A=1| @1099"},
      // More than one field in five bad refuses the block.
      {"one bad in four is too many", 3, "D X: 4\r\n\r\n", "!Bad-Header=D X: 4| @8"},
      {"one bad in five passes", 4, "D X: 4\r\n\r\n", "Bad-Header=D X: 4| @8"},
      // Classes of fields.
      {"X fields prove nothing", 0, "X-A: 1\r\nX400-B: 2\r\n", "!X-A=1|X400-B=2| @19"},
      {"clock time is bad", 4, "12:34:56 up 3 days\r\n", "Bad-Header=12:34:56 up 3 days| @20"},
      {"field named Bad-Header is bad", 4, "Bad-Header: x\r\n", "Bad-Header=x| @15"},
      {"other case is a field", 0, "bad-header: x\r\n", "bad-header=x| @15"},
      {"empty name proves a header", 0, ":x\r\n", "=x| @4"},
      // A filter chooses the fields kept, not those counted.
      {"filter keeps admitted fields", 0, "Subject: s\r\nFrom: f\r\n", "Subject=s| @21", subject_only},
      {"refused bad fields stay counted", 0, "Subject: s\r\n" + three_bad + "E X: 4\r\n\r\n",
       "!Subject=s| @12", subject_only},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string goods = good(c.goods);
    Text_stream in(goods + c.in);
    std::vector<Smtp_header_field> fields;
    Vek_status status(vek_end_of_stream);
    const bool result = read_header_block(in.stream, fields, status, c.filter);
    std::string want = c.want;
    want.insert(want[0] == '!' ? 1 : 0, good(c.goods, true));
    EXPECT_TRUE(status.ok());
    EXPECT_EQ((result ? "" : "!") + render(fields) + at(in.stream.tell() - goods.size()), want);
  }
}

TEST(ReadHeaderBlock, AppendsAndCollectsEveryName) {
  Text_stream in("Subject: s\r\nFrom: f\r\nTo: t\r\nDate: d\r\nhh mm: x\r\n\r\n");
  std::vector<Smtp_header_field> fields = {{"Old", "o"}};
  std::vector<std::string> names;
  Vek_status status;
  EXPECT_TRUE(read_header_block(in.stream, fields, status, subject_only, &names));
  EXPECT_EQ(render(fields), "Old=o|Subject=s|");
  EXPECT_EQ(names, (std::vector<std::string>{"Subject", "From", "To", "Date", "Bad-Header"}));
}

TEST(FieldClasses, Table) {
  const std::tuple<const char*, bool, bool> names[] = {
      {"X-", false, false},    {"x-a", true, false},    {"X-Mailer", true, false},     {"Y-ab", false, false},
      {"X400-", false, false}, {"x400-a", false, true}, {"X400-Received", false, true}};
  for (const auto& [name, x, x400] : names)
    EXPECT_EQ(std::pair(is_x_field(name), is_x400_field(name)), std::pair(x, x400)) << name;
  // "hh:mm:ss" and at least three bytes more: a clock time, not a field.
  const std::tuple<const char*, const char*, bool> times[] = {
      {"12", "34:56 abcde", true},    {"12", "34:56 abcd", false},   {"1a", "34:56 abcdef", false},
      {"123", "34:56 abcdef", false}, {"12", "3a:56 abcdef", false}, {"12", "34-56 abcdef", false}};
  for (const auto& [name, line, want] : times)
    EXPECT_EQ(is_time_line(name, std::vector<std::string>{line}), want) << name << ":" << line;
  EXPECT_FALSE(is_time_line("12", std::vector<std::string>{}));
}

TEST(LooksLikeMessageHeader, Table) {
  const std::pair<std::vector<std::string>, bool> cases[] = {
      {{}, false},
      {{"From", "To", "SUBJECT"}, true},
      {{"Reporting-MTA", "Arrival-Date", "Final-Recipient", "Action", "Status"}, false},
      {{"Bad-Header", "Bad-Header", "Bad-Header", "Bad-Header"}, false},
      {{"From", "X-A", "X-B", "Foo", "Bar"}, true},
      {{"From", "Foo", "Bar", "Baz"}, false},
      {{"From", "Foo", "Bar"}, true},
      {{"From", "To", "Status", "Action", "Bad-Header"}, false},
  };
  for (const auto& [names, want] : cases)
    EXPECT_EQ(looks_like_message_header(names), want) << (names.empty() ? "" : names[0]);
}

TEST(SkipBlankLine, Table) {
  const std::tuple<std::string, bool, uint64_t> cases[] = {
      {"  \r\nx", true, 4}, {"\r\n", true, 2}, {"x\r\n", false, 0},
      {"", false, 0},       {"   ", false, 0}, {rep(" ", 1100) + "\r\n", true, 1087}};
  for (const auto& [input, want, position] : cases) {
    Text_stream in(input);
    EXPECT_EQ(skip_blank_line(in.stream), want) << input;
    EXPECT_EQ(in.stream.tell(), position) << input;
  }
}

}  // namespace
