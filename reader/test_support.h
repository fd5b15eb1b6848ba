// Helpers shared by the reader's tests: repeated text, and results written
// as one string so that a table row can state all of them at once.
#ifndef SMTPFM_READER_TEST_SUPPORT_H_
#define SMTPFM_READER_TEST_SUPPORT_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "reader/header_block.h"
#include "reader/test_corpus.h"

// `text`, `count` times over.
inline std::string rep(std::string_view text, int count) {
  std::string out;
  for (int i = 0; i < count; ++i) out += text;
  return out;
}

// A row of a table: its name, what goes in, what should come out, written
// as one string, and the status that should be left.
struct Row {
  const char* name;
  std::string in, want;
  uint32_t want_status = vek_ok;
};

// " @n": where a stream was left, as a part of a result string.
inline std::string at(uint64_t position) { return " @" + std::to_string(position); }

// Lines as "[first][second]".
inline std::string render(const std::vector<std::string>& lines) {
  std::string out;
  for (const std::string& line : lines) out += "[" + line + "]";
  return out;
}

// Fields or parameters as "name=value|...".
inline std::string render(const std::vector<Smtp_header_field>& fields) {
  std::string out;
  for (const Smtp_header_field& field : fields) out += field.name + "=" + field.value + "|";
  return out;
}

#endif  // SMTPFM_READER_TEST_SUPPORT_H_
