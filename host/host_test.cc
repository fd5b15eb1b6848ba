// The host library and the smtpfm tool, end to end through smtp.so.
#include "host/host.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

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
  for (const auto& c : cases) {
    EXPECT_EQ(make_canonical(c.in), c.want) << c.in;
    EXPECT_EQ(is_canonical(c.in), std::string_view(c.in) == c.want) << c.in;
  }
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

// A part's body may be replaced only if every level above takes the
// rebuilt entity: inside a signed entity nothing may change, although the
// part's own handler would allow it.
TEST(Library, ReplacingNeedsEveryLevelAbove) {
  std::string error;
  const Host_options options = plugin_options();
  auto library = Plugin_library::load(options, error);
  ASSERT_NE(library, nullptr) << error;
  Manager_ptr manager(library->create_manager(options, error));
  ASSERT_NE(manager, nullptr) << error;
  const std::string part = "--b\r\nContent-Type: text/plain\r\n\r\nhello\r\n--b\r\n"
                           "Content-Type: application/pgp-signature\r\n\r\nsig\r\n--b--\r\n";
  const struct {
    const char* type;
    bool replaceable;
  } cases[] = {{"multipart/mixed", true}, {"multipart/signed; protocol=\"application/pgp-signature\"", false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    Message_tree tree(*manager, std::string("From: a@example.org\r\nSubject: s\r\nMIME-Version: 1.0\r\n") +
                                    "Content-Type: " + c.type + "; boundary=b\r\n\r\n" + part,
                      options);
    Item_node* body = nullptr;
    tree.for_each([&](Item_node& node) {
      if (node.depth == 2 && node.bytes() == "hello") body = &node;
    });
    ASSERT_NE(body, nullptr);
    error.clear();
    EXPECT_EQ(tree.can_replace(*body, error), c.replaceable) << error;
    EXPECT_EQ(tree.replace(*body, "bye\r\n", error), c.replaceable) << error;
    if (!c.replaceable) {
      EXPECT_NE(error.find("refuses item"), std::string::npos) << error;
    }
  }
}

TEST(Library, MissingModuleIsAClearError) {
  Host_options options;
  options.module_path = "/nonexistent/smtp.so";
  std::string error;
  EXPECT_EQ(Plugin_library::load(options, error), nullptr);
  EXPECT_NE(error.find("/nonexistent/smtp.so"), std::string::npos);
}

TEST(Scan, SplitsAnMboxAtItsEnvelopeLines) {
  fs::path dir = fs::temp_directory_path() / ("smtpfm-scan-test-" + std::to_string(getpid()));
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
  std::string log = (fs::temp_directory_path() /
                     ("smtpfm-test-stderr-" + std::to_string(getpid()) + "-" +
                      ::testing::UnitTest::GetInstance()->current_test_info()->name()))
                        .string();
  int status = std::system((std::string(SMTPFM_BIN_DIR) + "/smtpfm " + arguments + " 2>" + log).c_str());
  if (err) {
    std::ifstream in(log);
    std::ostringstream text;
    text << in.rdbuf();
    *err = text.str();
  }
  fs::remove(log);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

fs::path corpus_folder() {
  const char* source = std::getenv("SMTPFM_SOURCE_DIR");
  fs::path folder = fs::path(source ? source : "/work/main") / ".." / "shared" / "corpus";
  return fs::exists(folder) ? folder : fs::path("/work/shared/corpus");
}

std::string read_bytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

// Every corpus message: its tree document is valid JSON with the contract's
// keys, and no plug-in call throws.
TEST(Corpus, TreesParseAndUnchangedMessagesComeBackWhole) {
  std::string error;
  Host_options options = plugin_options();
  options.export_headers = {"Subject", "From"};
  auto library = Plugin_library::load(options, error);
  ASSERT_NE(library, nullptr) << error;
  Manager_ptr manager(library->create_manager(options, error));
  size_t messages = 0, taken = 0;
  for (const auto& entry : fs::recursive_directory_iterator(corpus_folder())) {
    if (!entry.is_regular_file() || entry.path().extension() == ".md") continue;
    ++messages;
    Message_tree tree(*manager, read_bytes(entry.path()), options);
    std::string line = tree_json(tree, entry.path().string()).dump();
    Json document = Json::parse(line);
    for (auto key : {"path", "length", "properties", "reports", "log", "taken", "handler", "open_status",
                     "modified", "items"})
      EXPECT_TRUE(document["item"].contains(key)) << key;
    if (tree.root().taken()) ++taken;
    tree.for_each([&](Item_node& node) {
      EXPECT_TRUE(node.failure.empty()) << entry.path() << " " << node.path << ": " << node.failure;
    });
  }
  EXPECT_EQ(messages, 128u);
  EXPECT_EQ(taken, 120u);  // eight damaged messages are refused by the recognition rules
}

class Tool_run : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() /
           ("smtpfm-tool-" + std::to_string(getpid()) + "-" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string path(const std::string& name) const { return (dir_ / name).string(); }
  fs::path dir_;
};

constexpr char plain_message[] =
    "From: a@example.org\r\nSubject: figures\r\n\r\nSee below.\r\n"
    "begin 644 f.txt\r\n#86)C\r\n`\r\nend\r\nbye\r\n";

TEST_F(Tool_run, ExtractReplaceAndRebuildAPlainMessage) {
  std::ofstream(path("msg.eml"), std::ios::binary) << plain_message;
  ASSERT_EQ(smtpfm("extract " + path("msg.eml") + " -o " + path("out")), 0);
  // The body was cut at its uuencoded block: the block and what follows it
  // is item 0, the file decoded item 1 (hardened), the text in front of it
  // item 2.
  EXPECT_EQ(read_bytes(path("out/0")), "begin 644 f.txt\r\n#86)C\r\n`\r\nend\r\nbye\r\n");
  EXPECT_EQ(read_bytes(path("out/1_f.txt")), "abc");
  EXPECT_EQ(read_bytes(path("out/2")), "See below.\r\n");
  Json manifest = Json::parse(read_bytes(path("out/manifest.json")));
  ASSERT_EQ(manifest["items"].size(), 3u);
  EXPECT_EQ(manifest["items"][0]["properties"][0], Json::array({"ItemType", "AttachmentItem"}));

  std::ofstream(path("new.txt"), std::ios::binary) << "(removed)\r\n";
  ASSERT_EQ(smtpfm("replace " + path("msg.eml") + " --item 0 --with " + path("new.txt") + " -o " +
                   path("replaced.eml")),
            0);
  EXPECT_EQ(read_bytes(path("replaced.eml")),
            "From: a@example.org\r\nSubject: figures\r\n\r\nSee below.\r\n(removed)\r\n");

  ASSERT_EQ(smtpfm("rebuild " + path("msg.eml") + " -o " + path("same.eml")), 0);
  EXPECT_EQ(read_bytes(path("same.eml")), plain_message);
}

TEST_F(Tool_run, ErrorsGiveOneLineAndNoOutput) {
  std::ofstream(path("msg.eml"), std::ios::binary) << plain_message;
  std::ofstream(path("new.txt"), std::ios::binary) << "x";
  const std::string replace =
      "replace " + path("msg.eml") + " --with " + path("new.txt") + " -o " + path("out.eml");
  const std::pair<std::string, std::string> cases[] = {
      {"tree " + path("missing.eml"), "missing.eml: cannot open"},
      {replace + " --item x", "no item x"},
      {replace + " --export-header Subject --item 0", "may not be changed"},
  };
  for (const auto& [arguments, message] : cases) {
    std::string err;
    EXPECT_EQ(smtpfm(arguments, &err), 1) << arguments;
    EXPECT_NE(err.find(message), std::string::npos) << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    EXPECT_FALSE(fs::exists(path("out.eml"))) << arguments;
  }
  EXPECT_NE(smtpfm("tree"), 0);  // a missing argument
}

TEST_F(Tool_run, ScanCountsAndWritesJsonLines) {
  std::ofstream(path("box.mbox"), std::ios::binary)
      << "From x Mon Jan 1 00:00:00 2024\nFrom: a@b\nSubject: one\n\nhi\n\n"
         "From x Mon Jan 1 00:00:00 2024\nnot mail at all\n";
  std::string err;
  EXPECT_EQ(smtpfm("scan -j 2 " + path("box.mbox") + " --json-lines " + path("trees.jsonl") + " > " +
                   path("summary.txt")),
            0);
  std::string summary = read_bytes(path("summary.txt"));
  EXPECT_NE(summary.find("messages: 2\ntaken: 1\nrefused: 1"), std::string::npos) << summary;
  std::istringstream lines(read_bytes(path("trees.jsonl")));
  std::string line;
  int documents = 0;
  while (std::getline(lines, line)) {
    EXPECT_TRUE(Json::parse(line).contains("item"));
    ++documents;
  }
  EXPECT_EQ(documents, 2);
}

// "-" is standard input or output; a path that is no regular file is
// written in place (a pipe behind /dev/stdout); a link, even one whose
// file does not exist yet, is written through and stays a link; with the
// JSON lines on standard output the summary goes to standard error.
TEST_F(Tool_run, StandardStreamsDevicesAndLinks) {
  std::ofstream(path("msg.eml"), std::ios::binary) << plain_message;
  fs::create_symlink("target.eml", path("link.eml"));
  const std::string m = path("msg.eml");
  const std::pair<std::string, std::string> cases[] = {
      {"rebuild " + m + " -o - > " + path("a"), "a"},
      {"rebuild " + m + " -o /dev/stdout | cat > " + path("b"), "b"},
      {"rebuild - -o " + path("c") + " < " + m, "c"},
      {"rebuild " + m + " -o " + path("link.eml"), "target.eml"},
  };
  for (const auto& [arguments, written] : cases) {
    EXPECT_EQ(smtpfm(arguments), 0) << arguments;
    EXPECT_EQ(read_bytes(path(written)), plain_message) << arguments;
  }
  EXPECT_TRUE(fs::is_symlink(path("link.eml")));
  std::string err;
  EXPECT_EQ(smtpfm("scan " + m + " --json-lines - > " + path("lines"), &err), 0);
  EXPECT_EQ(Json::parse(read_bytes(path("lines")))["file"], m);
  EXPECT_NE(err.find("messages: 1"), std::string::npos) << err;
  EXPECT_EQ(smtpfm("--version > " + path("version")), 0);
  EXPECT_EQ(read_bytes(path("version")).rfind("smtpfm ", 0), 0u);
}

}  // namespace
