#include "reader/field_parsers.h"

#include <gtest/gtest.h>

namespace {

// Parameters as "name=value|...".
std::string render(const std::vector<Smtp_header_field>& parameters) {
  std::string out;
  for (const Smtp_header_field& p : parameters) out += p.name + "=" + p.value + "|";
  return out;
}

struct Content_type_case {
  std::string value;
  std::string want_type;
  std::string want_subtype;
  std::string want_parameters;
  uint32_t want_status;
};

TEST(ParseContentType, Table) {
  const uint32_t bad = smtp_bad_content_type;
  const Content_type_case cases[] = {
      // The head.
      {"text/plain", "text", "plain", "", vek_ok},
      {"Text/HTML; Charset=UTF-8", "Text", "HTML", "Charset=UTF-8|", vek_ok},
      {" text / plain ; (c) charset = x (c)", "text", "plain", "charset=x|", vek_ok},
      {"text", "", "", "", bad},
      {"text/", "", "", "", bad},
      {"text plain x", "text", "", "", bad},
      {"/plain; a=b", "", "", "", bad},
      {"text/\"plain\"", "text", "", "", bad},
      {"text/plain (open", "", "", "", bad},
      // Separators and the shape of a parameter.
      {"text/plain;;; charset=x;; a=b", "text", "plain", "charset=x|a=b|", vek_ok},
      {"text/plain; charset=x;", "text", "plain", "charset=x|", bad},
      {"text/plain;", "text", "plain", "", bad},
      {"text/plain charset=x", "text", "plain", "", bad},
      {"text/plain; charset", "text", "plain", "", bad},
      {"text/plain; charset=", "text", "plain", "", bad},
      {"text/plain; =x", "text", "plain", "", bad},
      // Values.
      {"a/b; name=\"x \\\"y\\\" z\"", "a", "b", "name=x \"y\" z|", vek_ok},
      {"a/b; name=[1.2.3.4]", "a", "b", "name=[1.2.3.4]|", vek_ok},
      {"a/b; name=my file.txt", "a", "b", "name=my file.txt|", vek_ok},
      {"a/b; name=\"x\" y; c=d", "a", "b", "name=x|", bad},
      {"a/b; name=x \"y\"; c=d", "a", "b", "c=d|", vek_ok},
      {"a/b; name=x/y; c=d", "a", "b", "c=d|", vek_ok},
      {"a/b; name=a[b]c; c=d", "a", "b", "c=d|", vek_ok},
      {"a/b; name=a[bc", "", "", "", bad},
      // Unquoted boundaries.
      {"multipart/mixed; boundary=a=b/c?d (x) e; c=d", "multipart", "mixed", "boundary=a=b/c?d e|c=d|",
       vek_ok},
      {"multipart/mixed; Boundary=a=b; c=d", "multipart", "mixed", "c=d|", vek_ok},
      {"multipart/mixed; boundary==_a", "multipart", "mixed", "", bad},
  };
  for (const Content_type_case& c : cases) {
    std::string type = "stale", subtype = "stale";
    std::vector<Smtp_header_field> parameters = {{"stale", "x"}};
    Vek_status status;
    parse_content_type(c.value, type, subtype, parameters, status);
    EXPECT_EQ(type, c.want_type) << c.value;
    EXPECT_EQ(subtype, c.want_subtype) << c.value;
    EXPECT_EQ(render(parameters), c.want_parameters) << c.value;
    EXPECT_EQ(status.value(), c.want_status) << c.value;
  }
}

TEST(ParseContentDisposition, Table) {
  const uint32_t bad = smtp_bad_content_disposition;
  const std::tuple<std::string, std::string, std::string, uint32_t> cases[] = {
      {"attachment", "attachment", "", vek_ok},
      {"inline; filename=a.txt;; size=3", "inline", "filename=a.txt|size=3|", vek_ok},
      {"attachment; filename=my file.txt", "attachment", "filename=my file.txt|", vek_ok},
      {"attachment; filename=\"a;b\"", "attachment", "filename=a;b|", vek_ok},
      {"attachment; filename=a/b", "attachment", "filename=a|", bad},
      {"attachment; boundary=a=b", "attachment", "boundary=a|", bad},
      {"attachment; filename=a \"b\"", "attachment", "filename=a|", bad},
      {"attachment;", "attachment", "", bad},
      {"", "", "", bad},
      {"\"attachment\"", "", "", bad},
      {"attachment; filename=\"a", "", "", bad},
  };
  for (const auto& [value, want, want_parameters, want_status] : cases) {
    std::string disposition = "stale";
    std::vector<Smtp_header_field> parameters;
    Vek_status status;
    parse_content_disposition(value, disposition, parameters, status);
    EXPECT_EQ(disposition, want) << value;
    EXPECT_EQ(render(parameters), want_parameters) << value;
    EXPECT_EQ(status.value(), want_status) << value;
  }
}

TEST(ParseSingleAtom, Table) {
  const std::tuple<std::string, std::string, bool> cases[] = {
      {"7bit", "7bit", true},    {" Base64 (x) ", "Base64", true},
      {"7 bit", "", false},      {"", "", false},
      {"\"7bit\"", "", false},   {"(x", "", false},
      {"text/plain", "", false}, {"x-uuencode", "x-uuencode", true},
  };
  for (const auto& [value, want, ok] : cases) {
    std::string encoding = "stale", type = "stale";
    Vek_status encoding_status, type_status;
    parse_transfer_encoding(value, encoding, encoding_status);
    parse_bare_content_type(value, type, type_status);
    EXPECT_EQ(encoding, want) << value;
    EXPECT_EQ(type, want) << value;
    EXPECT_EQ(encoding_status.value(), ok ? vek_ok : smtp_bad_transfer_encoding) << value;
    EXPECT_EQ(type_status.value(), ok ? vek_ok : smtp_content_type_not_single_word) << value;
  }
}

// Entries as "count:keywords:comment|...".
std::string render(const std::vector<Smtp_encoding_entry>& entries) {
  std::string out;
  for (const Smtp_encoding_entry& e : entries) {
    out += std::to_string(e.line_count) + ":" + e.keywords + ":" + e.comment + "|";
  }
  return out;
}

TEST(ParseEncodingField, Table) {
  const uint32_t bad = smtp_bad_encoding_field;
  const std::tuple<std::string, std::string, uint32_t> cases[] = {
      {"35 Text", "35:Text:|", vek_ok},
      {"10", "10::|", vek_ok},
      {"Text", "-1:Text:|", vek_ok},
      {"Text,", "-1:Text:|", vek_ok},
      {"Text (c)", "-1:Text:(c)|", vek_ok},
      {"10 Text, 20 LZJU90 Text (compressed (twice)), 5 Text",
       "10:Text:|20:LZJU90 Text:(compressed (twice))|5:Text:|", vek_ok},
      {"10 Text (c) 5 Text", "10:Text:(c)|5:Text:|", vek_ok},
      {"99999999999 Text", "2147483647:Text:|", vek_ok},
      {"Text, 10 Text", "", bad},
      {"10 Text, Text (c),", "10:Text:|", bad},
      {"(c) 10 Text", "", bad},
      {"10 a.b", "", bad},
      {"10 Text; 5 Text", "", bad},
      {"10 Text, ,", "10:Text:|", bad},
      {"10 \"Text\"", "", bad},
      {"10 Text (c", "", bad},
  };
  for (const auto& [value, want, want_status] : cases) {
    std::vector<Smtp_encoding_entry> entries(1);
    Vek_status status;
    parse_encoding_field(value, entries, status);
    EXPECT_EQ(render(entries), want) << value;
    EXPECT_EQ(status.value(), want_status) << value;
  }
}

}  // namespace
