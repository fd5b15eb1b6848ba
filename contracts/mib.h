// Character sets (mib.dll on Windows, platform/mib over ICU here).
#ifndef SMTPFM_CONTRACTS_MIB_H_
#define SMTPFM_CONTRACTS_MIB_H_

#include <cstdint>
#include <string_view>

#include "contracts/vek.h"

// A resolved character set; 0 stands for ASCII.
using Mib_charset = uint32_t;

// Resolves a charset name or alias (any case). An unknown name fails the
// status (vek_bad_argument) and gives 0.
Mib_charset mib_display_name(std::u16string_view name, Vek_status& status);

// Replaces `text` by the UTF-16 form of `bytes` in `charset`. Bytes that are
// not valid in the charset become U+FFFD. Returns false, with a failed
// status, for a charset that was never resolved.
bool mib_charset_to_unicode(Mib_charset charset, std::string_view bytes, Vek_wstring& text, Vek_status& status);

#endif  // SMTPFM_CONTRACTS_MIB_H_
