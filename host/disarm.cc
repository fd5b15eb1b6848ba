#include "host/disarm.h"

#include <algorithm>

#include "codecs/base64.h"
#include "contracts/zor.h"
#include "host/entity.h"
#include "host/log_codes.h"
#include "host/names.h"
#include "manager/item_table.h"
#include "platform/vek/registry.h"
#include "reader/header_reader.h"

namespace {

// The passes of disarm_message: each strips one level of signatures at
// least, and a signature inside a signature inside a signature is already
// more than real mail has.
constexpr int max_disarm_passes = 8;

// The format the uuencode manager publishes on a text it took apart.
constexpr char16_t uue_format[] = u"UUE";

bool has(const Item_node& node, const char16_t* name, std::u16string_view value) {
  return vek_string_equal_nc(node.item->string_property(name), value);
}

bool is_ascii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; });
}

// Text that a client shows inline rather than offering it as a file.
bool is_inline_text(const Item_node& node) {
  return has(node, ZOR_MIME_TYPE, u"text") &&
         (has(node, ZOR_MIME_SUBTYPE, u"plain") || has(node, ZOR_MIME_SUBTYPE, u"html"));
}

// A uuencoded block right at the start: a client shows it as a file.
bool begins_with_block(std::string_view bytes) {
  const std::string_view line = bytes.substr(0, bytes.find('\n'));
  return line.starts_with("begin") && is_begin_line(line);
}

// Bytes that no text holds: a NUL in the first few KiB, as file(1) and
// mail clients judge it.
bool is_binary(std::string_view bytes) {
  constexpr size_t looked_at = 4096;
  return bytes.substr(0, looked_at).find('\0') != std::string_view::npos;
}

bool is_uue_block(const Item_node& node) {
  return node.parent != nullptr && has(*node.parent, ZOR_FORMAT_SUBTYPE, uue_format) &&
         has(node, ZOR_ITEM_TYPE, ZOR_ATTACHMENT_ITEM);
}

// An extra reading of the hardened profile: bytes that an item of the
// entity's own reading holds too, or text around its parts, which no
// handler replaces or writes back.
bool is_extra_reading(const Item_node& node) {
  const Tav_property* reading = node.item->properties().find(smtp_alternate_reading);
  return reading != nullptr && reading->type() == Tav_property::type_bool && reading->bool_value();
}

// Whether the bytes of `inner` lie within those of `outer` (views of one
// buffer).
bool holds(const Item_node& outer, const Item_node& inner) {
  const std::string_view out = outer.bytes(), in = inner.bytes();
  return !out.empty() && !in.empty() && in.data() >= out.data() && in.data() + in.size() <= out.data() + out.size();
}

// Whether an entity above the node was logged as encrypted: what it holds
// is decided with it (--encrypted), whatever the plug-in offered of it.
bool inside_encrypted(const Item_node& node) {
  for (const Item_node* at = node.parent; at != nullptr; at = at->parent)
    if (at->taken() && at->item->has_log(log_encrypted)) return true;
  return false;
}

// The nearest entity above the node (or the node) that a handler logged as
// signed, or null.
const Item_node* signed_entity(const Item_node& node) {
  for (const Item_node* at = &node; at != nullptr; at = at->parent)
    if (at->taken() && at->item->has_log(log_signed)) return at;
  return nullptr;
}

// A signature that a client verifies rather than offers.
bool is_signature(const Item_node& node) {
  if (!has(node, ZOR_MIME_TYPE, u"application")) return false;
  for (const char16_t* subtype : {u"pgp-signature", u"pkcs7-signature", u"x-pkcs7-signature"})
    if (has(node, ZOR_MIME_SUBTYPE, subtype)) return true;
  return false;
}

