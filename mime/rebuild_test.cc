// Writing entities anew after the host replaced parts, level by level.
#include <gtest/gtest.h>

#include "codecs/base64.h"
#include "mime/rfc1521_handler.h"
#include "mime/test_support.h"

namespace {

using mime_test::crlf;
using mime_test::first_difference;
using mime_test::Plugin;
using mime_test::summarise;

// Replaces the nodes at `paths` with `bytes` each and rebuilds the message.
std::string rebuilt(const Plugin& plugin, const std::string& message,
                    const std::vector<std::pair<std::string, std::string>>& replacements) {
  auto tree = plugin.open(message);
  std::string error;
  for (const auto& [path, bytes] : replacements) {
    Item_node* node = tree->find(path);
    if (node == nullptr) throw std::runtime_error("no node " + path);
    if (!tree->replace(*node, bytes, error)) throw std::runtime_error(error);
  }
  std::string out;
  if (!tree->rebuild(out, error)) throw std::runtime_error(error);
  return out;
}

// The text of the leaves of a message, in walk order.
std::vector<std::string> leaves(const Plugin& plugin, const std::string& message) {
  auto tree = plugin.open(message);
  std::vector<std::string> texts;
  tree->for_each([&texts](Item_node& node) {
    if (node.parent != nullptr && node.is_leaf()) texts.emplace_back(node.bytes());
  });
  return texts;
}

const std::vector<std::string> mixed_head = {"From: a@example.org", "MIME-Version: 1.0",
                                             "Content-Type: multipart/mixed; boundary=\"outer\"", ""};

TEST(Rebuild, UnchangedIsNotModified) {
  Plugin plugin;
  const std::string message = crlf(mixed_head) + crlf({"pre", "--outer", "", "text", "--outer--", "epi"});
  auto tree = plugin.open(message);
  Vek_status status;
  EXPECT_FALSE(tree->root().handler->is_modified(*tree->root().item, status));
  std::string out, error;
  ASSERT_TRUE(tree->rebuild(out, error)) << error;
  EXPECT_EQ(out, message);
}

TEST(Rebuild, ReplacedPartRegeneratesDelimitersAndKeepsTheRest) {
  Plugin plugin;
  // Delimiters with trailing blanks and no closing delimiter: the last part
  // is no record and comes back behind the new closing delimiter.
  const std::string message =
      crlf(mixed_head) + crlf({"pre", "amble", "--outer  ", "", "one", "--outer", "Content-Type: image/gif",
                               "", "gif", "--outer ", "Content-Type: text/html", "", "<p>", ""});
  const std::string out = rebuilt(plugin, message, {{"0", "Content-Type: image/png\r\n\r\npng"}});
  const std::string want =
      crlf(mixed_head) + crlf({"pre", "amble", "--outer", "", "one", "--outer", "Content-Type: image/png", "",
                               "png", "--outer--", "Content-Type: text/html", "", "<p>", ""});
  EXPECT_EQ(out, want) << first_difference(out, want);
}

TEST(Rebuild, SevenBitTextWithEightBitBytesBecomesQuotedPrintable) {
  const struct {
    const char* what;
    std::vector<std::string> head;
    std::string body;
    std::vector<std::string> want_head;  // empty: the header unchanged and the body raw
  } cases[] = {
      {"no charset",
       {"MIME-Version: 1.0", "Content-Type: text/plain; format=flowed", "Content-Transfer-Encoding: 7bit"},
       "caf\xE9\r\n",
       {"MIME-Version: 1.0", "Content-Type: text/plain; format=flowed; charset=ISO-8859-1",
        "Content-Transfer-Encoding: 7bit", "Content-Transfer-Encoding: quoted-printable"}},
      {"US-ASCII moves last",
       {"MIME-Version: 1.0", "Content-Type: text/plain; charset=\"us-ascii\"; name=\"a b(1).txt\""},
       "caf\xE9\r\n",
       {"MIME-Version: 1.0", "Content-Type: text/plain; name=\"a b(1).txt\"; charset=ISO-8859-1",
        "Content-Transfer-Encoding: quoted-printable"}},
      {"no Content-Type field",
       {"MIME-Version: 1.0"},
       "caf\xE9\r\n",
       {"MIME-Version: 1.0", "Content-Type: text/plain; charset=ISO-8859-1",
        "Content-Transfer-Encoding: quoted-printable"}},
      {"unknown charset",
       {"MIME-Version: 1.0", "Content-Type: text/plain; charset=x-nowhere"},
       "caf\xE9\r\n",
       {}},
      {"pure ASCII", {"MIME-Version: 1.0", "Content-Type: text/plain"}, "cafe\r\n", {}},
      {"not text", {"MIME-Version: 1.0", "Content-Type: application/octet-stream"}, "caf\xE9\r\n", {}},
      {"8bit", {"MIME-Version: 1.0", "Content-Transfer-Encoding: 8bit"}, "caf\xE9\r\n", {}},
      {"unknown transfer encoding",
       {"MIME-Version: 1.0", "Content-Transfer-Encoding: x-uuencode"},
       "caf\xE9\r\n",
       {}},
  };
  Plugin plugin;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<std::string> head = c.head;
    head.push_back("");
    const std::string out = rebuilt(plugin, crlf(head) + "old\r\n", {{"0", c.body}});
    std::string want;
    if (c.want_head.empty()) {
      want = crlf(head) + c.body;
    } else {
      std::vector<std::string> want_head = c.want_head;
      want_head.push_back("");
      want = crlf(want_head) + "caf=E9\r\n";
    }
    EXPECT_EQ(out, want) << first_difference(out, want);
    EXPECT_EQ(leaves(plugin, out), std::vector<std::string>{c.body});
  }
}

