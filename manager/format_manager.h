// Smtp_format_manager: the format manager for internet mail.
//
// Configured by the host with "ExportHeader" (repeatable), "AddBody",
// "Hardened" (reader/profile.h), "ReportUnexamined" (manager/coverage.h)
// and the policy list; asked to open items, it recognises a mail message
// from its header and returns the handler that fits it. It keeps nothing of an
// item. Its handlers hold references to its name and to export_headers, so
// it must be released after every handler it opened.
//
// The handlers of MIME messages and of messages with an RFC 1505
// "Encoding" field live in libraries above this one; the module hands their
// factories in at construction. A missing factory gives a handler that
// takes the item with no sub-items.
#ifndef SMTPFM_MANAGER_FORMAT_MANAGER_H_
#define SMTPFM_MANAGER_FORMAT_MANAGER_H_

#include <string>
#include <vector>

#include "manager/handler_base.h"
#include "manager/manager_base.h"
#include "reader/profile.h"

// Makers of the handlers that the manager cannot name itself. Each returns
// a new handler owned by the caller; `name`, `export_headers` and `profile`
// outlive the handler.
struct Smtp_handler_factories {
  // A MIME entity (RFC 1521).
  Fmg_handler_base* (*rfc1521)(const Vek_wstring& name, const std::vector<std::string>& export_headers,
                               bool is_message, bool add_empty_body, const Smtp_profile& profile) = nullptr;
  // A message with an "Encoding" field (RFC 1505).
  Fmg_handler_base* (*rfc1505)(const Vek_wstring& name, const std::vector<std::string>& export_headers,
                               bool is_message, const Smtp_profile& profile) = nullptr;
};

class Smtp_format_manager : public Fmg_manager_base {
 public:
  // `factories` is copied; a null entry stands for a handler not built in.
  explicit Smtp_format_manager(Plg_element* element, const Smtp_handler_factories& factories = {})
      : Fmg_manager_base(element), factories_(factories) {}

  // Takes the item if its header is that of a mail message (or it is the
  // inside of a MIME entity): publishes format, subject and date, and
  // returns the handler that opened it, owned by the caller. Null if the
  // item is not taken: a good status means it is no message, a failed one
  // that it could not be read. `buffer` must outlive the handler.
  Fmg_handler_base* open(Vek_buffer* buffer, Fmg_item& item, Vek_status& status) override;
  // Forgets the header names, AddBody, Hardened and ReportUnexamined; the
  // policy stays.
  void begin_properties(Vek_status& status) override;
  void set_property(const Tav_property& property, Vek_status& status) override;

  // Upper-case header names, in ascending byte order, duplicates allowed.
  const std::vector<std::string>& export_headers() const { return export_headers_; }
  bool add_empty_body() const { return add_empty_body_; }
  // The reference profile, or the hardened one after "Hardened" = true.
  const Smtp_profile& profile() const { return *profile_; }
  // Whether each entity's item gets the ranges of its body that reach the
  // host in no sub-item ("ReportUnexamined" = true).
  bool report_unexamined() const { return report_unexamined_; }

 protected:
  ~Smtp_format_manager() override = default;

 private:
  Smtp_handler_factories factories_;
  std::vector<std::string> export_headers_;
  bool add_empty_body_ = false;
  bool report_unexamined_ = false;
  const Smtp_profile* profile_ = &smtp_reference_profile;
};

#endif  // SMTPFM_MANAGER_FORMAT_MANAGER_H_
