// Opening single entities, the signed and encrypted shapes, and what the
// host is given of each record.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

#include "manager/test_util.h"
#include "mime/rfc1521_handler.h"
#include "mime/test_support.h"
#include "platform/fmg/host_item.h"

namespace {

using mime_test::crlf;

// One entity opened by a handler of its own, as the manager would open it:
// a message, or, given `enclosed` ("type/subtype" or "type"), a part to
// which its parent gave that type.
struct Opened {
  explicit Opened(std::string source, const char* enclosed = nullptr,
                  std::vector<std::string> export_list = {})
      : text(std::move(source)), exports(std::move(export_list)), buffer(text.size(), text.data(), 0) {
    const bool is_message = enclosed == nullptr;
    item = is_message ? std::make_unique<Fmg_host_item>() : std::make_unique<Fmg_host_item>(&parent);
    if (!is_message) {
      const std::string_view type = enclosed;
      const size_t slash = type.find('/');
      item->properties().add(ZOR_ENCLOSED_MIME_TYPE, vek_stow(type.substr(0, slash)));
      if (slash != std::string_view::npos)
        item->properties().add(ZOR_ENCLOSED_MIME_SUBTYPE, vek_stow(type.substr(slash + 1)));
    }
    handler.reset(new Smtp_rfc1521_handler(name, exports, is_message, false));
    handler->set_data(&buffer, *item, status);
  }
  // Every sub-item in the host's order: its properties and bytes.
  struct Sub {
    std::unique_ptr<Fmg_host_item> item;
    std::string bytes;
    std::string get(std::u16string_view name) const {
      const Tav_property* found = item->properties().find(name);
      if (found == nullptr) return "-";
      return found->type() == Tav_property::type_string ? vek_wtos(found->string_value())
                                                        : std::to_string(found->integer_value());
    }
  };
  std::vector<Sub> walk() {
    std::vector<Sub> subs;
    Vek_status s;
    if (!handler->has_items(*item, s)) return subs;
    for (uint32_t position = 0; position != smtp_no_position;) {
      Sub sub{std::make_unique<Fmg_host_item>(item.get()), {}};
      const Vek_buffer* bytes = handler->get_item(position, *sub.item, s);
      if (bytes->size() != 0) sub.bytes.assign(reinterpret_cast<const char*>(bytes->data()), bytes->size());
      subs.push_back(std::move(sub));
    }
    return subs;
  }

