// What smtpfm prints of a message tree: the indented text tree and the JSON
// document of `tree --json`, whose shape other tools rely on:
//   {"file": PATH, "size": BYTES, "profile": "hardened"|"reference", "item": NODE}
//   NODE = {"path", "length", "properties": [[name, value]...],
//           "reports": [[name, value]...], "log": [[code, "0x%08x"]...],
//           "taken", "handler", "open_status", "modified",
//           "unexamined": [[offset, length]...], "items": [NODE...],
//           "depth_limited" (only where the depth bound stopped the walk)}
// "unexamined" lists the text of the item's body that reaches the host in
// none of its sub-items (markup and white space aside), offsets into the
// item's bytes; the plug-in publishes it as the property "Unexamined",
// which is shown here and not among the properties.
#ifndef SMTPFM_HOST_REPORT_H_
#define SMTPFM_HOST_REPORT_H_

#include <nlohmann/json.hpp>
#include <string>

#include "host/host.h"
#include "manager/coverage.h"

using Json = nlohmann::ordered_json;

// "hardened" or "reference": the reading the manager was configured for.
inline const char* profile_name(const Host_options& options) {
  return options.hardened ? "hardened" : "reference";
}
// The JSON document of one message; `modified` asks each handler.
Json tree_json(Message_tree& tree, const std::string& file);
// A document on one line; bytes that are no UTF-8 (in a file name, in the
// line that made a message no mail) are written as U+FFFD.
std::string json_line(const Json& document);
// The indented text tree of one message.
std::string tree_text(Message_tree& tree, const std::string& file);
// The body text of a node that no sub-item holds, and its byte count.
std::vector<Smtp_range> unexamined_ranges(const Item_node& node);
uint64_t unexamined_bytes(const Item_node& node);
// A property's value as JSON: a string, true/false or an integer.
Json property_json(const Tav_property& property);
// The UTF-8 form of a property's value.
std::string property_text(const Tav_property& property);
// A file name made of a leaf's path and ItemName: no separators, no
// leading dots, no control bytes, bounded length.
std::string leaf_file_name(const Item_node& node);

#endif  // SMTPFM_HOST_REPORT_H_