// The content of an entity (it has MimeType) that a client offers as a
// file: one with a name, one that its entity's Content-Disposition calls
// an attachment, and one of a type that is no text shown inline.
bool offered_content(const Item_node& node) {
  const Tav_property* name = node.item->properties().find(ZOR_ITEM_NAME);
  if (name != nullptr && !name->string_value().empty()) return true;
  if (node.item->properties().find(u"ItemAlternateName") != nullptr) return true;
  // Read by the lenient line rules: a field that only they take still
  // tells a client to offer the file.
  if (node.parent->taken() && disposition_is_attachment(read_entity_header(node.parent->bytes(), true)))
    return true;
  return !is_inline_text(node);
}

bool is_message_entity(const Item_node& node) {
  const Tav_property* message = node.item->properties().find(ZOR_MESSAGE_ITEM);
  return node.parent == nullptr ||
         (message != nullptr && message->type() == Tav_property::type_bool && message->bool_value());
}

std::string base64_of(std::string_view bytes) {
  Vek_raw_memory_buffer in_buffer(bytes.size(), bytes.data(), 0);
  Vek_memory_buffer out_buffer;
  Vek_status status;
  Vek_buffered_istream in(&in_buffer, true, status, vek_eol_lf);
  Vek_ostream out(&out_buffer, status, vek_eol_crlf);
  encode_base64(in, out, bytes.size(), status);
  return std::string(reinterpret_cast<const char*>(out_buffer.data()), out_buffer.size());
}

// A parameter "attribute=value" that every client reads: quoted ASCII, or
// RFC 2231 UTF-8 for the others with an RFC 2047 word beside it for
// clients that read only the plain form.
std::string name_parameters(const char* attribute, const std::string& name) {
  std::string plain = without_hazards(name);
  std::replace_if(plain.begin(), plain.end(), [](char c) { return c == '"' || c == '\\'; }, '_');
  if (is_ascii(plain)) return std::string("; ") + attribute + "=\"" + plain + "\"";
  std::string escaped;
  char hex[4];
  for (unsigned char c : plain) {
    if (std::isalnum(c) || c == '.' || c == '-' || c == '_') {
      escaped += static_cast<char>(c);
    } else {
      std::snprintf(hex, sizeof hex, "%%%02X", c);
      escaped += hex;
    }
  }
  std::string word = base64_of(plain);
  word.erase(std::remove_if(word.begin(), word.end(), [](char c) { return c == '\r' || c == '\n'; }), word.end());
  return std::string("; ") + attribute + "=\"=?UTF-8?B?" + word + "?=\"; " + attribute + "*=UTF-8''" + escaped;
}

// The name of the notice: the attachment's, with ".txt" behind, short
// enough for a header line.
std::string notice_name(const std::string& name) {
  if (name.empty()) return name;
  if (name.size() >= 4 && vek_string_equal_nc(name.substr(name.size() - 4), ".txt"))
    return cut_keeping_extension(name, max_file_name);
  return cut_keeping_extension(name, max_file_name - 4) + ".txt";
}

// A text/plain entity that holds the notice under the name.
std::string notice_entity(const std::string& name, const std::string& notice) {
  const bool ascii = is_ascii(notice);
  std::string entity = "Content-Type: text/plain; charset=";
  entity += ascii ? "us-ascii" : "utf-8";
  if (!name.empty()) entity += name_parameters("name", name);
  entity += "\r\nContent-Disposition: attachment";
  if (!name.empty()) entity += name_parameters("filename", name);
  entity += "\r\nContent-Transfer-Encoding: ";
  entity += ascii ? "7bit\r\n\r\n" + notice + "\r\n" : "base64\r\n\r\n" + base64_of(notice + "\r\n");
  return entity;
}

// The item whose replacement takes the node's content out, header and all:
// the entity of a decoded content, the part itself where it was not opened,
// and otherwise the raw item.
Item_node& entity_of(Item_node& node) {
  if (!node.item->string_property(ZOR_MIME_TYPE).empty() && node.parent != nullptr && node.parent->taken())
    return *node.parent;
  return node;
}

