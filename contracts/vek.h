// The base library as the plug-in sees it: status, buffers, streams,
// pointer vectors, string helpers, the critical section and the registry.
//
// On Windows these come from vek.dll; here platform/vek is our own stand-in
// (libvek.so). Nothing in the plug-in reaches the operating system except
// through this header and the other headers of contracts/.
//
// Ownership: a stream never owns its buffer; the buffer must remain live
// while a stream is attached to it. A Vek_sub_buffer never owns its parent,
// which must outlive it. Vek_raw_memory_buffer owns its block only with
// method 2.
#ifndef SMTPFM_CONTRACTS_VEK_H_
#define SMTPFM_CONTRACTS_VEK_H_

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "contracts/status_codes.h"

// Wide text faces the host: UTF-16 code units, as on the original platform.
using Vek_wstring = std::u16string;

// The error channel of every operation: the code last set, 0 when good.
class Vek_status {
 public:
  Vek_status() = default;
  explicit Vek_status(uint32_t code) : code_(code) {}
  void clear() { code_ = vek_ok; }
  bool ok() const { return code_ == vek_ok; }
  uint32_t value() const { return code_; }
  // Sets the code; the last one pushed is the one value() gives.
  void push(uint32_t code) { code_ = code; }
  Vek_status& operator=(uint32_t code) {
    code_ = code;
    return *this;
  }
  bool operator==(uint32_t code) const { return code_ == code; }
  bool operator!=(uint32_t code) const { return code_ != code; }

 private:
  uint32_t code_ = vek_ok;
};

// ---------------------------------------------------------------------------
// Buffers. Every buffer of this library keeps its bytes in one contiguous
// block, so that streams can scan lines with memchr instead of a call per
// byte.

class Vek_buffer {
 public:
  virtual ~Vek_buffer();
  // Number of bytes held.
  virtual uint64_t size() const = 0;
  // The bytes, contiguous; valid until the next write to this buffer (or to
  // the parent of a view). May be null when size() is 0.
  virtual const uint8_t* data() const = 0;
  // Writes `count` bytes at `position`, growing the buffer; a position
  // beyond the end fills the gap with zero bytes. Fails with
  // vek_not_writable on a buffer that cannot grow.
  virtual void write_at(uint64_t position, const void* bytes, size_t count, Vek_status& status);
};

// A growing buffer on the heap.
class Vek_memory_buffer : public Vek_buffer {
 public:
  Vek_memory_buffer();
  ~Vek_memory_buffer() override;
  Vek_memory_buffer(const Vek_memory_buffer&) = delete;
  Vek_memory_buffer& operator=(const Vek_memory_buffer&) = delete;
  uint64_t size() const override { return size_; }
  const uint8_t* data() const override { return bytes_; }
  void write_at(uint64_t position, const void* bytes, size_t count, Vek_status& status) override;
  // Reserves room for `capacity` bytes in all.
  void reserve(uint64_t capacity);

 private:
  uint8_t* bytes_ = nullptr;
  uint64_t size_ = 0;
  uint64_t capacity_ = 0;
};

// A growing buffer made for large data; the arguments are the first page
// count and the page size in KiB of the original library, and only select
// the growth here.
class Vek_page_buffer : public Vek_memory_buffer {
 public:
  Vek_page_buffer(uint32_t initial_pages, uint32_t page_kib);
};

// Wraps a block of `size` bytes that the caller made. Method 2 takes the
// block over (it was made with new uint8_t[] and is freed with delete[]);
// method 0 leaves it to the caller, who keeps it live while the buffer
// lives. Writes stay inside the block.
class Vek_raw_memory_buffer : public Vek_buffer {
 public:
  Vek_raw_memory_buffer(uint64_t size, const void* block, uint32_t method);
  ~Vek_raw_memory_buffer() override;
  Vek_raw_memory_buffer(const Vek_raw_memory_buffer&) = delete;
  Vek_raw_memory_buffer& operator=(const Vek_raw_memory_buffer&) = delete;
  uint64_t size() const override { return size_; }
  const uint8_t* data() const override { return block_; }
  void write_at(uint64_t position, const void* bytes, size_t count, Vek_status& status) override;

 private:
  uint8_t* block_;
  uint64_t size_;
  uint32_t method_;
};

