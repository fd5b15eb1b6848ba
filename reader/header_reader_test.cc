#include "reader/header_reader.h"

#include <gtest/gtest.h>

#include <random>

#include "reader/test_corpus.h"

namespace {

std::string rep(std::string_view text, int count) {
  std::string out;
  for (int i = 0; i < count; ++i) out += text;
  return out;
}

// Lines as "[first][second]".
std::string render(const std::vector<std::string>& lines) {
  std::string out;
  for (const std::string& line : lines) out += "[" + line + "]";
  return out;
}

struct Field_case {
  const char* name;
  std::string input;
  bool want_result;
  std::string want_name;
  std::string want_lines;
  uint32_t want_status;
  uint64_t want_position;
};

const std::string bad = "Bad-Header";

TEST(ReadHeaderField, KindsAndActions) {
  const Field_case cases[] = {
      // Blank lines end a field and are not consumed.
      {"blank, no field", "\r\nA: b\r\n", false, "", "", vek_ok, 0},
      {"blank ends field", "A: b\r\n\r\nC: d", true, "A", "[b]", vek_ok, 6},
      {"spaces and tabs are blank", "A: b\r\n \t \r\nC: d", true, "A", "[b]", vek_ok, 6},
      // Name lines.
      {"spaces behind colon dropped", "Subject:   hi there \r\n", true, "Subject", "[hi there ]", vek_ok, 22},
      {"name line ends field", "A: b\r\nC: d\r\n", true, "A", "[b]", vek_ok, 6},
      {"empty name", ":v\r\n", true, "", "[v]", vek_ok, 4},
      {"empty name as written back", ": v\r\n", true, "", "[v]", vek_ok, 5},
      {"tab stays in value", "A:\t x\r\n", true, "A", "[\t x]", vek_ok, 7},
      {"nothing behind colon", "A:\r\n", true, "A", "[]", vek_ok, 4},
      {"specials in name", "a.b@c: v\r\n", true, "a.b@c", "[v]", vek_ok, 10},
      {"75-byte name", rep("n", 75) + ": v\r\n", true, rep("n", 75), "[v]", vek_ok, 80},
      {"76-byte name is other", rep("n", 76) + ": v\r\n", true, bad, "[" + rep("n", 76) + ": v]", vek_ok, 81},
      {"NUL ends value", std::string("A: b\0c\r\n", 8), true, "A", "[b]", vek_ok, 8},
      {"NUL before colon", std::string("A\0: b\r\n", 7), true, bad, std::string("[A\0: b]", 7), vek_ok, 7},
      // Continuation lines.
      {"continuation opens bad", " x\r\nA: b\r\n", true, bad, "[ x]", vek_ok, 4},
      {"continuations appended", "A: b\r\n c\r\n\td\r\n", true, "A", "[b][ c][\td]", vek_ok, 14},
      // Colon lines: a colon in front of position 16 that is no name line.
      {"colon line opens bad", "A B: c\r\nD: e", true, bad, "[A B: c]", vek_ok, 8},
      {"colon line ends field", "A: b\r\nA B: c\r\n", true, "A", "[b]", vek_ok, 6},
      {"colon at 15 ends field", "A: b\r\n" + rep("x", 14) + " :y\r\n", true, "A", "[b]", vek_ok, 6},
      {"colon at 16 turns field bad", "A: b\r\n" + rep("x", 15) + " :y\r\n", true, bad,
       "[A:b][" + rep("x", 15) + " :y]", vek_ok, 26},
      // Other lines.
      {"other opens bad", "hello world\r\nA: b", true, bad, "[hello world]", vek_ok, 13},
      {"begin line at head", "begin 644 f.bin\r\nA: b", false, "", "", vek_ok, 0},
      {"PostScript at head", "%!ps-adobe-3.0\r\n", false, "", "", vek_ok, 0},
      {"begin line behind field is text", "A: b\r\nbegin 644 f\r\n", true, bad, "[A:b][begin 644 f]", vek_ok,
       19},
      {"field turns bad", "A:  b\r\n c\r\nhello\r\n", true, bad, "[A:b][ c][hello]", vek_ok, 18},
      // Bounds of a "Bad-Header".
      {"ten junk lines", rep("junk\r\n", 10) + "A: b", true, bad, rep("[junk]", 10), vek_ok, 60},
      {"eleven junk lines", rep("junk\r\n", 11), false, "", "", vek_ok, 0},
      {"ten elements after turning bad", "A: b\r\n" + rep(" c\r\n", 8) + "junk\r\n", true, bad,
       "[A:b]" + rep("[ c]", 8) + "[junk]", vek_ok, 44},
      {"eleven elements after turning bad", "A: b\r\n" + rep(" c\r\n", 9) + "junk\r\n", false, "", "", vek_ok,
       0},
      {"ordinary field is unbounded", "A: b\r\n" + rep(" c\r\n", 20), true, "A", "[b]" + rep("[ c]", 20),
       vek_ok, 86},
      // Lines that no header has.
      {"line of max bytes", rep("x", 1087) + "\r\n", false, "", "", smtp_not_header_line, 1087},
      {"long line behind field", "A: b\r\n" + rep("x", 1087) + "\r\n", true, "A", "[b]", smtp_not_header_line,
       1093},
      {"line below max", "A: " + rep("x", 1083) + "\r\n", true, "A", "[" + rep("x", 1083) + "]", vek_ok,
       1088},
      {"four 8-bit bytes", "A: \xe4\xf6\xfc\xdf\r\n", true, "A", "[\xe4\xf6\xfc\xdf]", vek_ok, 9},
      {"five 8-bit bytes", "A: \x01\xf6\xfc\xdf\x7f\r\n", false, "", "", smtp_not_header_line, 10},
      {"bytes behind NUL not counted", std::string("A: b\0\xe4\xf6\xfc\xdf\xe9\r\n", 12), true, "A", "[b]",
       vek_ok, 12},
      // End of the stream.
      {"last line without line end", "A: b\r\n c", true, "A", "[b][ c]", vek_ok, 8},
      {"empty stream", "", false, "", "", vek_ok, 0},
  };
  for (const Field_case& c : cases) {
    Text_stream in(c.input);
    std::string name = "stale";
    std::vector<std::string> lines = {"stale"};
    Vek_status status;
    const bool result = read_header_field(in.stream, smtp_max_header_line, name, lines, status);
    EXPECT_EQ(result, c.want_result) << c.name;
    if (result) {
      EXPECT_EQ(name, c.want_name) << c.name;
    }
    EXPECT_EQ(render(lines), c.want_lines) << c.name;
    EXPECT_EQ(status.value(), c.want_status) << c.name;
    EXPECT_EQ(in.stream.tell(), c.want_position) << c.name;

    // The view form reads the same.
    Text_stream again(c.input);
    Smtp_raw_field_view view;
    Vek_status view_status;
    EXPECT_EQ(read_header_field(again.stream, smtp_max_header_line, view, view_status), result) << c.name;
    std::vector<std::string> view_lines;
    for (size_t i = 0; i < view.count(); ++i) view_lines.emplace_back(view.line(i));
    EXPECT_EQ(render(view_lines), c.want_lines) << c.name;
    if (result) {
      EXPECT_EQ(view.name, c.want_name) << c.name;
    }
  }
}

TEST(ReadHeaderField, FailedStatusOnEntry) {
  Text_stream in("A: b\r\n");
  std::string name;
  std::vector<std::string> lines = {"stale"};
  Vek_status status(vek_end_of_stream);
  EXPECT_FALSE(read_header_field(in.stream, smtp_max_header_line, name, lines, status));
  EXPECT_TRUE(lines.empty());
  EXPECT_EQ(status.value(), vek_end_of_stream);
  EXPECT_EQ(in.stream.tell(), 0u);
}

TEST(IsBeginLine, Table) {
  const std::pair<const char*, bool> cases[] = {
      {"begin 644 file.bin", true}, {"begin644", true},    {"begin \t 755", true}, {"xbegin 644 f", true},
      {"begin 6444 f", false},      {"begin 64 f", false}, {"Begin 644 f", false}, {"begin x 644", false},
      {"begin a begin 644", false}, {"begin 644x", true},
  };
  for (const auto& [line, want] : cases) EXPECT_EQ(is_begin_line(line), want) << line;
}

// The value as the unfolding rule states it, rescanning all at every step.
std::string naive_unfold(const std::vector<std::string>& lines) {
  std::string result;
  for (const std::string& line : lines) {
    if (result.empty()) {
      result = line;
    } else if (result.back() == '\\' && in_quoted_string(result, result.size() - 1)) {
      result.back() = '\r';
      result += "\n" + (line.empty() ? std::string() : line.substr(1));
    } else {
      std::string rest = line;
      rest.erase(0, rest.find_first_not_of(" \t\r\n\v\f") == std::string::npos
                        ? rest.size()
                        : rest.find_first_not_of(" \t\r\n\v\f"));
      vek_trim(result);
      result += " " + rest;
    }
  }
  return result;
}

TEST(UnfoldFieldLines, Table) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{}, ""},
      {{"a"}, "a"},
      {{"", "  b"}, "  b"},
      {{"a  ", "  \tb", " c"}, "a b c"},
      {{" \tx", " y"}, "x y"},
      {{"\"x\\", " y\""}, "\"x\r\ny\""},
      {{"a\\", " b"}, "a\\ b"},
      {{"\"a\\\"b\\", " c"}, "\"a\\\"b\r\nc"},
      {{"\"a\\", " b\\", " c\""}, "\"a\r\nb\r\nc\""},
      {{"\"a\" \"b\\", "xc"}, "\"a\" \"b\r\nc"},
  };
  for (const auto& [lines, want] : cases) EXPECT_EQ(unfold_field_lines(lines), want) << render(lines);
}

