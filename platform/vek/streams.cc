// Streams of the base library stand-in. They read the buffer's contiguous
// bytes directly: a line is found with one memchr over the bytes, never a
// call per byte.
#include <algorithm>
#include <cstring>

#include "contracts/vek.h"

namespace {

// Finds the end of the line that starts at `text`, looking at no more than
// `window` bytes. Returns the length of the line's text and sets
// `terminator` to the length of its line end (0 when none was found).
size_t find_line_end(const uint8_t* text, size_t window, Vek_eol eol, size_t& terminator) {
  const uint8_t* at = text;
  const uint8_t* stop = text + window;
  while (at < stop) {
    const void* lf = std::memchr(at, '\n', stop - at);
    if (lf == nullptr) break;
    const uint8_t* p = static_cast<const uint8_t*>(lf);
    bool cr = p > text && p[-1] == '\r';
    if (eol == vek_eol_lf) {
      terminator = cr ? 2 : 1;
      return (p - text) - (cr ? 1 : 0);
    }
    if (cr) {
      terminator = 2;
      return (p - text) - 1;
    }
    at = p + 1;  // a bare LF is text in CR LF mode
  }
  terminator = 0;
  return window;
}

}  // namespace

Vek_istream::Vek_istream(const Vek_buffer* buffer, bool flag, Vek_status& status, Vek_eol eol) {
  init(buffer, flag, status, eol);
}

Vek_istream::~Vek_istream() = default;

void Vek_istream::init(const Vek_buffer* buffer, bool, Vek_status& status, Vek_eol eol) {
  status.clear();
  buffer_ = buffer;
  position_ = 0;
  eol_ = eol;
  if (buffer == nullptr) status = vek_bad_argument;
}

void Vek_istream::detach() {
  buffer_ = nullptr;
  position_ = 0;
}

size_t Vek_istream::read(size_t count, void* target, Vek_status& status) {
  size_t n = read_at(position_, count, target, status);
  position_ += n;
  return n;
}

size_t Vek_istream::read_at(uint64_t position, size_t count, void* target, Vek_status& status) {
  status.clear();
  uint64_t size = buffer_ == nullptr ? 0 : buffer_->size();
  uint64_t available = position < size ? size - position : 0;
  size_t n = available < count ? static_cast<size_t>(available) : count;
  if (n != 0) std::memcpy(target, buffer_->data() + position, n);
  if (n < count) status = vek_end_of_stream;
  return n;
}

void Vek_istream::readln_view(uint32_t limit, std::string_view& line, Vek_status& status) {
  status.clear();
  uint64_t size = buffer_ == nullptr ? 0 : buffer_->size();
  if (position_ >= size) {
    line = {};
    status = vek_end_of_stream;
    return;
  }
  if (limit == 0) limit = UINT32_MAX;
  const uint8_t* text = buffer_->data() + position_;
  uint64_t remaining = size - position_;
  // A line of fewer than `limit` bytes and its line end fit in limit + 1
  // bytes; looking no further keeps a huge line from being scanned again
  // for every piece of it.
  size_t window = static_cast<size_t>(std::min<uint64_t>(remaining, uint64_t{limit} + 1));
  size_t terminator = 0;
  size_t length = find_line_end(text, window, eol_, terminator);
  if (terminator != 0 && length < limit) {
    line = std::string_view(reinterpret_cast<const char*>(text), length);
    position_ += length + terminator;
    return;
  }
  if (terminator == 0 && window == remaining && remaining < limit) {
    // The last line of the data, without a line end.
    line = std::string_view(reinterpret_cast<const char*>(text), remaining);
    position_ = size;
    status = vek_end_of_stream;
    return;
  }
  line = std::string_view(reinterpret_cast<const char*>(text), limit);
  position_ += limit;
  status = vek_line_too_long;
}

void Vek_istream::readln(uint32_t limit, std::string& line, Vek_status& status) {
  std::string_view view;
  readln_view(limit, view, status);
  line.assign(view.data(), view.size());
}

void Vek_istream::seek(uint32_t mode, int64_t offset, Vek_status& status) {
  status.clear();
  int64_t base;
  switch (mode) {
    case 0:
      base = 0;
      break;
    case 1:
      base = static_cast<int64_t>(position_);
      break;
    case 2:
      base = static_cast<int64_t>(buffer_ == nullptr ? 0 : buffer_->size());
      break;
    default:
      status = vek_bad_argument;
      return;
  }
  int64_t target = base + offset;
  if (target < 0) {
    status = vek_bad_seek;
    return;
  }
  position_ = static_cast<uint64_t>(target);
}

uint64_t Vek_istream::size(Vek_status& status) const {
  status.clear();
  if (buffer_ == nullptr) {
    status = vek_bad_argument;
    return 0;
  }
  return buffer_->size();
}

Vek_ostream::Vek_ostream(Vek_buffer* buffer, Vek_status& status, Vek_eol eol) { init(buffer, status, eol); }

Vek_ostream::~Vek_ostream() = default;

void Vek_ostream::init(Vek_buffer* buffer, Vek_status& status, Vek_eol eol) {
  status.clear();
  buffer_ = buffer;
  position_ = 0;
  eol_ = eol;
  if (buffer == nullptr) {
    status = vek_bad_argument;
    return;
  }
  // Probe: a buffer that cannot take bytes is refused now, not at the
  // first write.
  buffer->write_at(0, nullptr, 0, status);
  if (!status.ok()) buffer_ = nullptr;
}

void Vek_ostream::detach() {
  buffer_ = nullptr;
  position_ = 0;
}

void Vek_ostream::write(size_t count, const void* data, Vek_status& status) {
  status.clear();
  if (buffer_ == nullptr) {
    status = vek_bad_argument;
    return;
  }
  if (count == 0) return;
  buffer_->write_at(position_, data, count, status);
  if (status.ok()) position_ += count;
}

void Vek_ostream::writeln(std::string_view text, Vek_status& status) {
  write(text.size(), text.data(), status);
  if (!status.ok()) return;
  if (eol_ == vek_eol_crlf)
    write(2, "\r\n", status);
  else
    write(1, "\n", status);
}

void vek_copy_stream(Vek_istream& in, Vek_ostream& out, Vek_status& status) {
  status.clear();
  const Vek_buffer* buffer = in.buffer();
  if (buffer == nullptr) {
    status = vek_bad_argument;
    return;
  }
  uint64_t size = buffer->size();
  uint64_t position = in.tell();
  if (position >= size) return;
  out.write(static_cast<size_t>(size - position), buffer->data() + position, status);
  if (status.ok()) in.seek(size);
}
