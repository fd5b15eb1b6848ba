// The hardened reading of types, transfer encodings and file names, set
// against the reference reading of the same message.
#include <gtest/gtest.h>

#include <string>

#include "mime/test_support.h"

namespace {

using mime_test::crlf;
using mime_test::property;

const mime_test::Plugin& hardened_plugin() {
  static const mime_test::Plugin plugin([] {
    Host_options options;
    options.hardened = true;
    return options;
  }());
  return plugin;
}

// The content items of a single-part message: per item its type, its
// names (ItemName, then the alternates, joined by "|") and its first bytes;
// items joined by " + ". A message with none reads "-".
std::string contents(const mime_test::Plugin& plugin, const std::string& text) {
  auto tree = plugin.open(text);
  std::string out;
  for (const auto& child : tree->root().children) {
    if (property(*child, ZOR_ITEM_TYPE) == vek_wtos(ZOR_HEADER_ITEM)) continue;
    std::string names = property(*child, ZOR_ITEM_NAME);
    for (int i = 1;; ++i) {
      const std::string alternate = property(
          *child, i == 1 ? u"ItemAlternateName" : u"ItemAlternateName" + vek_stow(std::to_string(i)));
      if (alternate.empty()) break;
      names += "|" + alternate;
    }
    if (!out.empty()) out += " + ";
    out += property(*child, ZOR_MIME_TYPE) + "/" + property(*child, ZOR_MIME_SUBTYPE) + " [" + names + "] " +
           std::string(child->bytes().substr(0, 4));
  }
  return out.empty() ? "-" : out;
}

std::string single(const std::string& headers, const std::string& body) {
  return crlf("From: a@example.org|MIME-Version: 1.0|" + headers + "||" + body);
}

struct Case {
  const char* name;
  const char* headers;  // in the notation of crlf()
  const char* body;
  const char* hardened;
  const char* reference;
};

// (A name in a disposition alone or in RFC 2231 with a charset is the
// evasion corpus's: evasion/evasion_test.cc.)
TEST(HardenedNames, ContentAsClientsReadIt) {
  const Case cases[] = {
      {"Base64 with a stray character and no padding",
       "Content-Type: application/octet-stream|Content-Transfer-Encoding: base64", "TV*ohIQ",
       "application/octet-stream [] MZ!!", "-"},
      {"RFC 2231 sections, extended and plain, out of order, up to a gap",
       "Content-Type: text/plain|Content-Disposition: attachment; filename*1=\"-2\"; "
       "filename*0*=utf-8''caf%C3%A9; filename*2=.scr; filename*4=.txt",
       "x", "text/plain [caf\xe9-2.scr] x\r\n", "text/plain [] x\r\n"},
      {"RFC 2231 beside a plain name", "Content-Type: text/plain; name=\"old.txt\"; name*=''new.exe", "x",
       "text/plain [new.exe|old.txt] x\r\n", "text/plain [old.txt] x\r\n"},
      {"encoded word in a name", "Content-Type: text/plain; name=\"=?utf-8?B?ZXZpbC5leGU=?=\"", "x",
       "text/plain [evil.exe] x\r\n", "text/plain [=?utf-8?B?ZXZpbC5leGU=?=] x\r\n"},
      {"encoded word with a language", "Content-Type: text/plain; name=\"a=?US-ASCII*EN?Q?b?=c.exe\"", "x",
       "text/plain [abc.exe] x\r\n", "text/plain [a=?US-ASCII*EN?Q?b?=c.exe] x\r\n"},
      {"filename before name",
       "Content-Type: text/plain; name=a.txt|Content-Disposition: inline; filename=b.exe", "x",
       "text/plain [b.exe|a.txt] x\r\n", "text/plain [a.txt] x\r\n"},
      {"two filenames and two fields",
       "Content-Type: text/plain|Content-Disposition: inline; filename=a.txt; filename=b.exe|"
       "Content-Disposition: inline; filename=c.scr",
       "x", "text/plain [c.scr|a.txt|b.exe] x\r\n", "text/plain [] x\r\n"},
      {"of many filenames the first and the last",
       "Content-Type: text/plain|Content-Disposition: inline; filename=a; filename=b; filename=c", "x",
       "text/plain [a|c] x\r\n", "text/plain [] x\r\n"},
      {"unquoted name with a comment", "Content-Type: text/plain; name=my file (1).exe", "x",
       "text/plain [my file .exe|my file (1).exe] x\r\n", "text/plain [my file .exe] x\r\n"},
      {"type with a broken parameter",
       "Content-Type: application/x-foo; name=\"a.exe\"; junk|"
       "Content-Transfer-Encoding: base64",
       "TVohIQ==", "application/x-foo [a.exe] MZ!!", "-"},
      {"type with no head", "Content-Type: /; name=\"b.exe|Content-Transfer-Encoding: base64",
       "TVohIQ==", "application/octet-stream [b.exe] MZ!!", "-"},
      {"multipart type with an unclosed quote: split as sent, not as repaired",
       "Content-Type: multipart/mixed; boundary=\"XX", "--XX|Content-Type: text/plain||hi|--XX--",
       "/ [] Cont", "-"},
      {"broken disposition",
       "Content-Type: application/octet-stream|"
       "Content-Disposition: attachment; filename=c@d.exe; size=(3|Content-Transfer-Encoding: base64",
       "TVohIQ==", "application/octet-stream [c@d.exe] MZ!!", "-"},
      {"octet-stream named like S/MIME",
       "Content-Type: application/octet-stream; name=smime.p7m|"
       "Content-Transfer-Encoding: base64",
       "TVohIQ==", "application/octet-stream [smime.p7m] MZ!!", "-"},
      {"S/MIME by type stays encrypted, its content offered all the same",
       "Content-Type: application/pkcs7-mime; name=x.exe|Content-Transfer-Encoding: base64",
       "TVohIQ==", "application/pkcs7-mime [x.exe] MZ!!", "-"},
      {"transfer encoding of two words",
       "Content-Type: application/octet-stream|Content-Transfer-Encoding: base64 encoded",
       "TVohIQ==", "application/octet-stream [] MZ!!", "-"},
      {"transfer encoding quoted",
       "Content-Type: application/octet-stream|Content-Transfer-Encoding: \"Base64\"",
       "TVohIQ==", "application/octet-stream [] MZ!!", "-"},
      {"two transfer encodings: the first reading follows",
       "Content-Type: application/octet-stream|Content-Transfer-Encoding: base64|Content-Transfer-Encoding: "
       "7bit",
       "TVohIQ==", "application/octet-stream [] MZ!! + application/octet-stream [] TVoh",
       "application/octet-stream [] TVoh"},
      {"uuencode names its file",
       "Content-Type: application/octet-stream; name=u.bin|"
       "Content-Transfer-Encoding: x-uuencode",
       "begin 644 inner.exe|#34UZ|`|end",
       "application/octet-stream [u.bin|inner.exe] begi", "application/octet-stream [u.bin] begi"},
  };
  for (const Case& c : cases) {
    const std::string text = single(c.headers, c.body);
    EXPECT_EQ(contents(hardened_plugin(), text), c.hardened) << c.name;
    EXPECT_EQ(contents(mime_test::plugin(), text), c.reference) << c.name;
  }
}

TEST(HardenedNames, ExtraReadingIsNeitherReplacedNorWritten) {
  const std::string text = single(
      "Content-Type: application/octet-stream|Content-Transfer-Encoding: base64|Content-Transfer-Encoding: 7bit",
      "TVohIQ==");
  auto tree = hardened_plugin().open(text);
  std::string error;
  ASSERT_EQ(tree->root().children.size(), 2u);
  EXPECT_FALSE(tree->can_replace(*tree->root().children[0], error));
  ASSERT_TRUE(tree->can_replace(*tree->root().children[1], error)) << error;
  tree->replace(*tree->root().children[1], "new", error);
  std::string rebuilt;
  ASSERT_TRUE(tree->rebuild(rebuilt, error)) << error;
  EXPECT_EQ(rebuilt.substr(rebuilt.find("\r\n\r\n") + 4), "new");
}

TEST(HardenedNames, MessageGlobalIsAMessage) {
  const std::string text =
      single("Content-Type: message/global", "From: b@example.org|Subject: inner|MIME-Version: 1.0||text");
  for (const bool hardened : {true, false}) {
    auto tree = (hardened ? hardened_plugin() : mime_test::plugin()).open(text);
    const Item_node* inner = tree->find("0.0");
    ASSERT_NE(inner, nullptr);
    EXPECT_EQ(property(*inner, ZOR_ITEM_TYPE), hardened ? vek_wtos(ZOR_BODY_ITEM) : "") << hardened;
  }
}

}  // namespace

