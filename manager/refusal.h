// Why the format manager would not take an item as a message, in words and
// with the line that decided it: a diagnostic for hosts and tools, beside
// the contract. It reads the item with recognition's own functions and
// changes nothing that the manager does.
#ifndef SMTPFM_MANAGER_REFUSAL_H_
#define SMTPFM_MANAGER_REFUSAL_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "contracts/vek.h"
#include "reader/profile.h"

struct Smtp_refusal {
  bool refused = false;      // recognition does not take the bytes for a message
  std::string reason;        // why, in words
  std::string line;          // the line that decided it, without its line end, at most 200 bytes
  uint32_t line_number = 0;  // from 1; 0 when no single line decided it
};

// Recognition of `buffer` as a message header under `profile`, explained.
Smtp_refusal smtp_explain(const Vek_buffer& buffer, const Smtp_profile& profile);

// What the module's C export "smtp_explain_refusal" fills in: plain C, so
// that a host of any language can read it.
struct Smtp_refusal_text {
  char reason[512];      // NUL-terminated, cut to fit
  char line[201];        // the line's bytes (NUL among them), not terminated
  uint32_t line_length;  // bytes in `line`
  uint32_t line_number;  // from 1; 0 when no single line decided it
};

// The same for the export: fills `out` and returns 1 when refused, else 0.
int smtp_explain_into(const char* data, size_t size, int hardened, Smtp_refusal_text* out);

#endif  // SMTPFM_MANAGER_REFUSAL_H_