TEST(UnfoldFieldLines, AgreesWithRescanningOnRandomLines) {
  std::mt19937 random(1234);
  const char alphabet[] = {'a', ' ', '\t', '"', '\\', '\r', 'x'};
  for (int round = 0; round < 20000; ++round) {
    std::vector<std::string> lines(1 + random() % 6);
    for (std::string& line : lines) {
      line.resize(random() % 6);
      for (char& c : line) c = alphabet[random() % sizeof(alphabet)];
    }
    ASSERT_EQ(unfold_field_lines(lines), naive_unfold(lines)) << render(lines);
  }
}

struct Write_case {
  const char* name;
  std::string field;
  std::string value;
  bool fold;
  std::string want;
};

TEST(WriteHeaderField, Table) {
  const Write_case cases[] = {
      {"plain", "Subject", "hi", true, "Subject: hi\r\n"},
      {"value begins with tab", "A", "\tx", false, "A:\tx\r\n"},
      {"empty value", "A", "", true, "A:\r\n"},
      {"no fold asked", "A", rep("w ", 50), false, "A: " + rep("w ", 50) + "\r\n"},
      {"bad header has no name", "Bad-Header", "junk: x", true, " junk: x\r\n"},
      {"reaches column 76", "Subject", rep("a", 68), true, "Subject: " + rep("a", 68) + "\r\n"},
      {"one past column 76", "Subject", rep("a", 69), true, "Subject: \r\n    " + rep("a", 69) + "\r\n"},
      {"folds at column 76", "X", rep("word ", 19) + "word", true,
       "X: " + rep("word ", 14) + "\r\n    " + rep("word ", 5) + "word\r\n"},
      {"attribute stays joined", "X", "a=\"" + rep("b", 80) + "\"", true,
       "X: a=\"" + rep("b", 80) + "\"\r\n"},
      {"specials spaced", "Subject", rep("x", 62) + " a.b (c)", true,
       "Subject: " + rep("x", 62) + " a . \r\n    b (c)\r\n"},
      {"untokenisable goes plain", "X", "\"" + rep("q ", 50), true, "X: \"" + rep("q ", 50) + "\r\n"},
  };
  for (const Write_case& c : cases) {
    Text_output out;
    Vek_status status(vek_end_of_stream);
    write_header_field(out.stream, c.field, c.value, c.fold, status);
    EXPECT_TRUE(status.ok()) << c.name;
    EXPECT_EQ(out.text(), c.want) << c.name;
  }
}

