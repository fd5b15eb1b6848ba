#include "milter/commands.h"

#include <sysexits.h>

#include <iostream>

#include "host/command.h"
#include "host/files.h"
#include "host/names.h"
#include "host/report.h"
#include "milter/evaluate.h"
#include "milter/milter.h"

namespace {

// Ends the command with one line on stderr and `code`.
[[noreturn]] void fail(const std::string& message, int code = 1) {
  std::cerr << "smtpfm: " << message << '\n';
  throw CLI::RuntimeError(code);
}

Policy load_policy(const std::string& path, int code) {
  std::string error;
  std::optional<Policy> policy = Policy::load(path, error);
  if (!policy) fail(error, code);
  return std::move(*policy);
}

// The policy applied to `bytes`; a plug-in call that throws is a message
// that cannot be read. What passes on keeps the line ends it came with: an
// unchanged message is the bytes as given, a rewritten one has its bare LF
// line ends back where the message had only those.
Evaluation evaluate_bytes(const Policy& policy, const Host_session& session, std::string bytes,
                          std::string& passed_on) {
  try {
    Message_tree tree(session.managers(), std::move(bytes), session.options());
    Evaluation evaluation = evaluate(policy, tree);
    if (evaluation.passes()) {
      passed_on = with_verdict_header(evaluation.rewritten ? std::string_view(evaluation.message) : tree.original(),
                                      policy.verdict_header, evaluation.verdict_text());
    }
    return evaluation;
  } catch (const std::exception& e) {
    return unreadable(policy, std::string("internal failure: ") + e.what());
  }
}

std::string reply_text(const Outcome& outcome) {
  return outcome.code.empty() ? std::string() : outcome.code + " " + outcome.status + " " + outcome.text;
}

Json evaluation_json(const std::string& file, const Evaluation& evaluation) {
  Json items = Json::array();
  for (const auto& item : evaluation.items) {
    Json names = Json::array();
    for (const auto& name : item.facts.names) names.push_back(name);
    Json out{{"path", item.path},       {"names", names},
             {"type", item.facts.mime_type}, {"item_type", item.facts.item_type},
             {"size", item.facts.size},  {"depth", item.facts.depth},
             {"encrypted", item.facts.encrypted}, {"signed", item.facts.is_signed},
             {"unexamined", item.facts.unexamined},
             {"action", action_name(item.action)}};
    out["rule"] = item.rule ? Json(item.rule->name) : Json(nullptr);
    out["line"] = item.rule ? Json(item.rule->line) : Json(nullptr);
    if (!item.error.empty()) out["error"] = item.error;
    items.push_back(std::move(out));
  }
  Json document{{"file", file}, {"verdict", action_name(evaluation.outcome.action)}, {"rules", evaluation.rules}};
  if (!evaluation.outcome.code.empty())
    document["reply"] = {{"code", evaluation.outcome.code},
                         {"status", evaluation.outcome.status},
                         {"text", evaluation.outcome.text}};
  document["rewritten"] = evaluation.rewritten;
  if (!evaluation.error.empty()) document["error"] = evaluation.error;
  document["items"] = std::move(items);
  return document;
}

std::string evaluation_text(const std::string& file, const Evaluation& evaluation) {
  std::string out = file + ": " + action_name(evaluation.outcome.action);
  if (!evaluation.outcome.code.empty()) out += " (" + reply_text(evaluation.outcome) + ")";
  if (!evaluation.error.empty()) out += " on-error: " + evaluation.error;
  out += "\n";
  for (const auto& item : evaluation.items) {
    std::string line = "  [" + item.path + "]";
    if (!item.facts.item_type.empty()) line += " " + item.facts.item_type;
    if (!item.facts.mime_type.empty()) line += " " + item.facts.mime_type;
    for (const auto& name : item.facts.names) line += " \"" + escaped_for_terminal(name) + "\"";
    line += " " + std::to_string(item.facts.size) + " bytes";
    if (item.facts.encrypted) line += " encrypted";
    if (item.facts.is_signed) line += " signed";
    if (item.facts.depth_limited) line += " depth-limit";
    if (item.facts.unexamined != 0) line += " unexamined " + std::to_string(item.facts.unexamined) + " bytes";
    line += " -> " + std::string(action_name(item.action));
    line += item.rule ? " by rule " + item.rule->name + " (line " + std::to_string(item.rule->line) + ")"
                      : std::string(" (no rule)");
    if (!item.error.empty()) line += ": " + item.error;
    out += line + "\n";
  }
  return out;
}

// Goes on over the other messages when one cannot be read, and fails at
// the end; with the passed-on message on standard output, the report goes
// to standard error.
void run_check(const Host_options& options, const std::string& policy_path, const std::vector<std::string>& files,
               bool json, const std::string& write) {
  if (!write.empty() && files.size() != 1) fail("--write takes one message");
  Policy policy = load_policy(policy_path, 1);
  const Host_session session(options);
  std::ostream& report = !write.empty() && is_standard_output(write) ? std::cerr : std::cout;
  bool failed = false;
  for (const auto& file : files) {
    std::string bytes, passed_on;
    try {
      bytes = read_file(file);
    } catch (const Command_failure& failure) {
      std::cerr << "smtpfm: " << escaped_for_terminal(failure.what()) << '\n';
      failed = true;
      continue;
    }
    Evaluation evaluation = evaluate_bytes(policy, session, std::move(bytes), passed_on);
    report << (json ? json_line(evaluation_json(file, evaluation)) + "\n" : evaluation_text(file, evaluation));
    report.flush();
    if (write.empty()) continue;
    if (!evaluation.passes()) fail(file + ": refused, nothing to write");
    write_file(write, passed_on);
  }
  if (failed) throw CLI::RuntimeError(1);
}

// Every failure of our own is a temporary one: the mail server keeps the
// message and tries again.
void run_filter(const Host_options& options, const std::string& policy_path) {
  Policy policy = load_policy(policy_path, EX_TEMPFAIL);
  const Host_session session(options);
  std::string passed_on;
  Evaluation evaluation = evaluate_bytes(policy, session, read_file("-"), passed_on);
  if (!evaluation.error.empty()) std::cerr << "smtpfm: on-error: " << evaluation.error << '\n';
  if (!evaluation.passes()) {
    std::cerr << reply_text(evaluation.outcome) << '\n';
    throw CLI::RuntimeError(evaluation.outcome.exit_code);
  }
  write_file("-", passed_on);
}

// Runs a command from its parse callback: any failure that escapes it
// ends smtpfm with one line and `code`, never with a crash.
std::function<void()> guarded(std::function<void()> command, int code) {
  return [command = std::move(command), code] {
    try {
      command();
    } catch (const CLI::RuntimeError&) {
      throw;
    } catch (const std::exception& e) {
      fail(e.what(), code);
    }
  };
}

}  // namespace

