// The host library and the smtpfm tool, end to end through smtp.so.
#include "host/host.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "host/names.h"
#include "host/report.h"
#include "host/scan.h"
#include "host/sha256.h"
#include "host/test_plugins.h"

namespace fs = std::filesystem;

namespace {

TEST(Canonical, BareLineFeedsBecomeCrLfAndBack) {
  const struct {
    const char* in;
    const char* want;
    std::vector<uint64_t> added;
  } cases[] = {{"", "", {}},
               {"a\nb", "a\r\nb", {1}},
               {"a\r\nb\n", "a\r\nb\r\n", {4}},
               {"\n\n", "\r\n\r\n", {0, 2}},
               {"a\rb", "a\rb", {}}};
  for (const auto& c : cases) {
    std::vector<uint64_t> added;
    EXPECT_EQ(make_canonical(c.in, &added), c.want) << c.in;
    EXPECT_EQ(added, c.added) << c.in;
    EXPECT_EQ(is_canonical(c.in), std::string_view(c.in) == c.want) << c.in;
    if (std::string_view(c.in).find('\r') == std::string_view::npos) {
      EXPECT_EQ(bare_line_ends(c.want), c.in);
    }
  }
}

// FIPS 180-2 appendix B: one block, two blocks (the length does not fit
// behind 56 bytes), and a million bytes.
TEST(Sha256, FipsVectors) {
  const std::pair<std::string, const char*> cases[] = {
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      {std::string(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
  };
  for (const auto& [in, want] : cases) EXPECT_EQ(sha256_hex(in), want) << in.size();
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
                               [&](std::string name, File_bytes bytes) { seen.emplace_back(name, bytes.view()); }, error))
      << error;
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0].second, "Subject: one\n\n>From here on\n");
  EXPECT_EQ(seen[1].second, "Subject: two\n\nbody\n");
  EXPECT_EQ(seen[1].first, (dir / "box.mbox").string() + "#2");
  EXPECT_EQ(seen[2].second, "Subject: three\n\nx\n");
  EXPECT_FALSE(for_each_message({(dir / "missing").string()}, [](std::string, File_bytes) {}, error));
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
  node.item->set_property(u"ItemName", Vek_wstring(500, u'x') + u".exe");
  EXPECT_EQ(leaf_file_name(node).size(), 120u);
  EXPECT_TRUE(leaf_file_name(node).ends_with("x.exe"));  // cut in the stem, not the extension
  node.item->set_property(u"ItemName", u"inv\x1b[2K\roice\u202efdp.exe");
  EXPECT_EQ(leaf_file_name(node), "1.0_inv_[2K_oice_fdp.exe");
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
// keys, no plug-in call throws, and the messages refused say why. A missing
// corpus fails: the walk throws.
TEST(Corpus, TreesParseAndRefusalsSayWhy) {
  Host_options options;
  options.export_headers = {"Subject", "From"};
  const Test_plugins plugins(std::string(SMTPFM_BIN_DIR) + "/smtp.so", options);
  size_t messages = 0;
  std::set<std::string> refused;
  for (const auto& entry : fs::recursive_directory_iterator(corpus_folder())) {
    if (!entry.is_regular_file() || entry.path().extension() == ".md") continue;
    ++messages;
    const auto tree = plugins.open(read_bytes(entry.path()));
    std::string line = tree_json(*tree, entry.path().string()).dump();
    Json document = Json::parse(line);
    for (auto key : {"path", "length", "properties", "reports", "log", "taken", "handler", "open_status",
                     "modified", "items"})
      EXPECT_TRUE(document["item"].contains(key)) << key;
    if (!tree->root().taken()) {
      refused.insert(entry.path().filename().string());
      EXPECT_NE(tree->refusal(tree->root()).line_number, 0u) << entry.path() << tree->refusal(tree->root()).reason;
    }
    tree->for_each([&](Item_node& node) {
      EXPECT_TRUE(node.failure.empty()) << entry.path() << " " << node.path << ": " << node.failure;
    });
  }
  EXPECT_EQ(messages, 128u);
  // Eight damaged messages are refused by the recognition rules.
  EXPECT_EQ(refused, (std::set<std::string>{"malformedHeaderStartsBody-nocrlfcrlf.msg",
                                            "malformedHeader-nocrlfcrlf.msg", "msg_35.txt",
                                            "malformedHeaderStartsBody-noheader.msg", "malformedHeader-noheader.msg",
                                            "msg_19.txt", "obsolete.msg", "very-very-long-boundary.msg"}));
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
  // is item 0, which uue.so opens into the file and the text behind it;
  // the text in front of the block is item 1.
  EXPECT_EQ(read_bytes(path("out/0.0_f.txt")), "abc");
  EXPECT_EQ(read_bytes(path("out/0.1")), "bye\r\n");
  EXPECT_EQ(read_bytes(path("out/1")), "See below.\r\n");
  Json manifest = Json::parse(read_bytes(path("out/manifest.json")));
  ASSERT_EQ(manifest["items"].size(), 3u);
  EXPECT_EQ(manifest["items"][0]["properties"][0], Json::array({"ItemType", "AttachmentItem"}));
  EXPECT_EQ(manifest["items"][0]["sha256"], sha256_hex("abc"));
  // A second extract into the folder replaces the first one's files.
  ASSERT_EQ(smtpfm("extract --no-uuencode " + path("msg.eml") + " -o " + path("out")), 0);
  EXPECT_FALSE(fs::exists(path("out/0.0_f.txt")));
  EXPECT_TRUE(fs::exists(path("out/0")));

  std::ofstream(path("new.txt"), std::ios::binary) << "(removed)\r\n";
  ASSERT_EQ(smtpfm("replace " + path("msg.eml") + " --item 0 --with " + path("new.txt") + " -o " +
                   path("replaced.eml")),
            0);
  EXPECT_EQ(read_bytes(path("replaced.eml")),
            "From: a@example.org\r\nSubject: figures\r\n\r\nSee below.\r\n(removed)\r\n");

  ASSERT_EQ(smtpfm("rebuild " + path("msg.eml") + " -o " + path("same.eml")), 0);
  EXPECT_EQ(read_bytes(path("same.eml")), plain_message);
}

