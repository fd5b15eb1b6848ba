#include "reader/header_reader.h"

#include <gtest/gtest.h>

#include <random>

#include "reader/test_support.h"

namespace {

const std::string bad = "Bad-Header";

// A row's result is the name and the lines of the field read, or "!" for
// none, and where the stream was left.
TEST(ReadHeaderField, KindsAndActions) {
  const std::string ab = "A: b\r\n";
  const Row rows[] = {
      // Blank lines end a field and are not consumed.
      {"blank, no field", "\r\nA: b\r\n", "! @0"},
      {"spaces and tabs are blank", ab + " \t \r\nC: d", "A[b] @6"},
      // Name lines: the spaces behind the colon go, a tab stays; any byte
      // but white space and controls may stand in a name.
      {"name line ends field", "Subject:   hi there \r\nC: d", "Subject[hi there ] @22"},
      {"empty name as written back", ": v\r\n", "[v] @5"},
      {"tab stays in value", "A:\t x\r\n", "A[\t x] @7"},
      {"specials in name, empty value", "a.b@c:\r\n", "a.b@c[] @8"},
      {"75-byte name", rep("n", 75) + ": v\r\n", rep("n", 75) + "[v] @80"},
      {"76-byte name is other", rep("n", 76) + ": v\r\n", bad + "[" + rep("n", 76) + ": v] @81"},
      {"NUL before colon", std::string("A\0: b\r\n", 7), bad + std::string("[A\0: b]", 7) + " @7"},
      // Continuation lines.
      {"continuation opens bad", " x\r\nA: b\r\n", bad + "[ x] @4"},
      {"continuations appended", ab + " c\r\n\td\r\n", "A[b][ c][\td] @14"},
      // Colon lines: a colon in front of position 16 that is no name line.
      {"colon line opens bad", "A B: c\r\nD: e", bad + "[A B: c] @8"},
      {"colon at 15 ends field", ab + rep("x", 14) + " :y\r\n", "A[b] @6"},
      {"colon at 16 turns field bad", ab + rep("x", 15) + " :y\r\n",
       bad + "[A:b][" + rep("x", 15) + " :y] @26"},
      // Other lines; a uuencoded or PostScript start ends a header only
      // where a field would begin.
      {"begin line at head", "begin 644 f.bin\r\nA: b", "! @0"},
      {"PostScript at head", "%!ps-adobe-3.0\r\n", "! @0"},
      {"field turns bad", "A:  b\r\n c\r\nbegin 644 f\r\n", bad + "[A:b][ c][begin 644 f] @24"},
      // Bounds of a "Bad-Header": past ten lines it is a body.
      {"ten junk lines", rep("junk\r\n", 10) + "A: b", bad + rep("[junk]", 10) + " @60"},
      {"eleven junk lines", rep("junk\r\n", 11), "! @0"},
      {"ten after turning bad", ab + rep(" c\r\n", 8) + "junk\r\n",
       bad + "[A:b]" + rep("[ c]", 8) + "[junk] @44"},
      {"eleven after turning bad", ab + rep(" c\r\n", 9) + "junk\r\n", "! @0"},
      {"ordinary field is unbounded", ab + rep(" c\r\n", 20), "A[b]" + rep("[ c]", 20) + " @86"},
      // Lines that no header has: too long. (Too many bytes outside
      // printable ASCII in front of a NUL: the line scans' test below.)
      {"line of max bytes", rep("x", 1087) + "\r\n", "! @1087", smtp_not_header_line},
      {"long line behind field", ab + rep("x", 1087) + "\r\n", "A[b] @1093", smtp_not_header_line},
      {"line below max", "A: " + rep("x", 1083) + "\r\n", "A[" + rep("x", 1083) + "] @1088"},
      // End of the stream.
      {"last line without line end", ab + " c", "A[b][ c] @8"},
      {"empty stream", "", "! @0"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    // The copying and the view form read the same.
    Text_stream in(row.in), again(row.in);
    std::string name = "stale";
    std::vector<std::string> lines = {"stale"}, view_lines;
    Smtp_raw_field_view view;
    Vek_status status, view_status;
    const bool result = read_header_field(in.stream, smtp_max_header_line, name, lines, status);
    const bool view_result = read_header_field(again.stream, smtp_max_header_line, view, view_status);
    for (size_t i = 0; i < view.count(); ++i) view_lines.emplace_back(view.line(i));
    EXPECT_EQ(std::tuple((result ? name : "!") + render(lines) + at(in.stream.tell()), status.value()),
              std::tuple(row.want, row.want_status));
    EXPECT_EQ(std::tuple(
                  (view_result ? std::string(view.name) : "!") + render(view_lines) + at(again.stream.tell()),
                  view_status.value()),
              std::tuple(row.want, row.want_status));
    // A failed status on entry reads nothing.
    Text_stream third(row.in);
    Vek_status failed(vek_end_of_stream);
    EXPECT_FALSE(read_header_field(third.stream, smtp_max_header_line, name, lines, failed));
    EXPECT_TRUE(lines.empty() && failed == vek_end_of_stream && third.stream.tell() == 0);
  }
}

// The rules that differ by profile: 8-bit text and long lines, never
// control bytes; white space in front of the colon, which the obsolete
// syntax drops from the name and which otherwise makes a broken field.
TEST(ReadHeaderField, RulesOfTheProfiles) {
  Smtp_line_rules eight_bit, long_lines, obsolete;
  eight_bit.eight_bit_text = true;
  long_lines.max_line = smtp_max_lenient_header_line;
  obsolete.obsolete_field_names = true;
  const struct {
    std::string in;
    Smtp_line_rules rules;
    const char* want_name;  // "!" for no field
    uint32_t want_status = vek_ok;
  } rows[] = {
      {"A: Gr\xc3\xbc\xc3\x9f\xc3\xa9\r\n", eight_bit, "A"},
      {"A: Gr\xc3\xbc\xc3\x9f\xc3\xa9\r\n", {}, "!", smtp_not_header_line},
      {"A: \x01\x02\x03\x04\x7f\r\n", eight_bit, "!", smtp_not_header_line},
      {"A: " + rep("x", 5000) + "\r\n", long_lines, "A"},
      {"Content-Type : text/plain\r\n", obsolete, "Content-Type"},
      {"Content-Transfer-Encoding\t \t: base64\r\n", obsolete, "Content-Transfer-Encoding"},
      {"Content-Type : text/plain\r\n", {}, "Bad-Header"},
      {"two words : x\r\n", obsolete, "Bad-Header"},
      {" : x\r\n", obsolete, "Bad-Header"},
  };
  for (const auto& row : rows) {
    Text_stream in(row.in);
    std::string name;
    std::vector<std::string> lines;
    Vek_status status;
    const bool read = read_header_field(in.stream, name, lines, status, row.rules);
    EXPECT_EQ(std::tuple(read && status.ok() ? name : "!", status.value()),
              std::tuple(row.want_name, row.want_status))
        << row.in.substr(0, 30);
  }
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
      vek_trim(result);
      result += " " + line.substr(std::min(line.size(), line.find_first_not_of(" \t\r\n\v\f")));
    }
  }
  return result;
}