void add_mail_server_commands(CLI::App& app, Host_options& options) {
  // Shared by the callbacks, which run after the parse fills them.
  struct Settings {
    std::string policy, write;
    std::vector<std::string> files;
    bool json = false;
    Milter_options milter;
  };
  auto settings = std::make_shared<Settings>();
  // --policy names the policy file; the mail server reads as mail clients do.
  const Host_option_set mail_server_options{.format_list = false, .profile = false, .line_ends = false};

  auto* check = app.add_subcommand("check", "What a policy does with each message, item by item, and why");
  check->add_option("--policy", settings->policy, "The policy file (TOML)")->required();
  check->add_option("files", settings->files, "Messages")->required();
  check->add_flag("--json", settings->json, "One JSON document per message, one per line");
  check->add_option("--write", settings->write, "Write the message as the mail server would pass it on");
  add_host_options(check, options, {.format_list = false});
  check->callback(guarded(
      [&options, settings] { run_check(options, settings->policy, settings->files, settings->json, settings->write); },
      1));

  auto* filter = app.add_subcommand(
      "filter", "A message from standard input through the policy to standard output; exits 0, 75 to try again, "
                "69 (or the rule's exit) to refuse");
  filter->add_option("--policy", settings->policy, "The policy file (TOML)")->required();
  add_host_options(filter, options, mail_server_options);
  filter->callback(guarded([&options, settings] { run_filter(options, settings->policy); }, EX_TEMPFAIL));

  auto* milter = app.add_subcommand("milter", "The milter daemon: the policy applied during the SMTP transaction");
  Milter_options& m = settings->milter;
  milter->add_option("--policy", m.policy_path, "The policy file (TOML); read again on SIGHUP")->required();
  milter->add_option("--socket", m.socket, "unix:PATH or inet:PORT@HOST")->required();
  milter->add_option("--workers", m.workers, "Messages taken apart at once, each by a manager of its own")
      ->check(CLI::Range(1, 256));
  milter->add_option("--memory-limit", m.memory_limit, "Bytes of a message kept in memory; the rest goes to a file");
  milter->add_option("--max-size", m.max_size, "A larger message is not read: on-error decides");
  milter->add_option("--spool", m.spool, "Folder for messages over the memory limit");
  milter->add_flag("--log-stderr", m.log_stderr, "Log one line per message on stderr instead of syslog");
  milter->add_option("--timeout", m.timeout, "Seconds to wait for the mail server");
  add_host_options(milter, options, mail_server_options);
  milter->callback(guarded(
      [&options, settings] {
        Host_options hardened = options;
        hardened.hardened = true;  // the milter always reads as the mail clients do
        int code = run_milter(hardened, settings->milter);
        if (code != 0) throw CLI::RuntimeError(code);
      },
      EX_SOFTWARE));
}
