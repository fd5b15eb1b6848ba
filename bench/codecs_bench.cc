// The body codecs and the multipart walkers over 64 MiB each, beside a bare
// memchr loop (one call per line, as a line reader must make) and a memcpy
// over the same bytes: the floor that any line-by-line pass has to pay.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <string>

#include "codecs/base64.h"
#include "codecs/quoted_printable.h"
#include "contracts/vek.h"
#include "reader/part_walker.h"

namespace {

constexpr size_t data_size = size_t{64} << 20;

// Runs `codec` from `text` onto an output buffer that is kept, so that its
// growth is paid only once.
template <typename Codec>
std::string run_codec(const std::string& text, Codec codec) {
  Vek_status status;
  Vek_raw_memory_buffer input(text.size(), text.data(), 0);
  Vek_buffered_istream in(&input, true, status, vek_eol_crlf);
  Vek_memory_buffer output;
  Vek_ostream out(&output, status, vek_eol_crlf);
  codec(in, out, status);
  return std::string(reinterpret_cast<const char*>(output.data()), output.size());
}

// Random bytes.
const std::string& binary() {
  static const std::string data = [] {
    std::mt19937_64 random(64);
    std::string bytes(data_size, '\0');
    for (size_t i = 0; i + 8 <= bytes.size(); i += 8) {
      const uint64_t r = random();
      std::memcpy(&bytes[i], &r, 8);
    }
    return bytes;
  }();
  return data;
}

// Mail text: lines of 60 to 90 bytes of words, with CR LF, a few 8-bit
// bytes and "=" here and there, as in a European language.
const std::string& text() {
  static const std::string data = [] {
    std::mt19937 random(1521);
    std::string all;
    all.reserve(data_size + 128);
    std::string line;
    while (all.size() < data_size) {
      line.clear();
      const size_t length = 60 + random() % 31;
      while (line.size() < length) {
        const uint32_t r = random() % 64;
        line += r < 10 ? ' ' : r == 10 ? '\xe9' : r == 11 ? '=' : static_cast<char>('a' + r % 26);
      }
      all += line;
      all += "\r\n";
    }
    all.resize(data_size);
    return all;
  }();
  return data;
}

// 64 MiB of Base64 in lines of 76 characters.
const std::string& base64_text() {
  static const std::string data = [] {
    std::string source = binary().substr(0, data_size / 78 * 57);
    return run_codec(source, [&](Vek_istream& in, Vek_ostream& out, Vek_status& status) {
      encode_base64(in, out, source.size(), status);
    });
  }();
  return data;
}

// 64 MiB of quoted-printable.
const std::string& qp_text() {
  static const std::string data = [] {
    std::string encoded = run_codec(text(), encode_quoted_printable);
    encoded.resize(data_size);
    const size_t last_line = encoded.rfind("\r\n");
    encoded.resize(last_line + 2);  // no escape cut in half at the end
    return encoded;
  }();
  return data;
}

const Smtp_boundary boundary("----=_Part_0_1234567890.1700000000000");

// A multipart body: parts of 500 text lines, each behind a delimiter line.
const std::string& multipart() {
  static const std::string data = [] {
    const std::string& lines = text();
    std::string all;
    all.reserve(data_size + 4096);
    size_t at = 0;
    while (at < lines.size()) {
      all += "--" + boundary.text() + "\r\nContent-Type: text/plain\r\n\r\n";
      size_t end = at;
      for (int i = 0; i < 500 && end < lines.size(); ++i) end = lines.find("\r\n", end) + 2;
      if (end < at || end > lines.size()) end = lines.size();
      all.append(lines, at, end - at);
      at = end;
    }
    all += "--" + boundary.text() + "--\r\n";
    return all;
  }();
  return data;
}

void set_bytes(benchmark::State& state, const std::string& data) {
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(data.size()));
}

void memchr_loop(benchmark::State& state, const std::string& data) {
  for (auto _ : state) {
    size_t count = 0;
    const char* at = data.data();
    const char* end = at + data.size();
    while (const void* lf = std::memchr(at, '\n', end - at)) {
      ++count;
      at = static_cast<const char*>(lf) + 1;
    }
    benchmark::DoNotOptimize(count);
  }
  set_bytes(state, data);
}

