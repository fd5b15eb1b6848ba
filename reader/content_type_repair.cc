// Each edit is a text search without regard to case, made in a lower-case
// copy and applied at the same position in the value, so the case of the
// source survives. The edits run in a fixed order, each on what the ones
// before it left, and touch only the first place found.
#include "reader/content_type_repair.h"

#include <string_view>

#include "contracts/vek.h"
#include "reader/char_class.h"

namespace {

// White space as vek_trim sees it.
bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }

std::string_view trim(std::string_view text) {
  while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_space(text.back())) text.remove_suffix(1);
  return text;
}

// The value under repair and its lower-case copy, made again after an edit.
// Most values need no edit: until the first one the value is read where the
// caller keeps it, and a short lower-case copy stands in a buffer of the
// repair's own, so that such a value costs no allocation.
class Work {
 public:
  explicit Work(std::string_view text) : view_(text) {}

  // The value as it stands now.
  std::string_view view() const { return view_; }
  // The value, to be edited; edited() must follow.
  std::string& text() {
    if (!owned_) {
      text_.assign(view_);
      owned_ = true;
    }
    return text_;
  }
  // Notes an edit of text().
  void edited() {
    view_ = text_;
    changed_ = true;
    lower_valid_ = false;
  }
  bool changed() const { return changed_; }

  // Position of the first occurrence of the lower-case `needle`, from `from`.
  size_t find(std::string_view needle, size_t from = 0) {
    if (!lower_valid_) {
      lower_valid_ = true;
      if (view_.size() <= sizeof short_lower_) {
        for (size_t i = 0; i < view_.size(); ++i) short_lower_[i] = lower_ascii(view_[i]);
        lower_ = std::string_view(short_lower_, view_.size());
      } else {
        long_lower_.assign(view_);
        vek_lower(long_lower_);
        lower_ = long_lower_;
      }
    }
    return lower_.find(needle, from);
  }
  bool equals(std::string_view word) const { return vek_string_equal_nc(view_, word); }
  void replace_all(std::string_view with) {
    text().assign(with);
    edited();
  }

 private:
  static char lower_ascii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }

  std::string_view view_;
  std::string text_;
  bool owned_ = false;
  // A Content-Type with a boundary or a file name is mostly shorter.
  char short_lower_[128];
  std::string long_lower_;
  std::string_view lower_;
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
  if (work.find("multipart") == npos) return;
  const size_t boundary_at = work.find("boundary");
  if (boundary_at == npos) return;
  const std::string_view text = work.view();
  const size_t equals = text.find('=', boundary_at);
  if (equals == npos) return;
  size_t end = text.find(';', equals + 1);
  if (end == npos) end = text.size();
  const std::string_view boundary = trim(text.substr(equals + 1, end - equals - 1));
  if (boundary.empty()) return;
  if (boundary.size() >= 2 && boundary.front() == '"' && boundary.back() == '"') return;
  if (boundary.find_first_of(boundary_needs_quotes) == npos) return;
  std::string quoted(text.substr(0, equals + 1));
  quoted.push_back('"');
  quoted.append(boundary);
  quoted.push_back('"');
  quoted.append(text.substr(end));
  work.replace_all(quoted);
}

}  // namespace

bool repair_content_type(std::string& value) {
  const std::string_view trimmed = trim(value);
  if (trimmed.empty()) return false;
  Work work(trimmed);

  // 1, 2: a bare word where a media type belongs.
  if (work.equals("unknown")) work.replace_all("application/octet-stream");
  if (work.equals("text")) work.replace_all("text/plain");
  // 3: a parameter list that ends in a separator.
  if (!work.view().empty() && work.view().back() == ';') {
    work.text().pop_back();
    work.edited();
  }
  // 4: the separator left out in front of the charset.
  if (work.equals("text/plain charset=\"us-ascii\"")) work.replace_all("text/plain; charset=\"us-ascii\"");
  // 5: a dash for the equals sign.
  if (size_t at = work.find("charset-us-ascii"); at != npos) {
    work.text()[at + 7] = '=';
    work.edited();
  }
  // 6: an opening quote that is never closed.
  if (size_t at = work.find("\"us-ascii");
      at != npos && (at + 9 >= work.view().size() || work.view()[at + 9] != '"')) {
    work.text().erase(at, 1);
    work.edited();
  }
  // 7: a dash for the slash of the report type.
  if (size_t at = work.find("message-delivery-status"); at != npos) {
    work.text()[at + 7] = '/';
    work.edited();
  }
  // 8: a backslash for the slash.
  if (size_t at = work.find("application\\octet-stream"); at != npos) {
    work.text()[at + 11] = '/';
    work.edited();
  }
  // 9: an application subtype of several words, which no registry knows.
  constexpr std::string_view application = "application/";
  const std::string_view text = work.view();
  if (text.size() >= application.size() &&
      vek_string_equal_nc(text.substr(0, application.size()), application)) {
    size_t end = text.find(';', application.size());
    if (end == npos) end = text.size();
    if (trim(text.substr(application.size(), end - application.size())).find(' ') != npos) {
      work.text().replace(application.size(), end - application.size(), "octet-stream");
      work.edited();
    }
  }
  // 10: a multipart boundary that needs quotes and has none.
  quote_boundary(work);

  if (!work.changed()) return false;
  value = std::move(work.text());
  return true;
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
