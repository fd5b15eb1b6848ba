#include "host/scan.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

#include "contracts/zor.h"
#include "host/files.h"
#include "host/names.h"
#include "host/report.h"

namespace fs = std::filesystem;

namespace {

bool split_mbox(const std::string& path, std::ifstream& in,
                const std::function<void(std::string, File_bytes)>& take) {
  std::string message, line;
  size_t count = 0;
  bool in_message = false, after_blank = true;
  auto flush = [&] {
    if (in_message) take(path + "#" + std::to_string(++count), File_bytes(std::move(message)));
    message.clear();
  };
  while (std::getline(in, line)) {
    bool had_newline = !in.eof();
    bool blank = line.empty() || line == "\r";
    if (after_blank && line.compare(0, 5, "From ") == 0) {
      // The blank line in front of the envelope belongs to the mbox.
      if (message.size() >= 2 && message.compare(message.size() - 2, 2, "\r\n") == 0 && message.size() >= 4 &&
          message.compare(message.size() - 4, 4, "\r\n\r\n") == 0)
        message.resize(message.size() - 2);
      else if (message.size() >= 2 && message.compare(message.size() - 2, 2, "\n\n") == 0)
        message.resize(message.size() - 1);
      flush();
      in_message = true;
      after_blank = false;
      continue;
    }
    message += line;
    if (had_newline) message += '\n';
    after_blank = blank;
  }
  flush();
  return !in.bad();
}

bool take_file(const fs::path& path, const std::function<void(std::string, File_bytes)>& take,
               std::string& error) {
  // A file is mapped, not read: one that is no mail costs the pages that
  // recognition reads.
  File_bytes bytes;
  try {
    bytes = File_bytes::open(path.string());
  } catch (const Command_failure& failure) {
    error = failure.what();
    return false;
  }
  if (!bytes.view().starts_with("From ")) {
    take(path.string(), std::move(bytes));
    return true;
  }
  bytes = File_bytes();
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = path.string() + ": cannot open: " + std::strerror(errno);
    return false;
  }
  if (!split_mbox(path.string(), in, take)) {
    error = path.string() + ": cannot read";
    return false;
  }
  return true;
}

// A queue of messages between the reader and the workers; it holds at most
// `capacity` messages, so memory follows the largest message, not the
// mailbox.
struct Queued_message {
  uint64_t sequence;  // its place in the input, from 0
  std::string name;
  File_bytes bytes;
};

class Message_queue {
 public:
  explicit Message_queue(size_t capacity) : capacity_(capacity) {}
  void push(Queued_message message) {
    std::unique_lock lock(mutex_);
    not_full_.wait(lock, [&] { return queue_.size() < capacity_; });
    queue_.push_back(std::move(message));
    not_empty_.notify_one();
  }
  void close() {
    std::lock_guard lock(mutex_);
    closed_ = true;
    not_empty_.notify_all();
  }
  std::optional<Queued_message> pop() {
    std::unique_lock lock(mutex_);
    not_empty_.wait(lock, [&] { return !queue_.empty() || closed_; });
    if (queue_.empty()) return std::nullopt;
    auto item = std::move(queue_.front());
    queue_.pop_front();
    not_full_.notify_one();
    return item;
  }

 private:
  std::mutex mutex_;
  std::condition_variable not_full_, not_empty_;
  std::deque<Queued_message> queue_;
  size_t capacity_;
  bool closed_ = false;
};

struct Totals {
  uint64_t messages = 0, taken = 0, refused = 0, attachments = 0, code33 = 0, failures = 0, bytes = 0;
  uint64_t unexamined = 0, unexamined_messages = 0;
  std::map<std::string, uint64_t> handlers;
  void add(const Totals& other) {
    messages += other.messages;
    taken += other.taken;
    refused += other.refused;
    attachments += other.attachments;
    code33 += other.code33;
    failures += other.failures;
    bytes += other.bytes;
    unexamined += other.unexamined;
    unexamined_messages += other.unexamined_messages;
    for (const auto& [name, count] : other.handlers) handlers[name] += count;
  }
};

