// The lower bound for the explode drivers: one memchr pass for '\n' over
// every message, with the same contract (`explode_limit REPEAT FILE...`,
// see explode_driver.h). Nothing is decoded, so bytes_decoded and the
// counts are 0.
#include <cstring>

#include "bench/explode_driver.h"

int main(int argc, char** argv) {
  return explode_bench::run(argc, argv, [](std::string_view message, explode_bench::Exploded& out) {
    const char* p = message.data();
    const char* end = p + message.size();
    uint64_t lines = 0;
    while (p < end) {
      const void* hit = std::memchr(p, '\n', static_cast<size_t>(end - p));
      if (hit == nullptr) break;
      ++lines;
      p = static_cast<const char*>(hit) + 1;
    }
    out.checksum += lines;
  });
}
