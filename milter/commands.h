// The mail server commands of smtpfm: `check` (what a policy does with
// messages, and why), `filter` (a message through the policy from standard
// input to standard output, for mail servers that pipe mail through a
// command) and `milter` (the daemon a mail server talks to during the SMTP
// transaction).
#ifndef SMTPFM_MILTER_COMMANDS_H_
#define SMTPFM_MILTER_COMMANDS_H_

#include <CLI/CLI.hpp>

#include "host/host.h"

// Adds the three commands to `app`. Each runs from its own callback while
// `app` parses and ends a failed run with CLI::RuntimeError(exit code), so
// CLI11_PARSE returns the code. The plug-in's options (--module,
// --max-depth, ...) fill `options`; `--policy` names the policy file here,
// so the managers' format list is not offered. filter and milter read as
// the hardened profile does; check may be asked for the reference reading
// with --strict.
void add_mail_server_commands(CLI::App& app, Host_options& options);

#endif  // SMTPFM_MILTER_COMMANDS_H_
