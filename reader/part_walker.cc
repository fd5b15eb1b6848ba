// Walking a multipart body (RFC 1521, section 7.2.1):
//
//   multipart-body := preamble 1*encapsulation close-delimiter epilogue
//   encapsulation  := delimiter body-part CRLF
//   delimiter      := CRLF "--" boundary
//
// The CRLF in front of "--" belongs to the delimiter, not to the part
// before it, so a walk that stops at a delimiter leaves that line break
// out of the part.
//
// Where this code knowingly deviates from the RFC:
//   - a delimiter is told by its line alone (see Smtp_boundary); the
//     preamble and epilogue are not treated apart from the parts;
//   - a line longer than one piece is never a delimiter, and text that
//     looks like one further on in such a line is none either;
//   - skip_to_part_delimiter counts two bytes for the line break in front
//     of a delimiter without looking at them, so a body with bare LF line
//     ends loses the last byte of each part.
#include "reader/part_walker.h"

#include <cstring>

namespace {

// Reads the next piece of a line and settles the status as every walk
// takes it: a last line without a line end is a whole line (status
// cleared); vek_line_too_long stays only for a full piece of a longer
// line; vek_end_of_stream stays only when no text came.
void read_piece(Vek_istream& stream, std::string_view& text, Vek_status& status) {
  stream.readln_view(smtp_max_body_line, text, status);
  if ((status == vek_line_too_long && text.size() < smtp_max_body_line) ||
      (status == vek_end_of_stream && !text.empty())) {
    status.clear();
  }
}

// A failed write ends a walk with the status of the write, unless the read
// had already failed on its own.
bool take_write_failure(const Vek_status& written, Vek_status& status) {
  if (written.ok()) return false;
  if (status.ok() || status == vek_end_of_stream || status == vek_line_too_long) status = written;
  return true;
}

// Only a line that begins with '-' can be a delimiter; the walks ask the
// boundary about no other.
bool is_delimiter(std::string_view text, const Smtp_boundary& boundary) {
  return !text.empty() && text[0] == '-' && classify_part_line(text, &boundary) != smtp_no_delimiter;
}

}  // namespace

uint32_t classify_part_line(std::string_view line, const Smtp_boundary* boundary) {
  if (line.empty() || boundary == nullptr) return smtp_no_delimiter;
  bool closing = false;
  if (!boundary->match_line(line, closing)) return smtp_no_delimiter;
  return closing ? smtp_closing_delimiter : smtp_delimiter;
}

// The place of the next line start at or behind `from` whose first byte
// is '-', or `size` when there is none. `origin` is where the walk began
// reading lines: the first line starts there. A line starts behind every
// line end of the stream's mode (CR LF only in CR LF mode, any LF in LF
// mode), so only the bytes in front of a '-' need a look; the bodies of
// parts (Base64 above all) seldom hold one, so memchr skips them whole.
uint64_t next_dash_line(const uint8_t* bytes, uint64_t size, uint64_t origin, uint64_t from, Vek_eol eol) {
  while (from < size) {
    const void* found = std::memchr(bytes + from, '-', size - from);
    if (found == nullptr) return size;
    const uint64_t at = static_cast<uint64_t>(static_cast<const uint8_t*>(found) - bytes);
    if (at == origin) return at;
    if (eol == vek_eol_lf ? bytes[at - 1] == '\n'
                          : at >= origin + 2 && bytes[at - 1] == '\n' && bytes[at - 2] == '\r')
      return at;
    from = at + 1;
  }
  return size;
}

void find_part_delimiter(Vek_istream& stream, const Smtp_boundary& boundary, bool& end, bool& found,
                         Vek_status& status) {
  uint64_t line_start = 0;
  find_part_delimiter(stream, boundary, end, found, line_start, status);
}

void find_part_delimiter(Vek_istream& stream, const Smtp_boundary& boundary, bool& end, bool& found,
                         uint64_t& line_start, Vek_status& status) {
  status.clear();
  end = false;
  found = false;
  const Vek_buffer* buffer = stream.buffer();
  const uint64_t origin = stream.tell();
  const uint64_t size = buffer == nullptr ? 0 : buffer->size();
  // Only a line that begins with '-' can be a delimiter, and only one that
  // comes in a single piece: the others are passed over in the buffer's
  // bytes. A line start here is one where reading line by line would begin
  // a line, since pieces never part a line end.
  std::string_view text;
  for (uint64_t start = next_dash_line(buffer == nullptr ? nullptr : buffer->data(), size, origin, origin,
                                       stream.eol());
       start < size; start = next_dash_line(buffer->data(), size, origin, start + 1, stream.eol())) {
    stream.seek(start);
    read_piece(stream, text, status);
    if (!status.ok()) {
      // The first piece of a longer line.
      status.clear();
      continue;
    }
    const uint32_t kind = classify_part_line(text, &boundary);
    if (kind != smtp_no_delimiter) {
      found = true;
      end = kind == smtp_closing_delimiter;
      line_start = start;
      return;
    }
  }
  // The data end with no delimiter.
  if (origin < size) stream.seek(size);
  end = true;
}

