#include "manager/format_manager.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "contracts/zor.h"
#include "manager/rfc822_handler.h"
#include "manager/test_util.h"
#include "platform/fmg/host_item.h"

namespace {

using smtp_test::crlf;
using smtp_test::make_buffer;
using smtp_test::Object_ptr;
using smtp_test::text_of;

class Test_element : public Plg_element {
 public:
  Test_element() : Plg_element(u"Test SMTP", u"", u"", {0x1, 0x2, 0x3, {4, 5, 6, 7, 8, 9, 10, 11}}, 1, 1) {}
  Plg_object* create() override { return nullptr; }
};

// The manager under test, and what the last factory call was given: the
// kind of handler, whether the name and the header list were the manager's
// own, and the flags.
const Smtp_format_manager* current = nullptr;
std::string last_call;

Fmg_handler_base* record_call(const char* kind, const Vek_wstring& name,
                              const std::vector<std::string>& headers, bool is_message, bool add_empty_body,
                              const Smtp_profile& profile) {
  const bool own = &name == &current->name() && &headers == &current->export_headers();
  last_call = std::string(kind) + (own ? " own" : " copied") + (is_message ? " message" : "") +
              (add_empty_body ? " AddBody" : "") + (profile.hardened ? " Hardened" : "");
  return new Smtp_opaque_handler;
}

Fmg_handler_base* make_rfc1521(const Vek_wstring& name, const std::vector<std::string>& export_headers,
                               bool is_message, bool add_empty_body, const Smtp_profile& profile) {
  return record_call("rfc1521", name, export_headers, is_message, add_empty_body, profile);
}

Fmg_handler_base* make_rfc1505(const Vek_wstring& name, const std::vector<std::string>& export_headers,
                               bool is_message, const Smtp_profile& profile) {
  return record_call("rfc1505", name, export_headers, is_message, false, profile);
}

// A handler whose set_data fails, and that counts its instances.
class Failing_handler : public Fmg_handler_base {
 public:
  static inline int alive = 0;
  Failing_handler() { ++alive; }
  void set_data(Vek_buffer* buffer, Fmg_item& item, Vek_status& status) override {
    Fmg_handler_base::set_data(buffer, item, status);
    status = smtp_bad_content_type;
  }

 protected:
  ~Failing_handler() override { --alive; }
};

Fmg_handler_base* make_failing(const Vek_wstring&, const std::vector<std::string>&, bool, bool,
                               const Smtp_profile&) {
  return new Failing_handler;
}

// A message with the fields `fields` behind a From and a To field.
std::string mail(const std::vector<std::string>& fields, const std::string& body = "body\r\n") {
  std::vector<std::string> lines = {"From: a@example.org", "To: b@example.org"};
  lines.insert(lines.end(), fields.begin(), fields.end());
  lines.push_back("");
  return crlf(lines) + body;
}

class FormatManager : public ::testing::Test {
 protected:
  void SetUp() override { make_manager({}); }

  void make_manager(const Smtp_handler_factories& factories) {
    manager_.reset(new Smtp_format_manager(&element_, factories));
    current = manager_.get();
    manager_->set_name(u"smtp");
    Tav_property_list list;
    list.add(Tav_property(u"ExportHeader", Vek_wstring(u"Subject")));
    list.add(Tav_property(u"AddBody", true));
    Vek_status status;
    manager_->set_properties(list, status);
  }

  // Opens `text` on `item` with a status left failed by an earlier call;
  // the handler is kept until the test ends, and ends before the manager.
  Fmg_handler_base* open(const std::string& text, Fmg_host_item& item) {
    buffers_.push_back(make_buffer(text));
    status_ = Vek_status(0x1234);
    handlers_.emplace_back(manager_->open(buffers_.back().get(), item, status_));
    return handlers_.back().get();
  }

