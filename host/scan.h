// smtpfm scan: many messages through a pool of workers, each with a format
// manager of its own, and a summary at the end.
#ifndef SMTPFM_HOST_SCAN_H_
#define SMTPFM_HOST_SCAN_H_

#include <functional>
#include <string>
#include <vector>

#include "host/files.h"
#include "host/host.h"

// Calls `take` with each message under `paths`: a file is one message, a
// folder is walked recursively in name order (as a Maildir holds mail), and
// a file whose first line begins with "From " is an mbox, split at every
// "From " line that begins the file or follows an empty line; that
// envelope line is not part of the message. An mbox is read a message at a
// time, never whole; any other file is mapped (File_bytes). A path that
// cannot be read is passed over: `failed` (when given) gets why, and the
// result is false with the first reason in `error`.
bool for_each_message(const std::vector<std::string>& paths,
                      const std::function<void(std::string name, File_bytes bytes)>& take, std::string& error,
                      const std::function<void(const std::string& why)>& failed = nullptr);

struct Scan_options {
  unsigned jobs = 1;
  std::string json_lines;  // the tree --json document of every message goes here ("-": standard output)
  std::string refused;     // each message that was not taken, and why, goes here
  bool ordered = false;    // documents in the order of the input, whatever worker finished first
};

// The scan command; returns the exit code: 0, 1 when an input could not be
// read or the plug-in not loaded, 2 when a plug-in call failed.
int run_scan(const Host_options& options, const std::vector<std::string>& paths, const Scan_options& scan);

#endif  // SMTPFM_HOST_SCAN_H_
