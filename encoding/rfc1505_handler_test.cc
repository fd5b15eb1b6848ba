// Messages with an "Encoding" field, opened, replaced and rebuilt through the
// host and smtp.so, as the host does it.
#include "encoding/rfc1505_handler.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "contracts/zor.h"
#include "host/test_plugins.h"
#include "manager/test_util.h"

namespace {

using smtp_test::crlf;

// A message whose "Encoding" field has `value`, with `body`.
std::string message(const std::string& value, const std::string& body) {
  return crlf({"From: a@example.org", "Subject: =?ISO-8859-1?Q?Caf=E9?=", "Encoding: " + value, ""}) + body;
}

class Rfc1505 : public ::testing::Test {
 protected:
  // Opens `bytes` through smtp.so alone with a manager that exports
  // `export_headers`; the top item must be taken by `handler` (none: "").
  void open(const std::string& bytes, std::vector<std::string> export_headers = {},
            const std::string& handler = "Smtp_rfc1505_handler") {
    tree_.reset();
    Host_options options;
    options.export_headers = std::move(export_headers);
    options.uuencode = false;
    plugins_ = std::make_unique<Test_plugins>(SMTPFM_MODULE_PATH, options);
    tree_ = plugins_->open(bytes);
    EXPECT_EQ(tree_->root().handler_name, handler) << tree_->root().failure;
  }
  // The bytes of the sub-items, in the host's order.
  std::vector<std::string> parts() {
    std::vector<std::string> result;
    for (const auto& child : tree_->root().children) result.emplace_back(child->bytes());
    return result;
  }
  Fmg_handler_base& handler() { return *tree_->root().handler; }
  Fmg_item& item() { return *tree_->root().item; }
  bool modified() {
    Vek_status status;
    return handler().is_modified(item(), status);
  }
  // Nothing to write anew: the handler's own rebuild and the host's give
  // the message as it came.
  void expect_passed_on_as_it_came() {
    EXPECT_FALSE(modified());
    Vek_status status;
    std::unique_ptr<Vek_buffer> out(handler().rebuild(item(), status));
    EXPECT_TRUE(status.ok());
    EXPECT_EQ(smtp_test::text_of(out.get()), tree_->input());
    EXPECT_EQ(host_rebuild(), tree_->input());
  }
  std::string host_rebuild() {
    std::string out, error;
    EXPECT_TRUE(tree_->rebuild(out, error)) << error;
    return out;
  }
  void replace(const std::string& path, const std::string& bytes) {
    std::string error;
    Item_node* node = tree_->find(path);
    ASSERT_NE(node, nullptr) << path;
    ASSERT_TRUE(tree_->replace(*node, bytes, error)) << error;
  }

