#include "shell/plg_frame.h"

#include <algorithm>

#include "platform/vek/win32.h"

void* plg_module_handle = nullptr;
char16_t plg_module_path[plg_max_path] = {};
Plg_application* plg_application = nullptr;
uint32_t plg_object_count = 0;
Vek_critical plg_object_lock(false);

const char16_t plg_registry_path[] = u"Software\\Tarnwell Systems\\Plugins";

std::list<Plg_element*>& plg_element_list() {
  static std::list<Plg_element*> list;
  return list;
}

std::map<Vek_wstring, Vek_wstring>& plg_order_rules() {
  static std::map<Vek_wstring, Vek_wstring> rules;
  return rules;
}

Plg_order_rule::Plg_order_rule(const Vek_wstring& element_name, const Vek_wstring& order) {
  plg_order_rules().emplace(element_name, order);  // keeps the first rule of a name
}

Plg_element::Plg_element(Vek_wstring name, Vek_wstring display_name, Vek_wstring description,
                         const Tav_guid& type_id, uint32_t interface_version, uint32_t implementation_version)
    : name_(std::move(name)),
      display_name_(std::move(display_name)),
      description_(std::move(description)),
      type_id_(type_id),
      interface_version_(interface_version),
      implementation_version_(implementation_version) {
  plg_element_list().push_back(this);
}

Plg_element::~Plg_element() { plg_element_list().remove(this); }

Plg_application::Plg_application() { plg_application = this; }

Plg_application::~Plg_application() {
  if (plg_application == this) plg_application = nullptr;
}

void plg_object_added() {
  plg_object_lock.lock();
  ++plg_object_count;
  plg_object_lock.unlock();
}

void plg_object_removed() {
  plg_object_lock.lock();
  --plg_object_count;
  plg_object_lock.unlock();
}

bool plg_entry(void* module, uint32_t reason, void*) {
  constexpr uint32_t process_detach = 0, process_attach = 1;
  if (reason == process_attach) {
    plg_module_handle = module;
    GetModuleFileNameW(module, plg_module_path, plg_max_path);
    DisableThreadLibraryCalls(module);
    if (plg_application != nullptr && !plg_application->load()) {
      plg_application->unload();
      return false;
    }
  } else if (reason == process_detach) {
    if (plg_application != nullptr) plg_application->unload();
  }
  return true;
}

Plg_element* plg_find_factory(const char16_t* name, const Tav_guid* type) {
  if (name == nullptr || type == nullptr) return nullptr;
  Vek_wstring wanted(name);
  for (Plg_element* element : plg_element_list())
    if (vek_string_equal_nc(wanted, element->name()) && tav_is_equal_type(*type, element->type())) return element;
  return nullptr;
}

Vek_wstring plg_element_key(const Plg_element& element) {
  Vek_wstring type_text;
  tav_type_to_string(element.type(), type_text);
  return element.name() + u"\\" + type_text;
}

bool plg_register_all() {
  Vek_status status;
  for (auto it = plg_element_list().begin(); it != plg_element_list().end() && status.ok(); ++it) {
    const Plg_element& element = **it;
    Vek_wstring key = plg_element_key(element);
    auto root = HKEY_LOCAL_MACHINE;
    vek_set_reg_string_value(root, plg_registry_path, key, u"ImagePath", plg_module_path, status);
    if (status.ok())
      vek_set_reg_uint_value(root, plg_registry_path, key, u"LibraryVersion", plg_library_version, status);
    if (status.ok())
      vek_set_reg_string_value(root, plg_registry_path, key, u"DisplayName", element.display_name(), status);
    if (status.ok()) vek_set_reg_string_value(root, plg_registry_path, key, u"", element.description(), status);
    if (status.ok())
      vek_set_reg_uint_value(root, plg_registry_path, key, u"InterfaceVersion", element.interface_version(),
                             status);
    if (status.ok())
      vek_set_reg_uint_value(root, plg_registry_path, key, u"ImplementationVersion",
                             element.implementation_version(), status);
    // The order rules are written even when a value failed: they are a
    // separate, optional step.
    if (plg_application != nullptr) plg_application->on_register();
  }
  return status.ok();
}

bool plg_deregister_all() {
  Vek_status status;
  for (auto it = plg_element_list().begin(); it != plg_element_list().end() && status.ok(); ++it) {
    const Plg_element& element = **it;
    Vek_wstring type_text;
    tav_type_to_string(element.type(), type_text);
    vek_remove_reg_key(HKEY_LOCAL_MACHINE, plg_registry_path, element.name(), type_text, status);
    if (!status.ok()) break;
    Vek_ptrvec_impl names(8);
    vek_enum_reg_keys(HKEY_LOCAL_MACHINE, plg_registry_path, element.name(), names, status);
    // The name's key goes with the last type below it.
    if (names.empty() && status.ok())
      vek_remove_reg_key(HKEY_LOCAL_MACHINE, plg_registry_path, u"", element.name(), status);
    for (void* name : names) delete static_cast<Vek_wstring*>(name);
  }
  return status.ok();
}
