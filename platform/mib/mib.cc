// Character sets over ICU's converters (stand-in of the character set
// library). A resolved charset is an index into a process-wide table of
// ICU canonical names; 0 is US-ASCII. Converters are opened once per thread
// and charset and reused.
#include <unicode/ucnv.h>
#include <unicode/ucnv_cb.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "contracts/mib.h"

namespace {

std::mutex table_mutex;
std::vector<std::string>& charset_table() {
  static std::vector<std::string> table{"US-ASCII"};
  return table;
}

std::string canonical_name(Mib_charset charset) {
  std::lock_guard lock(table_mutex);
  auto& table = charset_table();
  return charset < table.size() ? table[charset] : std::string();
}

// Every byte sequence that is not valid in the charset becomes U+FFFD,
// whatever substitute the converter itself would choose.
void substitute_replacement_character(const void*, UConverterToUnicodeArgs* args, const char*, int32_t,
                                      UConverterCallbackReason reason, UErrorCode* error) {
  if (reason > UCNV_IRREGULAR) return;
  *error = U_ZERO_ERROR;
  static const UChar replacement = 0xFFFD;
  ucnv_cbToUWriteUChars(args, &replacement, 1, 0, error);
}

struct Converter_closer {
  void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using Converter = std::unique_ptr<UConverter, Converter_closer>;

UConverter* converter_for(Mib_charset charset) {
  thread_local std::vector<Converter> converters;
  if (charset < converters.size() && converters[charset]) return converters[charset].get();
  std::string name = canonical_name(charset);
  if (name.empty()) return nullptr;
  UErrorCode error = U_ZERO_ERROR;
  Converter converter(ucnv_open(name.c_str(), &error));
  if (U_FAILURE(error) || !converter) return nullptr;
  ucnv_setToUCallBack(converter.get(), substitute_replacement_character, nullptr, nullptr, nullptr, &error);
  if (U_FAILURE(error)) return nullptr;
  if (converters.size() <= charset) converters.resize(charset + 1);
  converters[charset] = std::move(converter);
  return converters[charset].get();
}

}  // namespace

Mib_charset mib_display_name(std::u16string_view name, Vek_status& status) {
  status.clear();
  std::string narrow;
  for (char16_t c : name) {
    if (c == 0 || c > 0x7E) {  // charset names are printable ASCII
      status = vek_bad_argument;
      return 0;
    }
    narrow += static_cast<char>(c);
  }
  UErrorCode error = U_ZERO_ERROR;
  // The first alias of a name is ICU's own name of its converter.
  const char* alias = narrow.empty() ? nullptr : ucnv_getAlias(narrow.c_str(), 0, &error);
  std::string canonical;
  if (alias != nullptr && U_SUCCESS(error)) {
    canonical = alias;
  } else {
    // Not a known alias: let ICU try its looser matching ("utf8", "UTF_8").
    // The name of an algorithmic converter ("ISCII,version=0") lives in
    // the converter, so it is copied before the probe is closed.
    error = U_ZERO_ERROR;
    Converter probe(narrow.empty() ? nullptr : ucnv_open(narrow.c_str(), &error));
    if (!probe || U_FAILURE(error)) {
      status = vek_bad_argument;
      return 0;
    }
    const char* name = ucnv_getName(probe.get(), &error);
    if (U_FAILURE(error) || name == nullptr) {
      status = vek_bad_argument;
      return 0;
    }
    canonical = name;
  }
  std::lock_guard lock(table_mutex);
  auto& table = charset_table();
  for (size_t i = 0; i < table.size(); ++i)
    if (table[i] == canonical) return static_cast<Mib_charset>(i);
  table.emplace_back(canonical);
  return static_cast<Mib_charset>(table.size() - 1);
}

bool mib_charset_to_unicode(Mib_charset charset, std::string_view bytes, Vek_wstring& text, Vek_status& status) {
  status.clear();
  UConverter* converter = converter_for(charset);
  if (converter == nullptr) {
    status = vek_bad_argument;
    return false;
  }
  ucnv_resetToUnicode(converter);
  // Two units per byte cover every charset: no byte sequence gives more.
  std::u16string out(bytes.size() * 2 + 4, u'\0');
  UChar* target = reinterpret_cast<UChar*>(out.data());
  UChar* target_start = target;
  const char* source = bytes.data();
  UErrorCode error = U_ZERO_ERROR;
  ucnv_toUnicode(converter, &target, target_start + out.size(), &source, bytes.data() + bytes.size(), nullptr, true,
                 &error);
  if (U_FAILURE(error)) {
    status = vek_bad_argument;
    return false;
  }
  out.resize(target - target_start);
  text = std::move(out);
  return true;
}
