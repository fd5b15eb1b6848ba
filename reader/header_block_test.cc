#include "reader/header_block.h"

#include <gtest/gtest.h>

#include <random>

#include "reader/content_type_repair.h"
#include "reader/field_parsers.h"
#include "reader/header_reader.h"
#include "reader/test_corpus.h"

namespace {

std::string rep(std::string_view text, int count) {
  std::string out;
  for (int i = 0; i < count; ++i) out += text;
  return out;
}

// `count` good fields "F0: v" ... and how they render.
std::string good(int count) {
  std::string out;
  for (int i = 0; i < count; ++i) out += "F" + std::to_string(i) + ": v\r\n";
  return out;
}
std::string good_rendered(int count) {
  std::string out;
  for (int i = 0; i < count; ++i) out += "F" + std::to_string(i) + "=v|";
  return out;
}

// Fields as "name=value|...".
std::string render(const std::vector<Smtp_header_field>& fields) {
  std::string out;
  for (const Smtp_header_field& field : fields) out += field.name + "=" + field.value + "|";
  return out;
}

bool subject_only(std::string_view name) { return vek_string_equal_nc(name, "Subject"); }

struct Block_case {
  const char* name;
  std::string input;
  Smtp_field_filter filter;
  bool want_result;
  std::string want_fields;
  uint64_t want_position;
};

// The ends of a block: a blank line, the end of the stream, a uuencoded or
// PostScript start, a long "Bad-Header", a run of bad fields, a line no
// header has, too many bad fields.
TEST(ReadHeaderBlock, Ends) {
  const std::string three_bad = "B X: 1\r\nC X: 2\r\nD X: 3\r\n";
  const std::string bad_rendered = "Bad-Header=B X: 1|Bad-Header=C X: 2|Bad-Header=D X: 3|";
  const Block_case cases[] = {
      {"blank line", "A: 1\r\nB: 2\r\n\r\nbody", nullptr, true, "A=1|B=2|", 12},
      {"end of stream, value unfolded", "A: 1\r\nB:  2\r\n c", nullptr, true, "A=1|B=2 c|", 15},
      {"empty stream", "", nullptr, false, "", 0},
      {"starts with blank", "\r\nA: 1\r\n", nullptr, false, "", 0},
      {"begin line at head", "begin 644 f\r\nA: 1\r\n", nullptr, false, "", 0},
      {"bad header of eleven lines", "A: 1\r\nB X: 2\r\n" + rep("junk\r\n", 10), nullptr, true, "A=1|", 6},
      {"four bad in a row", "A: 1\r\n" + three_bad + "E X: 4\r\n\r\n", nullptr, true, "A=1|", 6},
      {"three bad then blank", good(12) + three_bad + "\r\n", nullptr, true, good_rendered(12) + bad_rendered,
       good(12).size() + three_bad.size()},
      {"run broken by ordinary field", good(24) + three_bad + "G: 1\r\n" + three_bad, nullptr, true,
       good_rendered(24) + bad_rendered + "G=1|" + bad_rendered, good(24).size() + 2 * three_bad.size() + 6},
      {"X field keeps run going", good(12) + three_bad + "X-Y: 1\r\nE X: 4\r\n", nullptr, true,
       good_rendered(12) + bad_rendered + "X-Y=1|", good(12).size() + three_bad.size() + 8},
      {"long line loses open field", "A: 1\r\nB: 2\r\n" + rep("x", 1087), nullptr, false, "A=1|", 12 + 1087},
      {"five refused bytes", "A: 1\r\nB: 2\r\nC: \xe4\xe4\xe4\xe4\xe4\r\n", nullptr, false, "A=1|", 22},
      {"one bad in four is too many", good(3) + "D X: 4\r\n\r\n", nullptr, false,
       good_rendered(3) + "Bad-Header=D X: 4|", good(3).size() + 8},
      {"one bad in five passes", good(4) + "D X: 4\r\n\r\n", nullptr, true,
       good_rendered(4) + "Bad-Header=D X: 4|", good(4).size() + 8},
      // Classes of fields.
      {"X fields prove nothing", "X-A: 1\r\nX400-B: 2\r\n", nullptr, false, "X-A=1|X400-B=2|", 19},
      {"clock time is bad", good(4) + "12:34:56 up 3 days\r\n", nullptr, true,
       good_rendered(4) + "Bad-Header=12:34:56 up 3 days|", good(4).size() + 20},
      {"short clock time is a field", "12:34:56 ab\r\n", nullptr, true, "12=34:56 ab|", 13},
      {"field named Bad-Header is bad", good(4) + "Bad-Header: x\r\n", nullptr, true,
       good_rendered(4) + "Bad-Header=x|", good(4).size() + 15},
      {"other case is a field", "bad-header: x\r\n", nullptr, true, "bad-header=x|", 15},
      {"empty name proves a header", ":x\r\n", nullptr, true, "=x|", 4},
      // Filters.
      {"filter keeps admitted fields", "Subject: s\r\nFrom: f\r\n", subject_only, true, "Subject=s|", 21},
      {"refused bad fields stay counted", "Subject: s\r\n" + three_bad + "E X: 4\r\n\r\n", subject_only,
       false, "Subject=s|", 12},
  };
  for (const Block_case& c : cases) {
    Text_stream in(c.input);
    std::vector<Smtp_header_field> fields;
    Vek_status status(vek_end_of_stream);
    EXPECT_EQ(read_header_block(in.stream, fields, status, c.filter), c.want_result) << c.name;
    EXPECT_TRUE(status.ok()) << c.name;
    EXPECT_EQ(render(fields), c.want_fields) << c.name;
    EXPECT_EQ(in.stream.tell(), c.want_position) << c.name;
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
      {"X-", false, false},           {"x-a", true, false},    {"X-Mailer", true, false},
      {"Y-ab", false, false},         {"X400-", false, false}, {"x400-a", false, true},
      {"X400-Received", false, true},
  };
  for (const auto& [name, x, x400] : names) {
    EXPECT_EQ(is_x_field(name), x) << name;
    EXPECT_EQ(is_x400_field(name), x400) << name;
  }
  const std::tuple<const char*, const char*, bool> times[] = {
      {"12", "34:56 abcde", true},    {"12", "34:56 abcd", false},   {"1a", "34:56 abcdef", false},
      {"123", "34:56 abcdef", false}, {"12", "3a:56 abcdef", false}, {"12", "34-56 abcdef", false},
  };
  for (const auto& [name, line, want] : times) {
    EXPECT_EQ(is_time_line(name, std::vector<std::string>{line}), want) << name << ":" << line;
  }
  EXPECT_FALSE(is_time_line("12", std::vector<std::string>{}));
}

TEST(FindFieldName, Table) {
  const std::tuple<const Smtp_field_name*, const char*, bool> cases[] = {
      {smtp_message_field_names, "content-", true},     {smtp_message_field_names, "content", false},
      {smtp_message_field_names, "content-type", true}, {smtp_message_field_names, "to", true},
      {smtp_message_field_names, "tox", false},         {smtp_message_field_names, "x-", true},
      {smtp_message_field_names, "resent-from", true},  {smtp_message_field_names, "organisation", true},
      {smtp_message_field_names, "a", false},           {smtp_message_field_names, "", false},
      {smtp_message_field_names, "\xe9x-", false},      {smtp_message_field_names, "Subject", false},
      {smtp_delivery_field_names, "bad-header", true},  {smtp_delivery_field_names, "will-retry-until", true},
      {smtp_delivery_field_names, "from", false},
  };
  for (const auto& [table, name, want] : cases) EXPECT_EQ(find_field_name(table, name), want) << name;
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
  for (const auto& [names, want] : cases) {
    EXPECT_EQ(looks_like_message_header(names), want) << (names.empty() ? "" : names[0]);
  }
}

// Real headers are judged to be message headers, apart from the corpus
// messages made to be broken in the ways that the reader refuses.
TEST(LooksLikeMessageHeader, Corpus) {
  const std::vector<Corpus_message> messages = load_corpus();
  ASSERT_FALSE(messages.empty()) << "corpus at " << corpus_dir();
  const std::vector<std::string> not_headers = {
      "cpython/msg_19.txt",                                      // a digest preamble, no header
      "cpython/msg_35.txt",                                      // body text turns a field bad: 1 of 3
      "mime4j/testmsgs/malformedHeader-noheader.msg",            // no header
      "mime4j/testmsgs/malformedHeader-nocrlfcrlf.msg",          // 1 good field, 1 bad
      "mime4j/testmsgs/malformedHeaderStartsBody-noheader.msg",  // no header
      "mime4j/testmsgs/malformedHeaderStartsBody-nocrlfcrlf.msg",
      "mime4j/testmsgs/obsolete.msg",                 // white space in front of colons
      "mime4j/testmsgs/very-very-long-boundary.msg",  // a line of more than 1087 bytes
  };
  for (const Corpus_message& message : messages) {
    Text_stream in(message.text);
    std::vector<Smtp_header_field> fields;
    std::vector<std::string> names;
    Vek_status status;
    const bool block = read_header_block(in.stream, fields, status, nullptr, &names);
    const bool expected =
        std::find(not_headers.begin(), not_headers.end(), message.name) == not_headers.end();
    EXPECT_EQ(block && looks_like_message_header(names), expected) << message.name;
  }
}

TEST(SkipBlankLine, Table) {
  const std::tuple<std::string, bool, uint64_t> cases[] = {
      {"  \r\nx", true, 4}, {"\r\n", true, 2}, {"x\r\n", false, 0},
      {"", false, 0},       {"   ", false, 0}, {rep(" ", 1100) + "\r\n", true, 1087},
  };
  for (const auto& [input, want, position] : cases) {
    Text_stream in(input);
    EXPECT_EQ(skip_blank_line(in.stream), want) << input;
    EXPECT_EQ(in.stream.tell(), position) << input;
  }
}

// Random text made of the bytes that matter to the reader and the parsers
// never crashes, reads out of bounds or hangs, and a block read always
// leaves the stream inside the text.
TEST(ReaderRobustness, RandomText) {
  std::mt19937 random(822);
  const std::string alphabet = std::string("aZ09 \t\r\n:;=/\"\\()[]<>@,.?-%!\xe9\x7f") + '\0';
  for (int round = 0; round < 3000; ++round) {
    std::string text(random() % 200, ' ');
    for (char& c : text) c = alphabet[random() % alphabet.size()];
    Text_stream in(text);
    std::vector<Smtp_header_field> fields;
    std::vector<std::string> names;
    Vek_status status;
    read_header_block(in.stream, fields, status, nullptr, &names);
    ASSERT_LE(in.stream.tell(), text.size());
    looks_like_message_header(names);

    std::string type, subtype, repaired = text;
    std::vector<Smtp_header_field> parameters;
    std::vector<Smtp_encoding_entry> entries;
    repair_content_type(repaired);
    parse_content_type(repaired, type, subtype, parameters, status);
    parse_content_disposition(text, type, parameters, status);
    parse_encoding_field(text, entries, status);
    Text_output out;
    write_header_field(out.stream, "Subject", text, true, status);
    ASSERT_TRUE(status.ok());
  }
}

}  // namespace