TEST(Rebuild, EncodedBodiesAreEncodedAgain) {
  Plugin plugin;
  // A repaired field alone makes the entity modified; the body is encoded
  // anew from its decoded bytes.
  const std::string qp = crlf({"MIME-Version: 1.0", "Content-Type: text/plain;",
                               "Content-Transfer-Encoding: quoted-printable", "", "caf=C3=A9 au =", "lait"});
  std::string want = crlf({"MIME-Version: 1.0", "Content-Type: text/plain",
                           "Content-Transfer-Encoding: quoted-printable", "", "caf=C3=A9 au lait"});
  std::string out = rebuilt(plugin, qp, {});
  EXPECT_EQ(out, want) << first_difference(out, want);

  const std::string binary(100, '\xff');
  const std::string b64 = crlf(
      {"MIME-Version: 1.0", "Content-Type: image/gif", "Content-Transfer-Encoding: base64", "", "R0lGOA=="});
  out = rebuilt(plugin, b64, {{"0", binary}});
  want = crlf({"MIME-Version: 1.0", "Content-Type: image/gif", "Content-Transfer-Encoding: base64", "",
               std::string(76, '/'), std::string(57, '/') + "w=="});
  EXPECT_EQ(out, want) << first_difference(out, want);
  EXPECT_EQ(leaves(plugin, out), std::vector<std::string>{binary});
}

TEST(Rebuild, TwiceGivesTheSameBytes) {
  Plugin plugin;
  auto tree = plugin.open(crlf({"MIME-Version: 1.0", "Content-Type: text/plain", "", "old"}));
  std::string error;
  ASSERT_TRUE(tree->replace(*tree->find("0"), "caf\xE9", error)) << error;
  Item_node& root = tree->root();
  Vek_status status;
  std::unique_ptr<Vek_buffer> first(root.handler->rebuild(*root.item, status));
  ASSERT_TRUE(status.ok());
  std::unique_ptr<Vek_buffer> second(root.handler->rebuild(*root.item, status));
  ASSERT_TRUE(status.ok());
  auto text = [](const Vek_buffer& buffer) {
    return std::string(reinterpret_cast<const char*>(buffer.data()), buffer.size());
  };
  EXPECT_EQ(text(*first), text(*second));
  EXPECT_NE(text(*first).find("charset=ISO-8859-1"), std::string::npos);
}

TEST(Rebuild, AddedBodyLeavesNoTraceUnlessFilled) {
  Host_options options;
  options.add_body = true;
  Plugin plugin(options);
  const std::string message =
      crlf(mixed_head) + crlf({"--outer", "Content-Type: image/gif", "", "gif", "--outer--"});
  // The added body is the last sub-item; the attachment is replaced.
  std::string out = rebuilt(plugin, message, {{"0", "Content-Type: image/png\r\n\r\npng"}});
  std::string want = crlf(mixed_head) + crlf({"--outer", "Content-Type: image/png", "", "png", "--outer--"});
  EXPECT_EQ(out, want) << first_difference(out, want);
  out = rebuilt(plugin, message, {{"1", "Content-Type: text/plain\r\n\r\nhello"}});
  want = crlf(mixed_head) + crlf({"--outer", "Content-Type: text/plain", "", "hello", "--outer",
                                  "Content-Type: image/gif", "", "gif", "--outer--"});
  EXPECT_EQ(out, want) << first_difference(out, want);
}

