// Throughput of `smtpfm milter`: messages pushed through the milter
// protocol over 2 and 8 connections at once, beside the cost of walking
// the same messages as `smtpfm tree` does, in this process, so that what
// the protocol and the daemon add is visible.
//
//   milter_bench SMTPFM INPUTS_DIR [SMALL_COUNT]
//
// INPUTS_DIR is what bench/gen_inputs.py writes: small/ (cycled until
// SMALL_COUNT messages, 10,000 by default), attachment.eml, many_parts.eml,
// plain.eml and nested.eml. The client speaks the protocol as a mail
// server does (version 6, header and body steps without replies where the
// milter asks so) over a unix socket; the milter runs with 2 workers.
#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "host/host.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

// Protocol constants (libmilter's mfdef.h).
constexpr uint32_t protocol_version = 6;
constexpr uint32_t all_actions = 0x1ff;
constexpr uint32_t step_no_connect = 0x1, step_no_helo = 0x2, step_no_rcpt = 0x8, step_nr_hdr = 0x80,
                   step_no_unknown = 0x100, step_no_data = 0x200, step_nr_eoh = 0x40000, step_nr_body = 0x80000,
                   step_lead_space = 0x100000;
constexpr size_t body_chunk = 65535;

std::string packet(char command, std::string_view data) {
  uint32_t length = htonl(static_cast<uint32_t>(data.size() + 1));
  std::string out(reinterpret_cast<const char*>(&length), 4);
  out += command;
  out += data;
  return out;
}

std::string word(uint32_t value) {
  value = htonl(value);
  return std::string(reinterpret_cast<const char*>(&value), 4);
}

