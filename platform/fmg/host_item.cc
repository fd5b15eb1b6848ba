#include "platform/fmg/host_item.h"


Fmg_host_item::Fmg_host_item(Fmg_host_item* parent) : parent_(parent), top_(parent ? parent->top_ : this) {}

void Fmg_host_item::log(uint32_t code, uint32_t severity, const Vek_wstring& text, const Vek_status& status) {
  logs_.push_back({code, severity, text, status.value()});
}

void Fmg_host_item::set_property(std::u16string_view name, std::u16string_view value) {
  properties_.set(name, value);
}

void Fmg_host_item::add_property(const Tav_property& property) { properties_.set(property); }

void Fmg_host_item::report_property(uint32_t code, const Vek_status& status, const char16_t* name,
                                    const char16_t* value, uint32_t, uint32_t) {
  reports_.push_back({code, status.value(), name ? name : u"", value ? value : u""});
}

Vek_wstring Fmg_host_item::string_property(std::u16string_view name) const {
  const Tav_property* property = properties_.find(name);
  return property != nullptr && property->type() == Tav_property::type_string ? property->string_value()
                                                                               : Vek_wstring();
}

bool Fmg_host_item::has_log(uint32_t code) const {
  for (const auto& entry : logs_)
    if (entry.code == code) return true;
  return false;
}
