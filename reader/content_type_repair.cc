// Each edit is a text search without regard to case, made in a lower-case
// copy and applied at the same position in the value, so the case of the
// source survives. The edits run in a fixed order, each on what the ones
// before it left, and touch only the first place found.
#include "reader/content_type_repair.h"

#include <string_view>

#include "contracts/vek.h"
#include "reader/char_class.h"

namespace {

// The value under repair and its lower-case copy, made again after an edit.
class Work {
 public:
  explicit Work(std::string text) : text_(std::move(text)) {}

  std::string& text() { return text_; }
  // Notes an edit of text().
  void edited() {
    changed_ = true;
    lower_valid_ = false;
  }
  bool changed() const { return changed_; }

  // Position of the first occurrence of the lower-case `needle`, from `from`.
  size_t find(std::string_view needle, size_t from = 0) {
    if (!lower_valid_) {
      lower_ = text_;
      vek_lower(lower_);
      lower_valid_ = true;
    }
    return lower_.find(needle, from);
  }
  bool equals(std::string_view word) const { return vek_string_equal_nc(text_, word); }
  void replace_all(std::string_view with) {
    text_.assign(with);
    edited();
  }

 private:
  std::string text_;
  std::string lower_;
  bool lower_valid_ = false;
  bool changed_ = false;
};

constexpr size_t npos = std::string::npos;

// Bytes that a boundary may not hold unquoted: the tspecials of RFC 1521
// less '=' and '?', which the Content-Type parser takes unquoted, plus
// space.
constexpr std::string_view boundary_needs_quotes = "\\<>@,:/.()\" ";

// "multipart/...; boundary=a.b" becomes "multipart/...; boundary="a.b"".
void quote_boundary(Work& work) {
  std::string& text = work.text();
  if (work.find("multipart") == npos) return;
  const size_t boundary_at = work.find("boundary");
  if (boundary_at == npos) return;
  const size_t equals = text.find('=', boundary_at);
  if (equals == npos) return;
  size_t end = text.find(';', equals + 1);
  if (end == npos) end = text.size();
  std::string boundary = text.substr(equals + 1, end - equals - 1);
  vek_trim(boundary);
  if (boundary.empty()) return;
  if (boundary.size() >= 2 && boundary.front() == '"' && boundary.back() == '"') return;
  if (boundary.find_first_of(boundary_needs_quotes) == npos) return;
  std::string quoted = text.substr(0, equals + 1);
  quoted.push_back('"');
  quoted.append(boundary);
  quoted.push_back('"');
  quoted.append(text, end, npos);
  work.replace_all(quoted);
}

}  // namespace

bool repair_content_type(std::string& value) {
  std::string trimmed = value;
  vek_trim(trimmed);
  if (trimmed.empty()) return false;
  Work work(std::move(trimmed));
  std::string& text = work.text();

  // 1, 2: a bare word where a media type belongs.
  if (work.equals("unknown")) work.replace_all("application/octet-stream");
  if (work.equals("text")) work.replace_all("text/plain");
  // 3: a parameter list that ends in a separator.
  if (!text.empty() && text.back() == ';') {
    text.pop_back();
    work.edited();
  }
  // 4: the separator left out in front of the charset.
  if (work.equals("text/plain charset=\"us-ascii\"")) work.replace_all("text/plain; charset=\"us-ascii\"");
  // 5: a dash for the equals sign.
  if (size_t at = work.find("charset-us-ascii"); at != npos) {
    text[at + 7] = '=';
    work.edited();
  }
  // 6: an opening quote that is never closed.
  if (size_t at = work.find("\"us-ascii"); at != npos && (at + 9 >= text.size() || text[at + 9] != '"')) {
    text.erase(at, 1);
    work.edited();
  }
  // 7: a dash for the slash of the report type.
  if (size_t at = work.find("message-delivery-status"); at != npos) {
    text[at + 7] = '/';
    work.edited();
  }
  // 8: a backslash for the slash.
  if (size_t at = work.find("application\\octet-stream"); at != npos) {
    text[at + 11] = '/';
    work.edited();
  }
  // 9: an application subtype of several words, which no registry knows.
  constexpr std::string_view application = "application/";
  if (text.size() >= application.size() &&
      vek_string_equal_nc(std::string_view(text).substr(0, application.size()), application)) {
    size_t end = text.find(';', application.size());
    if (end == npos) end = text.size();
    std::string subtype = text.substr(application.size(), end - application.size());
    vek_trim(subtype);
    if (subtype.find(' ') != npos) {
      text.replace(application.size(), end - application.size(), "octet-stream");
      work.edited();
    }
  }
  // 10: a multipart boundary that needs quotes and has none.
  quote_boundary(work);

  if (work.changed()) value = std::move(text);
  return work.changed();
}

bool clean_encoding_field(std::string& value) {
  //   comment := "(" *(ctext / quoted-pair / comment) ")"
  // A comment may hold every special (RFC 822, section 3.3): a file name
  // such as "(report.doc)" stays as it was written, nested comments and
  // quoted pairs included.
  size_t kept = 0;
  size_t depth = 0;
  bool quoted_pair = false;
  for (const char c : value) {
    if (quoted_pair) {
      quoted_pair = false;
    } else if (c == '(') {
      ++depth;
    } else if (c == ')') {
      if (depth != 0) --depth;
    } else if (depth != 0) {
      quoted_pair = c == '\\';
    } else if ((char_class_of(c) & char_rfc822_special) != 0 && c != ',') {
      continue;
    }
    value[kept++] = c;
  }
  const bool dropped = kept != value.size();
  value.resize(kept);
  return dropped;
}
