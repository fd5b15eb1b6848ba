// The host side of the plug-in: loading smtp.so, configuring a format
// manager, walking a message's item tree through the handlers, replacing
// items and writing the message anew level by level.
//
// Ownership follows the plug-in's calling order: the Plugin_library owns
// the loaded module and must outlive every manager and tree made from it;
// a Message_tree owns its copy of the message bytes, its item nodes and the
// handlers it opened, and releases the handlers child first. Buffers that a
// handler gives out stay the handler's.
#ifndef SMTPFM_HOST_HOST_H_
#define SMTPFM_HOST_HOST_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "manager/handler_base.h"
#include "manager/manager_base.h"
#include "platform/fmg/host_item.h"
#include "platform/fmg/plg_loader.h"

struct Host_options {
  std::string module_path;  // empty: smtp.so beside the running program
  std::string registry;     // not empty: find the module through this registry
  std::vector<std::string> export_headers;
  bool add_body = false;
  std::string policy;
  bool hardened = false;        // the manager's "Hardened": every reading a mail client takes
  bool report_unexamined = true;  // the manager's "ReportUnexamined": body text in no sub-item, per item
  bool keep_line_ends = false;  // false: bare LF line ends become CR LF
  uint32_t max_depth = 64;      // items deeper than this are listed, not opened
};

// The element's name and type, by which the host asks for it.
extern const char16_t smtp_element_name[];
extern const Tav_guid smtp_element_type;

// The loaded plug-in and its element.
class Plugin_library {
 public:
  // Loads the module named by the options; null with `error` on failure.
  static std::unique_ptr<Plugin_library> load(const Host_options& options, std::string& error);
  // A new manager named "smtpfm" and configured by the options; the caller
  // ends it with release(). Null with `error` on failure.
  Fmg_manager_base* create_manager(const Host_options& options, std::string& error);
  // Whether the library may be unloaded (no manager alive).
  bool can_unload() const;
  Plg_module& module() { return *module_; }
  const std::string& path() const { return path_; }
  Plg_element& element() { return *element_; }

 private:
  Plugin_library() = default;
  std::unique_ptr<Plg_module> module_;
  std::string path_;
  Plg_element* element_ = nullptr;
};

// Releases a manager made by Plugin_library::create_manager.
struct Manager_releaser {
  void operator()(Fmg_manager_base* manager) const;
};
using Manager_ptr = std::unique_ptr<Fmg_manager_base, Manager_releaser>;

// One item of a message's tree.
struct Item_node {
  Item_node* parent = nullptr;
  uint32_t position = 0;  // the position the parent's get_item was called with
  uint32_t depth = 0;     // 0 for the top
  std::string path;       // positions joined by ".", empty for the top
  std::unique_ptr<Fmg_host_item> item;
  Vek_buffer* buffer = nullptr;  // the top's is the tree's; a child's is its parent handler's
  Fmg_handler_base* handler = nullptr;
  std::string handler_name;  // the handler's class, empty when not taken
  uint32_t open_status = 0;
  bool depth_limited = false;
  std::string failure;  // an exception that a plug-in call threw
  std::vector<std::unique_ptr<Item_node>> children;

  bool taken() const { return handler != nullptr; }
  bool is_leaf() const { return handler == nullptr || children.empty(); }
  // The item's bytes; empty when it has no buffer.
  std::string_view bytes() const;
};

// A message opened through a manager and walked to its leaves.
class Message_tree {
 public:
  // Opens `bytes` (made canonical unless the options say otherwise) and
  // walks it. The manager must outlive the tree.
  Message_tree(Fmg_manager_base& manager, std::string bytes, const Host_options& options);
  // The same on bytes that the caller keeps: unless they must be made
  // canonical they are read where they are, without a copy, and must
  // remain live and unchanged while the tree lives.
  struct Borrowed {};
  Message_tree(Fmg_manager_base& manager, Borrowed, std::string_view bytes, const Host_options& options);
  ~Message_tree();
  Message_tree(const Message_tree&) = delete;
  Message_tree& operator=(const Message_tree&) = delete;

  Item_node& root() { return *root_; }
  std::string_view input() const { return input_; }
  const Host_options& options() const { return options_; }
  // The node of a path such as "1.0", or null.
  Item_node* find(const std::string& path);
  // Every node in walk order (parents before children).
  void for_each(const std::function<void(Item_node&)>& visit);

  // Whether `node` may be replaced: its parent takes a new item there, and
  // every level above takes the rebuilt entity below it in turn.
  bool can_replace(const Item_node& node, std::string& error);
  // Hands `bytes` to the parent's handler in place of the node. The node's
  // own subtree is released first, since its handlers read the old buffer.
  bool replace(Item_node& node, std::string bytes, std::string& error);
  // Rebuilds every level that is modified, children first, each rebuilt
  // item handed to its parent; `out` gets the top's bytes (the input as it
  // went in when nothing changed). After this the tree is spent. On a
  // failure `rebuild_status()` is the status that stopped it.
  bool rebuild(std::string& out, std::string& error);
  // The plug-in status of the last failed rebuild, 0 when none failed. A
  // writer may refuse a header line that opening passed (0xc2010508): the
  // message cannot be written again, and nothing of it is lost.
  uint32_t rebuild_status() const { return rebuild_status_; }

 private:
  void start();
  void walk();
  void open_node(Item_node& node);
  void release_subtree(Item_node& node);

  Fmg_manager_base& manager_;
  Host_options options_;
  std::string owned_;        // the input when the tree holds it
  std::string_view input_;  // owned_ or the caller's bytes
  std::unique_ptr<Vek_raw_memory_buffer> input_buffer_;
  std::unique_ptr<Item_node> root_;
  uint32_t rebuild_status_ = 0;
};

// Bare LF line ends become CR LF; CR LF pairs stay as they are.
std::string make_canonical(std::string_view bytes);
// Whether every LF of `bytes` has a CR in front (make_canonical would
// change nothing).
bool is_canonical(std::string_view bytes);

// The demangled class name of a handler, such as "Smtp_rfc822_handler".
std::string handler_class_name(const Fmg_handler_base& handler);

// A status code as "0x%08x".
std::string status_text(uint32_t code);

#endif  // SMTPFM_HOST_HOST_H_
