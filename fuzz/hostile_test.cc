// Hostile inputs, at sizes that keep the sanitizer build quick: what the
// reader, the scanner and the host make of them must be exactly what the
// rules give. Their cost is measured in bench/hostile_bench.cc.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "encoding/block_scanner.h"
#include "fuzz/hostile_inputs.h"
#include "host/host.h"
#include "reader/header_block.h"
#include "reader/header_reader.h"
#include "reader/test_corpus.h"

namespace {

// One field read from the front of `text`, with its raw lines.
std::vector<std::string> raw_lines(const std::string& text, std::string& name) {
  Text_stream in(text);
  std::vector<std::string> lines;
  Vek_status status;
  EXPECT_TRUE(read_header_field(in.stream, smtp_max_header_line, name, lines, status));
  EXPECT_TRUE(status.ok());
  return lines;
}

std::vector<Smtp_header_field> header_block(const std::string& text) {
  Text_stream in(text);
  std::vector<Smtp_header_field> fields;
  Vek_status status;
  EXPECT_TRUE(read_header_block(in.stream, fields, status));
  EXPECT_TRUE(status.ok());
  return fields;
}

TEST(Hostile, ManyContinuationLines) {
  constexpr size_t n = 50000;
  const std::string text = hostile::continuation_lines(n);
  std::string name;
  const std::vector<std::string> lines = raw_lines(text, name);
  EXPECT_EQ(name, "Subject");
  ASSERT_EQ(lines.size(), n + 1);
  std::string want = "a";
  for (size_t i = 0; i < n; ++i) want += " b";
  EXPECT_TRUE(unfold_field_lines(lines) == want);
  const auto fields = header_block(text);
  ASSERT_EQ(fields.size(), 1u);
  EXPECT_TRUE(fields[0].value == want);
  // Written back raw, the field is the text as it came.
  Text_output out;
  write_raw_field(out.stream, name, lines, out.status);
  EXPECT_TRUE(out.text() == text.substr(0, text.size() - 2));
}

TEST(Hostile, BackslashLinesInAnOpenQuotedString) {
  constexpr size_t n = 50000;
  const std::string text = hostile::quoted_backslash_lines(n);
  std::string want = "\"x";
  for (size_t i = 0; i < n + 1; ++i) want += "\r\nx";
  want += "\"";
  const auto fields = header_block(text);
  ASSERT_EQ(fields.size(), 1u);
  EXPECT_TRUE(fields[0].value == want);
}

TEST(Hostile, ManyHeaderFields) {
  constexpr size_t n = 20000;
  const auto fields = header_block(hostile::many_fields(n));
  ASSERT_EQ(fields.size(), n + 2);
  EXPECT_EQ(fields[2].name, "X-Field-0");
  EXPECT_EQ(fields[n + 1].name, "X-Field-" + std::to_string((n - 1) % 1000));
  EXPECT_EQ(fields[n + 1].value, "v");
}

TEST(Hostile, ManyUuencodeFrames) {
  constexpr size_t n = 20000;
  const std::string body = hostile::uuencode_frames(n);
  Text_stream in(body);
  Smtp_block_scanner scanner;
  EXPECT_TRUE(scanner.scan(in.stream));
  ASSERT_EQ(scanner.size(), n);
  for (size_t i = 0; i < n; ++i) {
    const auto record = scanner.next_block();
    ASSERT_TRUE(record->encoded && record->closed);
    ASSERT_EQ(record->begin_position, 18 * i);
    ASSERT_EQ(record->end_position, 18 * i + 13);
  }
}

// The plug-in, loaded as the host loads it.
class Hostile_host : public testing::Test {
 protected:
  void SetUp() override {
    options_.module_path = SMTPFM_MODULE_PATH;
    std::string error;
    library_ = Plugin_library::load(options_, error);
    ASSERT_NE(library_, nullptr) << error;
    manager_.reset(library_->create_manager(options_, error));
    ASSERT_NE(manager_, nullptr) << error;
  }
  void TearDown() override { manager_.reset(); }

  // Opens `text`, checks the tree with `check`, and that the message comes
  // back as it went in.
  void open(const std::string& text, const std::function<void(Message_tree&)>& check) {
    Message_tree tree(*manager_, text, options_);
    ASSERT_TRUE(tree.root().failure.empty()) << tree.root().failure;
    check(tree);
    std::string out, error;
    ASSERT_TRUE(tree.rebuild(out, error)) << error;
    EXPECT_TRUE(out == text);
  }

  Host_options options_;
  std::unique_ptr<Plugin_library> library_;
  Manager_ptr manager_;
};

TEST_F(Hostile_host, ManyUuencodeFramesCutOnce) {
  open(hostile::uuencode_message(20000), [](Message_tree& tree) {
    ASSERT_TRUE(tree.root().taken());
    // The text in front of the first block, and everything from it on.
    size_t leaves = 0;
    tree.for_each([&](Item_node& node) { leaves += node.parent != nullptr && node.is_leaf(); });
    EXPECT_LE(leaves, 2u);
  });
}

TEST_F(Hostile_host, ManyEmptyParts) {
  constexpr size_t n = 2000;
  const std::string text = hostile::empty_parts(n);
  open(text, [&](Message_tree& tree) {
    ASSERT_TRUE(tree.root().taken());
    EXPECT_EQ(tree.root().children.size(), n);
  });
  // One part replaced: the others stay, and so does their number.
  Message_tree tree(*manager_, text, options_);
  std::string error, out;
  ASSERT_TRUE(tree.replace(*tree.find("7"), "new\r\n", error)) << error;
  ASSERT_TRUE(tree.rebuild(out, error)) << error;
  Message_tree again(*manager_, out, options_);
  EXPECT_EQ(again.root().children.size(), n);
}

TEST_F(Hostile_host, LongLines) {
  constexpr size_t n = 4 << 20;
  // In the header: no header at all, so no message.
  open(hostile::long_header_line(n), [](Message_tree& tree) { EXPECT_FALSE(tree.root().taken()); });
  // In a body, plain or quoted-printable: the line is the body.
  for (const char* encoding : {"7bit", "quoted-printable"}) {
    open(hostile::long_line(n, encoding), [&](Message_tree& tree) {
      ASSERT_TRUE(tree.root().taken()) << encoding;
      size_t longest = 0;
      tree.for_each([&](Item_node& node) {
        if (node.parent != nullptr && node.is_leaf()) longest = std::max(longest, node.bytes().size());
      });
      EXPECT_GE(longest, n) << encoding;
    });
  }
  // In Base64 the line is too long to decode: a fault of the message that
  // is logged, not a failure of the walk.
  open(hostile::long_line(n, "base64"), [](Message_tree& tree) { EXPECT_TRUE(tree.root().taken()); });
}

// The deepest node of a tree.
uint32_t depth_of(Message_tree& tree, bool& limited) {
  uint32_t deepest = 0;
  limited = false;
  tree.for_each([&](Item_node& node) {
    deepest = std::max(deepest, node.depth);
    limited = limited || node.depth_limited;
  });
  return deepest;
}

TEST_F(Hostile_host, DeepNestingStopsAtTheDepthBound) {
  for (const std::string& text : {hostile::nested_messages(20000), hostile::nested_multiparts(5000)}) {
    open(text, [&](Message_tree& tree) {
      ASSERT_TRUE(tree.root().taken());
      bool limited = false;
      EXPECT_EQ(depth_of(tree, limited), options_.max_depth + 1);
      EXPECT_TRUE(limited);
    });
  }
}

}  // namespace
