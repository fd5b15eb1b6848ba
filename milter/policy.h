// An attachment policy: what a mail server does with a message, decided
// item by item from what the plug-in publishes. Administrators write it in
// TOML (see the README); a Policy is immutable once parsed and may be
// shared by any number of threads.
//
// Rules are ordered; for each item the first rule whose every condition
// holds decides that item's action. The message's verdict is the strongest
// action of its items (reject, then tempfail, quarantine, disarm, accept),
// or the policy's default when no rule matched any item.
#ifndef SMTPFM_MILTER_POLICY_H_
#define SMTPFM_MILTER_POLICY_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// In order of strength: a stronger action of one item overrides a weaker
// one of another.
enum class Action { accept, disarm, quarantine, tempfail, reject };

// "accept", "disarm", ...
const char* action_name(Action action);

// What a mail server is told: the action and, for reject and tempfail, the
// SMTP reply (basic code, enhanced status code, text).
struct Outcome {
  Action action = Action::accept;
  std::string code;    // "550"; empty for the actions that pass mail on
  std::string status;  // "5.7.1"
  std::string text;    // one line, no control characters
  int exit_code = 0;   // what `smtpfm filter` exits with (sysexits.h)
};

// What the plug-in says of one item, in the terms the rules test.
struct Item_facts {
  std::vector<std::string> names;  // ItemName first, then every alternate name
  std::string mime_type;           // "application/x-msdownload", lower case
  std::string item_type;           // "attachment", "body", "header" or empty
  bool encrypted = false;          // an S/MIME or PGP entity that cannot be opened
  bool is_signed = false;          // inside a signed entity
  uint32_t depth = 0;              // 1 for a part of the top message
  uint64_t size = 0;               // the item's bytes as the plug-in gives them
  uint64_t unexamined = 0;         // bytes of it and the entities around it that reach no item
  bool depth_limited = false;      // the walk stopped at its depth bound here
};

// One rule: every condition that is set must hold.
struct Rule {
  std::string name;  // for logs and the verdict header
  int line = 0;      // where the rule starts in the policy file
  std::vector<std::string> file_names;  // globs on any of the item's names, case ignored
  std::vector<std::string> types;       // globs on "type/subtype", case ignored
  std::vector<std::string> item_types;  // "attachment", "body", "header"
  std::optional<bool> encrypted, is_signed, unexamined, depth_limited;
  std::optional<uint32_t> min_depth, max_depth;
  std::optional<uint64_t> min_size, max_size;
  Outcome outcome;

  // Whether every condition holds for `item`.
  bool matches(const Item_facts& item) const;
};

// Bounds that keep one bad policy line from taking the server down.
inline constexpr size_t max_policy_bytes = 1 << 20;  // a policy is written by hand
inline constexpr size_t max_rules = 10000;

struct Policy {
  std::vector<Rule> rules;
  Outcome default_outcome;  // the verdict when no rule matched any item
  Outcome on_error;         // a message the plug-in cannot read: tempfail, so none is lost
  std::string verdict_header = "X-Smtpfm-Verdict";
  std::string notice = "This attachment was removed by the mail filter (rule {rule}).";

  // The policy in `text`; nullopt with `error` as "ORIGIN:LINE: reason".
  static std::optional<Policy> parse(std::string_view text, const std::string& origin, std::string& error);
  // The policy in the file at `path`, the same way.
  static std::optional<Policy> load(const std::string& path, std::string& error);
  // The first rule matching `item`, or null.
  const Rule* match(const Item_facts& item) const;
};

// `text` with ASCII upper case letters made lower case, other bytes kept.
std::string ascii_lowered(std::string text);

// Shell-style glob: '*' any run, '?' one byte, ASCII case ignored.
bool glob_match(std::string_view pattern, std::string_view text);

#endif  // SMTPFM_MILTER_POLICY_H_
