// The library smtp.so (smtp.dll on Windows): its one element, its
// application object, its order rule, its entry point, its four exports and
// one diagnostic export.
//
// The module state is built during static construction in this order: the
// element list (on first use, by the element), the element, the
// application object, the order rule; the lock and the counters are
// constant-initialised in the frame.
#include "encoding/rfc1505_handler.h"
#include "manager/format_manager.h"
#include "manager/refusal.h"
#include "mime/rfc1521_handler.h"
#include "shell/plg_frame.h"

#define SMTPFM_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr Tav_guid smtp_type_id = {0xD00BCC02, 0x7BB8, 0x11D1, {0xA9, 0x3B, 0x00, 0xA0, 0xC9, 0x43, 0x08, 0x65}};
constexpr uint32_t smtp_version = 0x40000;

// The handlers that live in libraries above the manager, one line each; a
// null entry makes the manager take such a message with no sub-items.
constexpr Smtp_handler_factories smtp_handler_factories = {
    .rfc1521 = make_rfc1521_handler,
    .rfc1505 = make_rfc1505_handler,
};

class Smtp_element : public Plg_element {
 public:
  Smtp_element()
      : Plg_element(u"Larkspire SMTP Message", u"SMTP Message", u"Larkspire SMTP Format Manager", smtp_type_id,
                    smtp_version, smtp_version) {}
  Plg_object* create() override { return new (std::nothrow) Smtp_format_manager(this, smtp_handler_factories); }
};

class Smtp_application : public Plg_application {
 public:
  // Writes each element's order rule as the value "Order" of its key. A
  // failure here does not fail the registration, so its status is dropped.
  void on_register() override {
    for (Plg_element* element : plg_element_list()) {
      auto rule = plg_order_rules().find(element->name());
      if (rule == plg_order_rules().end()) continue;
      Vek_status own;
      vek_set_reg_string_value(HKEY_LOCAL_MACHINE, plg_registry_path, plg_element_key(*element), u"Order",
                               rule->second, own);
    }
  }
};

Smtp_element smtp_element;
Smtp_application smtp_application;
Plg_order_rule smtp_order_rule(u"Larkspire SMTP Message", u"smtp");

}  // namespace

SMTPFM_EXPORT bool DllMain(void* module, uint32_t reason, void* reserved) {
  return plg_entry(module, reason, reserved);
}

SMTPFM_EXPORT Plg_element* plg_get_factory(const char16_t* name, const Tav_guid* type) {
  return plg_find_factory(name, type);
}

SMTPFM_EXPORT int plg_can_unload_now() { return plg_object_count == 0 ? 1 : 0; }

SMTPFM_EXPORT bool plg_register_elements() { return plg_register_all(); }

SMTPFM_EXPORT bool plg_deregister_elements() { return plg_deregister_all(); }

// Beside the contract, for hosts that say why an item was not taken (manager/refusal.h).
SMTPFM_EXPORT int smtp_explain_refusal(const char* data, size_t size, int hardened, Smtp_refusal_text* out) { return smtp_explain_into(data, size, hardened, out); }
