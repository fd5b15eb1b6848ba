#include "manager/header_export.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "manager/test_util.h"

namespace {

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

}  // namespace
