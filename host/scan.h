// smtpfm scan: many messages through a pool of workers, each with a format
// manager of its own, and a summary at the end.
#ifndef SMTPFM_HOST_SCAN_H_
#define SMTPFM_HOST_SCAN_H_

#include <functional>
#include <string>
#include <vector>

#include "host/host.h"

// Calls `take` with each message under `paths`: a file is one message, a
// folder is walked recursively in name order (as a Maildir holds mail), and
// a file whose first line begins with "From " is an mbox, split at every
// "From " line that begins the file or follows an empty line; that
// envelope line is not part of the message. An mbox is read a message at a
// time, never whole. Returns false with `error` for a path it cannot read.
bool for_each_message(const std::vector<std::string>& paths,
                      const std::function<void(std::string name, std::string bytes)>& take, std::string& error);

// The scan command; returns the exit code.
int run_scan(const Host_options& options, const std::vector<std::string>& paths, unsigned jobs,
             const std::string& json_lines);

#endif  // SMTPFM_HOST_SCAN_H_
