// What the smtpfm commands share: the options that load and configure the
// plug-ins, and the plug-ins loaded with a format manager of each. The
// tool's commands and the mail server commands (milter/) take them alike.
#ifndef SMTPFM_HOST_COMMAND_H_
#define SMTPFM_HOST_COMMAND_H_

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "host/files.h"
#include "host/host.h"

// The options a command takes beside the ones every command has (--module,
// --registry, --export-header, --add-body, --no-uuencode, --max-depth).
struct Host_option_set {
  // --policy LIST: the formats the managers may open. The mail server
  // commands name their policy file with --policy instead.
  bool format_list = true;
  // --strict and --hardened: the milter and filter always read hardened.
  bool profile = true;
  // --keep-line-ends
  bool line_ends = true;
};

// Adds the plug-in options to `command`; the parse fills `options`.
void add_host_options(CLI::App* command, Host_options& options, Host_option_set set = {});

// A message opened from a file: its tree, and the bytes that the tree
// reads, which go with it (the tree is released first).
class Opened_message {
 public:
  Opened_message(File_bytes bytes, const Format_managers& managers, const Host_options& options)
      : bytes_(std::move(bytes)),
        tree_(std::make_unique<Message_tree>(managers, Message_tree::Borrowed{}, bytes_.view(), options)) {}
  // Never moved: bytes held in memory may move with their string.
  Opened_message(const Opened_message&) = delete;
  Opened_message& operator=(const Opened_message&) = delete;
  Message_tree* operator->() const { return tree_.get(); }
  Message_tree& operator*() const { return *tree_; }

 private:
  File_bytes bytes_;
  std::unique_ptr<Message_tree> tree_;
};

// The plug-ins that the options name, with a format manager of each, for
// a command that opens messages one at a time.
class Host_session {
 public:
  // Throws Command_failure (host/files.h) when the --policy list is bad or
  // a plug-in does not load.
  explicit Host_session(const Host_options& options);
  // The message in `file` ("-": standard input), opened and walked.
  Opened_message open(const std::string& file) const;
  const Host_options& options() const { return options_; }
  const Format_managers& managers() const { return managers_; }

 private:
  Host_options options_;
  std::unique_ptr<Host_plugins> plugins_;
  Format_managers managers_;  // released before the plug-ins unload
};

#endif  // SMTPFM_HOST_COMMAND_H_
