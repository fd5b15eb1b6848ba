#include "reader/tokeniser.h"

#include <gtest/gtest.h>

#include "reader/test_support.h"

namespace {

// Tokens as "a:text|s:/|q:\"x\"|d:[x]|c:(x)".
std::string render(const Smtp_token_list& tokens) {
  std::string out;
  for (const Smtp_token& token : tokens)
    out += (out.empty() ? "" : "|") + std::string(1, "sqdca"[token.type]) + ":" + token.text;
  return out;
}

// Values cut with the RFC 1521 tspecials and comments kept; cut without
// comments they give the same tokens less the comments.
TEST(TokeniseField, Table) {
  // Comments nest to a bounded depth, so that a value of nothing but '('
  // fails at once instead of nesting without end.
  const std::string deepest =
      std::string(smtp_max_comment_depth, '(') + std::string(smtp_max_comment_depth, ')');
  const Row rows[] = {
      // White space and controls (line ends, NUL, DEL) only split atoms.
      {"controls split atoms", std::string("a\r\n b\x01\x7fz\0y", 10), "a:a|a:b|a:z|a:y"},
      // Specials; 8-bit bytes are atom bytes.
      {"tspecials", "text/plain; name=a.b.txt", "a:text|s:/|a:plain|s:;|a:name|s:=|a:a.b.txt"},
      {"8-bit bytes", "\xe4\xf6=\xfc", "a:\xe4\xf6|s:=|a:\xfc"},
      // Quoted strings.
      {"quoted string keeps delimiters", "x=\"a \\\" b\";", "a:x|s:=|q:\"a \\\" b\"|s:;"},
      {"escaped last quote", "\"abc\\\"", "", smtp_quoted_string_not_closed},
      // Comments; a backslash escapes a parenthesis; the tokens in front of a
      // failure stay.
      {"nested comment is one token", "(a (b) c) x", "c:(a (b) c)|a:x"},
      {"one close too few", "a b (a (b) c", "a:a|a:b", smtp_comment_not_closed},
      {"escaped paren stays in text", "(a \\( b)", "c:(a \\( b)"},
      {"escaped close paren", "(a \\) b) c", "c:(a \\) b)|a:c"},
      {"deepest comment", deepest, "c:" + deepest},
      {"one level too deep", "(" + deepest + ")", "", smtp_comment_not_closed},
      // Domain literals; a backslash means nothing in them.
      {"domain literal", "[1.2.3.4] x", "d:[1.2.3.4]|a:x"},
      {"backslash in literal", "[a\\]b", "d:[a\\]|a:b"},
      {"literal not closed", "x [1.2", "a:x", smtp_domain_literal_not_closed},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Smtp_token_list tokens, dropped, want_dropped;
    tokens.append(token_atom, "stale");
    Vek_status status(vek_end_of_stream), dropped_status;
    tokenise_field(row.in, false, true, tokens, status);
    tokenise_field(row.in, false, false, dropped, dropped_status);
    for (const Smtp_token& token : tokens)
      if (token.type != token_comment) want_dropped.append(token);
    EXPECT_EQ(std::tuple(render(tokens), status.value()), std::tuple(row.want, row.want_status));
    EXPECT_EQ(std::tuple(render(dropped), dropped_status.value()),
              std::tuple(render(want_dropped), row.want_status));
  }
  // The RFC 822 specials: '/', '=' and '?' are atom bytes, '.' is not.
  Smtp_token_list tokens;
  Vek_status status;
  tokenise_field("text/plain a=b?c.d [1.2]", true, true, tokens, status);
  EXPECT_EQ(std::tuple(render(tokens), status.value()),
            std::tuple("a:text/plain|a:a=b?c|s:.|a:d|d:[1.2]", vek_ok));
}

void atom_1521(Vek_istream& s, std::string& t, Vek_status& st) { read_atom(s, false, t, st); }

// The stream readers, called where the tokenising loop would not call them:
// each skips white space, also when what follows is not its token.
TEST(TokenReaders, Table) {
  struct Case {
    void (*read)(Vek_istream&, std::string&, Vek_status&);
    Row row;  // the text read and where the stream was left
  };
  const Case cases[] = {
      {read_comment, {"comment", "  (a(b)) x", "(a(b)) @8"}},
      {read_comment, {"comment needs paren", " x", " @1", smtp_no_opening_parenthesis}},
      {read_comment, {"comment at end", "", " @0", smtp_no_opening_parenthesis}},
      {read_quoted_string, {"quoted", " \"a\\\"\"b", "\"a\\\"\" @6"}},
      {read_quoted_string, {"quoted needs quote", "x\"", " @0", smtp_no_opening_quote}},
      {read_domain_literal, {"literal", "[a]]", "[a] @3"}},
      {read_domain_literal, {"literal needs bracket", "a]", " @0", smtp_no_opening_bracket}},
      {read_domain_literal, {"literal not closed", "[ab", "[ab @3", smtp_domain_literal_not_closed}},
      {atom_1521, {"atom", " \tab.c/d", "ab.c @6"}},
      {atom_1521, {"atom at end", "  ", " @2", vek_end_of_stream}},
      {atom_1521, {"atom at special", ";x", " @0"}},
  };
  for (const auto& [read, row] : cases) {
    SCOPED_TRACE(row.name);
    Text_stream in(row.in);
    std::string text = "stale";
    Vek_status status(vek_end_of_stream);
    read(in.stream, text, status);
    EXPECT_EQ(std::tuple(text + at(in.stream.tell()), status.value()), std::tuple(row.want, row.want_status));
  }
}

TEST(TokenReaders, ReadTokenWalksAStream) {
  Text_stream in(" a;(c) \"q\" \r\n"), white(std::string_view(" \t\r\n\0x", 6));
  Smtp_token token;
  Vek_status status;
  std::string seen;
  for (read_token(in.stream, true, token, status); status.ok(); read_token(in.stream, true, token, status))
    seen += std::to_string(token.type) + token.text + " ";
  EXPECT_EQ(seen, "4a 0; 3(c) 1\"q\" ");
  EXPECT_EQ(status.value(), vek_end_of_stream);
  EXPECT_EQ(token.text, "\"q\"");  // untouched at the end
  skip_white_space(white.stream);
  EXPECT_EQ(white.stream.tell(), 5u);
}

}  // namespace
