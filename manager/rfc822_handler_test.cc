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
using smtp_test::wide_text_of;

using Handler_ptr = std::unique_ptr<Smtp_rfc822_handler, Fmg_handler_release>;

const std::string header = crlf(
    {"From: a@example.org", "Subject: =?ISO-8859-1?Q?Caf=E9?=", "To: b@example.org", "Subject: second", ""});
const std::string intro = crlf({"Here is the file:", ""});
const std::string block = crlf({"begin 644 a.bin", "M86)C", "`", "end", "", "Regards"});

// One sub-item as the host sees it.
struct Sub_item {
  std::u16string type;
  int32_t length;
  std::u16string name;
  std::u16string charset;
  std::string bytes;
};

class Rfc822Handler : public ::testing::Test {
 protected:
  // Opens `message` with a new handler and walks all its sub-items.
  void open(const std::string& message, std::vector<std::string> export_headers, bool is_message) {
    export_headers_ = std::move(export_headers);
    data_ = make_buffer(message);
    handler_.reset(new Smtp_rfc822_handler(export_headers_, is_message));
    handler_->set_data(data_.get(), top_, status_);
    ASSERT_TRUE(status_.ok());
  }
  std::vector<Sub_item> walk() {
    std::vector<Sub_item> result;
    uint32_t position = 0;
    while (position != smtp_no_position) {
      Fmg_host_item node(&top_);
      Vek_buffer* buffer = handler_->get_item(position, node, status_);
      const Tav_property* length = node.properties().find(ZOR_ITEM_LENGTH);
      result.push_back({node.string_property(ZOR_ITEM_TYPE), length ? length->integer_value() : -2,
                        node.string_property(ZOR_ITEM_NAME), node.string_property(ZOR_ITEM_CHARSET),
                        text_of(buffer)});
      if (result.size() > 100) break;
    }
    return result;
  }
  std::string rebuild() {
    std::unique_ptr<Vek_buffer> rebuilt(handler_->rebuild(top_, status_));
    EXPECT_TRUE(status_.ok());
    return text_of(rebuilt.get());
  }

  Fmg_host_item top_;
  Vek_status status_;
  std::vector<std::string> export_headers_;
  std::unique_ptr<Vek_memory_buffer> data_;
  Handler_ptr handler_;
};

TEST_F(Rfc822Handler, SubItemsComeHeadersThenRestThenBody) {
  open(header + intro + block, {"SUBJECT"}, true);
  std::vector<Sub_item> items = walk();
  ASSERT_EQ(items.size(), 4u);

  EXPECT_EQ(items[0].type, ZOR_HEADER_ITEM);
  EXPECT_EQ(items[0].name, u"SUBJECT");
  EXPECT_EQ(items[0].charset, u"UNICODE");
  EXPECT_EQ(items[0].length, 2 * 23);
  EXPECT_EQ(items[1].name, u"SUBJECT");
  EXPECT_EQ(items[1].length, 2 * 6);

  EXPECT_EQ(items[2].type, ZOR_ATTACHMENT_ITEM);
  EXPECT_EQ(items[2].bytes, block);
  EXPECT_EQ(items[2].length, static_cast<int32_t>(block.size()));
  EXPECT_EQ(items[2].name, u"");
  EXPECT_EQ(items[2].charset, u"");

  EXPECT_EQ(items[3].type, ZOR_BODY_ITEM);
  EXPECT_EQ(items[3].bytes, intro);
  EXPECT_EQ(items[3].length, static_cast<int32_t>(intro.size()));

  // The first header record holds the value as written, encoded word and all.
  Fmg_host_item node(&top_);
  uint32_t position = 0;
  EXPECT_EQ(wide_text_of(handler_->get_item(position, node, status_)), u"=?ISO-8859-1?Q?Caf=E9?=");
  EXPECT_EQ(position, 1u);
}

TEST_F(Rfc822Handler, PropertiesAreSetInOrder) {
  open(header + "body\r\n", {"TO"}, true);
  Fmg_host_item node(&top_);
  uint32_t position = 0;
  handler_->get_item(position, node, status_);
  std::vector<std::u16string> names;
  for (const auto& property : node.properties()) names.push_back(property->name());
  EXPECT_EQ(names,
            std::vector<std::u16string>({ZOR_ITEM_TYPE, ZOR_ITEM_LENGTH, ZOR_ITEM_NAME, ZOR_ITEM_CHARSET}));
}

TEST_F(Rfc822Handler, ItemThatIsNoMessage) {
  open(header + intro + block, {"SUBJECT", "TO"}, false);
  std::vector<Sub_item> items = walk();
  // No header records, and the body is an attachment that is never cut.
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].type, u"");
  EXPECT_EQ(items[0].bytes, intro + block);
}

