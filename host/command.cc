#include "host/command.h"

#include "host/files.h"

void add_host_options(CLI::App* command, Host_options& options, Host_option_set set) {
  command->add_option("--module", options.module_path, "The plug-in to load (default: smtp.so beside smtpfm)");
  command->add_option("--registry", options.registry, "Find the plug-in through the registry in this folder");
  // One name per --export-header (or several, separated by commas), so
  // that the option never takes the message's file name.
  command->add_option("--export-header", options.export_headers, "Give this header field as a sub-item")
      ->allow_extra_args(false)
      ->delimiter(',');
  command->add_flag("--add-body", options.add_body, "Add an empty text body to a message that has none");
  if (set.format_list)
    command->add_option("--policy", options.policy,
                        "The managers' policy list (no policy file; that is check's): the formats they may open, "
                        "separated by commas: SMTP (mail), UUE (uuencoded files); an item of another format is "
                        "listed, not opened");
  if (set.profile)
    command->add_flag("--strict{false},--hardened{true}", options.hardened,
                      "--strict: the reference reading, which mail shaped to hide content can slip past; "
                      "--hardened (default): every reading a mail client takes");
  if (set.line_ends)
    command->add_flag("--keep-line-ends", options.keep_line_ends,
                      "Hand the plug-in bare LF line ends as they are, instead of reading them as CR LF");
  command->add_flag("--no-uuencode{false}", options.uuencode, "Do not load uue.so, the uuencode format manager");
  command->add_option("--max-depth", options.max_depth, "Open items down to this depth (default 64)");
}

Host_session::Host_session(const Host_options& options) : options_(options) {
  std::string error;
  if (!options.policy.empty()) {
    error = policy_problem(options.policy);
    if (!error.empty()) throw Command_failure("--policy: " + error);
  }
  plugins_ = Host_plugins::load(options, error);
  if (!plugins_ || !plugins_->create_managers(options, managers_, error)) throw Command_failure(error);
}

Opened_message Host_session::open(const std::string& file) const {
  return Opened_message(File_bytes::open(file), managers_, options_);
}
