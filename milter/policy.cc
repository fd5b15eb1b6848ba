#include "milter/policy.h"

#include <sysexits.h>

#include <fstream>
#include <set>
#include <sstream>
#include <toml++/toml.h>

namespace {

constexpr const char* action_names[] = {"accept", "disarm", "quarantine", "tempfail", "reject"};

// A fault of the policy file, at the line of the node that has it.
struct Policy_error {
  int line;
  std::string reason;
};

int line_of(const toml::node& node) { return static_cast<int>(node.source().begin.line); }

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

const toml::node& expect(const toml::node& node, bool ok, const std::string& key, const char* what) {
  if (!ok) throw Policy_error{line_of(node), "\"" + key + "\" must be " + what};
  return node;
}

std::string string_of(const toml::node& node, const std::string& key) {
  return *expect(node, node.is_string(), key, "a string").value<std::string>();
}

bool bool_of(const toml::node& node, const std::string& key) {
  return *expect(node, node.is_boolean(), key, "true or false").value<bool>();
}

uint64_t count_of(const toml::node& node, const std::string& key, uint64_t most) {
  expect(node, node.is_integer(), key, "a whole number");
  int64_t value = *node.value<int64_t>();
  if (value < 0 || static_cast<uint64_t>(value) > most)
    throw Policy_error{line_of(node), "\"" + key + "\" must be between 0 and " + std::to_string(most)};
  return static_cast<uint64_t>(value);
}

// A string or an array of strings.
std::vector<std::string> strings_of(const toml::node& node, const std::string& key) {
  std::vector<std::string> out;
  if (node.is_string()) {
    out.push_back(string_of(node, key));
  } else if (const toml::array* array = node.as_array()) {
    for (const toml::node& element : *array) out.push_back(string_of(element, key));
  } else {
    expect(node, false, key, "a string or an array of strings");
  }
  return out;
}

// Reply text goes into an SMTP reply line and a log line.
std::string reply_text_of(const toml::node& node) {
  std::string text = string_of(node, "text");
  for (unsigned char c : text)
    if (c < 0x20 || c == 0x7f) throw Policy_error{line_of(node), "\"text\" must be one line without control characters"};
  return text;
}

// "550" for reject, "451" for tempfail: the class must fit the action.
std::string reply_code_of(const toml::node& node, Action action) {
  uint64_t code = count_of(node, "code", 599);
  const uint64_t first = action == Action::reject ? 500 : 400;
  if (code < first || code > first + 99)
    throw Policy_error{line_of(node), "\"code\" of " + std::string(action_names[static_cast<int>(action)]) +
                                          " must be " + std::to_string(first / 100) + "xx"};
  return std::to_string(code);
}

// RFC 3463: status-code = class "." subject "." detail, class of the code.
std::string enhanced_status_of(const toml::node& node, const std::string& code) {
  std::string text = string_of(node, "status");
  int dots = 0;
  bool ok = !text.empty() && text[0] == code[0] && text.size() <= 11;
  for (size_t i = 0; ok && i < text.size(); ++i) {
    if (text[i] == '.') {
      ok = i > 0 && text[i - 1] != '.';
      ++dots;
    } else {
      ok = text[i] >= '0' && text[i] <= '9';
    }
  }
  if (!ok || dots != 2 || text.back() == '.')
    throw Policy_error{line_of(node), "\"status\" must be an enhanced status code such as " +
                                          std::string(1, code[0]) + ".7.1, of the class of \"code\""};
  return text;
}

Action action_of(const toml::node& node) {
  std::string name = string_of(node, "action");
  for (int i = 0; i < 5; ++i)
    if (name == action_names[i]) return static_cast<Action>(i);
  throw Policy_error{line_of(node), "unknown action \"" + name +
                                        "\" (accept, disarm, reject, quarantine or tempfail)"};
}

// The action keys of a table (a rule, "default" or "on-error"); what was
// not given takes the defaults of the action.
Outcome outcome_of(const toml::table& table, const toml::node& where) {
  const toml::node* action_node = table.get("action");
  if (action_node == nullptr) throw Policy_error{line_of(where), "\"action\" is missing"};
  Outcome outcome;
  outcome.action = action_of(*action_node);
  const bool replies = outcome.action == Action::reject || outcome.action == Action::tempfail;
  for (const char* key : {"code", "status", "text", "exit"})
    if (!replies && table.get(key) != nullptr)
      throw Policy_error{line_of(*table.get(key)), "\"" + std::string(key) + "\" needs action reject or tempfail"};
  if (!replies) return outcome;
  const bool reject = outcome.action == Action::reject;
  outcome.code = reject ? "550" : "451";
  outcome.status = reject ? "5.7.1" : "4.7.1";
  outcome.text = reject ? "Message refused by policy" : "Message deferred by policy, try again later";
  outcome.exit_code = reject ? EX_UNAVAILABLE : EX_TEMPFAIL;
  if (const toml::node* code = table.get("code")) {
    outcome.code = reply_code_of(*code, outcome.action);
    outcome.status = std::string(1, outcome.code[0]) + ".7.1";
  }
  if (const toml::node* status = table.get("status")) outcome.status = enhanced_status_of(*status, outcome.code);
  if (const toml::node* text = table.get("text")) outcome.text = reply_text_of(*text);
  if (const toml::node* exit = table.get("exit")) {
    outcome.exit_code = static_cast<int>(count_of(*exit, "exit", 255));
    // A refusal that exits 0 would tell the mail server it was delivered.
    if (outcome.exit_code == 0) throw Policy_error{line_of(*exit), "\"exit\" of a refusal cannot be 0"};
  }
  return outcome;
}

// "default" and "on-error": an action name, or a table with the action keys.
Outcome message_outcome(const toml::node& node, const std::string& key) {
  if (const toml::table* table = node.as_table()) {
    for (const auto& [name, value] : *table)
      if (name.str() != "action" && name.str() != "code" && name.str() != "status" && name.str() != "text" &&
          name.str() != "exit")
        throw Policy_error{line_of(value), "unknown key \"" + std::string(name.str()) + "\" in " + key};
    return outcome_of(*table, node);
  }
  toml::table table;
  table.insert("action", string_of(node, key));
  Outcome outcome = outcome_of(table, node);
  return outcome;
}

void check_globs(const toml::node& node, const std::vector<std::string>& globs, const std::string& key) {
  for (const auto& glob : globs)
    if (glob.empty()) throw Policy_error{line_of(node), "\"" + key + "\" has an empty pattern"};
}

// Names go into the verdict header and log lines, separated by commas.
bool is_rule_name(const std::string& name) {
  if (name.empty() || name.size() > 64) return false;
  for (char c : name)
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
          c == '.'))
      return false;
  return true;
}

