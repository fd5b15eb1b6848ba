#include "manager/header_export.h"

#include <algorithm>
#include <cstring>

void widen_header_value(std::string_view value, Vek_wstring& text) { text = vek_stow(value); }

bool is_exported_header(const std::vector<std::string>& export_headers, std::string_view name) {
  if (export_headers.empty()) return false;
  std::string upper(name);
  vek_upper(upper);
  auto at = std::lower_bound(export_headers.begin(), export_headers.end(), upper);
  return at != export_headers.end() && *at == upper;
}

void export_header_field(Smtp_item_table& table, const Smtp_header_field& field,
                         Smtp_value_conversion convert, Vek_status& status) {
  status.clear();
  Vek_wstring text;
  convert(field.value, text);
  if (text.empty()) return;

  size_t bytes = text.size() * sizeof(char16_t);
  // The buffer takes the block over (method 2) and frees it with delete[].
  std::unique_ptr<uint8_t[]> block(new uint8_t[bytes]);
  std::memcpy(block.get(), text.data(), bytes);
  auto buffer = std::make_unique<Vek_raw_memory_buffer>(bytes, block.get(), 2);
  block.release();

  std::string name = field.name;
  vek_upper(name);
  table.items.push_back(
      std::make_unique<Smtp_item_record>(std::move(name), std::move(buffer), static_cast<uint32_t>(bytes)));
  table.item_order.push_back(static_cast<uint32_t>(table.items.size() - 1));
  ++table.header_item_count;
}

void export_header_fields(Smtp_item_table& table, const std::vector<Smtp_header_field>& fields,
                          const std::vector<std::string>& export_headers, bool is_message,
                          Smtp_value_conversion convert, Vek_status& status) {
  if (export_headers.empty() || !is_message) return;
  for (const Smtp_header_field& field : fields) {
    if (!is_exported_header(export_headers, field.name)) continue;
    export_header_field(table, field, convert, status);
    if (!status.ok()) return;
  }
}
