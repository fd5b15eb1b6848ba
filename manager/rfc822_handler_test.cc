#include "manager/rfc822_handler.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "contracts/zor.h"
#include "manager/test_util.h"
#include "platform/fmg/host_item.h"

namespace {

using smtp_test::crlf;
using smtp_test::make_buffer;
using smtp_test::text_of;

const std::string header =
    crlf({"From: a@example.org", "Subject: =?ISO-8859-1?Q?Caf=E9?=", "Subject: two", ""});
const std::string intro = crlf({"Here is the file:", ""});
const std::string block = crlf({"begin 644 a.bin", "M86)C", "end", "", "Regards"});

class Rfc822Handler : public ::testing::Test {
 protected:
  void open(const std::string& message, bool is_message = true) {
    data_ = make_buffer(message);
    handler_.reset(new Smtp_rfc822_handler(export_headers_, is_message));
    handler_->set_data(data_.get(), top_, status_);
    ASSERT_TRUE(status_.ok());
  }
  // Walks all sub-items: for each, its properties in order ("name=value")
  // and its bytes.
  std::vector<std::pair<std::vector<std::u16string>, std::string>> walk() {
    std::vector<std::pair<std::vector<std::u16string>, std::string>> result;
    for (uint32_t position = 0; position != smtp_no_position && result.size() < 10;) {
      Fmg_host_item node(&top_);
      Vek_buffer* buffer = handler_->get_item(position, node, status_);
      std::vector<std::u16string> properties;
      for (const auto& p : node.properties())
        properties.push_back(p.name() + u"=" +
                             (p.type() == 0 ? p.string_value() : vek_itow(p.integer_value())));
      result.emplace_back(properties, text_of(buffer));
    }
    return result;
  }

  Fmg_host_item top_;
  Vek_status status_;
  const std::vector<std::string> export_headers_ = {"SUBJECT"};
  std::unique_ptr<Vek_memory_buffer> data_;
  std::unique_ptr<Smtp_rfc822_handler, Fmg_handler_release> handler_;
};

std::u16string length(size_t n) { return u"ItemLength=" + vek_itow(static_cast<int64_t>(n)); }

TEST_F(Rfc822Handler, SubItemsComeHeadersThenRestThenBody) {
  using P = std::vector<std::u16string>;
  open(header + intro + block);
  auto items = walk();
  ASSERT_EQ(items.size(), 4u);
  EXPECT_EQ(items[0].first,
            P({u"ItemType=HeaderItem", length(2 * 23), u"ItemName=SUBJECT", u"ItemCharset=UNICODE"}));
  EXPECT_EQ(items[0].second.size(), 2 * 23u);  // the encoded word as written, in UTF-16
  EXPECT_EQ(items[1].first[1], length(2 * 3));
  EXPECT_EQ(items[2].first, P({u"ItemType=AttachmentItem", length(block.size())}));
  EXPECT_EQ(items[2].second, block);
  EXPECT_EQ(items[3].first, P({u"ItemType=BodyItem", length(intro.size())}));
  EXPECT_EQ(items[3].second, intro);

  // An item that is no message of its own: no header records and no item
  // type, and its body is never cut.
  open(header + intro + block, false);
  items = walk();
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].first, P({length(intro.size() + block.size())}));
}

// Header records (positions 0 and 1 here) cannot be replaced, nor can a
// position behind the last.
TEST_F(Rfc822Handler, BadPositionsThrow) {
  open(header + intro + block);
  Fmg_host_item node(&top_);
  smtp_test::expect_position_refused(*handler_, node, 4, "Smtp_rfc822_handler");
  auto replacement = make_buffer("x");
  EXPECT_THROW(handler_->set_item(1, replacement.get(), node, status_), std::invalid_argument);
  EXPECT_FALSE(handler_->can_modify_item(1, node, status_));
  EXPECT_TRUE(handler_->can_modify_item(2, node, status_));
  EXPECT_TRUE(handler_->can_modify_item(3, node, status_));
}

// Unchanged, a message is copied whole, also one with nothing behind its
// header (one empty body record); a replaced body goes behind the old
// header, and an emptied rest takes the block and all behind it away.
TEST_F(Rfc822Handler, Rebuild) {
  const struct {
    std::string message;
    uint32_t position;  // replaced sub-item; smtp_no_position for none
    const char* replacement;
    std::string expected;
    bool empty_body = false;
  } cases[] = {
      {header + intro + block, smtp_no_position, "", header + intro + block},
      {"From: a@b\r\nTo: c@d\r\n", smtp_no_position, "", "From: a@b\r\nTo: c@d\r\n", true},
      {"From: a@b\r\n\r\n", smtp_no_position, "", "From: a@b\r\n\r\n", true},
      {header + intro + block, 3, "new body\r\n", header + "new body\r\n" + block},
      {header + intro + block, 2, "", header + intro},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message.substr(0, 20) + " " + std::to_string(c.position));
    open(c.message);
    EXPECT_TRUE(handler_->has_items(top_, status_));
    if (c.empty_body) {
      ASSERT_EQ(walk().size(), 1u);
      EXPECT_EQ(walk()[0].first[1], length(0));
    }
    if (c.position != smtp_no_position)
      handler_->set_item(c.position, make_buffer(c.replacement).release(), top_, status_);
    EXPECT_EQ(handler_->is_modified(top_, status_), c.position != smtp_no_position);
    std::unique_ptr<Vek_buffer> rebuilt(handler_->rebuild(top_, status_));
    EXPECT_TRUE(status_.ok());
    EXPECT_EQ(text_of(rebuilt.get()), c.expected);
    if (c.position == smtp_no_position) continue;
    EXPECT_TRUE(handler_->is_item_modified(c.position, top_, status_));
    // An unknown length reaches the host as -1.
    EXPECT_EQ(walk()[c.position].first[1], u"ItemLength=-1");
  }
}

// A record that cannot be read (here the body, given no buffer) must leave
// the rebuild failed, even when records behind it are written fine: a
// message with a hole in it must not pass for the rebuilt one.
TEST_F(Rfc822Handler, FailedRecordStaysInTheStatus) {
  open(header + intro + block);
  handler_->set_item(3, nullptr, top_, status_);
  handler_->set_item(2, make_buffer("rest\r\n").release(), top_, status_);
  std::unique_ptr<Vek_buffer> rebuilt(handler_->rebuild(top_, status_));
  ASSERT_NE(rebuilt, nullptr);
  EXPECT_FALSE(status_.ok());
}

}  // namespace
