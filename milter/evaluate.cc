#include "milter/evaluate.h"

#include <algorithm>
#include <unordered_set>

#include "contracts/zor.h"
#include "host/disarm.h"
#include "host/log_codes.h"
#include "host/names.h"
#include "host/report.h"

namespace {

constexpr std::u16string_view alternate_name = u"ItemAlternateName";

std::string property_of(const Item_node& node, const char16_t* name) {
  const Tav_property* found = node.item->properties().find(name);
  return found == nullptr ? std::string() : property_text(*found);
}

bool has_property(const Item_node& node, const char16_t* name) {
  return node.item->properties().find(name) != nullptr;
}

// Which nodes the rules are asked about: the content of an entity (it has
// a MIME type of its own) and every leaf. A part that only wraps its
// content lends it its item type and is not asked itself, so that one
// attachment is one decision. A message encrypted whole holds no items:
// it is asked about itself.
bool is_decided(const Item_node& node) {
  if (node.parent == nullptr) return node.item->has_log(log_encrypted);
  return node.is_leaf() || has_property(node, ZOR_MIME_TYPE);
}

// The notice that stands in for an item, with {rule} and {name} filled in;
// a name is the sender's text and loses its controls and bidirectional
// controls. The notice's line end is the disarm's to add.
std::string notice_text(const std::string& pattern, const Item_decision& decision) {
  const std::string name =
      decision.facts.names.empty() ? std::string("(no name)") : without_hazards(decision.facts.names.front());
  std::string out;
  for (size_t i = 0; i < pattern.size(); ++i) {
    if (pattern.compare(i, 6, "{rule}") == 0) {
      out += decision.rule->name;
      i += 5;
    } else if (pattern.compare(i, 6, "{name}") == 0) {
      out += name;
      i += 5;
    } else {
      out += pattern[i];
    }
  }
  return out;
}

// Why the plug-in could not read the message, or empty.
std::string read_failure(Message_tree& tree) {
  const Item_node& root = tree.root();
  if (!root.taken()) return "not recognised as mail";
  if (root.handler_name == "Smtp_opaque_handler") return "the plug-in could not open it (" + status_text(root.open_status) + ")";
  std::string failure;
  tree.for_each([&](Item_node& node) {
    if (failure.empty() && !node.failure.empty()) failure = "item " + node.path + ": " + node.failure;
  });
  return failure;
}

}  // namespace

Item_facts item_facts(const Message_tree& tree, const Item_node& node) {
  Item_facts facts;
  facts.depth = node.depth;
  facts.size = node.bytes().size();
  facts.depth_limited = node.depth_limited;
  // The node and the nodes above it up to the part that holds it: the
  // part carries the item type and the type its content was sent as. The
  // message above is no part (a message encrypted whole is its own item).
  bool in_part = true;
  for (const Item_node* at = &node; at != nullptr && (at == &node || at->parent != nullptr); at = at->parent) {
    if (at->item->has_log(log_signed)) facts.is_signed = true;
    if (!in_part) continue;
    if (at->item->has_log(log_encrypted)) facts.encrypted = true;
    // Names as the host shows them: encoded words decoded, raw UTF-8 read
    // as UTF-8.
    if (facts.names.empty() && has_property(*at, ZOR_ITEM_NAME)) {
      facts.names.push_back(readable_text(at->item->string_property(ZOR_ITEM_NAME)));
      for (const auto& property : at->item->properties())
        if (std::u16string_view(property.name()).starts_with(alternate_name))
          facts.names.push_back(readable_text(property.string_value()));
    }
    if (facts.mime_type.empty()) {
      if (has_property(*at, ZOR_MIME_TYPE))
        facts.mime_type = ascii_lowered(property_of(*at, ZOR_MIME_TYPE) + "/" + property_of(*at, ZOR_MIME_SUBTYPE));
      else if (has_property(*at, ZOR_ENCLOSED_MIME_TYPE))
        facts.mime_type =
            ascii_lowered(property_of(*at, ZOR_ENCLOSED_MIME_TYPE) + "/" + property_of(*at, ZOR_ENCLOSED_MIME_SUBTYPE));
    }
    const std::string type = property_of(*at, ZOR_ITEM_TYPE);
    if (!type.empty()) {
      facts.item_type = type == "AttachmentItem" ? "attachment" : type == "BodyItem" ? "body" : "header";
      in_part = false;
    }
  }
  // An entity that was not opened (encrypted, past the depth bound) names
  // its content in its header only: the name a client shows. (Content that
  // was opened has its names published.)
  if (facts.names.empty() && node.is_leaf() && !has_property(node, ZOR_MIME_TYPE)) {
    std::string name = attachment_name(tree, node);
    if (!name.empty()) facts.names.push_back(std::move(name));
  }
  // The bytes that no item holds, of the node and of every entity around
  // it: a policy cannot judge them, wherever they lie.
  for (const Item_node* at = &node; at != nullptr; at = at->parent) facts.unexamined += unexamined_bytes(*at);
  return facts;
}

