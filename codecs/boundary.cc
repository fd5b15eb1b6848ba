// Delimiter lines of a multipart body (RFC 1521, section 7.2.1):
//
//   delimiter       := CRLF "--" boundary
//   close-delimiter := delimiter "--"
//   boundary        := 0*69<bchars> bcharsnospace
//
// The RFC allows linear white space only at the end of a delimiter line.
// Real mail also puts blanks behind the leading dashes and in front of the
// closing dashes, so a boundary that does not itself begin or end with a
// space is matched tolerantly. Where this deviates from the RFC:
//   - spaces directly behind the leading "--" are dropped;
//   - spaces in front of the closing "--" are dropped, but then not those
//     behind it: blanks are taken from one place at the end, never two;
//   - tabs are never dropped, although the RFC counts them as white space,
//     and blanks behind the closing dashes are taken only where the caller
//     asks for RFC 2046's transport padding.
#include "codecs/boundary.h"

#include <utility>

namespace {

constexpr std::string_view dashes = "--";

// Whether a delimiter line may carry extra blanks. A boundary with a space
// at either end could not be told from those blanks, so it is compared
// strictly. A boundary of one byte is judged by that byte, its first and
// last alike. An empty boundary (which the RFC does not allow) is strict:
// tolerant matching would make every line of two dashes and blanks a
// delimiter of it, and nothing is there to weigh against that.
bool is_tolerant(std::string_view text) {
  if (text.empty()) return false;
  return text.front() != ' ' && text.back() != ' ';
}

void drop_leading_spaces(std::string_view& text) {
  size_t i = 0;
  while (i < text.size() && text[i] == ' ') ++i;
  text.remove_prefix(i);
}

void drop_trailing_spaces(std::string_view& text) {
  size_t n = text.size();
  while (n > 0 && text[n - 1] == ' ') --n;
  text = text.substr(0, n);
}

}  // namespace

Smtp_boundary::Smtp_boundary(std::string text, bool transport_padding)
    : text_(std::move(text)), tolerant_(is_tolerant(text_)), transport_padding_(transport_padding) {}

Smtp_boundary::Smtp_boundary(std::string text, bool transport_padding, bool prefix)
    : Smtp_boundary(std::move(text), transport_padding) {
  prefix_ = prefix;
}

bool Smtp_boundary::match_prefix(std::string_view line, bool& closing) const {
  if (text_.empty() || line.size() < text_.size() + 2 || !line.starts_with(dashes) ||
      line.substr(2, text_.size()) != text_)
    return false;
  closing = line.substr(2 + text_.size(), 2) == dashes;
  return true;
}

bool Smtp_boundary::match_line(std::string_view line, bool& closing) const {
  if (match_padded(line, closing)) return true;
  if (prefix_) return match_prefix(line, closing);
  bool ignored = false;
  if (prefix_seen_ != nullptr && !prefix_seen_->more && match_prefix(line, ignored)) prefix_seen_->add(line);
  return false;
}

bool Smtp_boundary::match_padded(std::string_view line, bool& closing) const {
  if (match_unpadded(line, closing)) return true;
  if (!transport_padding_) return false;
  //   transport-padding := *LWSP-char
  // Tried second, so that a boundary that itself ends in a space keeps its
  // own matches, and a line that fails both leaves `closing` as the first
  // try left it.
  std::string_view unpadded = line;
  while (!unpadded.empty() && (unpadded.back() == ' ' || unpadded.back() == '\t')) unpadded.remove_suffix(1);
  bool padded_closing = closing;
  if (unpadded.size() == line.size() || !match_unpadded(unpadded, padded_closing)) return false;
  closing = padded_closing;
  return true;
}

bool Smtp_boundary::match_unpadded(std::string_view line, bool& closing) const {
  if (line.size() < 3 || !line.starts_with(dashes)) return false;
  // The line is read as "--" + body + tail, where tail is either empty or,
  // when blanks stood in front of the closing dashes, those dashes.
  std::string_view body = line.substr(2);
  std::string_view tail;
  if (tolerant_) {
    drop_leading_spaces(body);
    if (body.size() >= 2 && body.ends_with(dashes)) {
      body.remove_suffix(2);
      tail = dashes;
    }
    drop_trailing_spaces(body);
  }
  const size_t n = text_.size();
  const size_t rest = body.size() + tail.size();  // the line's length less 2
  if (rest != n && rest != n + 2) return false;
  // The n bytes behind the leading dashes; they may reach into the tail.
  const std::string_view text = text_;
  if (body.size() >= n) {
    if (body.substr(0, n) != text) return false;
  } else if (text.substr(0, body.size()) != body ||
             text.substr(body.size()) != tail.substr(0, n - body.size())) {
    return false;
  }
  if (rest == n) return true;
  // Two bytes behind the boundary: the line closes if they are "--".
  const char last = tail.empty() ? body[body.size() - 1] : '-';
  const char before_last = tail.empty() ? body[body.size() - 2] : '-';
  closing = last == '-' && before_last == '-';
  return closing;
}
