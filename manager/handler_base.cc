#include "manager/handler_base.h"

#include <stdexcept>

Vek_buffer* Fmg_handler_base::get_data(Fmg_item&, Vek_status& status) {
  status.clear();
  return data;
}

void Fmg_handler_base::set_data(Vek_buffer* buffer, Fmg_item&, Vek_status& status) {
  status.clear();
  data = buffer;
}

bool Fmg_handler_base::has_items(Fmg_item&, Vek_status& status) {
  status.clear();
  return false;
}

Vek_buffer* Fmg_handler_base::get_item(uint32_t&, Fmg_item&, Vek_status& status) {
  status.clear();
  throw std::runtime_error("Attempt to extract encapsulated item in Fmg_handler_base::get_item()");
}

void Fmg_handler_base::set_item(uint32_t, Vek_buffer*, Fmg_item&, Vek_status& status) {
  status.clear();
  throw std::runtime_error("Attempt to replace encapsulated item in Fmg_handler_base::item()");
}

void Fmg_handler_base::free_item(uint32_t, Fmg_item&, Vek_status& status) { status.clear(); }

bool Fmg_handler_base::can_modify_item(uint32_t, Fmg_item&, Vek_status& status) {
  status.clear();
  return false;
}

bool Fmg_handler_base::is_item_modified(uint32_t, Fmg_item&, Vek_status& status) {
  status.clear();
  return false;
}

bool Fmg_handler_base::is_modified(Fmg_item&, Vek_status& status) {
  status.clear();
  return false;
}

Vek_buffer* Fmg_handler_base::rebuild(Fmg_item&, Vek_status&) { return nullptr; }

void Fmg_handler_base::release() { delete this; }
