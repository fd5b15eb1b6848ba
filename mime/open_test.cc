// Opening single entities, the signed and encrypted shapes, and what the
// host is given of each record.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

#include "mime/rfc1521_handler.h"
#include "mime/test_support.h"
#include "platform/fmg/host_item.h"

namespace {

using mime_test::crlf;

// One entity opened by a handler of its own, as the manager would open it.
struct Opened {
  Opened(std::string source, bool is_message,
         const std::vector<std::pair<std::u16string, std::u16string>>& enclosed = {},
         std::vector<std::string> export_list = {})
      : text(std::move(source)), exports(std::move(export_list)), buffer(text.size(), text.data(), 0) {
    if (is_message)
      item = std::make_unique<Fmg_host_item>();
    else
      item = std::make_unique<Fmg_host_item>(&parent);
    for (const auto& [name, value] : enclosed) item->properties().add(name, value);
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
  std::vector<uint32_t> logs() const {
    std::vector<uint32_t> codes;
    for (const auto& entry : item->logs()) codes.push_back(entry.code);
    return codes;
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
// the charset of each sub-item and the log codes.
std::string outline(Opened& opened, std::string& last_bytes) {
  auto subs = opened.walk();
  std::string kinds;
  for (const auto& sub : subs) {
    const std::string type = sub.get(ZOR_ITEM_TYPE);
    kinds += type == "-" ? '-' : type == vek_wtos(ZOR_BODY_ITEM) ? 'B' : 'A';
  }
  const Tav_property* count = opened.item->properties().find(ZOR_ATTACHMENT_COUNT);
  std::string text = opened.handler->mime_type() + "/" + opened.handler->mime_subtype() + " " + kinds +
                     " n=" + (count ? std::to_string(count->integer_value()) : "-") + " cs=";
  for (const auto& sub : subs) text += sub.get(ZOR_ITEM_CHARSET) + (&sub == &subs.back() ? "" : ",");
  if (subs.empty()) text += "-";
  text += " log=";
  for (uint32_t code : opened.logs()) text += std::to_string(code);
  last_bytes = subs.empty() ? "" : subs.back().bytes;
  return text;
}

TEST(Open, SingleBodies) {
  const std::string uu = "begin 644 a.bin\r\n#86)C\r\n`\r\nend\r\n";
  const struct {
    const char* what;
    std::string text;
    bool is_message;
    const char* enclosed;  // "type/subtype" or "type" given by a parent; null for none
    const char* outline;
    const char* last_bytes;
    uint32_t status = 0;
  } cases[] = {
      {"no header", "\r\nHello\r\n", true, nullptr, "text/plain B n=0 cs=US-ASCII log=", "Hello\r\n"},
      {"refused block hides its fields", crlf({"Content-Type: image/gif", "no colon", "", "x"}), true,
       nullptr, "text/plain B n=0 cs=US-ASCII log=", "x\r\n"},
      {"enclosed default", "\r\nFrom: a\r\n\r\nx", false, "message/rfc822",
       "message/rfc822 - n=- cs=- log=", "From: a\r\n\r\nx"},
      {"empty enclosed type", "\r\nx", false, "", "text/plain - n=- cs=US-ASCII log=", "x"},
      {"enclosed type alone", "\r\nx", false, "image", "/  n=- cs=- log=33", ""},
      {"last field counts",
       crlf({"Content-Type: text/html", "Content-Type: image/gif; charset=utf-8", "", "x"}), true, nullptr,
       "image/gif B n=0 cs=- log=", "x\r\n"},
      {"quoted-printable",
       crlf({"Content-Type: text/plain; charset=utf-8", "Content-Transfer-Encoding: Quoted-Printable", "",
             "caf=C3=A9 =", "ok =3d"}),
       true, nullptr, "text/plain B n=0 cs=UTF-8 log=", "caf\xC3\xA9 ok =\r\n"},
      {"quoted-printable ends in an escape", crlf({"Content-Transfer-Encoding: quoted-printable", ""}) + "a=",
       true, nullptr, "text/plain  n=0 cs=- log=33", ""},
      {"base64", crlf({"Content-Type: image/gif", "Content-Transfer-Encoding: base64", "", "R0lG", "OA=="}),
       true, nullptr, "image/gif B n=0 cs=- log=", "GIF8"},
      {"bad base64", crlf({"Content-Transfer-Encoding: base64", "", "R0l*"}), true, nullptr,
       "text/plain  n=0 cs=- log=33", ""},
      {"attachment on base64",
       crlf({"Content-Transfer-Encoding: base64", "Content-Disposition: ATTACHMENT", "", "R0lG"}), true,
       nullptr, "text/plain A n=1 cs=US-ASCII log=", "GIF"},
      {"attachment on 7bit", crlf({"Content-Disposition: attachment", "", "x"}), true, nullptr,
       "text/plain B n=0 cs=US-ASCII log=", "x\r\n"},
      {"encoded body of a part", crlf({"Content-Transfer-Encoding: base64", "", "R0lG"}), false, nullptr,
       "text/plain - n=- cs=US-ASCII log=", "GIF"},
      {"encoding that does not parse", crlf({"Content-Transfer-Encoding: 7bit 8bit", "", "x"}), true, nullptr,
       "text/plain  n=- cs=- log=33", ""},
      {"encoding not decoded", crlf({"Content-Transfer-Encoding: x-uuencode", "", "x"}), true, nullptr,
       "text/plain B n=0 cs=US-ASCII log=", "x\r\n"},
      // The block comes first, and both records are of the entity's type.
      {"embedded block", crlf({"Content-Type: text/plain; charset=utf-8", "", "see"}) + uu + "bye\r\n", true,
       nullptr, "text/plain AB n=1 cs=UTF-8,UTF-8 log=", "see\r\n"},
      {"disposition that does not parse fails the opening",
       crlf({"Content-Disposition: attachment; filename", "", "x"}), true, nullptr,
       "text/plain  n=- cs=- log=", "", smtp_bad_content_disposition},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<std::pair<std::u16string, std::u16string>> enclosed;
    if (c.enclosed != nullptr) {
      const std::string_view type = c.enclosed;
      const size_t slash = type.find('/');
      enclosed.emplace_back(ZOR_ENCLOSED_MIME_TYPE, vek_stow(type.substr(0, slash)));
      if (slash != std::string_view::npos)
        enclosed.emplace_back(ZOR_ENCLOSED_MIME_SUBTYPE, vek_stow(type.substr(slash + 1)));
    }
    Opened opened(c.text, c.is_message, enclosed);
    EXPECT_EQ(opened.status.value(), c.status);
    std::string last;
    EXPECT_EQ(outline(opened, last), c.outline);
    EXPECT_EQ(last, c.last_bytes);
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
      {"application/pkcs7-mime; smime-type=other; name=a.p7c", "", "e"},
      {"application/pkcs10", "", "c"},
      {"application/x-pkcs10", "", "c"},
      {"application/octet-stream", "attachment; filename=MAIL.P7M", "e"},
      {"application/octet-stream; name=x.aps", "", "s"},
      {"application/octet-stream; name=x.p10", "", "c"},
      {"application/octet-stream; name=noext", "attachment; filename=a.p7m", ""},
      {"application/octet-stream; name=a.zip", "", ""},
      {"text/plain; name=a.p7m", "", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.content_type);
    std::vector<std::string> lines = {"Subject: s", std::string("Content-Type: ") + c.content_type};
    if (*c.disposition) lines.push_back(std::string("Content-Disposition: ") + c.disposition);
    // A multipart entity with one part; any other a Base64 body.
    if (std::string_view(c.content_type).starts_with("multipart"))
      lines.insert(lines.end(), {"", "--b", "", "x", "--b--"});
    else
      lines.insert(lines.end(), {"Content-Transfer-Encoding: base64", "", "R0lG"});
    Opened opened(crlf(lines), true, {}, {"SUBJECT"});
    ASSERT_TRUE(opened.status.ok());
    std::string flags = std::string(opened.handler->is_signed() ? "s" : "") +
                        (opened.handler->is_encrypted() ? "e" : "") +
                        (opened.handler->is_certificate() ? "c" : "");
    EXPECT_EQ(flags, c.flags);
    Vek_status s;
    const bool encrypted = flags == "e";
    EXPECT_EQ(opened.handler->has_items(*opened.item, s), !encrypted);
    EXPECT_EQ(opened.item->has_log(36), encrypted);
    EXPECT_EQ(opened.item->has_log(35), flags == "s");
    // Encrypted: the header record stays, out of reach. Else header + body.
    EXPECT_EQ(opened.handler->table().items.size(), encrypted ? 1u : 2u);
    if (!encrypted) {
      EXPECT_EQ(opened.handler->can_modify_item(1, *opened.item, s), flags.empty());
    }
  }
}

// The host gets the exported fields first, decoded, and the body last with
// its name as written; positions out of range throw, and the header records
// cannot be replaced.
TEST(Access, PositionsPropertiesAndFaultsOfTheCaller) {
  Opened opened(crlf({"Subject: =?utf-8?q?caf=C3=A9?=", "Date: today",
                      "Content-Type: text/plain; charset=utf-8;", " name=\"=?utf-8?q?x?= a.txt\"", "", "x"}),
                true, {}, {"DATE", "SUBJECT"});
  ASSERT_TRUE(opened.status.ok());
  auto subs = opened.walk();
  ASSERT_EQ(subs.size(), 3u);
  EXPECT_EQ(subs[0].get(ZOR_ITEM_NAME) + " " + subs[0].get(ZOR_ITEM_CHARSET), "SUBJECT UNICODE");
  EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(subs[0].bytes.data()), subs[0].bytes.size() / 2),
            u"caf\u00e9");
  EXPECT_EQ(subs[2].get(ZOR_ITEM_NAME) + " " + subs[2].get(ZOR_ITEM_CHARSET), "=?utf-8?q?x?= a.txt UTF-8");

  Smtp_rfc1521_handler& handler = *opened.handler;
  Fmg_host_item sub(opened.item.get());
  Vek_status s;
  uint32_t position = smtp_no_position;
  try {
    handler.get_item(position, sub, s);
    ADD_FAILURE() << "no exception";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "Smtp_rfc1521_handler::get_item - invalid position.");
  }
  EXPECT_THROW(handler.set_item(1, nullptr, sub, s), std::invalid_argument);
  EXPECT_THROW(handler.free_item(3, sub, s), std::invalid_argument);
  EXPECT_THROW(handler.is_item_modified(3, sub, s), std::invalid_argument);
  EXPECT_THROW(handler.can_modify_item(3, sub, s), std::invalid_argument);
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
