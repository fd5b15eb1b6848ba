// The evasion corpus through the host library, with smtp.so and uue.so as
// smtpfm loads them: every mail hides the same attachment behind tricks
// that a common mail client sees through. In the hardened profile the
// attachment's bytes must reach the host as an item,
// under its file name (ItemName or an ItemAlternateName of that item), and
// no entity may keep text that no item holds. The reference profile's
// counts are printed beside the hardened ones, family by family.
#include <gtest/gtest.h>

#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "contracts/zor.h"
#include "host/host.h"
#include "host/report.h"
#include "host/test_plugins.h"
#include "platform/vek/registry.h"

namespace {

struct Mail {
  std::string file, family, trick, name;
};

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<Mail> manifest() {
  std::vector<Mail> mails;
  std::ifstream in(std::string(SMTPFM_EVASION_CORPUS) + "/manifest.tsv");
  std::string line;
  while (std::getline(in, line)) {
    std::vector<std::string> fields;
    std::stringstream split(line);
    for (std::string field; std::getline(split, field, '\t');) fields.push_back(field);
    if (fields.size() == 4) mails.push_back(Mail{fields[0], fields[1], fields[2], fields[3]});
  }
  return mails;
}

// The names a node carries: ItemName, ItemAlternateName, ItemAlternateName2...
std::vector<std::string> names_of(const Item_node& node) {
  std::vector<std::string> names;
  for (const auto& property : node.item->properties()) {
    const std::string name = vek_utf16_to_utf8(property.name());
    if ((name == "ItemName" || name.starts_with("ItemAlternateName")) &&
        property.type() == Tav_property::type_string)
      names.push_back(vek_utf16_to_utf8(property.string_value()));
  }
  return names;
}

struct Outcome {
  bool taken = false;    // the message was taken for mail
  bool payload = false;  // an item holds the attachment's bytes
  bool name = false;     // that item carries the file name
  uint64_t unexamined = 0;
};

// The outcome of `message` in a profile: its tree, searched for `payload`
// and `name`.
Outcome examine(const Test_plugins& profile, const std::string& message, const std::string& payload,
                const std::string& name) {
  const auto tree = profile.open(message);
  Outcome outcome;
  outcome.taken = tree->root().taken();
  tree->for_each([&](Item_node& node) {
    outcome.unexamined += unexamined_bytes(node);
    if (node.parent == nullptr || node.bytes() != payload) return;
    outcome.payload = true;
    for (const std::string& given : names_of(node))
      if (given == name) outcome.name = true;
  });
  return outcome;
}

Host_options profile(bool hardened) {
  Host_options options;
  options.hardened = hardened;
  return options;
}

struct Tally {
  int mails = 0;
  int payloads[2] = {0, 0};
  int names[2] = {0, 0};
  int clean[2] = {0, 0};  // taken, and no unexamined text
};

TEST(Evasion, HardenedHandsTheHostEveryPayloadAndName) {
  const std::vector<Mail> mails = manifest();
  ASSERT_GT(mails.size(), 50u) << "no corpus in " << SMTPFM_EVASION_CORPUS;
  const std::string payload = read_file(std::string(SMTPFM_EVASION_CORPUS) + "/payload.bin");
  ASSERT_FALSE(payload.empty());
  const Test_plugins profiles[2] = {Test_plugins(SMTPFM_MODULE_PATH, profile(false)),
                                    Test_plugins(SMTPFM_MODULE_PATH, profile(true))};

  std::map<std::string, Tally> families;
  std::vector<std::string> order;
  Tally total;
  for (const Mail& mail : mails) {
    const std::string message = read_file(std::string(SMTPFM_EVASION_CORPUS) + "/" + mail.file);
    if (!families.contains(mail.family)) order.push_back(mail.family);
    Tally& tally = families[mail.family];
    ++tally.mails;
    ++total.mails;
    for (int hardened : {0, 1}) {
      const Outcome outcome = examine(profiles[hardened], message, payload, mail.name);
      for (Tally* t : {&tally, &total}) {
        t->payloads[hardened] += outcome.payload;
        t->names[hardened] += outcome.name;
        t->clean[hardened] += outcome.taken && outcome.unexamined == 0;
      }
      if (!hardened) continue;
      EXPECT_TRUE(outcome.payload) << mail.file << ": the attachment never reaches the host";
      EXPECT_TRUE(outcome.name) << mail.file << ": the attachment reaches the host without \"" << mail.name
                                << "\"";
      EXPECT_EQ(outcome.unexamined, 0u) << mail.file << ": text that no item holds";
    }
  }

  // Per family: the mails whose payload, whose name reached the host, and
  // that were taken with nothing left unexamined.
  std::ostringstream table;
  table << "| family | mails | reference: payload | name | all examined | hardened: payload | name | all examined |\n"
        << "|---|---:|---:|---:|---:|---:|---:|---:|\n";
  auto row = [&table](const std::string& family, const Tally& t) {
    table << "| " << family << " | " << t.mails;
    for (int hardened : {0, 1})
      table << " | " << t.payloads[hardened] << " | " << t.names[hardened] << " | " << t.clean[hardened];
    table << " |\n";
  };
  for (const std::string& family : order) row(family, families[family]);
  row("all", total);
  std::cout << table.str();
}

}  // namespace
