#include "manager/header_export.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "manager/test_util.h"

namespace {

using smtp_test::wide_text_of;

// Every occurrence of a listed field becomes a record, in the order of the
// message, whatever the case of its name; nothing for an item that is no
// message.
TEST(HeaderExport, RecordsFollowTheListAndTheFields) {
  const std::vector<Smtp_header_field> subjects = {
      {"Subject", "one"}, {"From", "a@b"}, {"subject", "two"}, {"SUBJECT", "three"}};
  const std::vector<std::string> three = {"SUBJECT", "SUBJECT", "SUBJECT"};
  const struct {
    const char* what;
    std::vector<std::string> export_headers;
    bool is_message;
    std::vector<Smtp_header_field> fields;
    std::vector<std::string> names;  // of the records, in order
  } cases[] = {
      {"every occurrence", {"SUBJECT"}, true, subjects, three},
      {"listed twice, not doubled", {"SUBJECT", "SUBJECT"}, true, subjects, three},
      {"message order", {"FROM", "SUBJECT"}, true, subjects, {"SUBJECT", "FROM", "SUBJECT", "SUBJECT"}},
      {"not a message", {"SUBJECT"}, false, subjects, {}},
      {"empty list", {}, true, subjects, {}},
      {"empty value", {"SUBJECT"}, true, {{"Subject", ""}, {"Subject", "x"}}, {"SUBJECT"}},
      {"bad header",
       {"BAD-HEADER", "TO"},
       true,
       {{"Bad-Header", "junk"}, {"To", "c@d"}},
       {"BAD-HEADER", "TO"}},
      {"prefix is no match", {"X-"}, true, {{"X-Mailer", "m"}}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Smtp_item_table table;
    Vek_status status;
    export_header_fields(table, c.fields, c.export_headers, c.is_message, widen_header_value, status);
    EXPECT_TRUE(status.ok());
    std::vector<std::string> names;
    for (const auto& record : table.items) names.push_back(record->name);
    EXPECT_EQ(names, c.names);
    EXPECT_EQ(table.header_item_count, c.names.size());
    ASSERT_EQ(table.item_order.size(), c.names.size());
    for (size_t i = 0; i < table.item_order.size(); ++i) EXPECT_EQ(table.item_order[i], i);
  }
}

// The record holds the converted value as UTF-16, by the handler's own
// conversion; widening byte for byte leaves encoded words as written.
TEST(HeaderExport, RecordHoldsTheConvertedValueAsUtf16) {
  Smtp_item_table table;
  Vek_status status;
  const Smtp_header_field field = {"x-Weird", "=?ISO-8859-1?Q?Caf=E9?= \xE9"};
  export_header_field(table, field, widen_header_value, status);
  export_header_field(
      table, field, [](std::string_view value, Vek_wstring& text) { text = u"[" + vek_stow(value) + u"]"; },
      status);
  ASSERT_EQ(table.items.size(), 2u);
  EXPECT_EQ(table.items[0]->name, "X-WEIRD");
  EXPECT_EQ(wide_text_of(table.items[0]->buffer.get()), u"=?ISO-8859-1?Q?Caf=E9?= \u00E9");
  EXPECT_EQ(table.items[0]->length, 2 * 25u);
  EXPECT_EQ(table.items[0]->buffer->size(), 2 * 25u);
  EXPECT_EQ(wide_text_of(table.items[1]->buffer.get()), u"[=?ISO-8859-1?Q?Caf=E9?= \u00E9]");
}

}  // namespace
