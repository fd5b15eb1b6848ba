#include "host/host.h"

#include <cxxabi.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <typeinfo>
#include <utility>

#include "contracts/zor.h"
#include "manager/coverage.h"
#include "platform/fmg/block_pool.h"
#include "platform/vek/registry.h"

const char16_t smtp_element_name[] = u"Larkspire SMTP Message";
const Tav_guid smtp_element_type = {0xD00BCC02, 0x7BB8, 0x11D1, {0xA9, 0x3B, 0x00, 0xA0, 0xC9, 0x43, 0x08, 0x65}};
const char* const host_format_names[2] = {"SMTP", "UUE"};

namespace {

// The uuencode format manager's module and element.
constexpr char uue_module_name[] = "uue.so";
constexpr char16_t uue_element_name[] = u"Larkspire UUE Data";
constexpr Tav_guid uue_element_type = {0xD00BCC03, 0x7BB8, 0x11D1, {0xA9, 0x3B, 0x00, 0xA0, 0xC9, 0x43, 0x08, 0x65}};

using Get_factory = Plg_element* (*)(const char16_t*, const Tav_guid*);
using Can_unload = int (*)();

std::string program_folder() {
  char path[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", path, sizeof path);
  if (n <= 0) return ".";
  return std::filesystem::path(std::string(path, n)).parent_path().string();
}

// The module's path as the registry in `folder` has it.
bool module_from_registry(const std::string& folder, std::string& path, std::string& error) {
  vek_set_registry_root(folder);
  if (registered_module(path)) return true;
  error = "the registry in " + folder + " has no ImagePath for the element \"Larkspire SMTP Message\"";
  return false;
}

// The line ends of a text: LF alone, and CR LF.
struct Line_ends {
  size_t bare = 0;
  size_t crlf = 0;
};

Line_ends count_line_ends(std::string_view bytes) {
  Line_ends ends;
  for (const char* at = bytes.data(); const void* lf = std::memchr(at, '\n', bytes.data() + bytes.size() - at);) {
    const char* found = static_cast<const char*>(lf);
    ++(found > bytes.data() && found[-1] == '\r' ? ends.crlf : ends.bare);
    at = found + 1;
  }
  return ends;
}

// `bytes` with a CR put in front of each bare LF, made in one allocation;
// the CRs' positions go to `added`, also sized once.
std::string canonical_copy(std::string_view bytes, const Line_ends& ends, std::vector<uint64_t>* added) {
  std::string out;
  out.reserve(bytes.size() + ends.bare);
  if (added != nullptr) added->reserve(ends.bare);
  size_t start = 0;
  while (start < bytes.size()) {
    const void* lf = std::memchr(bytes.data() + start, '\n', bytes.size() - start);
    if (lf == nullptr) break;
    size_t at = static_cast<const char*>(lf) - bytes.data();
    out.append(bytes, start, at - start);
    if (at == 0 || bytes[at - 1] != '\r') {
      if (added != nullptr) added->push_back(out.size());
      out.push_back('\r');
    }
    out.push_back('\n');
    start = at + 1;
  }
  out.append(bytes, start, std::string_view::npos);
  return out;
}

// Whether CR LF line ends of `bytes` can become LF and be read back as the
// same bytes: every LF has a CR in front, and that CR none (a field that
// ends in a CR of its own would lose it).
bool maps_back(std::string_view bytes) {
  for (const char* at = bytes.data(); const void* lf = std::memchr(at, '\n', bytes.data() + bytes.size() - at);) {
    const char* found = static_cast<const char*>(lf);
    const size_t before = static_cast<size_t>(found - bytes.data());
    if (before == 0 || found[-1] != '\r' || (before >= 2 && found[-2] == '\r')) return false;
    at = found + 1;
  }
  return true;
}

// The longest field name that the quick look below accepts: longer ones
// are no names a mailer writes.
constexpr size_t longest_field_name = 76;

// A quick look at the first line, which decides only the order of the
// work, never what is taken: whether it is an envelope line ("From ") or
// a field name (a letter, then printable bytes, no blank) and its colon.
// A log's time stamp ("2026-03-02T09:16:18") is no name a mailer writes.
bool begins_as_mail(std::string_view bytes) {
  if (bytes.starts_with("From ")) return true;
  const std::string_view head = bytes.substr(0, longest_field_name + 1);
  const size_t colon = head.find(':');
  const char first = static_cast<char>(head.empty() ? 0 : head[0] | 0x20);
  if (colon == std::string_view::npos || first < 'a' || first > 'z') return false;
  for (size_t i = 0; i < colon; ++i)
    if (head[i] <= ' ' || head[i] > '~') return false;
  return true;
}

}  // namespace

bool registered_module(std::string& path) {
  Vek_wstring type_text;
  tav_type_to_string(smtp_element_type, type_text);
  Vek_wstring key = Vek_wstring(u"Software\\Tarnwell Systems\\Plugins\\") + smtp_element_name + u"\\" + type_text;
  auto values = vek_read_reg_key(HKEY_LOCAL_MACHINE, key);
  if (!values) return false;
  for (const auto& value : *values) {
    if (value.is_string && value.name == u"ImagePath") {
      path = vek_utf16_to_utf8(value.text);
      return true;
    }
  }
  return false;
}

std::string policy_problem(const std::string& policy) {
  size_t names = 0;
  for (size_t start = 0; start <= policy.size();) {
    size_t end = policy.find_first_of(",;", start);
    if (end == std::string::npos) end = policy.size();
    std::string name = policy.substr(start, end - start);
    name.erase(0, name.find_first_not_of(" \t"));
    name.erase(name.find_last_not_of(" \t") + 1);
    start = end + 1;
    if (name.empty()) continue;
    ++names;
    bool known = false;
    for (const char* format : host_format_names) known = known || vek_string_equal_nc(name, format);
    if (!known) return "\"" + name + "\" is no format; a policy lists SMTP and UUE, separated by commas";
  }
  if (names == 0) return "the list names no format; a policy lists SMTP and UUE, separated by commas";
  return {};
}

std::unique_ptr<Plugin_library> Plugin_library::load(const Host_options& options, std::string& error) {
  std::string path = options.module_path;
  if (path.empty() && !options.registry.empty()) {
    if (!module_from_registry(options.registry, path, error)) return nullptr;
  }
  if (path.empty()) path = program_folder() + "/smtp.so";
  // dlopen searches the library path for a name without a slash; a user
  // who writes "--module smtp.so" means the file here.
  if (path.find('/') == std::string::npos) path = "./" + path;
  return load_element(path, smtp_element_name, smtp_element_type, error);
}

std::unique_ptr<Plugin_library> Plugin_library::load_element(const std::string& path, const char16_t* name,
                                                             const Tav_guid& type, std::string& error) {
  std::unique_ptr<Plugin_library> library(new Plugin_library);
  library->module_ = Plg_module::load(path, error);
  if (!library->module_) return nullptr;
  library->path_ = path;
  auto get_factory = library->module_->function<Get_factory>("plg_get_factory");
  if (get_factory == nullptr) {
    error = path + ": not a plug-in (no plg_get_factory)";
    return nullptr;
  }
  library->element_ = get_factory(name, &type);
  if (library->element_ == nullptr) {
    error = path + ": has no element \"" + vek_utf16_to_utf8(name) + "\" of its type";
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

std::unique_ptr<Host_plugins> Host_plugins::load(const Host_options& options, std::string& error) {
  std::unique_ptr<Host_plugins> plugins(new Host_plugins);
  auto smtp = Plugin_library::load(options, error);
  if (!smtp) return nullptr;
  const std::filesystem::path uue = std::filesystem::path(smtp->path()).parent_path() / uue_module_name;
  plugins->libraries_.push_back(std::move(smtp));
  std::error_code missing;
  if (options.uuencode && std::filesystem::exists(uue, missing)) {
    auto library = Plugin_library::load_element(uue.string(), uue_element_name, uue_element_type, error);
    if (!library) return nullptr;
    plugins->libraries_.push_back(std::move(library));
  }
  return plugins;
}

bool Host_plugins::create_managers(const Host_options& options, Format_managers& out, std::string& error) {
  out.managers.clear();
  for (auto& library : libraries_) {
    Manager_ptr manager(library->create_manager(options, error));
    if (!manager) return false;
    out.managers.push_back(std::move(manager));
  }
  out.explain = smtp().module().function<Refusal_explainer>("smtp_explain_refusal");
  return true;
}

void* Item_node::operator new(size_t size) { return pooled_new<Item_node>(size); }

void Item_node::operator delete(void* block, size_t size) noexcept { pooled_delete<Item_node>(block, size); }

std::string_view Item_node::bytes() const {
  if (buffer == nullptr || buffer->size() == 0) return {};
  return std::string_view(reinterpret_cast<const char*>(buffer->data()), buffer->size());
}

Message_tree::Message_tree(const Format_managers& managers, std::string bytes, const Host_options& options)
    : explain_(managers.explain), options_(options) {
  for (const auto& manager : managers.managers) managers_.push_back(manager.get());
  owned_original_ = std::move(bytes);
  take_input(owned_original_);
  start();
}

Message_tree::Message_tree(Fmg_manager_base& manager, std::string bytes, const Host_options& options)
    : managers_{&manager}, options_(options) {
  owned_original_ = std::move(bytes);
  take_input(owned_original_);
  start();
}

Message_tree::Message_tree(const Format_managers& managers, Borrowed, std::string_view bytes,
                           const Host_options& options)
    : explain_(managers.explain), options_(options) {
  for (const auto& manager : managers.managers) managers_.push_back(manager.get());
  take_input(bytes);
  start();
}

Message_tree::Message_tree(Fmg_manager_base& manager, Borrowed, std::string_view bytes, const Host_options& options)
    : managers_{&manager}, options_(options) {
  take_input(bytes);
  start();
}

void Message_tree::take_input(std::string_view given) {
  original_ = given;
  input_ = given;
  if (options_.keep_line_ends) return;
  // Recognition reads a line alike whether it ends in LF or in CR LF, so
  // the bytes as given decide whether a manager takes them. Bytes that do
  // not begin as mail does are offered as they are: an item that is no
  // mail is refused having touched only the pages that recognition read,
  // and is copied only if a manager takes it after all. What begins as
  // mail is made canonical first, so that it is not opened twice.
  copy_when_taken_ = !begins_as_mail(given);
  if (!copy_when_taken_) make_input_canonical();
}

void Message_tree::make_input_canonical() {
  // Most mail is canonical already: then the plug-in reads the bytes as
  // they came, and a large message is not held twice.
  if (is_canonical(original_)) return;
  const Line_ends ends = count_line_ends(original_);
  owned_ = canonical_copy(original_, ends, &added_cr_);
  input_ = owned_;
  bare_lf_only_ = ends.crlf == 0;
}

void Message_tree::set_root() {
  // Method 0: the block stays the tree's (or the caller's); the plug-in
  // only reads it.
  input_buffer_ = std::make_unique<Vek_raw_memory_buffer>(input_.size(), input_.data(), 0);
  root_ = std::make_unique<Item_node>();
  root_->item = std::make_unique<Fmg_host_item>();
  root_->buffer = input_buffer_.get();
}

void Message_tree::start() {
  set_root();
  if (!copy_when_taken_) {
    walk(*root_);
    return;
  }
  copy_when_taken_ = false;
  if (!offer(*root_)) return;
  if (!is_canonical(original_)) {
    // Taken as given: opened again on the canonical copy, from a new item.
    root_->handler->release();
    root_->handler = nullptr;
    make_input_canonical();
    set_root();
    if (!offer(*root_)) return;
  }
  open_items(*root_);
  descend(*root_);
}

Message_tree::~Message_tree() { release_subtree(*root_); }

void Message_tree::walk(Item_node& top) {
  open_node(top);
  descend(top);
}

void Message_tree::descend(Item_node& top) {
  // Depth first with an explicit stack: nesting is bounded by max_depth,
  // not by the program's stack.
  std::vector<Item_node*> stack;
  for (auto it = top.children.rbegin(); it != top.children.rend(); ++it) stack.push_back(it->get());
  while (!stack.empty()) {
    Item_node* node = stack.back();
    stack.pop_back();
    open_node(*node);
    for (auto it = node->children.rbegin(); it != node->children.rend(); ++it) stack.push_back(it->get());
  }
}

void Message_tree::open_node(Item_node& node) {
  if (offer(node)) open_items(node);
}

bool Message_tree::offer(Item_node& node) {
  if (node.depth > options_.max_depth) {
    node.depth_limited = true;
    return false;
  }
  if (node.parent != nullptr) {
    // A part that holds a message is offered to the manager as a message.
    if (vek_string_equal_nc(node.item->string_view_property(ZOR_MIME_TYPE), u"message") &&
        vek_string_equal_nc(node.item->string_view_property(ZOR_MIME_SUBTYPE), u"rfc822"))
      node.item->add_property(Tav_property(ZOR_MESSAGE_ITEM, true));
  }
  if (node.buffer == nullptr) return false;
  // Every manager in turn, until one takes the item. The status is the
  // taker's, or the first failure of those that did not take it.
  for (Fmg_manager_base* manager : managers_) {
    Vek_status status;
    try {
      node.handler = manager->open(node.buffer, *node.item, status);
    } catch (const std::exception& e) {
      node.failure = std::string("open: ") + e.what();
      return false;
    }
    if (node.handler == nullptr) {
      if (node.open_status == 0) node.open_status = status.value();
      continue;
    }
    node.open_status = status.value();
    node.manager = manager;
    // A policy names the formats the host lets its managers open.
    if (options_.policy.empty()) break;
    const Vek_wstring format = node.item->string_property(ZOR_FORMAT_SUBTYPE);
    if (!manager->accept(format)) {
      node.handler->release();
      node.handler = nullptr;
      node.manager = nullptr;
      node.policy_refused = vek_utf16_to_utf8(format);
      continue;
    }
    break;
  }
  return node.handler != nullptr;
}

void Message_tree::open_items(Item_node& node) {
  Vek_status status;
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
  std::vector<Item_node*> order = walk_order(node);
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

std::vector<Item_node*> Message_tree::walk_order(Item_node& top) {
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

bool Message_tree::reopen(Item_node& node, std::string& error) {
  if (node.parent == nullptr || node.parent->handler == nullptr) {
    error = "only an item of a handler can be opened again";
    return false;
  }
  release_subtree(node);
  auto item = std::make_unique<Fmg_host_item>(node.parent->item.get());
  uint32_t position = node.position;
  Vek_status status;
  Vek_buffer* buffer = nullptr;
  try {
    buffer = node.parent->handler->get_item(position, *item, status);
  } catch (const std::exception& e) {
    error = std::string("item ") + node.path + ": " + e.what();
    return false;
  }
  if (!status.ok()) {
    error = "item " + node.path + " could not be read again: " + status_text(status.value());
    return false;
  }
  node.item = std::move(item);
  node.buffer = buffer;
  node.manager = nullptr;
  node.handler_name.clear();
  node.policy_refused.clear();
  node.open_status = 0;
  node.depth_limited = false;
  node.failure.clear();
  walk(node);
  return true;
}

void Message_tree::replace_message(std::string bytes) {
  release_subtree(*root_);
  owned_original_ = std::move(bytes);
  owned_.clear();
  added_cr_.clear();
  original_ = input_ = owned_original_;
  message_replaced_ = true;
  start();
}

std::string_view Message_tree::original_bytes(const Item_node& node) const {
  const std::string_view bytes = node.bytes();
  if (added_cr_.empty() || bytes.empty()) return bytes;
  const auto at = reinterpret_cast<uintptr_t>(bytes.data());
  const auto base = reinterpret_cast<uintptr_t>(input_.data());
  if (at < base || at + bytes.size() > base + input_.size()) return bytes;
  // Every CR added in front of a position moved it on by one.
  auto given = [&](uint64_t position) {
    return position - (std::lower_bound(added_cr_.begin(), added_cr_.end(), position) - added_cr_.begin());
  };
  const uint64_t begin = given(at - base);
  return original_.substr(begin, given(at - base + bytes.size()) - begin);
}

Refusal Message_tree::refusal(const Item_node& node) const {
  Refusal refusal;
  if (node.depth_limited) {
    refusal.reason = "not opened: deeper than the depth bound (--max-depth " + std::to_string(options_.max_depth) + ")";
  } else if (!node.failure.empty()) {
    refusal.reason = "a call of the plug-in failed: " + node.failure;
  } else if (!node.policy_refused.empty()) {
    refusal.reason = "the policy does not name its format " + node.policy_refused;
  } else if (vek_string_equal_nc(node.item->string_property(ZOR_ITEM_CHARSET), u"UNICODE")) {
    refusal.reason = "an exported header field, which is text the plug-in made";
  } else if (node.open_status != 0) {
    refusal.reason = "it could not be read (" + status_text(node.open_status) + ")";
  } else if (explain_ != nullptr) {
    const std::string_view bytes = node.bytes();
    Smtp_refusal_text text{};
    if (explain_(bytes.data(), bytes.size(), options_.hardened ? 1 : 0, &text) != 0) {
      refusal.reason = text.reason;
      refusal.line.assign(text.line, text.line_length);
      refusal.line_number = text.line_number;
    } else {
      refusal.reason = "no format manager takes it";
    }
  } else {
    refusal.reason = "no format manager takes it";
  }
  return refusal;
}

bool Message_tree::changed() {
  if (message_replaced_) return true;
  for (Item_node* node : walk_order(*root_)) {
    Vek_status status;
    try {
      if (node->handler != nullptr && node->handler->is_modified(*node->item, status)) return true;
    } catch (const std::exception&) {
      return true;  // rebuild will say what failed
    }
  }
  return false;
}

bool Message_tree::rebuild(std::string& out, std::string& error) {
  std::vector<Item_node*> order = walk_order(*root_);
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
      const std::unique_ptr<Vek_buffer> top(rebuilt);
      const std::string_view written(reinterpret_cast<const char*>(top->data()), top->size());
      // Mail that came with bare LF line ends (a Unix mailbox, a Maildir)
      // goes back with them, where they read back as what was written.
      out = bare_lf_only_ && maps_back(written) ? bare_line_ends(written) : std::string(written);
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
  // Nothing changed at the top: the message as it came, or as it was put
  // in place of the whole.
  out = message_replaced_ && bare_lf_only_ && maps_back(original_) ? bare_line_ends(original_)
                                                                    : std::string(original_);
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

std::string make_canonical(std::string_view bytes, std::vector<uint64_t>* added) {
  return canonical_copy(bytes, count_line_ends(bytes), added);
}

std::string bare_line_ends(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  size_t start = 0;
  for (size_t at; (at = bytes.find("\r\n", start)) != std::string_view::npos; start = at + 2)
    out.append(bytes, start, at - start).push_back('\n');
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
