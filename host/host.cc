#include "host/host.h"

#include <cxxabi.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <typeinfo>
#include <utility>

#include "contracts/zor.h"
#include "manager/coverage.h"
#include "platform/vek/registry.h"

const char16_t smtp_element_name[] = u"Larkspire SMTP Message";
const Tav_guid smtp_element_type = {0xD00BCC02, 0x7BB8, 0x11D1, {0xA9, 0x3B, 0x00, 0xA0, 0xC9, 0x43, 0x08, 0x65}};

namespace {

using Get_factory = Plg_element* (*)(const char16_t*, const Tav_guid*);
using Can_unload = int (*)();

std::string program_folder() {
  char path[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", path, sizeof path);
  if (n <= 0) return ".";
  return std::filesystem::path(std::string(path, n)).parent_path().string();
}

// The module's path as the registry has it: the "ImagePath" of the
// element's key.
bool module_from_registry(const std::string& folder, std::string& path, std::string& error) {
  vek_set_registry_root(folder);
  Vek_wstring type_text;
  tav_type_to_string(smtp_element_type, type_text);
  Vek_wstring key = Vek_wstring(u"Software\\Tarnwell Systems\\Plugins\\") + smtp_element_name + u"\\" + type_text;
  auto values = vek_read_reg_key(HKEY_LOCAL_MACHINE, key);
  if (values) {
    for (const auto& value : *values) {
      if (value.is_string && value.name == u"ImagePath") {
        path = vek_utf16_to_utf8(value.text);
        return true;
      }
    }
  }
  error = "the registry in " + folder + " has no ImagePath for the element \"Larkspire SMTP Message\"";
  return false;
}

// Pre-order list of a subtree, parents before children.
std::vector<Item_node*> preorder(Item_node& top) {
  std::vector<Item_node*> order;
  std::vector<Item_node*> stack{&top};
  while (!stack.empty()) {
    Item_node* node = stack.back();
    stack.pop_back();
    order.push_back(node);
    for (auto it = node->children.rbegin(); it != node->children.rend(); ++it) stack.push_back(it->get());
  }
  return order;
}

}  // namespace

std::unique_ptr<Plugin_library> Plugin_library::load(const Host_options& options, std::string& error) {
  std::string path = options.module_path;
  if (path.empty() && !options.registry.empty()) {
    if (!module_from_registry(options.registry, path, error)) return nullptr;
  }
  if (path.empty()) path = program_folder() + "/smtp.so";
  std::unique_ptr<Plugin_library> library(new Plugin_library);
  library->module_ = Plg_module::load(path, error);
  if (!library->module_) return nullptr;
  library->path_ = path;
  auto get_factory = library->module_->function<Get_factory>("plg_get_factory");
  if (get_factory == nullptr) {
    error = path + ": not a plug-in (no plg_get_factory)";
    return nullptr;
  }
  library->element_ = get_factory(smtp_element_name, &smtp_element_type);
  if (library->element_ == nullptr) {
    error = path + ": has no element \"Larkspire SMTP Message\" of the SMTP type";
    return nullptr;
  }
  return library;
}

Fmg_manager_base* Plugin_library::create_manager(const Host_options& options, std::string& error) {
  Plg_object* object = element_->create();
  if (object == nullptr) {
    error = "the element could not create a format manager";
    return nullptr;
  }
  auto* manager = static_cast<Fmg_manager_base*>(object);
  manager->set_name(u"smtpfm");
  Tav_property_list properties;
  for (const auto& name : options.export_headers) properties.add(u"ExportHeader", vek_utf8_to_utf16(name));
  properties.add(Tav_property(u"AddBody", options.add_body));
  properties.add(Tav_property(u"Hardened", options.hardened));
  properties.add(Tav_property(Vek_wstring(smtp_report_unexamined), options.report_unexamined));
  if (!options.policy.empty()) properties.add(ZOR_POLICY_LIST, vek_utf8_to_utf16(options.policy));
  Vek_status status;
  manager->set_properties(properties, status);
  if (!status.ok()) {
    error = "configuring the format manager failed with " + status_text(status.value());
    manager->release();
    return nullptr;
  }
  return manager;
}

bool Plugin_library::can_unload() const {
  auto can_unload = module_->function<Can_unload>("plg_can_unload_now");
  return can_unload != nullptr && can_unload() == 1;
}

void Manager_releaser::operator()(Fmg_manager_base* manager) const {
  if (manager != nullptr) manager->release();
}

std::string_view Item_node::bytes() const {
  if (buffer == nullptr || buffer->size() == 0) return {};
  return std::string_view(reinterpret_cast<const char*>(buffer->data()), buffer->size());
}

Message_tree::Message_tree(Fmg_manager_base& manager, std::string bytes, const Host_options& options)
    : manager_(manager), options_(options) {
  // Most mail is canonical already: then the bytes are kept as they came,
  // and a large message is not held twice.
  if (options.keep_line_ends || is_canonical(bytes))
    owned_ = std::move(bytes);
  else
    owned_ = make_canonical(bytes);
  input_ = owned_;
  start();
}

Message_tree::Message_tree(Fmg_manager_base& manager, Borrowed, std::string_view bytes, const Host_options& options)
    : manager_(manager), options_(options) {
  if (options.keep_line_ends || is_canonical(bytes)) {
    input_ = bytes;
  } else {
    owned_ = make_canonical(bytes);
    input_ = owned_;
  }
  start();
}

void Message_tree::start() {
  // Method 0: the block stays the tree's (or the caller's); the plug-in
  // only reads it.
  input_buffer_ = std::make_unique<Vek_raw_memory_buffer>(input_.size(), input_.data(), 0);
  root_ = std::make_unique<Item_node>();
  root_->item = std::make_unique<Fmg_host_item>();
  root_->buffer = input_buffer_.get();
  walk();
}

Message_tree::~Message_tree() { release_subtree(*root_); }

void Message_tree::walk() {
  // Depth first with an explicit stack: nesting is bounded by max_depth,
  // not by the program's stack.
  std::vector<Item_node*> stack{root_.get()};
  while (!stack.empty()) {
    Item_node* node = stack.back();
    stack.pop_back();
    open_node(*node);
    for (auto it = node->children.rbegin(); it != node->children.rend(); ++it) stack.push_back(it->get());
  }
}

void Message_tree::open_node(Item_node& node) {
  if (node.depth > options_.max_depth) {
    node.depth_limited = true;
    return;
  }
  if (node.parent != nullptr) {
    // A part that holds a message is offered to the manager as a message.
    Vek_wstring type = node.item->string_property(ZOR_MIME_TYPE);
    Vek_wstring subtype = node.item->string_property(ZOR_MIME_SUBTYPE);
    if (vek_string_equal_nc(type, u"message") && vek_string_equal_nc(subtype, u"rfc822"))
      node.item->add_property(Tav_property(ZOR_MESSAGE_ITEM, true));
  }
  if (node.buffer == nullptr) return;
  Vek_status status;
  try {
    node.handler = manager_.open(node.buffer, *node.item, status);
  } catch (const std::exception& e) {
    node.failure = std::string("open: ") + e.what();
    return;
  }
  node.open_status = status.value();
  if (node.handler == nullptr) return;
  node.handler_name = handler_class_name(*node.handler);
  try {
    if (!node.handler->has_items(*node.item, status) || !status.ok()) return;
    uint32_t position = 0;
    while (position != smtp_no_position) {
      auto child = std::make_unique<Item_node>();
      child->parent = &node;
      child->position = position;
      child->depth = node.depth + 1;
      child->path = node.path.empty() ? std::to_string(position) : node.path + "." + std::to_string(position);
      child->item = std::make_unique<Fmg_host_item>(node.item.get());
      uint32_t before = position;
      child->buffer = node.handler->get_item(position, *child->item, status);
      node.children.push_back(std::move(child));
      if (!status.ok()) {
        node.failure = "get_item failed with " + status_text(status.value());
        break;
      }
      if (position != smtp_no_position && position <= before) {
        node.failure = "get_item did not move the position on";
        break;
      }
    }
  } catch (const std::exception& e) {
    node.failure = std::string("get_item: ") + e.what();
  }
}

void Message_tree::release_subtree(Item_node& node) {
  std::vector<Item_node*> order = preorder(node);
  // Children first: a child's handler reads a buffer that its parent's
  // handler owns.
  for (auto it = order.rbegin(); it != order.rend(); ++it) {
    if ((*it)->handler != nullptr) {
      (*it)->handler->release();
      (*it)->handler = nullptr;
    }
  }
  node.children.clear();
}

Item_node* Message_tree::find(const std::string& path) {
  if (path.empty()) return root_.get();
  Item_node* node = root_.get();
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('.', start);
    if (end == std::string::npos) end = path.size();
    std::string element = path.substr(start, end - start);
    if (element.empty() || element.find_first_not_of("0123456789") != std::string::npos || element.size() > 9)
      return nullptr;
    uint32_t position = static_cast<uint32_t>(std::stoul(element));
    Item_node* next = nullptr;
    for (auto& child : node->children)
      if (child->position == position) next = child.get();
    if (next == nullptr) return nullptr;
    node = next;
    start = end + 1;
  }
  return node;
}

