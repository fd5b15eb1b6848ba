// The names of the plug-in's log codes and status codes, for people: the
// tree, the JSON documents and the README's table print them beside the
// numbers.
#ifndef SMTPFM_HOST_LOG_CODES_H_
#define SMTPFM_HOST_LOG_CODES_H_

#include <cstdint>
#include <string>

// The codes the plug-in logs on an item (contracts/fmg_item.h).
inline constexpr uint32_t log_taken = 32;        // a format manager took the item
inline constexpr uint32_t log_step_failed = 33;  // a step of opening failed; the status says which
inline constexpr uint32_t log_signed = 35;       // an S/MIME or PGP signed entity
inline constexpr uint32_t log_encrypted = 36;    // an encrypted entity, not opened

// "taken", "a step failed", "signed", "encrypted"; null for a code the
// plug-in does not write.
const char* log_code_name(uint32_t code);
// The meaning of a status code ("bad Content-Type"), or null.
const char* status_name(uint32_t status);
// A log entry in words: "33 a step failed (0xc2010509 bad Content-Type)";
// the status only where it is not 0.
std::string log_entry_text(uint32_t code, uint32_t status);

#endif  // SMTPFM_HOST_LOG_CODES_H_