TEST_F(Rfc822Handler, OnlyBody) {
  open(header + "text\r\n", {}, true);
  Fmg_host_item node(&top_);
  uint32_t position = 0;
  EXPECT_TRUE(handler_->has_items(node, status_));
  EXPECT_EQ(text_of(handler_->get_item(position, node, status_)), "text\r\n");
  EXPECT_EQ(position, smtp_no_position);
}

TEST_F(Rfc822Handler, NothingBehindTheHeader) {
  for (const std::string& message :
       {std::string("From: a@b\r\nTo: c@d\r\n"), std::string("From: a@b\r\n\r\n")}) {
    open(message, {}, true);
    std::vector<Sub_item> items = walk();
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0].length, 0);
    EXPECT_EQ(rebuild(), message);
  }
}

TEST_F(Rfc822Handler, BadPositionsThrow) {
  open(header + intro + block, {"SUBJECT"}, true);
  Fmg_host_item node(&top_);
  const uint32_t count = 4;
  auto message_of = [](auto call) {
    try {
      call();
    } catch (const std::invalid_argument& e) {
      return std::string(e.what());
    }
    return std::string("no exception");
  };
  uint32_t end = smtp_no_position;
  EXPECT_EQ(message_of([&] { handler_->get_item(end, node, status_); }),
            "Smtp_rfc822_handler::get_item - invalid position.");
  EXPECT_EQ(message_of([&] { handler_->free_item(count, node, status_); }),
            "Smtp_rfc822_handler::free_item - invalid position.");
  EXPECT_EQ(message_of([&] { handler_->can_modify_item(count, node, status_); }),
            "Smtp_rfc822_handler::can_modify_item - invalid position.");
  EXPECT_EQ(message_of([&] { handler_->is_item_modified(count, node, status_); }),
            "Smtp_rfc822_handler::is_item_modified - invalid position.");
  // Header records cannot be replaced; the buffer stays the caller's.
  for (uint32_t position : {0u, 1u, count, smtp_no_position}) {
    auto replacement = make_buffer("x");
    EXPECT_EQ(message_of([&] { handler_->set_item(position, replacement.get(), node, status_); }),
              "Smtp_rfc822_handler::set_item - invalid position.")
        << position;
  }
  EXPECT_FALSE(handler_->can_modify_item(1, node, status_));
  EXPECT_TRUE(handler_->can_modify_item(2, node, status_));
  EXPECT_TRUE(handler_->can_modify_item(3, node, status_));
}

TEST_F(Rfc822Handler, RebuildOfAnUntouchedMessageIsACopy) {
  const std::string message = header + intro + block + "no line end";
  open(message, {"SUBJECT"}, true);
  EXPECT_FALSE(handler_->is_modified(top_, status_));
  EXPECT_EQ(rebuild(), message);
}

TEST_F(Rfc822Handler, ReplacedBodyGoesBehindTheOldHeader) {
  open(header + intro + block, {"SUBJECT"}, true);
  Fmg_host_item node(&top_);
  handler_->set_item(3, make_buffer("new body\r\n").release(), node, status_);
  EXPECT_TRUE(handler_->is_modified(top_, status_));
  EXPECT_TRUE(handler_->is_item_modified(3, node, status_));
  EXPECT_FALSE(handler_->is_item_modified(2, node, status_));
  EXPECT_EQ(rebuild(), header + "new body\r\n" + block);

  // The length of a replaced item is unknown, which the host reads as -1.
  uint32_t position = 3;
  handler_->get_item(position, node, status_);
  EXPECT_EQ(node.properties().find(ZOR_ITEM_LENGTH)->integer_value(), -1);
}

TEST_F(Rfc822Handler, EmptyRestRemovesTheBlockAndAllBehindIt) {
  open(header + intro + block, {}, true);
  Fmg_host_item node(&top_);
  handler_->set_item(0, make_buffer("").release(), node, status_);
  EXPECT_EQ(rebuild(), header + intro);
}

TEST_F(Rfc822Handler, SetDataAgainStartsAfresh) {
  open(header + intro + block, {"SUBJECT"}, true);
  Fmg_host_item node(&top_);
  handler_->set_item(3, make_buffer("x").release(), node, status_);
  auto other = make_buffer("From: a@b\r\n\r\nplain\r\n");
  handler_->set_data(other.get(), top_, status_);
  EXPECT_FALSE(handler_->is_modified(top_, status_));
  std::vector<Sub_item> items = walk();
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].bytes, "plain\r\n");
}

}  // namespace
