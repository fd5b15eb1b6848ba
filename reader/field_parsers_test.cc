#include "reader/field_parsers.h"

#include <gtest/gtest.h>

#include "reader/test_support.h"

namespace {

// A value and what it parses into, "type/subtype;name=value|...", or
// "disposition;name=value|...".
struct Case {
  std::string in, want;
  uint32_t want_status = vek_ok;
};

TEST(ParseContentType, Table) {
  const uint32_t bad = smtp_bad_content_type;
  const Case cases[] = {
      // The head; names and values keep their case.
      {"Text/HTML", "Text/HTML;"},
      {" text / plain ; (c) charset = x (c)", "text/plain;charset=x|"},
      {"text", "/;", bad},
      {"text plain x", "text/;", bad},
      {"/plain; a=b", "/;", bad},
      {"text/\"plain\"", "text/;", bad},
      {"text/plain (open", "/;", bad},
      // Separators and the shape of a parameter; what was read in front of
      // a failure stays.
      {"text/plain;;; charset=x;; a=b", "text/plain;charset=x|a=b|"},
      {"text/plain; charset=x;", "text/plain;charset=x|", bad},
      {"text/plain charset=x", "text/plain;", bad},
      {"text/plain; charset", "text/plain;", bad},
      {"text/plain; charset=", "text/plain;", bad},
      {"text/plain; =x", "text/plain;", bad},
      // Values: quoted, domain literal, atoms joined by one space; an
      // unquoted value that runs into a tspecial is dropped.
      {"a/b; name=\"x \\\"y\\\" z\"", "a/b;name=x \"y\" z|"},
      {"a/b; name=[1.2.3.4]", "a/b;name=[1.2.3.4]|"},
      {"a/b; name=my file.txt", "a/b;name=my file.txt|"},
      {"a/b; name=\"x\" y; c=d", "a/b;name=x|", bad},
      // A value the lexer fails on behind the break yields nothing.
      {"a/b; name=\"x\" y; c=\"d", "/;", bad},
      {"a/b; name=x/y; c=d", "a/b;c=d|"},
      // Mailers leave tspecials in a boundary unquoted; only "boundary", in
      // that case, takes them.
      {"multipart/mixed; boundary=a=b/c?d (x) e; c=d", "multipart/mixed;boundary=a=b/c?d e|c=d|"},
      {"multipart/mixed; Boundary=a=b; c=d", "multipart/mixed;c=d|"},
      {"multipart/mixed; boundary==_a", "multipart/mixed;", bad},
  };
  for (const Case& c : cases) {
    std::string type = "stale", subtype = "stale";
    std::vector<Smtp_header_field> parameters = {{"stale", "x"}};
    Vek_status status;
    parse_content_type(c.in, type, subtype, parameters, status);
    EXPECT_EQ(std::tuple(type + "/" + subtype + ";" + render(parameters), status.value()),
              std::tuple(c.want, c.want_status))
        << c.in;
  }
}

TEST(ParseContentDisposition, Table) {
  const uint32_t bad = smtp_bad_content_disposition;
  const Case cases[] = {
      {"attachment", "attachment;"},
      {"inline; filename=a.txt;; size=3", "inline;filename=a.txt|size=3|"},
      // No tspecial joins an unquoted value here, not even in a boundary.
      {"attachment; filename=a/b", "attachment;filename=a|", bad},
      {"attachment; boundary=a=b", "attachment;boundary=a|", bad},
      {"", ";", bad},
      {"\"attachment\"", ";", bad},
      {"attachment; filename=\"a", ";", bad},
      {"attachment; filename=a/b \"c", ";", bad},
  };
  for (const Case& c : cases) {
    std::string disposition = "stale";
    std::vector<Smtp_header_field> parameters = {{"stale", "x"}};
    Vek_status status;
    parse_content_disposition(c.in, disposition, parameters, status);
    EXPECT_EQ(std::tuple(disposition + ";" + render(parameters), status.value()),
              std::tuple(c.want, c.want_status))
        << c.in;
  }
}

// A transfer encoding, or a Content-Type of a bare word: exactly one atom.
TEST(ParseSingleAtom, Table) {
  const std::pair<std::string, std::string> cases[] = {
      {"7bit", "7bit"}, {" Base64 (x) ", "Base64"}, {"7 bit", ""}, {"", ""}, {"\"7bit\"", ""},
      {"(x", ""},       {"text/plain", ""}};
  for (const auto& [value, want] : cases) {
    std::string encoding = "stale", type = "stale";
    Vek_status encoding_status, type_status;
    parse_transfer_encoding(value, encoding, encoding_status);
    parse_bare_content_type(value, type, type_status);
    const bool ok = !want.empty();
    EXPECT_EQ(std::tuple(encoding, type, encoding_status.value(), type_status.value()),
              std::tuple(want, want, ok ? vek_ok : smtp_bad_transfer_encoding,
                         ok ? vek_ok : smtp_content_type_not_single_word))
        << value;
  }
}

// Entries as "count:keywords:comment|...".
std::string render(const std::vector<Smtp_encoding_entry>& entries) {
  std::string out;
  for (const Smtp_encoding_entry& e : entries)
    out += std::to_string(e.line_count) + ":" + e.keywords + ":" + e.comment + "|";
  return out;
}

// Only the last entry may go without its line count.
TEST(ParseEncodingField, Table) {
  const uint32_t bad = smtp_bad_encoding_field;
  const Case cases[] = {
      {"35 Text", "35:Text:|"},
      {"10", "10::|"},
      {"Text,", "-1:Text:|"},
      {"Text (c)", "-1:Text:(c)|"},
      {"Text, 10 Text", "", bad},
      {"10 Text, Text (c),", "10:Text:|", bad},
      {"10 Text, 20 LZJU90 Text (compressed (twice)), 5 Text",
       "10:Text:|20:LZJU90 Text:(compressed (twice))|5:Text:|"},
      {"10 Text (c) 5 Text", "10:Text:(c)|5:Text:|"},
      {"99999999999 Text", "2147483647:Text:|"},
      {"(c) 10 Text", "", bad},
      {"10 a.b", "", bad},
      {"10 Text (c", "", bad},
  };
  for (const Case& c : cases) {
    std::vector<Smtp_encoding_entry> entries(1);
    Vek_status status;
    parse_encoding_field(c.in, entries, status);
    EXPECT_EQ(std::tuple(render(entries), status.value()), std::tuple(c.want, c.want_status)) << c.in;
  }
}

}  // namespace
