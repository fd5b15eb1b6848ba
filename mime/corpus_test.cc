// Round trips over the shared corpus of real mail. (Messages of many parts
// and deep nesting are fuzz/hostile_test.cc's.)
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

}  // namespace
