#include "platform/vek/win32.h"

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <climits>
#include <string>

#include "platform/vek/registry.h"

uint32_t GetModuleFileNameW(void* module, char16_t* buffer, uint32_t size) {
  if (buffer == nullptr || size == 0) return 0;
  std::string path;
  if (module == nullptr) {
    char own[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", own, sizeof own);
    if (n <= 0) return 0;
    path.assign(own, n);
  } else {
    link_map* map = nullptr;
    if (dlinfo(module, RTLD_DI_LINKMAP, &map) != 0 || map == nullptr || map->l_name == nullptr) return 0;
    char resolved[PATH_MAX];
    path = realpath(map->l_name, resolved) != nullptr ? resolved : map->l_name;
  }
  Vek_wstring wide = vek_utf8_to_utf16(path);
  uint32_t copied = wide.size() < size ? static_cast<uint32_t>(wide.size()) : size - 1;
  wide.copy(buffer, copied);
  buffer[copied] = u'\0';
  return wide.size() < size ? copied : size;
}

bool DisableThreadLibraryCalls(void*) { return true; }