// A header with UTF-8 text (RFC 6532), a line over 1087 bytes, or an mbox
// envelope line in front is a message that every client shows: hardened,
// it is taken and its body reaches the host; the reference takes none of
// them for mail.
TEST(HardenedHeaders, EightBitTextLongLinesAndEnvelopeLinesAreMail) {
  const std::pair<std::string, std::string> cases[] = {
      {"", "Subject: Gr\xc3\xbc\xc3\x9f\x65 aus M\xc3\xbcnchen|"},
      {"", "References: " + std::string(3000, 'r') + "|"},
      {"From someone@example.org Mon Jan  1 00:00:00 2024\r\n", ""},
  };
  for (const auto& [envelope, field] : cases) {
    const std::string text = envelope + single(field + "Content-Type: text/plain", "hello");
    EXPECT_EQ(contents(hardened_plugin(), text), "text/plain [] hell") << field;
    EXPECT_FALSE(mime_test::plugin().open(text)->root().taken()) << field;
  }
}

// The data of a multipart end in its last part: clients show that part, and
// a rebuild writes it once, closed, where the reference puts its text
// behind the closing delimiter it adds.
TEST(HardenedMultipart, LastPartWithoutClosingDelimiter) {
  const std::string text = crlf(
      "From: a@example.org|MIME-Version: 1.0|Content-Type: multipart/mixed; boundary=b||--b|"
      "Content-Type: text/plain||one|--b|Content-Type: application/octet-stream; name=x.exe||MZ");
  EXPECT_EQ(mime_test::plugin().open(text)->root().children.size(), 1u);
  auto tree = hardened_plugin().open(text);
  ASSERT_EQ(tree->root().children.size(), 2u);
  std::string out, error;
  ASSERT_TRUE(tree->replace(*tree->find("0"), crlf("Content-Type: text/plain||removed"), error)) << error;
  ASSERT_TRUE(tree->rebuild(out, error)) << error;
  EXPECT_EQ(out, crlf("From: a@example.org|MIME-Version: 1.0|Content-Type: multipart/mixed; boundary=b||--b|"
                      "Content-Type: text/plain||one|--b|Content-Type: text/plain||removed||--b--"));
}

