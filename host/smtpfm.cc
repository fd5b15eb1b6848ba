// smtpfm: the command-line host of the SMTP format manager.
//
// It loads smtp.so (and uue.so beside it) as the mail content security
// host would, hands it messages, and shows, extracts, replaces, disarms
// and rewrites what the plug-ins find. The plug-in reads bare LF line ends
// as CR LF; what is written keeps the line ends the input had.
#include <CLI/CLI.hpp>
#include <cstring>
#include <filesystem>
#include <iostream>

#include "contracts/zor.h"
#include "host/command.h"
#include "host/disarm.h"
#include "host/files.h"
#include "host/host.h"
#include "host/names.h"
#include "host/report.h"
#include "host/scan.h"
#include "host/sha256.h"
#include "milter/commands.h"
#include "platform/vek/registry.h"

namespace fs = std::filesystem;

namespace {

// The exit status of disarm when attachments remain in the message.
constexpr int exit_attachments_remain = 2;

// Prints a failure of one input of a command that goes on with the others.
void report(const std::exception& failure) {
  std::cerr << "smtpfm: " << escaped_for_terminal(failure.what()) << '\n';
}

int run_tree(const Host_options& options, const std::vector<std::string>& files, bool json) {
  Host_session session(options);
  bool failed = false;
  for (const auto& file : files) {
    try {
      auto tree = session.open(file);
      if (json)
        std::cout << json_line(tree_json(*tree, file)) << '\n';
      else
        std::cout << tree_text(*tree, file);
      std::cout.flush();
    } catch (const Command_failure& failure) {
      report(failure);
      failed = true;
    }
  }
  return failed ? 1 : 0;
}

// Makes `folder` ready for an extract: created when missing; a folder
// that holds an earlier extract loses the files its manifest lists; any
// other file in it is refused, so that nothing old stands beside the new.
void prepare_folder(const fs::path& folder) {
  std::error_code error;
  fs::create_directories(folder, error);
  if (error) throw Command_failure(folder.string() + ": cannot create: " + error.message());
  const fs::path manifest = folder / "manifest.json";
  if (fs::exists(manifest, error)) {
    Json earlier = Json::parse(read_file(manifest.string()), nullptr, false);
    if (earlier.is_object() && earlier["items"].is_array()) {
      for (const Json& item : earlier["items"]) {
        if (!item.contains("file") || !item["file"].is_string()) continue;
        const std::string name = item["file"];
        if (name.find('/') == std::string::npos && name != "." && name != "..") fs::remove(folder / name, error);
      }
    }
    fs::remove(manifest, error);
  }
  if (!fs::is_empty(folder, error))
    throw Command_failure(folder.string() + ": holds files that no earlier extract wrote; give an empty folder");
}

// An exported header field reaches the host as UTF-16 text; on disk it is
// UTF-8, as a person reads it.
std::string file_bytes(const Message_tree& tree, const Item_node& node) {
  const std::string_view bytes = tree.original_bytes(node);
  if (!vek_string_equal_nc(node.item->string_property(ZOR_ITEM_CHARSET), u"UNICODE")) return std::string(bytes);
  std::u16string text(bytes.size() / 2, u'\0');
  std::memcpy(text.data(), bytes.data(), text.size() * 2);
  return readable_text(text);
}

void extract_one(const Host_session& session, const std::string& file, const fs::path& folder) {
  auto tree = session.open(file);
  prepare_folder(folder);
  Json items = Json::array();
  tree->for_each([&](Item_node& node) {
    if (!node.is_leaf()) return;
    const std::string name = leaf_file_name(node);
    const std::string bytes = file_bytes(*tree, node);
    write_file((folder / name).string(), bytes);
    Json properties = Json::array();
    for (const auto& property : node.item->properties())
      properties.push_back(Json::array({vek_utf16_to_utf8(property.name()), property_json(property)}));
    items.push_back(Json{{"path", node.path},
                         {"file", name},
                         {"length", bytes.size()},
                         {"sha256", sha256_hex(bytes)},
                         {"properties", properties}});
  });
  Json manifest{{"file", file}, {"items", items}};
  write_file((folder / "manifest.json").string(), manifest.dump(2, ' ', false, Json::error_handler_t::replace) + "\n");
  std::cerr << "extracted " << items.size() << " items of " << escaped_for_terminal(file) << " to "
            << escaped_for_terminal(folder.string()) << '\n';
}

// One message into the folder; several each into a folder of its own in it.
int run_extract(const Host_options& options, const std::vector<std::string>& files, const std::string& folder) {
  Host_session session(options);
  bool failed = false;
  for (size_t i = 0; i < files.size(); ++i) {
    fs::path target = folder;
    if (files.size() > 1)
      target /= safe_file_name(std::to_string(i + 1), files[i] == "-" ? "stdin" : fs::path(files[i]).filename().string());
    try {
      extract_one(session, files[i], target);
    } catch (const std::exception& failure) {
      report(failure);
      failed = true;
    }
  }
  return failed ? 1 : 0;
}

void rebuild_into(Message_tree& tree, const std::string& out) {
  // A large message is not copied once more only to be written as it came.
  if (!tree.changed()) {
    write_file(out, tree.original());
    return;
  }
  std::string bytes, error;
  if (!tree.rebuild(bytes, error)) throw Command_failure(error);
  write_file(out, bytes);
}

int run_replace(const Host_options& options, const std::string& file, const std::string& path,
                const std::string& with, const std::string& out) {
  Host_session session(options);
  auto tree = session.open(file);
  std::string replacement = read_file(with);
  Item_node* node = tree->find(path);
  if (node == nullptr) throw Command_failure(file + ": no item " + (path.empty() ? "\"\"" : path));
  std::string error;
  if (!tree->replace(*node, std::move(replacement), error)) throw Command_failure(error);
  rebuild_into(*tree, out);
  return 0;
}

int run_rebuild(const Host_options& options, const std::string& file, const std::string& out) {
  Host_session session(options);
  auto tree = session.open(file);
  rebuild_into(*tree, out);
  return 0;
}

// What a disarmed message still holds after it is written: every item a
// client would offer that is no notice and was not kept by choice.
void check_written(const Host_session& session, const std::string& bytes, const Disarm_options& choices,
                   Disarm_result& result) {
  Message_tree written(session.managers(), bytes, session.options());
  written.for_each([&](Item_node& node) {
    const bool offered = offered_as_attachment(node) && !is_notice(node, choices.notice);
    if (!offered && unexamined_content(node).empty()) return;
    for (const auto& item : result.items)
      if (item.path == node.path && item.outcome != "disarmed") return;
    result.items.push_back({node.path, attachment_name(written, node), "remains",
                            offered ? "still offered in the message as written" : unexamined_content(node)});
  });
}

int run_disarm(const Host_options& options, const std::string& file, const std::string& out,
               const Disarm_options& choices, bool json) {
  Host_session session(options);
  auto tree = session.open(file);
  Disarm_result result = disarm_message(*tree, choices);
  std::string bytes, error;
  if (result.taken) {
    if (tree->rebuild(bytes, error)) {
      check_written(session, bytes, choices, result);
    } else {
      result.items.push_back({"", "", "remains", "the message could not be written again: " + error});
    }
  }
  const size_t remaining = result.count("remains") + (result.taken ? 0 : 1);
  if (remaining == 0) write_file(out, bytes);

  std::ostream& says = is_standard_output(out) ? std::cerr : std::cout;
  if (json) {
    Json items = Json::array();
    for (const auto& item : result.items)
      items.push_back(
          Json{{"path", item.path}, {"name", item.name}, {"outcome", item.outcome}, {"reason", item.reason}});
    Json document{{"file", file}, {"taken", result.taken}};
    if (!result.taken)
      document["refusal"] = Json{{"reason", result.refusal.reason},
                                 {"line_number", result.refusal.line_number},
                                 {"line", result.refusal.line}};
    document["items"] = items;
    document["disarmed"] = result.count("disarmed");
    document["remaining"] = remaining;
    document["written"] = remaining == 0 ? Json(out) : Json(nullptr);
    says << json_line(document) << '\n';
  }
  for (const auto& item : result.items) {
    std::string line = item.outcome + " " + (item.path.empty() ? "(top)" : item.path);
    if (!item.name.empty()) line += " \"" + item.name + "\"";
    if (!item.reason.empty()) line += ": " + item.reason;
    std::cerr << escaped_for_terminal(line) << '\n';
  }
  if (!result.taken) {
    std::string line = "the message was not taken: " + result.refusal.reason;
    if (result.refusal.line_number != 0)
      line += " (line " + std::to_string(result.refusal.line_number) + ": \"" + result.refusal.line + "\")";
    std::cerr << "smtpfm: " << escaped_for_terminal(line) << "; nothing written\n";
    return exit_attachments_remain;
  }
  std::cerr << "disarmed " << result.count("disarmed") << ", kept " << result.count("kept") << ", remaining "
            << remaining << (remaining == 0 ? "" : ": nothing written") << '\n';
  return remaining == 0 ? 0 : exit_attachments_remain;
}

int run_register(const Host_options& options, bool remove) {
  Host_options load = options;
  load.registry.clear();  // the module is the one given or the one beside us
  if (!options.registry.empty()) vek_set_registry_root(options.registry);
  std::string error, registered;
  if (remove && !registered_module(registered))
    throw Command_failure("nothing to withdraw: no SMTP element is registered in " + vek_registry_root());
  auto library = Plugin_library::load(load, error);
  if (!library) throw Command_failure(error);
  const char* name = remove ? "plg_deregister_elements" : "plg_register_elements";
  auto function = library->module().function<bool (*)()>(name);
  if (function == nullptr) throw Command_failure(library->path() + ": has no " + name);
  if (!function()) throw Command_failure(std::string(remove ? "deregistration" : "registration") + " failed in " +
                                 vek_registry_root());
  std::cout << (remove ? "deregistered " : "registered ") << library->path() << " in " << vek_registry_root()
            << '\n';
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"smtpfm: see, extract, replace, disarm and rewrite what the SMTP format manager finds in mail"};
  app.require_subcommand(0, 1);
  app.set_version_flag("--version", "smtpfm " SMTPFM_VERSION);
  Host_options options;
  options.hardened = true;  // --strict asks for the reference reading

