// smtpfm milter: the policy applied to every message a mail server hands
// over through the milter protocol (libmilter), during the SMTP transaction.
//
// libmilter runs one thread per connection; the plug-ins run in a pool of
// format managers, one of smtp.so and one of uue.so per worker, so that at
// most `workers` messages are taken apart at once. A message is collected
// in memory up to `memory_limit` bytes and in an unlinked temporary file
// beyond it. The policy is read again on SIGHUP (a bad file keeps the old
// policy); SIGTERM and SIGINT stop the daemon once the open connections
// are done.
#ifndef SMTPFM_MILTER_MILTER_H_
#define SMTPFM_MILTER_MILTER_H_

#include <cstdint>
#include <string>

#include "host/host.h"

struct Milter_options {
  std::string policy_path;
  std::string socket;           // "unix:PATH" or "inet:PORT@HOST", as libmilter takes it
  unsigned workers = 2;         // format managers, each taking one message at a time
  uint64_t memory_limit = 8 << 20;  // bytes of a message kept in memory before it spills
  uint64_t max_size = 256ull << 20; // a larger message is not read and gets on-error
  std::string spool = "/tmp";   // where spilled messages go (unlinked at once)
  bool log_stderr = false;      // one line per message on stderr instead of syslog
  int timeout = 300;            // seconds libmilter waits for the mail server
};

// Runs the daemon until SIGTERM or SIGINT; returns the exit code. A policy
// that does not load, a plug-in that does not load or a socket that cannot
// be opened end it at once with one line on stderr.
int run_milter(const Host_options& host_options, const Milter_options& options);

#endif  // SMTPFM_MILTER_MILTER_H_
