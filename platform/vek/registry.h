// What the stand-in registry offers beyond the four calls of the base
// library: where it lives, and a way for tests to make writes fail.
//
// The registry is a tree of folders: HKEY_LOCAL_MACHINE is the folder of
// that name below the root, every key a folder, and each key keeps its
// values in one text file, "values.reg", one value a line:
//   "ImagePath"=sz:/usr/lib/smtpfm/smtp.so
//   "LibraryVersion"=dword:00040000
//   @=sz:Larkspire SMTP Format Manager        (the key's default value)
// Names and keys are compared with case, unlike on Windows.
#ifndef SMTPFM_PLATFORM_VEK_REGISTRY_H_
#define SMTPFM_PLATFORM_VEK_REGISTRY_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "contracts/vek.h"

// The folder the registry lives in. By default $XDG_CONFIG_HOME/smtpfm/registry,
// or ~/.config/smtpfm/registry.
void vek_set_registry_root(const std::string& folder);
std::string vek_registry_root();

// From now on, writing a value of this name fails with
// vek_registry_failure; an empty name ends that. For tests.
void vek_registry_fail_writes_of(const Vek_wstring& value_name);

// One value of a key, as stored.
struct Vek_reg_value {
  Vek_wstring name;  // empty for the key's default value
  bool is_string;
  Vek_wstring text;  // for a string
  uint32_t number;   // for an unsigned integer
};

// The values of a key in the order they were first written; nothing when
// the key is not there.
std::optional<std::vector<Vek_reg_value>> vek_read_reg_key(Vek_reg_root root, const Vek_wstring& path);

// UTF-8 and UTF-16, for file names and the values file.
std::string vek_utf16_to_utf8(std::u16string_view text);
Vek_wstring vek_utf8_to_utf16(std::string_view text);

#endif  // SMTPFM_PLATFORM_VEK_REGISTRY_H_
