#include "host/files.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>

namespace fs = std::filesystem;

namespace {

// What a read from a pipe starts with; a regular file is read into its
// size at once.
constexpr size_t first_block = 64 << 10;

// A chain of symbolic links longer than this is a loop, as the kernel
// judges it (its own limit is 40).
constexpr int max_link_hops = 40;

// Reads `fd` to its end; `expected` is its size where known (0: unknown).
bool read_all(int fd, size_t expected, std::string& bytes) {
  // One byte more than expected, so that the end shows without a copy.
  bytes.resize(expected > 0 ? expected + 1 : first_block);
  size_t size = 0;
  while (true) {
    if (size == bytes.size()) bytes.resize(bytes.size() * 2);
    const ssize_t n = read(fd, bytes.data() + size, bytes.size() - size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) break;
    size += static_cast<size_t>(n);
  }
  bytes.resize(size);
  return true;
}

// Opens `path` with `flags` and writes `bytes` to it; false with errno set
// on failure.
bool write_to(const std::string& path, int flags, std::string_view bytes) {
  const int fd = open(path.c_str(), flags | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  const bool written = write_all(fd, bytes);
  const int error = errno;
  const bool closed = close(fd) == 0;
  if (!written) errno = error;
  return written && closed;
}

}  // namespace

namespace {

// Opens `path` for reading and tells its size when it is a regular file
// (0 otherwise, or when unknown). Throws Command_failure.
int open_for_reading(const std::string& path, size_t& regular_size) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw Command_failure(path + ": cannot open: " + std::strerror(errno));
  struct stat status;
  const bool known = fstat(fd, &status) == 0;
  if (known && S_ISDIR(status.st_mode)) {
    close(fd);
    throw Command_failure(path + ": is a folder, not a message");
  }
  regular_size = known && S_ISREG(status.st_mode) ? static_cast<size_t>(status.st_size) : 0;
  return fd;
}

// Reads the rest of `fd` into `bytes` and closes it. Throws Command_failure.
void read_and_close(int fd, size_t expected, const std::string& path, std::string& bytes) {
  const bool read = read_all(fd, expected, bytes);
  const int error = errno;
  close(fd);
  if (!read) throw Command_failure(path + ": cannot read: " + std::strerror(error));
}

}  // namespace

std::string read_file(const std::string& path) {
  std::string bytes;
  if (path == "-") {
    if (!read_all(STDIN_FILENO, 0, bytes)) throw Command_failure("standard input: cannot read");
    return bytes;
  }
  size_t size = 0;
  const int fd = open_for_reading(path, size);
  read_and_close(fd, size, path, bytes);
  return bytes;
}

File_bytes File_bytes::open(const std::string& path) {
  if (path == "-") return File_bytes(read_file(path));
  size_t size = 0;
  const int fd = open_for_reading(path, size);
  if (size > 0) {
    void* mapped = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    if (mapped != MAP_FAILED) {
      close(fd);
      File_bytes bytes;
      bytes.mapped_ = static_cast<const char*>(mapped);
      bytes.size_ = size;
      return bytes;
    }
  }
  // Not a regular file, an empty one, or one that the system does not map
  // (a file system without mmap): read as a pipe is.
  std::string held;
  read_and_close(fd, size, path, held);
  return File_bytes(std::move(held));
}

File_bytes::File_bytes(File_bytes&& other) noexcept
    : held_(std::move(other.held_)), mapped_(other.mapped_), size_(other.size_) {
  other.mapped_ = nullptr;
  other.size_ = 0;
}

File_bytes& File_bytes::operator=(File_bytes&& other) noexcept {
  if (this != &other) {
    unmap();
    held_ = std::move(other.held_);
    mapped_ = other.mapped_;
    size_ = other.size_;
    other.mapped_ = nullptr;
    other.size_ = 0;
  }
  return *this;
}

File_bytes::~File_bytes() { unmap(); }

void File_bytes::unmap() {
  if (mapped_ != nullptr) munmap(const_cast<char*>(mapped_), size_);
  mapped_ = nullptr;
  size_ = 0;
}

void write_file(const std::string& given, std::string_view bytes) {
  if (given == "-") {
    std::cout.flush();  // what went to std::cout before stays in front
    if (!write_all(STDOUT_FILENO, bytes)) throw Command_failure("standard output: cannot write");
    return;
  }
  std::error_code error;
  const fs::file_status status = fs::status(given, error);  // through links
  if (fs::exists(status) && !fs::is_regular_file(status)) {
    if (fs::is_directory(status)) throw Command_failure(given + ": is a folder");
    if (!write_to(given, O_WRONLY | O_TRUNC, bytes))
      throw Command_failure(given + ": cannot write: " + std::strerror(errno));
    return;
  }
  // Follow links by hand: a link may name a file that does not exist yet.
  fs::path path = given;
  for (int hops = 0; fs::is_symlink(fs::symlink_status(path, error)); ++hops) {
    fs::path target = fs::read_symlink(path, error);
    if (error || hops == max_link_hops) throw Command_failure(given + ": cannot follow the link");
    path = target.is_absolute() ? target : path.parent_path() / target;
  }
  const std::string temporary = path.string() + ".smtpfm-tmp";
  if (!write_to(temporary, O_WRONLY | O_CREAT | O_TRUNC, bytes)) {
    const int failure = errno;
    fs::remove(temporary, error);
    throw Command_failure(given + ": cannot write: " + std::strerror(failure));
  }
  error.clear();
  fs::rename(temporary, path, error);
  if (error) {
    const std::string why = error.message();
    fs::remove(temporary, error);
    throw Command_failure(given + ": cannot write: " + why);
  }
}

bool write_all(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) {
      errno = EIO;  // a write that takes nothing would never end
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

bool is_standard_output(const std::string& path) {
  if (path == "-") return true;
  struct stat out_stat, path_stat;
  return fstat(STDOUT_FILENO, &out_stat) == 0 && stat(path.c_str(), &path_stat) == 0 &&
         out_stat.st_dev == path_stat.st_dev && out_stat.st_ino == path_stat.st_ino;
}
