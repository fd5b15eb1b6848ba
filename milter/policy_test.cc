// The policy file: what a bad one is refused for (line and reason), what
// a good one means, and how rules match an item's facts.
#include "milter/policy.h"

#include <gtest/gtest.h>

namespace {

TEST(Policy, BadFilesAreRefusedWithLineAndReason) {
  const struct {
    const char* name;
    const char* in;
    const char* want;  // the start of the error, after "p.toml:"
  } cases[] = {
      {"toml syntax", "default = \"accept\"\n[[rule]\naction = \"reject\"\n", "2:"},
      {"unknown top key", "default = \"accept\"\nverdict = 1\n", "2: unknown key \"verdict\""},
      {"unknown rule key", "[[rule]]\naction = \"reject\"\nfile-nam = \"*.exe\"\n", "3: unknown key \"file-nam\""},
      {"no action", "[[rule]]\nfile-name = \"*.exe\"\n", "1: \"action\" is missing"},
      {"unknown action", "[[rule]]\naction = \"drop\"\n", "2: unknown action \"drop\""},
      {"reject with 4xx", "[[rule]]\naction = \"reject\"\ncode = 451\n", "3: \"code\" of reject must be 5xx"},
      {"tempfail with 5xx", "on-error = { action = \"tempfail\", code = 554 }\n", "1: \"code\" of tempfail must be 4xx"},
      {"status of another class", "[[rule]]\naction = \"reject\"\nstatus = \"4.7.1\"\n", "3: \"status\" must be"},
      {"text with a line end", "[[rule]]\naction = \"reject\"\ntext = \"a\\r\\nb\"\n", "3: \"text\" must be one line"},
      {"reply on accept", "[[rule]]\naction = \"disarm\"\ncode = 550\n", "3: \"code\" needs action reject"},
      {"exit 0 refuses nothing", "[[rule]]\naction = \"reject\"\nexit = 0\n", "3: \"exit\" of a refusal cannot be 0"},
      {"type without subtype", "[[rule]]\naction = \"reject\"\ntype = \"application\"\n", "3: \"type\" patterns"},
      {"bad item type", "[[rule]]\naction = \"reject\"\nitem-type = \"part\"\n", "3: \"item-type\" is attachment"},
      {"negative size", "[[rule]]\naction = \"reject\"\nmin-size = -1\n", "3: \"min-size\" must be between"},
      {"names repeat", "[[rule]]\nname = \"a\"\naction = \"accept\"\n[[rule]]\nname = \"a\"\naction = \"accept\"\n",
       "4: a second rule named \"a\""},
  };
  for (const auto& c : cases) {
    std::string error;
    EXPECT_FALSE(Policy::parse(c.in, "p.toml", error)) << c.name;
    EXPECT_EQ(error.rfind(std::string("p.toml:") + c.want, 0), 0u) << c.name << ": " << error;
  }
}

TEST(Policy, GoodFileMeansWhatItSays) {
  std::string error;
  auto policy = Policy::parse(R"(
verdict-header = "X-Checked"
default = "quarantine"
[on-error]
action = "reject"
code = 554
text = "Unreadable"
[[rule]]
name = "exe"
file-name = ["*.exe", "*.scr"]
action = "reject"
status = "5.7.0"
exit = 77
[[rule]]
type = "application/*"
action = "tempfail"
)",
                              "p.toml", error);
  ASSERT_TRUE(policy) << error;
  EXPECT_EQ(policy->verdict_header, "X-Checked");
  EXPECT_EQ(policy->default_outcome.action, Action::quarantine);
  EXPECT_EQ(policy->on_error.action, Action::reject);
  EXPECT_EQ(policy->on_error.code + " " + policy->on_error.status + " " + policy->on_error.text, "554 5.7.1 Unreadable");
  ASSERT_EQ(policy->rules.size(), 2u);
  const Rule& exe = policy->rules[0];
  EXPECT_EQ(exe.name, "exe");
  EXPECT_EQ(exe.line, 8);
  EXPECT_EQ(exe.outcome.code + " " + exe.outcome.status, "550 5.7.0");
  EXPECT_EQ(exe.outcome.exit_code, 77);
  EXPECT_EQ(policy->rules[1].name, "rule-2");
  EXPECT_EQ(policy->rules[1].outcome.code + " " + policy->rules[1].outcome.status, "451 4.7.1");
  EXPECT_EQ(policy->rules[1].outcome.exit_code, 75);

  // Nothing said: accept, and tempfail for what cannot be read.
  auto empty = Policy::parse("", "p.toml", error);
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty->default_outcome.action, Action::accept);
  EXPECT_EQ(empty->on_error.action, Action::tempfail);
  EXPECT_EQ(empty->on_error.code, "451");
}

TEST(Policy, RulesMatchItemFacts) {
  Item_facts exe;
  exe.names = {"Invoice.PDF", "invoice.pdf.exe"};  // the alternate name a client may show
  exe.mime_type = "application/octet-stream";
  exe.item_type = "attachment";
  exe.depth = 2;
  exe.size = 1000;
  Item_facts body;
  body.mime_type = "text/plain";
  body.item_type = "body";
  body.depth = 1;
  body.is_signed = true;

  std::string error;
  auto policy = Policy::parse(R"(
[[rule]]
name = "exe"
file-name = "*.EXE"
action = "reject"
[[rule]]
name = "deep-big"
min-depth = 2
min-size = 1000
max-size = 1000
action = "disarm"
[[rule]]
name = "signed-text"
type = "text/*"
item-type = ["body", "header"]
signed = true
encrypted = false
action = "accept"
[[rule]]
name = "any-type"
type = "*"
action = "quarantine"
)",
                              "p.toml", error);
  ASSERT_TRUE(policy) << error;
  auto matched = [&](const Item_facts& facts) {
    const Rule* rule = policy->match(facts);
    return rule ? rule->name : std::string("none");
  };
  EXPECT_EQ(matched(exe), "exe");
  exe.names = {"invoice.pdf"};
  EXPECT_EQ(matched(exe), "deep-big");
  exe.size = 1001;
  EXPECT_EQ(matched(exe), "any-type");
  EXPECT_EQ(matched(body), "signed-text");
  body.is_signed = false;
  EXPECT_EQ(matched(body), "any-type");
  body.mime_type.clear();  // "*" asks for a type, and there is none
  EXPECT_EQ(matched(body), "none");
}

TEST(Glob, MatchesLikeAShell) {
  const struct {
    const char* pattern;
    const char* text;
    bool want;
  } cases[] = {
      {"*.exe", "a.exe", true},      {"*.exe", "a.EXE", true},    {"*.exe", "a.exe.txt", false},
      {"*.exe", ".exe", true},       {"a?c", "abc", true},        {"a?c", "ac", false},
      {"*a*b*", "xxaxxbxx", true},   {"*a*b", "ab ba", false},    {"", "", true},
      {"*", "", true},               {"a*", "b", false},          {"*.tar.gz", "x.tar.tar.gz", true},
  };
  for (const auto& c : cases) EXPECT_EQ(glob_match(c.pattern, c.text), c.want) << c.pattern << " " << c.text;
}

}  // namespace
