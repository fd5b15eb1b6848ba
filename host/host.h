// The host side of the plug-in: loading smtp.so (and the uuencode format
// manager uue.so beside it), configuring format managers, walking a
// message's item tree through the handlers, replacing items and writing
// the message anew level by level.
//
// Ownership follows the plug-in's calling order: a Plugin_library owns the
// loaded module and must outlive every manager and tree made from it; a
// Message_tree owns its copy of the message bytes, its item nodes and the
// handlers it opened, and releases the handlers child first. Buffers that a
// handler gives out stay the handler's.
//
// Line ends: the plug-in reads mail in canonical form (CR LF). A tree keeps
// the bytes it was given and hands the plug-in a canonical copy only where
// they have bare LF line ends; raw items, which are views of that copy, are
// mapped back to the given bytes by offset (original_bytes), and a message
// that nothing changed is written back as it came.
#ifndef SMTPFM_HOST_HOST_H_
#define SMTPFM_HOST_HOST_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "manager/handler_base.h"
#include "manager/manager_base.h"
#include "manager/refusal.h"
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
  bool keep_line_ends = false;  // false: the plug-in reads bare LF line ends as CR LF
  bool uuencode = true;         // offer items to uue.so too, when it stands beside smtp.so
  uint32_t max_depth = 64;      // items deeper than this are listed, not opened
};

// The FormatSubtype that each format manager publishes on an item it
// took, which is what a --policy list names: "SMTP" (smtp.so) and "UUE"
// (uue.so).
extern const char* const host_format_names[2];
// An empty string when every name of the policy list is one of
// host_format_names (any case) and there is at least one; else why not.
std::string policy_problem(const std::string& policy);

// Why the plug-in did not take an item as a message: in words, and the
// line that decided it.
struct Refusal {
  std::string reason;
  std::string line;          // the deciding line without its line end, at most 200 bytes
  uint32_t line_number = 0;  // from 1; 0 when no single line decided it
};
// smtp.so's diagnostic export "smtp_explain_refusal" (manager/refusal.h):
// returns 1 and fills the text when the bytes would not be taken, else 0.
using Refusal_explainer = int (*)(const char* data, size_t size, int hardened, Smtp_refusal_text* out);

// The element's name and type, by which the host asks for it.
extern const char16_t smtp_element_name[];
extern const Tav_guid smtp_element_type;

// The loaded plug-in and its element.
class Plugin_library {
 public:
  // Loads the module named by the options; null with `error` on failure.
  // A module path without a slash names a file in the working folder, as
  // every other path does.
  static std::unique_ptr<Plugin_library> load(const Host_options& options, std::string& error);
  // Loads the module at `path` and finds its element of that name and type.
  static std::unique_ptr<Plugin_library> load_element(const std::string& path, const char16_t* name,
                                                      const Tav_guid& type, std::string& error);
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

// The module that the registry in use (vek_registry_root) names for the
// element "Larkspire SMTP Message": its "ImagePath". False when none is
// registered.
bool registered_module(std::string& path);

// Releases a manager made by Plugin_library::create_manager.
struct Manager_releaser {
  void operator()(Fmg_manager_base* manager) const;
};
using Manager_ptr = std::unique_ptr<Fmg_manager_base, Manager_releaser>;

// The format managers a walk offers every item to, in turn, and the
// plug-in's explanation of a refusal when it exports one.
struct Format_managers {
  std::vector<Manager_ptr> managers;
  Refusal_explainer explain = nullptr;
};

// The modules of the host: smtp.so and, where the options ask for it and
// it stands beside smtp.so, uue.so. Must outlive every manager made.
class Host_plugins {
 public:
  static std::unique_ptr<Host_plugins> load(const Host_options& options, std::string& error);
  // One manager of each module, configured by the options, smtp.so's first.
  bool create_managers(const Host_options& options, Format_managers& out, std::string& error);
  Plugin_library& smtp() { return *libraries_.front(); }

 private:
  std::vector<std::unique_ptr<Plugin_library>> libraries_;
};

// One item of a message's tree.
struct Item_node {
  Item_node* parent = nullptr;
  uint32_t position = 0;  // the position the parent's get_item was called with
  uint32_t depth = 0;     // 0 for the top
  std::string path;       // positions joined by ".", empty for the top
  std::unique_ptr<Fmg_host_item> item;
  Vek_buffer* buffer = nullptr;  // the top's is the tree's; a child's is its parent handler's
  Fmg_handler_base* handler = nullptr;
  Fmg_manager_base* manager = nullptr;  // the manager that took it
  std::string handler_name;  // the handler's class, empty when not taken
  std::string policy_refused;  // the format that a manager took and the policy does not name
  uint32_t open_status = 0;
  bool depth_limited = false;
  std::string failure;  // an exception that a plug-in call threw
  std::vector<std::unique_ptr<Item_node>> children;

  // Nodes come from a pool: a walk makes one for every item and frees them
  // all together (see platform/fmg/block_pool.h).
  static void* operator new(size_t size);
  static void operator delete(void* block, size_t size) noexcept;

