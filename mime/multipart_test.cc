// Multipart entities taken apart through the host, to their leaves.
#include <gtest/gtest.h>

#include "mime/test_support.h"

namespace {

using mime_test::message;
using mime_test::parts;
using mime_test::plugin;
using mime_test::property;

// One line per node below the top: path, item type (B body, A attachment,
// H header, - none), the content type or the enclosed type (in
// parentheses), the name, and the bytes of a leaf with "|" for CR LF.
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

TEST(Multipart, TheShapesOfBodiesAndAttachments) {
  const std::string mixed = "multipart/mixed; boundary=b";
  const struct {
    const char* what;
    std::string message;
    std::vector<std::string> tree;
    bool add_body = false;
  } cases[] = {
      // Parts in the host's order, the body last; of a name and a file
      // name the reference takes the name.
      {"mixed, with preamble and epilogue",
       message(
           "multipart/mixed; boundary=\"outer\"",
           "This is the preamble.|" +
               parts("outer",
                     {"Content-Type: text/plain; charset=us-ascii||Hello",
                      "Content-Type: application/pdf; name=\"r.pdf\"|Content-Transfer-Encoding: "
                      "base64||JVBERg==",
                      "Content-Type: image/gif; name=a.gif|Content-Disposition: attachment; filename=b.gif|"
                      "Content-Transfer-Encoding: base64||R0lGOA=="}) +
               "|The epilogue."),
       {"0 A (application/pdf)", "0.0 - application/pdf r.pdf =%PDF", "1 A (image/gif)",
        "1.0 - image/gif a.gif =GIF8", "2 B (text/plain)", "2.0 - text/plain =Hello"}},
      {"alternative and related inside a message",
       message(
           "multipart/mixed; boundary=m",
           parts("m", {"Content-Type: multipart/related; boundary=r||" +
                           parts("r", {"Content-Type: multipart/alternative; boundary=a||" +
                                           parts("a", {"|plain", "Content-Type: text/html||<img src=cid:i>"}),
                                       "Content-Type: image/png|Content-ID: <i>||png"}),
                       "Content-Type: application/zip||zip"})),
       {"0 A (application/zip)", "0.0 - application/zip =zip", "1 B (multipart/related)",
        "1.0 - (multipart/alternative)", "1.0.0 - (text/plain)", "1.0.0.0 - text/plain =plain",
        "1.0.1 - (text/html)", "1.0.1.0 - text/html =<img src=cid:i>", "1.1 - (image/png)",
        "1.1.0 - image/png =png"}},
      {"digest with and without part headers",
       message("multipart/digest; boundary=d",
               parts("d", {"|Subject: one||first", "Content-Type: message/rfc822||Subject: two||second",
                           "Content-Type: text/plain||not a message"})),
       {"0 A (message/rfc822)", "0.0 - message/rfc822", "0.0.0 B =first", "1 A (message/rfc822)",
        "1.0 - message/rfc822", "1.0.0 B =second", "2 A (text/plain)", "2.0 - text/plain =not a message"}},
      {"first part no text, with AddBody",
       message(mixed, parts("b", {"Content-Type: application/pdf||pdf", "|second"})),
       {"0 A (application/pdf)", "0.0 - application/pdf =pdf", "1 A (text/plain)", "1.0 - text/plain =second",
        "2 B (text/plain)", "2.0 - text/plain ="},
       true},
      {"first part no text, without AddBody",
       message(mixed, parts("b", {"Content-Type: application/pdf||pdf"})),
       {"0 A (application/pdf)", "0.0 - application/pdf =pdf"}},
      {"missing closing delimiter: the last part is no record",
       message(mixed, "--b||one|--b||two"),
       {"0 B (text/plain)", "0.0 - text/plain =one"}},
      {"delimiter right behind a delimiter is an empty part",
       message(mixed, "--b|--b|Content-Type: image/gif||gif|--b--"),
       {"0 A (image/gif)", "0.0 - image/gif =gif", "1 B (text/plain)", "1.0 - text/plain ="}},
      {"signed: the signed part only",
       message("multipart/signed; boundary=s; protocol=\"application/pgp-signature\"",
               parts("s", {"Content-Type: text/plain||signed text",
                           "Content-Type: application/pgp-signature||SIG"})),
       {"0 B (text/plain)", "0.0 - text/plain =signed text"}},
      {"encrypted: nothing",
       message("multipart/encrypted; boundary=e",
               parts("e", {"Content-Type: application/pgp-encrypted||Version: 1"})),
       {}},
      {"embedded block in a text part",
       message(mixed, parts("b", {"|see|begin 644 f|#86)C|`|end"})),
       {"0 A (/)", "0.0 - text/plain =begin 644 f|#86)C|`|end", "1 B (text/plain)",
        "1.0 - text/plain =see|"}},
      // Each part that cannot be decoded stays a leaf of its raw text; the
      // second ends in "=" in front of the delimiter's line end.
      {"bad encoded data in parts",
       message(mixed, parts("b", {"Content-Transfer-Encoding: base64||R0l!",
                                  "Content-Transfer-Encoding: quoted-printable||ok="})),
       {"0 A (text/plain) =Content-Transfer-Encoding: quoted-printable||ok=",
        "1 B (text/plain) =Content-Transfer-Encoding: base64||R0l!"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto tree = plugin(c.add_body).open(c.message);
    EXPECT_EQ(tree->root().handler_name, "Smtp_rfc1521_handler");
    EXPECT_EQ(describe(*tree), c.tree);
  }
}

}  // namespace