// Continuation lines are joined by one space; a backslash at a line end
// inside a quoted string stands for the line break. The quote count is
// carried from line to line: on random lines of the bytes that matter it
// must agree with the rule applied afresh at every step.
TEST(UnfoldFieldLines, AgreesWithRescanningOnRandomLines) {
  std::mt19937 random(1234);
  for (int round = 0; round < 20000; ++round) {
    std::vector<std::string> lines(1 + random() % 6);
    for (std::string& line : lines) {
      line.resize(random() % 6);
      for (char& c : line) c = "a \t\"\\\rx"[random() % 7];
    }
    ASSERT_EQ(unfold_field_lines(lines), naive_unfold(lines)) << render(lines);
  }
}

// A row's text is "name:value"; values that would pass column 76 are
// folded at token boundaries.
TEST(WriteHeaderField, Table) {
  const Row rows[] = {
      {"value begins with tab", "A:\tx", "A:\tx\r\n"},
      {"empty value", "A:", "A:\r\n"},
      {"bad header has no name", "Bad-Header:junk: x", " junk: x\r\n"},
      {"reaches column 76", "Subject:" + rep("a", 68), "Subject: " + rep("a", 68) + "\r\n"},
      {"one past column 76", "Subject:" + rep("a", 69), "Subject: \r\n    " + rep("a", 69) + "\r\n"},
      {"folds at column 76", "X:" + rep("word ", 19) + "word",
       "X: " + rep("word ", 14) + "\r\n    " + rep("word ", 5) + "word\r\n"},
      {"attribute stays joined", "X:a=\"" + rep("b", 80) + "\"", "X: a=\"" + rep("b", 80) + "\"\r\n"},
      {"specials spaced", "Subject:" + rep("x", 62) + " a.b (c)",
       "Subject: " + rep("x", 62) + " a . \r\n    b (c)\r\n"},
      {"untokenisable goes plain", "X:\"" + rep("q ", 50), "X: \"" + rep("q ", 50) + "\r\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const size_t colon = row.in.find(':');
    Text_output out;
    Vek_status status(vek_end_of_stream);
    write_header_field(out.stream, row.in.substr(0, colon), row.in.substr(colon + 1), true, status);
    EXPECT_EQ(std::tuple(out.text(), status.value()), std::tuple(row.want, row.want_status));
  }
  // Unasked, nothing is folded.
  Text_output out;
  write_header_field(out.stream, "A", rep("w ", 50), false, out.status);
  EXPECT_EQ(out.text(), "A: " + rep("w ", 50) + "\r\n");
}

// A line that began with ':' is a field with an empty name; written
// without its colon it would read back as text of another shape.
TEST(WriteRawField, Table) {
  const std::tuple<std::string, std::vector<std::string>, std::string> cases[] = {
      {"A", {"b", " c"}, "A: b\r\n c\r\n"},         {"A", {"\tb"}, "A:\tb\r\n"}, {"A", {""}, "A:\r\n"},
      {"Bad-Header", {"x y", "z"}, "x y\r\nz\r\n"}, {"", {"v"}, ": v\r\n"},      {"", {""}, ":\r\n"}};
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

// The line scans test sixteen bytes at a time from a line of sixteen bytes
// on. Against a byte-at-a-time model, at every offset of lines around 16
// and 32 bytes: the count of bytes outside printable ASCII up to a NUL
// (more than smtp_max_refused_bytes make no header line), and the first
// white space or control byte in front of a colon (no name line).
TEST(ReadHeaderField, LineScansAgreeWithAByteAtATimeModel) {
  const unsigned char odd[] = {0x00, 0x01, '\t', ' ', 0x7f, 0x80, 0xff};
  auto read = [](const std::string& line, std::string& name, std::string& first) {
    Text_stream in(line + "\r\n");
    std::vector<std::string> lines;
    Vek_status status;
    name = read_header_field(in.stream, smtp_max_header_line, name, lines, status) ? name : "!";
    first = lines.empty() ? "" : lines[0];
    return status.value();
  };
  for (size_t length = 1; length <= 40; ++length) {
    for (size_t offset = 0; offset < length; ++offset) {
      for (unsigned char byte : odd) {
        SCOPED_TRACE(std::to_string(length) + " bytes, " + std::to_string(byte) + " at " + std::to_string(offset));
        // A value with five copies of the byte from the offset on (fewer
        // where the line ends).
        std::string value(length, 'x');
        for (size_t k = offset; k < length && k < offset + 5; ++k) value[k] = static_cast<char>(byte);
        int refused = 0;
        size_t end = 0;
        for (; end < value.size() && value[end] != '\0'; ++end)
          refused += (static_cast<unsigned char>(value[end]) >= 127 ||
                      (static_cast<unsigned char>(value[end]) < 32 && value[end] != '\t'));
        std::string name, first;
        const uint32_t status = read("A: " + value, name, first);
        if (refused > smtp_max_refused_bytes) {
          EXPECT_EQ(status, smtp_not_header_line);
        } else {
          EXPECT_EQ(status, vek_ok);
          EXPECT_EQ(name, "A");
          // The spaces behind the colon are not part of the value.
          std::string want = value.substr(0, end);
          want.erase(0, want.find_first_not_of(' '));
          EXPECT_EQ(first, want);
        }
        // One byte in a name of `length` bytes in front of the colon.
        std::string field(length, 'n');
        field[offset] = static_cast<char>(byte);
        const bool stops = byte <= ' ' || byte == 0x7f;
        read(field + ": v", name, first);
        EXPECT_EQ(name == field, !stops);
      }
    }
  }
}

}  // namespace