  // The tree goes before its manager.
  std::unique_ptr<Test_plugins> plugins_;
  std::unique_ptr<Message_tree> tree_;
};

// The host gets the parts from the second on, and the first part last.
TEST_F(Rfc1505, CutsTheBodyByTheLineCounts) {
  const struct {
    const char* what;
    std::string field;
    std::string body;
    std::vector<std::string> parts;  // in the host's order
  } cases[] = {
      // clang-format off
      {"rest", "2 text, 1 uu", crlf({"a", "b", "", "c", "d"}), {crlf({"c", "d"}), crlf({"a", "b"})}},
      {"first count too big", "9 text, 3 text, 1 text", crlf({"a", "b"}), {"", "", crlf({"a", "b"})}},
      {"count of 0", "0 text, 2 text", crlf({"a", "b"}), {crlf({"a", "b"}), ""}},
      {"no blank line", "1 text, 1 text", crlf({"a", "b"}), {crlf({"b"}), crlf({"a"})}},
      {"two blank lines", "1 text, 2 text", crlf({"a", "", "", "b"}), {crlf({"", "b"}), crlf({"a"})}},
      {"last without count", "1 text, uu", crlf({"a", "", "x", "y"}), {crlf({"x", "y"}), crlf({"a"})}},
      {"no final line end", "1 text, 1 text", crlf({"a"}) + "b", {"b", crlf({"a"})}},
      {"empty body", "3 text, 2 text", "", {"", ""}},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    open(message(c.field, c.body));
    EXPECT_EQ(parts(), c.parts);
    const auto& children = tree_->root().children;
    for (size_t i = 0; i < children.size(); ++i) {
      Fmg_host_item& part = *children[i]->item;
      EXPECT_EQ(part.string_property(ZOR_ITEM_TYPE),
                i + 1 == children.size() ? ZOR_BODY_ITEM : ZOR_ATTACHMENT_ITEM);
      EXPECT_EQ(part.properties().find(ZOR_ITEM_LENGTH)->integer_value(),
                static_cast<int32_t>(c.parts[i].size()));
    }
    expect_passed_on_as_it_came();  // nothing replaced and nothing cleaned
  }
}

// Exported headers come first, as they are written, and cannot be changed.
// A bad position, and a header in place of a part, throw with the name of
// the operation; set_item leaves the status as it came.
TEST_F(Rfc1505, ExportedHeadersAreReadOnlyAndBadPositionsThrow) {
  open(message("1 text, 1 text", crlf({"a", "b"})), {"Subject", "encoding"});
  const auto& children = tree_->root().children;
  ASSERT_EQ(children.size(), 4u);
  const Fmg_host_item& subject = *children[0]->item;
  EXPECT_EQ(subject.string_property(ZOR_ITEM_TYPE), ZOR_HEADER_ITEM);
  EXPECT_EQ(subject.string_property(ZOR_ITEM_NAME), u"SUBJECT");
  EXPECT_EQ(subject.string_property(ZOR_ITEM_CHARSET), u"UNICODE");
  // Encoded words are not decoded in a message without MIME.
  EXPECT_EQ(smtp_test::wide_text_of(children[0]->buffer), u"=?ISO-8859-1?Q?Caf=E9?=");
  EXPECT_EQ(children[1]->item->string_property(ZOR_ITEM_NAME), u"ENCODING");
  EXPECT_FALSE(children[0]->taken());
  Vek_status status;
  EXPECT_FALSE(handler().can_modify_item(1, item(), status));
  EXPECT_TRUE(handler().can_modify_item(2, item(), status));
  EXPECT_TRUE(handler().can_modify_item(3, item(), status));
  smtp_test::expect_position_refused(handler(), item(), 4, "Smtp_rfc1505_handler");
  status = smtp_bad_base64;
  EXPECT_THROW(handler().set_item(0, nullptr, item(), status), std::invalid_argument);
  EXPECT_EQ(status.value(), smtp_bad_base64);
}

// A cleaned field is written anew with the real counts, under its proper
// name, with its comments, in place of every "Encoding" field; the parts
// stay as they were.
TEST_F(Rfc1505, RepairedFieldIsRewrittenWithNothingReplaced) {
  const std::string body = crlf({"a", "", "x", "y", "", "z"});
  // The last of several fields describes the body.
  open(crlf({"From: a@example.org", "ENCODING: 9 text", "X-Note: kept",
             "encoding: 1 Text;, 2 uuencode (report), 9 text", ""}) +
       body);
  EXPECT_TRUE(modified());
  const std::string fresh = "Encoding: 1 Text, 2 uuencode (report), 1 text";
  EXPECT_EQ(host_rebuild(), crlf({"From: a@example.org", fresh, "X-Note: kept", fresh, ""}) + body);
}

// A replaced part gets the count of its lines in the new field, and a line
// end if it has none; the last part gets the count of the lines it has,
// whatever the field said. Opened again, the message gives the new part
// and the others unchanged.
TEST_F(Rfc1505, ReplacedPartGetsItsCountAndALineEnd) {
  open(message("1 text (intro), 3 uuencode (attachment), uuencode",
               crlf({"a", "", "x", "y", "z", "", "u", "v"})));
  ASSERT_EQ(parts().size(), 3u);
  replace("2", "new\r\nlines");  // the first part, which the host reads last
  Vek_status status;
  EXPECT_TRUE(handler().is_item_modified(2, item(), status));
  EXPECT_FALSE(handler().is_item_modified(0, item(), status));
  const std::string rebuilt = host_rebuild();
  EXPECT_EQ(rebuilt, crlf({"From: a@example.org", "Subject: =?ISO-8859-1?Q?Caf=E9?=",
                           "Encoding: 2 text (intro), 3 uuencode (attachment), 2 uuencode", "", "new",
                           "lines", "", "x", "y", "z", "", "u", "v"}));
  open(rebuilt);
  EXPECT_EQ(parts(),
            (std::vector<std::string>{crlf({"x", "y", "z"}), crlf({"u", "v"}), crlf({"new", "lines"})}));
}

// Four lines of junk end a header early, and they open the body instead; the
// rewrite keeps them there and does not copy them into the header too.
TEST_F(Rfc1505, JunkThatEndsTheHeaderStaysInTheFirstPartOnly) {
  std::vector<std::string> header = {"From: a@example.org", "Subject: filler", "Encoding: 6 text, 1 text"};
  for (int i = 0; i < 17; ++i) header.push_back("X-Filler-" + std::to_string(i) + ": x");
  const std::string junk = crlf({"a b: 1", "a b: 2", "a b: 3", "a b: 4"});
  open(crlf(header) + junk + crlf({"", "hello", "", "next"}));
  ASSERT_EQ(parts(), (std::vector<std::string>{crlf({"next"}), junk + crlf({"", "hello"})}));
  replace("0", "other\r\n");
  EXPECT_EQ(host_rebuild(), crlf(header) + crlf({""}) + junk + crlf({"", "hello", "", "other"}));
}

// A field that was cleaned and still names no part leaves nothing to write a
// new field from: the message stays as it came rather than lose its body.
TEST_F(Rfc1505, CleanedFieldWithNoPartsKeepsTheMessage) {
  for (const auto& [field, logged] : {std::pair<const char*, bool>{"text., 3 text", true}, {".;.", false}}) {
    SCOPED_TRACE(field);  // one that does not parse, one of dots and semicolons only
    open(message(field, crlf({"a", "", "b"})), {"Encoding"});
    EXPECT_EQ(tree_->root().children.size(), 1u);  // the exported field only
    EXPECT_EQ(tree_->root().item->has_log(33), logged);
    expect_passed_on_as_it_came();
  }
}

TEST_F(Rfc1505, EncodingFieldWithoutValueIsAFaultOfTheCaller) {
  open(message("", crlf({"a"})), {}, "");
  EXPECT_NE(tree_->root().failure.find("Smtp_rfc1505_handler::set_data - lost the Encoding header field."),
            std::string::npos)
      << tree_->root().failure;
  EXPECT_EQ(host_rebuild(), tree_->input());
}

}  // namespace