std::string Evaluation::verdict_text() const {
  std::string text = action_name(outcome.action);
  if (!rules.empty()) {
    text += "; rules=";
    for (size_t i = 0; i < rules.size(); ++i) text += (i ? "," : "") + rules[i];
  }
  if (!error.empty()) text += "; error";
  return text;
}

Evaluation unreadable(const Policy& policy, const std::string& reason) {
  Evaluation evaluation;
  evaluation.outcome = policy.on_error;
  evaluation.error = reason;
  return evaluation;
}

Evaluation evaluate(const Policy& policy, Message_tree& tree) {
  std::string failure = read_failure(tree);
  if (!failure.empty()) return unreadable(policy, failure);

  Evaluation evaluation;
  std::vector<std::string> disarmed;  // paths: a disarm releases the nodes of the entity it replaces
  std::unordered_set<const Item_node*> gone;
  const Rule* decider = nullptr;  // the first rule of the strongest action
  tree.for_each([&](Item_node& node) {
    // What lies inside an item that goes is not asked about.
    for (const Item_node* at = node.parent; at != nullptr; at = at->parent)
      if (gone.count(at) != 0) return;
    if (!is_decided(node)) return;
    Item_decision decision;
    decision.path = node.path;
    decision.facts = item_facts(tree, node);
    decision.rule = policy.match(decision.facts);
    if (decision.rule != nullptr) {
      decision.action = decision.rule->outcome.action;
      if (std::find(evaluation.rules.begin(), evaluation.rules.end(), decision.rule->name) == evaluation.rules.end())
        evaluation.rules.push_back(decision.rule->name);
      if (decider == nullptr || decision.action > decider->outcome.action) decider = decision.rule;
      if (decision.action == Action::disarm) {
        disarmed.push_back(node.path);
        gone.insert(&node);
      }
    }
    evaluation.items.push_back(std::move(decision));
  });
  evaluation.outcome = decider != nullptr ? decider->outcome : policy.default_outcome;
  // Disarms are carried out as long as the message passes on at all.
  if (!evaluation.passes() || disarmed.empty()) return evaluation;
  // A disarm that cannot be carried out leaves on-error to decide, with
  // the decisions made so far kept for the report.
  auto failed = [&](const std::string& reason) {
    Evaluation out = unreadable(policy, reason);
    out.items = std::move(evaluation.items);
    out.rules = std::move(evaluation.rules);
    return out;
  };
  // Each disarm puts a text/plain notice, named as the item was with
  // ".txt" behind, in place of the item's entity, as `smtpfm disarm` does.
  // What each one replaces is judged before any is carried out (an extra
  // reading goes with the item that holds its bytes, which may hold other
  // items too); one that lies in what an earlier one replaced went with it.
  std::vector<std::string> replaces, replaced;
  for (const std::string& path : disarmed) replaces.push_back(disarm_replaces(*tree.find(path)).path);
  size_t next = 0;
  for (size_t i = 0; i < disarmed.size(); ++i) {
    while (evaluation.items[next].path != disarmed[i]) ++next;
    Item_decision& decision = evaluation.items[next];
    if (std::any_of(replaced.begin(), replaced.end(),
                    [&](const std::string& entity) { return lies_in(replaces[i], entity); }))
      continue;
    Item_node* node = tree.find(disarmed[i]);
    if (node == nullptr) continue;
    if (!disarm_item(tree, *node, notice_text(policy.notice, decision), decision.error))
      return failed("item " + decision.path + " cannot be disarmed: " + decision.error);
    replaced.push_back(replaces[i]);
  }
  std::string error;
  if (!tree.rebuild(evaluation.message, error)) return failed("the disarmed message cannot be written: " + error);
  evaluation.rewritten = true;
  return evaluation;
}

std::string with_verdict_header(std::string_view message, const std::string& name, const std::string& value) {
  // The field ends its line as the message's first line does.
  const size_t first_end = message.find('\n');
  const bool bare_lf = first_end != std::string_view::npos && (first_end == 0 || message[first_end - 1] != '\r');
  std::string out = name + ": " + value + (bare_lf ? "\n" : "\r\n");
  out.reserve(message.size() + out.size());
  // Header lines up to the first empty line; a field goes with the lines
  // that continue it (they begin with a blank).
  size_t at = 0;
  bool dropping = false;
  while (at < message.size()) {
    size_t end = message.find('\n', at);
    end = end == std::string_view::npos ? message.size() : end + 1;
    std::string_view line = message.substr(at, end - at);
    if (line == "\r\n" || line == "\n") break;
    if (line[0] == ' ' || line[0] == '\t') {
      if (!dropping) out += line;
    } else {
      size_t colon = line.find(':');
      std::string_view field = colon == std::string_view::npos ? std::string_view() : line.substr(0, colon);
      while (!field.empty() && (field.back() == ' ' || field.back() == '\t')) field.remove_suffix(1);
      dropping = field.size() == name.size() && ascii_lowered(std::string(field)) == ascii_lowered(name);
      if (!dropping) out += line;
    }
    at = end;
  }
  out += message.substr(at);
  return out;
}