  Test_element element_;
  Object_ptr<Smtp_format_manager> manager_;
  Vek_status status_;
  std::vector<std::unique_ptr<Vek_memory_buffer>> buffers_;
  std::vector<Fmg_handler_ptr> handlers_;
};

// Unknown fields count against a header although recognition keeps none of
// their values; the inside of a MIME part needs no header at all. Which
// field sets and which lines make a header is the reader's to judge.
// Exported header fields come back as items marked UNICODE (any case):
// refused untouched, the status included. The factories get the manager's
// own name and list, which they hold by reference, and AddBody goes to the
// MIME handler only.
TEST_F(FormatManager, RecognitionAndTheChoiceOfHandler) {
  make_manager({.rfc1521 = make_rfc1521, .rfc1505 = make_rfc1505});
  std::string made_up;
  for (int i = 0; i < 6; ++i) made_up += "Made-Up-" + std::to_string(i) + ": value\r\n";
  const struct {
    const char* what;
    std::string text;
    std::string kind;  // empty: not taken
    bool enclosed = false;
    const char16_t* charset = nullptr;
    uint32_t status = 0;
  } cases[] = {
      {"nothing", mail({}), "rfc822"},
      {"MIME-Version", mail({"MIME-Version: 1.0"}), "rfc1521"},
      {"bare Content-Type", mail({"Content-Type: text"}), "rfc822"},
      {"media type", mail({"Content-Type: text/plain"}), "rfc1521"},
      {"MIME-Version beats a bare type", mail({"Content-Type: text", "MIME-Version: 1.0"}), "rfc1521"},
      {"last Content-Type counts", mail({"Content-Type: text/plain", "Content-Type: text"}), "rfc822"},
      {"bare type beats Encoding", mail({"Encoding: 10 text", "Content-Type: text"}), "rfc822"},
      {"media type beats Encoding", mail({"Encoding: 10 text", "Content-Type: text/plain"}), "rfc1521"},
      {"Encoding", mail({"encoding: 10 text"}), "rfc1505"},
      {"enclosed", mail({"Encoding: 10 text"}), "rfc1521", true},
      {"enclosed with a part header", crlf({"Content-Type: text/plain", "", "x"}), "rfc1521", true},
      {"enclosed without header", "\r\nbody\r\n", "rfc1521", true},
      {"empty, enclosed", "", "rfc1521", true},
      {"empty", "", ""},
      {"eight fields, two known", made_up + crlf({"From: a@b", "Date: today", "", "body"}), ""},
      {"marked UNICODE", mail({"Subject: hello"}), "", false, u"UniCode", 0x1234},
      {"marked UTF-8", mail({"Subject: hello"}), "rfc822", false, u"UTF-8"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    last_call.clear();
    Fmg_host_item item;
    if (c.enclosed) item.set_property(ZOR_ENCLOSED_MIME_TYPE, u"text");
    if (c.charset != nullptr) item.set_property(ZOR_ITEM_CHARSET, c.charset);
    Fmg_handler_base* handler = open(c.text, item);
    EXPECT_EQ(status_.value(), c.status);
    const bool taken = !c.kind.empty();
    EXPECT_EQ(handler != nullptr, taken);
    EXPECT_EQ(item.logs().size(), taken ? 1u : 0u);
    EXPECT_EQ(item.has_log(32), taken);
    EXPECT_EQ(item.string_property(ZOR_FORMAT_TYPE), taken ? u"Container" : u"");
    EXPECT_EQ(dynamic_cast<Smtp_rfc822_handler*>(handler) != nullptr, c.kind == "rfc822");
    EXPECT_EQ(last_call, c.kind == "rfc1521"   ? "rfc1521 own message AddBody"
                         : c.kind == "rfc1505" ? "rfc1505 own message"
                                               : "");
  }
}

// A MIME message whose handler is not built in, or cannot open it, stays
// taken with no sub-items; a failed handler is logged (33) and ended.
TEST_F(FormatManager, MessageWithoutAWorkingHandlerIsTakenWithoutSubItems) {
  for (bool failing : {false, true}) {
    SCOPED_TRACE(failing ? "failing handler" : "no handler");
    handlers_.clear();
    make_manager(failing ? Smtp_handler_factories{.rfc1521 = make_failing} : Smtp_handler_factories{});
    Fmg_host_item item;
    Fmg_handler_base* handler = open(crlf({"MIME-Version: 1.0", "From: a@b", ""}) + "x\r\n", item);
    ASSERT_NE(handler, nullptr);
    EXPECT_TRUE(status_.ok());
    EXPECT_EQ(Failing_handler::alive, 0);
    EXPECT_FALSE(handler->has_items(item, status_));
    EXPECT_EQ(item.string_property(ZOR_FORMAT_TYPE) + u"/" + item.string_property(ZOR_FORMAT_SUBTYPE),
              u"Container/SMTP");
    ASSERT_EQ(item.logs().size(), failing ? 2u : 1u);
    const auto& log = item.logs()[0];
    EXPECT_TRUE(log.code == 32 && log.severity == 2 && log.text == u"smtp" && log.status == 0);
    if (failing) {
      EXPECT_TRUE(item.logs()[1].code == 33 && item.logs()[1].status == smtp_bad_content_type);
    }
  }
}

// The first message of a tree gives the tree its subject (decoded, the last
// field counting, reported with code 7) and its date (as written). Below
// the top only an item flagged as a message (a true bool) that is no
// enclosed part publishes, and never over what the tree has already.
TEST_F(FormatManager, FirstMessageOfATreePublishesSubjectAndDate) {
  const std::string message =
      crlf({"From: a@b", "Subject: first", "Date: =?x?Q?as_is?=", "Subject: =?ISO-8859-1?Q?Caf=E9?=", ""});
  const struct {
    const char* what;
    bool below, flag, flag_as_text, enclosed, published_before, publishes;
  } cases[] = {{"top", false, false, false, false, false, true},
               {"no flag", true, false, false, false, false, false},
               {"flag", true, true, false, false, false, true},
               {"flag as text", true, false, true, false, false, false},
               {"flag, enclosed", true, true, false, true, false, false},
               {"flag, the tree has both", true, true, false, false, true, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Fmg_host_item top;
    Fmg_host_item part(&top);
    Fmg_host_item& item = c.below ? part : top;
    if (c.flag) item.add_property(Tav_property(ZOR_MESSAGE_ITEM, true));
    if (c.flag_as_text) item.set_property(ZOR_MESSAGE_ITEM, u"true");
    if (c.enclosed) item.set_property(ZOR_ENCLOSED_MIME_TYPE, u"message");
    if (c.published_before) {
      top.set_property(ZOR_SUBJECT, u"old");
      top.set_property(ZOR_DATE, u"earlier");
    }
    EXPECT_NE(open(message, item), nullptr);
    EXPECT_EQ(top.string_property(ZOR_SUBJECT) + u"|" + top.string_property(ZOR_DATE),
              c.publishes          ? u"Caf\u00E9|=?x?Q?as_is?="
              : c.published_before ? u"old|earlier"
                                   : u"|");
    ASSERT_EQ(item.reports().size(), c.publishes ? 1u : 0u);
    if (c.publishes) {
      EXPECT_TRUE(item.reports()[0].code == 7 && item.reports()[0].name == ZOR_SUBJECT &&
                  item.reports()[0].value == u"Caf\u00E9");
    }
  }
}

TEST_F(FormatManager, HandlersEndInEitherOrderBeforeTheManager) {
  for (bool in_order : {true, false}) {
    Fmg_host_item one, two;
    auto a = make_buffer(mail({"Subject: hello"}, "a\r\n"));
    auto b = make_buffer(mail({"Subject: hello"}, "begin 644 x\r\nM\r\nend\r\n"));
    Vek_status status;
    Fmg_handler_ptr first(manager_->open(a.get(), one, status));
    Fmg_handler_ptr second(manager_->open(b.get(), two, status));
    (in_order ? first : second).reset();
    EXPECT_TRUE((in_order ? second : first)->has_items(in_order ? two : one, status));
  }
}

}  // namespace
