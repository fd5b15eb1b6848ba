#include "platform/fmg/plg_loader.h"

#include <dlfcn.h>

namespace {
constexpr uint32_t process_detach = 0;
constexpr uint32_t process_attach = 1;
}  // namespace

std::unique_ptr<Plg_module> Plg_module::load(const std::string& path, std::string& error) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* why = dlerror();
    error = why ? why : "cannot load " + path;
    return nullptr;
  }
  auto entry = reinterpret_cast<Entry>(dlsym(handle, "DllMain"));
  if (entry != nullptr && !entry(handle, process_attach, nullptr)) {
    // The library refused to start; like Windows, no detach call follows.
    dlclose(handle);
    error = path + ": the library's entry point refused to load";
    return nullptr;
  }
  return std::unique_ptr<Plg_module>(new Plg_module(handle, entry));
}

Plg_module::~Plg_module() {
  if (entry_ != nullptr) entry_(handle_, process_detach, nullptr);
  dlclose(handle_);
}

void* Plg_module::symbol(const char* name) const { return dlsym(handle_, name); }