// What the node's content goes with: the node itself, or for content
// read by an extra reading (which no handler replaces), the item of the
// entity's own reading whose bytes hold that reading, or where none does
// (a preamble, a reading decoded otherwise, parts cut across the entity's
// own) the entity that made it; the same again where that lies in an
// extra reading. Each step goes up a reading, so the loop ends.
Item_node& holder_of(Item_node& node) {
  Item_node* at = &node;
  for (;;) {
    Item_node* reading = at;
    while (reading->parent != nullptr && !is_extra_reading(*reading)) reading = reading->parent;
    if (reading->parent == nullptr) return *at;
    at = reading->parent;
    for (auto& item : reading->parent->children)
      if (!is_extra_reading(*item) && !has(*item, ZOR_ITEM_TYPE, ZOR_HEADER_ITEM) && holds(*item, *reading)) {
        at = item.get();
        break;
      }
  }
}

bool replace_entity(Message_tree& tree, Item_node& entity, const std::string& replacement, std::string& error) {
  const bool hardened = tree.options().hardened;
  std::string bytes = replace_content(entity.bytes(), replacement, is_message_entity(entity), hardened);
  if (entity.parent == nullptr) {
    tree.replace_message(std::move(bytes));
    return true;
  }
  return tree.replace(entity, std::move(bytes), error) && tree.reopen(entity, error);
}

void add(Disarm_result& result, const std::string& path, std::string name, const char* outcome,
         std::string reason = {}) {
  result.items.push_back({path, std::move(name), outcome, std::move(reason)});
}

// Takes the signature off a signed entity: the entity keeps its own fields
// and gets the signed content's in place of the multipart around it.
bool strip_signature(Message_tree& tree, Item_node& entity, std::string& error) {
  for (auto& child : entity.children) {
    // The signed content is the first part of the entity's own reading: a
    // preamble, the signature and what stands beside it are extra readings.
    if (has(*child, ZOR_ITEM_TYPE, ZOR_HEADER_ITEM) || is_extra_reading(*child)) continue;
    return replace_entity(tree, entity, std::string(child->bytes()), error);
  }
  error = "the signed entity holds no content";
  return false;
}

}  // namespace

bool offered_as_attachment(const Item_node& node) {
  if (node.parent == nullptr || has(node, ZOR_ITEM_TYPE, ZOR_HEADER_ITEM) || inside_encrypted(node)) return false;
  // Clients check the signature of a signed entity rather than offer it.
  if (is_signature(node) && signed_entity(node) != nullptr) return false;
  const bool content = !node.item->string_property(ZOR_MIME_TYPE).empty();
  if (node.taken() && !node.children.empty()) {
    // A container: what it holds is judged item by item; but content that
    // a client offers as a file goes whole, even where a manager could
    // open it (an x-uuencode body, a named text file that holds mail).
    return content && !is_message_entity(node) && offered_content(node);
  }
  if (is_uue_block(node)) return !offered_as_attachment(*node.parent);
  if (content) {
    // An attached message that was opened, even one without items, is
    // judged by its contents.
    if (node.taken() && is_message_entity(node)) return false;
    return offered_content(node) || begins_with_block(node.bytes());
  }
  // An extra reading that no manager took is text: a preamble, an
  // epilogue, or a part of another reading with no header of its own.
  const bool text = is_extra_reading(node) && !node.taken() && has(node, ZOR_ENCLOSED_MIME_TYPE, u"text");
  if (!text && !node.item->string_property(ZOR_ENCLOSED_MIME_TYPE).empty())
    // A part that no manager could open: clients still show what they can
    // of it. One that was opened and holds nothing is unexamined, or empty.
    return !node.taken() && !node.depth_limited && node.buffer != nullptr;
  // Raw items: the rest of a text from its first uuencoded block, the parts
  // of an RFC 1505 message, text outside parts. Clients show them as the
  // text they are, with a uuencoded file in it as a file; what is no text
  // they cannot show.
  return begins_with_block(node.bytes()) ||
         ((text || has(node, ZOR_ITEM_TYPE, ZOR_ATTACHMENT_ITEM)) && is_binary(node.bytes()));
}

