// The header readers over the headers of real messages, and the tokeniser
// and Content-Type parser over real Content-Type values, each beside a bare
// memchr loop over the same bytes (one call per line or per value): the
// floor of any pass that looks at every line. The line reads alone and the
// raw reader without copies show where the time of the block reader goes.
//
// The messages come from the folder given as --corpus=PATH, or the shared
// corpus at $SMTPFM_SOURCE_DIR/../shared/corpus (beside the source tree when
// the variable is not set); without one, a generated header stands in.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "contracts/vek.h"
#include "reader/field_parsers.h"
#include "reader/header_block.h"
#include "reader/header_reader.h"
#include "reader/tokeniser.h"

namespace {

std::string corpus_path;

std::string to_crlf(const std::string& text) {
  std::string out;
  out.reserve(text.size() + text.size() / 16);
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) out.push_back('\r');
    out.push_back(text[i]);
  }
  return out;
}

std::vector<std::string> corpus_messages() {
  std::string root = corpus_path;
  if (root.empty()) {
    const char* source = std::getenv("SMTPFM_SOURCE_DIR");
    if (source != nullptr) {
      root = std::string(source) + "/../shared/corpus";
    } else {
      const std::string file = __FILE__;  // <source>/bench/reader_bench.cc
      root = file.substr(0, file.rfind('/')) + "/../../shared/corpus";
    }
  }
  std::vector<std::string> messages;
  std::error_code error;
  for (auto it = std::filesystem::recursive_directory_iterator(root, error);
       !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
    const std::string extension = it->path().extension().string();
    if (!it->is_regular_file() || (extension != ".txt" && extension != ".msg")) continue;
    std::ifstream in(it->path(), std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    messages.push_back(to_crlf(bytes.str()));
  }
  return messages;
}

std::string generated_header() {
  return "Return-Path: <sender@example.org>\r\n"
         "Received: from mail.example.org (mail.example.org [192.0.2.1])\r\n"
         "\tby mx.example.com with ESMTP id 12345\r\n"
         "\tfor <rcpt@example.com>; Mon, 1 Jan 2001 00:00:00 +0000\r\n"
         "Message-ID: <20010101000000.12345@example.org>\r\n"
         "Date: Mon, 1 Jan 2001 00:00:00 +0000\r\n"
         "From: Sender Name <sender@example.org>\r\n"
         "To: Recipient <rcpt@example.com>\r\n"
         "Subject: A message of the usual shape\r\n"
         "MIME-Version: 1.0\r\n"
         "Content-Type: multipart/mixed; boundary=\"----=_NextPart_000_0001_01C0.12345678\"\r\n"
         "X-Mailer: Some Mailer 1.0\r\n"
         "\r\n";
}

// The headers of the messages, each with its blank line, back to back; only
// those that the block reader takes whole, so that every pass reads the same.
const std::string& headers() {
  static const std::string all = [] {
    std::string blob;
    for (const std::string& message : corpus_messages()) {
      const size_t end = message.find("\r\n\r\n");
      if (end == std::string::npos) continue;
      const std::string header = message.substr(0, end + 4);
      Vek_status status;
      Vek_raw_memory_buffer buffer(header.size(), header.data(), 0);
      Vek_buffered_istream in(&buffer, true, status, vek_eol_crlf);
      std::vector<Smtp_header_field> fields;
      if (read_header_block(in, fields, status) && status.ok() && in.tell() == end + 2) blob += header;
    }
    if (blob.empty()) {
      for (int i = 0; i < 100; ++i) blob += generated_header();
    }
    return blob;
  }();
  return all;
}

// The unfolded Content-Type values of those headers.
const std::vector<std::string>& content_types() {
  static const std::vector<std::string> values = [] {
    const std::string& text = headers();
    Vek_status status;
    Vek_raw_memory_buffer buffer(text.size(), text.data(), 0);
    Vek_buffered_istream in(&buffer, true, status, vek_eol_crlf);
    std::vector<std::string> found;
    std::vector<Smtp_header_field> fields;
    while (in.tell() < text.size()) {
      fields.clear();
      read_header_block(in, fields, status);
      if (!skip_blank_line(in)) break;
      for (const Smtp_header_field& field : fields) {
        if (vek_string_equal_nc(field.name, "Content-Type")) found.push_back(field.value);
      }
    }
    return found;
  }();
  return values;
}

void BM_memchr_header_lines(benchmark::State& state) {
  const std::string& text = headers();
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
BENCHMARK(BM_memchr_header_lines);

// The line reads alone that the header reader makes: one readln_view per
// line, over the same bytes.
void BM_readln_view_header_lines(benchmark::State& state) {
  const std::string& text = headers();
  Vek_status status;
  Vek_raw_memory_buffer buffer(text.size(), text.data(), 0);
  Vek_buffered_istream in(&buffer, true, status, vek_eol_crlf);
  std::string_view line;
  for (auto _ : state) {
    in.seek(0);
    size_t count = 0;
    for (in.readln_view(smtp_max_header_line, line, status); status.ok();
         in.readln_view(smtp_max_header_line, line, status)) {
      ++count;
    }
    benchmark::DoNotOptimize(count);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * text.size());
}
BENCHMARK(BM_readln_view_header_lines);
// The raw reader alone: every field as views of the buffer, no copies.
void BM_read_header_fields(benchmark::State& state) {
  const std::string& text = headers();
  Vek_status status;
  Vek_raw_memory_buffer buffer(text.size(), text.data(), 0);
  Vek_buffered_istream in(&buffer, true, status, vek_eol_crlf);
  Smtp_raw_field_view field;
  Smtp_line_lookahead lookahead;
  for (auto _ : state) {
    in.seek(0);
    size_t count = 0;
    while (in.tell() < text.size()) {
      while (read_header_field(in, smtp_max_header_line, field, lookahead, status) && status.ok()) ++count;
      if (!skip_blank_line(in)) break;
    }
    benchmark::DoNotOptimize(count);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * text.size());
}
BENCHMARK(BM_read_header_fields);

// Reads every header with read_header_block and its blank line.
template <bool recognition>
void BM_read_header_block(benchmark::State& state) {
  const std::string& text = headers();
  Vek_status status;
  Vek_raw_memory_buffer buffer(text.size(), text.data(), 0);
  Vek_buffered_istream in(&buffer, true, status, vek_eol_crlf);
  std::vector<Smtp_header_field> fields;
  std::vector<std::string> names;
  // Recognition keeps five fields and collects every name.
  Smtp_field_filter filter = [](std::string_view name) {
    return vek_string_equal_nc(name, "Content-Type") || vek_string_equal_nc(name, "MIME-Version") ||
           vek_string_equal_nc(name, "Subject") || vek_string_equal_nc(name, "Date") ||
           vek_string_equal_nc(name, "Encoding");
  };
  size_t headers_read = 0;
  for (auto _ : state) {
    in.seek(0);
    while (in.tell() < text.size()) {
      fields.clear();
      names.clear();
      const bool ok = recognition ? read_header_block(in, fields, status, filter, &names) &&
                                        looks_like_message_header(names)
                                  : read_header_block(in, fields, status);
      benchmark::DoNotOptimize(ok);
      if (!skip_blank_line(in)) break;
      ++headers_read;
    }
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * text.size());
  state.counters["headers"] = benchmark::Counter(double(headers_read), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_read_header_block<false>)->Name("BM_read_header_block");
BENCHMARK(BM_read_header_block<true>)->Name("BM_read_header_block_recognition");

size_t total_size(const std::vector<std::string>& values) {
  size_t size = 0;
  for (const std::string& value : values) size += value.size();
  return size;
}

void BM_memchr_content_types(benchmark::State& state) {
  const std::vector<std::string>& values = content_types();
  for (auto _ : state) {
    size_t count = 0;
    for (const std::string& value : values) {
      const char* at = value.data();
      const char* end = at + value.size();
      while (const void* semicolon = std::memchr(at, ';', end - at)) {
        ++count;
        at = static_cast<const char*>(semicolon) + 1;
      }
    }
    benchmark::DoNotOptimize(count);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * total_size(values));
}
BENCHMARK(BM_memchr_content_types);

void BM_tokenise_content_types(benchmark::State& state) {
  const std::vector<std::string>& values = content_types();
  Smtp_token_list tokens;
  Vek_status status;
  for (auto _ : state) {
    for (const std::string& value : values) {
      tokenise_field(value, false, false, tokens, status);
      benchmark::DoNotOptimize(tokens.count());
    }
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * total_size(values));
  state.counters["values"] = double(values.size());
}
BENCHMARK(BM_tokenise_content_types);

void BM_parse_content_types(benchmark::State& state) {
  const std::vector<std::string>& values = content_types();
  std::string type, subtype;
  std::vector<Smtp_header_field> parameters;
  Vek_status status;
  for (auto _ : state) {
    for (const std::string& value : values) {
      parse_content_type(value, type, subtype, parameters, status);
      benchmark::DoNotOptimize(parameters.size());
    }
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * total_size(values));
}
BENCHMARK(BM_parse_content_types);

}  // namespace

int main(int argc, char** argv) {
  // Takes --corpus=PATH out of the arguments before the library sees them.
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument.rfind("--corpus=", 0) == 0) {
      corpus_path = argument.substr(9);
    } else {
      argv[kept++] = argv[i];
    }
  }
  argc = kept;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::fprintf(stderr, "%zu bytes of headers, %zu Content-Type values\n", headers().size(),
               content_types().size());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