void memcpy_all(benchmark::State& state, const std::string& data) {
  std::string copy(data.size(), '\0');
  for (auto _ : state) {
    std::memcpy(copy.data(), data.data(), data.size());
    benchmark::ClobberMemory();
  }
  set_bytes(state, data);
}

// Runs `codec` over `data` in each iteration, onto an output buffer kept
// across iterations.
template <typename Codec>
void codec_loop(benchmark::State& state, const std::string& data, Codec codec) {
  Vek_raw_memory_buffer input(data.size(), data.data(), 0);
  Vek_memory_buffer output;
  for (auto _ : state) {
    Vek_status status;
    Vek_buffered_istream in(&input, true, status, vek_eol_crlf);
    Vek_ostream out(&output, status, vek_eol_crlf);
    codec(in, out, status);
    if (!status.ok()) state.SkipWithError("codec failed");
  }
  set_bytes(state, data);
}

void BM_base64_memchr(benchmark::State& state) { memchr_loop(state, base64_text()); }
void BM_base64_memcpy(benchmark::State& state) { memcpy_all(state, base64_text()); }
void BM_decode_base64(benchmark::State& state) {
  codec_loop(state, base64_text(), [](Vek_istream& in, Vek_ostream& out, Vek_status& status) {
    decode_base64(in, out, 0, base64_text().size(), status);
  });
}

void BM_binary_memchr(benchmark::State& state) { memchr_loop(state, binary()); }
void BM_binary_memcpy(benchmark::State& state) { memcpy_all(state, binary()); }
void BM_encode_base64(benchmark::State& state) {
  codec_loop(state, binary(), [](Vek_istream& in, Vek_ostream& out, Vek_status& status) {
    encode_base64(in, out, binary().size(), status);
  });
}

void BM_qp_memchr(benchmark::State& state) { memchr_loop(state, qp_text()); }
void BM_qp_memcpy(benchmark::State& state) { memcpy_all(state, qp_text()); }
void BM_decode_quoted_printable(benchmark::State& state) {
  codec_loop(state, qp_text(), [](Vek_istream& in, Vek_ostream& out, Vek_status& status) {
    decode_quoted_printable(in, out, 0, qp_text().size(), status);
  });
}

void BM_text_memchr(benchmark::State& state) { memchr_loop(state, text()); }
void BM_text_memcpy(benchmark::State& state) { memcpy_all(state, text()); }
void BM_encode_quoted_printable(benchmark::State& state) {
  codec_loop(state, text(), encode_quoted_printable);
}

void BM_multipart_memchr(benchmark::State& state) { memchr_loop(state, multipart()); }
void BM_multipart_memcpy(benchmark::State& state) { memcpy_all(state, multipart()); }
void BM_find_part_delimiter(benchmark::State& state) {
  codec_loop(state, multipart(), [](Vek_istream& in, Vek_ostream&, Vek_status& status) {
    bool end = false, found = false;
    size_t parts = 0;
    do {
      find_part_delimiter(in, boundary, end, found, status);
      parts += found;
    } while (!end && status.ok());
    benchmark::DoNotOptimize(parts);
  });
}
void BM_copy_to_part_delimiter(benchmark::State& state) {
  // Each part is copied, then its delimiter line is read past.
  codec_loop(state, multipart(), [](Vek_istream& in, Vek_ostream& out, Vek_status& status) {
    bool end = false, found = false;
    do {
      copy_to_part_delimiter(in, out, boundary, status);
      if (status.ok()) find_part_delimiter(in, boundary, end, found, status);
    } while (!end && status.ok());
  });
}

}  // namespace

BENCHMARK(BM_base64_memchr)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_base64_memcpy)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_decode_base64)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_binary_memchr)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_binary_memcpy)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_encode_base64)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_qp_memchr)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_qp_memcpy)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_decode_quoted_printable)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_text_memchr)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_text_memcpy)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_encode_quoted_printable)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_multipart_memchr)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_multipart_memcpy)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_find_part_delimiter)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_copy_to_part_delimiter)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
