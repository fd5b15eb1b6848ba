// A module for the loader's test: its application refuses to load, and
// counts its unload() calls in the test's counter, whose address comes in
// the environment.
#include <cstdlib>

#include "shell/plg_frame.h"

namespace {

class Refusing_application : public Plg_application {
 public:
  bool load() override { return false; }
  void unload() override {
    if (const char* address = std::getenv("SMTPFM_REFUSING_MODULE_COUNTER"))
      ++*reinterpret_cast<int*>(std::strtoull(address, nullptr, 10));
  }
};

Refusing_application application;

}  // namespace

extern "C" __attribute__((visibility("default"))) bool DllMain(void* module, uint32_t reason, void* reserved) {
  return plg_entry(module, reason, reserved);
}