// The hostile messages of samples/hostile, one per way that mail hides
// an attachment or a name.
std::string hostile(const std::string& name) { return std::string(SMTPFM_SAMPLE_DIR "/hostile/") + name; }

// Every error gives one line on stderr (the last one, where a command goes
// on over its other inputs), its exit status and no output file.
TEST_F(Tool_run, ErrorsGiveOneLineAndNoOutput) {
  std::ofstream(path("msg.eml"), std::ios::binary) << plain_message;
  std::ofstream(path("new.txt"), std::ios::binary) << "x";
  fs::create_directories(path("used"));
  std::ofstream(path("used/notes.txt")) << "mine";
  const std::string replace =
      "replace " + path("msg.eml") + " --with " + path("new.txt") + " -o " + path("out.eml");
  const struct {
    std::string arguments;
    int status;
    std::string message;
    std::string printed = {};  // on standard output
  } cases[] = {
      {"tree " + path("missing.eml"), 1, "missing.eml: cannot open"},
      {"tree --module /nonexistent/smtp.so " + path("msg.eml"), 1, "/nonexistent/smtp.so"},
      {replace + " --item x", 1, "no item x"},
      {replace + " --export-header Subject --item 0", 1, "may not be changed"},
      {"tree --policy garbage " + path("msg.eml"), 1, "\"garbage\" is no format"},
      {"tree --policy ' , ' " + path("msg.eml"), 1, "names no format"},
      {"deregister --registry " + path("registry"), 1, "nothing to withdraw"},
      {"extract " + path("msg.eml") + " -o " + path("used"), 1, "holds files that no earlier extract wrote"},
      // tree goes on over the other files and fails at the end
      {"tree " + path("missing.eml") + " " + path("msg.eml"), 1, "missing.eml: cannot open", "subject \"figures\""},
      {"disarm " + hostile("not-mail.eml") + " -o " + path("out.eml"), 2,
       "not taken: its first line is no header field"},
      {"disarm " + hostile("signed.eml") + " -o " + path("out.eml"), 2, "remaining 1: nothing written"},
  };
  for (const auto& c : cases) {
    std::string err;
    EXPECT_EQ(smtpfm(c.arguments + " > " + path("stdout"), &err), c.status) << c.arguments;
    const size_t last_line = err.size() < 2 ? 0 : err.rfind('\n', err.size() - 2) + 1;
    EXPECT_NE(err.find(c.message, last_line), std::string::npos) << err;
    EXPECT_NE(read_bytes(path("stdout")).find(c.printed), std::string::npos) << c.arguments;
    EXPECT_FALSE(fs::exists(path("out.eml"))) << c.arguments;
  }
  EXPECT_EQ(read_bytes(path("used/notes.txt")), "mine");
  EXPECT_NE(smtpfm("tree"), 0);  // a missing argument
}

