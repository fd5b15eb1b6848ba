#include "manager/manager_base.h"

#include <stdexcept>

Plg_object::Plg_object(Plg_element* element) : element_(element) { plg_object_added(); }

Plg_object::~Plg_object() { plg_object_removed(); }

void Plg_object::release() { delete this; }

void Rmx_configurable::set_properties(const Tav_property_list& list, Vek_status& status) {
  status.clear();
  begin_properties(status);
  if (!status.ok()) return;
  for (const auto& property : list) {
    set_property(property, status);
    if (!status.ok()) return;
  }
  end_properties(status);
}

void Rmx_configurable::set_property(const Tav_property&, Vek_status& status) { status.clear(); }

Rmx* Rmx::parent() const {
  if (parent_ == nullptr) throw std::runtime_error("Rmx::parent() called when no parent exists");
  return parent_;
}

Rmx* Rmx::root() {
  Rmx* node = this;
  while (node->parent_ != nullptr) node = node->parent_;
  return node;
}

void Rmx::list_children(uint32_t, Vek_ptrvec_impl& children) { children.clear(); }

Rmx* Rmx::find_child(uint32_t, uint32_t) const { return nullptr; }

void Fmg_manager_base::notify(uint32_t, uint32_t, Vek_status& status) { status.clear(); }

bool Fmg_manager_base::accept(const Vek_wstring& text) const {
  return text.empty() || policy_.is_satisfied(text);
}

void Fmg_manager_base::set_property(const Tav_property& property, Vek_status& status) {
  status.clear();
  if (vek_string_equal_nc(property.name(), ZOR_POLICY_LIST)) policy_.initialise(property.string_value());
}
