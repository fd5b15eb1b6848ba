#include "host/report.h"

#include "contracts/zor.h"
#include "host/log_codes.h"
#include "host/names.h"
#include "platform/vek/registry.h"

namespace {

bool is_modified(Item_node& node) {
  if (node.handler == nullptr) return false;
  Vek_status status;
  try {
    return node.handler->is_modified(*node.item, status);
  } catch (const std::exception&) {
    return false;
  }
}

// A message that no manager took says why.
bool says_why(const Item_node& node) {
  if (node.taken()) return false;
  const Tav_property* message = node.item->properties().find(ZOR_MESSAGE_ITEM);
  return node.parent == nullptr || (message != nullptr && message->type() == Tav_property::type_bool &&
                                    message->bool_value());
}

// The JSON of a node with its children; iterative, since nesting depth is
// the mail's choice.
Json node_json(Message_tree& tree, Item_node& top) {
  struct Frame {
    Item_node* node;
    Json* target;
  };
  Json root;
  std::vector<Frame> stack{{&top, &root}};
  while (!stack.empty()) {
    Frame frame = stack.back();
    stack.pop_back();
    Item_node& node = *frame.node;
    Json& out = *frame.target;
    out["path"] = node.path;
    out["length"] = tree.original_bytes(node).size();
    Json properties = Json::array();
    for (const auto& property : node.item->properties())
      if (property.name() != smtp_unexamined)
        properties.push_back(Json::array({vek_utf16_to_utf8(property.name()), property_json(property)}));
    out["properties"] = std::move(properties);
    Json reports = Json::array();
    for (const auto& report : node.item->reports())
      reports.push_back(Json::array({vek_utf16_to_utf8(report.name), vek_utf16_to_utf8(report.value)}));
    out["reports"] = std::move(reports);
    Json log = Json::array();
    for (const auto& entry : node.item->logs())
      log.push_back(Json::array({entry.code, status_text(entry.status), log_entry_text(entry.code, entry.status)}));
    out["log"] = std::move(log);
    out["taken"] = node.taken();
    out["handler"] = node.taken() ? Json(node.handler_name) : Json(nullptr);
    out["open_status"] = status_text(node.open_status);
    out["modified"] = is_modified(node);
    Json unexamined = Json::array();
    for (const Smtp_range& range : unexamined_ranges(node))
      unexamined.push_back(Json::array({range.offset, range.length}));
    out["unexamined"] = std::move(unexamined);
    if (!node.failure.empty()) out["failure"] = node.failure;
    if (says_why(node)) {
      const Refusal refusal = tree.refusal(node);
      out["refusal"] = Json{{"reason", refusal.reason}, {"line_number", refusal.line_number}, {"line", refusal.line}};
    }
    out["items"] = Json::array();
    if (node.depth_limited) out["depth_limited"] = true;
    Json& items = out["items"];
    for (size_t i = 0; i < node.children.size(); ++i) items.push_back(Json::object());
    for (size_t i = node.children.size(); i-- > 0;) stack.push_back({node.children[i].get(), &items[i]});
  }
  return root;
}

std::string property(const Item_node& node, const char16_t* name) {
  const Tav_property* found = node.item->properties().find(name);
  return found == nullptr ? std::string() : property_text(*found);
}

// A text property as a person reads it.
std::string shown(const Item_node& node, const char16_t* name) {
  return readable_text(node.item->string_property(name));
}

}  // namespace

std::vector<Smtp_range> unexamined_ranges(const Item_node& node) {
  const Tav_property* found = node.item->properties().find(smtp_unexamined);
  if (found == nullptr || found->type() != Tav_property::type_string) return {};
  return parse_unexamined_text(vek_wtos(found->string_value()));
}

uint64_t unexamined_bytes(const Item_node& node) {
  uint64_t count = 0;
  for (const Smtp_range& range : unexamined_ranges(node)) count += range.length;
  return count;
}

Json property_json(const Tav_property& property) {
  switch (property.type()) {
    case Tav_property::type_bool:
      return property.bool_value();
    case Tav_property::type_integer:
      return property.integer_value();
    default:
      return vek_utf16_to_utf8(property.string_value());
  }
}

std::string property_text(const Tav_property& property) {
  switch (property.type()) {
    case Tav_property::type_bool:
      return property.bool_value() ? "true" : "false";
    case Tav_property::type_integer:
      return std::to_string(property.integer_value());
    default:
      return vek_utf16_to_utf8(property.string_value());
  }
}

std::string json_line(const Json& document) { return document.dump(-1, ' ', false, Json::error_handler_t::replace); }

Json tree_json(Message_tree& tree, const std::string& file) {
  Json document;
  document["file"] = file;
  document["size"] = tree.original().size();
  document["profile"] = profile_name(tree.options());
  document["item"] = node_json(tree, tree.root());
  return document;
}

std::string tree_text(Message_tree& tree, const std::string& file) {
  std::string out = escaped_for_terminal(file) + " (" + std::to_string(tree.original().size()) + " bytes, " +
                    profile_name(tree.options()) + " profile)\n";
  tree.for_each([&](Item_node& node) {
    std::string line(2 * (node.depth + 1), ' ');
    line += "[" + node.path + "] " + std::to_string(tree.original_bytes(node).size()) + " bytes";
    std::string type = property(node, ZOR_ITEM_TYPE);
    if (!type.empty()) line += " " + type;
    std::string mime = property(node, ZOR_MIME_TYPE);
    if (!mime.empty()) line += " " + mime + "/" + property(node, ZOR_MIME_SUBTYPE);
    std::string enclosed = property(node, ZOR_ENCLOSED_MIME_TYPE);
    if (!enclosed.empty()) line += " (part " + enclosed + "/" + property(node, ZOR_ENCLOSED_MIME_SUBTYPE) + ")";
    std::string name = shown(node, ZOR_ITEM_NAME);
    if (!name.empty()) line += " \"" + name + "\"";
    std::string charset = property(node, ZOR_ITEM_CHARSET);
    if (!charset.empty()) line += " charset=" + charset;
    if (node.parent == nullptr) {
      std::string subject = shown(node, ZOR_SUBJECT);
      if (!subject.empty()) line += " subject \"" + subject + "\"";
    }
    if (node.taken()) line += " <" + node.handler_name + ">";
    if (!node.item->logs().empty()) {
      line += " log";
      for (size_t i = 0; i < node.item->logs().size(); ++i) {
        const auto& entry = node.item->logs()[i];
        line += (i == 0 ? " " : ", ") + log_entry_text(entry.code, entry.status);
      }
    }
    if (says_why(node)) {
      const Refusal refusal = tree.refusal(node);
      line += " [not taken: " + refusal.reason;
      if (refusal.line_number != 0)
        line += "; line " + std::to_string(refusal.line_number) + ": \"" + refusal.line + "\"";
      line += "]";
    }
    const std::string unexamined = property(node, smtp_unexamined.data());
    if (!unexamined.empty()) line += " unexamined " + unexamined;
    if (node.depth_limited) line += " [not opened: depth limit]";
    if (!node.failure.empty()) line += " [" + node.failure + "]";
    // Names and lines of hostile mail may hold controls that a terminal
    // would act on.
    out += escaped_for_terminal(line) + "\n";
  });
  return out;
}

std::string leaf_file_name(const Item_node& node) {
  return safe_file_name(node.path.empty() ? "message" : node.path, readable_text(node.item->string_property(ZOR_ITEM_NAME)));
}
