#include "codecs/uuencode.h"

#include <gtest/gtest.h>

namespace {

TEST(Uuencode, FileNameOfTheBeginLine) {
  for (const auto& [line, name] : {std::pair<const char*, const char*>{"begin 644 report.doc", "report.doc"},
                                   {"> begin 600  my file.zip \r", "my file.zip"},
                                   {"begin 644", ""},
                                   {"no frame", ""}})
    EXPECT_EQ(uuencoded_file_name(line), name) << line;
}

TEST(Uuencode, Decode) {
  const struct {
    const char* name;
    std::string text;
    size_t column;
    std::string want;
  } cases[] = {
      {"lines up to the zero line", "#86)C\r\n#86)C\r\n`\r\nend\r\n#86)C\r\n", 0, "abcabc"},
      {"\"end\" without the zero line", "#86)C\r\nend\r\n#86)C\r\n", 0, "abc"},
      {"the length character counts", "!86)C\r\n", 0, "a"},
      {"a line cut short gives zero bits", "#86\r\n", 0, std::string("a`\0", 3)},
      {"blanks stand for zero like backquotes", "#````\r\n#    \r\n", 0, std::string(6, '\0')},
      {"quote prefix passed over", "> #86)C\r\n> `\r\n", 2, "abc"},
      {"empty lines passed over", "\r\n#86)C\n", 0, "abc"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Vek_memory_buffer buffer;
    Vek_status status;
    Vek_ostream out(&buffer, status, vek_eol_crlf);
    EXPECT_EQ(decode_uuencoded(c.text, c.column, out, status), c.want.size());
    EXPECT_TRUE(status.ok());
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.data()), buffer.size()), c.want);
  }
}

}  // namespace
