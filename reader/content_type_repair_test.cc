#include "reader/content_type_repair.h"

#include <gtest/gtest.h>

#include <tuple>

#include "contracts/vek.h"
#include "reader/field_parsers.h"

namespace {

// {value, repaired value, changed}; an unchanged value comes back exactly.
TEST(RepairContentType, Steps) {
  const std::tuple<std::string, std::string, bool> cases[] = {
      // Nothing to do.
      {"", "", false},
      {" \t ", " \t ", false},
      {"  text/plain; charset=us-ascii  ", "  text/plain; charset=us-ascii  ", false},
      // Bare words.
      {"UNKNOWN", "application/octet-stream", true},
      {" Text ", "text/plain", true},
      // A trailing separator; one only.
      {"text/plain;", "text/plain", true},
      {"text/plain ;;", "text/plain ;", true},
      {";", "", true},
      // The missing separator, also behind a trailing one.
      {"TEXT/plain charset=\"US-ASCII\";", "text/plain; charset=\"us-ascii\"", true},
      // A dash for '='.
      {"text/plain; Charset-US-ASCII", "text/plain; Charset=US-ASCII", true},
      // An unclosed quote; only the first place found is looked at.
      {"text/plain; charset=\"us-ascii", "text/plain; charset=us-ascii", true},
      {"text/plain; charset=\"us-ascii\"", "text/plain; charset=\"us-ascii\"", false},
      {"text/plain; charset=\"us-asciix\"", "text/plain; charset=us-asciix\"", true},
      // Wrong separators of known types, wherever they stand.
      {"Message-Delivery-Status", "Message/Delivery-Status", true},
      {"multipart/report; report-type=message-delivery-status",
       "multipart/report; report-type=message/delivery-status", true},
      {"Application\\Octet-Stream", "Application/Octet-Stream", true},
      // Application subtypes of several words.
      {"application/ms word; name=\"a b\"", "application/octet-stream; name=\"a b\"", true},
      {"Application/ x y ", "Application/octet-stream", true},
      {"application/a\tb", "application/a\tb", false},
      {"application/ab ; name=x y", "application/ab ; name=x y", false},
      // Multipart boundaries that need quotes.
      {"multipart/mixed; boundary=a.b", "multipart/mixed; boundary=\"a.b\"", true},
      {"Multipart/Mixed; BOUNDARY= Ab.C ; x=y", "Multipart/Mixed; BOUNDARY=\"Ab.C\"; x=y", true},
      {"multipart/mixed; boundary=a b", "multipart/mixed; boundary=\"a b\"", true},
      {"multipart/mixed; boundary=a-b_c=?d", "multipart/mixed; boundary=a-b_c=?d", false},
      {"multipart/mixed; boundary=\"a.b\"", "multipart/mixed; boundary=\"a.b\"", false},
      {"multipart/mixed; boundary=\"a.b", "multipart/mixed; boundary=\"\"a.b\"", true},
      {"multipart/mixed; boundary=; x=a.b", "multipart/mixed; boundary=; x=a.b", false},
      {"multipart/mixed; boundary", "multipart/mixed; boundary", false},
      {"text/plain; boundary=a.b", "text/plain; boundary=a.b", false},
  };
  for (const auto& [value, want, want_changed] : cases) {
    std::string work = value;
    EXPECT_EQ(repair_content_type(work), want_changed) << value;
    EXPECT_EQ(work, want) << value;
  }
}

// Repaired values that the parser then takes or still refuses.
TEST(RepairContentType, FeedsTheParser) {
  const std::pair<std::string, bool> cases[] = {
      {"multipart/mixed; boundary=a.b/c", true},
      {"text/plain charset=\"us-ascii\"", true},
      {"text/plain;;", false},
      {"multipart/mixed; boundary=\"a.b", false},
  };
  for (const auto& [value, parses] : cases) {
    std::string work = value;
    repair_content_type(work);
    std::string type, subtype;
    std::vector<Smtp_header_field> parameters;
    Vek_status status;
    parse_content_type(work, type, subtype, parameters, status);
    EXPECT_EQ(status.ok(), parses) << work;
  }
}

TEST(CleanEncodingField, Table) {
  const std::tuple<std::string, std::string, bool> cases[] = {
      {"10 Text, 5 LZJU90 (x)", "10 Text, 5 LZJU90 (x)", false},
      {"10 Text (a.b)", "10 Text (ab)", true},
      {"<a>@b;c:d\\\"e.[f]", "abcdef", true},
      {"", "", false},
  };
  for (const auto& [value, want, want_changed] : cases) {
    std::string work = value;
    EXPECT_EQ(clean_encoding_field(work), want_changed) << value;
    EXPECT_EQ(work, want) << value;
  }
}

}  // namespace