// A field name as RFC 5322 has it: ftext = %d33-57 / %d59-126.
bool is_field_name(const std::string& name) {
  if (name.empty() || name.size() > 76) return false;
  for (unsigned char c : name)
    if (c < 33 || c > 126 || c == ':') return false;
  return true;
}

Rule rule_of(const toml::table& table, size_t index) {
  Rule rule;
  rule.line = line_of(table);
  rule.name = "rule-" + std::to_string(index + 1);
  for (const auto& [name, value] : table) {
    const std::string key(name.str());
    if (key == "name") {
      rule.name = string_of(value, key);
      if (!is_rule_name(rule.name))
        throw Policy_error{line_of(value), "\"name\" must be 1 to 64 letters, digits, '-', '_' or '.'"};
    } else if (key == "file-name") {
      rule.file_names = strings_of(value, key);
      check_globs(value, rule.file_names, key);
    } else if (key == "type") {
      rule.types = strings_of(value, key);
      check_globs(value, rule.types, key);
      for (auto& type : rule.types) {
        if (type.find('/') == std::string::npos && type != "*")
          throw Policy_error{line_of(value), "\"type\" patterns are \"type/subtype\", such as \"application/*\""};
        type = ascii_lowered(type);
      }
    } else if (key == "item-type") {
      rule.item_types = strings_of(value, key);
      for (const auto& type : rule.item_types)
        if (type != "attachment" && type != "body" && type != "header")
          throw Policy_error{line_of(value), "\"item-type\" is attachment, body or header, not \"" + type + "\""};
    } else if (key == "encrypted") {
      rule.encrypted = bool_of(value, key);
    } else if (key == "signed") {
      rule.is_signed = bool_of(value, key);
    } else if (key == "unexamined") {
      rule.unexamined = bool_of(value, key);
    } else if (key == "depth-limit") {
      rule.depth_limited = bool_of(value, key);
    } else if (key == "min-depth") {
      rule.min_depth = static_cast<uint32_t>(count_of(value, key, UINT32_MAX));
    } else if (key == "max-depth") {
      rule.max_depth = static_cast<uint32_t>(count_of(value, key, UINT32_MAX));
    } else if (key == "min-size") {
      rule.min_size = count_of(value, key, INT64_MAX);
    } else if (key == "max-size") {
      rule.max_size = count_of(value, key, INT64_MAX);
    } else if (key != "action" && key != "code" && key != "status" && key != "text" && key != "exit") {
      throw Policy_error{line_of(value), "unknown key \"" + key + "\" in a rule"};
    }
  }
  rule.outcome = outcome_of(table, table);
  return rule;
}

