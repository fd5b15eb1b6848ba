// Hostile inputs at two sizes, n and 10n: the time of the larger must stay
// within about ten times the smaller (linear cost), never a hundred
// (quadratic). Every timed run starts with its input out of the caches
// (see evict). The inputs are those of fuzz/hostile_test.cc, made by
// fuzz/hostile_inputs.h before the timing starts. The host benchmarks load
// smtp.so as the host does.
//
//   hostile_bench --benchmark_filter=Fields
//
// BM_LongLine's larger size is a body line of 1 GiB, which needs about
// 4 GiB of memory. Those of 1 GiB are bound by the memory's bandwidth, and
// BM_MemchrPass shows what that bandwidth alone gives at the two sizes.
#include <benchmark/benchmark.h>

#include <unistd.h>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "encoding/block_scanner.h"
#include "fuzz/hostile_inputs.h"
#include "host/host.h"
#include "reader/field_parsers.h"
#include "reader/header_block.h"
#include "reader/header_reader.h"

namespace {

// The plug-in and a manager, made once.
struct Plugin {
  Plugin() {
    options.module_path = SMTPFM_MODULE_PATH;
    std::string error;
    library = Plugin_library::load(options, error);
    if (library) manager.reset(library->create_manager(options, error));
    if (!manager) std::fprintf(stderr, "hostile_bench: %s\n", error.c_str());
  }
  Host_options options;
  std::unique_ptr<Plugin_library> library;
  Manager_ptr manager;
};

Plugin& plugin() {
  static Plugin instance;
  return instance;
}

// Blocks above this size do not stay in the cache that one core uses
// (tens of megabytes on current servers, whatever a virtual machine says
// of it), so there is nothing to put out of it.
constexpr size_t kCacheBound = size_t{64} << 20;

// Puts `size` bytes from `data` out of every cache level, so that a run
// reads them from memory as it would read a message fresh off the network:
// an input of n that stays in the cache between runs while one of 10n
// cannot would show the cache's size rather than the cost's growth. Larger
// blocks are left alone: lines flushed in advance are cheaper to read than
// those a cache full of old data must first evict, which would favour n.
void evict(const void* data, size_t size) {
  if (size > kCacheBound) return;
#if defined(__x86_64__)
  const char* bytes = static_cast<const char*>(data);
  for (size_t offset = 0; offset < size; offset += 64) _mm_clflush(bytes + offset);
  _mm_mfence();
#else
  (void)data;
  (void)size;
#endif
}

// Puts the given blocks out of the caches before a timed run, untimed.
void start_cold(benchmark::State& state, std::string_view input, std::string_view output = {}) {
  state.PauseTiming();
  evict(input.data(), input.size());
  evict(output.data(), output.size());
  state.ResumeTiming();
}

// Opens `text` through the host to the given depth, as smtpfm tree does.
void walk(benchmark::State& state, const std::string& text, uint32_t max_depth = 64) {
  Plugin& p = plugin();
  if (!p.manager) {
    state.SkipWithError("smtp.so did not load");
    return;
  }
  Host_options options = p.options;
  options.max_depth = max_depth;
  size_t items = 0;
  { Message_tree warm_up(*p.manager, Message_tree::Borrowed{}, text, options); }
  for (auto _ : state) {
    start_cold(state, text);
    Message_tree tree(*p.manager, Message_tree::Borrowed{}, text, options);
    items = 0;
    tree.for_each([&](Item_node&) { ++items; });
    benchmark::DoNotOptimize(items);
  }
  state.counters["items"] = static_cast<double>(items);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

size_t read_block(const std::string& text) {
  Vek_status status;
  Vek_raw_memory_buffer buffer(text.size(), text.data(), 0);
  Vek_buffered_istream stream(&buffer, true, status, vek_eol_crlf);
  std::vector<Smtp_header_field> fields;
  read_header_block(stream, fields, status);
  return fields.empty() ? 0 : fields.size() + fields.back().value.size();
}

void BM_ContinuationLines(benchmark::State& state) {
  const std::string text = hostile::continuation_lines(static_cast<size_t>(state.range(0)));
  benchmark::DoNotOptimize(read_block(text));  // warm-up
  for (auto _ : state) {
    start_cold(state, text);
    benchmark::DoNotOptimize(read_block(text));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_ContinuationLines)->Arg(1000000)->Arg(10000000)->Unit(benchmark::kMillisecond);

void BM_QuotedBackslashLines(benchmark::State& state) {
  const std::string text = hostile::quoted_backslash_lines(static_cast<size_t>(state.range(0)));
  benchmark::DoNotOptimize(read_block(text));  // warm-up
  for (auto _ : state) {
    start_cold(state, text);
    benchmark::DoNotOptimize(read_block(text));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_QuotedBackslashLines)->Arg(1000000)->Arg(10000000)->Unit(benchmark::kMillisecond);

// The Content-Type parser and the folding writer, which both tokenise.
void BM_NestedComments(benchmark::State& state) {
  const std::string value = hostile::nested_comments(static_cast<size_t>(state.range(0)));
  std::string type, subtype;
  std::vector<Smtp_header_field> parameters;
  Vek_status warm_up;
  parse_content_type(value, type, subtype, parameters, warm_up);
  // One output buffer for all runs (a stream writes from its start), so
  // that the pages of a fresh buffer are not what is measured.
  Vek_memory_buffer output;
  for (auto _ : state) {
    start_cold(state, value, {reinterpret_cast<const char*>(output.data()), output.size()});
    Vek_status status;
    parse_content_type(value, type, subtype, parameters, status);
    Vek_ostream out(&output, status, vek_eol_crlf);
    write_header_field(out, "Content-Type", value, true, status);
    benchmark::DoNotOptimize(output.size());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * value.size()));
}
BENCHMARK(BM_NestedComments)->Arg(1000000)->Arg(10000000)->Unit(benchmark::kMillisecond);

void BM_ManyFields(benchmark::State& state) {
  const std::string text = hostile::many_fields(static_cast<size_t>(state.range(0)));
  benchmark::DoNotOptimize(read_block(text));  // warm-up
  for (auto _ : state) {
    start_cold(state, text);
    benchmark::DoNotOptimize(read_block(text));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_ManyFields)->Arg(1000000)->Arg(10000000)->Unit(benchmark::kMillisecond);

void BM_ManyFieldsHost(benchmark::State& state) {
  walk(state, hostile::many_fields(static_cast<size_t>(state.range(0))));
}
BENCHMARK(BM_ManyFieldsHost)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

void BM_UuencodeFrames(benchmark::State& state) {
  const std::string body = hostile::uuencode_frames(static_cast<size_t>(state.range(0)));
  for (bool warm_up = true; warm_up; warm_up = false) {
    Vek_status status;
    Vek_raw_memory_buffer buffer(body.size(), body.data(), 0);
    Vek_buffered_istream stream(&buffer, true, status, vek_eol_crlf);
    Smtp_block_scanner scanner;
    benchmark::DoNotOptimize(scanner.scan(stream));
  }
  for (auto _ : state) {
    start_cold(state, body);
    Vek_status status;
    Vek_raw_memory_buffer buffer(body.size(), body.data(), 0);
    Vek_buffered_istream stream(&buffer, true, status, vek_eol_crlf);
    Smtp_block_scanner scanner;
    benchmark::DoNotOptimize(scanner.scan(stream));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * body.size()));
}
BENCHMARK(BM_UuencodeFrames)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

void BM_UuencodeFramesHost(benchmark::State& state) {
  walk(state, hostile::uuencode_message(static_cast<size_t>(state.range(0))));
}
BENCHMARK(BM_UuencodeFramesHost)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

// The MIME handler cuts the entity into its parts; the parts themselves
// are listed, not opened (a million handlers would measure the host).
void BM_EmptyParts(benchmark::State& state) {
  walk(state, hostile::empty_parts(static_cast<size_t>(state.range(0))), 0);
}
BENCHMARK(BM_EmptyParts)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

// The same, every part opened.
void BM_EmptyPartsOpened(benchmark::State& state) {
  walk(state, hostile::empty_parts(static_cast<size_t>(state.range(0))));
}
BENCHMARK(BM_EmptyPartsOpened)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_LongLine(benchmark::State& state) {
  walk(state, hostile::long_line(static_cast<size_t>(state.range(0)), "7bit"));
}
BENCHMARK(BM_LongLine)->Arg((int64_t{1} << 30) / 10)->Arg(int64_t{1} << 30)->Unit(benchmark::kMillisecond);

void BM_LongHeaderLine(benchmark::State& state) {
  walk(state, hostile::long_header_line(static_cast<size_t>(state.range(0))));
}
BENCHMARK(BM_LongHeaderLine)->Arg((int64_t{1} << 30) / 10)->Arg(int64_t{1} << 30)->Unit(benchmark::kMillisecond);

// The floor for the two benchmarks above: one memchr pass over the same
// number of bytes, which is what reading a line of that length costs at
// the least. Where it grows by more than ten times from n to 10n, that is
// the machine's memory, not the plug-in.
void BM_MemchrPass(benchmark::State& state) {
  const std::string text(static_cast<size_t>(state.range(0)), 'a');
  for (auto _ : state) {
    start_cold(state, text);
    benchmark::DoNotOptimize(std::memchr(text.data(), '\n', text.size()));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_MemchrPass)->Arg((int64_t{1} << 30) / 10)->Arg(int64_t{1} << 30)->Unit(benchmark::kMillisecond);

// The host stops at its depth bound; what is below it is passed over.
void BM_NestedMessages(benchmark::State& state) {
  walk(state, hostile::nested_messages(static_cast<size_t>(state.range(0))));
}
BENCHMARK(BM_NestedMessages)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_NestedMultiparts(benchmark::State& state) {
  walk(state, hostile::nested_multiparts(static_cast<size_t>(state.range(0))));
}
BENCHMARK(BM_NestedMultiparts)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace

// The growth of the cost is what is measured, and on a virtual machine a
// page fault costs several nanoseconds a byte: an input of 10n whose
// blocks go back to the kernel after every run, where those of n stay in
// the heap, would show that cliff instead of the algorithm. So every
// benchmark runs once untimed, the program runs itself again with glibc
// told to take all memory from its heap and keep what is freed (unless the
// caller chose the heap's tunables already), and each size runs for at
// least two seconds, so that the larger ones are not judged by one run.
// The heap also asks for huge pages: with 4 KiB pages a heap of 10n
// outgrows what the address translation caches cover where one of n does
// not, and those misses would again show the machine, not the algorithm.
int main(int argc, char** argv) {
  if (std::getenv("GLIBC_TUNABLES") == nullptr) {
    setenv("GLIBC_TUNABLES", "glibc.malloc.mmap_max=0:glibc.malloc.trim_threshold=17179869184:glibc.malloc.hugetlb=1", 1);
    execv("/proc/self/exe", argv);  // on failure, go on as we are
  }
  std::vector<char*> args(argv, argv + argc);
  std::string min_time = "--benchmark_min_time=2";
  bool chosen = false;
  for (char* arg : args) chosen = chosen || std::string_view(arg).starts_with("--benchmark_min_time");
  if (!chosen) args.push_back(min_time.data());
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  argc = count;
  argv = args.data();
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