  std::string text;
  // The manager's name and header list, which the handler holds by reference.
  const Vek_wstring name = u"smtpfm";
  std::vector<std::string> exports;
  Vek_raw_memory_buffer buffer;
  Fmg_host_item parent;
  std::unique_ptr<Fmg_host_item> item;
  std::unique_ptr<Smtp_rfc1521_handler, Fmg_handler_release> handler;
  Vek_status status;
};

// What an opened entity shows: its type, the item types of its sub-items
// in the host's order (B body, A attachment, - none), the attachment count,
// the charset of each sub-item, the log codes and the bytes of the last
// sub-item.
std::string outline(Opened& opened) {
  const auto subs = opened.walk();
  std::string kinds, charsets;
  for (const auto& sub : subs) {
    const std::string type = sub.get(ZOR_ITEM_TYPE);
    kinds += type == "-" ? '-' : type == vek_wtos(ZOR_BODY_ITEM) ? 'B' : 'A';
    charsets += (charsets.empty() ? "" : ",") + sub.get(ZOR_ITEM_CHARSET);
  }
  const Tav_property* count = opened.item->properties().find(ZOR_ATTACHMENT_COUNT);
  std::string text = opened.handler->mime_type() + "/" + opened.handler->mime_subtype() + " " + kinds +
                     " n=" + (count ? std::to_string(count->integer_value()) : "-") +
                     " cs=" + (subs.empty() ? "-" : charsets) + " log=";
  for (const auto& entry : opened.item->logs()) text += std::to_string(entry.code);
  return text + " =" + (subs.empty() ? "" : subs.back().bytes);
}

TEST(Open, SingleBodies) {
  const struct {
    const char* what;
    std::string text;
    const char* enclosed;  // null for a message
    const char* outline;
    uint32_t status = 0;
    const char* unexamined = nullptr;  // where given: the body text that no sub-item holds
  } cases[] = {
      {"no header", crlf("|Hello"), nullptr, "text/plain B n=0 cs=US-ASCII log= =Hello\r\n"},
      {"refused block hides its fields", crlf("Content-Type: image/gif|no colon||x"), nullptr,
       "text/plain B n=0 cs=US-ASCII log= =x\r\n"},
      {"empty enclosed type", "\r\nx", "", "text/plain - n=- cs=US-ASCII log= =x"},
      {"enclosed type alone", "\r\nx", "image", "/  n=- cs=- log=33 ="},
      {"last field counts", crlf("Content-Type: text/html|Content-Type: image/gif; charset=utf-8||x"),
       nullptr, "image/gif B n=0 cs=- log= =x\r\n"},
      {"quoted-printable",
       crlf("Content-Type: text/plain; charset=utf-8|Content-Transfer-Encoding: Quoted-Printable||"
            "caf=C3=A9 =|ok =3d"),
       nullptr, "text/plain B n=0 cs=UTF-8 log= =caf\xC3\xA9 ok =\r\n"},
      {"quoted-printable ends in an escape",
       crlf("Content-Transfer-Encoding: quoted-printable|") + "a=", nullptr, "text/plain  n=0 cs=- log=33 ="},
      {"base64", crlf("Content-Type: image/gif|Content-Transfer-Encoding: base64||R0lG|OA=="), nullptr,
       "image/gif B n=0 cs=- log= =GIF8"},
      {"bad base64", crlf("Content-Transfer-Encoding: base64||R0l*"), nullptr,
       "text/plain  n=0 cs=- log=33 ="},
      // "Cg==" broken over two lines: the second "=" is padding, no text.
      {"base64 padding on a line of its own", crlf("Content-Transfer-Encoding: base64||Cg=|="), nullptr,
       "text/plain B n=0 cs=US-ASCII log= =\n", 0, ""},
      {"attachment on base64",
       crlf("Content-Transfer-Encoding: base64|Content-Disposition: ATTACHMENT||R0lG"), nullptr,
       "text/plain A n=1 cs=US-ASCII log= =GIF"},
      {"attachment on 7bit", crlf("Content-Disposition: attachment||x"), nullptr,
       "text/plain B n=0 cs=US-ASCII log= =x\r\n"},
      {"encoding that does not parse", crlf("Content-Transfer-Encoding: 7bit 8bit||x"), nullptr,
       "text/plain  n=- cs=- log=33 ="},
      {"encoding not decoded", crlf("Content-Transfer-Encoding: x-uuencode||x"), nullptr,
       "text/plain B n=0 cs=US-ASCII log= =x\r\n"},
      // The block comes first, and both records are of the entity's type.
      {"embedded block", crlf("Content-Type: text/plain; charset=utf-8||see|begin 644 a.bin|#86)C|`|end|bye"),
       nullptr, "text/plain AB n=1 cs=UTF-8,UTF-8 log= =see\r\n"},
      {"disposition that does not parse fails the opening",
       crlf("Content-Disposition: attachment; filename||x"), nullptr,
       "text/plain  n=- cs=- log= =", smtp_bad_content_disposition},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Opened opened(c.text, c.enclosed);
    EXPECT_EQ(opened.status.value(), c.status);
    EXPECT_EQ(outline(opened), c.outline);
    if (c.unexamined != nullptr) {
      EXPECT_EQ(unexamined_text(opened.handler->coverage().unexamined()), c.unexamined);
    }
  }
}

TEST(Secure, ClassifiedByTypeParameterAndFileName) {
  const struct {
    const char* content_type;
    const char* disposition;
    const char* flags;  // s signed, e encrypted, c certificate
  } cases[] = {
      {"multipart/signed; boundary=b", "", "s"},
      {"multipart/encrypted; boundary=b", "", "e"},
      {"application/pkcs7-mime; smime-type=signed-data", "", "s"},
      {"application/pkcs7-mime; smime-type=enveloped-data", "", "e"},
      {"application/pkcs7-mime; smime-type=certs-only", "", "c"},
      {"application/pkcs7-mime", "", "e"},
      {"application/x-pkcs7-mime; name=smime.p7s", "", "s"},
      {"application/pkcs10", "", "c"},
      {"application/octet-stream", "attachment; filename=MAIL.P7M", "e"},
      {"application/octet-stream; name=x.aps", "", "s"},
      {"application/octet-stream; name=x.p10", "", "c"},
      {"application/octet-stream; name=noext", "attachment; filename=a.p7m", ""},
      {"application/octet-stream; name=a.zip", "", ""},
      {"text/plain; name=a.p7m", "", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.content_type);
    // A multipart entity with one part; any other a Base64 body.
    const std::string type = c.content_type;
    Opened opened(
        crlf("Subject: s|Content-Type: " + type +
             (*c.disposition ? "|Content-Disposition: " + std::string(c.disposition) : "") +
             (type.starts_with("multipart") ? "||--b||x|--b--" : "|Content-Transfer-Encoding: base64||R0lG")),
        nullptr, {"SUBJECT"});
    ASSERT_TRUE(opened.status.ok());
    const Smtp_rfc1521_handler& handler = *opened.handler;
    const std::string flags = std::string(handler.is_signed() ? "s" : "") +
                              (handler.is_encrypted() ? "e" : "") + (handler.is_certificate() ? "c" : "");
    EXPECT_EQ(flags, c.flags);
    Vek_status s;
    const bool encrypted = flags == "e";
    EXPECT_EQ(opened.handler->has_items(*opened.item, s), !encrypted);
    EXPECT_EQ(opened.item->has_log(36), encrypted);
    EXPECT_EQ(opened.item->has_log(35), flags == "s");
    // Encrypted: the header record stays, out of reach. Else header + body.
    EXPECT_EQ(handler.table().items.size(), encrypted ? 1u : 2u);
    if (!encrypted) {
      EXPECT_EQ(opened.handler->can_modify_item(1, *opened.item, s), flags.empty());
    }
  }
}

// The host gets the exported fields first, decoded, and the body last with
// its name as written; positions out of range throw, and the header records
// cannot be replaced.
TEST(Access, PositionsPropertiesAndFaultsOfTheCaller) {
  Opened opened(crlf("Subject: =?utf-8?q?caf=C3=A9?=|Date: today|Content-Type: text/plain; charset=utf-8;|"
                     " name=\"=?utf-8?q?x?= a.txt\"||x"),
                nullptr, {"DATE", "SUBJECT"});
  ASSERT_TRUE(opened.status.ok());
  auto subs = opened.walk();
  ASSERT_EQ(subs.size(), 3u);
  EXPECT_EQ(subs[0].get(ZOR_ITEM_NAME) + " " + subs[0].get(ZOR_ITEM_CHARSET), "SUBJECT UNICODE");
  EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(subs[0].bytes.data()), subs[0].bytes.size() / 2),
            u"caf\u00e9");
  EXPECT_EQ(subs[2].get(ZOR_ITEM_NAME) + " " + subs[2].get(ZOR_ITEM_CHARSET), "=?utf-8?q?x?= a.txt UTF-8");

  Smtp_rfc1521_handler& handler = *opened.handler;
  Fmg_host_item sub(opened.item.get());
  smtp_test::expect_position_refused(handler, sub, 3, "Smtp_rfc1521_handler");
  Vek_status s;
  EXPECT_THROW(handler.set_item(1, nullptr, sub, s), std::invalid_argument);
  s = vek_bad_argument;
  handler.free_item(0, sub, s);
  EXPECT_TRUE(s.ok());
  EXPECT_FALSE(handler.can_modify_item(1, sub, s));
  EXPECT_TRUE(handler.can_modify_item(2, sub, s));
  EXPECT_FALSE(handler.is_modified(sub, s));

  handler.set_item(2, new Vek_memory_buffer, sub, s);
  EXPECT_TRUE(handler.is_item_modified(2, sub, s));
  EXPECT_TRUE(handler.is_modified(sub, s));
  EXPECT_EQ(opened.walk().back().get(ZOR_ITEM_LENGTH), "-1");
}

}  // namespace
