// The library uue.so: the uuencode format manager's element and the
// module's exports, the same frame as smtp.so's.
#include "shell/plg_frame.h"
#include "uue/uue_manager.h"

#define UUE_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr Tav_guid uue_type_id = {0xD00BCC03, 0x7BB8, 0x11D1, {0xA9, 0x3B, 0x00, 0xA0, 0xC9, 0x43, 0x08, 0x65}};
constexpr uint32_t uue_version = 0x40000;

class Uue_element : public Plg_element {
 public:
  Uue_element()
      : Plg_element(u"Larkspire UUE Data", u"UUE Data", u"Larkspire UUE Format Manager", uue_type_id, uue_version,
                    uue_version) {}
  Plg_object* create() override { return new (std::nothrow) Uue_manager(this); }
};

// The library has no load, unload or registration work of its own.
class Uue_application : public Plg_application {};

Uue_element uue_element;
Uue_application uue_application;

}  // namespace

UUE_EXPORT bool DllMain(void* module, uint32_t reason, void* reserved) { return plg_entry(module, reason, reserved); }

UUE_EXPORT Plg_element* plg_get_factory(const char16_t* name, const Tav_guid* type) {
  return plg_find_factory(name, type);
}

UUE_EXPORT int plg_can_unload_now() { return plg_object_count == 0 ? 1 : 0; }

UUE_EXPORT bool plg_register_elements() { return plg_register_all(); }

UUE_EXPORT bool plg_deregister_elements() { return plg_deregister_all(); }