void count_tree(Message_tree& tree, Totals& totals) {
  ++totals.messages;
  totals.bytes += tree.original().size();
  Item_node& root = tree.root();
  if (root.taken()) {
    ++totals.taken;
    ++totals.handlers[root.handler_name];
  } else {
    ++totals.refused;
  }
  bool failed = false;
  uint64_t unexamined = 0;
  tree.for_each([&](Item_node& node) {
    unexamined += unexamined_bytes(node);
    for (const auto& entry : node.item->logs())
      if (entry.code == 33) ++totals.code33;
    const Tav_property* type = node.item->properties().find(ZOR_ITEM_TYPE);
    if (type != nullptr && type->string_value() == ZOR_ATTACHMENT_ITEM) ++totals.attachments;
    if (!node.failure.empty()) failed = true;
  });
  if (failed) ++totals.failures;
  totals.unexamined += unexamined;
  if (unexamined != 0) ++totals.unexamined_messages;
}

}  // namespace

bool for_each_message(const std::vector<std::string>& paths,
                      const std::function<void(std::string, File_bytes)>& take, std::string& error,
                      const std::function<void(const std::string&)>& failed) {
  bool all = true;
  auto fail = [&](const std::string& why) {
    if (all) error = why;
    all = false;
    if (failed) failed(why);
  };
  for (const auto& path : paths) {
    std::error_code code;
    std::string why;
    if (fs::is_directory(path, code)) {
      std::vector<fs::path> files;
      for (auto it = fs::recursive_directory_iterator(path, code); !code && it != fs::recursive_directory_iterator();
           it.increment(code))
        if (it->is_regular_file()) files.push_back(it->path());
      if (code) fail(path + ": cannot read: " + code.message());
      std::sort(files.begin(), files.end());
      for (const auto& file : files)
        if (!take_file(file, take, why)) fail(why);
    } else if (!take_file(path, take, why)) {
      fail(why);
    }
  }
  return all;
}

namespace {

// The lines a message gives the two outputs, and a writer that puts them
// out in the order of the input where that is asked for. The reader waits
// while `window` messages are still to be written, so that one slow
// message never makes the others pile up in memory.
struct Scan_lines {
  std::string document;
  std::string refused;
};

class Ordered_writer {
 public:
  Ordered_writer(std::ostream* documents, std::ostream* refused, bool ordered, size_t window)
      : documents_(documents), refused_(refused), ordered_(ordered), window_(window) {}
  // Blocks while the message numbered `sequence` would pass the window.
  void wait_room(uint64_t sequence) {
    if (!ordered_) return;
    std::unique_lock lock(mutex_);
    room_.wait(lock, [&] { return sequence < next_ + window_; });
  }
  void write(uint64_t sequence, Scan_lines lines) {
    std::lock_guard lock(mutex_);
    if (!ordered_) {
      put(lines);
      return;
    }
    pending_.emplace(sequence, std::move(lines));
    for (auto it = pending_.begin(); it != pending_.end() && it->first == next_; it = pending_.erase(it), ++next_)
      put(it->second);
    room_.notify_all();
  }

 private:
  void put(const Scan_lines& lines) {
    if (documents_ != nullptr) *documents_ << lines.document;
    if (refused_ != nullptr) *refused_ << lines.refused;
  }
  std::ostream* documents_;
  std::ostream* refused_;
  bool ordered_;
  size_t window_;
  std::mutex mutex_;
  std::condition_variable room_;
  std::map<uint64_t, Scan_lines> pending_;
  uint64_t next_ = 0;
};

// Messages that may wait to be written in order, per worker.
constexpr size_t ordered_window_per_job = 64;

// An output named on the command line: standard output for "-", else the
// file, opened anew.
std::ostream* open_output(const std::string& path, std::ofstream& file, std::string& error) {
  if (path.empty()) return nullptr;
  if (path == "-") return &std::cout;
  file.open(path, std::ios::binary | std::ios::trunc);
  if (!file) {
    error = path + ": cannot write: " + std::strerror(errno);
    return nullptr;
  }
  return &file;
}

std::string refused_line(Message_tree& tree, const std::string& name) {
  const Refusal refusal = tree.refusal(tree.root());
  std::string line = name + ": " + refusal.reason;
  if (refusal.line_number != 0)
    line += " (line " + std::to_string(refusal.line_number) + ": \"" + refusal.line + "\")";
  return escaped_for_terminal(line) + "\n";
}

}  // namespace

