#include "manager/format_manager.h"

#include <algorithm>

void Smtp_format_manager::begin_properties(Vek_status& status) {
  status.clear();
  export_headers_.clear();
  add_empty_body_ = false;
}

void Smtp_format_manager::set_property(const Tav_property& property, Vek_status& status) {
  status.clear();
  if (vek_string_equal_nc(property.name(), u"ExportHeader")) {
    std::string name = vek_wtos(property.string_value());
    vek_upper(name);
    // Kept sorted so that handlers find a name by binary search.
    auto at = std::lower_bound(export_headers_.begin(), export_headers_.end(), name);
    export_headers_.insert(at, std::move(name));
  } else if (vek_string_equal_nc(property.name(), u"AddBody")) {
    add_empty_body_ = property.bool_value();
  } else {
    Fmg_manager_base::set_property(property, status);
  }
}

Fmg_handler_base* Smtp_format_manager::open(Vek_buffer*, Fmg_item&, Vek_status& status) {
  status.clear();
  return nullptr;
}
