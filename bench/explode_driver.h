// The frame shared by the explode drivers (smtpfm's, the peers' and the
// memchr limit): `NAME REPEAT FILE...`.
//
// Every file is read into memory first, untimed; the files are expected in
// canonical form (CR LF), as the input generator writes them. Then, timed,
// each message is handed REPEAT times to the driver's explode function,
// which takes it apart down to its leaves and touches every byte of every
// leaf. One line goes to stdout:
//
//   bytes_in=N bytes_decoded=N leaves=N subjects=N failures=N seconds=S mb_per_s=X peak_kib=N
//
// bytes_in, bytes_decoded and the counts are for one pass over the files:
// the input's size, the total size of all leaves, the number of leaves
// (entities that are neither multipart nor message, their content decoded),
// of Subject fields decoded and of messages or parts the library could not
// take apart. They show that every driver did the same work. seconds is the
// time of all REPEAT passes; mb_per_s is REPEAT * bytes_in / seconds in
// units of 10^6 bytes. peak_kib is the process's peak resident memory
// (VmHWM), the loaded input included: a parent's accounting of the child
// would also hold what the child was before it ran this program (a fork of
// the benchmark's Python, 12 MiB).
#ifndef SMTPFM_BENCH_EXPLODE_DRIVER_H_
#define SMTPFM_BENCH_EXPLODE_DRIVER_H_

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace explode_bench {

// Where touched bytes end, so that no pass can be left out by the compiler.
inline volatile uint64_t sink = 0;

// Reads every byte of `bytes`: a wrapping sum of 8-byte words and the tail.
inline uint64_t touch(const void* data, size_t size) {
  const auto* p = static_cast<const unsigned char*>(data);
  uint64_t a = 0, b = 0;
  size_t i = 0;
  for (; i + 16 <= size; i += 16) {
    uint64_t x, y;
    std::memcpy(&x, p + i, 8);
    std::memcpy(&y, p + i + 8, 8);
    a += x;
    b += y;
  }
  for (; i < size; ++i) a += p[i];
  return a + b;
}
inline uint64_t touch(std::string_view bytes) { return touch(bytes.data(), bytes.size()); }

inline bool read_file(const char* path, std::string& out) {
  // Sized first, so that the peak memory is the input once.
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) return false;
  std::streamoff size = in.tellg();
  if (size < 0) return false;
  out.resize(static_cast<size_t>(size));
  in.seekg(0);
  in.read(out.data(), size);
  return static_cast<bool>(in);
}

// The peak resident set of this process in KiB, 0 where the kernel does not say.
inline uint64_t peak_kib() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmHWM:", 0) == 0) return std::strtoull(line.c_str() + 6, nullptr, 10);
  return 0;
}

// What one message gave: its leaves, their total size and a sum of their
// bytes, the Subjects decoded and what could not be taken apart.
struct Exploded {
  uint64_t bytes_decoded = 0;
  uint64_t leaves = 0;
  uint64_t subjects = 0;
  uint64_t failures = 0;
  uint64_t checksum = 0;
  // One leaf's decoded content.
  void add(const void* data, size_t size) {
    ++leaves;
    bytes_decoded += size;
    checksum += touch(data, size);
  }
  void add(std::string_view bytes) { add(bytes.data(), bytes.size()); }
  // One decoded Subject.
  void subject(std::string_view text) {
    ++subjects;
    checksum += touch(text);
  }
  // A message or part that could not be taken apart.
  void fail() { ++failures; }
};

// Runs the driver: `explode(std::string_view message, Exploded& out)` is
// called REPEAT times for every message. Returns the process's exit code.
template <class Explode>
int run(int argc, char** argv, Explode&& explode) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s REPEAT FILE...\n", argv[0]);
    return 2;
  }
  char* end = nullptr;
  long repeat = std::strtol(argv[1], &end, 10);
  if (end == argv[1] || *end != '\0' || repeat < 1) {
    std::fprintf(stderr, "%s: REPEAT must be a positive number, not '%s'\n", argv[0], argv[1]);
    return 2;
  }
  std::vector<std::string> messages(static_cast<size_t>(argc - 2));
  uint64_t bytes_in = 0;
  for (int i = 2; i < argc; ++i) {
    if (!read_file(argv[i], messages[static_cast<size_t>(i - 2)])) {
      std::fprintf(stderr, "%s: cannot read %s\n", argv[0], argv[i]);
      return 1;
    }
    bytes_in += messages[static_cast<size_t>(i - 2)].size();
  }

  Exploded pass;  // the last pass's figures
  uint64_t checksum = 0;
  auto start = std::chrono::steady_clock::now();
  for (long r = 0; r < repeat; ++r) {
    pass = Exploded();
    for (const std::string& message : messages) {
      Exploded out;
      explode(std::string_view(message), out);
      pass.bytes_decoded += out.bytes_decoded;
      pass.leaves += out.leaves;
      pass.subjects += out.subjects;
      pass.failures += out.failures;
      checksum += out.checksum;
    }
  }
  auto stop = std::chrono::steady_clock::now();
  sink = checksum;

  double seconds = std::chrono::duration<double>(stop - start).count();
  double mb_per_s =
      seconds > 0 ? static_cast<double>(bytes_in) * static_cast<double>(repeat) / seconds / 1e6 : 0.0;
  std::printf(
      "bytes_in=%llu bytes_decoded=%llu leaves=%llu subjects=%llu failures=%llu seconds=%.6f "
      "mb_per_s=%.2f peak_kib=%llu\n",
      static_cast<unsigned long long>(bytes_in), static_cast<unsigned long long>(pass.bytes_decoded),
      static_cast<unsigned long long>(pass.leaves), static_cast<unsigned long long>(pass.subjects),
      static_cast<unsigned long long>(pass.failures), seconds, mb_per_s,
      static_cast<unsigned long long>(peak_kib()));
  return 0;
}

}  // namespace explode_bench

#endif  // SMTPFM_BENCH_EXPLODE_DRIVER_H_
