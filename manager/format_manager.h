// Smtp_format_manager: the format manager for internet mail.
//
// Configured by the host with "ExportHeader" (repeatable), "AddBody" and
// the policy list; asked to open items, it recognises a mail message from
// its header and returns the handler that fits it. It keeps nothing of an
// item. Its handlers hold references to its name and to export_headers, so
// it must be released after every handler it opened.
#ifndef SMTPFM_MANAGER_FORMAT_MANAGER_H_
#define SMTPFM_MANAGER_FORMAT_MANAGER_H_

#include <string>
#include <vector>

#include "manager/handler_base.h"
#include "manager/manager_base.h"

class Smtp_format_manager : public Fmg_manager_base {
 public:
  explicit Smtp_format_manager(Plg_element* element) : Fmg_manager_base(element) {}

  Fmg_handler_base* open(Vek_buffer* buffer, Fmg_item& item, Vek_status& status) override;
  // Forgets the header names and AddBody; the policy stays.
  void begin_properties(Vek_status& status) override;
  void set_property(const Tav_property& property, Vek_status& status) override;

  // Upper-case header names, in ascending byte order, duplicates allowed.
  const std::vector<std::string>& export_headers() const { return export_headers_; }
  bool add_empty_body() const { return add_empty_body_; }

 protected:
  ~Smtp_format_manager() override = default;

 private:
  std::vector<std::string> export_headers_;
  bool add_empty_body_ = false;
};

#endif  // SMTPFM_MANAGER_FORMAT_MANAGER_H_
