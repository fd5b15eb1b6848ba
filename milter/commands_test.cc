// smtpfm check and filter as a mail server or an administrator runs them:
// what goes to standard output and standard error, the exit status, and
// the message as it passes on (line ends kept, a uuencoded file seen).
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "host/files.h"

namespace fs = std::filesystem;

namespace {

const char policy_text[] = R"(
notice = "removed: {name}"
[[rule]]
name = "exe"
file-name = "*.exe"
action = "disarm"
[[rule]]
name = "scripts"
file-name = "*.js"
action = "reject"
text = "No scripts"
)";

// A message with bare LF line ends, as a pipe hands it over, whose text
// holds a uuencoded file.
std::string uuencoded(const std::string& name) {
  return "From: a@example.org\nSubject: s\n\nHello\nbegin 644 " + name + "\n#04)#\n`\nend\n";
}

TEST(Commands, CheckAndFilterWriteWhereAUnixToolDoes) {
  const fs::path dir = fs::temp_directory_path() / ("smtpfm-commands-" + std::to_string(getpid()));
  fs::remove_all(dir);
  fs::create_directories(dir);
  write_file((dir / "policy.toml").string(), policy_text);
  write_file((dir / "exe.eml").string(), uuencoded("evil.exe"));
  write_file((dir / "script.eml").string(), uuencoded("run.js"));
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
      {"filter refuses", "filter < script.eml", 69, "", "550 5.7.1 No scripts"},
      // The message on standard output alone; the report beside it.
      {"check --write -", "check exe.eml --write -", 0, "X-Smtpfm-Verdict: disarm; rules=exe\n",
       "[0.0] attachment \"evil.exe\""},
      {"check goes on", "check missing.eml script.eml", 1, "script.eml: reject (550 5.7.1 No scripts)",
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
