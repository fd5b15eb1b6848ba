// Parsing structured field values from their tokens.
//
// RFC 1521 section 4 and RFC 2183 section 2:
//   content    := "Content-Type" ":" type "/" subtype *(";" parameter)
//   disposition := disposition-type *(";" disposition-parm)
//   parameter  := attribute "=" value
//   value      := token / quoted-string
// RFC 1505 section 4:
//   encoding   := "Encoding" ":" 1#( [ number ] keywords [ comment ] )
//
// Where these parsers knowingly differ from the RFCs:
// - Repeated ";" between parameters are skipped.
// - Unquoted values of several atoms are joined by one space, so that an
//   unquoted file name with a blank survives.
// - An unquoted Content-Type "boundary" (exactly that attribute, in that
//   case) takes tspecials other than ";" into its value; an unquoted value
//   of another attribute that runs into a tspecial is dropped and the rest
//   of the field is still read.
// - A domain literal is taken as a parameter value, brackets included.
#include "reader/field_parsers.h"

#include <limits>

#include "reader/tokeniser.h"

namespace {

bool is_special(const Smtp_token& token, char byte) {
  return token.type == token_special && token.text.size() == 1 && token.text[0] == byte;
}

// Reads ";" attribute "=" value pairs from token `i` on. False on a break
// of the grammar; the parameters read before it stay in `parameters`.
// `content_type` selects the Content-Type rules for unquoted values, else
// those of Content-Disposition.
bool parse_parameters(const Smtp_token_list& tokens, size_t i, bool content_type,
                      std::vector<Smtp_header_field>& parameters) {
  const size_t count = tokens.count();
  while (i < count) {
    if (!is_special(tokens[i], ';')) return false;
    ++i;
    while (i < count && is_special(tokens[i], ';')) ++i;
    if (i >= count || tokens[i].type != token_atom) return false;
    const std::string& attribute = tokens[i].text;
    ++i;
    if (i >= count || !is_special(tokens[i], '=')) return false;
    ++i;
    if (i >= count) return false;

    const Smtp_token& first = tokens[i];
    if (first.type == token_quoted_string) {
      parameters.push_back(Smtp_header_field{attribute, unquote_value(first.text)});
      ++i;
      continue;
    }
    if (first.type == token_domain_literal) {
      parameters.push_back(Smtp_header_field{attribute, first.text});
      ++i;
      continue;
    }
    if (first.type != token_atom) return false;

    // An unquoted value: a run of atoms, one space between two of them; a
    // boundary also takes the tspecials that mailers leave unquoted.
    const bool is_boundary = content_type && attribute == "boundary";
    std::string value;
    bool after_atom = false;
    for (; i < count; ++i) {
      const Smtp_token& token = tokens[i];
      const bool is_atom = token.type == token_atom;
      if (!is_atom && !(is_boundary && token.type == token_special && !is_special(token, ';'))) break;
      if (is_atom && after_atom) value.push_back(' ');
      value.append(token.text);
      after_atom = is_atom;
    }
    if (!content_type || i >= count || is_special(tokens[i], ';')) {
      parameters.push_back(Smtp_header_field{attribute, std::move(value)});
    } else {
      // The value ran into something it cannot hold: drop the parameter
      // and go on at the next ";".
      while (i < count && !is_special(tokens[i], ';')) ++i;
    }
  }
  return true;
}

// A value of exactly one atom.
void parse_single_atom(std::string_view value, std::string& result, uint32_t failure, Vek_status& status) {
  status.clear();
  result.clear();
  Smtp_token_list tokens;
  tokenise_field(value, false, false, tokens, status);
  if (!status.ok() || tokens.count() != 1 || tokens[0].type != token_atom) {
    status = failure;
    return;
  }
  result = tokens[0].text;
}

// The decimal value of a run of digits; a count too large for the field is
// taken as the largest there is.
int32_t decimal_value(std::string_view digits) {
  int64_t value = 0;
  for (char c : digits) {
    value = value * 10 + (c - '0');
    if (value > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
  }
  return static_cast<int32_t>(value);
}

}  // namespace

void parse_content_type(std::string_view value, std::string& type, std::string& subtype,
                        std::vector<Smtp_header_field>& parameters, Vek_status& status) {
  status.clear();
  type.clear();
  subtype.clear();
  parameters.clear();
  Smtp_token_list tokens;
  tokenise_field(value, false, false, tokens, status);
  if (!status.ok() || tokens.count() < 3 || tokens[0].type != token_atom) {
    status = smtp_bad_content_type;
    return;
  }
  type = tokens[0].text;
  if (!is_special(tokens[1], '/') || tokens[2].type != token_atom) {
    status = smtp_bad_content_type;
    return;
  }
  subtype = tokens[2].text;
  if (!parse_parameters(tokens, 3, true, parameters)) status = smtp_bad_content_type;
}

void parse_content_disposition(std::string_view value, std::string& disposition,
                               std::vector<Smtp_header_field>& parameters, Vek_status& status) {
  status.clear();
  disposition.clear();
  parameters.clear();
  Smtp_token_list tokens;
  tokenise_field(value, false, false, tokens, status);
  if (!status.ok() || tokens.count() < 1 || tokens[0].type != token_atom) {
    status = smtp_bad_content_disposition;
    return;
  }
  disposition = tokens[0].text;
  if (!parse_parameters(tokens, 1, false, parameters)) status = smtp_bad_content_disposition;
}

void parse_transfer_encoding(std::string_view value, std::string& encoding, Vek_status& status) {
  parse_single_atom(value, encoding, smtp_bad_transfer_encoding, status);
}

void parse_bare_content_type(std::string_view value, std::string& type, Vek_status& status) {
  parse_single_atom(value, type, smtp_content_type_not_single_word, status);
}

void parse_encoding_field(std::string_view value, std::vector<Smtp_encoding_entry>& entries,
                          Vek_status& status) {
  status.clear();
  entries.clear();
  Smtp_token_list tokens;
  tokenise_field(value, true, true, tokens, status);
  if (!status.ok()) {
    status = smtp_bad_encoding_field;
    return;
  }
  const size_t count = tokens.count();
  size_t i = 0;
  while (i < count) {
    Smtp_encoding_entry entry;
    if (tokens[i].type != token_atom) {
      status = smtp_bad_encoding_field;
      return;
    }
    if (vek_is_number(vek_stow(tokens[i].text))) {
      entry.line_count = decimal_value(tokens[i].text);
      ++i;
    }
    for (; i < count && tokens[i].type == token_atom; ++i) {
      if (!entry.keywords.empty()) entry.keywords.push_back(' ');
      entry.keywords.append(tokens[i].text);
    }
    // Only the last entry may go without its line count.
    if (entry.line_count == -1 && (count - i > 1 || entry.keywords.empty())) {
      status = smtp_bad_encoding_field;
      return;
    }
    if (i < count) {
      if (is_special(tokens[i], ',')) {
        ++i;
      } else if (tokens[i].type == token_comment) {
        entry.comment = tokens[i].text;
        ++i;
        if (i < count && is_special(tokens[i], ',')) ++i;
      } else {
        status = smtp_bad_encoding_field;
        return;
      }
    }
    entries.push_back(std::move(entry));
  }
}

std::string unquote_value(std::string_view text) { return vek_unquote(text); }