// A message inside a Base64 body may use bare LF line ends, which the host
// does not make canonical: its parts keep their last bytes, and it can be
// written anew.
TEST(Rebuild, DecodedMessageWithBareLineFeeds) {
  const std::string inner =
      "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/plain\n\n"
      "first\n--b\nContent-Type: application/zip\n\nzip\n--b--\n";
  Vek_raw_memory_buffer source(inner.size(), inner.data(), 0);
  Vek_memory_buffer encoded;
  Vek_status status;
  Vek_buffered_istream in(&source, true, status, vek_eol_crlf);
  Vek_ostream out(&encoded, status, vek_eol_crlf);
  encode_base64(in, out, inner.size(), status);
  ASSERT_TRUE(status.ok());
  const std::string message =
      crlf({"MIME-Version: 1.0", "Content-Type: message/rfc822", "Content-Transfer-Encoding: base64", ""}) +
      std::string(reinterpret_cast<const char*>(encoded.data()), encoded.size());
  Plugin plugin;
  EXPECT_EQ(leaves(plugin, message), (std::vector<std::string>{"zip", "first"}));
  const std::string rebuilt_message = rebuilt(plugin, message, {{"0.0.0", "ZIP"}});
  EXPECT_EQ(leaves(plugin, rebuilt_message), (std::vector<std::string>{"ZIP", "first"}));
}

// Where the records cannot carry the whole entity, the content comes from
// the source: nothing the original had is missing after a rebuild.
TEST(Rebuild, NoContentIsLostWhereTheRecordsFallShort) {
  const struct {
    const char* what;
    std::string message;
    std::vector<std::pair<std::string, std::string>> replacements;
    std::string want;
  } cases[] = {
      {"multipart without a boundary, repaired",
       crlf({"MIME-Version: 1.0", "Content-Type: multipart/mixed;", "", "--b", "", "text", "--b--"}),
       {},
       crlf({"MIME-Version: 1.0", "Content-Type: multipart/mixed", "", "--b", "", "text", "--b--"})},
      {"encrypted, repaired",
       crlf({"MIME-Version: 1.0", "Content-Type: multipart/encrypted; boundary=e;", "", "--e", "",
             "Version: 1", "--e", "", "CIPHER", "--e--", "epi"}),
       {},
       crlf({"MIME-Version: 1.0", "Content-Type: multipart/encrypted; boundary=e", "", "--e", "",
             "Version: 1", "--e", "", "CIPHER", "--e--", "epi"})},
      {"bad Base64, repaired",
       crlf({"MIME-Version: 1.0", "Content-Type: text/plain;", "Content-Transfer-Encoding: base64", "",
             "R0l!"}),
       {},
       crlf({"MIME-Version: 1.0", "Content-Type: text/plain", "Content-Transfer-Encoding: base64", "",
             "R0l!"})},
      {"transfer encoding that does not parse, repaired",
       crlf({"MIME-Version: 1.0", "Content-Type: unknown", "Content-Transfer-Encoding: a b", "", "raw"}),
       {},
       crlf({"MIME-Version: 1.0", "Content-Type: application/octet-stream", "Content-Transfer-Encoding: a b",
             "", "raw"})},
      {"signed, repaired: the signature stays",
       crlf({"MIME-Version: 1.0", "Content-Type: multipart/signed; boundary=s;", "", "--s", "", "signed",
             "--s  ", "", "SIG", "--s--", "epi"}),
       {},
       crlf({"MIME-Version: 1.0", "Content-Type: multipart/signed; boundary=s", "", "--s", "", "signed",
             "--s  ", "", "SIG", "--s--", "epi"})},
      {"signed, with a changed part inside the signed part",
       crlf({"MIME-Version: 1.0", "Content-Type: multipart/signed; boundary=s", "", "--s",
             "Content-Type: multipart/mixed; boundary=m", "", "--m", "", "text", "--m",
             "Content-Type: application/zip", "", "zip", "--m--", "--s", "", "SIG", "--s--"}),
       {{"0.0", "Content-Type: text/plain\r\n\r\nclean"}},
       crlf({"MIME-Version: 1.0",
             "Content-Type: multipart/signed; boundary=s",
             "",
             "--s",
             "Content-Type: multipart/mixed; boundary=m",
             "",
             "--m",
             "Content-Type: text/plain",
             "",
             "clean",
             "--m",
             "Content-Type: application/zip",
             "",
             "zip",
             "--m--",
             "",
             "--s",
             "",
             "SIG",
             "--s--"})},
      {"delimiter right behind a delimiter",
       crlf(mixed_head) + crlf({"--outer", "--outer", "", "two", "--outer--"}),
       {{"0", "\r\nTWO"}},
       crlf(mixed_head) + crlf({"--outer", "", "--outer", "", "TWO", "--outer--"})},
  };
  Plugin plugin;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string out = rebuilt(plugin, c.message, c.replacements);
    EXPECT_EQ(out, c.want) << first_difference(out, c.want);
    if (c.replacements.empty()) {
      // Only the repair changed: the same tree comes back.
      auto before = plugin.open(c.message);
      auto after = plugin.open(out);
      EXPECT_EQ(summarise(*before), summarise(*after));
    }
  }
}

}  // namespace
