// Helpers of the MIME handler's tests: message text built from short
// strings, smtp.so loaded once through the host library, and flat views of
// a message tree that two trees can be compared by.
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

// Mail text written on one line: each "|", and the end, is a CR LF.
inline std::string crlf(std::string_view text) {
  std::string out;
  for (char c : text) out += c == '|' ? std::string("\r\n") : std::string(1, c);
  return out + "\r\n";
}

// A multipart body in the notation of crlf(): each part (its header lines,
// an empty line, its body) behind a delimiter line, then the closing
// delimiter with no line end, so that the body nests as a part in turn.
inline std::string parts(std::string_view boundary, const std::vector<std::string>& parts) {
  const std::string delimiter = "--" + std::string(boundary);
  std::string text;
  for (const std::string& part : parts) text += delimiter + "|" + part + "|";
  return text + delimiter + "--";
}

// A MIME message of the content type `type` (which further header lines
// may follow) whose body is `body`, in the notation of crlf().
inline std::string message(std::string_view type, std::string_view body) {
  return crlf("MIME-Version: 1.0|Content-Type: " + std::string(type) + "||" + std::string(body));
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

 private:
  Host_options options_;
  std::unique_ptr<Plugin_library> library_;
  Manager_ptr manager_;
};

// The plug-in with the default options, or with "AddBody" set; loaded once.
inline const Plugin& plugin(bool add_body = false) {
  static const Plugin plain;
  static const Plugin with_body([] {
    Host_options options;
    options.add_body = true;
    return options;
  }());
  return add_body ? with_body : plain;
}

// What a node is to the host, in one line (path, handler, item type,
// content and enclosed types, name), and for a leaf other than the top its
// content: the bytes behind the header of an entity that has no sub-items.
struct Node_summary {
  std::string line;
  std::string bytes;
  bool operator==(const Node_summary&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Node_summary& node) {
  return out << node.line << " bytes=" << node.bytes.size();
}

inline std::vector<Node_summary> summarise(Message_tree& tree) {
  std::vector<Node_summary> nodes;
  tree.for_each([&nodes](Item_node& node) {
    Node_summary summary;
    summary.line = "[" + node.path + "] " + node.handler_name + " " + property(node, ZOR_ITEM_TYPE) + " " +
                   property(node, ZOR_MIME_TYPE) + "/" + property(node, ZOR_MIME_SUBTYPE) + " (" +
                   property(node, ZOR_ENCLOSED_MIME_TYPE) + "/" + property(node, ZOR_ENCLOSED_MIME_SUBTYPE) +
                   ") name=" + property(node, ZOR_ITEM_NAME);
    if (node.is_leaf() && node.parent != nullptr) {
      summary.line += " leaf";
      summary.bytes = node.bytes();
      if (node.taken()) {
        const size_t blank = summary.bytes.find("\r\n\r\n");
        summary.bytes = blank == std::string::npos ? std::string() : summary.bytes.substr(blank + 4);
      }
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
