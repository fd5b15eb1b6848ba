// Multipart entities taken apart through the host, to their leaves.
#include <gtest/gtest.h>

#include "mime/test_support.h"

namespace {

using mime_test::crlf;
using mime_test::Plugin;
using mime_test::property;

// One line per node: path, item type (B body, A attachment, H header, -
// none), the content type or the enclosed type (in parentheses), the name,
// and the bytes of a leaf with its line ends shown as "|".
std::vector<std::string> describe(Message_tree& tree) {
  std::vector<std::string> lines;
  tree.for_each([&lines](Item_node& node) {
    if (node.parent == nullptr) return;
    const std::string type = property(node, ZOR_ITEM_TYPE);
    std::string line = node.path + " ";
    line += type == "BodyItem" ? "B" : type == "AttachmentItem" ? "A" : type == "HeaderItem" ? "H" : "-";
    const std::string mime = property(node, ZOR_MIME_TYPE);
    if (!mime.empty()) line += " " + mime + "/" + property(node, ZOR_MIME_SUBTYPE);
    if (node.item->properties().find(ZOR_ENCLOSED_MIME_TYPE) != nullptr)
      line += " (" + property(node, ZOR_ENCLOSED_MIME_TYPE) + "/" +
              property(node, ZOR_ENCLOSED_MIME_SUBTYPE) + ")";
    const std::string name = property(node, ZOR_ITEM_NAME);
    if (!name.empty()) line += " " + name;
    if (node.is_leaf()) {
      std::string bytes(node.bytes());
      for (size_t at = 0; (at = bytes.find("\r\n", at)) != std::string::npos;) bytes.replace(at, 2, "|");
      line += " =" + bytes;
    }
    lines.push_back(line);
  });
  return lines;
}

std::vector<uint32_t> log_codes(const Item_node& node) {
  std::vector<uint32_t> codes;
  for (const auto& entry : node.item->logs()) codes.push_back(entry.code);
  return codes;
}

const std::string mixed = crlf({
    "From: a@example.org",
    "Subject: mixed",
    "MIME-Version: 1.0",
    "Content-Type: multipart/mixed; boundary=\"outer\"",
    "",
    "This is the preamble.",
    "--outer",
    "Content-Type: text/plain; charset=us-ascii",
    "",
    "Hello",
    "--outer",
    "Content-Type: application/pdf; name=\"r.pdf\"",
    "Content-Transfer-Encoding: base64",
    "",
    "JVBERg==",
    "--outer",
    "Content-Type: image/gif; name=a.gif",
    "Content-Disposition: attachment; filename=b.gif",
    "Content-Transfer-Encoding: base64",
    "",
    "R0lGOA==",
    "--outer--",
    "The epilogue.",
});

TEST(Multipart, MixedWithTextAndAttachments) {
  Plugin plugin;
  auto tree = plugin.open(mixed);
  EXPECT_EQ(describe(*tree), (std::vector<std::string>{
                                 "0 A (application/pdf)",
                                 "0.0 - application/pdf r.pdf =%PDF",
                                 "1 A (image/gif)",
                                 "1.0 - image/gif a.gif =GIF8",
                                 "2 B (text/plain)",
                                 "2.0 - text/plain =Hello",
                             }));
  EXPECT_EQ(property(tree->root(), ZOR_ATTACHMENT_COUNT), "2");
  EXPECT_EQ(property(*tree->find("2.0"), ZOR_ITEM_CHARSET), "US-ASCII");
  EXPECT_EQ(tree->find("0")->bytes(),
            "Content-Type: application/pdf; name=\"r.pdf\"\r\n"
            "Content-Transfer-Encoding: base64\r\n\r\nJVBERg==");
  EXPECT_TRUE(log_codes(tree->root()) == std::vector<uint32_t>{32});
}

// A MIME message of the content type `type` whose body is `lines`.
std::string message_of(const std::string& type, const std::vector<std::string>& lines) {
  return crlf({"MIME-Version: 1.0", "Content-Type: " + type, ""}) + crlf(lines);
}

TEST(Multipart, TheShapesOfBodiesAndAttachments) {
  const struct {
    const char* what;
    std::string message;
    bool add_body;
    std::vector<std::string> tree;
  } cases[] = {
      {"alternative in a message",
       message_of("multipart/alternative; boundary=a",
                  {"--a", "", "plain", "--a", "Content-Type: text/html", "", "<p>html</p>", "--a--"}),
       false,
       {"0 B (text/plain)", "0.0 - text/plain =plain", "1 B (text/html)", "1.0 - text/html =<p>html</p>"}},
      {"alternative and related inside a message",
       message_of("multipart/mixed; boundary=m", {"--m",
                                                  "Content-Type: multipart/related; boundary=r",
                                                  "",
                                                  "--r",
                                                  "Content-Type: multipart/alternative; boundary=a",
                                                  "",
                                                  "--a",
                                                  "",
                                                  "plain",
                                                  "--a",
                                                  "Content-Type: text/html",
                                                  "",
                                                  "<img src=cid:i>",
                                                  "--a--",
                                                  "--r",
                                                  "Content-Type: image/png",
                                                  "Content-ID: <i>",
                                                  "",
                                                  "png",
                                                  "--r--",
                                                  "--m",
                                                  "Content-Type: application/zip",
                                                  "",
                                                  "zip",
                                                  "--m--"}),
       false,
       {"0 A (application/zip)", "0.0 - application/zip =zip", "1 B (multipart/related)",
        "1.0 - (multipart/alternative)", "1.0.0 - (text/plain)", "1.0.0.0 - text/plain =plain",
        "1.0.1 - (text/html)", "1.0.1.0 - text/html =<img src=cid:i>", "1.1 - (image/png)",
        "1.1.0 - image/png =png"}},
      {"digest with and without part headers",
       message_of(
           "multipart/digest; boundary=d",
           {"--d", "", "Subject: one", "", "first", "--d", "Content-Type: message/rfc822", "", "Subject: two",
            "", "second", "--d", "Content-Type: text/plain", "", "not a message", "--d--"}),
       false,
       {"0 A (message/rfc822)", "0.0 - message/rfc822", "0.0.0 B =first", "1 A (message/rfc822)",
        "1.0 - message/rfc822", "1.0.0 B =second", "2 A (text/plain)", "2.0 - text/plain =not a message"}},
      {"first part no text, with AddBody",
       message_of("multipart/mixed; boundary=b",
                  {"--b", "Content-Type: application/pdf", "", "pdf", "--b", "", "second", "--b--"}),
       true,
       {"0 A (application/pdf)", "0.0 - application/pdf =pdf", "1 A (text/plain)", "1.0 - text/plain =second",
        "2 B (text/plain)", "2.0 - text/plain ="}},
      {"first part no text, without AddBody",
       message_of("multipart/mixed; boundary=b",
                  {"--b", "Content-Type: application/pdf", "", "pdf", "--b--"}),
       false,
       {"0 A (application/pdf)", "0.0 - application/pdf =pdf"}},
      {"first part without a header is the text",
       message_of("multipart/mixed; boundary=b", {"--b", "", "text", "--b--"}),
       false,
       {"0 B (text/plain)", "0.0 - text/plain =text"}},
      {"missing closing delimiter: the last part is no record",
       message_of("multipart/mixed; boundary=b", {"--b", "", "one", "--b", "", "two"}),
       false,
       {"0 B (text/plain)", "0.0 - text/plain =one"}},
      {"boundary with blanks, delimiters with blanks",
       message_of("multipart/mixed; boundary=\" b c \"",
                  {"--  b c   ", "", "one", "--b c", "", "two", "-- b c --", "x"}),
       false,
       {"0 A (text/plain)", "0.0 - text/plain =two", "1 B (text/plain)", "1.0 - text/plain =one"}},
      {"delimiter right behind a delimiter is an empty part",
       message_of("multipart/mixed; boundary=b",
                  {"--b", "--b", "Content-Type: image/gif", "", "gif", "--b--"}),
       false,
       {"0 A (image/gif)", "0.0 - image/gif =gif", "1 B (text/plain)", "1.0 - text/plain ="}},
      {"closing delimiter first: no records",
       message_of("multipart/mixed; boundary=b", {"--b--", "--b", "", "x"}),
       false,
       {}},
      {"signed: the signed part only",
       message_of("multipart/signed; boundary=s; protocol=\"application/pgp-signature\"",
                  {"--s", "Content-Type: text/plain", "", "signed text", "--s",
                   "Content-Type: application/pgp-signature", "", "SIG", "--s--"}),
       false,
       {"0 B (text/plain)", "0.0 - text/plain =signed text"}},
      {"encrypted: nothing",
       message_of("multipart/encrypted; boundary=e",
                  {"--e", "Content-Type: application/pgp-encrypted", "", "Version: 1", "--e--"}),
       false,
       {}},
      {"embedded block in a text part",
       message_of("multipart/mixed; boundary=b",
                  {"--b", "", "see", "begin 644 f", "#86)C", "`", "end", "--b--"}),
       false,
       {"0 A (/)", "0.0 - text/plain =begin 644 f|#86)C|`|end", "1 B (text/plain)",
        "1.0 - text/plain =see|"}},
      // Each part that cannot be decoded stays a leaf of its raw text; the
      // second ends in "=" in front of the delimiter's line end.
      {"bad encoded data in parts",
       message_of("multipart/mixed; boundary=b",
                  {"--b", "Content-Transfer-Encoding: base64", "", "R0l!", "--b",
                   "Content-Transfer-Encoding: quoted-printable", "", "ok=", "--b--"}),
       false,
       {"0 A (text/plain) =Content-Transfer-Encoding: quoted-printable||ok=",
        "1 B (text/plain) =Content-Transfer-Encoding: base64||R0l!"}},
  };
  const Plugin plain;
  Host_options add_body;
  add_body.add_body = true;
  const Plugin with_body(add_body);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto tree = (c.add_body ? with_body : plain).open(c.message);
    EXPECT_EQ(tree->root().handler_name, "Smtp_rfc1521_handler");
    EXPECT_EQ(describe(*tree), c.tree);
  }
}

