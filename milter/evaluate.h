// A policy applied to one message: the facts of each item, the rule that
// decided it, the message's verdict and, when it passes on, the message as
// it goes on (attachments disarmed, the verdict header in front). Used by
// `smtpfm check`, `smtpfm filter` and the milter alike, so that check says
// exactly what the mail server will do.
#ifndef SMTPFM_MILTER_EVALUATE_H_
#define SMTPFM_MILTER_EVALUATE_H_

#include <string>
#include <vector>

#include "host/host.h"
#include "milter/policy.h"

// One item the rules were asked about.
struct Item_decision {
  std::string path;  // as in `smtpfm tree`
  Item_facts facts;
  const Rule* rule = nullptr;  // the first rule that matched, or null
  Action action = Action::accept;
  std::string error;  // a disarm that could not be carried out
};

struct Evaluation {
  Outcome outcome;            // the verdict and, for refusals, the reply
  std::vector<Item_decision> items;
  std::vector<std::string> rules;  // the names of the rules that matched, in item order, once each
  std::string error;          // not empty: the message could not be read and on-error decided
  bool rewritten = false;     // the passed-on message differs from the input (besides the verdict header)
  // When rewritten: what passes on, without the verdict header, as
  // Message_tree::rebuild writes it (with the message's bare LF line ends).
  std::string message;

  // The verdict header's value: "disarm; rules=exe,scripts", "accept; error".
  std::string verdict_text() const;
  // Whether the mail server passes the message on (accept, disarm, quarantine).
  bool passes() const { return outcome.action < Action::tempfail; }
};

// The facts of one node of `tree`, read from its properties and those of
// the nodes above it up to the part that holds it, and its name from the
// header of an entity that was not opened.
Item_facts item_facts(const Message_tree& tree, const Item_node& node);

// Decides what `policy` does with the message in `tree` and, when it
// passes on, carries out the disarms and writes the message. The tree is
// spent afterwards. A message the plug-in cannot read, or whose disarm
// fails, gets the policy's on-error.
Evaluation evaluate(const Policy& policy, Message_tree& tree);

// The verdict of on-error for a message that cannot be read at all.
Evaluation unreadable(const Policy& policy, const std::string& reason);

// `message` with every field named `name` removed (a sender's forged
// verdict) and "name: value" put in front, its line ended as the
// message's first line is (CR LF, or LF alone).
std::string with_verdict_header(std::string_view message, const std::string& name, const std::string& value);

#endif  // SMTPFM_MILTER_EVALUATE_H_