TEST(WriteRawField, Table) {
  const std::tuple<std::string, std::vector<std::string>, std::string> cases[] = {
      {"A", {"b"}, "A: b\r\n"},
      {"A", {"\tb"}, "A:\tb\r\n"},
      {"A", {""}, "A:\r\n"},
      {"A", {"b", " c"}, "A: b\r\n c\r\n"},
      {"Bad-Header", {"x y", "z"}, "x y\r\nz\r\n"},
      {"", {"v"}, ": v\r\n"},  // the colon of an empty name stays
      {"", {""}, ":\r\n"},
  };
  for (const auto& [name, lines, want] : cases) {
    Text_output out;
    Vek_status status;
    write_raw_field(out.stream, name, lines, status);
    EXPECT_TRUE(status.ok());
    EXPECT_EQ(out.text(), want) << name << render(lines);
  }
}

// A real field named exactly "Bad-Header" is read as the pseudo field and
// goes out without its name; read again, its value is a line of junk that
// turns the field in front of it bad.
TEST(HeaderRoundTrip, RealBadHeaderFieldLosesItsName) {
  Text_stream in("Date: Tue\r\nBad-Header: <id>\r\n\r\n");
  Text_output out;
  std::string name;
  std::vector<std::string> lines;
  Vek_status status;
  while (read_header_field(in.stream, smtp_max_header_line, name, lines, status) && status.ok())
    write_raw_field(out.stream, name, lines, out.status);
  ASSERT_EQ(out.text(), "Date: Tue\r\n<id>\r\n");

  Text_stream again(out.text());
  ASSERT_TRUE(read_header_field(again.stream, smtp_max_header_line, name, lines, status));
  EXPECT_EQ(name, "Bad-Header");
  EXPECT_EQ(lines, (std::vector<std::string>{"Date:Tue", "<id>"}));
}