TEST(Multipart, MessagesNestedSeveralLevelsDeep) {
  // Each level wraps the one inside it as message/rfc822, the innermost in
  // quoted-printable.
  std::string message = crlf({"Subject: level 0", "MIME-Version: 1.0",
                              "Content-Transfer-Encoding: quoted-printable", "", "caf=C3=A9"});
  for (int level = 1; level <= 5; ++level)
    message = crlf({"Subject: level " + std::to_string(level), "MIME-Version: 1.0",
                    "Content-Type: message/rfc822", ""}) +
              message;
  Plugin plugin;
  auto tree = plugin.open(message);
  std::string path;
  for (int level = 5; level >= 1; --level) {
    path += path.empty() ? "0" : ".0";
    Item_node* node = tree->find(path);
    ASSERT_NE(node, nullptr) << path;
    EXPECT_EQ(property(*node, ZOR_MIME_TYPE), "message");
    EXPECT_EQ(property(*node, ZOR_ITEM_TYPE), "BodyItem");
    EXPECT_EQ(property(*node, ZOR_MESSAGE_ITEM), "1");
  }
  Item_node* text = tree->find(path + ".0");
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(text->bytes(), "caf\xC3\xA9\r\n");
  EXPECT_EQ(property(tree->root(), ZOR_SUBJECT), "level 5");
}

}  // namespace