void skip_to_part_delimiter(Vek_istream& stream, const Smtp_boundary& boundary, Vek_status& status) {
  status.clear();
  const Vek_buffer* buffer = stream.buffer();
  const uint64_t origin = stream.tell();
  const uint64_t size = buffer == nullptr ? 0 : buffer->size();
  if (origin >= size) return;
  // Only lines that begin with '-' are read; the others are passed over in
  // the buffer's bytes, where the stream would have read them one by one.
  std::string_view text;
  for (uint64_t line_start = next_dash_line(buffer->data(), size, origin, origin, stream.eol()); line_start < size;
       line_start = next_dash_line(buffer->data(), size, origin, line_start + 1, stream.eol())) {
    stream.seek(line_start);
    read_piece(stream, text, status);
    if (is_delimiter(text, boundary)) {
      status.clear();
      // Two bytes back, to the CR LF that belongs to the delimiter; no
      // further than the start, where no line break stands in front.
      stream.seek(line_start >= 2 ? line_start - 2 : 0);
      return;
    }
  }
  status.clear();
  stream.seek(size);
}

void copy_to_part_delimiter(Vek_istream& stream, Vek_ostream& out, const Smtp_boundary& boundary,
                            Vek_status& status) {
  status.clear();
  Vek_status written;
  std::string_view text;
  // `run` is the text of the lines read and not yet written, the last of
  // which may still be the last in front of a delimiter, so that its line
  // end is pending. While the input's line end between two lines is byte
  // for byte the one that writeln writes, `run` spans both, line end
  // included, and a part goes out in a few large writes instead of one per
  // line. `run` views the input, which nothing writes to during the walk.
  std::string_view run;
  bool pending = false;
  std::string_view line_end;  // what writeln writes, once seen
  const auto write_line = [&]() {
    const uint64_t before = out.tell();
    out.writeln(run, written);
    if (written.ok() && line_end.empty()) {
      const uint64_t added = out.tell() - before - run.size();
      line_end = added == 2 ? "\r\n" : added == 1 ? "\n" : "";
    }
    return !take_write_failure(written, status);
  };
  const auto follows_run = [&](std::string_view next) {
    const char* run_end = run.data() + run.size();
    return !line_end.empty() && next.data() == run_end + line_end.size() &&
           std::memcmp(run_end, line_end.data(), line_end.size()) == 0;
  };
  for (;;) {
    const uint64_t line_start = stream.tell();
    read_piece(stream, text, status);
    if (!status.ok() && status != vek_line_too_long) break;
    if (is_delimiter(text, boundary)) {
      status.clear();
      stream.seek(line_start);
      if (pending) {
        out.write(run, written);
        take_write_failure(written, status);
      }
      return;
    }
    if (pending) {
      if (status.ok() && follows_run(text)) {
        run = std::string_view(run.data(), text.data() + text.size() - run.data());
        continue;
      }
      pending = false;
      if (!write_line()) return;
    }
    // The pieces of an over-long line go out as they come, with nothing
    // between them.
    while (status == vek_line_too_long) {
      status.clear();
      out.write(text, written);
      if (take_write_failure(written, status)) return;
      read_piece(stream, text, status);
    }
    run = text;
    pending = true;
    if (!status.ok()) break;
  }
  if (!pending) {
    if (status == vek_end_of_stream) status.clear();
    return;
  }
  if (status == vek_end_of_stream) {
    // The data end: the last line gets its line end after all.
    status.clear();
    write_line();
  } else {
    out.write(run, written);
    take_write_failure(written, status);
  }
}

void copy_remaining_lines(Vek_istream& stream, Vek_ostream& out, Vek_status& status) {
  status.clear();
  Vek_status written;
  std::string_view text;
  for (;;) {
    read_piece(stream, text, status);
    if (!status.ok() && status != vek_line_too_long) break;
    while (status == vek_line_too_long) {
      status.clear();
      out.write(text, written);
      if (take_write_failure(written, status)) return;
      read_piece(stream, text, status);
    }
    out.writeln(text, written);
    if (take_write_failure(written, status)) return;
    if (!status.ok()) break;
  }
  if (status == vek_end_of_stream) status.clear();
}
