// Disarm: finding what a mail client would offer its reader as an
// attachment, and putting a short text notice in its place.
//
// A client (Thunderbird, Outlook, Apple Mail, Gmail's web view, Python's
// email package) offers a part as an attachment when it has a file name,
// when its Content-Disposition says "attachment", or when its type is no
// text that it shows inline; and a uuencoded block in a text body as a file
// of its own. That is judged here on the nodes of a walked Message_tree,
// wherever they stand: the whole body of a single-part message, the first
// part of a multipart, a part nested in an attached message.
//
// A disarmed item's entity is replaced whole, header included, by a
// text/plain entity that holds the notice and keeps the name for the reader
// with a ".txt" ending, so that no header still calls the notice a PDF.
// Nothing here owns a node: the tree does, and a replacement releases the
// subtree of the replaced entity (pointers into it go stale).
#ifndef SMTPFM_HOST_DISARM_H_
#define SMTPFM_HOST_DISARM_H_

#include <string>
#include <vector>

#include "host/host.h"

// Whether a common mail client would offer the node's content to its
// reader as an attachment. Containers (a multipart, an attached message
// that was opened, a text taken apart by the uuencode manager) are not:
// their items are judged one by one. Neither is what lies in an encrypted
// entity (judged whole, by Encrypted_choice), a signature inside a signed
// entity (clients check it), nor text outside the parts of a multipart
// that holds no uuencoded file.
bool offered_as_attachment(const Item_node& node);

// Why the node may hold content that nobody looked at: not opened past the
// depth bound, encrypted (whatever the plug-in offered of it), unreadable,
// a failed plug-in call. Empty when it holds none, when it is offered as an
// attachment (disarming takes it out whole), or when it lies in an
// encrypted entity (which is judged whole).
std::string unexamined_content(const Item_node& node);

// Whether the node is a notice that disarm_item put there with `notice`.
bool is_notice(const Item_node& node, const std::string& notice);

// The name a reader sees for the node's content, as UTF-8; empty if none.
std::string attachment_name(const Message_tree& tree, const Item_node& node);

// The item that disarm_item replaces to take the node's content out: the
// entity that holds the content (a uuencoded block, a raw item: the item
// itself). Content of an extra reading (the item or one above it has
// AlternateReading: no handler replaces it, and its bytes are another
// reading of the entity's) goes with the item of the entity's own reading
// whose bytes hold it, or where none does, with the entity that made the
// reading. Judge every node before replacing any: a replacement leaves
// the readings beside it as they were read, so what lies in a replaced
// item (lies_in) must not be disarmed again.
Item_node& disarm_replaces(Item_node& node);
// Whether the item at `path` lies in the one at `entity` ("" is the top).
bool lies_in(const std::string& path, const std::string& entity);

// Replaces what disarm_replaces names by a text/plain entity with `notice`
// (a uuencoded block by a block of the notice), named as the node's
// content was with ".txt" behind, and opens it again in the tree. False
// with `error` when a level above refuses the change (a signed entity), the
// node is another reading of a signed entity, or a handler fails; the tree
// is then unchanged.
bool disarm_item(Message_tree& tree, Item_node& node, const std::string& notice, std::string& error);

// What disarm_message does with what it cannot simply replace.
enum class Signed_choice { refuse, keep, strip };  // strip: the signature goes, the signed content stays
enum class Encrypted_choice { refuse, keep, remove };

struct Disarm_options {
  std::string notice = "This attachment was removed by smtpfm.";
  Signed_choice signed_items = Signed_choice::refuse;
  Encrypted_choice encrypted_items = Encrypted_choice::refuse;
};

// The outcome of one item.
struct Disarm_outcome {
  std::string path;     // in the tree at the time
  std::string name;     // as the reader sees it
  std::string outcome;  // "disarmed", "notice" (disarmed before), "kept" (by choice), "remains", "signature removed"
  std::string reason;   // why it was kept or remains
};

struct Disarm_result {
  std::vector<Disarm_outcome> items;
  bool taken = true;  // the message was taken; if not, `refusal` says why
  Refusal refusal;
  size_t count(const char* outcome) const;
};

// Disarms every item of the tree that a client would offer, strips or
// keeps signatures and encrypted entities as the options say, and leaves
// the tree ready for rebuild. A result with "remains" means that what it
// names is still in the message.
Disarm_result disarm_message(Message_tree& tree, const Disarm_options& options);

#endif  // SMTPFM_HOST_DISARM_H_
