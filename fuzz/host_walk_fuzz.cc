// The whole host walk under arbitrary bytes: the message is opened through
// the format manager and walked to a bounded depth, every leaf that may be
// changed is replaced by its own bytes, every level is rebuilt and the
// result is opened again. The plug-in's libraries are linked in (the module
// source included), so the fuzzer sees all of their code.
//
// Invariants:
// - a message whose tree has nothing modified rebuilds byte for byte;
// - the tree of the rebuilt message equals the original's (or, where a
//   handler repaired the message, the repaired message's): the same items
//   in the same places, taken by the same handlers, with the same item
//   types, MIME types and names, and the same bytes in every leaf;
// - no plug-in call throws, and every get_item moves its position on,
//   except the one fault that the RFC 1505 handler reports by design: an
//   "Encoding" field whose value is empty (recognition goes by the name);
// - a rebuild never fails: a header line that opening let pass is copied
//   as it stands;
// - in the hardened profile, no entity has unexamined text: every byte of
//   its body, markup and white space aside, reaches the host in some item;
// - recognition takes bytes with bare LF line ends exactly when it takes
//   their canonical copy (the host offers them as they are, and copies
//   only what is taken), with the same status.
//
// Some rewrites are by design, and the tree check is skipped for messages
// where they happen, since what follows from them may differ:
// - a single-body entity is written with a blank line behind its header
//   block whether it had one or not; where a rebuilt entity had none (a
//   piece of body text opened as an entity of its own, a header that runs
//   straight into its body), that line is new;
// - a quoted-printable or Base64 body is encoded again, and a "7bit"
//   text with bytes above 0x7F becomes quoted-printable (in ISO-8859-1
//   where it was ASCII), under a refolded "Content-Type" with spaces
//   around its specials: the new lines can show or hide a uuencoded block
//   to the scanner of the parent's raw part text, and a subtype full of
//   specials may no longer parse;
// - a refolded "Content-Type" (every multipart entity's, a repaired
//   one's) has spaces around its specials, which can change how a
//   damaged value parses ("report-ty.pe=x" becomes "report-ty . pe=x");
// - a real field named exactly "Bad-Header" is written without its name,
//   and its value can then turn the field in front of it bad;
// - a part of an RFC 1505 message that does not end with a line end gets
//   one (only the last part can lack it, where the message does).
//
// Each input is walked in both profiles. The length of the input picks the
// rest of the configuration: odd lengths export three header fields and
// ask for the body item too. The fields are ones that a rebuild copies as
// they are; Content-Type and the transfer encoding may be written anew
// with a re-encoded body.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "contracts/status_codes.h"
#include "contracts/zor.h"
#include "encoding/rfc1505_handler.h"
#include "fuzz/fuzz_check.h"
#include "host/host.h"
#include "manager/coverage.h"
#include "mime/rfc1521_handler.h"
#include "platform/vek/registry.h"
#include "reader/content_type_repair.h"
#include "reader/field_parsers.h"
#include "reader/header_block.h"
#include "reader/header_reader.h"

extern "C" Plg_element* plg_get_factory(const char16_t* name, const Tav_guid* type);

