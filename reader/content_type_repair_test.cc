#include "reader/content_type_repair.h"

#include <gtest/gtest.h>

#include "reader/field_parsers.h"

namespace {

TEST(RepairContentType, Steps) {
  const std::pair<std::string, std::string> repaired[] = {
      // Bare words.
      {"UNKNOWN", "application/octet-stream"},
      {" Text ", "text/plain"},
      // A trailing separator; one only.
      {"text/plain ;;", "text/plain ;"},
      {";", ""},
      // The missing separator, also behind a trailing one.
      {"TEXT/plain charset=\"US-ASCII\";", "text/plain; charset=\"us-ascii\""},
      // A dash for '='.
      {"text/plain; Charset-US-ASCII", "text/plain; Charset=US-ASCII"},
      // An unclosed quote; only the first place found is looked at.
      {"text/plain; charset=\"us-ascii", "text/plain; charset=us-ascii"},
      {"text/plain; charset=\"us-asciix\"", "text/plain; charset=us-asciix\""},
      // Wrong separators of known types, wherever they stand.
      {"multipart/report; report-type=Message-Delivery-Status",
       "multipart/report; report-type=Message/Delivery-Status"},
      {"Application\\Octet-Stream", "Application/Octet-Stream"},
      // Application subtypes of several words, which no registry knows.
      {"application/ms word; name=\"a b\"", "application/octet-stream; name=\"a b\""},
      {"Application/ x y ", "Application/octet-stream"},
      // Multipart boundaries that need quotes; an unclosed quote is quoted
      // again, and the parser still refuses it.
      {"Multipart/Mixed; BOUNDARY= Ab.C ; x=y", "Multipart/Mixed; BOUNDARY=\"Ab.C\"; x=y"},
      {"multipart/mixed; boundary=a b", "multipart/mixed; boundary=\"a b\""},
      {"multipart/mixed; boundary=\"a.b", "multipart/mixed; boundary=\"\"a.b\""},
  };
  for (const auto& [value, want] : repaired) {
    std::string work = value;
    EXPECT_TRUE(repair_content_type(work)) << value;
    EXPECT_EQ(work, want) << value;
  }
  // Values that no step touches come back exactly, white space and all.
  for (const std::string value :
       {" \t ", "  text/plain; charset=us-ascii  ", "text/plain; charset=\"us-ascii\"", "application/a\tb",
        "application/ab ; name=x y", "multipart/mixed; boundary=a-b_c=?d",
        "multipart/mixed; boundary=\"a.b\"", "multipart/mixed; boundary=; x=a.b", "multipart/mixed; boundary",
        "text/plain; boundary=a.b"}) {
    std::string work = value;
    EXPECT_FALSE(repair_content_type(work)) << value;
    EXPECT_EQ(work, value);
  }
}

// Repaired values that the parser then takes or still refuses.
TEST(RepairContentType, FeedsTheParser) {
  const std::pair<std::string, bool> cases[] = {{"multipart/mixed; boundary=a.b/c", true},
                                                {"text/plain charset=\"us-ascii\"", true},
                                                {"text/plain;;", false},
                                                {"multipart/mixed; boundary=\"a.b", false}};
  for (const auto& [value, parses] : cases) {
    std::string work = value, type, subtype;
    std::vector<Smtp_header_field> parameters;
    Vek_status status;
    repair_content_type(work);
    parse_content_type(work, type, subtype, parameters, status);
    EXPECT_EQ(status.ok(), parses) << work;
  }
}

TEST(CleanEncodingField, Table) {
  const std::pair<std::string, std::string> cases[] = {{"10 Text, 5 LZJU90 (x)", "10 Text, 5 LZJU90 (x)"},
                                                       {"10 Text (a.b)", "10 Text (a.b)"},
                                                       {"1 x. (a;(b.c)\\)d.) y.", "1 x (a;(b.c)\\)d.) y"},
                                                       {"<a>@b;c:d\\\"e.[f]", "abcdef"}};
  for (const auto& [value, want] : cases) {
    std::string work = value;
    EXPECT_EQ(clean_encoding_field(work), value != want) << value;
    EXPECT_EQ(work, want) << value;
  }
}

}  // namespace
