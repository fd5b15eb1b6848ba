// A policy applied to real messages through smtp.so and uue.so: the
// verdict, the rules named, what passes on, and on-error where the plug-in
// cannot read a message or a disarm cannot be carried out; and check and
// filter on the command line.
#include "milter/evaluate.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "host/files.h"
#include "host/test_plugins.h"

namespace fs = std::filesystem;

namespace {

// smtp.so and uue.so with a manager of each, as the milter has them.
Test_plugins milter_plugins() {
  Host_options options;
  options.hardened = true;
  return Test_plugins(std::string(SMTPFM_BIN_DIR) + "/smtp.so", options);
}

// A multipart entity of a text body and one attachment of the given
// head, whose body is "QUJD" (ABC).
std::string entity(const std::string& type, const std::string& disposition) {
  return "Content-Type: multipart/mixed; boundary=\"b\"\r\n\r\n--b\r\nContent-Type: text/plain\r\n\r\n"
         "Hello there\r\n--b\r\nContent-Type: " +
         type + "\r\nContent-Disposition: " + disposition +
         "\r\nContent-Transfer-Encoding: base64\r\n\r\nQUJD\r\n--b--\r\n";
}

// The same as a message, with a forged verdict header.
std::string with_attachment(const std::string& type, const std::string& disposition) {
  return "From: a@example.org\r\nTo: b@example.org\r\nSubject: s\r\nX-Smtpfm-Verdict: accept\r\n"
         " forged\r\nMIME-Version: 1.0\r\n" +
         entity(type, disposition);
}

const char policy_text[] = R"(
notice = "removed by {rule}: {name}"
[[rule]]
name = "exe"
file-name = "*.exe"
action = "disarm"
[[rule]]
name = "scripts"
file-name = "*.js"
action = "reject"
code = 554
text = "No scripts"
[[rule]]
name = "sealed"
encrypted = true
action = "quarantine"
[[rule]]
name = "hidden"
unexamined = true
action = "quarantine"
[[rule]]
name = "text"
type = "text/plain"
action = "accept"
)";

