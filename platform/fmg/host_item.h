// Fmg_host_item: the host's node of an item, as our hosts and tests make it.
//
// It keeps what the plug-in does to it so that a host can read it back:
// the properties in order, the log entries and the report_property calls.
// A node does not own its parent; the parent must outlive it.
#ifndef SMTPFM_PLATFORM_FMG_HOST_ITEM_H_
#define SMTPFM_PLATFORM_FMG_HOST_ITEM_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "contracts/fmg_item.h"

class Fmg_host_item : public Fmg_item {
 public:
  struct Log_entry {
    uint32_t code;
    uint32_t severity;
    Vek_wstring text;
    uint32_t status;
  };
  struct Report {
    uint32_t code;
    uint32_t status;
    Vek_wstring name;
    Vek_wstring value;
  };

  // A node below `parent`, or the top of a tree when `parent` is null.
  explicit Fmg_host_item(Fmg_host_item* parent = nullptr);
  // Items come from a pool: a walk makes one for every part and frees them
  // all together (see block_pool.h).
  static void* operator new(size_t size);
  static void operator delete(void* block, size_t size) noexcept;

  Fmg_item* parent_item() override { return parent_; }
  Fmg_item* top_item() override { return top_; }
  void log(uint32_t code, uint32_t severity, const Vek_wstring& text, const Vek_status& status) override;
  Tav_property_list& properties() override { return properties_; }
  void set_property(std::u16string_view name, std::u16string_view value) override;
  void add_property(const Tav_property& property) override;
  void report_property(uint32_t code, const Vek_status& status, const char16_t* name, const char16_t* value,
                       uint32_t zero1, uint32_t zero2) override;

  const std::vector<Log_entry>& logs() const { return logs_; }
  const std::vector<Report>& reports() const { return reports_; }
  // The string value of a property, or empty.
  Vek_wstring string_property(std::u16string_view name) const;
  // The same without a copy; valid until the item's properties change.
  std::u16string_view string_view_property(std::u16string_view name) const;
  // Whether the item has a log entry with `code`.
  bool has_log(uint32_t code) const;

 private:
  Fmg_host_item* parent_;
  Fmg_host_item* top_;
  Tav_property_list properties_;
  std::vector<Log_entry> logs_;
  std::vector<Report> reports_;
};

#endif  // SMTPFM_PLATFORM_FMG_HOST_ITEM_H_
