// The host library and the smtpfm tool, end to end through smtp.so.
#include "host/host.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "host/report.h"
#include "host/scan.h"

namespace fs = std::filesystem;

namespace {

Host_options plugin_options() {
  Host_options options;
  options.module_path = std::string(SMTPFM_BIN_DIR) + "/smtp.so";
  return options;
}

TEST(Canonical, BareLineFeedsBecomeCrLf) {
  const struct {
    const char* in;
    const char* want;
  } cases[] = {{"", ""}, {"a\nb", "a\r\nb"}, {"a\r\nb\n", "a\r\nb\r\n"}, {"\n\n", "\r\n\r\n"}, {"a\rb", "a\rb"}};
  for (const auto& c : cases) EXPECT_EQ(make_canonical(c.in), c.want) << c.in;
}

TEST(Library, LoadsConfiguresAndCounts) {
  std::string error;
  Host_options options = plugin_options();
  options.export_headers = {"Subject"};
  auto library = Plugin_library::load(options, error);
  ASSERT_NE(library, nullptr) << error;
  EXPECT_TRUE(library->can_unload());
  {
    Manager_ptr manager(library->create_manager(options, error));
    ASSERT_NE(manager, nullptr) << error;
    EXPECT_EQ(manager->name(), u"smtpfm");
    EXPECT_FALSE(library->can_unload());
    Message_tree tree(*manager, "\x7f" "ELF\x02\x01\x01\0\0\0\0\0\0\0\0\0", options);
    EXPECT_FALSE(tree.root().taken());
    std::string out, why;
    EXPECT_TRUE(tree.rebuild(out, why));  // nothing taken: the bytes as they went in
    EXPECT_EQ(out, tree.input());
  }
  EXPECT_TRUE(library->can_unload());
}

TEST(Library, MissingModuleIsAClearError) {
  Host_options options;
  options.module_path = "/nonexistent/smtp.so";
  std::string error;
  EXPECT_EQ(Plugin_library::load(options, error), nullptr);
  EXPECT_NE(error.find("/nonexistent/smtp.so"), std::string::npos);
}

TEST(Scan, SplitsAnMboxAtItsEnvelopeLines) {
  fs::path dir = fs::temp_directory_path() / "smtpfm-scan-test";
  fs::remove_all(dir);
  fs::create_directories(dir / "maildir/new");
  std::ofstream(dir / "box.mbox", std::ios::binary)
      << "From a@b Mon Jan 1 00:00:00 2024\nSubject: one\n\n>From here on\n\n"
         "From c@d Mon Jan 1 00:00:00 2024\nSubject: two\n\nbody\n";
  std::ofstream(dir / "maildir/new/1", std::ios::binary) << "Subject: three\n\nx\n";
  std::vector<std::pair<std::string, std::string>> seen;
  std::string error;
  ASSERT_TRUE(for_each_message({(dir / "box.mbox").string(), (dir / "maildir").string()},
                               [&](std::string name, std::string bytes) { seen.emplace_back(name, bytes); }, error))
      << error;
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0].second, "Subject: one\n\n>From here on\n");
  EXPECT_EQ(seen[1].second, "Subject: two\n\nbody\n");
  EXPECT_EQ(seen[1].first, (dir / "box.mbox").string() + "#2");
  EXPECT_EQ(seen[2].second, "Subject: three\n\nx\n");
  EXPECT_FALSE(for_each_message({(dir / "missing").string()}, [](std::string, std::string) {}, error));
  fs::remove_all(dir);
}

TEST(LeafFileName, IsSafe) {
  Fmg_host_item top;
  Item_node node;
  node.path = "1.0";
  node.item = std::make_unique<Fmg_host_item>(&top);
  node.item->set_property(u"ItemName", u"../..\\evil/\x01name.pdf");
  EXPECT_EQ(leaf_file_name(node), "1.0__.._evil__name.pdf");
  node.item->set_property(u"ItemName", u"..hidden");
  EXPECT_EQ(leaf_file_name(node), "1.0_hidden");
  node.item->set_property(u"ItemName", Vek_wstring(500, u'x'));
  EXPECT_LE(leaf_file_name(node).size(), 120u);
}

// Runs smtpfm with `arguments`; returns its exit code and its stderr.
int smtpfm(const std::string& arguments, std::string* err = nullptr) {
  std::string log = (fs::temp_directory_path() / "smtpfm-test-stderr").string();
  int status = std::system((std::string(SMTPFM_BIN_DIR) + "/smtpfm " + arguments + " 2>" + log).c_str());
  if (err) {
    std::ifstream in(log);
    std::ostringstream text;
    text << in.rdbuf();
    *err = text.str();
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Tool, ErrorsGiveOneLineAndNoOutput) {
  fs::path dir = fs::temp_directory_path() / "smtpfm-tool-test";
  fs::remove_all(dir);
  fs::create_directories(dir);
  std::ofstream(dir / "msg.eml") << "Subject: x\nFrom: a@b\n\nbody\n";
  std::string err;
  EXPECT_EQ(smtpfm("tree " + (dir / "missing.eml").string(), &err), 1);
  EXPECT_NE(err.find("missing.eml: cannot open"), std::string::npos) << err;
  EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1);

  EXPECT_EQ(smtpfm("replace " + (dir / "msg.eml").string() + " --item 9.9 --with " + (dir / "msg.eml").string() +
                       " -o " + (dir / "out.eml").string(),
                   &err),
            1);
  EXPECT_FALSE(fs::exists(dir / "out.eml"));
  EXPECT_NE(smtpfm("tree", &err), 0);  // a missing argument
  fs::remove_all(dir);
}

}  // namespace