TEST(Evaluate, VerdictRulesAndWhatPassesOn) {
  const struct {
    const char* name;
    std::string in;
    const char* want_verdict;
    const char* want_error;    // a part of the error, "" for none
    const char* want_in_output;  // "" when nothing passes on or it is the input
    const char* want_written = "";  // in the message as it passes on
  } cases[] = {
      {"clean", with_attachment("application/pdf", "attachment; filename=a.pdf"), "accept; rules=text", "", ""},
      // The part becomes a text/plain part named as the attachment was.
      {"exe disarmed", with_attachment("application/octet-stream", "attachment; filename=\"setup.exe\""),
       "disarm; rules=exe,text", "", "removed by exe: setup.exe",
       "--b\r\nContent-Type: text/plain; charset=us-ascii; name=\"setup.exe.txt\"\r\n"
       "Content-Disposition: attachment; filename=\"setup.exe.txt\"\r\n"},
      {"refusal wins", with_attachment("application/javascript", "attachment; filename=x.js"),
       "reject; rules=scripts,text", "", ""},
      {"encrypted", with_attachment("application/pkcs7-mime; smime-type=enveloped-data", "attachment; filename=m.p7m"),
       "quarantine; rules=sealed,text", "", ""},
      // Not opened, it is named in its header only.
      {"encrypted exe",
       with_attachment("application/pkcs7-mime; smime-type=enveloped-data", "attachment; filename=setup.exe"),
       "disarm; rules=exe,text", "", "removed by exe: setup.exe", "name=\"setup.exe.txt\""},
      {"encrypted whole",
       "From: a@example.org\r\nMIME-Version: 1.0\r\nContent-Type: application/pkcs7-mime; "
       "smime-type=enveloped-data\r\nContent-Transfer-Encoding: base64\r\n\r\nQUJD\r\n",
       "quarantine; rules=sealed", "", ""},
      // Read by another boundary, a part inside the text part: that part goes.
      {"exe of another reading",
       "From: a@example.org\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b; boundary=c\r\n\r\n"
       "--b\r\n\r\nHello there\r\n--b\r\n\r\n--c\r\nContent-Type: application/octet-stream; name=setup.exe\r\n"
       "Content-Transfer-Encoding: base64\r\n\r\nQUJD\r\n--c--\r\n--b--\r\n",
       "disarm; rules=text,exe", "", "removed by exe: setup.exe", "--b\r\nContent-Type: text/plain; charset=us-ascii; name=\"setup.exe.txt\""},
      {"not mail", "X-Junk: \x01\x02\x03\x04\x05\x06\r\n\r\nbody\r\n", "tempfail; error", "not recognised as mail", ""},
      // A signature covers the part: the exe cannot go without breaking it.
      {"disarm refused",
       "From: a@example.org\r\nMIME-Version: 1.0\r\nContent-Type: multipart/signed; "
       "protocol=\"application/pkcs7-signature\"; boundary=s\r\n\r\n--s\r\n" +
           entity("application/octet-stream", "attachment; filename=setup.exe") +
           "--s\r\nContent-Type: application/pkcs7-signature\r\n\r\nSIG\r\n--s--\r\n",
       "tempfail; rules=text,exe; error", "cannot be disarmed", ""},
  };
  std::string error;
  auto policy = Policy::parse(policy_text, "p.toml", error);
  ASSERT_TRUE(policy) << error;
  const Test_plugins plugins = milter_plugins();
  for (const auto& c : cases) {
    Message_tree tree(plugins.managers, c.in, plugins.options);
    Evaluation evaluation = evaluate(*policy, tree);
    EXPECT_EQ(evaluation.verdict_text(), c.want_verdict) << c.name;
    EXPECT_NE(evaluation.error.find(c.want_error), std::string::npos) << c.name << ": " << evaluation.error;
    EXPECT_EQ(evaluation.rewritten, *c.want_in_output != '\0') << c.name;
    if (!evaluation.rewritten) continue;
    EXPECT_NE(evaluation.message.find(c.want_written), std::string::npos) << c.name << ": " << evaluation.message;
    // Read again, the message has the notice and the body, and the
    // attachment's bytes no more.
    Message_tree again(plugins.managers, evaluation.message, plugins.options);
    std::string leaves;
    again.for_each([&](Item_node& node) {
      if (node.is_leaf()) leaves += std::string(node.bytes()) + "|";
    });
    EXPECT_NE(leaves.find(c.want_in_output), std::string::npos) << c.name << ": " << leaves;
    EXPECT_NE(leaves.find("Hello there"), std::string::npos) << c.name << ": " << leaves;
    EXPECT_EQ(leaves.find("ABC"), std::string::npos) << c.name << ": " << leaves;
  }
}

TEST(Evaluate, ItemFactsComeFromThePartAndItsContent) {
  std::string error;
  const Test_plugins plugins = milter_plugins();
  auto policy = Policy::parse("", "p.toml", error);
  Message_tree tree(plugins.managers,
                    with_attachment("Application/X-MSDownload; name=a.txt", "attachment; filename=b.exe"),
                    plugins.options);
  Evaluation evaluation = evaluate(*policy, tree);
  // The plug-in gives the main body last.
  ASSERT_EQ(evaluation.items.size(), 2u);
  const Item_facts& attachment = evaluation.items[0].facts;
  EXPECT_EQ(evaluation.items[0].path, "0.0");
  // Both names a mail client may show, the disposition's first.
  EXPECT_EQ(attachment.names, (std::vector<std::string>{"b.exe", "a.txt"}));
  EXPECT_EQ(attachment.mime_type, "application/x-msdownload");
  EXPECT_EQ(attachment.item_type, "attachment");
  EXPECT_EQ(attachment.depth, 2u);
  EXPECT_EQ(attachment.size, 3u);
  EXPECT_EQ(evaluation.items[1].facts.item_type, "body");
}