  auto* tree = app.add_subcommand("tree", "Print the item tree of each message");
  std::vector<std::string> files;
  bool json = false;
  tree->add_option("files", files, "Messages (\"-\": standard input)")->required();
  tree->add_flag("--json", json, "One JSON document per message, one per line");
  add_host_options(tree, options);

  auto* extract = app.add_subcommand("extract", "Write every leaf item and a manifest.json to a folder");
  std::string file, out, item_path, with;
  extract->add_option("files", files, "Messages; several go to a folder each inside the output folder")->required();
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

  auto* disarm = app.add_subcommand(
      "disarm", "Replace every item a mail client would offer as an attachment with a text notice; exit 2 and "
                "write nothing when one remains");
  Disarm_options choices;
  disarm->add_option("file", file, "Message")->required();
  disarm->add_option("-o,--output", out, "Output file")->required();
  disarm->add_option("--notice", choices.notice, "The text that stands in for an attachment");
  disarm->add_option("--signed", choices.signed_items,
                     "Attachments inside a signed entity: refuse (default: they remain, exit 2), keep (write the "
                     "message with them), strip (remove the signature and disarm them)")
      ->transform(CLI::CheckedTransformer(std::map<std::string, Signed_choice>{{"refuse", Signed_choice::refuse},
                                                                               {"keep", Signed_choice::keep},
                                                                               {"strip", Signed_choice::strip}}));
  disarm->add_option("--encrypted", choices.encrypted_items,
                     "Encrypted entities, which cannot be looked into: refuse (default), keep, remove")
      ->transform(CLI::CheckedTransformer(std::map<std::string, Encrypted_choice>{
          {"refuse", Encrypted_choice::refuse}, {"keep", Encrypted_choice::keep}, {"remove", Encrypted_choice::remove}}));
  disarm->add_flag("--json", json, "Print the outcome of every item as one JSON document");
  add_host_options(disarm, options);

