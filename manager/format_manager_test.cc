#include "manager/format_manager.h"

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "contracts/zor.h"
#include "manager/rfc822_handler.h"
#include "manager/test_util.h"
#include "platform/fmg/host_item.h"
#include "reader/test_corpus.h"

namespace {

using smtp_test::crlf;
using smtp_test::make_buffer;
using smtp_test::Object_ptr;
using smtp_test::text_of;

constexpr Tav_guid test_type = {0x1, 0x2, 0x3, {4, 5, 6, 7, 8, 9, 10, 11}};

class Test_element : public Plg_element {
 public:
  Test_element() : Plg_element(u"Test SMTP", u"", u"", test_type, 1, 1) {}
  Plg_object* create() override { return nullptr; }
};

// What the last factory call was given.
struct Factory_call {
  std::string kind;
  const Vek_wstring* name = nullptr;
  const std::vector<std::string>* export_headers = nullptr;
  bool is_message = false;
  bool add_empty_body = false;
};
Factory_call last_call;

Fmg_handler_base* make_rfc1521(const Vek_wstring& name, const std::vector<std::string>& export_headers,
                               bool is_message, bool add_empty_body) {
  last_call = {"rfc1521", &name, &export_headers, is_message, add_empty_body};
  return new Smtp_opaque_handler;
}

Fmg_handler_base* make_rfc1505(const Vek_wstring& name, const std::vector<std::string>& export_headers,
                               bool is_message) {
  last_call = {"rfc1505", &name, &export_headers, is_message, false};
  return new Smtp_opaque_handler;
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

Fmg_handler_base* make_failing(const Vek_wstring&, const std::vector<std::string>&, bool, bool) {
  return new Failing_handler;
}

const std::string plain_header = crlf({"From: a@example.org", "To: b@example.org", "Subject: hello", ""});

class FormatManager : public ::testing::Test {
 protected:
  void SetUp() override { make_manager({}); }

  void make_manager(const Smtp_handler_factories& factories) {
    manager_.reset(new Smtp_format_manager(&element_, factories));
    manager_->set_name(u"smtp");
    Tav_property_list list;
    list.add(Tav_property(u"ExportHeader", Vek_wstring(u"Subject")));
    list.add(Tav_property(u"AddBody", true));
    Vek_status status;
    manager_->set_properties(list, status);
  }

  // Opens `text` on `item`; the handler is kept until the test ends.
  Fmg_handler_base* open(const std::string& text, Fmg_host_item& item) {
    buffers_.push_back(make_buffer(text));
    status_.clear();
    Fmg_handler_base* handler = manager_->open(buffers_.back().get(), item, status_);
    handlers_.emplace_back(handler);
    return handler;
  }

  void TearDown() override {
    handlers_.clear();
    manager_.reset();
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
TEST_F(FormatManager, RecognitionTakesMailAndRefusesTheRest) {
  std::string made_up;
  for (int i = 0; i < 6; ++i) made_up += "Made-Up-" + std::to_string(i) + ": value\r\n";
  std::string binary;
  for (int i = 0; i < 512; ++i) binary += static_cast<char>((i * 73 + 11) % 256);
  const struct {
    const char* what;
    std::string text;
    bool enclosed;
    bool taken;
  } cases[] = {
      {"plain message", plain_header + "body\r\n", false, true},
      {"eight fields, two known", made_up + crlf({"From: a@b", "Date: today", "", "body"}), false, false},
      {"empty", "", false, false},
      {"empty, enclosed", "", true, true},
      {"enclosed without header", "\r\nbody\r\n", true, true},
      {"enclosed with header", crlf({"Content-Type: text/plain", "", "x"}), true, true},
      {"binary", binary, false, false},
      {"C source", "#include <stdio.h>\n\nint main(void) {\n  return 0;\n}\n", false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Fmg_host_item item;
    if (c.enclosed) item.set_property(ZOR_ENCLOSED_MIME_TYPE, u"text");
    Fmg_handler_base* handler = open(c.text, item);
    EXPECT_TRUE(status_.ok());
    EXPECT_EQ(handler != nullptr, c.taken);
    EXPECT_EQ(item.has_log(32), c.taken);
    EXPECT_EQ(item.string_property(ZOR_FORMAT_TYPE), c.taken ? u"Container" : u"");
  }
}

// Exported header fields come back as items marked UNICODE (any case):
// refused with the status and the item untouched.
TEST_F(FormatManager, ItemsMarkedUnicodeAreRefusedUntouched) {
  Fmg_host_item item;
  item.set_property(ZOR_ITEM_CHARSET, u"UniCode");
  auto buffer = make_buffer(plain_header + "body\r\n");
  Vek_status status(0x1234);
  EXPECT_EQ(manager_->open(buffer.get(), item, status), nullptr);
  EXPECT_EQ(status.value(), 0x1234u);
  EXPECT_TRUE(item.logs().empty());
  Fmg_host_item other;
  other.set_property(ZOR_ITEM_CHARSET, u"UTF-8");
  EXPECT_NE(open(plain_header + "body\r\n", other), nullptr);
}

// The factories get the manager's own name and list, which they hold by
// reference, and AddBody goes to the MIME handler only.
TEST_F(FormatManager, HandlerChosenByTheFieldsOfTheHeader) {
  make_manager({.rfc1521 = make_rfc1521, .rfc1505 = make_rfc1505});
  const struct {
    const char* what;
    std::vector<std::string> fields;
    bool enclosed;
    std::string kind;
  } cases[] = {
      {"nothing", {}, false, "rfc822"},
      {"MIME-Version", {"MIME-Version: 1.0"}, false, "rfc1521"},
      {"bare Content-Type", {"Content-Type: text"}, false, "rfc822"},
      {"media type", {"Content-Type: text/plain"}, false, "rfc1521"},
      {"MIME-Version beats a bare type", {"Content-Type: text", "MIME-Version: 1.0"}, false, "rfc1521"},
      {"last Content-Type counts", {"Content-Type: text/plain", "Content-Type: text"}, false, "rfc822"},
      {"bare type beats Encoding", {"Encoding: 10 text", "Content-Type: text"}, false, "rfc822"},
      {"media type beats Encoding", {"Encoding: 10 text", "Content-Type: text/plain"}, false, "rfc1521"},
      {"Encoding", {"encoding: 10 text"}, false, "rfc1505"},
      {"enclosed", {"Encoding: 10 text"}, true, "rfc1521"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    last_call = {};
    Fmg_host_item item;
    if (c.enclosed) item.set_property(ZOR_ENCLOSED_MIME_TYPE, u"text");
    std::vector<std::string> lines = {"From: a@example.org", "To: b@example.org"};
    lines.insert(lines.end(), c.fields.begin(), c.fields.end());
    lines.push_back("");
    Fmg_handler_base* handler = open(crlf(lines) + "body\r\n", item);
    ASSERT_NE(handler, nullptr);
    EXPECT_TRUE(status_.ok());
    if (c.kind == "rfc822") {
      EXPECT_NE(dynamic_cast<Smtp_rfc822_handler*>(handler), nullptr);
      EXPECT_EQ(last_call.kind, "");
      continue;
    }
    EXPECT_EQ(last_call.kind, c.kind);
    EXPECT_EQ(last_call.name, &manager_->name());
    EXPECT_EQ(last_call.export_headers, &manager_->export_headers());
    EXPECT_TRUE(last_call.is_message);
    EXPECT_EQ(last_call.add_empty_body, c.kind == "rfc1521");
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

TEST_F(FormatManager, FirstMessageOfATreePublishesSubjectAndDate) {
  Fmg_host_item top;
  open(crlf({"From: a@b", "Subject: first", "Date: =?x?Q?as_is?=", "Subject: =?ISO-8859-1?Q?Caf=E9?=", ""}),
       top);
  EXPECT_EQ(top.string_property(ZOR_SUBJECT), u"Caf\u00E9");
  EXPECT_EQ(top.string_property(ZOR_DATE), u"=?x?Q?as_is?=");
  ASSERT_EQ(top.reports().size(), 1u);
  EXPECT_TRUE(top.reports()[0].code == 7 && top.reports()[0].name == ZOR_SUBJECT &&
              top.reports()[0].value == u"Caf\u00E9");

  // A message inside it changes nothing.
  Fmg_host_item inner(&top);
  inner.add_property(Tav_property(ZOR_MESSAGE_ITEM, true));
  EXPECT_NE(open(crlf({"From: a@b", "Subject: inner", "Date: later", ""}), inner), nullptr);
  EXPECT_EQ(top.string_property(ZOR_SUBJECT) + top.string_property(ZOR_DATE), u"Caf\u00E9=?x?Q?as_is?=");
  EXPECT_TRUE(inner.reports().empty());
}

// Below the top, only an item flagged as a message (a true bool) that is no
// enclosed part publishes.
TEST_F(FormatManager, OnlyMessagesThatAreNotEnclosedPublish) {
  const struct {
    const char* what;
    bool flag, flag_as_text, enclosed, publishes;
  } cases[] = {{"no flag", false, false, false, false},
               {"flag", true, false, false, true},
               {"flag as text", false, true, false, false},
               {"flag, enclosed", true, false, true, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Fmg_host_item top;
    Fmg_host_item part(&top);
    if (c.flag) part.add_property(Tav_property(ZOR_MESSAGE_ITEM, true));
    if (c.flag_as_text) part.set_property(ZOR_MESSAGE_ITEM, u"true");
    if (c.enclosed) part.set_property(ZOR_ENCLOSED_MIME_TYPE, u"message");
    EXPECT_NE(open(plain_header + "x\r\n", part), nullptr);
    EXPECT_EQ(top.properties().find(ZOR_SUBJECT) != nullptr, c.publishes);
    EXPECT_EQ(part.reports().size(), c.publishes ? 1u : 0u);
  }
}

TEST_F(FormatManager, HandlersEndInEitherOrderBeforeTheManager) {
  for (bool in_order : {true, false}) {
    Fmg_host_item one, two;
    auto a = make_buffer(plain_header + "a\r\n");
    auto b = make_buffer(plain_header + "begin 644 x\r\nM\r\nend\r\n");
    Vek_status status;
    Fmg_handler_ptr first(manager_->open(a.get(), one, status));
    Fmg_handler_ptr second(manager_->open(b.get(), two, status));
    (in_order ? first : second).reset();
    EXPECT_TRUE((in_order ? second : first)->has_items(in_order ? two : one, status));
  }
}

// Every message of the corpus is opened with a good status; a plain one can
// be walked and is written back unchanged. The refused ones are the eight
// that LooksLikeMessageHeader.Corpus names, and for the same reasons.
TEST_F(FormatManager, CorpusIsTaken) {
  const std::vector<Corpus_message> messages = load_corpus();
  if (messages.empty()) GTEST_SKIP() << "no corpus at " << corpus_dir();
  std::set<std::string> refused;
  for (const Corpus_message& message : messages) {
    Fmg_host_item item;
    Fmg_handler_base* handler = open(message.text, item);
    EXPECT_TRUE(status_.ok()) << message.name;
    if (handler == nullptr) {
      refused.insert(message.name.substr(message.name.rfind('/') + 1));
      continue;
    }
    if (auto* plain = dynamic_cast<Smtp_rfc822_handler*>(handler)) {
      for (uint32_t position = 0; position != smtp_no_position;) {
        Fmg_host_item child(&item);
        ASSERT_NE(plain->get_item(position, child, status_), nullptr);
      }
      std::unique_ptr<Vek_buffer> copy(plain->rebuild(item, status_));
      EXPECT_EQ(text_of(copy.get()), message.text) << message.name;
    }
  }
  EXPECT_GT(messages.size(), 100u);
  EXPECT_EQ(refused,
            (std::set<std::string>{"malformedHeaderStartsBody-nocrlfcrlf.msg",
                                   "malformedHeader-nocrlfcrlf.msg", "msg_35.txt",
                                   "malformedHeaderStartsBody-noheader.msg", "malformedHeader-noheader.msg",
                                   "msg_19.txt", "obsolete.msg", "very-very-long-boundary.msg"}));
}

}  // namespace
