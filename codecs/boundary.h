// Boundary matching: tells the delimiter lines of a multipart body from all
// other lines.
//
// An Smtp_boundary holds one boundary value (a copy of its own) and is a
// plain value: the part walker and the MIME handler copy it freely. It owns
// nothing else and changes nothing when it matches.
#ifndef SMTPFM_CODECS_BOUNDARY_H_
#define SMTPFM_CODECS_BOUNDARY_H_

#include <cstddef>
#include <string>
#include <string_view>

// The lines that a watch saw refused by the exact rules and taken by the
// prefix rule, as views on the text that was matched. It keeps a few, in
// place and not cleared (a multipart body is read with one in every
// entity): the lines are many only in mail made to be costly, and the
// caller then reads the body again by the prefix rule, as without a watch.
struct Smtp_prefix_lines {
  // Lines kept at most; further ones only set `more`.
  static constexpr size_t max_kept = 16;
  // How many lines are kept.
  size_t count = 0;
  // Whether lines were seen beyond those kept.
  bool more = false;
  // Whether any line was seen.
  bool any() const { return more || count != 0; }
  // The `i`th line kept (below count), in the order seen.
  std::string_view line(size_t i) const { return {starts[i], lengths[i]}; }
  // Keeps `line`, or sets `more`.
  void add(std::string_view line) {
    if (count == max_kept) {
      more = true;
      return;
    }
    starts[count] = line.data();
    lengths[count++] = line.size();
  }

 private:
  // Left uninitialised: only the first `count` are read.
  const char* starts[max_kept];
  size_t lengths[max_kept];
};

class Smtp_boundary {
 public:
  // Keeps `text`, the boundary value, and decides once whether blanks in a
  // delimiter line are dropped before the comparison. With
  // `transport_padding`, spaces and tabs at the end of a line are dropped
  // first, as RFC 2046 (section 5.1.1) allows behind every delimiter.
  explicit Smtp_boundary(std::string text, bool transport_padding = false);
  // With `prefix`, a line that begins with "--" and the boundary is a
  // delimiter too, whatever follows (RFC 2046, section 5.1.1: "it is
  // sufficient that the boundary appear in its entirety following the
  // CRLF"); it closes where "--" follows the boundary.
  Smtp_boundary(std::string text, bool transport_padding, bool prefix);

  // Adds to `*seen` (never clears it) every line that match_line refuses
  // and the prefix rule would take; null stops the watch. Copies of the
  // boundary share the watch.
  void watch_prefix_lines(Smtp_prefix_lines* seen) { prefix_seen_ = seen; }

  // True if `line` (without its line end) is a delimiter of this boundary;
  // sets `closing` for a closing delimiter, clears it for a line of the
  // closing length that does not close, and leaves it alone otherwise.
  bool match_line(std::string_view line, bool& closing) const;

  const std::string& text() const { return text_; }
  bool tolerant() const { return tolerant_; }

 private:
  bool match_padded(std::string_view line, bool& closing) const;
  bool match_unpadded(std::string_view line, bool& closing) const;
  bool match_prefix(std::string_view line, bool& closing) const;

  std::string text_;
  bool tolerant_;
  bool transport_padding_;
  bool prefix_ = false;
  Smtp_prefix_lines* prefix_seen_ = nullptr;
};

#endif  // SMTPFM_CODECS_BOUNDARY_H_