TEST(Evaluate, VerdictHeaderReplacesForgedOnes) {
  const struct {
    const char* in;
    const char* want;
  } cases[] = {
      {"A: 1\r\nx-smtpfm-verdict: accept\r\n more\r\nB: 2\r\n\r\nX-Smtpfm-Verdict: body\r\n",
       "X-Smtpfm-Verdict: v\r\nA: 1\r\nB: 2\r\n\r\nX-Smtpfm-Verdict: body\r\n"},
      {"X-Smtpfm-Verdict-2: kept\r\n\r\n", "X-Smtpfm-Verdict: v\r\nX-Smtpfm-Verdict-2: kept\r\n\r\n"},
      {"", "X-Smtpfm-Verdict: v\r\n"},
      // Mail from a pipe with bare LF line ends keeps them.
      {"A: 1\nX-Smtpfm-Verdict: x\n\nbody\n", "X-Smtpfm-Verdict: v\nA: 1\n\nbody\n"},
  };
  for (const auto& c : cases) EXPECT_EQ(with_verdict_header(c.in, "X-Smtpfm-Verdict", "v"), c.want) << c.in;
}

// A message with bare LF line ends, as a pipe hands it over, whose text
// holds a uuencoded file.
std::string uuencoded(const std::string& name) {
  return "From: a@example.org\nSubject: s\n\nHello\nbegin 644 " + name + "\n#04)#\n`\nend\n";
}

// check and filter as a mail server or an administrator runs them: what
// goes to standard output and standard error, and the exit status.
TEST(Commands, CheckAndFilterWriteWhereAUnixToolDoes) {
  const fs::path dir = fs::temp_directory_path() / ("smtpfm-commands-" + std::to_string(getpid()));
  fs::remove_all(dir);
  fs::create_directories(dir);
  write_file((dir / "policy.toml").string(), policy_text);
  write_file((dir / "exe.eml").string(), uuencoded("evil.exe"));
  write_file((dir / "script.eml").string(), uuencoded("run.js"));
  write_file((dir / "preamble.eml").string(),
             "From: a@example.org\nMIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=b\n\nhidden\n--b\n\nHi\n--b--\n");
  const struct {
    const char* name;
    std::string arguments;  // in the folder, with the policy
    int want_status;
    std::string want_out;  // the start of standard output
    std::string want_err;  // in standard error
  } cases[] = {
      // What passes on keeps the bare LF line ends, the verdict's included.
      {"filter disarms", "filter < exe.eml", 0,
       "X-Smtpfm-Verdict: disarm; rules=exe\nFrom: a@example.org\nSubject: s\n\nHello\nbegin 644 evil.exe.txt\n", ""},
      {"filter refuses", "filter < script.eml", 69, "", "554 5.7.1 No scripts"},
      // The message on standard output alone; the report beside it.
      {"check --write -", "check exe.eml --write -", 0, "X-Smtpfm-Verdict: disarm; rules=exe\n",
       "[0.0] attachment \"evil.exe\""},
      // The reference reading leaves the preamble in no item.
      {"check --strict", "check --strict preamble.eml", 0, "preamble.eml: quarantine\n", ""},
      {"check goes on", "check missing.eml script.eml", 1, "script.eml: reject (554 5.7.1 No scripts)",
       "missing.eml: cannot open"},
  };
  for (const auto& c : cases) {
    const std::string command = "cd " + dir.string() + " && " SMTPFM_BIN_DIR "/smtpfm " + c.arguments +
                                " --policy policy.toml > out 2> err";
    const int status = std::system(command.c_str());
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, c.want_status) << c.name;
    const std::string out = read_file((dir / "out").string()), err = read_file((dir / "err").string());
    EXPECT_EQ(out.substr(0, c.want_out.size()), c.want_out) << c.name << ": " << out;
    EXPECT_NE(err.find(c.want_err), std::string::npos) << c.name << ": " << err;
  }
  fs::remove_all(dir);
}

}  // namespace
