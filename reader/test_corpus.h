// Test helpers of the reader: in-memory streams over text, and the shared
// corpus of real messages (read-only files beside the source tree, found
// through SMTPFM_SOURCE_DIR or, run by hand, relative to this file).
#ifndef SMTPFM_READER_TEST_CORPUS_H_
#define SMTPFM_READER_TEST_CORPUS_H_

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "contracts/vek.h"

// A CR LF stream over a copy of `text`.
struct Text_stream {
  explicit Text_stream(std::string_view source)
      : text(source), buffer(text.size(), text.data(), 0), stream(&buffer, true, status, vek_eol_crlf) {}
  std::string text;
  Vek_raw_memory_buffer buffer;
  Vek_status status;
  Vek_buffered_istream stream;
};

// A CR LF output stream and what it holds.
struct Text_output {
  Text_output() : stream(&buffer, status, vek_eol_crlf) {}
  std::string text() const {
    return std::string(reinterpret_cast<const char*>(buffer.data()), buffer.size());
  }
  Vek_memory_buffer buffer;
  Vek_status status;
  Vek_ostream stream;
};

// Lone LF line ends become CR LF, as a host hands mail over.
inline std::string to_crlf(std::string_view text) {
  std::string out;
  out.reserve(text.size() + text.size() / 16);
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) out.push_back('\r');
    out.push_back(text[i]);
  }
  return out;
}

inline std::string corpus_dir() {
  if (const char* source = std::getenv("SMTPFM_SOURCE_DIR")) return std::string(source) + "/../shared/corpus";
  const std::string file = __FILE__;
  return file.substr(0, file.rfind('/')) + "/../../shared/corpus";
}

struct Corpus_message {
  std::string name;  // path below the corpus folder
  std::string text;  // with CR LF line ends
};

// Every message of the corpus, in path order; empty if there is no corpus.
inline std::vector<Corpus_message> load_corpus() {
  std::vector<Corpus_message> messages;
  const std::filesystem::path root = corpus_dir();
  std::error_code error;
  for (auto it = std::filesystem::recursive_directory_iterator(root, error);
       !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
    const std::string extension = it->path().extension().string();
    if (!it->is_regular_file() || (extension != ".txt" && extension != ".msg")) continue;
    std::ifstream in(it->path(), std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    messages.push_back({std::filesystem::relative(it->path(), root).string(), to_crlf(bytes.str())});
  }
  std::sort(messages.begin(), messages.end(),
            [](const Corpus_message& a, const Corpus_message& b) { return a.name < b.name; });
  return messages;
}

#endif  // SMTPFM_READER_TEST_CORPUS_H_
