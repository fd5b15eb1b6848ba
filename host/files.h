// The files that an smtpfm command reads and writes, by the rules of a Unix
// tool: "-" is standard input or output; a path that exists and is no
// regular file (a terminal, a pipe, /dev/stdout) is written in place; a
// symbolic link is written through, never replaced; only a regular file is
// replaced, through a temporary file beside it. Messages go by read and
// write in large blocks: a 90 MB message through the C++ streams costs
// more than taking it apart.
#ifndef SMTPFM_HOST_FILES_H_
#define SMTPFM_HOST_FILES_H_

#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

// A failure that ends a command, or one of its inputs, with its text as
// the one line on standard error.
struct Command_failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The bytes of `path` ("-": standard input). Throws Command_failure that
// names the path and why (a folder, a file that cannot be opened or read).
std::string read_file(const std::string& path);

// The bytes of a message as a command reads them. A regular file is mapped
// read-only, so that only the pages that are read come into memory:
// refusing a large file that is no mail reads the few lines recognition
// looks at, not the file. What cannot be mapped (standard input, a pipe,
// an empty file) is read into memory; so are bytes given as a string. The
// bytes stay valid and unchanged while the object lives (a mapped file
// that another program shortens under it is not guarded against).
class File_bytes {
 public:
  File_bytes() = default;
  // The bytes of `path` ("-": standard input). Throws Command_failure as
  // read_file does.
  static File_bytes open(const std::string& path);
  // Bytes held in memory.
  explicit File_bytes(std::string bytes) : held_(std::move(bytes)) {}
  File_bytes(File_bytes&& other) noexcept;
  File_bytes& operator=(File_bytes&& other) noexcept;
  ~File_bytes();
  std::string_view view() const { return mapped_ != nullptr ? std::string_view(mapped_, size_) : held_; }

 private:
  void unmap();
  std::string held_;
  const char* mapped_ = nullptr;
  size_t size_ = 0;
};

// Writes `bytes` to `path` ("-": standard output) by the rules above, so
// that a failure leaves the old file or none. Throws Command_failure.
void write_file(const std::string& path, std::string_view bytes);

// Writes all of `bytes` to `fd`, going on after a signal; false with
// errno set when a write fails.
bool write_all(int fd, std::string_view bytes);

// Whether `path` names what standard output is: "-", /dev/stdout, or the
// file that standard output was sent to. A report that would share it
// with data goes to standard error instead.
bool is_standard_output(const std::string& path);

#endif  // SMTPFM_HOST_FILES_H_