std::string unexamined_content(const Item_node& node) {
  // What is offered goes whole, with whatever it may hold; what an
  // encrypted entity holds goes or stays with it.
  if (offered_as_attachment(node) || inside_encrypted(node)) return {};
  if (node.depth_limited) return "not opened: deeper than the depth bound (--max-depth)";
  if (!node.failure.empty()) return "a call of the plug-in failed: " + node.failure;
  if (!node.taken()) return {};
  // Whatever the plug-in offered of it (the hardened profile offers its
  // bytes as extra readings), what it holds cannot be judged.
  if (node.item->has_log(log_encrypted)) return "encrypted: its content cannot be looked into";
  if (!node.children.empty()) return {};
  if (node.item->has_log(log_step_failed) && node.handler_name == "Smtp_opaque_handler")
    return "taken for mail but could not be opened";
  return {};
}

bool is_notice(const Item_node& node, const std::string& notice) {
  std::string_view bytes = node.bytes();
  while (!bytes.empty() && (bytes.back() == '\n' || bytes.back() == '\r')) bytes.remove_suffix(1);
  if (bytes != notice) return false;
  // A raw item holds the notice as text, an entity's content as text/plain.
  const bool raw = node.item->string_property(ZOR_MIME_TYPE).empty() &&
                   node.item->string_property(ZOR_ENCLOSED_MIME_TYPE).empty();
  return raw || is_uue_block(node) || (has(node, ZOR_MIME_TYPE, u"text") && has(node, ZOR_MIME_SUBTYPE, u"plain"));
}

std::string attachment_name(const Message_tree& tree, const Item_node& node) {
  for (const char16_t* property : {ZOR_ITEM_NAME, u"ItemAlternateName"}) {
    const Vek_wstring value = node.item->string_property(property);
    if (!value.empty()) return readable_text(value);
  }
  // An entity (the one of a content, or one that was not opened, or one
  // that cannot be looked into) names its content in its own header.
  const Item_node& entity = entity_of(const_cast<Item_node&>(node));
  if (&entity != &node || !node.item->string_property(ZOR_ENCLOSED_MIME_TYPE).empty() || node.taken())
    return entity_file_name(read_entity_header(entity.bytes(), tree.options().hardened));
  return {};
}

Item_node& disarm_replaces(Item_node& node) {
  Item_node& holder = holder_of(node);
  return is_uue_block(holder) ? holder : entity_of(holder);
}

bool disarm_item(Message_tree& tree, Item_node& node, const std::string& notice, std::string& error) {
  const std::string name = notice_name(attachment_name(tree, node));
  Item_node& holder = holder_of(node);
  if (&holder != &node) {
    // Content of an extra reading goes with the item that holds its bytes.
    // Not with a whole signed entity, which would take the signed content
    // along: taking the signature off is the caller's choice.
    const std::string where = holder.path.empty() ? "(top)" : holder.path;
    if (holder.taken() && holder.item->has_log(log_signed)) {
      error = "item " + node.path + " is another reading of the signed entity " + where +
              ", which cannot change without breaking its signature";
      return false;
    }
    const Item_node& replaced = disarm_replaces(holder);
    if (replaced.parent != nullptr && !tree.can_replace(replaced, error)) {
      error = "item " + node.path + " is another reading of item " + where + ": " + error;
      return false;
    }
  }
  if (is_uue_block(holder)) {
    // The uuencode handler writes a replaced block under the item's name.
    if (!tree.can_replace(holder, error)) return false;
    if (!name.empty()) holder.item->set_property(ZOR_ITEM_NAME, vek_utf8_to_utf16(name));
    return tree.replace(holder, notice + "\r\n", error) && tree.reopen(holder, error);
  }
  Item_node& entity = entity_of(holder);
  if (&entity == &holder && holder.parent != nullptr &&
      holder.item->string_property(ZOR_ENCLOSED_MIME_TYPE).empty()) {
    // A raw item of a handler: the notice stands in its place as text. (The
    // top, a message encrypted whole, is an entity: its content goes.)
    return tree.replace(holder, notice + "\r\n", error) && tree.reopen(holder, error);
  }
  if (entity.parent != nullptr && !tree.can_replace(entity, error)) return false;
  return replace_entity(tree, entity, notice_entity(name, notice), error);
}