  bool taken() const { return handler != nullptr; }
  bool is_leaf() const { return handler == nullptr || children.empty(); }
  // The item's bytes; empty when it has no buffer.
  std::string_view bytes() const;
};

// A message opened through a manager and walked to its leaves.
class Message_tree {
 public:
  // Opens `bytes` (read as canonical unless the options say otherwise) and
  // walks it, offering each item to the managers in turn. The managers
  // must outlive the tree.
  Message_tree(const Format_managers& managers, std::string bytes, const Host_options& options);
  Message_tree(Fmg_manager_base& manager, std::string bytes, const Host_options& options);
  // The same on bytes that the caller keeps: unless they must be made
  // canonical they are read where they are, without a copy, and must
  // remain live and unchanged while the tree lives.
  struct Borrowed {};
  Message_tree(const Format_managers& managers, Borrowed, std::string_view bytes, const Host_options& options);
  Message_tree(Fmg_manager_base& manager, Borrowed, std::string_view bytes, const Host_options& options);
  ~Message_tree();
  Message_tree(const Message_tree&) = delete;
  Message_tree& operator=(const Message_tree&) = delete;

  Item_node& root() { return *root_; }
  // The bytes the plug-in reads: canonical where the given ones were not.
  std::string_view input() const { return input_; }
  // The bytes as they were given (or as replace_message set them).
  std::string_view original() const { return original_; }
  // The node's bytes as they stand in the given message where the node is
  // a view of the input; else (decoded or replaced items) node.bytes().
  std::string_view original_bytes(const Item_node& node) const;
  // Why a node that no manager took was not taken.
  Refusal refusal(const Item_node& node) const;
  const Host_options& options() const { return options_; }
  // The node of a path such as "1.0", or null.
  Item_node* find(const std::string& path);
  // Every node in walk order (parents before children), as the tree stood
  // when the walk began.
  template <class Visit>
  void for_each(Visit&& visit) {
    for (Item_node* node : walk_order(*root_)) visit(*node);
  }

  // Whether `node` may be replaced: its parent takes a new item there, and
  // every level above takes the rebuilt entity below it in turn.
  bool can_replace(const Item_node& node, std::string& error);
  // Hands `bytes` to the parent's handler in place of the node. The node's
  // own subtree is released first, since its handlers read the old buffer.
  bool replace(Item_node& node, std::string bytes, std::string& error);
  // Opens a replaced node again, as its parent now gives it, and walks it.
  bool reopen(Item_node& node, std::string& error);
  // Puts `bytes` (canonical) in place of the whole message and walks them.
  void replace_message(std::string bytes);
  // Rebuilds every level that is modified, children first, each rebuilt
  // item handed to its parent; `out` gets the top's bytes (the input as it
  // went in when nothing changed; where that had bare LF line ends only,
  // what the plug-in wrote gets them back, unless a line of it ends in a
  // CR of its own). After this the tree is spent. On a failure
  // `rebuild_status()` is the status that stopped it.
  bool rebuild(std::string& out, std::string& error);
  // Whether a rebuild would write anything but the given bytes: the
  // message was replaced, or a handler was changed or repaired something.
  bool changed();
  // The plug-in status of the last failed rebuild, 0 when none failed. A
  // writer may refuse a header line that opening passed (0xc2010508): the
  // message cannot be written again, and nothing of it is lost.
  uint32_t rebuild_status() const { return rebuild_status_; }

 private:
  void take_input(std::string_view given);
  void make_input_canonical();
  void set_root();
  void start();
  void walk(Item_node& top);
  // Walks the items below `top`, which is open.
  void descend(Item_node& top);
  void open_node(Item_node& node);
  // Offers the node to the managers in turn; whether one took it.
  bool offer(Item_node& node);
  // Lists the items of a node that a manager took.
  void open_items(Item_node& node);
  void release_subtree(Item_node& node);
  // The nodes of a subtree in walk order, parents before children.
  static std::vector<Item_node*> walk_order(Item_node& top);

  std::vector<Fmg_manager_base*> managers_;
  Refusal_explainer explain_ = nullptr;
  Host_options options_;
  std::string owned_original_;  // the given bytes when the tree holds them
  std::string_view original_;   // owned_original_ or the caller's bytes
  std::string owned_;           // the canonical copy, when one was needed
  std::string_view input_;      // owned_ or original_
  // Where the canonical copy has a CR that the given bytes lack, ascending.
  std::vector<uint64_t> added_cr_;
  // The given bytes had bare LF line ends and no CR LF at all.
  bool bare_lf_only_ = false;
  // The bytes are offered as given, and made canonical only if taken.
  bool copy_when_taken_ = false;
  bool message_replaced_ = false;
  std::unique_ptr<Vek_raw_memory_buffer> input_buffer_;
  std::unique_ptr<Item_node> root_;
  uint32_t rebuild_status_ = 0;
};

// Bare LF line ends become CR LF; CR LF pairs stay as they are. With
// `added`, the positions in the result of the CRs added.
std::string make_canonical(std::string_view bytes, std::vector<uint64_t>* added = nullptr);
// CR LF pairs become LF.
std::string bare_line_ends(std::string_view bytes);
// Whether every LF of `bytes` has a CR in front (make_canonical would
// change nothing).
bool is_canonical(std::string_view bytes);

// The demangled class name of a handler, such as "Smtp_rfc822_handler".
std::string handler_class_name(const Fmg_handler_base& handler);

// A status code as "0x%08x".
std::string status_text(uint32_t code);

#endif  // SMTPFM_HOST_HOST_H_