namespace {

constexpr uint32_t max_depth = 6;

Host_options make_options(bool rich, bool hardened) {
  Host_options options;
  options.max_depth = max_depth;
  options.hardened = hardened;
  if (rich) {
    options.export_headers = {"Subject", "From", "X-Fuzz"};
    options.add_body = true;
  }
  return options;
}

// What Plugin_library::create_manager does, on the element linked in.
Fmg_manager_base* make_manager(const Host_options& options) {
  Plg_element* element = plg_get_factory(smtp_element_name, &smtp_element_type);
  FUZZ_CHECK(element != nullptr, "the module has no element");
  auto* manager = static_cast<Fmg_manager_base*>(element->create());
  FUZZ_CHECK(manager != nullptr, "the element made no manager");
  manager->set_name(u"smtpfm");
  Tav_property_list properties;
  for (const auto& name : options.export_headers) properties.add(u"ExportHeader", vek_utf8_to_utf16(name));
  properties.add(Tav_property(u"AddBody", options.add_body));
  properties.add(Tav_property(u"Hardened", options.hardened));
  properties.add(Tav_property(Vek_wstring(smtp_report_unexamined), options.report_unexamined));
  Vek_status status;
  manager->set_properties(properties, status);
  FUZZ_CHECK(status.ok(), "configuring the manager failed with 0x%08x", status.value());
  return manager;
}

struct Node_view {
  std::string path;
  std::string handler;
  Vek_wstring item_type, mime_type, mime_subtype, name;
  bool leaf = false;
  bool depth_limited = false;
  std::string bytes;  // leaves only
  bool operator==(const Node_view&) const = default;
};

// The failure that an empty "Encoding" value brings; the message is then
// not taken and goes on as it came.
constexpr std::string_view empty_encoding_failure =
    "open: Smtp_rfc1505_handler::set_data - lost the Encoding header field.";

bool is_alternate_reading(const Item_node& node) {
  const Tav_property* mark = node.item->properties().find(smtp_alternate_reading);
  return mark != nullptr && mark->type() == Tav_property::type_bool && mark->bool_value();
}

// The tree as the host may change it: the sub-items of extra readings (the
// hardened profile's other readings of the same bytes, which no rebuild
// writes back and which a rebuild that closes a part or writes delimiters
// anew may change) are left out, and a path counts only the others.
std::vector<Node_view> view_of(Message_tree& tree) {
  std::vector<Node_view> views;
  std::vector<std::pair<Item_node*, std::string>> stack{{&tree.root(), std::string()}};
  while (!stack.empty()) {
    auto [node, path] = stack.back();
    stack.pop_back();
    FUZZ_CHECK(node->failure.empty() || node->failure == empty_encoding_failure, "item \"%s\": %s",
               node->path.c_str(), node->failure.c_str());
    Node_view view;
    view.path = path;
    view.handler = node->handler_name;
    view.item_type = node->item->string_property(ZOR_ITEM_TYPE);
    view.mime_type = node->item->string_property(ZOR_MIME_TYPE);
    view.mime_subtype = node->item->string_property(ZOR_MIME_SUBTYPE);
    view.name = node->item->string_property(ZOR_ITEM_NAME);
    view.depth_limited = node->depth_limited;
    std::vector<std::pair<Item_node*, std::string>> children;
    for (const auto& child : node->children) {
      if (is_alternate_reading(*child)) continue;
      const std::string number = std::to_string(children.size());
      children.emplace_back(child.get(), path.empty() ? number : path + "." + number);
    }
    view.leaf = children.empty();
    if (view.leaf) view.bytes.assign(node->bytes());
    views.push_back(std::move(view));
    for (auto it = children.rbegin(); it != children.rend(); ++it) stack.push_back(*it);
  }
  return views;
}

bool any_modified(Message_tree& tree) {
  bool modified = false;
  tree.for_each([&](Item_node& node) {
    if (node.handler == nullptr) return;
    Vek_status status;
    if (node.handler->is_modified(*node.item, status)) modified = true;
    FUZZ_CHECK(status.ok(), "is_modified of \"%s\" failed with 0x%08x", node.path.c_str(), status.value());
  });
  return modified;
}

// The header block at the start of an entity's bytes, as the handlers
// read it.
struct Head {
  std::vector<Smtp_header_field> fields;
  std::string_view text;     // the block's bytes
  bool blank_after = false;  // a blank line follows the block
};

Head head_of(std::string_view bytes) {
  Head head;
  Vek_raw_memory_buffer buffer(bytes.size(), bytes.data(), 0);
  Vek_status status;
  Vek_buffered_istream stream(&buffer, true, status, vek_eol_lf);
  if (status.ok()) read_header_block(stream, head.fields, status);
  head.text = bytes.substr(0, static_cast<size_t>(std::min<uint64_t>(stream.tell(), bytes.size())));
  head.blank_after = !status.ok() || skip_blank_line(stream);
  return head;
}

// Whether a header block holds a real field named "Bad-Header", which the
// reader takes for its pseudo field.
bool has_real_bad_header(std::string_view header) {
  constexpr std::string_view name = "Bad-Header:";
  for (size_t at = header.find(name); at != std::string_view::npos; at = header.find(name, at + 1))
    if (at == 0 || header[at - 1] == '\n') return true;
  return false;
}

std::vector<std::string> content_types_of(const Head& head) {
  std::vector<std::string> values;
  for (const Smtp_header_field& field : head.fields)
    if (vek_string_equal_nc(field.name, "Content-Type")) values.push_back(field.value);
  return values;
}

struct Parsed_type {
  uint32_t status;
  std::string type, subtype;
  std::vector<std::pair<std::string, std::string>> parameters;
  bool operator==(const Parsed_type&) const = default;
};

Parsed_type parsed(std::string_view value) {
  Vek_status status;
  Parsed_type result;
  std::vector<Smtp_header_field> parameters;
  parse_content_type(value, result.type, result.subtype, parameters, status);
  result.status = status.value();
  for (const Smtp_header_field& p : parameters) result.parameters.emplace_back(p.name, p.value);
  return result;
}

// Whether a "Content-Type" field of an entity, refolded as a rebuild
// writes it, reads otherwise than before: it parses differently, or, put
// on one line because it cannot be tokenised, is no header line any more.
bool refold_changes_type(const Head& head, bool repaired) {
  for (std::string value : content_types_of(head)) {
    if (repaired) repair_content_type(value);
    Vek_memory_buffer written;
    Vek_status status;
    Vek_ostream out(&written, status, vek_eol_crlf);
    write_header_field(out, "Subject", "x", false, status);  // a field in front, as in a header
    write_header_field(out, "Content-Type", value, true, status);
    out.writeln("", status);
    const std::vector<std::string> again =
        content_types_of(head_of({reinterpret_cast<const char*>(written.data()), written.size()}));
    if (!status.ok() || again.size() != 1 || parsed(again[0]) != parsed(value)) return true;
  }
  return false;
}

// Bytes for a report: escaped, at most 400 of them.
std::string printable(std::string_view bytes) {
  std::string out;
  for (size_t i = 0; i < bytes.size() && i < 400; ++i) {
    const unsigned char c = static_cast<unsigned char>(bytes[i]);
    if (c >= 32 && c < 127 && c != '\\') {
      out.push_back(static_cast<char>(c));
    } else {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\x%02x", c);
      out += escape;
    }
  }
  if (bytes.size() > 400) out += "...";
  return out;
}

// Every byte of every entity's body reaches the host, markup aside.
void check_nothing_unexamined(Message_tree& tree) {
  tree.for_each([&](Item_node& node) {
    const Tav_property* found = node.item->properties().find(smtp_unexamined);
    if (found == nullptr) return;
    const std::string text = vek_wtos(found->string_value());
    const std::vector<Smtp_range> ranges = parse_unexamined_text(text);
    FUZZ_CHECK(ranges.empty(), "item \"%s\" has unexamined text at %s: [%s]", node.path.c_str(), text.c_str(),
               printable(node.bytes().substr(ranges[0].offset, ranges[0].length)).c_str());
  });
}

// The first difference of two trees, for the report.
void report_difference(const std::vector<Node_view>& before, const std::vector<Node_view>& after) {
  for (size_t i = 0; i < before.size() && i < after.size(); ++i) {
    const Node_view& a = before[i];
    const Node_view& b = after[i];
    if (a == b) continue;
    std::fprintf(stderr, "item \"%s\" / \"%s\": handler %s / %s, type %s / %s, mime %s/%s / %s/%s, name %s / %s, "
                 "leaf %d / %d, %zu / %zu bytes%s\n",
                 a.path.c_str(), b.path.c_str(), a.handler.c_str(), b.handler.c_str(),
                 vek_utf16_to_utf8(a.item_type).c_str(), vek_utf16_to_utf8(b.item_type).c_str(),
                 vek_utf16_to_utf8(a.mime_type).c_str(), vek_utf16_to_utf8(a.mime_subtype).c_str(),
                 vek_utf16_to_utf8(b.mime_type).c_str(), vek_utf16_to_utf8(b.mime_subtype).c_str(),
                 vek_utf16_to_utf8(a.name).c_str(), vek_utf16_to_utf8(b.name).c_str(), a.leaf, b.leaf,
                 a.bytes.size(), b.bytes.size(), a.bytes == b.bytes ? "" : " (bytes differ)");
    if (a.bytes != b.bytes) std::fprintf(stderr, "[%s]\n[%s]\n", printable(a.bytes).c_str(), printable(b.bytes).c_str());
    return;
  }
  std::fprintf(stderr, "%zu items before, %zu after\n", before.size(), after.size());
}

void walk(Fmg_manager_base& manager, const Host_options& options, const std::string& input) {
  // The output goes back in as the input went in: the host gives mail
  // that came with bare LF line ends only its line ends back, and reads
  // them as CR LF again.
  const Host_options& again = options;

  // Unchanged: byte for byte, unless a handler repaired something. Then
  // the repaired message is what a rebuild must give.
  std::vector<Node_view> before;
  {
    Message_tree tree(manager, input, options);
    before = view_of(tree);
    if (options.hardened) check_nothing_unexamined(tree);
    const bool modified = any_modified(tree);
    std::string out, error;
    FUZZ_CHECK(tree.rebuild(out, error), "rebuilding an unchanged tree: %s", error.c_str());
    if (!modified) {
      FUZZ_CHECK(out == tree.original(), "an unchanged message rebuilt differently");
    } else {
      Message_tree repaired(manager, out, again);
      before = view_of(repaired);
    }
  }

  // Every leaf that may be changed replaced by its own bytes.
  std::string rebuilt;
  bool rewritten = false;  // by one of the rewrites above
  {
    Message_tree tree(manager, input, options);
    std::vector<Item_node*> leaves;
    // A leaf that a handler took and repaired would lose its repair if
    // its old bytes were handed in: such a leaf keeps its handler.
    tree.for_each([&](Item_node& node) {
      if (node.parent == nullptr || !node.is_leaf()) return;
      Vek_status status;
      if (node.handler != nullptr && node.handler->is_modified(*node.item, status)) return;
      leaves.push_back(&node);
    });
    size_t replaced = 0;
    std::set<const Item_node*> above_replaced;  // the entities that the host will write anew
    for (Item_node* node : leaves) {
      std::string error;
      if (!tree.can_replace(*node, error)) continue;
      FUZZ_CHECK(tree.replace(*node, std::string(node->bytes()), error), "replacing \"%s\": %s",
                 node->path.c_str(), error.c_str());
      ++replaced;
      for (const Item_node* up = node->parent; up != nullptr; up = up->parent) above_replaced.insert(up);
    }
    tree.for_each([&](Item_node& node) {
      if (node.handler == nullptr || node.children.empty()) return;
      Vek_status status;
      if (!above_replaced.contains(&node) && !node.handler->is_modified(*node.item, status)) return;
      const std::string_view bytes = node.bytes();
      const Head head = head_of(bytes);
      if (!head.blank_after || has_real_bad_header(head.text)) rewritten = true;
      if (dynamic_cast<Smtp_rfc1505_handler*>(node.handler) != nullptr && !bytes.empty() && !bytes.ends_with("\r\n"))
        rewritten = true;
      auto* entity = dynamic_cast<Smtp_rfc1521_handler*>(node.handler);
      if (entity == nullptr || rewritten) return;
      if (refold_changes_type(head, entity->content_type_repaired())) {
        rewritten = true;
        return;
      }
      if (vek_string_equal_nc(entity->mime_type(), "multipart")) return;
      if (vek_string_equal_nc(entity->encoding(), "quoted-printable") ||
          vek_string_equal_nc(entity->encoding(), "base64")) {
        rewritten = true;
        return;
      }
      // The host ends a handler once it has rebuilt it; for a "7bit" text
      // a trial rebuild now tells whether it takes the quoted-printable
      // path (it keeps the new "Content-Type" for the real one, which then
      // gives the same bytes).
      delete entity->rebuild(*node.item, status);
      if (!entity->new_content_type().empty()) rewritten = true;
    });
    std::string error;
    FUZZ_CHECK(tree.rebuild(rebuilt, error), "rebuilding with %zu items replaced: %s", replaced,
               error.c_str());
  }

  Message_tree tree(manager, rebuilt, again);
  const std::vector<Node_view> after = view_of(tree);
  if (after != before && !rewritten) {
    std::fprintf(stderr, "rebuilt message:\n[%s]\n", printable(rebuilt).c_str());
    // For a closer look: SMTPFM_FUZZ_DUMP=FILE keeps the rebuilt message.
    if (const char* dump = std::getenv("SMTPFM_FUZZ_DUMP")) {
      if (FILE* file = std::fopen(dump, "wb")) {
        std::fwrite(rebuilt.data(), 1, rebuilt.size(), file);
        std::fclose(file);
      }
    }
    report_difference(before, after);
    FUZZ_CHECK(false, "the rebuilt message's tree differs from the original's");
  }
}

}  // namespace