bool lies_in(const std::string& path, const std::string& entity) {
  return entity.empty() || path == entity || (path.size() > entity.size() && path.starts_with(entity) &&
                                              path[entity.size()] == '.');
}

size_t Disarm_result::count(const char* outcome) const {
  return static_cast<size_t>(
      std::count_if(items.begin(), items.end(), [&](const Disarm_outcome& item) { return item.outcome == outcome; }));
}

Disarm_result disarm_message(Message_tree& tree, const Disarm_options& options) {
  Disarm_result result;
  if (!tree.root().taken()) {
    result.taken = false;
    result.refusal = tree.refusal(tree.root());
    return result;
  }
  // Each pass replaces what it can; a stripped signature opens content for
  // the next one. Nodes are found again by path, since a replacement
  // releases the subtree of what it replaced.
  std::vector<Disarm_outcome> refused;  // of the last pass only: a later pass tries them again
  for (int pass = 0; pass < max_disarm_passes; ++pass) {
    refused.clear();
    // What each target's disarm replaces is judged before anything is:
    // a replacement leaves the extra readings beside it as they were read.
    struct Target {
      std::string path, name, replaces;
    };
    std::vector<Target> targets;
    tree.for_each([&](Item_node& node) {
      if (offered_as_attachment(node) && !is_notice(node, options.notice))
        targets.push_back({node.path, attachment_name(tree, node), disarm_replaces(node).path});
    });
    std::vector<std::string> replaced;  // in this pass: what lies in them went with them
    bool stripped = false;
    for (const Target& target : targets) {
      const std::string& path = target.path;
      const std::string& name = target.name;
      if (std::any_of(replaced.begin(), replaced.end(),
                      [&](const std::string& entity) { return lies_in(target.replaces, entity); })) {
        add(result, path, name, "disarmed");
        continue;
      }
      Item_node* node = tree.find(path);
      if (node == nullptr || !offered_as_attachment(*node) || is_notice(*node, options.notice)) continue;
      std::string error;
      if (disarm_item(tree, *node, options.notice, error)) {
        add(result, path, name, "disarmed");
        replaced.push_back(target.replaces);
        continue;
      }
      const Item_node* signed_found = signed_entity(*node);
      Item_node* signed_at = signed_found == nullptr ? nullptr : tree.find(signed_found->path);
      if (signed_at != nullptr && options.signed_items == Signed_choice::strip) {
        const std::string signed_path = signed_at->path;
        std::string why;
        if (strip_signature(tree, *signed_at, why)) {
          add(result, signed_path, {}, "signature removed");
          stripped = true;
          break;  // the tree below changed: the next pass finds the items again
        }
        error += "; the signature could not be removed: " + why;
      }
      const bool keep = signed_at != nullptr && options.signed_items == Signed_choice::keep;
      refused.push_back({path, name, keep ? "kept" : "remains", keep ? "signed: " + error : error});
    }
    if (!stripped) break;
  }
  result.items.insert(result.items.end(), refused.begin(), refused.end());
  // What no one looked at: kept or taken out as the options say.
  std::vector<std::string> unexamined;
  tree.for_each([&](Item_node& node) {
    if (!unexamined_content(node).empty()) unexamined.push_back(node.path);
  });
  for (const std::string& path : unexamined) {
    Item_node* node = tree.find(path);
    if (node == nullptr) continue;
    const std::string why = unexamined_content(*node);
    const std::string name = attachment_name(tree, *node);
    const bool encrypted = node->item->has_log(log_encrypted);
    if (encrypted && options.encrypted_items == Encrypted_choice::keep) {
      add(result, path, name, "kept", why);
      continue;
    }
    std::string error = why;
    if (encrypted && options.encrypted_items == Encrypted_choice::remove &&
        (node->parent == nullptr || tree.can_replace(*node, error)) &&
        replace_entity(tree, *node, notice_entity(notice_name(name), options.notice), error)) {
      add(result, path, name, "disarmed");
      continue;
    }
    add(result, path, name, "remains", error);
  }
  return result;
}
