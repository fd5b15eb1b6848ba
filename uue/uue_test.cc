// The uuencode format manager: its decoder against Python's binascii, its
// blocks as clients find them, and uue.so through the host.
#include <gtest/gtest.h>

#include "host/test_plugins.h"
#include "uue/uuencode.h"

namespace {

std::string hex(std::string_view bytes) {
  std::string out;
  char digits[3];
  for (unsigned char c : bytes) {
    std::snprintf(digits, sizeof digits, "%02x", c);
    out += digits;
  }
  return out;
}

// Each `lines` was written by binascii.b2a_uu and `want` is what
// binascii.a2b_uu gives back (the last row: trailing blanks that a mailer
// stripped).
TEST(Uudecode, AgreesWithPythonBinascii) {
  const struct {
    const char* lines;
    const char* want;
  } cases[] = {
      {" \n", ""},
      {"!80  \n", "61"},
      {"\"86( \n", "6162"},
      {"#86)C\n", "616263"},
      {"$86)C9   \n", "61626364"},
      {"M  $\" P0%!@<(\"0H+# T.#Q 1$A,4%187&!D:&QP='A\\@(2(C)\"4F)R@I*BLL\n!+0  \n",
       "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f202122232425262728292a2b2c2d"},
      {"#    \n", "000000"},
      {"*_____________P  \n", "ffffffffffffffffffff"},
      {"$\r\n", "00000000"},
  };
  for (const auto& c : cases) EXPECT_EQ(hex(uudecode(c.lines)), c.want) << c.lines;
  const std::string bytes = "any bytes \x00\xff\r\n at all, longer than one line of forty-five bytes";
  const std::string block = uuencode_block("644", "f.bin", bytes, "\r\n");
  const auto blocks = find_uue_blocks(block);
  ASSERT_EQ(blocks.size(), 1u);
  EXPECT_EQ(uudecode(std::string_view(block).substr(blocks[0].data, blocks[0].stop - blocks[0].data)), bytes);
}

TEST(UueBlocks, FoundWhereClientsFindThem) {
  const struct {
    const char* name;
    const char* text;
    std::vector<std::string> want;  // names, "!" in front of one that no "end" closed
  } cases[] = {
      {"two blocks", "hi\nbegin 644 a.gif\n#86)C\n`\nend\ntext\nbegin 0755 b.exe\n!80\n`\nend\n", {"a.gif", "b.exe"}},
      {"cut short", "begin 644 c.zip\n#86)C\n", {"!c.zip"}},
      {"a begin line in prose", "begin 644 is how a block starts\nthen some words\n", {}},
      {"not at a line start", " begin 644 x\n#86)C\nend\n", {}},
      {"inside a line, then at a start", "say begin 644 x\nbegin 644 y\n#86)C\nend\n", {"y"}},
      {"two-digit mode", "begin 64 x\n#86)C\nend\n", {}},
      {"blank line ends the data", "begin 644 d\n#86)C\n\nend\n", {"d"}},
  };
  for (const auto& c : cases) {
    std::vector<std::string> got;
    for (const Uue_block& block : find_uue_blocks(c.text)) got.push_back((block.closed ? "" : "!") + block.name);
    EXPECT_EQ(got, c.want) << c.name;
  }
}

// The SMTP plug-in cuts a text body at its first block; uue.so opens the
// rest into the files and the text between them, and writes a replaced
// block back uuencoded under the name the host gives it.
TEST(UueManager, OpensBlocksAndWritesThemBack) {
  Host_options options;
  options.hardened = true;
  const Test_plugins plugins(std::string(SMTPFM_BIN_DIR) + "/smtp.so", options);
  ASSERT_EQ(plugins.managers.managers.size(), 2u);
  const std::string message =
      "From: a@example.org\r\nSubject: pictures\r\n\r\nHere:\r\n" + uuencode_block("644", "one.gif", "GIF89a-1", "\r\n") +
      "and\r\n" + uuencode_block("600", "two.gif", "GIF89a-2", "\r\n") + "bye\r\n";
  const auto tree = plugins.open(message);
  std::string error;
  Item_node* rest = tree->find("0");
  ASSERT_NE(rest, nullptr);
  ASSERT_EQ(rest->children.size(), 4u) << rest->handler_name;
  EXPECT_EQ(rest->item->string_property(u"FormatSubtype"), u"UUE");
  EXPECT_EQ(rest->children[0]->item->string_property(u"ItemName"), u"one.gif");
  EXPECT_EQ(rest->children[0]->bytes(), "GIF89a-1");
  EXPECT_EQ(rest->children[1]->bytes(), "and\r\n");
  EXPECT_EQ(rest->children[2]->bytes(), "GIF89a-2");
  EXPECT_EQ(rest->children[3]->bytes(), "bye\r\n");

  Item_node& two = *rest->children[2];
  two.item->set_property(u"ItemName", u"two.gif.txt");
  ASSERT_TRUE(tree->replace(two, "removed\r\n", error)) << error;
  std::string out;
  ASSERT_TRUE(tree->rebuild(out, error)) << error;
  const std::string want_rest = uuencode_block("644", "one.gif", "GIF89a-1", "\r\n") + "and\r\n" +
                                uuencode_block("600", "two.gif.txt", "removed\r\n", "\r\n") + "bye\r\n";
  EXPECT_EQ(out, "From: a@example.org\r\nSubject: pictures\r\n\r\nHere:\r\n" + want_rest);
}

// A client looks for uuencoded files in text only; an item that starts as
// binary data is refused at once, however large, unless a block stands in
// front of its first NUL byte.
TEST(UueManager, BinaryItemsHoldNoBlocks) {
  const Test_plugins plugins(std::string(SMTPFM_BIN_DIR) + "/smtp.so", Host_options{});
  const std::string block = uuencode_block("644", "a.exe", "MZ", "\n");
  const struct {
    const char* name;
    std::string text;
    bool taken;
  } cases[] = {
      {"text", "notes\n" + block, true},
      {"NUL in front", std::string("\x7f" "ELF\0\0\n", 7) + block, false},
      {"NUL behind the block", block + std::string("\0", 1), true},
      {"NUL past the probe", std::string(9000, 'x') + std::string("\0\n", 2) + block, true},
  };
  for (const auto& c : cases) {
    const auto tree = plugins.open(c.text);
    EXPECT_EQ(tree->root().taken(), c.taken) << c.name;
  }
}

}  // namespace
