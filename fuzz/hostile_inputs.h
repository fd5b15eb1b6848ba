// Inputs that nobody writes to be nice, made to measure: the tests check
// what the code makes of them, and bench/hostile_bench.cc shows that the
// time grows linearly with `n`. Every message has CR LF line ends.
#ifndef SMTPFM_FUZZ_HOSTILE_INPUTS_H_
#define SMTPFM_FUZZ_HOSTILE_INPUTS_H_

#include <cstddef>
#include <string>

namespace hostile {

// A field of one line and `n` continuation lines: "Subject: a", " b"...
inline std::string continuation_lines(size_t n) {
  std::string text = "Subject: a\r\n";
  text.reserve(text.size() + 4 * n + 2);
  for (size_t i = 0; i < n; ++i) text += " b\r\n";
  return text + "\r\n";
}

// A field whose value opens a quoted string and whose `n` continuation
// lines each end in a backslash inside it: every line break is escaped.
inline std::string quoted_backslash_lines(size_t n) {
  std::string text = "Subject: \"x\\\r\n";
  text.reserve(text.size() + 5 * n + 8);
  for (size_t i = 0; i < n; ++i) text += " x\\\r\n";
  return text + " x\"\r\n\r\n";
}

// `n` nested comments behind a Content-Type value.
inline std::string nested_comments(size_t n) {
  std::string value = "text/plain; name=x ";
  value.append(n, '(');
  value.append(n, ')');
  return value;
}

// A message of `n` header fields and a short body.
inline std::string many_fields(size_t n) {
  std::string text = "From: a@example.org\r\nSubject: many\r\n";
  text.reserve(text.size() + 24 * n + 16);
  for (size_t i = 0; i < n; ++i) text += "X-Field-" + std::to_string(i % 1000) + ": v\r\n";
  return text + "\r\nbody\r\n";
}

// A text body of `n` frames, each a "begin 644 x" line and an "end" line.
inline std::string uuencode_frames(size_t n) {
  std::string body;
  body.reserve(18 * n);
  for (size_t i = 0; i < n; ++i) body += "begin 644 x\r\nend\r\n";
  return body;
}
inline std::string uuencode_message(size_t n) {
  return "From: a@example.org\r\nSubject: frames\r\n\r\n" + uuencode_frames(n);
}

// A multipart entity of `n` empty parts.
inline std::string empty_parts(size_t n) {
  std::string text =
      "From: a@example.org\r\nSubject: parts\r\nMIME-Version: 1.0\r\n"
      "Content-Type: multipart/mixed; boundary=b\r\n\r\n";
  text.reserve(text.size() + 5 * n + 8);
  for (size_t i = 0; i < n; ++i) text += "--b\r\n";
  return text + "--b--\r\n";
}

// A message whose body is one line of `n` bytes, in the encoding given
// ("7bit", "quoted-printable" or "base64").
inline std::string long_line(size_t n, const std::string& encoding) {
  std::string text = "From: a@example.org\r\nSubject: line\r\nMIME-Version: 1.0\r\nContent-Type: text/plain\r\n"
                     "Content-Transfer-Encoding: " + encoding + "\r\n\r\n";
  text.reserve(text.size() + n + 2);
  text.append(n, encoding == "base64" ? 'Q' : 'a');
  return text + "\r\n";
}

// A message whose first line is `n` bytes long.
inline std::string long_header_line(size_t n) {
  std::string text = "Subject: ";
  text.reserve(n + 16);
  text.append(n > text.size() ? n - text.size() : 0, 'a');
  return text + "\r\n\r\nbody\r\n";
}

// `n` messages, each the only part of the one around it.
inline std::string nested_messages(size_t n) {
  constexpr std::string_view level = "From: a@example.org\r\nMIME-Version: 1.0\r\nContent-Type: message/rfc822\r\n\r\n";
  std::string text;
  text.reserve(level.size() * n + 64);
  for (size_t i = 0; i < n; ++i) text += level;
  return text + "From: a@example.org\r\nSubject: inside\r\n\r\nbody\r\n";
}

// `n` multipart entities, each the only part of the one around it, each
// with a boundary of its own.
inline std::string nested_multiparts(size_t n) {
  std::string text = "From: a@example.org\r\nMIME-Version: 1.0\r\n";
  for (size_t i = 0; i < n; ++i) {
    const std::string boundary = "b" + std::to_string(i);
    text += "Content-Type: multipart/mixed; boundary=" + boundary + "\r\n\r\n--" + boundary + "\r\n";
  }
  text += "Content-Type: text/plain\r\n\r\ninside";
  for (size_t i = n; i-- > 0;) text += "\r\n--b" + std::to_string(i) + "--";
  return text + "\r\n";
}

}  // namespace hostile

#endif  // SMTPFM_FUZZ_HOSTILE_INPUTS_H_
