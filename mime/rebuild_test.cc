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
// A handler may be asked to rebuild more than once: the second time gives
// the same bytes.
std::string rebuilt(const Plugin& plugin, const std::string& message,
                    const std::vector<std::pair<std::string, std::string>>& replacements) {
  auto tree = plugin.open(message);
  std::string error;
  for (const auto& [path, bytes] : replacements) {
    Item_node* node = tree->find(path);
    if (node == nullptr) throw std::runtime_error("no node " + path);
    if (!tree->replace(*node, bytes, error)) throw std::runtime_error(error);
  }
  std::string out, again;
  if (!tree->rebuild(out, error) || !tree->rebuild(again, error)) throw std::runtime_error(error);
  EXPECT_EQ(again, out) << first_difference(again, out);
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

// A MIME message of the content type `type` whose body is `lines`.
std::string message_of(const std::string& type, const std::vector<std::string>& lines) {
  return crlf({"MIME-Version: 1.0", "Content-Type: " + type, ""}) + crlf(lines);
}

const std::vector<std::string> mixed_head = {"From: a@example.org", "MIME-Version: 1.0",
                                             "Content-Type: multipart/mixed; boundary=\"outer\"", ""};

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

// What did not change goes out byte for byte, delimiters are written anew,
// encoded bodies are encoded again, and where the records cannot carry the
// whole entity the content comes from the source: nothing the original had
// is missing after a rebuild.
TEST(Rebuild, Goldens) {
  const std::string binary(100, '\xff');
  const struct {
    const char* what;
    std::string message;
    std::vector<std::pair<std::string, std::string>> replacements;
    std::string want;
    bool add_body = false;
  } cases[] = {
      {"unchanged",
       crlf(mixed_head) + crlf({"pre", "--outer", "", "text", "--outer--", "epi"}),
       {},
       crlf(mixed_head) + crlf({"pre", "--outer", "", "text", "--outer--", "epi"})},
      // Delimiters with trailing blanks and no closing delimiter: the last
      // part is no record and comes back behind the new closing delimiter.
      {"replaced part",
       crlf(mixed_head) + crlf({"pre", "amble", "--outer  ", "", "one", "--outer", "Content-Type: image/gif",
                                "", "gif", "--outer ", "Content-Type: text/html", "", "<p>", ""}),
       {{"0", "Content-Type: image/png\r\n\r\npng"}},
       crlf(mixed_head) + crlf({"pre", "amble", "--outer", "", "one", "--outer", "Content-Type: image/png",
                                "", "png", "--outer--", "Content-Type: text/html", "", "<p>", ""})},
      // A repaired field alone makes the entity modified.
      {"quoted-printable encoded anew, repaired",
       crlf({"MIME-Version: 1.0", "Content-Type: text/plain;", "Content-Transfer-Encoding: quoted-printable",
             "", "caf=C3=A9 au =", "lait"}),
       {},
       crlf({"MIME-Version: 1.0", "Content-Type: text/plain", "Content-Transfer-Encoding: quoted-printable",
             "", "caf=C3=A9 au lait"})},
      {"Base64 encoded anew",
       crlf({"MIME-Version: 1.0", "Content-Type: image/gif", "Content-Transfer-Encoding: base64", "",
             "R0lGOA=="}),
       {{"0", binary}},
       crlf({"MIME-Version: 1.0", "Content-Type: image/gif", "Content-Transfer-Encoding: base64", "",
             std::string(76, '/'), std::string(57, '/') + "w=="})},
      // The added body is the last sub-item; unfilled, it is not written.
      {"added body left empty",
       crlf(mixed_head) + crlf({"--outer", "Content-Type: image/gif", "", "gif", "--outer--"}),
       {{"0", "Content-Type: image/png\r\n\r\npng"}},
       crlf(mixed_head) + crlf({"--outer", "Content-Type: image/png", "", "png", "--outer--"}),
       true},
      {"added body filled",
       crlf(mixed_head) + crlf({"--outer", "Content-Type: image/gif", "", "gif", "--outer--"}),
       {{"1", "Content-Type: text/plain\r\n\r\nhello"}},
       crlf(mixed_head) + crlf({"--outer", "Content-Type: text/plain", "", "hello", "--outer",
                                "Content-Type: image/gif", "", "gif", "--outer--"}),
       true},
      {"multipart without a boundary, repaired",
       message_of("multipart/mixed;", {"--b", "", "text", "--b--"}),
       {},
       message_of("multipart/mixed", {"--b", "", "text", "--b--"})},
      {"encrypted, repaired",
       message_of("multipart/encrypted; boundary=e;",
                  {"--e", "", "Version: 1", "--e", "", "CIPHER", "--e--", "epi"}),
       {},
       message_of("multipart/encrypted; boundary=e",
                  {"--e", "", "Version: 1", "--e", "", "CIPHER", "--e--", "epi"})},
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
       message_of("multipart/signed; boundary=s;", {"--s", "", "signed", "--s  ", "", "SIG", "--s--", "epi"}),
       {},
       message_of("multipart/signed; boundary=s", {"--s", "", "signed", "--s  ", "", "SIG", "--s--", "epi"})},
      {"delimiter right behind a delimiter",
       crlf(mixed_head) + crlf({"--outer", "--outer", "", "two", "--outer--"}),
       {{"0", "\r\nTWO"}},
       crlf(mixed_head) + crlf({"--outer", "", "--outer", "", "TWO", "--outer--"})},
  };
  const Plugin plain;
  Host_options add_body;
  add_body.add_body = true;
  const Plugin with_body(add_body);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const Plugin& plugin = c.add_body ? with_body : plain;
    const std::string out = rebuilt(plugin, c.message, c.replacements);
    EXPECT_EQ(out, c.want) << first_difference(out, c.want);
    if (c.replacements.empty()) {
      // At most the repair changed: the same tree comes back.
      auto before = plugin.open(c.message);
      auto after = plugin.open(out);
      EXPECT_EQ(summarise(*before), summarise(*after));
    }
  }
}

}  // namespace
