// Header export: named header fields of a message given to the host as
// sub-items of their own, records of type 1 at the front of a handler's
// table.
//
// The host names the fields with "ExportHeader"; the manager keeps the
// names upper case and sorted, and every handler holds a reference to that
// list. An exported field is text made for reading only: UTF-16 in the
// machine's order, with no byte-order mark and no terminator, which the
// host gets with the charset "UNICODE" and never offers as a message again.
// The records own their buffers; nothing here keeps anything.
#ifndef SMTPFM_MANAGER_HEADER_EXPORT_H_
#define SMTPFM_MANAGER_HEADER_EXPORT_H_

#include <string>
#include <string_view>
#include <vector>

#include "contracts/vek.h"
#include "manager/item_table.h"
#include "reader/header_block.h"

// Turns a field value (bytes) into the wide text of the record, replacing
// `text`. Each handler chooses its own: a MIME message decodes its encoded
// words, the others widen byte for byte.
using Smtp_value_conversion = void (*)(std::string_view value, Vek_wstring& text);

// Widens byte for byte: encoded words stay as written.
void widen_header_value(std::string_view value, Vek_wstring& text);

// Whether a field of this name (any case) is listed in `export_headers`
// (upper case, ascending byte order).
bool is_exported_header(const std::vector<std::string>& export_headers, std::string_view name);

// Appends a header record for `field` to `table`, converting its value
// with `convert`; a value that converts to nothing gives no record. The
// caller has asked is_exported_header first. Clears the status.
void export_header_field(Smtp_item_table& table, const Smtp_header_field& field,
                         Smtp_value_conversion convert, Vek_status& status);

// The export of a handler's header: every field of `fields`, in order, that
// `export_headers` lists, when `is_message` is true. Stops at the first
// failed status.
void export_header_fields(Smtp_item_table& table, const std::vector<Smtp_header_field>& fields,
                          const std::vector<std::string>& export_headers, bool is_message,
                          Smtp_value_conversion convert, Vek_status& status);

#endif  // SMTPFM_MANAGER_HEADER_EXPORT_H_