int run_scan(const Host_options& options, const std::vector<std::string>& paths, const Scan_options& scan) {
  std::string error;
  auto plugins = Host_plugins::load(options, error);
  if (!plugins) {
    std::cerr << "smtpfm: " << error << '\n';
    return 1;
  }
  std::ofstream json_file, refused_file;
  std::ostream* json_out = open_output(scan.json_lines, json_file, error);
  std::ostream* refused_out = error.empty() ? open_output(scan.refused, refused_file, error) : nullptr;
  if (!error.empty()) {
    std::cerr << "smtpfm: " << error << '\n';
    return 1;
  }
  // Where data go to standard output, the summary and the progress go to
  // standard error, so that a pipe gets data only.
  const bool data_to_stdout = (json_out != nullptr && is_standard_output(scan.json_lines)) ||
                              (refused_out != nullptr && is_standard_output(scan.refused));
  std::ostream& summary = data_to_stdout ? std::cerr : std::cout;
  const unsigned jobs = std::max(1u, scan.jobs);
  Message_queue queue(jobs);
  Ordered_writer writer(json_out, refused_out, scan.ordered, ordered_window_per_job * jobs);
  std::mutex totals_mutex;
  Totals totals;
  std::atomic<uint64_t> done{0}, done_bytes{0}, read_failures{0};
  std::atomic<bool> worker_failed{false};
  auto start = std::chrono::steady_clock::now();

  std::vector<std::thread> workers;
  for (unsigned i = 0; i < jobs; ++i) {
    workers.emplace_back([&] {
      std::string why;
      Format_managers managers;
      const bool ready = plugins->create_managers(options, managers, why);
      Totals mine;
      while (auto message = queue.pop()) {
        if (!ready) {  // drain the queue so the reader never blocks
          writer.write(message->sequence, {});
          continue;
        }
        Message_tree tree(managers, Message_tree::Borrowed{}, message->bytes.view(), options);
        count_tree(tree, mine);
        Scan_lines lines;
        if (json_out != nullptr) lines.document = json_line(tree_json(tree, message->name)) + "\n";
        if (refused_out != nullptr && !tree.root().taken()) lines.refused = refused_line(tree, message->name);
        writer.write(message->sequence, std::move(lines));
        ++done;
        done_bytes += tree.original().size();
      }
      if (!ready) worker_failed = true;
      std::lock_guard lock(totals_mutex);
      totals.add(mine);
    });
  }

  std::atomic<bool> reading{true};
  std::thread progress;
  if (isatty(STDERR_FILENO)) {
    progress = std::thread([&] {
      while (reading) {
        double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::fprintf(stderr, "\r%llu messages, %.1f MB, %.1f MB/s   ", static_cast<unsigned long long>(done.load()),
                     done_bytes / 1e6, seconds > 0 ? done_bytes / 1e6 / seconds : 0.0);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
      }
    });
  }
  uint64_t sequence = 0;
  for_each_message(
      paths,
      [&](std::string name, File_bytes bytes) {
        writer.wait_room(sequence);
        queue.push({sequence++, std::move(name), std::move(bytes)});
      },
      error,
      [&](const std::string& why) {
        ++read_failures;
        std::cerr << "\r" << "smtpfm: " << why << '\n';
      });
  queue.close();
  for (auto& worker : workers) worker.join();
  reading = false;
  if (progress.joinable()) {
    progress.join();
    std::fprintf(stderr, "\r%60s\r", "");
  }
  if (json_out != nullptr) json_out->flush();
  if (refused_out != nullptr) refused_out->flush();
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  summary << "profile: " << profile_name(options) << "\nmessages: " << totals.messages
          << "\ntaken: " << totals.taken << "\nrefused: " << totals.refused << "\n";
  for (const auto& [name, count] : totals.handlers) summary << "  " << name << ": " << count << "\n";
  summary << "attachments: " << totals.attachments << "\nlog code 33: " << totals.code33
          << "\nfailures: " << totals.failures + read_failures << "\nunexamined: " << totals.unexamined
          << " bytes in " << totals.unexamined_messages << " messages\n";
  char rate[64];
  std::snprintf(rate, sizeof rate, "%.1f MB in %.2f s, %.1f MB/s", totals.bytes / 1e6, seconds,
                seconds > 0 ? totals.bytes / 1e6 / seconds : 0.0);
  summary << rate << "\n";
  if (worker_failed) {
    std::cerr << "smtpfm: a worker could not create its format managers\n";
    return 1;
  }
  if (read_failures != 0) return 1;
  return totals.failures == 0 ? 0 : 2;
}
