#include "reader/tokeniser.h"

#include <gtest/gtest.h>

#include "reader/test_corpus.h"

namespace {

// Tokens as "a:text|s:/|q:\"x\"|d:[x]|c:(x)".
std::string render(const Smtp_token_list& tokens) {
  static const char* const kinds[] = {"s", "q", "d", "c", "a"};
  std::string out;
  for (const Smtp_token& token : tokens) {
    if (!out.empty()) out += '|';
    out += kinds[token.type];
    out += ':';
    out += token.text;
  }
  return out;
}

struct Tokenise_case {
  const char* name;
  std::string value;
  bool rfc822;
  bool keep_comments;
  std::string want;
  uint32_t want_status;
};

TEST(TokeniseField, Table) {
  const Tokenise_case cases[] = {
      // Ends of the value.
      {"empty", "", false, true, "", vek_ok},
      {"white only", " \t\r\n ", false, true, "", vek_ok},
      {"ends in atom", "text/plain", false, false, "a:text|s:/|a:plain", vek_ok},
      // The two sets of specials.
      {"822 media type is one atom", "text/plain", true, false, "a:text/plain", vek_ok},
      {"1521 dot is atom byte", "name=a.b.txt", false, false, "a:name|s:=|a:a.b.txt", vek_ok},
      {"822 dot is special", "a.b", true, false, "a:a|s:.|a:b", vek_ok},
      {"822 equals and query are atom bytes", "a=b?c", true, false, "a:a=b?c", vek_ok},
      {"8-bit bytes are atom bytes", "\xe4\xf6=\xfc", false, false, "a:\xe4\xf6|s:=|a:\xfc", vek_ok},
      {"bare closers are specials", ") ]", false, false, "s:)|s:]", vek_ok},
      // White space and controls.
      {"line end splits atoms", "a\r\n b", false, false, "a:a|a:b", vek_ok},
      {"control inside atom splits it",
       "ab\x01\x7f"
       "cd",
       false, false, "a:ab|a:cd", vek_ok},
      {"NUL is white space", std::string("a\0b", 3), false, false, "a:a|a:b", vek_ok},
      // Quoted strings.
      {"quoted string keeps delimiters", "x=\"a \\\" b\";", false, false, "a:x|s:=|q:\"a \\\" b\"|s:;",
       vek_ok},
      {"escaped last quote", "\"abc\\\"", false, false, "", smtp_quoted_string_not_closed},
      {"backslash at end of quoted", "\"abc\\", false, false, "", smtp_quoted_string_not_closed},
      // Comments.
      {"nested comment is one token", "(a (b) c) x", false, true, "c:(a (b) c)|a:x", vek_ok},
      {"comments dropped", "x (y) z", false, false, "a:x|a:z", vek_ok},
      {"one close too few", "a b (a (b) c", false, true, "a:a|a:b", smtp_comment_not_closed},
      {"escaped close paren", "(a \\) b", false, true, "", smtp_comment_not_closed},
      {"escaped paren stays in text", "(a \\( b)", false, true, "c:(a \\( b)", vek_ok},
      // Domain literals.
      {"domain literal", "[1.2.3.4] x", true, false, "d:[1.2.3.4]|a:x", vek_ok},
      {"backslash means nothing in literal", "[a\\]b", true, false, "d:[a\\]|a:b", vek_ok},
      {"literal not closed", "x [1.2", true, false, "a:x", smtp_domain_literal_not_closed},
  };
  for (const Tokenise_case& c : cases) {
    Smtp_token_list tokens;
    tokens.append(token_atom, "stale");
    Vek_status status(vek_end_of_stream);
    tokenise_field(c.value, c.rfc822, c.keep_comments, tokens, status);
    EXPECT_EQ(render(tokens), c.want) << c.name;
    EXPECT_EQ(status.value(), c.want_status) << c.name;
  }
}

TEST(TokeniseField, CommentDepthIsBounded) {
  Smtp_token_list tokens;
  Vek_status status;
  tokenise_field(std::string(1 << 20, '('), false, true, tokens, status);
  EXPECT_EQ(status.value(), smtp_comment_not_closed);

  const std::string deepest =
      std::string(smtp_max_comment_depth, '(') + std::string(smtp_max_comment_depth, ')');
  tokenise_field(deepest, false, true, tokens, status);
  EXPECT_TRUE(status.ok());
  EXPECT_EQ(tokens.count(), 1u);
  tokenise_field("(" + deepest + ")", false, true, tokens, status);
  EXPECT_EQ(status.value(), smtp_comment_not_closed);
}

// The stream readers, called where the tokenising loop would not call them.
struct Reader_case {
  const char* name;
  void (*read)(Vek_istream&, std::string&, Vek_status&);
  std::string input;
  std::string want;
  uint32_t want_status;
  uint64_t want_position;
};

void atom_1521(Vek_istream& s, std::string& t, Vek_status& st) { read_atom(s, false, t, st); }

TEST(TokenReaders, Table) {
  const Reader_case cases[] = {
      {"comment", read_comment, "  (a(b)) x", "(a(b))", vek_ok, 8},
      {"comment needs paren", read_comment, " x", "", smtp_no_opening_parenthesis, 1},
      {"comment at end", read_comment, "", "", smtp_no_opening_parenthesis, 0},
      {"quoted", read_quoted_string, " \"a\\\"\"b", "\"a\\\"\"", vek_ok, 6},
      {"quoted needs quote", read_quoted_string, "x\"", "", smtp_no_opening_quote, 0},
      {"literal", read_domain_literal, "[a]]", "[a]", vek_ok, 3},
      {"literal needs bracket", read_domain_literal, "a]", "", smtp_no_opening_bracket, 0},
      {"literal not closed", read_domain_literal, "[ab", "[ab", smtp_domain_literal_not_closed, 3},
      {"atom", atom_1521, " \tab.c/d", "ab.c", vek_ok, 6},
      {"atom at end", atom_1521, "  ", "", vek_end_of_stream, 2},
      {"atom at special", atom_1521, ";x", "", vek_ok, 0},
  };
  for (const Reader_case& c : cases) {
    Text_stream in(c.input);
    std::string text = "stale";
    Vek_status status(vek_end_of_stream);
    c.read(in.stream, text, status);
    EXPECT_EQ(text, c.want) << c.name;
    EXPECT_EQ(status.value(), c.want_status) << c.name;
    EXPECT_EQ(in.stream.tell(), c.want_position) << c.name;
  }
}

TEST(TokenReaders, ReadTokenWalksAStream) {
  Text_stream in(" a;(c) \"q\" \r\n");
  Smtp_token token;
  Vek_status status;
  std::string seen;
  for (read_token(in.stream, true, token, status); status.ok(); read_token(in.stream, true, token, status)) {
    seen += std::to_string(token.type) + token.text + " ";
  }
  EXPECT_EQ(seen, "4a 0; 3(c) 1\"q\" ");
  EXPECT_EQ(status.value(), vek_end_of_stream);
  EXPECT_EQ(token.text, "\"q\"");  // untouched at the end

  Text_stream white(std::string_view(" \t\r\n\0x", 6));
  skip_white_space(white.stream);
  EXPECT_EQ(white.stream.tell(), 5u);
}

}  // namespace
