// Parameters split as mail clients split them, and RFC 2231 values.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "reader/field_parsers.h"

namespace {

// "head" then "attribute=value" per parameter, joined by "|".
std::string split(std::string_view value) {
  std::string head;
  std::vector<Smtp_header_field> parameters;
  split_parameters(value, head, parameters);
  for (const Smtp_header_field& parameter : parameters) head += "|" + parameter.name + "=" + parameter.value;
  return head;
}

TEST(SplitParameters, AsClientsSplit) {
  const struct {
    const char* name;
    const char* in;
    const char* want;
  } cases[] = {
      {"quoted ';' and escapes", "attachment; filename=\"a;b\\\".exe\"; size=3", "attachment|filename=a;b\".exe|size=3"},
      {"unquoted blanks, tspecials", " text/plain ;name = my file (1)@x.exe ", "text/plain|name=my file (1)@x.exe"},
      {"unclosed quote runs to the end", "x/y; name=\"a.exe; b=c", "x/y|name=a.exe; b=c"},
      {"pieces without '=' or attribute", "x/y; junk;; =v; n=", "x/y|n="},
  };
  for (const auto& c : cases) EXPECT_EQ(split(c.in), c.want) << c.name;
}

TEST(FindParameterValue, Rfc2231) {
  const struct {
    const char* name;
    std::vector<Smtp_header_field> in;
    const char* want;  // "charset:bytes", or "none"
  } cases[] = {
      {"extended wins over plain", {{"name", "a"}, {"NAME*", "utf-8'en'%41%2"}}, "utf-8:A%2"},
      {"no quotes: all text", {{"name*", "%41'"}}, ":A'"},
      {"sections to the first gap, first of a number",
       {{"name*1", "b"}, {"name*0*", "us-ascii''%61"}, {"name*1", "x"}, {"name*3", "d"}},
       "us-ascii:ab"},
      {"sections need a 0", {{"name*1", "b"}, {"name", "p"}}, ":p"},
      {"section numbers past the limit are ignored", {{"name*0", "a"}, {"name*1", "b"}, {"name*99999", "z"}},
       ":ab"},
      {"other attributes", {{"names", "a"}, {"name*x", "b"}}, "none"},
  };
  for (const auto& c : cases) {
    Smtp_parameter_value value;
    const bool found = find_parameter_value(c.in, "name", value);
    EXPECT_EQ(found ? value.charset + ":" + value.bytes : "none", c.want) << c.name;
  }
}

TEST(ParameterText, CharsetThenUtf8ThenBytes) {
  EXPECT_EQ(parameter_text({"caf\xe9", "iso-8859-1", true}), u"caf\u00e9");
  EXPECT_EQ(parameter_text({"caf\xc3\xa9", "", false}), u"caf\u00e9");
  EXPECT_EQ(parameter_text({"caf\xe9", "no-such-set", true}), u"caf\u00e9");
}

}  // namespace