void Message_tree::for_each(const std::function<void(Item_node&)>& visit) {
  for (Item_node* node : preorder(*root_)) visit(*node);
}

bool Message_tree::can_replace(const Item_node& node, std::string& error) {
  if (node.parent == nullptr || node.parent->handler == nullptr) {
    error = "the top item cannot be replaced; give the new message itself";
    return false;
  }
  // A new item reaches the message only if every level above lets the
  // rebuilt entity in: a signed part inside a signed entity may not change
  // even where the part itself would allow it.
  for (const Item_node* link = &node; link->parent != nullptr; link = link->parent) {
    const Item_node& parent = *link->parent;
    if (parent.handler == nullptr) break;
    Vek_status status;
    try {
      if (!parent.handler->can_modify_item(link->position, *link->item, status)) {
        error = "item " + node.path + " may not be changed (" + parent.handler_name + " refuses " +
                (link == &node ? std::string("it") : "item " + link->path) + ")";
        return false;
      }
    } catch (const std::exception& e) {
      error = std::string("item ") + link->path + ": " + e.what();
      return false;
    }
  }
  return true;
}

bool Message_tree::replace(Item_node& node, std::string bytes, std::string& error) {
  if (!can_replace(node, error)) return false;
  release_subtree(node);
  auto* buffer = new Vek_memory_buffer;
  Vek_status status;
  if (!bytes.empty()) buffer->write_at(0, bytes.data(), bytes.size(), status);
  try {
    node.parent->handler->set_item(node.position, buffer, *node.item, status);
  } catch (const std::exception& e) {
    delete buffer;
    error = std::string("item ") + node.path + ": " + e.what();
    return false;
  }
  node.buffer = buffer;  // now the parent handler's
  if (!status.ok()) {
    error = "replacing item " + node.path + " failed with " + status_text(status.value());
    return false;
  }
  return true;
}

