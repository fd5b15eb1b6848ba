// Round trips over the shared corpus of real mail, and messages of many
// parts and deep nesting.
#include <gtest/gtest.h>

#include "mime/test_support.h"
#include "reader/test_corpus.h"

namespace {

using mime_test::first_difference;
using mime_test::plugin;
using mime_test::summarise;

// Every leaf that its parent lets the host change is replaced with its own
// bytes, and every level is rebuilt: the tree that comes back is the same.
TEST(Corpus, ReplacingEveryLeafWithItselfKeepsTheTree) {
  const auto corpus = load_corpus();
  ASSERT_FALSE(corpus.empty()) << "no corpus at " << corpus_dir();
  size_t rebuilt = 0;
  for (const auto& message : corpus) {
    SCOPED_TRACE(message.name);
    const auto before = summarise(*plugin().open(message.text));
    auto tree = plugin().open(message.text);
    std::vector<Item_node*> leaves;
    tree->for_each([&leaves](Item_node& node) {
      if (node.parent != nullptr && node.is_leaf()) leaves.push_back(&node);
    });
    size_t replaced = 0;
    for (Item_node* leaf : leaves) {
      std::string error;
      if (!tree->can_replace(*leaf, error)) continue;
      ASSERT_TRUE(tree->replace(*leaf, std::string(leaf->bytes()), error)) << error;
      ++replaced;
    }
    std::string out, error;
    ASSERT_TRUE(tree->rebuild(out, error)) << error;
    if (replaced != 0) ++rebuilt;
    auto again = plugin().open(out);
    const auto after = summarise(*again);
    ASSERT_EQ(before.size(), after.size());
    for (size_t i = 0; i < before.size(); ++i) {
      EXPECT_EQ(before[i], after[i]) << first_difference(before[i].bytes, after[i].bytes);
    }
  }
  EXPECT_GT(rebuilt, corpus.size() / 2);
}

TEST(Large, TenThousandPartsAndDeepNesting) {
  std::string message = "MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n";
  for (int part = 0; part < 10000; ++part)
    message += "--b\r\nContent-Type: text/plain; name=p" + std::to_string(part) + "\r\n\r\npart\r\n";
  message += "--b--\r\n";
  auto tree = plugin().open(message);
  ASSERT_EQ(tree->root().children.size(), 10000u);
  EXPECT_EQ(mime_test::property(*tree->find("9998.0"), ZOR_ITEM_NAME), "p9999");

  // Two hundred levels of multipart, each holding the next: the host stops
  // opening at its depth bound, and the bytes beneath stay one leaf.
  std::string nested = "inner\r\n";
  for (int level = 0; level < 200; ++level) {
    const std::string boundary = "l" + std::to_string(level);
    nested = "Content-Type: multipart/mixed; boundary=" + boundary + "\r\n\r\n--" + boundary + "\r\n" +
             nested + "\r\n--" + boundary + "--\r\n";
  }
  auto deep = plugin().open("MIME-Version: 1.0\r\n" + nested);
  size_t limited = 0;
  deep->for_each([&limited](Item_node& node) { limited += node.depth_limited ? 1 : 0; });
  EXPECT_EQ(limited, 1u);
  std::string out, error;
  ASSERT_TRUE(deep->rebuild(out, error)) << error;
}

}  // namespace