Policy policy_of(const toml::table& top) {
  Policy policy;
  std::set<std::string> names;
  for (const auto& [name, value] : top) {
    const std::string key(name.str());
    if (key == "default") {
      policy.default_outcome = message_outcome(value, key);
    } else if (key == "on-error") {
      policy.on_error = message_outcome(value, key);
    } else if (key == "verdict-header") {
      policy.verdict_header = string_of(value, key);
      if (!is_field_name(policy.verdict_header))
        throw Policy_error{line_of(value), "\"verdict-header\" must be a header field name"};
    } else if (key == "notice") {
      policy.notice = string_of(value, key);
    } else if (key == "rule") {
      const toml::array* rules = value.as_array();
      if (rules == nullptr || !rules->is_array_of_tables())
        throw Policy_error{line_of(value), "rules are written as [[rule]] tables"};
      if (rules->size() > max_rules) throw Policy_error{line_of(value), "more than 10000 rules"};
      for (size_t i = 0; i < rules->size(); ++i) {
        Rule rule = rule_of(*(*rules)[i].as_table(), i);
        if (!names.insert(rule.name).second)
          throw Policy_error{rule.line, "a second rule named \"" + rule.name + "\""};
        policy.rules.push_back(std::move(rule));
      }
    } else {
      throw Policy_error{line_of(value), "unknown key \"" + key + "\""};
    }
  }
  if (!top.contains("on-error")) {
    // No mail is lost when the server is told to try again.
    toml::table tempfail{{"action", "tempfail"}};
    policy.on_error = outcome_of(tempfail, top);
  }
  return policy;
}

}  // namespace

const char* action_name(Action action) { return action_names[static_cast<int>(action)]; }

std::string ascii_lowered(std::string text) {
  for (char& c : text) c = lower(c);
  return text;
}

bool glob_match(std::string_view pattern, std::string_view text) {
  // Greedy with one backtrack point: the last '*' seen. Linear in practice
  // and never recursive.
  size_t p = 0, t = 0, star = std::string_view::npos, resume = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      resume = t;
    } else if (p < pattern.size() && (pattern[p] == '?' || lower(pattern[p]) == lower(text[t]))) {
      ++p;
      ++t;
    } else if (star != std::string_view::npos) {
      p = star + 1;
      t = ++resume;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

bool Rule::matches(const Item_facts& item) const {
  if (!file_names.empty()) {
    bool any = false;
    for (const auto& glob : file_names)
      for (const auto& name : item.names) any = any || glob_match(glob, name);
    if (!any) return false;
  }
  if (!types.empty()) {
    bool any = false;
    for (const auto& glob : types) any = any || (!item.mime_type.empty() && glob_match(glob, item.mime_type));
    if (!any) return false;
  }
  if (!item_types.empty()) {
    bool any = false;
    for (const auto& type : item_types) any = any || type == item.item_type;
    if (!any) return false;
  }
  if (encrypted && *encrypted != item.encrypted) return false;
  if (is_signed && *is_signed != item.is_signed) return false;
  if (unexamined && *unexamined != (item.unexamined > 0)) return false;
  if (depth_limited && *depth_limited != item.depth_limited) return false;
  if (min_depth && item.depth < *min_depth) return false;
  if (max_depth && item.depth > *max_depth) return false;
  if (min_size && item.size < *min_size) return false;
  if (max_size && item.size > *max_size) return false;
  return true;
}

const Rule* Policy::match(const Item_facts& item) const {
  for (const auto& rule : rules)
    if (rule.matches(item)) return &rule;
  return nullptr;
}

std::optional<Policy> Policy::parse(std::string_view text, const std::string& origin, std::string& error) {
  if (text.size() > max_policy_bytes) {
    error = origin + ": larger than 1 MiB, not a policy";
    return std::nullopt;
  }
  try {
    toml::table top = toml::parse(text, origin);
    return policy_of(top);
  } catch (const toml::parse_error& e) {
    error = origin + ":" + std::to_string(e.source().begin.line) + ": " + std::string(e.description());
  } catch (const Policy_error& e) {
    error = origin + ":" + std::to_string(e.line) + ": " + e.reason;
  }
  return std::nullopt;
}

std::optional<Policy> Policy::load(const std::string& path, std::string& error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = path + ": cannot open: " + std::strerror(errno);
    return std::nullopt;
  }
  std::ostringstream bytes;
  bytes << in.rdbuf();
  if (in.bad()) {
    error = path + ": cannot read";
    return std::nullopt;
  }
  return parse(bytes.str(), path, error);
}
