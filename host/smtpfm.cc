// smtpfm: the command-line host of the SMTP format manager.
//
// It loads smtp.so as the mail content security host would, hands it
// messages, and shows, extracts, replaces and rewrites what the plug-in
// finds. Messages are made canonical (CR LF line ends) before they are
// opened, unless --keep-line-ends says otherwise.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "contracts/zor.h"
#include "host/host.h"
#include "host/report.h"
#include "host/scan.h"
#include "milter/commands.h"
#include "platform/vek/registry.h"

namespace fs = std::filesystem;

namespace {

// A failure that ends the command with one line on stderr.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// "-" is standard input.
std::string read_file(const std::string& path) {
  std::ostringstream bytes;
  if (path == "-") {
    bytes << std::cin.rdbuf();
    if (std::cin.bad()) throw Failure("standard input: cannot read");
    return bytes.str();
  }
  std::error_code error;
  if (fs::is_directory(path, error)) throw Failure(path + ": is a folder, not a message");
  std::ifstream in(path, std::ios::binary);
  if (!in) throw Failure(path + ": cannot open: " + std::strerror(errno));
  bytes << in.rdbuf();
  if (in.bad()) throw Failure(path + ": cannot read");
  return bytes.str();
}

// Writes `bytes` where a Unix tool would: "-" is standard output; a path
// that exists and is no regular file (a terminal, a pipe, /dev/stdout) is
// written in place; a symbolic link is written through, never replaced.
// Only a regular file (or a new one) is replaced through a temporary file
// beside it, so that a failure leaves the old file or no file.
void write_file(const std::string& given, std::string_view bytes) {
  if (given == "-") {
    std::cout.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    std::cout.flush();
    if (!std::cout) throw Failure("standard output: cannot write");
    return;
  }
  std::error_code error;
  const fs::file_status status = fs::status(given, error);  // through links
  if (fs::exists(status) && !fs::is_regular_file(status)) {
    if (fs::is_directory(status)) throw Failure(given + ": is a folder");
    std::ofstream out(given, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.flush();
    if (!out) throw Failure(given + ": cannot write: " + std::strerror(errno));
    return;
  }
  // Follow links by hand: a link may name a file that does not exist yet.
  fs::path path = given;
  for (int hops = 0; fs::is_symlink(fs::symlink_status(path, error)); ++hops) {
    fs::path target = fs::read_symlink(path, error);
    if (error || hops == 40) throw Failure(given + ": cannot follow the link");
    path = target.is_absolute() ? target : path.parent_path() / target;
  }
  std::string temporary = path.string() + ".smtpfm-tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    if (!out) throw Failure(given + ": cannot write: " + std::strerror(errno));
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.flush();
    if (!out) {
      out.close();
      fs::remove(temporary);
      throw Failure(given + ": cannot write");
    }
  }
  error.clear();
  fs::rename(temporary, path, error);
  if (error) {
    fs::remove(temporary);
    throw Failure(given + ": cannot write: " + error.message());
  }
}

// The loaded plug-in with one manager, for the one-message commands.
struct Session {
  explicit Session(const Host_options& options) : options(options) {
    std::string error;
    library = Plugin_library::load(options, error);
    if (!library) throw Failure(error);
    manager.reset(library->create_manager(options, error));
    if (!manager) throw Failure(error);
  }
  std::unique_ptr<Message_tree> open(const std::string& file) {
    return std::make_unique<Message_tree>(*manager, read_file(file), options);
  }
  Host_options options;
  std::unique_ptr<Plugin_library> library;
  Manager_ptr manager;  // released before the library unloads
};

void add_host_options(CLI::App* command, Host_options& options) {
  command->add_option("--module", options.module_path, "The plug-in to load (default: smtp.so beside smtpfm)");
  command->add_option("--registry", options.registry, "Find the plug-in through the registry in this folder");
  command->add_option("--export-header", options.export_headers, "Give this header field as a sub-item")
      ->take_all();
  command->add_flag("--add-body", options.add_body, "Add an empty text body to a message that has none");
  command->add_option("--policy", options.policy, "The manager's policy list");
  command->add_flag("--strict{false},--hardened{true}", options.hardened,
                    "--strict: the reference reading, which mail shaped to hide content can slip past; "
                    "--hardened (default): every reading a mail client takes");
  command->add_flag("--keep-line-ends", options.keep_line_ends, "Do not turn bare LF line ends into CR LF");
  command->add_option("--max-depth", options.max_depth, "Open items down to this depth (default 64)");
}

int run_tree(const Host_options& options, const std::vector<std::string>& files, bool json) {
  Session session(options);
  for (const auto& file : files) {
    auto tree = session.open(file);
    if (json)
      std::cout << tree_json(*tree, file).dump() << '\n';
    else
      std::cout << tree_text(*tree, file);
  }
  return 0;
}

int run_extract(const Host_options& options, const std::string& file, const std::string& folder) {
  Session session(options);
  auto tree = session.open(file);
  std::error_code error;
  fs::create_directories(folder, error);
  if (error) throw Failure(folder + ": cannot create: " + error.message());
  Json items = Json::array();
  tree->for_each([&](Item_node& node) {
    if (!node.is_leaf()) return;
    std::string name = leaf_file_name(node);
    write_file((fs::path(folder) / name).string(), node.bytes());
    Json properties = Json::array();
    for (const auto& property : node.item->properties())
      properties.push_back(Json::array({vek_utf16_to_utf8(property.name()), property_json(property)}));
    items.push_back(
        Json{{"path", node.path}, {"file", name}, {"length", node.bytes().size()}, {"properties", properties}});
  });
  Json manifest{{"file", file}, {"items", items}};
  write_file((fs::path(folder) / "manifest.json").string(), manifest.dump(2) + "\n");
  std::cerr << "extracted " << items.size() << " items to " << folder << '\n';
  return 0;
}

void rebuild_into(Message_tree& tree, const std::string& out) {
  std::string bytes, error;
  if (!tree.rebuild(bytes, error)) throw Failure(error);
  write_file(out, bytes);
}

int run_replace(const Host_options& options, const std::string& file, const std::string& path,
                const std::string& with, const std::string& out) {
  Session session(options);
  auto tree = session.open(file);
  std::string replacement = read_file(with);
  Item_node* node = tree->find(path);
  if (node == nullptr) throw Failure(file + ": no item " + (path.empty() ? "\"\"" : path));
  std::string error;
  if (!tree->replace(*node, std::move(replacement), error)) throw Failure(error);
  rebuild_into(*tree, out);
  return 0;
}

int run_rebuild(const Host_options& options, const std::string& file, const std::string& out) {
  Session session(options);
  auto tree = session.open(file);
  rebuild_into(*tree, out);
  return 0;
}

bool is_attachment(const Item_node& node) {
  for (const Item_node* at = &node; at != nullptr; at = at->parent) {
    const Tav_property* type = at->item->properties().find(ZOR_ITEM_TYPE);
    if (type != nullptr && type->string_value() == ZOR_ATTACHMENT_ITEM) return true;
  }
  return false;
}

int run_disarm(const Host_options& options, const std::string& file, const std::string& out,
               const std::string& notice) {
  Session session(options);
  auto tree = session.open(file);
  std::vector<Item_node*> targets;
  tree->for_each([&](Item_node& node) {
    if (node.parent != nullptr && node.is_leaf() && is_attachment(node)) targets.push_back(&node);
  });
  size_t replaced = 0;
  for (Item_node* node : targets) {
    std::string label = node->path;
    if (const Tav_property* name = node->item->properties().find(ZOR_ITEM_NAME))
      label += " \"" + property_text(*name) + "\"";
    std::string error;
    if (tree->replace(*node, notice + "\r\n", error)) {
      ++replaced;
      std::cerr << "replaced " << label << '\n';
    } else {
      std::cerr << "kept " << label << ": " << error << '\n';
    }
  }
  rebuild_into(*tree, out);
  std::cerr << "disarmed " << replaced << " of " << targets.size() << " attachment items\n";
  return 0;
}

int run_register(const Host_options& options, bool remove) {
  Host_options load = options;
  load.registry.clear();  // the module is the one given or the one beside us
  if (!options.registry.empty()) vek_set_registry_root(options.registry);
  std::string error;
  auto library = Plugin_library::load(load, error);
  if (!library) throw Failure(error);
  const char* name = remove ? "plg_deregister_elements" : "plg_register_elements";
  auto function = library->module().function<bool (*)()>(name);
  if (function == nullptr) throw Failure(library->path() + ": has no " + name);
  if (!function()) throw Failure(std::string(remove ? "deregistration" : "registration") + " failed in " +
                                 vek_registry_root());
  std::cout << (remove ? "deregistered " : "registered ") << library->path() << " in " << vek_registry_root()
            << '\n';
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"smtpfm: see, extract, replace and rewrite what the SMTP format manager finds in mail"};
  app.require_subcommand(1);
  app.set_version_flag("--version", "smtpfm " SMTPFM_VERSION);
  Host_options options;
  options.hardened = true;  // --strict asks for the reference reading

