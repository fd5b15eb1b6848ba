// Line reads on a memory buffer beside a bare memchr loop over the same
// bytes: 64 MiB of 72-byte CR LF lines.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "contracts/vek.h"

namespace {

const std::string& lines() {
  static const std::string text = [] {
    std::string line(70, 'x');
    for (size_t i = 0; i < line.size(); ++i) line[i] = static_cast<char>('a' + i % 26);
    line += "\r\n";
    std::string all;
    all.reserve(64 << 20);
    while (all.size() + line.size() <= (64u << 20)) all += line;
    return all;
  }();
  return text;
}

void BM_memchr_loop(benchmark::State& state) {
  const std::string& text = lines();
  for (auto _ : state) {
    size_t count = 0;
    const char* at = text.data();
    const char* end = at + text.size();
    while (const void* lf = std::memchr(at, '\n', end - at)) {
      ++count;
      at = static_cast<const char*>(lf) + 1;
    }
    benchmark::DoNotOptimize(count);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * text.size());
}

template <Vek_eol eol, bool copy>
void BM_readln(benchmark::State& state) {
  const std::string& text = lines();
  Vek_raw_memory_buffer buffer(text.size(), text.data(), 0);
  std::string line;
  for (auto _ : state) {
    Vek_status status;
    Vek_buffered_istream in(&buffer, true, status, eol);
    size_t count = 0;
    for (;;) {
      if constexpr (copy) {
        in.readln(2048, line, status);
      } else {
        std::string_view view;
        in.readln_view(2048, view, status);
      }
      if (status == vek_end_of_stream) break;
      ++count;
    }
    benchmark::DoNotOptimize(count);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * text.size());
}

BENCHMARK(BM_memchr_loop)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_readln<vek_eol_crlf, true>)->Name("BM_readln_crlf")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_readln<vek_eol_lf, true>)->Name("BM_readln_lf")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_readln<vek_eol_crlf, false>)->Name("BM_readln_view_crlf")->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
