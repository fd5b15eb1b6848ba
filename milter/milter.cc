#include "milter/milter.h"

#include <libmilter/mfapi.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <syslog.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <thread>

#include "host/files.h"
#include "milter/evaluate.h"

namespace {

using Clock = std::chrono::steady_clock;

// libmilter sends the body in chunks of up to 64 KiB; the replacement goes
// back in pieces of the same size.
constexpr size_t body_piece = 65535;

// How long a stopping daemon waits for the messages under way.
constexpr auto stop_grace = std::chrono::seconds(30);

// The format managers of the plug-ins (smtp.so's and uue.so's), a set per
// worker: a message takes a set for the time it is taken apart and gives
// it back.
class Manager_pool {
 public:
  bool start(Host_plugins& plugins, const Host_options& options, unsigned count, std::string& error) {
    for (unsigned i = 0; i < count; ++i) {
      auto managers = std::make_unique<Format_managers>();
      if (!plugins.create_managers(options, *managers, error)) return false;
      free_.push_back(managers.get());
      all_.push_back(std::move(managers));
    }
    return true;
  }
  const Format_managers& take() {
    std::unique_lock lock(mutex_);
    ready_.wait(lock, [&] { return !free_.empty(); });
    const Format_managers* managers = free_.back();
    free_.pop_back();
    return *managers;
  }
  void give(const Format_managers& managers) {
    {
      std::lock_guard lock(mutex_);
      free_.push_back(&managers);
    }
    ready_.notify_one();
  }

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  std::vector<const Format_managers*> free_;
  std::vector<std::unique_ptr<Format_managers>> all_;
};

struct Lease {
  explicit Lease(Manager_pool& pool) : pool(pool), managers(pool.take()) {}
  ~Lease() { pool.give(managers); }
  Manager_pool& pool;
  const Format_managers& managers;
};

// The daemon's state, shared by libmilter's threads.
struct Daemon {
  Host_options host;
  Milter_options options;
  std::unique_ptr<Host_plugins> plugins;
  Manager_pool pool;  // released before the plug-ins unload
  std::mutex policy_mutex;
  std::shared_ptr<const Policy> policy;
  std::mutex log_mutex;
  std::atomic<int> under_way{0};

  std::shared_ptr<const Policy> current_policy() {
    std::lock_guard lock(policy_mutex);
    return policy;
  }
  void log(const std::string& line) {
    if (options.log_stderr) {
      std::lock_guard lock(log_mutex);
      std::fprintf(stderr, "smtpfm[%d]: %s\n", static_cast<int>(getpid()), line.c_str());
      std::fflush(stderr);
    } else {
      syslog(LOG_INFO, "%s", line.c_str());
    }
  }
};

Daemon* daemon_state = nullptr;  // libmilter's callbacks have no other way in

// One message as the mail server hands it over: the header fields as they
// came (for the changes sent back) and the whole message, in memory up to
// the limit and in an unlinked file beyond it.
struct Message {
  std::vector<std::pair<std::string, std::string>> fields;  // name, value with its leading blanks
  std::string bytes;
  int spill = -1;
  uint64_t size = 0;
  bool too_large = false;
  std::string failure;
  Clock::time_point start;  // set at the end of the message, when the work begins

  Message() { ++daemon_state->under_way; }
  ~Message() {
    if (spill >= 0) close(spill);
    --daemon_state->under_way;
  }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;
  void append(std::string_view data) {
    if (too_large || !failure.empty()) return;
    size += data.size();
    if (size > daemon_state->options.max_size) {
      too_large = true;
      return;
    }
    if (spill < 0 && size > daemon_state->options.memory_limit) {
      std::string path = daemon_state->options.spool + "/smtpfm-XXXXXX";
      spill = mkstemp(path.data());
      if (spill < 0) {
        failure = "cannot spill to " + daemon_state->options.spool + ": " + std::strerror(errno);
        return;
      }
      unlink(path.c_str());
      spill_bytes(bytes);
      std::string().swap(bytes);
    }
    if (spill >= 0)
      spill_bytes(data);
    else
      bytes.append(data);
  }
  void spill_bytes(std::string_view data) {
    if (failure.empty() && !write_all(spill, data))
      failure = std::string("cannot write the spilled message: ") + std::strerror(errno);
  }
};

// What libmilter keeps for one connection.
struct Connection {
  bool lead_space = false;  // header values come with their leading blanks
  bool no_reply = false;    // the mail server expects no reply to headers and body chunks
  std::unique_ptr<Message> message;
};

Connection* connection_of(SMFICTX* ctx) {
  auto* connection = static_cast<Connection*>(smfi_getpriv(ctx));
  if (connection == nullptr) {
    connection = new (std::nothrow) Connection;
    smfi_setpriv(ctx, connection);
  }
  return connection;
}

// A memory view of the message: the string, or the spilled file mapped.
class Message_view {
 public:
  explicit Message_view(Message& message) {
    if (message.spill < 0) {
      view_ = message.bytes;
      return;
    }
    if (message.size == 0) return;
    void* map = mmap(nullptr, message.size, PROT_READ, MAP_PRIVATE, message.spill, 0);
    if (map == MAP_FAILED) throw std::runtime_error(std::string("cannot map the spilled message: ") + strerror(errno));
    map_ = map;
    view_ = std::string_view(static_cast<const char*>(map), message.size);
  }
  ~Message_view() {
    if (map_ != nullptr) munmap(map_, view_.size());
  }
  std::string_view bytes() const { return view_; }