// The text with the spaces behind its first colon taken out.
std::string without_space_behind_colon(std::string text) {
  const size_t colon = text.find(':');
  if (colon == std::string::npos) return text;
  const size_t end = text.find_first_not_of(' ', colon + 1);
  text.erase(colon + 1, (end == std::string::npos ? text.size() : end) - colon - 1);
  return text;
}

// Reading a header field by field and writing each field raw gives back
// the header, apart from the one space behind each colon.
TEST(HeaderRoundTrip, Corpus) {
  const std::vector<Corpus_message> messages = load_corpus();
  ASSERT_GT(messages.size(), 100u) << "corpus at " << corpus_dir();
  size_t fields = 0;
  for (const Corpus_message& message : messages) {
    Text_stream in(message.text);
    Text_output out;
    std::string name;
    std::vector<std::string> lines;
    Vek_status status;
    for (;;) {
      const uint64_t start = in.stream.tell();
      if (!read_header_field(in.stream, smtp_max_header_line, name, lines, status) || !status.ok()) break;
      const uint64_t written = out.stream.tell();
      write_raw_field(out.stream, name, lines, out.status);
      ASSERT_TRUE(out.status.ok());
      const std::string want = message.text.substr(start, in.stream.tell() - start);
      ASSERT_EQ(without_space_behind_colon(out.text().substr(written)), without_space_behind_colon(want))
          << message.name << ", field " << name;
      ++fields;
    }
  }
  EXPECT_GT(fields, 800u);
}

// Reading with a lookahead line reads the same fields as reading each line
// afresh, and leaves the stream at the same places.
TEST(HeaderRoundTrip, LookaheadReadsTheSame) {
  for (const Corpus_message& message : load_corpus()) {
    Text_stream plain(message.text);
    Text_stream ahead(message.text);
    Smtp_raw_field_view want, got;
    Smtp_line_lookahead lookahead;
    Vek_status want_status, got_status;
    for (;;) {
      const bool want_result = read_header_field(plain.stream, smtp_max_header_line, want, want_status);
      ASSERT_EQ(read_header_field(ahead.stream, smtp_max_header_line, got, lookahead, got_status), want_result);
      ASSERT_EQ(got_status.value(), want_status.value()) << message.name;
      ASSERT_EQ(ahead.stream.tell(), plain.stream.tell()) << message.name;
      if (!want_result || !want_status.ok()) break;
      ASSERT_EQ(got.name, want.name);
      ASSERT_EQ(unfold_field_lines(got), unfold_field_lines(want));
    }
  }
}

}  // namespace
