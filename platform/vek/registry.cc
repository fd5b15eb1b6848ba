// The registry stand-in: keys are folders, values live in a text file per
// key. Writes go to a temporary file that is renamed over the old one, so a
// reader never sees half a file.
#include "platform/vek/registry.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>

namespace fs = std::filesystem;

namespace {

std::mutex registry_mutex;
std::string registry_root;
Vek_wstring failing_value;

constexpr char values_file[] = "values.reg";

std::string default_root() {
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg != nullptr && *xdg != '\0')
    return std::string(xdg) + "/smtpfm/registry";
  if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0')
    return std::string(home) + "/.config/smtpfm/registry";
  return ".smtpfm-registry";
}

const char* root_name(Vek_reg_root root) { return root == HKEY_LOCAL_MACHINE ? "HKEY_LOCAL_MACHINE" : "HKEY_OTHER"; }

// Appends a backslash-separated key path to a folder; empty elements (a
// doubled or trailing backslash) are skipped, and "." or ".." never leave
// the registry's folder.
void append_key_path(fs::path& folder, std::u16string_view key) {
  size_t start = 0;
  while (start <= key.size()) {
    size_t end = key.find(u'\\', start);
    if (end == std::u16string_view::npos) end = key.size();
    std::string element = vek_utf16_to_utf8(key.substr(start, end - start));
    if (element == "." || element == "..") element = "%" + element;
    for (auto& c : element)
      if (c == '/') c = '%';
    if (!element.empty()) folder /= element;
    start = end + 1;
  }
}

fs::path key_folder(Vek_reg_root root, std::u16string_view path, std::u16string_view subkey) {
  std::lock_guard lock(registry_mutex);
  fs::path folder = registry_root.empty() ? default_root() : registry_root;
  folder /= root_name(root);
  append_key_path(folder, path);
  append_key_path(folder, subkey);
  return folder;
}

std::string escape(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (c == '\\' || c == '"')
      out += '\\', out += c;
    else if (c == '\n')
      out += "\\n";
    else if (c == '\r')
      out += "\\r";
    else
      out += c;
  }
  return out;
}

std::string unescape(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '\\' && i + 1 < text.size()) {
      char n = text[++i];
      out += n == 'n' ? '\n' : n == 'r' ? '\r' : n;
    } else {
      out += c;
    }
  }
  return out;
}

std::vector<Vek_reg_value> read_values(const fs::path& folder) {
  std::vector<Vek_reg_value> values;
  std::ifstream in(folder / values_file, std::ios::binary);
  std::string line;
  while (std::getline(in, line)) {
    Vek_reg_value value{};
    size_t eq;
    if (line.rfind("@=", 0) == 0) {
      eq = 1;
    } else if (!line.empty() && line[0] == '"') {
      size_t i = 1;
      while (i < line.size() && line[i] != '"') i += line[i] == '\\' ? 2 : 1;
      if (i >= line.size()) continue;
      value.name = vek_utf8_to_utf16(unescape(std::string_view(line).substr(1, i - 1)));
      eq = i + 1;
    } else {
      continue;
    }
    if (eq >= line.size() || line[eq] != '=') continue;
    std::string_view rest = std::string_view(line).substr(eq + 1);
    if (rest.rfind("sz:", 0) == 0) {
      value.is_string = true;
      value.text = vek_utf8_to_utf16(unescape(rest.substr(3)));
    } else if (rest.rfind("dword:", 0) == 0) {
      value.is_string = false;
      value.number = static_cast<uint32_t>(std::strtoul(std::string(rest.substr(6)).c_str(), nullptr, 16));
    } else {
      continue;
    }
    values.push_back(std::move(value));
  }
  return values;
}

bool write_values(const fs::path& folder, const std::vector<Vek_reg_value>& values) {
  std::ostringstream out;
  for (const auto& value : values) {
    if (value.name.empty())
      out << '@';
    else
      out << '"' << escape(vek_utf16_to_utf8(value.name)) << '"';
    if (value.is_string) {
      out << "=sz:" << escape(vek_utf16_to_utf8(value.text)) << '\n';
    } else {
      char hex[16];
      std::snprintf(hex, sizeof hex, "%08x", value.number);
      out << "=dword:" << hex << '\n';
    }
  }
  fs::path target = folder / values_file;
  fs::path temporary = folder / (std::string(values_file) + ".tmp");
  {
    std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
    if (!file) return false;
    file << out.str();
    if (!file.flush()) return false;
  }
  std::error_code error;
  fs::rename(temporary, target, error);
  return !error;
}