  auto* scan = app.add_subcommand("scan", "Open many messages: files, folders (Maildir) and mbox files");
  std::vector<std::string> scan_paths;
  Scan_options scan_options;
  scan->add_option("paths", scan_paths, "Files and folders")->required();
  scan->add_option("-j,--jobs", scan_options.jobs, "Worker threads, each with managers of its own")
      ->check(CLI::Range(1, 256));
  scan->add_option("--json-lines", scan_options.json_lines,
                   "Write the tree --json document of every message to this file (\"-\": standard output)");
  scan->add_option("--refused", scan_options.refused, "Write each message that was not taken, and why, to this file");
  scan->add_flag("--ordered", scan_options.ordered, "Write the documents in the order of the input");
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
    if (*tree) return run_tree(options, files, json);
    if (*extract) return run_extract(options, files, out);
    if (*replace) return run_replace(options, file, item_path, with, out);
    if (*rebuild) return run_rebuild(options, file, out);
    if (*disarm) return run_disarm(options, file, out, choices, json);
    if (*scan) return run_scan(options, scan_paths, scan_options);
    if (*reg) return run_register(options, false);
    if (*dereg) return run_register(options, true);
  } catch (const std::exception& failure) {
    report(failure);
    return 1;
  }
  // check, filter and milter ended in their callbacks; they fail by
  // throwing out of the parse, so reaching here is success.
  if (!app.get_subcommands().empty()) return 0;
  std::cerr << app.help();
  return 1;
}
