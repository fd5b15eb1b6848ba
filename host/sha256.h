// SHA-256 (FIPS 180-4) of a byte string, for the manifest of extract: a
// reader checks a file it got against the hash that was written beside it.
#ifndef SMTPFM_HOST_SHA256_H_
#define SMTPFM_HOST_SHA256_H_

#include <string>
#include <string_view>

// The digest as 64 lower-case hex digits.
std::string sha256_hex(std::string_view bytes);

#endif  // SMTPFM_HOST_SHA256_H_