  auto* tree = app.add_subcommand("tree", "Print the item tree of each message");
  std::vector<std::string> tree_files;
  bool json = false;
  tree->add_option("files", tree_files, "Messages")->required();
  tree->add_flag("--json", json, "One JSON document per message, one per line");
  add_host_options(tree, options);

  auto* extract = app.add_subcommand("extract", "Write every leaf item and a manifest.json to a folder");
  std::string file, out, item_path, with, notice = "This attachment was removed by smtpfm.";
  extract->add_option("file", file, "Message")->required();
  extract->add_option("-o,--output", out, "Folder")->required();
  add_host_options(extract, options);

  auto* replace = app.add_subcommand("replace", "Replace one item and write the rebuilt message");
  replace->add_option("file", file, "Message")->required();
  replace->add_option("--item", item_path, "The item's path, as in the tree (\"1.0\")")->required();
  replace->add_option("--with", with, "File with the new bytes")->required();
  replace->add_option("-o,--output", out, "Output file")->required();
  add_host_options(replace, options);

  auto* rebuild = app.add_subcommand("rebuild", "Write the message anew where the plug-in repaired it");
  rebuild->add_option("file", file, "Message")->required();
  rebuild->add_option("-o,--output", out, "Output file")->required();
  add_host_options(rebuild, options);

