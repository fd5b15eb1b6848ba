#include "host/scan.h"

#include <sys/stat.h>
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
#include "host/report.h"

namespace fs = std::filesystem;

namespace {

bool split_mbox(const std::string& path, std::ifstream& in,
                const std::function<void(std::string, std::string)>& take) {
  std::string message, line;
  size_t count = 0;
  bool in_message = false, after_blank = true;
  auto flush = [&] {
    if (in_message) take(path + "#" + std::to_string(++count), std::move(message));
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

bool take_file(const fs::path& path, const std::function<void(std::string, std::string)>& take,
               std::string& error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = path.string() + ": cannot open: " + std::strerror(errno);
    return false;
  }
  char head[5] = {};
  in.read(head, 5);
  bool mbox = in.gcount() == 5 && std::memcmp(head, "From ", 5) == 0;
  in.clear();
  in.seekg(0);
  if (mbox) {
    if (!split_mbox(path.string(), in, take)) {
      error = path.string() + ": cannot read";
      return false;
    }
    return true;
  }
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) {
    error = path.string() + ": cannot read";
    return false;
  }
  take(path.string(), std::move(bytes));
  return true;
}

// A queue of messages between the reader and the workers; it holds at most
// `capacity` messages, so memory follows the largest message, not the
// mailbox.
class Message_queue {
 public:
  explicit Message_queue(size_t capacity) : capacity_(capacity) {}
  void push(std::string name, std::string bytes) {
    std::unique_lock lock(mutex_);
    not_full_.wait(lock, [&] { return queue_.size() < capacity_; });
    queue_.emplace_back(std::move(name), std::move(bytes));
    not_empty_.notify_one();
  }
  void close() {
    std::lock_guard lock(mutex_);
    closed_ = true;
    not_empty_.notify_all();
  }
  std::optional<std::pair<std::string, std::string>> pop() {
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
  std::deque<std::pair<std::string, std::string>> queue_;
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
  totals.bytes += tree.input().size();
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
                      const std::function<void(std::string, std::string)>& take, std::string& error) {
  for (const auto& path : paths) {
    std::error_code code;
    if (fs::is_directory(path, code)) {
      std::vector<fs::path> files;
      for (auto it = fs::recursive_directory_iterator(path, code); !code && it != fs::recursive_directory_iterator();
           it.increment(code))
        if (it->is_regular_file()) files.push_back(it->path());
      if (code) {
        error = path + ": cannot read: " + code.message();
        return false;
      }
      std::sort(files.begin(), files.end());
      for (const auto& file : files)
        if (!take_file(file, take, error)) return false;
    } else if (!take_file(path, take, error)) {
      return false;
    }
  }
  return true;
}

int run_scan(const Host_options& options, const std::vector<std::string>& paths, unsigned jobs,
             const std::string& json_lines) {
  std::string error;
  auto library = Plugin_library::load(options, error);
  if (!library) {
    std::cerr << "smtpfm: " << error << '\n';
    return 1;
  }
  // The documents go to standard output for "-" (or a path that is
  // standard output, such as /dev/stdout), and the summary then goes to
  // standard error, so that a pipe gets JSON lines only.
  std::ofstream json_file;
  std::ostream* json_out = nullptr;
  if (json_lines == "-") {
    json_out = &std::cout;
  } else if (!json_lines.empty()) {
    json_file.open(json_lines, std::ios::binary | std::ios::trunc);
    if (!json_file) {
      std::cerr << "smtpfm: " << json_lines << ": cannot write\n";
      return 1;
    }
    json_out = &json_file;
  }
  struct stat out_stat, path_stat;
  const bool json_to_stdout =
      json_out == &std::cout || (json_out != nullptr && fstat(STDOUT_FILENO, &out_stat) == 0 &&
                                 stat(json_lines.c_str(), &path_stat) == 0 && out_stat.st_dev == path_stat.st_dev &&
                                 out_stat.st_ino == path_stat.st_ino);
  std::ostream& summary = json_to_stdout ? std::cerr : std::cout;
  Message_queue queue(jobs);
  std::mutex output_mutex;
  Totals totals;
  std::atomic<uint64_t> done{0}, done_bytes{0};
  std::atomic<bool> worker_failed{false};
  auto start = std::chrono::steady_clock::now();

  std::vector<std::thread> workers;
  for (unsigned i = 0; i < jobs; ++i) {
    workers.emplace_back([&] {
      std::string why;
      Manager_ptr manager(library->create_manager(options, why));
      Totals mine;
      while (auto message = queue.pop()) {
        if (!manager) continue;  // drain the queue so the reader never blocks
        Message_tree tree(*manager, std::move(message->second), options);
        count_tree(tree, mine);
        if (json_out != nullptr) {
          std::string line = tree_json(tree, message->first).dump() + "\n";
          std::lock_guard lock(output_mutex);
          *json_out << line;
        }
        ++done;
        done_bytes += tree.input().size();
      }
      if (!manager) worker_failed = true;
      std::lock_guard lock(output_mutex);
      totals.add(mine);
    });
  }

  std::atomic<bool> reading{true};
  std::thread progress;
  if (isatty(STDERR_FILENO)) {
    progress = std::thread([&] {
      while (reading || done < totals.messages) {
        double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::fprintf(stderr, "\r%llu messages, %.1f MB, %.1f MB/s   ", static_cast<unsigned long long>(done.load()),
                     done_bytes / 1e6, seconds > 0 ? done_bytes / 1e6 / seconds : 0.0);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        if (!reading) break;
      }
    });
  }
  bool read_ok = for_each_message(
      paths, [&](std::string name, std::string bytes) { queue.push(std::move(name), std::move(bytes)); }, error);
  queue.close();
  for (auto& worker : workers) worker.join();
  reading = false;
  if (progress.joinable()) {
    progress.join();
    std::fprintf(stderr, "\r%60s\r", "");
  }
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  summary << "profile: " << profile_name(options) << "\nmessages: " << totals.messages
          << "\ntaken: " << totals.taken << "\nrefused: " << totals.refused << "\n";
  for (const auto& [name, count] : totals.handlers) summary << "  " << name << ": " << count << "\n";
  summary << "attachments: " << totals.attachments << "\nlog code 33: " << totals.code33
          << "\nfailures: " << totals.failures << "\nunexamined: " << totals.unexamined << " bytes in "
          << totals.unexamined_messages << " messages\n";
  char rate[64];
  std::snprintf(rate, sizeof rate, "%.1f MB in %.2f s, %.1f MB/s", totals.bytes / 1e6, seconds,
                seconds > 0 ? totals.bytes / 1e6 / seconds : 0.0);
  summary << rate << "\n";
  if (!read_ok) {
    std::cerr << "smtpfm: " << error << '\n';
    return 1;
  }
  if (worker_failed) {
    std::cerr << "smtpfm: a worker could not create its format manager\n";
    return 1;
  }
  return totals.failures == 0 ? 0 : 2;
}
