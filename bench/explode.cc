// smtpfm's explode driver: `explode REPEAT FILE...` (see explode_driver.h).
//
// Each message goes through the host library as `smtpfm tree` takes it: a
// Message_tree opens it through the format manager and offers every
// sub-item to the manager again (parts holding a message marked as
// messages), down to the leaves; then every leaf's bytes are summed. The
// tree's Subject, which the manager decodes from the first message it
// opens, is the one Subject counted: nested messages publish none. A
// message the manager does not take, a node whose opening or splitting
// threw or failed, and a node below the depth bound count as failures. The
// files are canonical already, so the line ends are kept as they are; the
// depth bound is raised so that deeply nested messages are opened all the
// way down, as the peers do.
//
// The plug-in is the one built beside this program (SMTPFM_MODULE_PATH),
// or the one named by the environment variable SMTPFM_MODULE. The manager
// reads in the reference profile unless SMTPFM_PROFILE is "hardened".
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "bench/explode_driver.h"
#include "contracts/zor.h"
#include "host/host.h"

int main(int argc, char** argv) {
  Host_options options;
  const char* module = std::getenv("SMTPFM_MODULE");
  options.module_path = module != nullptr && *module != '\0' ? module : SMTPFM_MODULE_PATH;
  options.keep_line_ends = true;
  options.max_depth = 1u << 16;
  const char* profile = std::getenv("SMTPFM_PROFILE");
  options.hardened = profile != nullptr && std::string(profile) == "hardened";

  std::string error;
  std::unique_ptr<Plugin_library> library = Plugin_library::load(options, error);
  if (!library) {
    std::fprintf(stderr, "explode: %s\n", error.c_str());
    return 1;
  }
  Manager_ptr manager(library->create_manager(options, error));
  if (!manager) {
    std::fprintf(stderr, "explode: %s\n", error.c_str());
    return 1;
  }

  int code = explode_bench::run(argc, argv, [&](std::string_view message, explode_bench::Exploded& out) {
    Message_tree tree(*manager, Message_tree::Borrowed{}, message, options);
    Item_node& root = tree.root();
    if (!root.taken()) out.fail();
    // The manager publishes the Subject on the top item alone.
    if (const Tav_property* subject = root.item->properties().find(ZOR_SUBJECT)) {
      const Vek_wstring& text = subject->string_value();
      out.subject(
          std::string_view(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(char16_t)));
    }
    tree.for_each([&](Item_node& node) {
      if (!node.failure.empty() || node.depth_limited) out.fail();
      if (node.is_leaf()) out.add(node.bytes());
    });
  });
  manager.reset();  // before the library unloads
  return code;
}
