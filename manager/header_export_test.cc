#include "manager/header_export.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "manager/test_util.h"

namespace {

using smtp_test::wide_text_of;

// Stands for the decoder of encoded words: marks what it converted.
void bracket_value(std::string_view value, Vek_wstring& text) { text = u"[" + vek_stow(value) + u"]"; }

struct Export_case {
  const char* label;
  std::vector<std::string> export_headers;
  bool is_message;
  std::vector<Smtp_header_field> fields;
  // Upper-case names of the records, in order.
  std::vector<std::string> names;
};

class HeaderExport : public ::testing::TestWithParam<Export_case> {};

TEST_P(HeaderExport, RecordsFollowTheListAndTheFields) {
  const Export_case& c = GetParam();
  Smtp_item_table table;
  Vek_status status;
  export_header_fields(table, c.fields, c.export_headers, c.is_message, widen_header_value, status);
  EXPECT_TRUE(status.ok());
  std::vector<std::string> names;
  for (const auto& record : table.items) names.push_back(record->name);
  EXPECT_EQ(names, c.names);
  EXPECT_EQ(table.header_item_count, c.names.size());
  EXPECT_EQ(table.item_order.size(), c.names.size());
  for (size_t i = 0; i < table.item_order.size(); ++i) EXPECT_EQ(table.item_order[i], i);
}

const std::vector<Smtp_header_field> three_subjects = {
    {"Subject", "one"}, {"From", "a@b"}, {"subject", "two"}, {"SUBJECT", "three"}};

INSTANTIATE_TEST_SUITE_P(
    Cases, HeaderExport,
    ::testing::Values(
        Export_case{"every_occurrence", {"SUBJECT"}, true, three_subjects, {"SUBJECT", "SUBJECT", "SUBJECT"}},
        Export_case{"listed_twice_not_doubled",
                    {"SUBJECT", "SUBJECT"},
                    true,
                    three_subjects,
                    {"SUBJECT", "SUBJECT", "SUBJECT"}},
        Export_case{"message_order",
                    {"FROM", "SUBJECT"},
                    true,
                    three_subjects,
                    {"SUBJECT", "FROM", "SUBJECT", "SUBJECT"}},
        Export_case{"not_a_message", {"SUBJECT"}, false, three_subjects, {}},
        Export_case{"empty_list", {}, true, three_subjects, {}},
        Export_case{"empty_value", {"SUBJECT"}, true, {{"Subject", ""}, {"Subject", "x"}}, {"SUBJECT"}},
        Export_case{"bad_header",
                    {"BAD-HEADER", "TO"},
                    true,
                    {{"Bad-Header", "junk"}, {"To", "c@d"}},
                    {"BAD-HEADER", "TO"}},
        Export_case{"prefix_is_not_a_match", {"X-"}, true, {{"X-Mailer", "m"}}, {}}),
    [](const ::testing::TestParamInfo<Export_case>& info) { return std::string(info.param.label); });

TEST(HeaderExportRecord, HoldsTheValueAsUtf16) {
  Smtp_item_table table;
  Vek_status status;
  export_header_field(table, {"x-Weird", "=?ISO-8859-1?Q?Caf=E9?= \xE9"}, widen_header_value, status);
  ASSERT_EQ(table.items.size(), 1u);
  const Smtp_item_record& record = *table.items[0];
  EXPECT_EQ(record.type, smtp_item_header);
  EXPECT_EQ(record.name, "X-WEIRD");
  EXPECT_EQ(record.line_count, smtp_unknown_count);
  // Encoded words stay as written; each byte is one character.
  EXPECT_EQ(wide_text_of(record.buffer.get()), u"=?ISO-8859-1?Q?Caf=E9?= \u00E9");
  EXPECT_EQ(record.length, 2 * 25u);
  EXPECT_EQ(record.buffer->size(), record.length);
}

TEST(HeaderExportRecord, UsesTheHandlersConversion) {
  Smtp_item_table table;
  Vek_status status;
  export_header_fields(table, {{"Subject", "hi"}}, {"SUBJECT"}, true, bracket_value, status);
  ASSERT_EQ(table.items.size(), 1u);
  EXPECT_EQ(wide_text_of(table.items[0]->buffer.get()), u"[hi]");
}

}  // namespace