  auto* disarm = app.add_subcommand("disarm", "Replace every attachment that may be changed with a notice");
  disarm->add_option("file", file, "Message")->required();
  disarm->add_option("-o,--output", out, "Output file")->required();
  disarm->add_option("--notice", notice, "The text that stands in for an attachment");
  add_host_options(disarm, options);

  auto* scan = app.add_subcommand("scan", "Open many messages: files, folders (Maildir) and mbox files");
  std::vector<std::string> scan_paths;
  unsigned jobs = 1;
  std::string json_lines;
  scan->add_option("paths", scan_paths, "Files and folders")->required();
  scan->add_option("-j,--jobs", jobs, "Worker threads, each with a manager of its own")->check(CLI::Range(1, 256));
  scan->add_option("--json-lines", json_lines, "Write the tree --json document of every message to this file");
  add_host_options(scan, options);

  auto* reg = app.add_subcommand("register", "Announce the plug-in in the registry");
  reg->add_option("--registry", options.registry, "The registry's folder");
  reg->add_option("--module", options.module_path, "The plug-in to register");
  auto* dereg = app.add_subcommand("deregister", "Withdraw the plug-in from the registry");
  dereg->add_option("--registry", options.registry, "The registry's folder");
  dereg->add_option("--module", options.module_path, "The plug-in to deregister");

  // check, filter and milter run from their callbacks during the parse.
  add_mail_server_commands(app, options);

  CLI11_PARSE(app, argc, argv);
  try {
    if (*tree) return run_tree(options, tree_files, json);
    if (*extract) return run_extract(options, file, out);
    if (*replace) return run_replace(options, file, item_path, with, out);
    if (*rebuild) return run_rebuild(options, file, out);
    if (*disarm) return run_disarm(options, file, out, notice);
    if (*scan) return run_scan(options, scan_paths, jobs, json_lines);
    if (*reg) return run_register(options, false);
    if (*dereg) return run_register(options, true);
  } catch (const Failure& failure) {
    std::cerr << "smtpfm: " << failure.what() << '\n';
    return 1;
  } catch (const std::exception& e) {
    std::cerr << "smtpfm: " << e.what() << '\n';
    return 1;
  }
  return 0;
}