void set_value(Vek_reg_root root, std::u16string_view path, std::u16string_view subkey, Vek_reg_value value,
               Vek_status& status) {
  status.clear();
  {
    std::lock_guard lock(registry_mutex);
    if (!failing_value.empty() && failing_value == value.name) {
      status = vek_registry_failure;
      return;
    }
  }
  fs::path folder = key_folder(root, path, subkey);
  std::error_code error;
  fs::create_directories(folder, error);
  if (error) {
    status = vek_registry_failure;
    return;
  }
  std::vector<Vek_reg_value> values = read_values(folder);
  bool replaced = false;
  for (auto& old : values) {
    if (old.name == value.name) {
      old = value;
      replaced = true;
    }
  }
  if (!replaced) values.push_back(std::move(value));
  if (!write_values(folder, values)) status = vek_registry_failure;
}

}  // namespace

void vek_set_registry_root(const std::string& folder) {
  std::lock_guard lock(registry_mutex);
  registry_root = folder;
}

std::string vek_registry_root() {
  std::lock_guard lock(registry_mutex);
  return registry_root.empty() ? default_root() : registry_root;
}

void vek_registry_fail_writes_of(const Vek_wstring& value_name) {
  std::lock_guard lock(registry_mutex);
  failing_value = value_name;
}

void vek_set_reg_string_value(Vek_reg_root root, std::u16string_view path, std::u16string_view subkey,
                              std::u16string_view value_name, std::u16string_view value, Vek_status& status) {
  set_value(root, path, subkey, Vek_reg_value{Vek_wstring(value_name), true, Vek_wstring(value), 0}, status);
}

void vek_set_reg_uint_value(Vek_reg_root root, std::u16string_view path, std::u16string_view subkey,
                            std::u16string_view value_name, uint32_t value, Vek_status& status) {
  set_value(root, path, subkey, Vek_reg_value{Vek_wstring(value_name), false, {}, value}, status);
}

// Removing a key that is not there succeeds: deregistration is then
// idempotent, so an uninstaller that runs twice, or after a half-finished
// install, reports success rather than an error nobody can act on.
void vek_remove_reg_key(Vek_reg_root root, std::u16string_view path, std::u16string_view subkey,
                        std::u16string_view key, Vek_status& status) {
  status.clear();
  if (key.empty()) {  // never the parent itself
    status = vek_bad_argument;
    return;
  }
  fs::path folder = key_folder(root, path, subkey);
  append_key_path(folder, key);
  std::error_code error;
  fs::remove_all(folder, error);
  if (error) status = vek_registry_failure;
}

void vek_enum_reg_keys(Vek_reg_root root, std::u16string_view path, std::u16string_view subkey,
                       Vek_ptrvec_impl& names, Vek_status& status) {
  status.clear();
  fs::path folder = key_folder(root, path, subkey);
  std::error_code error;
  if (!fs::is_directory(folder, error)) return;
  std::vector<std::string> found;
  for (const auto& entry : fs::directory_iterator(folder, error))
    if (entry.is_directory()) found.push_back(entry.path().filename().string());
  if (error) {
    status = vek_registry_failure;
    return;
  }
  std::sort(found.begin(), found.end());
  for (const auto& name : found) names.push_back(new Vek_wstring(vek_utf8_to_utf16(name)));
}

std::optional<std::vector<Vek_reg_value>> vek_read_reg_key(Vek_reg_root root, const Vek_wstring& path) {
  fs::path folder = key_folder(root, path, u"");
  std::error_code error;
  if (!fs::is_directory(folder, error)) return std::nullopt;
  return read_values(folder);
}

std::string vek_utf16_to_utf8(std::u16string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    uint32_t c = text[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = 0xFFFD;  // a lone surrogate
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

Vek_wstring vek_utf8_to_utf16(std::string_view text) {
  Vek_wstring out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    unsigned char b = text[i];
    uint32_t c;
    size_t n;
    if (b < 0x80) {
      c = b, n = 1;
    } else if ((b & 0xE0) == 0xC0) {
      c = b & 0x1F, n = 2;
    } else if ((b & 0xF0) == 0xE0) {
      c = b & 0x0F, n = 3;
    } else if ((b & 0xF8) == 0xF0) {
      c = b & 0x07, n = 4;
    } else {
      out += u'\xFFFD';
      ++i;
      continue;
    }
    if (i + n > text.size()) {
      out += u'\xFFFD';
      break;
    }
    bool good = true;
    for (size_t k = 1; k < n; ++k) {
      unsigned char t = text[i + k];
      if ((t & 0xC0) != 0x80) good = false;
      c = (c << 6) | (t & 0x3F);
    }
    if (!good) {
      out += u'\xFFFD';
      ++i;
      continue;
    }
    i += n;
    if (c >= 0x10000) {
      c -= 0x10000;
      out += static_cast<char16_t>(0xD800 + (c >> 10));
      out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    } else {
      out += static_cast<char16_t>(c);
    }
  }
  return out;
}