 private:
  void* map_ = nullptr;
  std::string_view view_;
};

// The header fields of a message written anew: name and value (with its
// leading blanks and folds, LF inside) up to the empty line; the body after.
void split_message(std::string_view message, std::vector<std::pair<std::string, std::string>>& fields,
                   std::string_view& body) {
  size_t at = 0;
  while (at < message.size()) {
    size_t end = message.find("\r\n", at);
    end = end == std::string_view::npos ? message.size() : end + 2;
    std::string_view line = message.substr(at, end - at);
    at = end;
    if (line == "\r\n") break;
    std::string_view text = line.ends_with("\r\n") ? line.substr(0, line.size() - 2) : line;
    if ((text.starts_with(' ') || text.starts_with('\t')) && !fields.empty()) {
      fields.back().second += "\n" + std::string(text);
      continue;
    }
    size_t colon = text.find(':');
    if (colon == std::string_view::npos) colon = text.size();
    fields.emplace_back(std::string(text.substr(0, colon)),
                        colon < text.size() ? std::string(text.substr(colon + 1)) : std::string());
  }
  body = message.substr(at);
}

bool same_name(const std::string& a, const std::string& b) { return strcasecmp(a.c_str(), b.c_str()) == 0; }

// The mail server's copy of the header made equal to `rebuilt`, field
// name by field name: changed values changed, missing ones deleted (last
// first, so that the indexes stay), new ones added.
bool send_header_changes(SMFICTX* ctx, const std::vector<std::pair<std::string, std::string>>& before,
                         const std::vector<std::pair<std::string, std::string>>& after, bool lead_space) {
  std::vector<std::string> names;
  for (const auto* fields : {&before, &after})
    for (const auto& field : *fields)
      if (std::none_of(names.begin(), names.end(), [&](const std::string& n) { return same_name(n, field.first); }))
        names.push_back(field.first);
  for (const auto& name : names) {
    std::vector<std::string> old_values, new_values;
    for (const auto& [n, v] : before)
      if (same_name(n, name)) old_values.push_back(bare_line_ends(v));
    for (const auto& [n, v] : after)
      if (same_name(n, name)) new_values.push_back(bare_line_ends(v));
    auto value_for = [&](std::string v) {
      if (lead_space) return v;
      size_t skip = v.find_first_not_of(' ');
      return skip == std::string::npos ? std::string() : v.substr(skip);
    };
    std::string field = name;
    for (size_t i = std::min(old_values.size(), new_values.size()); i-- > 0;)
      if (old_values[i] != new_values[i] &&
          smfi_chgheader(ctx, field.data(), static_cast<int>(i + 1), value_for(new_values[i]).data()) != MI_SUCCESS)
        return false;
    for (size_t i = old_values.size(); i-- > new_values.size();)
      if (smfi_chgheader(ctx, field.data(), static_cast<int>(i + 1), nullptr) != MI_SUCCESS) return false;
    for (size_t i = old_values.size(); i < new_values.size(); ++i)
      if (smfi_addheader(ctx, field.data(), value_for(new_values[i]).data()) != MI_SUCCESS) return false;
  }
  return true;
}

// Tells the mail server what the evaluation decided; false when it could
// not be told (the connection is gone or refused a change).
bool send_changes(SMFICTX* ctx, const Policy& policy, const Evaluation& evaluation, Connection& connection) {
  const Message& message = *connection.message;
  std::vector<std::pair<std::string, std::string>> before = message.fields;
  if (evaluation.rewritten) {
    std::vector<std::pair<std::string, std::string>> after;
    std::string_view body;
    split_message(evaluation.message, after, body);
    // The verdict header is handled below, on the fields as they came.
    std::erase_if(before, [&](const auto& field) { return same_name(field.first, policy.verdict_header); });
    std::erase_if(after, [&](const auto& field) { return same_name(field.first, policy.verdict_header); });
    if (!send_header_changes(ctx, before, after, connection.lead_space)) return false;
    if (body.empty() && smfi_replacebody(ctx, reinterpret_cast<unsigned char*>(const_cast<char*>("")), 0) != MI_SUCCESS)
      return false;
    for (size_t at = 0; at < body.size(); at += body_piece) {
      size_t length = std::min(body_piece, body.size() - at);
      if (smfi_replacebody(ctx, reinterpret_cast<unsigned char*>(const_cast<char*>(body.data() + at)),
                           static_cast<int>(length)) != MI_SUCCESS)
        return false;
    }
  }
  // A verdict header that came with the message is the sender's forgery.
  std::string name = policy.verdict_header;
  int count = 0;
  for (const auto& [field, value] : message.fields) count += same_name(field, name) ? 1 : 0;
  for (int i = count; i > 0; --i)
    if (smfi_chgheader(ctx, name.data(), i, nullptr) != MI_SUCCESS) return false;
  std::string value = (connection.lead_space ? " " : "") + evaluation.verdict_text();
  if (smfi_insheader(ctx, 0, name.data(), value.data()) != MI_SUCCESS) return false;
  if (evaluation.outcome.action == Action::quarantine) {
    std::string reason = "smtpfm: " + evaluation.verdict_text();
    if (smfi_quarantine(ctx, reason.data()) != MI_SUCCESS) return false;
  }
  return true;
}

// A reply text goes through a format string in the mail server.
std::string escaped_percent(const std::string& text) {
  std::string out;
  for (char c : text) {
    out += c;
    if (c == '%') out += '%';
  }
  return out;
}

sfsistat refuse(SMFICTX* ctx, const Outcome& outcome) {
  std::string code = outcome.code, status = outcome.status, text = escaped_percent(outcome.text);
  smfi_setreply(ctx, code.data(), status.data(), text.data());
  return outcome.action == Action::reject ? SMFIS_REJECT : SMFIS_TEMPFAIL;
}

std::string log_line(const std::string& queue_id, const Evaluation& evaluation, const Message& message) {
  const double ms = std::chrono::duration<double, std::milli>(Clock::now() - message.start).count();
  char time[32];
  std::snprintf(time, sizeof time, "%.1f", ms);
  std::string line = queue_id + ": verdict=" + action_name(evaluation.outcome.action) + " rules=";
  for (size_t i = 0; i < evaluation.rules.size(); ++i) line += (i ? "," : "") + evaluation.rules[i];
  if (evaluation.rules.empty()) line += "-";
  line += " items=" + std::to_string(evaluation.items.size()) + " size=" + std::to_string(message.size) +
          " ms=" + time;
  if (evaluation.rewritten) line += " rewritten";
  if (!evaluation.outcome.code.empty()) line += " reply=\"" + evaluation.outcome.code + " " + evaluation.outcome.status + "\"";
  if (!evaluation.error.empty()) line += " error=\"" + evaluation.error + "\"";
  return line;
}

sfsistat on_negotiate(SMFICTX* ctx, unsigned long actions, unsigned long steps, unsigned long, unsigned long,
                      unsigned long* want_actions, unsigned long* want_steps, unsigned long* f2, unsigned long* f3) {
  Connection* connection = connection_of(ctx);
  if (connection == nullptr) return SMFIS_TEMPFAIL;
  *want_actions = actions & (SMFIF_ADDHDRS | SMFIF_CHGHDRS | SMFIF_CHGBODY | SMFIF_QUARANTINE);
  // Only the message itself is of interest, with its header as written.
  const unsigned long skip = SMFIP_NOCONNECT | SMFIP_NOHELO | SMFIP_NORCPT | SMFIP_NOUNKNOWN | SMFIP_NODATA;
  const unsigned long quiet = SMFIP_NR_HDR | SMFIP_NR_EOH | SMFIP_NR_BODY;
  *want_steps = steps & (skip | SMFIP_HDR_LEADSPC);
  if ((steps & quiet) == quiet) *want_steps |= quiet;
  connection->lead_space = (*want_steps & SMFIP_HDR_LEADSPC) != 0;
  connection->no_reply = (*want_steps & quiet) == quiet;
  *f2 = 0;
  *f3 = 0;
  return SMFIS_CONTINUE;
}

sfsistat on_envfrom(SMFICTX* ctx, char**) {
  Connection* connection = connection_of(ctx);
  if (connection == nullptr) return SMFIS_TEMPFAIL;
  try {
    connection->message = std::make_unique<Message>();
  } catch (const std::exception&) {
    return SMFIS_TEMPFAIL;
  }
  return SMFIS_CONTINUE;
}

sfsistat quietly(Connection* connection) { return connection->no_reply ? SMFIS_NOREPLY : SMFIS_CONTINUE; }

sfsistat on_header(SMFICTX* ctx, char* name, char* value) {
  Connection* connection = connection_of(ctx);
  if (connection == nullptr || connection->message == nullptr) return SMFIS_TEMPFAIL;
  Message& message = *connection->message;
  try {
    // Line ends inside a folded value come as LF or CR LF; the message is
    // written with CR LF.
    std::string text = make_canonical(value);
    message.fields.emplace_back(name, text);
    message.append(name);
    message.append(connection->lead_space ? ":" : ": ");
    message.append(text);
    message.append("\r\n");
  } catch (const std::exception& e) {
    message.failure = e.what();
  }
  return quietly(connection);
}

sfsistat on_eoh(SMFICTX* ctx) {
  Connection* connection = connection_of(ctx);
  if (connection == nullptr || connection->message == nullptr) return SMFIS_TEMPFAIL;
  connection->message->append("\r\n");
  return quietly(connection);
}

sfsistat on_body(SMFICTX* ctx, unsigned char* data, size_t size) {
  Connection* connection = connection_of(ctx);
  if (connection == nullptr || connection->message == nullptr) return SMFIS_TEMPFAIL;
  try {
    connection->message->append(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const std::exception& e) {
    connection->message->failure = e.what();
  }
  return quietly(connection);
}

sfsistat end_of_message(SMFICTX* ctx) {
  Connection* connection = connection_of(ctx);
  if (connection == nullptr || connection->message == nullptr) return SMFIS_TEMPFAIL;
  Message& message = *connection->message;
  message.start = Clock::now();  // the time logged is the milter's own
  const char* id = smfi_getsymval(ctx, const_cast<char*>("i"));
  const std::string queue_id = id != nullptr ? id : "NOQUEUE";
  std::shared_ptr<const Policy> policy = daemon_state->current_policy();
  Evaluation evaluation;
  try {
    if (message.too_large) {
      evaluation = unreadable(*policy, "larger than " + std::to_string(daemon_state->options.max_size) + " bytes");
    } else if (!message.failure.empty()) {
      evaluation = unreadable(*policy, message.failure);
    } else {
      Message_view view(message);
      Lease lease(daemon_state->pool);
      Message_tree tree(lease.managers, Message_tree::Borrowed{}, view.bytes(), daemon_state->host);
      evaluation = evaluate(*policy, tree);
    }
  } catch (const std::exception& e) {
    evaluation = unreadable(*policy, std::string("internal failure: ") + e.what());
  }
  sfsistat result = SMFIS_CONTINUE;
  if (!evaluation.passes()) {
    result = refuse(ctx, evaluation.outcome);
  } else {
    bool sent = false;
    try {
      sent = send_changes(ctx, *policy, evaluation, *connection);
    } catch (const std::exception& e) {
      evaluation.error = std::string("internal failure: ") + e.what();
    }
    if (!sent) {
      // Half a change is worse than none: the mail server keeps the
      // message and tries again.
      if (evaluation.error.empty()) evaluation.error = "the mail server refused a change";
      evaluation.outcome = {Action::tempfail, "451", "4.3.0", "Message could not be filtered, try again later", 0};
      result = refuse(ctx, evaluation.outcome);
    }
  }
  daemon_state->log(log_line(queue_id, evaluation, message));
  connection->message.reset();
  return result;
}

// Nothing that goes wrong with one message may end the daemon: what
// escapes (a failed allocation while logging) leaves the mail with the
// server, to be tried again.
sfsistat on_eom(SMFICTX* ctx) {
  try {
    return end_of_message(ctx);
  } catch (...) {
    return SMFIS_TEMPFAIL;
  }
}

sfsistat on_abort(SMFICTX* ctx) {
  if (auto* connection = static_cast<Connection*>(smfi_getpriv(ctx))) connection->message.reset();
  return SMFIS_CONTINUE;
}

sfsistat on_close(SMFICTX* ctx) {
  delete static_cast<Connection*>(smfi_getpriv(ctx));
  smfi_setpriv(ctx, nullptr);
  return SMFIS_CONTINUE;
}

void reload(Daemon& daemon) {
  std::string error;
  std::optional<Policy> policy = Policy::load(daemon.options.policy_path, error);
  if (!policy) {
    daemon.log("policy not reloaded, the old one stays: " + error);
    return;
  }
  size_t rules = policy->rules.size();
  {
    std::lock_guard lock(daemon.policy_mutex);
    daemon.policy = std::make_shared<const Policy>(std::move(*policy));
  }
  daemon.log("policy reloaded: " + std::to_string(rules) + " rules from " + daemon.options.policy_path);
}

}  // namespace

int run_milter(const Host_options& host_options, const Milter_options& options) {
  // Never freed: libmilter's connection threads may outlive this function.
  Daemon& daemon = *new Daemon;
  daemon.host = host_options;
  daemon.options = options;
  daemon_state = &daemon;
  if (!options.log_stderr) openlog("smtpfm", LOG_PID, LOG_MAIL);

  std::string error;
  std::optional<Policy> policy = Policy::load(options.policy_path, error);
  if (!policy) {
    std::cerr << "smtpfm: " << error << '\n';
    return EX_CONFIG;
  }
  daemon.policy = std::make_shared<const Policy>(std::move(*policy));
  daemon.plugins = Host_plugins::load(host_options, error);
  if (!daemon.plugins || !daemon.pool.start(*daemon.plugins, host_options, options.workers, error)) {
    std::cerr << "smtpfm: " << error << '\n';
    return EX_SOFTWARE;
  }

  struct smfiDesc description = {};
  description.xxfi_name = const_cast<char*>("smtpfm");
  description.xxfi_version = SMFI_VERSION;
  description.xxfi_flags = SMFIF_ADDHDRS | SMFIF_CHGHDRS | SMFIF_CHGBODY | SMFIF_QUARANTINE;
  description.xxfi_envfrom = on_envfrom;
  description.xxfi_header = on_header;
  description.xxfi_eoh = on_eoh;
  description.xxfi_body = on_body;
  description.xxfi_eom = on_eom;
  description.xxfi_abort = on_abort;
  description.xxfi_close = on_close;
  description.xxfi_negotiate = on_negotiate;
  std::string socket = options.socket;
  if (smfi_setconn(socket.data()) != MI_SUCCESS || smfi_settimeout(options.timeout) != MI_SUCCESS ||
      smfi_register(description) != MI_SUCCESS || smfi_opensocket(true) != MI_SUCCESS) {
    std::cerr << "smtpfm: cannot listen on " << options.socket << '\n';
    return EX_UNAVAILABLE;
  }

  // The signals go to this thread alone: a thread that waits for a signal
  // in the thread group's leader gets it first, so libmilter's own signal
  // thread (which would end the daemon on SIGHUP) never sees them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGHUP);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  // The milter thread starts libmilter once this thread waits for
  // signals; from then on this thread only leaves the wait for the moment
  // it takes to hand a reload over.
  std::atomic<bool> waiting{false}, milter_ended{false}, stop_asked{false};
  std::atomic<int> milter_result{0};
  std::thread milter([&] {
    while (!waiting) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    milter_result = smfi_main();
    milter_ended = true;
    if (!stop_asked) kill(getpid(), SIGTERM);  // wakes the wait below
  });
  std::mutex reload_mutex;
  std::condition_variable reload_wanted;
  int reloads = 0;
  bool stopping = false;
  std::thread reloader([&] {
    std::unique_lock lock(reload_mutex);
    while (true) {
      reload_wanted.wait(lock, [&] { return reloads > 0 || stopping; });
      if (stopping) return;
      reloads = 0;
      lock.unlock();
      reload(daemon);
      lock.lock();
    }
  });
  daemon.log("started on " + options.socket + " with " + std::to_string(options.workers) + " workers, " +
             std::to_string(daemon.policy->rules.size()) + " rules from " + options.policy_path);
  while (true) {
    int signal = 0;
    waiting = true;
    if (sigwait(&signals, &signal) != 0) continue;
    if (signal == SIGHUP) {
      std::lock_guard lock(reload_mutex);
      ++reloads;
      reload_wanted.notify_one();
      continue;
    }
    break;
  }
  stop_asked = true;
  if (!milter_ended) smfi_stop();
  milter.join();
  {
    std::lock_guard lock(reload_mutex);
    stopping = true;
  }
  reload_wanted.notify_one();
  reloader.join();
  // libmilter stops listening at once; the messages under way finish.
  const auto deadline = Clock::now() + stop_grace;
  while (daemon.under_way > 0 && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  daemon.log("stopped");
  return milter_result == MI_SUCCESS ? 0 : EX_SOFTWARE;
}
