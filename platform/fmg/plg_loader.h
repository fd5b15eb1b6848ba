// Plg_module: loads a plug-in library the way the Windows loader does.
//
// dlopen, then the library's entry point "DllMain" with reason 1 (process
// attach); a false answer unloads the library again and the load fails.
// Destroying the module calls the entry point with reason 0 (process
// detach) and then dlclose. Pointers obtained from the module must not be
// used after the module is destroyed.
#ifndef SMTPFM_PLATFORM_FMG_PLG_LOADER_H_
#define SMTPFM_PLATFORM_FMG_PLG_LOADER_H_

#include <cstdint>
#include <memory>
#include <string>

class Plg_module {
 public:
  // The library's entry point: module handle, reason, reserved word.
  using Entry = bool (*)(void* module, uint32_t reason, void* reserved);

  // Loads the library at `path`; on failure returns null and says why in
  // `error`.
  static std::unique_ptr<Plg_module> load(const std::string& path, std::string& error);
  ~Plg_module();
  Plg_module(const Plg_module&) = delete;
  Plg_module& operator=(const Plg_module&) = delete;

  // An exported symbol, or null.
  void* symbol(const char* name) const;
  template <class Function>
  Function function(const char* name) const {
    return reinterpret_cast<Function>(symbol(name));
  }
  void* handle() const { return handle_; }

 private:
  Plg_module(void* handle, Entry entry) : handle_(handle), entry_(entry) {}
  void* handle_;
  Entry entry_;
};

#endif  // SMTPFM_PLATFORM_FMG_PLG_LOADER_H_
