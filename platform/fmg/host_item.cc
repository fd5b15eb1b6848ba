#include "platform/fmg/host_item.h"

#include "platform/fmg/block_pool.h"

void* Fmg_host_item::operator new(size_t size) { return pooled_new<Fmg_host_item>(size); }

void Fmg_host_item::operator delete(void* block, size_t size) noexcept {
  pooled_delete<Fmg_host_item>(block, size);
}

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
  return Vek_wstring(string_view_property(name));
}

std::u16string_view Fmg_host_item::string_view_property(std::u16string_view name) const {
  const Tav_property* property = properties_.find(name);
  if (property == nullptr || property->type() != Tav_property::type_string) return {};
  return property->string_value();
}

bool Fmg_host_item::has_log(uint32_t code) const {
  for (const auto& entry : logs_)
    if (entry.code == code) return true;
  return false;
}
