// Writing entities anew after the host replaced parts, level by level.
#include <gtest/gtest.h>

#include "codecs/base64.h"
#include "mime/rfc1521_handler.h"
#include "mime/test_support.h"
#include "reader/header_reader.h"

namespace {

using mime_test::crlf;
using mime_test::first_difference;
using mime_test::message;
using mime_test::parts;
using mime_test::plugin;
using mime_test::summarise;

// Replaces the nodes at `paths` with `bytes` each and rebuilds the message.
// A handler may be asked to rebuild more than once: the second time gives
// the same bytes.
std::string rebuilt(const mime_test::Plugin& plugin, const std::string& message,
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
std::vector<std::string> leaves(const std::string& message) {
  auto tree = plugin().open(message);
  std::vector<std::string> texts;
  tree->for_each([&texts](Item_node& node) {
    if (node.parent != nullptr && node.is_leaf()) texts.emplace_back(node.bytes());
  });
  return texts;
}

TEST(Rebuild, SevenBitTextWithEightBitBytesBecomesQuotedPrintable) {
  const struct {
    const char* what;
    const char* head;  // behind "MIME-Version: 1.0"
    const char* body;
    const char* want_head;  // null: the header unchanged and the body raw
  } cases[] = {
      // One field names the new encoding, where the first old one stood.
      {"no charset",
       "|Content-Type: text/plain; format=flowed|Content-Transfer-Encoding: 7bit|X-A: b|"
       "Content-Transfer-Encoding: 7BIT",
       "caf\xE9\r\n",
       "|Content-Type: text/plain; format=flowed; charset=ISO-8859-1|Content-Transfer-Encoding: "
       "quoted-printable|X-A: b"},
      {"US-ASCII moves last", "|Content-Type: text/plain; charset=\"us-ascii\"; name=\"a b(1).txt\"",
       "caf\xE9\r\n",
       "|Content-Type: text/plain; name=\"a b(1).txt\"; charset=ISO-8859-1|"
       "Content-Transfer-Encoding: quoted-printable"},
      {"no Content-Type field", "", "caf\xE9\r\n",
       "|Content-Type: text/plain; charset=ISO-8859-1|Content-Transfer-Encoding: quoted-printable"},
      {"unknown charset", "|Content-Type: text/plain; charset=x-nowhere", "caf\xE9\r\n", nullptr},
      {"pure ASCII", "|Content-Type: text/plain", "cafe\r\n", nullptr},
      {"not text", "|Content-Type: application/octet-stream", "caf\xE9\r\n", nullptr},
      {"8bit", "|Content-Transfer-Encoding: 8bit", "caf\xE9\r\n", nullptr},
      {"unknown transfer encoding", "|Content-Transfer-Encoding: x-uuencode", "caf\xE9\r\n", nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string head = crlf("MIME-Version: 1.0" + std::string(c.head) + "|");
    const std::string out = rebuilt(plugin(), head + "old\r\n", {{"0", c.body}});
    const std::string want = c.want_head == nullptr
                                 ? head + c.body
                                 : crlf("MIME-Version: 1.0" + std::string(c.want_head) + "|") + "caf=E9\r\n";
    EXPECT_EQ(out, want) << first_difference(out, want);
    EXPECT_EQ(leaves(out), std::vector<std::string>{c.body});
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
      crlf("MIME-Version: 1.0|Content-Type: message/rfc822|Content-Transfer-Encoding: base64|") +
      std::string(reinterpret_cast<const char*>(encoded.data()), encoded.size());
  EXPECT_EQ(leaves(message), (std::vector<std::string>{"zip", "first"}));
  EXPECT_EQ(leaves(rebuilt(plugin(), message, {{"0.0.0", "ZIP"}})),
            (std::vector<std::string>{"ZIP", "first"}));
}

// What did not change goes out byte for byte, delimiters are written anew,
// encoded bodies are encoded again, and where the records cannot carry the
// whole entity the content comes from the source: nothing the original had
// is missing after a rebuild.
TEST(Rebuild, Goldens) {
  const std::string mixed =
      "From: a@example.org|MIME-Version: 1.0|Content-Type: multipart/mixed; boundary=\"outer\"||";
  const std::string gif = "Content-Type: image/gif||gif";
  const struct {
    const char* what;
    std::string message;
    std::vector<std::pair<std::string, std::string>> replacements;
    std::string want;
    bool add_body = false;
  } cases[] = {
      {"unchanged",
       crlf(mixed + "pre|" + parts("outer", {"|text"}) + "|epi"),
       {},
       crlf(mixed + "pre|" + parts("outer", {"|text"}) + "|epi")},
      // Delimiters with trailing blanks and no closing delimiter: the last
      // part is no record and comes back behind the new closing delimiter.
      {"replaced part",
       crlf(mixed + "pre|amble|--outer  ||one|--outer|" + gif + "|--outer |Content-Type: text/html||<p>|"),
       {{"0", "Content-Type: image/png\r\n\r\npng"}},
       crlf(mixed + "pre|amble|" + parts("outer", {"|one", "Content-Type: image/png||png"}) +
            "|Content-Type: text/html||<p>|")},
      // A repaired field alone makes the entity modified.
      {"quoted-printable encoded anew, repaired",
       crlf("MIME-Version: 1.0|Content-Type: text/plain;|Content-Transfer-Encoding: quoted-printable||"
            "caf=C3=A9 au =|lait"),
       {},
       crlf("MIME-Version: 1.0|Content-Type: text/plain|Content-Transfer-Encoding: quoted-printable||"
            "caf=C3=A9 au lait")},
      {"Base64 encoded anew",
       message("image/gif|Content-Transfer-Encoding: base64", "R0lGOA=="),
       {{"0", std::string(100, '\xff')}},
       message("image/gif|Content-Transfer-Encoding: base64",
               std::string(76, '/') + "|" + std::string(57, '/') + "w==")},
      // The added body is the last sub-item; unfilled, it is not written.
      {"added body left empty",
       crlf(mixed + parts("outer", {gif})),
       {{"0", "Content-Type: image/png\r\n\r\npng"}},
       crlf(mixed + parts("outer", {"Content-Type: image/png||png"})),
       true},
      {"added body filled",
       crlf(mixed + parts("outer", {gif})),
       {{"1", "Content-Type: text/plain\r\n\r\nhello"}},
       crlf(mixed + parts("outer", {"Content-Type: text/plain||hello", gif})),
       true},
      {"multipart without a boundary, repaired",
       message("multipart/mixed;", parts("b", {"|text"})),
       {},
       message("multipart/mixed", parts("b", {"|text"}))},
      {"encrypted, repaired",
       message("multipart/encrypted; boundary=e;", parts("e", {"|Version: 1", "|CIPHER"}) + "|epi"),
       {},
       message("multipart/encrypted; boundary=e", parts("e", {"|Version: 1", "|CIPHER"}) + "|epi")},
      {"signed, repaired: the signature stays",
       message("multipart/signed; boundary=s;", "--s||signed|--s  ||SIG|--s--|epi"),
       {},
       message("multipart/signed; boundary=s", "--s||signed|--s  ||SIG|--s--|epi")},
      // Nothing under a signature is repaired, at any depth.
      {"signed, a repaired type inside",
       message("multipart/signed; boundary=s",
               "--s|Content-Type: multipart/mixed; boundary=m||" +
                   parts("m", {"Content-Type: text/plain; charset=us-ascii;||signed"}) + "|--s||SIG|--s--"),
       {},
       message("multipart/signed; boundary=s",
               "--s|Content-Type: multipart/mixed; boundary=m||" +
                   parts("m", {"Content-Type: text/plain; charset=us-ascii;||signed"}) + "|--s||SIG|--s--")},
      // A part whose header the reader refused at a long line: opening
      // took its body from the middle of that line, and rebuild copies the
      // header up to there.
      {"header line too long for the reader",
       crlf(mixed +
            parts("outer", {"X-Long: " + std::string(1200, 'a') + "|Content-Type: text/plain||text"})),
       {{"0.0", "new"}},
       crlf(mixed + "--outer|X-Long: " + std::string(smtp_max_header_line - 8, 'a') + "new|--outer--")},
      // A header that runs to the part's end has no line end there; the
      // new body goes behind a blank line all the same.
      {"part header with no line end",
       crlf(mixed + "--outer|Content-Type: text/html|--outer--"),
       {{"0.0", "new"}},
       crlf(mixed + "--outer|Content-Type: text/html||new|--outer--")},
      {"delimiter right behind a delimiter",
       crlf(mixed + "--outer|--outer||two|--outer--"),
       {{"0", "\r\nTWO"}},
       crlf(mixed + parts("outer", {"", "|TWO"}))},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string out = rebuilt(plugin(c.add_body), c.message, c.replacements);
    EXPECT_EQ(out, c.want) << first_difference(out, c.want);
    if (c.replacements.empty()) {
      // At most the repair changed: the same tree comes back.
      auto before = plugin(c.add_body).open(c.message);
      auto after = plugin(c.add_body).open(out);
      EXPECT_EQ(summarise(*before), summarise(*after));
    }
  }
}

}  // namespace
