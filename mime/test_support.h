// Helpers of the MIME handler's tests: message text with CR LF line ends,
// smtp.so loaded once through the host library, and a flat summary of a
// message tree that two trees can be compared by.
#ifndef SMTPFM_MIME_TEST_SUPPORT_H_
#define SMTPFM_MIME_TEST_SUPPORT_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "contracts/zor.h"
#include "host/host.h"

namespace mime_test {

// Lines joined with CR LF behind each.
inline std::string crlf(const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& line : lines) text += line + "\r\n";
  return text;
}

// The property `name` of a node as UTF-8 (ASCII in these tests); empty if
// it is not there. Integers come as their decimal text.
inline std::string property(const Item_node& node, std::u16string_view name) {
  const Tav_property* found = node.item->properties().find(name);
  if (found == nullptr) return std::string();
  if (found->type() != Tav_property::type_string) return std::to_string(found->integer_value());
  return vek_wtos(found->string_value());
}

// The loaded plug-in and a manager configured by `options`.
class Plugin {
 public:
  explicit Plugin(Host_options options = {}) : options_(std::move(options)) {
    options_.module_path = SMTPFM_MODULE_PATH;
    std::string error;
    library_ = Plugin_library::load(options_, error);
    if (library_ == nullptr) throw std::runtime_error(error);
    manager_.reset(library_->create_manager(options_, error));
    if (manager_ == nullptr) throw std::runtime_error(error);
  }
  // A tree of `bytes`, walked to its leaves.
  std::unique_ptr<Message_tree> open(std::string bytes) const {
    return std::make_unique<Message_tree>(*manager_, std::move(bytes), options_);
  }
  const Host_options& options() const { return options_; }

 private:
  Host_options options_;
  std::unique_ptr<Plugin_library> library_;
  Manager_ptr manager_;
};

// What a node is to the host, one line: its path, handler, item type,
// content types, name, and for a leaf (other than the top) its content.
struct Node_summary {
  std::string path;
  std::string handler;
  std::string item_type;
  std::string mime_type;
  std::string enclosed_type;
  std::string name;
  bool leaf = false;
  std::string bytes;

  bool operator==(const Node_summary&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Node_summary& node) {
  out << "[" << node.path << "] " << node.handler << " " << node.item_type << " " << node.mime_type << " ("
      << node.enclosed_type << ") name=" << node.name;
  if (node.leaf) out << " bytes=" << node.bytes.size();
  return out;
}

inline std::vector<Node_summary> summarise(Message_tree& tree) {
  std::vector<Node_summary> nodes;
  tree.for_each([&nodes](Item_node& node) {
    Node_summary summary;
    summary.path = node.path;
    summary.handler = node.handler_name;
    summary.item_type = property(node, ZOR_ITEM_TYPE);
    summary.mime_type = property(node, ZOR_MIME_TYPE) + "/" + property(node, ZOR_MIME_SUBTYPE);
    summary.enclosed_type =
        property(node, ZOR_ENCLOSED_MIME_TYPE) + "/" + property(node, ZOR_ENCLOSED_MIME_SUBTYPE);
    summary.name = property(node, ZOR_ITEM_NAME);
    summary.leaf = node.is_leaf();
    // A leaf that no handler took is content; of an entity that has no
    // sub-items, the body behind its header is.
    if (summary.leaf && node.parent == nullptr) summary.leaf = false;
    if (summary.leaf) summary.bytes = std::string(node.bytes());
    if (summary.leaf && node.taken()) {
      const size_t blank = summary.bytes.find("\r\n\r\n");
      summary.bytes = blank == std::string::npos ? std::string() : summary.bytes.substr(blank + 4);
    }
    nodes.push_back(std::move(summary));
  });
  return nodes;
}

// The offset of the first byte in which two texts differ, as a message.
inline std::string first_difference(std::string_view a, std::string_view b) {
  size_t at = 0;
  while (at < a.size() && at < b.size() && a[at] == b[at]) ++at;
  if (at == a.size() && at == b.size()) return "equal";
  return "first difference at offset " + std::to_string(at) + " of " + std::to_string(a.size()) + " and " +
         std::to_string(b.size()) + ": \"" + std::string(a.substr(at, 40)) + "\" vs \"" +
         std::string(b.substr(at, 40)) + "\"";
}

}  // namespace mime_test

#endif  // SMTPFM_MIME_TEST_SUPPORT_H_