// Opens `bytes` as a top item: whether the manager takes them, and the
// status it gives.
std::pair<bool, uint32_t> recognised(Fmg_manager_base& manager, std::string_view bytes) {
  Vek_raw_memory_buffer buffer(bytes.size(), bytes.data(), 0);
  Fmg_host_item item;
  Vek_status status;
  Fmg_handler_base* handler = manager.open(&buffer, item, status);
  if (handler != nullptr) handler->release();
  return {handler != nullptr, status.value()};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  static const Host_options options[2][2] = {{make_options(false, false), make_options(false, true)},
                                             {make_options(true, false), make_options(true, true)}};
  static Manager_ptr managers[2][2] = {
      {Manager_ptr(make_manager(options[0][0])), Manager_ptr(make_manager(options[0][1]))},
      {Manager_ptr(make_manager(options[1][0])), Manager_ptr(make_manager(options[1][1]))}};
  const int rich = size % 2;
  const std::string input(reinterpret_cast<const char*>(bytes), size);
  for (int hardened : {0, 1}) walk(*managers[rich][hardened], options[rich][hardened], input);
  const std::string canonical = make_canonical(input);
  if (canonical != input)
    for (int hardened : {0, 1}) {
      const auto given = recognised(*managers[rich][hardened], input);
      const auto copied = recognised(*managers[rich][hardened], canonical);
      FUZZ_CHECK(given == copied, "recognition of the bytes as given (%d, 0x%08x) and canonical (%d, 0x%08x)",
                 given.first, given.second, copied.first, copied.second);
    }
  return 0;
}