// disarm takes out what a client would offer, wherever it stands, or says
// what remains and writes nothing.
TEST_F(Tool_run, DisarmLeavesNoAttachmentOrSaysWhatRemains) {
  const struct {
    std::string file;
    std::string options;
    int status;
    std::string said;     // on stderr
    std::string written;  // in the output, when it is written
  } cases[] = {
      {"single-part-exe.eml", "", 0, "disarmed 0 \"evil.exe\"",
       "Content-Type: text/plain; charset=us-ascii; name=\"evil.exe.txt\"\n"
       "Content-Disposition: attachment; filename=\"evil.exe.txt\"\nContent-Transfer-Encoding: 7bit\n\n"
       "This attachment was removed by smtpfm.\n"},
      {"html-first.eml", "", 0, "disarmed 1.0 \"invoice.html\"", "Please see the invoice."},
      {"forwarded.eml", "", 0, "disarmed 0.0.0.0 \"inner.zip\"", "inner text"},
      {"two-gifs.eml", "", 0, "disarmed 0.2 \"two.gif\"", "begin 644 two.gif.txt"},
      // Extra readings go with what holds their bytes: the multipart whose
      // preamble holds a file, the text body that one reader splits.
      {"preamble-file.eml", "", 0, "disarmed 0.0.0 \"setup.exe\"", "filename=\"setup.exe.txt\""},
      {"two-content-types.eml", "", 0, "disarmed 1.0 \"archive.zip\"", "filename=\"archive.zip.txt\""},
      {"x-uuencode.eml", "", 0, "disarmed 0.0 \"tool.exe\"", "name=\"tool.exe.txt\""},
      {"rfc2231-name.eml", "", 0, "\\u{202e}fdp.exe", "filename=\"_fdp.exe.txt\""},
      {"signed.eml", "", 2, "remains 1.1.0 \"broken.pdf\": item 1.1 may not be changed", ""},
      {"signed.eml", "--signed keep", 0, "kept 1.1.0 \"broken.pdf\"", "JVBERi0xLjQK"},
      {"signed.eml", "--signed strip", 0, "signature removed", "name=\"broken.pdf.txt\""},
      {"encrypted.eml", "", 2, "encrypted: its content cannot be looked into", ""},
      {"encrypted.eml", "--encrypted remove", 0, "disarmed (top) \"smime.p7m\"", "smime.p7m.txt"},
      {"deep.eml", "--max-depth 3", 2, "not opened: deeper than the depth bound", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file + " " + c.options);
    fs::remove(path("out.eml"));
    std::string err;
    EXPECT_EQ(smtpfm("disarm " + hostile(c.file) + " " + c.options + " -o " + path("out.eml"), &err), c.status);
    EXPECT_NE(err.find(c.said), std::string::npos) << err;
    EXPECT_EQ(fs::exists(path("out.eml")), c.status == 0);
    if (c.status == 0) {
      EXPECT_NE(read_bytes(path("out.eml")).find(c.written), std::string::npos) << read_bytes(path("out.eml"));
    }
  }
  // --json: the outcome of every item.
  EXPECT_EQ(smtpfm("disarm --json " + hostile("signed.eml") + " -o " + path("x.eml") + " > " + path("outcome")), 2);
  const Json outcome = Json::parse(read_bytes(path("outcome")));
  EXPECT_EQ(outcome["remaining"], 1);
  EXPECT_EQ(outcome["items"][0]["outcome"], "remains");
  EXPECT_EQ(outcome["items"][0]["name"], "broken.pdf");
}