// The leaves of a message in walk order, "+" in front of an extra reading
// (never written back) and of what lies under one, "|" for CR LF.
std::vector<std::string> leaves(const mime_test::Plugin& plugin, const std::string& text) {
  auto tree = plugin.open(text);
  std::vector<std::string> out;
  tree->for_each([&out](Item_node& node) {
    if (node.parent == nullptr || !node.is_leaf()) return;
    bool extra = false;
    for (const Item_node* up = &node; up != nullptr; up = up->parent)
      extra = extra || up->item->properties().find(u"AlternateReading") != nullptr;
    std::string bytes(node.bytes());
    for (size_t at = 0; (at = bytes.find("\r\n", at)) != std::string::npos;) bytes.replace(at, 2, "|");
    out.push_back((extra ? "+" : "") + bytes);
  });
  return out;
}

// Where readers differ on a multipart body or on a body's encoding, the
// host gets every reading; the reference gets the one of its own rules.
TEST(HardenedMultipart, EveryReadingOfTheBody) {
  const struct {
    const char* name;
    std::string text;
    std::vector<std::string> hardened;
    std::vector<std::string> reference;
  } cases[] = {
      {"text outside the parts",
       mime_test::message("multipart/mixed; boundary=b", "pre|--b||one|--b--|epi"),
       {"+pre|", "+epi|", "one"},
       {"one"}},
      {"a boundary that only RFC 2231 gives",
       mime_test::message("multipart/mixed; boundary*=''b", "--b||one|--b--"),
       {"one"},
       {}},
      {"two boundary parameters",
       mime_test::message("multipart/mixed; boundary=a; boundary=b", "--b||one|--b--"),
       {"one"},
       {}},
      {"a delimiter line that goes on",
       mime_test::message("multipart/mixed; boundary=b", "--b||one|--b x||two|--b--"),
       {"+one", "+two", "one|--b x||two"},
       {"one|--b x||two"}},
      // The prefix rule cuts the outer body where the inner one cuts by its
      // own boundary: nothing new.
      {"an inner boundary that begins with the outer one",
       mime_test::message("multipart/mixed; boundary=b",
                          "--b|Content-Type: multipart/alternative; boundary=b1||--b1||one|--b1--|--b--"),
       {"one"},
       {"one"}},
      {"a line inside the inner multipart that goes on with the outer boundary",
       mime_test::message("multipart/mixed; boundary=b",
                          "--b|Content-Type: multipart/alternative; boundary=b1||--b1||one|--bx||two|--b1--|--b--"),
       {"+Content-Type: multipart/alternative; boundary=b1|", "+one", "+two", "+", "one|--bx||two"},
       {"one|--bx||two"}},
      {"the parts behind the signed one",
       mime_test::message("multipart/signed; boundary=s", "--s||signed|--s||SIG|--s--"),
       {"+SIG", "signed"},
       {"signed"}},
      {"encrypted",
       mime_test::message("multipart/encrypted; boundary=e", "--e||cipher|--e--"),
       {"+cipher"},
       {}},
      {"another Content-Type field",
       mime_test::message("multipart/mixed; boundary=b|Content-Type: text/plain", "--b||one|--b--"),
       {"+one", "--b||one|--b--|"},
       {"--b||one|--b--|"}},
      {"Base64 behind a padding",
       mime_test::message("text/plain|Content-Transfer-Encoding: base64", "QQ==|QkM="),
       {"+BC", "A"},
       {"A"}},
      {"quoted-printable soft break with blanks",
       mime_test::message("text/plain|Content-Transfer-Encoding: quoted-printable", "a= |b"),
       {"ab|"},
       {"a= |b|"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(leaves(hardened_plugin(), c.text), c.hardened);
    EXPECT_EQ(leaves(mime_test::plugin(), c.text), c.reference);
  }
}

// A uuencoded file right behind the header, with no blank line: hardened,
// the message is taken and the file is an item of its own; replaced, it
// goes out behind the blank line the header lacked.
TEST(HardenedHeaders, UuencodedFileRightBehindTheHeader) {
  const std::string text = crlf("From: a@example.org|Subject: uu|begin 644 evil.exe|#34UZ|`|end");
  EXPECT_FALSE(mime_test::plugin().open(text)->root().taken());
  auto tree = hardened_plugin().open(text);
  ASSERT_TRUE(tree->root().taken());
  // Its lines, for the host's uuencode format manager to decode.
  EXPECT_EQ(std::string(tree->find("0")->bytes()), crlf("begin 644 evil.exe|#34UZ|`|end"));
  std::string out, error;
  ASSERT_TRUE(tree->replace(*tree->find("0"), "removed\r\n", error)) << error;
  ASSERT_TRUE(tree->rebuild(out, error)) << error;
  EXPECT_EQ(out, crlf("From: a@example.org|Subject: uu||removed"));
}

// An RFC 1505 "Encoding" field that does not parse, or is empty, leaves
// the whole body as one part; the reference hands over no part at all.
TEST(HardenedRfc1505, UnreadableEncodingFieldLeavesTheBodyWhole) {
  for (const char* field : {"Encoding: garbage ((", "Encoding:"}) {
    const std::string text = crlf(std::string("From: a@example.org|Subject: e|") + field + "||hello|body");
    EXPECT_TRUE(mime_test::plugin().open(text)->root().children.empty()) << field;
    auto tree = hardened_plugin().open(text);
    ASSERT_EQ(tree->root().children.size(), 1u) << field;
    EXPECT_EQ(std::string(tree->root().children[0]->bytes()), crlf("hello|body")) << field;
  }
}