bool Message_tree::rebuild(std::string& out, std::string& error) {
  std::vector<Item_node*> order = preorder(*root_);
  for (auto it = order.rbegin(); it != order.rend(); ++it) {
    Item_node& node = **it;
    if (node.handler == nullptr) continue;
    Vek_status status;
    bool modified;
    Vek_buffer* rebuilt = nullptr;
    try {
      modified = node.handler->is_modified(*node.item, status);
      if (!status.ok()) {
        error = "is_modified of item " + (node.path.empty() ? "(top)" : node.path) + " failed with " +
                status_text(status.value());
        return false;
      }
      if (!modified) continue;
      rebuilt = node.handler->rebuild(*node.item, status);
    } catch (const std::exception& e) {
      error = std::string("rebuild: ") + e.what();
      return false;
    }
    if (rebuilt == nullptr || !status.ok()) {
      delete rebuilt;
      rebuild_status_ = status.value();
      error = "rebuilding item " + (node.path.empty() ? "(top)" : node.path) + " failed with " +
              status_text(status.value());
      return false;
    }
    if (node.parent == nullptr) {
      out.assign(reinterpret_cast<const char*>(rebuilt->data()), rebuilt->size());
      delete rebuilt;
      return true;
    }
    release_subtree(node);
    try {
      node.parent->handler->set_item(node.position, rebuilt, *node.item, status);
    } catch (const std::exception& e) {
      delete rebuilt;
      error = std::string("handing item ") + node.path + " to its parent: " + e.what();
      return false;
    }
    node.buffer = rebuilt;
    if (!status.ok()) {
      rebuild_status_ = status.value();
      error = "handing item " + node.path + " to its parent failed with " + status_text(status.value());
      return false;
    }
  }
  out = input_;  // nothing changed at the top
  return true;
}

bool is_canonical(std::string_view bytes) {
  for (size_t start = 0; start < bytes.size();) {
    const void* lf = std::memchr(bytes.data() + start, '\n', bytes.size() - start);
    if (lf == nullptr) return true;
    const size_t at = static_cast<size_t>(static_cast<const char*>(lf) - bytes.data());
    if (at == 0 || bytes[at - 1] != '\r') return false;
    start = at + 1;
  }
  return true;
}

std::string make_canonical(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size() + bytes.size() / 32);
  size_t start = 0;
  while (start < bytes.size()) {
    const void* lf = std::memchr(bytes.data() + start, '\n', bytes.size() - start);
    if (lf == nullptr) break;
    size_t at = static_cast<const char*>(lf) - bytes.data();
    out.append(bytes, start, at - start);
    if (at == 0 || bytes[at - 1] != '\r') out.push_back('\r');
    out.push_back('\n');
    start = at + 1;
  }
  out.append(bytes, start, std::string_view::npos);
  return out;
}

std::string handler_class_name(const Fmg_handler_base& handler) {
  const char* mangled = typeid(handler).name();
  // A walk asks for every node, and there are a handful of classes:
  // demangling once per class and thread is enough. The key is the text,
  // not the pointer, which a module loaded anew may hand out again.
  thread_local std::vector<std::pair<std::string, std::string>> known;
  for (const auto& [key, name] : known)
    if (key == mangled) return name;
  int result = 0;
  char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &result);
  std::string name = result == 0 && demangled != nullptr ? demangled : mangled;
  std::free(demangled);
  size_t colon = name.rfind("::");
  if (colon != std::string::npos) name.erase(0, colon + 2);
  known.emplace_back(mangled, name);
  return name;
}

std::string status_text(uint32_t code) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08x", code);
  return text;
}
