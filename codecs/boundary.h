// Boundary matching: tells the delimiter lines of a multipart body from all
// other lines.
//
// An Smtp_boundary holds one boundary value (a copy of its own) and is a
// plain value: the part walker and the MIME handler copy it freely. It owns
// nothing else and changes nothing when it matches.
#ifndef SMTPFM_CODECS_BOUNDARY_H_
#define SMTPFM_CODECS_BOUNDARY_H_

#include <string>
#include <string_view>

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

  // Sets `*seen` (never clears it) whenever match_line refuses a line that
  // the prefix rule would take; null stops the watch. Copies of the
  // boundary share the watch.
  void watch_prefix_lines(bool* seen) { prefix_seen_ = seen; }

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
  bool* prefix_seen_ = nullptr;
};

#endif  // SMTPFM_CODECS_BOUNDARY_H_