// A read-only view of the bytes from `start` to `end` of another buffer,
// which must outlive the view. An end of vek_to_end runs to the end of the
// parent, also as the parent grows; an end before the start, or a start
// beyond the parent's end, gives an empty view.
inline constexpr uint64_t vek_to_end = 0x7FFFFFFFFFFFFFFFull;
class Vek_sub_buffer : public Vek_buffer {
 public:
  Vek_sub_buffer(const Vek_buffer* parent, uint64_t start, uint64_t end);
  uint64_t size() const override;
  const uint8_t* data() const override;
  uint64_t start() const { return start_; }

 private:
  const Vek_buffer* parent_;
  uint64_t start_;
  uint64_t end_;
};

// ---------------------------------------------------------------------------
// Streams.

// Line-end mode of a stream. Mode 0 ends a line at LF and drops a CR in
// front of it; mode 3 ends a line at CR LF only, and writeln writes CR LF.
enum Vek_eol : uint32_t { vek_eol_lf = 0, vek_eol_crlf = 3 };

// Reads a buffer. Seeking is free in both directions, also beyond the end
// (reads there report the end of the stream).
class Vek_istream {
 public:
  // Attaches to `buffer` at position 0. `flag` is accepted for the
  // original signature and means nothing to this library. A null buffer
  // fails with vek_bad_argument.
  Vek_istream(const Vek_buffer* buffer, bool flag, Vek_status& status, Vek_eol eol);
  virtual ~Vek_istream();
  Vek_istream(const Vek_istream&) = delete;
  Vek_istream& operator=(const Vek_istream&) = delete;

  // Attaches to another buffer, at position 0.
  void init(const Vek_buffer* buffer, bool flag, Vek_status& status, Vek_eol eol);
  // Lets go of the buffer; the stream reads nothing afterwards.
  void detach();

  // Reads up to `count` bytes into `target` and moves on; returns the count
  // read. Fewer than `count` bytes set vek_end_of_stream.
  virtual size_t read(size_t count, void* target, Vek_status& status);
  // The same at `position`, without moving the stream.
  virtual size_t read_at(uint64_t position, size_t count, void* target, Vek_status& status);

  // Delivers the next line, without its line end, into `line`. With at
  // least `limit` bytes of text, exactly `limit` bytes come with
  // vek_line_too_long and the next call goes on with the rest of the line.
  // At the end of the stream: vek_end_of_stream and an empty line. A last
  // line without a line end comes whole with vek_end_of_stream (or, if it
  // is `limit` bytes or longer, in pieces as above).
  void readln(uint32_t limit, std::string& line, Vek_status& status);
  // The same, without a copy: `line` views the buffer and stays valid until
  // the buffer is next written to. The hot paths of the plug-in use this.
  void readln_view(uint32_t limit, std::string_view& line, Vek_status& status);

  void seek(uint64_t position) { position_ = position; }
  // Mode 0 from the start, 1 from here, 2 from the end; a target before
  // the start fails with vek_bad_seek and leaves the position alone.
  void seek(uint32_t mode, int64_t offset, Vek_status& status);
  uint64_t tell() const { return position_; }
  uint64_t size(Vek_status& status) const;

  Vek_eol eol() const { return eol_; }
  const Vek_buffer* buffer() const { return buffer_; }

 protected:
  const Vek_buffer* buffer_ = nullptr;
  uint64_t position_ = 0;
  Vek_eol eol_ = vek_eol_lf;
};

// Both stream kinds read straight from the buffer's contiguous bytes here;
// the two names stay because callers choose between them.
class Vek_buffered_istream : public Vek_istream {
 public:
  using Vek_istream::Vek_istream;
};
class Vek_unbuffered_istream : public Vek_istream {
 public:
  using Vek_istream::Vek_istream;
};

// Writes into a buffer from position 0 on.
class Vek_ostream {
 public:
  // A null or read-only buffer fails with vek_bad_argument or
  // vek_not_writable.
  Vek_ostream(Vek_buffer* buffer, Vek_status& status, Vek_eol eol);
  ~Vek_ostream();
  Vek_ostream(const Vek_ostream&) = delete;
  Vek_ostream& operator=(const Vek_ostream&) = delete;

  void init(Vek_buffer* buffer, Vek_status& status, Vek_eol eol);
  void detach();