// The bytes nobody asked to change come out as they went in; names and
// texts come out as a person reads them, and safe on a terminal.
TEST_F(Tool_run, BytesLeftAloneAndNamesAPersonCanRead) {
  std::string noise;
  for (int i = 0; i < 4096; ++i) noise += static_cast<char>((i * 7919) % 251);
  std::ofstream(path("noise.bin"), std::ios::binary) << noise;
  const std::string binary = hostile("binary-part.eml");
  const std::string blob = read_bytes(binary).substr(read_bytes(binary).find("binary\n\n") + 8, 1024);
  const std::pair<std::string, std::string> same[] = {
      {"rebuild " + path("noise.bin") + " -o " + path("a"), noise},
      {"rebuild " + binary + " -o " + path("a"), read_bytes(binary)},
      {"extract " + binary + " -o " + path("x") + " && cat " + path("x/0.0_blob.bin") + " > " + path("a"), blob},
      {"extract --export-header Subject " + hostile("raw-utf8-name.eml") + " -o " + path("y") + " && cat " +
           path("y/0_SUBJECT") + " > " + path("a"),
       "für dich"},
  };
  for (const auto& [arguments, want] : same) {
    EXPECT_EQ(smtpfm(arguments), 0) << arguments;
    EXPECT_EQ(read_bytes(path("a")), want) << arguments;
  }
  EXPECT_TRUE(fs::exists(path("y/1.0_ciële.exe")));
  ASSERT_EQ(smtpfm("tree " + hostile("control-name.eml") + " " + hostile("encoded-word-name.eml") + " " +
                   hostile("raw-utf8-name.eml") + " " + corpus_folder().string() + "/mime4j/mimetools-testmsgs/infinite.msg " +
                   hostile("not-mail.eml") + " > " + path("tree")),
            0);
  const std::string tree = read_bytes(path("tree"));
  for (const char* shown : {"\"inv\\x1b[2K\\x0doice.pdf.exe\"", "\"Grüße.exe\"", "subject \"Für dich\"", "\"ciële.exe\"",
                            "33 a step failed (0xc2010509 bad Content-Type)",
                            "[not taken: its first line is no header field (\"Name: value\"); line 1: \"GIF89a\\x01"})
    EXPECT_NE(tree.find(shown), std::string::npos) << shown << "\n" << tree;
}

TEST_F(Tool_run, ScanCountsAndWritesJsonLines) {
  std::ofstream(path("box.mbox"), std::ios::binary)
      << "From x Mon Jan 1 00:00:00 2024\nFrom: a@b\nSubject: one\n\nhi\n\n"
         "From x Mon Jan 1 00:00:00 2024\nnot mail at all\n";
  std::string err;
  // A missing path is reported, passed over and counted.
  EXPECT_EQ(smtpfm("scan -j 2 --ordered " + path("box.mbox") + " " + path("missing") + " " + hostile("") +
                       " --json-lines " + path("trees.jsonl") + " --refused " + path("refused.txt") + " > " +
                       path("summary.txt"),
                   &err),
            1);
  EXPECT_NE(err.find("missing: cannot open"), std::string::npos) << err;
  std::string summary = read_bytes(path("summary.txt"));
  EXPECT_NE(summary.find("messages: 22\ntaken: 20\nrefused: 2"), std::string::npos) << summary;
  EXPECT_NE(summary.find("failures: 1\n"), std::string::npos) << summary;
  std::istringstream lines(read_bytes(path("trees.jsonl")));
  std::string line;
  std::vector<std::string> files;
  while (std::getline(lines, line)) files.push_back(Json::parse(line)["file"]);
  ASSERT_EQ(files.size(), 22u);
  EXPECT_EQ(files[0], path("box.mbox") + "#1");
  EXPECT_TRUE(std::is_sorted(files.begin() + 2, files.end()));  // in the order of the input
  EXPECT_EQ(read_bytes(path("refused.txt")),
            path("box.mbox") + "#2: its first line is no header field (\"Name: value\") (line 1: \"not mail at all\")\n" +
                hostile("not-mail.eml") +
                ": its first line is no header field (\"Name: value\") (line 1: \"GIF89a\\x01\\x00\\x01\\x00\\x80 this is no "
                "mail at all\")\n");
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
  EXPECT_EQ(smtpfm("scan " + m + " --json-lines /dev/stdout > " + path("lines"), &err), 0);
  EXPECT_EQ(Json::parse(read_bytes(path("lines")))["file"], m);
  EXPECT_NE(err.find("messages: 1"), std::string::npos) << err;
  EXPECT_EQ(smtpfm("--version > " + path("version")), 0);
  EXPECT_EQ(read_bytes(path("version")).rfind("smtpfm ", 0), 0u);
  // A module named without a folder is the file in the working folder.
  EXPECT_EQ(std::system(("cd " SMTPFM_BIN_DIR " && ./smtpfm tree --module smtp.so " + m + " > /dev/null").c_str()), 0);
}

}  // namespace