// One connection to the milter, negotiated.
class Client {
 public:
  explicit Client(const std::string& path) {
    fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
    if (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      throw std::runtime_error("cannot connect to " + path);
    const uint32_t steps = step_no_connect | step_no_helo | step_no_rcpt | step_nr_hdr | step_no_unknown |
                           step_no_data | step_nr_eoh | step_nr_body | step_lead_space;
    send(packet('O', word(protocol_version) + word(all_actions) + word(steps)));
    std::string reply = read_packet();
    if (reply.size() < 13 || reply[0] != 'O') throw std::runtime_error("negotiation failed");
    uint32_t chosen;
    std::memcpy(&chosen, reply.data() + 9, 4);
    chosen = ntohl(chosen);
    quiet_ = (chosen & (step_nr_hdr | step_nr_eoh | step_nr_body)) == (step_nr_hdr | step_nr_eoh | step_nr_body);
    lead_space_ = (chosen & step_lead_space) != 0;
  }
  ~Client() {
    send(packet('Q', ""));
    close(fd_);
  }
  // The message's packets after MAIL: header fields, end of header, body.
  std::string encode(std::string_view message) const {
    std::string out;
    size_t at = 0;
    while (at < message.size()) {
      size_t end = message.find("\r\n", at);
      if (end == std::string_view::npos || end == at) break;
      // A field with its continuation lines.
      while (end + 2 < message.size() && (message[end + 2] == ' ' || message[end + 2] == '\t'))
        end = message.find("\r\n", end + 2);
      std::string_view field = message.substr(at, end - at);
      size_t colon = field.find(':');
      std::string_view name = field.substr(0, colon), value = field.substr(colon + 1);
      if (!lead_space_ && value.starts_with(' ')) value.remove_prefix(1);
      out += packet('L', std::string(name) + '\0' + std::string(value) + '\0');
      at = end + 2;
    }
    out += packet('N', "");
    std::string_view body = message.substr(std::min(message.size(), at + 2));
    for (size_t i = 0; i < body.size(); i += body_chunk) out += packet('B', body.substr(i, body_chunk));
    return out + packet('E', "");
  }
  // Sends one encoded message; returns the final reply's command.
  char deliver(const std::string& encoded) {
    send(packet('M', std::string("<a@example.org>") + '\0'));
    read_packet();
    if (!quiet_) throw std::runtime_error("the milter wants replies to every header: not measured");
    send(encoded);
    while (true) {
      std::string reply = read_packet();
      if (reply.empty()) throw std::runtime_error("empty reply");
      if (std::strchr("acrtyd", reply[0]) != nullptr) return reply[0];
    }
  }

 private:
  void send(std::string_view data) {
    while (!data.empty()) {
      ssize_t n = write(fd_, data.data(), data.size());
      if (n <= 0) throw std::runtime_error("write failed");
      data.remove_prefix(static_cast<size_t>(n));
    }
  }
  void read_exactly(char* out, size_t size) {
    while (size > 0) {
      ssize_t n = read(fd_, out, size);
      if (n <= 0) throw std::runtime_error("the milter closed the connection");
      out += n;
      size -= static_cast<size_t>(n);
    }
  }
  std::string read_packet() {
    uint32_t length;
    read_exactly(reinterpret_cast<char*>(&length), 4);
    std::string data(ntohl(length), '\0');
    read_exactly(data.data(), data.size());
    return data;
  }
  int fd_ = -1;
  bool quiet_ = false, lead_space_ = false;
};

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

struct Row {
  std::string name;
  std::vector<std::string> messages;
};

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// Every message of the row over `connections` connections, round robin.
double through_milter(const std::string& socket, const Row& row, unsigned connections) {
  std::vector<std::thread> threads;
  std::vector<std::string> errors(connections);
  auto start = Clock::now();
  for (unsigned c = 0; c < connections; ++c) {
    threads.emplace_back([&, c] {
      try {
        Client client(socket);
        for (size_t i = c; i < row.messages.size(); i += connections) {
          char verdict = client.deliver(client.encode(row.messages[i]));
          if (verdict == 't') throw std::runtime_error("tempfail");
        }
      } catch (const std::exception& e) {
        errors[c] = e.what();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  double elapsed = seconds_since(start);
  for (const auto& error : errors)
    if (!error.empty()) throw std::runtime_error(row.name + ": " + error);
  return elapsed;
}

// The same messages walked to their leaves in this process, one thread.
double through_tree(const std::string& smtpfm, const Row& row) {
  Host_options options;
  options.module_path = fs::path(smtpfm).parent_path() / "smtp.so";
  options.hardened = true;
  std::string error;
  auto plugins = Host_plugins::load(options, error);
  Format_managers managers;
  if (!plugins || !plugins->create_managers(options, managers, error)) throw std::runtime_error(error);
  auto start = Clock::now();
  for (const auto& message : row.messages) Message_tree tree(managers, Message_tree::Borrowed{}, message, options);
  return seconds_since(start);
}

pid_t start_milter(const std::string& smtpfm, const std::string& policy, const std::string& socket) {
  pid_t pid = fork();
  if (pid == 0) {
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 2);
    execl(smtpfm.c_str(), smtpfm.c_str(), "milter", "--policy", policy.c_str(), "--socket",
          ("unix:" + socket).c_str(), "--workers", "2", "--log-stderr", nullptr);
    _exit(127);
  }
  for (int i = 0; i < 200 && !fs::exists(socket); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(25));
  return pid;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: milter_bench SMTPFM INPUTS_DIR [SMALL_COUNT]\n");
    return 2;
  }
  const std::string smtpfm = argv[1];
  const fs::path inputs = argv[2];
  const size_t small_count = argc > 3 ? std::stoul(argv[3]) : 10000;
  const fs::path work = fs::temp_directory_path() / ("smtpfm-milter-bench-" + std::to_string(getpid()));
  fs::create_directories(work);
  const std::string policy = (work / "policy.toml").string(), socket = (work / "milter.sock").string();
  std::ofstream(policy) << "[[rule]]\nname = \"executables\"\nfile-name = [\"*.exe\", \"*.scr\"]\naction = "
                           "\"disarm\"\n[[rule]]\nname = \"scripts\"\nfile-name = \"*.js\"\naction = \"reject\"\n";

  std::vector<Row> rows;
  Row small{std::to_string(small_count) + " small real-world messages", {}};
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(inputs / "small")) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  std::vector<std::string> corpus;
  for (const auto& file : files) corpus.push_back(read_file(file));
  for (size_t i = 0; i < small_count && !corpus.empty(); ++i) small.messages.push_back(corpus[i % corpus.size()]);
  rows.push_back(std::move(small));
  const struct {
    const char* file;
    const char* name;
    size_t copies;
  } big[] = {{"attachment.eml", "64 MiB Base64 attachment", 8},
             {"many_parts.eml", "20,000 small parts", 8},
             {"plain.eml", "64 MiB text body", 8},
             {"nested.eml", "nested 50 levels", 400}};
  for (const auto& b : big) {
    Row row{std::string(b.name) + " x" + std::to_string(b.copies), {}};
    std::string bytes = read_file(inputs / b.file);
    for (size_t i = 0; i < b.copies; ++i) row.messages.push_back(bytes);
    rows.push_back(std::move(row));
  }

  pid_t milter = start_milter(smtpfm, policy, socket);
  int status = 0;
  std::printf("| input | MB | tree msg/s | tree MB/s | milter 2 conn msg/s | MB/s | milter 8 conn msg/s | MB/s |\n");
  std::printf("|---|---:|---:|---:|---:|---:|---:|---:|\n");
  try {
    for (const auto& row : rows) {
      double mb = 0;
      for (const auto& message : row.messages) mb += static_cast<double>(message.size()) / 1e6;
      const double n = static_cast<double>(row.messages.size());
      double tree = through_tree(smtpfm, row);
      double two = through_milter(socket, row, 2);
      double eight = through_milter(socket, row, 8);
      std::printf("| %s | %.1f | %.0f | %.0f | %.0f | %.0f | %.0f | %.0f |\n", row.name.c_str(), mb, n / tree,
                  mb / tree, n / two, mb / two, n / eight, mb / eight);
      std::fflush(stdout);
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "milter_bench: %s\n", e.what());
    status = 1;
  }
  kill(milter, SIGTERM);
  waitpid(milter, nullptr, 0);
  fs::remove_all(work);
  return status;
}