  // Both set the status afresh. writeln appends the stream's line end.
  void write(size_t count, const void* data, Vek_status& status);
  void write(std::string_view text, Vek_status& status) { write(text.size(), text.data(), status); }
  void writeln(std::string_view text, Vek_status& status);
  uint64_t tell() const { return position_; }

 private:
  Vek_buffer* buffer_ = nullptr;
  uint64_t position_ = 0;
  Vek_eol eol_ = vek_eol_crlf;
};

// Copies from the input's position to its end onto the output.
void vek_copy_stream(Vek_istream& in, Vek_ostream& out, Vek_status& status);

// ---------------------------------------------------------------------------
// Containers and locks.

// A vector of pointers that owns nothing: whoever fills it frees the
// elements.
class Vek_ptrvec_impl {
 public:
  explicit Vek_ptrvec_impl(size_t capacity_hint) { items_.reserve(capacity_hint); }
  void** begin() { return items_.data(); }
  void** end() { return items_.data() + items_.size(); }
  size_t size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  void* at(size_t index) const { return items_.at(index); }
  void* back() const { return items_.back(); }
  void clear() { items_.clear(); }
  void push_back(void* pointer) { items_.push_back(pointer); }
  void pop_back() { items_.pop_back(); }
  void insert(size_t index, void* pointer) { items_.insert(items_.begin() + index, pointer); }

 private:
  std::vector<void*> items_;
};

// Mutual exclusion between threads. The argument of the original (whether
// to start locked) is honoured.
class Vek_critical {
 public:
  explicit Vek_critical(bool locked);
  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

// ---------------------------------------------------------------------------
// Strings. Narrow text is bytes; wide text is UTF-16.

// Widens each byte to the code unit of the same value.
Vek_wstring vek_stow(std::string_view text);
// Narrows each unit; units above 0xFF become '?'.
std::string vek_wtos(std::u16string_view text);
// ASCII case mapping in place; other bytes and units are left alone.
void vek_upper(std::string& text);
void vek_upper(Vek_wstring& text);
void vek_lower(std::string& text);
// Removes white space (space, tab, CR, LF, VT, FF) at both ends, in place.
void vek_trim(std::string& text);
// Equality without regard to ASCII case.
bool vek_string_equal_nc(std::string_view a, std::string_view b);
bool vek_string_equal_nc(std::u16string_view a, std::u16string_view b);
// True for an empty text and for one of white space only.
bool vek_is_blank(std::string_view text);
bool vek_is_blank(std::u16string_view text);
// True for a non-empty run of decimal digits.
bool vek_is_number(std::u16string_view text);
// Removes the enclosing double quotes, if both are there, and resolves the
// quoted pairs (a backslash and the byte behind it) inside.
std::string vek_unquote(std::string_view text);
// Decimal text of a number.
Vek_wstring vek_itow(int64_t value);

// A file path; only the extension is asked of it.
class Vek_path {
 public:
  explicit Vek_path(Vek_wstring path) : path_(std::move(path)) {}
  // The text behind the last dot of the last path element, without the
  // dot; empty when there is none.
  Vek_wstring extension() const;

 private:
  Vek_wstring path_;
};

// ---------------------------------------------------------------------------
// Registry. Keys are wide paths with backslashes; `subkey` may be empty.
// Here the registry is a tree of folders under a root that the host
// chooses (vek_set_registry_root); each key keeps its values in one text
// file.

enum Vek_reg_root : uint32_t { HKEY_LOCAL_MACHINE = 2 };

void vek_set_reg_string_value(Vek_reg_root root, std::u16string_view path, std::u16string_view subkey,
                              std::u16string_view value_name, std::u16string_view value, Vek_status& status);
void vek_set_reg_uint_value(Vek_reg_root root, std::u16string_view path, std::u16string_view subkey,
                            std::u16string_view value_name, uint32_t value, Vek_status& status);
// Removes `key` below `path` and `subkey`, with all it holds. A key that is
// not there counts as removed.
void vek_remove_reg_key(Vek_reg_root root, std::u16string_view path, std::u16string_view subkey,
                        std::u16string_view key, Vek_status& status);
// Fills `names` with new Vek_wstring objects, the names of the keys below
// `path` and `subkey`; the caller deletes them. A missing key has none.
void vek_enum_reg_keys(Vek_reg_root root, std::u16string_view path, std::u16string_view subkey,
                       Vek_ptrvec_impl& names, Vek_status& status);

#endif  // SMTPFM_CONTRACTS_VEK_H_
