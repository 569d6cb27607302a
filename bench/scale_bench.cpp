// Scaling: what a brief status round trip costs while the daemon holds 0,
// 100, 1,000 and 10,000 logged-in users, and 100, 1,000 and 10,000 running
// agents, against a plain datagram ping-pong in the same run; how long the
// daemon takes to start with 10,000 saved users (each gets a login program)
// until it answers; a full status with 1,000 users; then the table
// benchmarks (an end-to-end CSV table through quorctl against cp, and the
// table moves inside the daemon), run as they are.
//
// Run as root (the daemon runs as root and starts programs as "nobody"):
//   build/bench/scale_bench [ROUND_TRIPS [TABLE_MEGABYTES [PART]]]
// PART is one of users, agents, startup, tables (default: all of them).
// QUOR_BENCH_DAEMON names another daemon binary to measure (an older build).
#include <sys/prctl.h>
#include <sys/resource.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "bench_util.h"
#include "quorconfig.h"
#include "quortev.h"
#include "quortran.h"
#include "quortrl.h"
#include "quorusers.h"
#include "quorutl.h"
#include "tev_client.h"

using namespace bench;

namespace {

std::vector<std::uint8_t> request_of(const char* type, std::optional<std::string> object = std::nullopt) {
  std::array<char, BUFFER_MAX> buf{};
  OutBuf out(buf);
  tran_header_put(type, "N", out);
  if (object) {
    ObjectHeader hdr;
    hdr.object = *object;
    hdr.action = "RUN";
    quor_hdr_write(hdr, out);
  }
  quor_trl_put("N", out);
  std::size_t length = out.pos;
  quor_wire_seal(buf, length);
  return std::vector<std::uint8_t>(buf.begin(), buf.begin() + static_cast<long>(length));
}

// The decoded text of a reply buffer.
std::string text_of(std::vector<std::uint8_t> payload) {
  std::vector<char> plain(payload.begin(), payload.end());
  std::size_t n = quor_wire_open(plain, plain.size());
  std::string text(plain.begin(), plain.begin() + static_cast<long>(n));
  std::replace(text.begin(), text.end(), '\0', ' ');
  return text;
}

// The number in front of `what` in a status text ("12 users logged ..."), -1
// when absent.
long count_before(const std::string& text, const char* what) {
  std::size_t at = text.find(what);
  if (at == std::string::npos) return -1;
  std::size_t start = text.find_last_not_of("0123456789", at - 2);
  return std::atol(text.c_str() + (start == std::string::npos ? 0 : start + 1));
}

class Daemon {
 public:
  // Starts the daemon and waits until it answers a brief status.
  Daemon() {
    const char* path = std::getenv("QUOR_BENCH_DAEMON") ? std::getenv("QUOR_BENCH_DAEMON") : QUORDAEMON_PATH;
    auto start = Clock::now();
    pid_t starter = fork();
    if (starter == 0) {
      execl(path, path, static_cast<char*>(nullptr));
      _exit(127);
    }
    brief_ = request_of("B");
    for (int i = 0; i < 60000; ++i) {
      TevCallResult r = client_.call(kServerName, brief_, 1000);
      if (r.rc == 0 && !r.replies.empty()) {
        last_ = text_of(r.replies.back().payload);
        break;
      }
      usleep(1000);
    }
    startup_seconds = std::chrono::duration<double>(Clock::now() - start).count();
    kill(starter, SIGKILL);  // it only waits to return to a shell
    waitpid(starter, nullptr, 0);
    std::size_t at = last_.find("pid=");
    pid = at == std::string::npos ? 0 : static_cast<pid_t>(std::atol(last_.c_str() + at + 4));
    if (pid <= 0) {
      std::fprintf(stderr, "scale_bench: the daemon did not answer\n");
      std::exit(1);
    }
  }

  // Ends the daemon with `type` ('T' or 'K') and collects every process it
  // leaves behind.
  void stop(const char* type) {
    client_.call(kServerName, request_of(type), 0, false);
    waitpid(pid, nullptr, 0);
    while (waitpid(-1, nullptr, 0) > 0) {
    }
  }

  // The brief status text, fresh.
  const std::string& status() {
    TevCallResult r = client_.call(kServerName, brief_, 5000);
    last_ = r.rc == 0 && !r.replies.empty() ? text_of(r.replies.back().payload) : "";
    return last_;
  }

  // Round trips of `request`, pinned with the daemon to one CPU; the reply
  // of the last one in `bytes`.
  Figures round_trips(const std::vector<std::uint8_t>& request, int rounds, std::size_t* bytes = nullptr) {
    pin(pid, true);
    pin(0, true);
    std::vector<double> samples;
    for (int i = 0; i < rounds; ++i) {
      auto start = Clock::now();
      TevCallResult r = call(request);
      samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
      if (r.rc != 0) {
        std::fprintf(stderr, "scale_bench: a round trip failed: %s\n", r.fb.FB_ErrorText.c_str());
        std::exit(4);
      }
      if (bytes != nullptr) {
        *bytes = 0;
        for (const TevReply& reply : r.replies) *bytes += reply.payload.size();
      }
    }
    pin(0, false);
    pin(pid, false);
    return summarize(samples);
  }
  Figures briefs(int rounds) { return round_trips(brief_, rounds); }

  TevClient& client() { return client_; }

  // One request and its replies, a blocking receive for each as a client
  // that waits for its answer would make it (partial replies answered).
  TevCallResult call(const std::vector<std::uint8_t>& request) {
    TevCallResult r;
    const TevIdentity& id = client_.identity();
    TevIdentity server;
    server.set_system_id(tev_node_name());
    server.set_app_name(kServerName);
    std::uint32_t conversation = ++conversation_;
    if ((r.rc = TevSend(r.fb, id, server, request.data(), request.size(), kTevModeNormal, conversation)) != 0)
      return r;
    for (;;) {
      TevIdentity sender;
      TevInquiry inquiry;
      if ((r.rc = TevRecv(r.fb, id, sender, reply_.data(), reply_.size(), kTevModeRecvAny, inquiry)) != 0) return r;
      std::uint8_t kind = r.fb.FB_InKind;
      if (kind == kTevKindData && r.fb.FB_InConversId != conversation) continue;  // a late reply
      r.replies.push_back(TevReply{kind, "", "", std::vector<std::uint8_t>(reply_.begin(),
                                                                       reply_.begin() + r.fb.FB_DataLen)});
      if (kind == kTevKindData) return r;
      TevFeedback fb;
      TevAnswer(fb, id, sender, r.fb.FB_InConversId, "OK");
    }
  }
  std::size_t brief_size() const { return brief_.size(); }

  pid_t pid = 0;
  double startup_seconds = 0;

 private:
  TevClient client_{"SCALEBENCH"};
  std::vector<std::uint8_t> reply_ = std::vector<std::uint8_t>(kTevMaxPayload);
  std::uint32_t conversation_ = 1u << 30;
  std::vector<std::uint8_t> brief_;
  std::string last_;
};

// A save file of `count` users logged in as "nobody".
void save_users(int count) {
  quor_users().clear();
  std::time_t now = std::time(nullptr);
  for (int i = 0; i < count; ++i) {
    UserEntry& user = quor_user_new();
    user.user_name = "user" + std::to_string(i);
    user.node_name = "node" + std::to_string(i % 97);
    user.login_name = "nobody";
    user.group_id = "65534";
    user.last_activity = now;
  }
  if (quor_users_save() != 0) std::exit(5);
  quor_users().clear();
  if (count == 0) {
    unlink(quor_users_path().c_str());
    unlink(quor_owners_path().c_str());
  }
}

// `count` round trips of `request` to `server` from a registration of this
// process; false when one failed.
bool round_trips_to(std::string_view server, const std::vector<std::uint8_t>& request, int count) {
  TevClient client;
  TevIdentity to;
  to.set_system_id(tev_node_name());
  to.set_app_name(server);
  std::vector<std::uint8_t> reply(kTevMaxPayload);
  for (int i = 0; i < count; ++i) {
    TevFeedback fb;
    TevIdentity sender;
    TevInquiry inquiry;
    if (TevSend(fb, client.identity(), to, request.data(), request.size(), kTevModeNormal,
                static_cast<std::uint32_t>(i + 1)) != 0 ||
        TevRecv(fb, client.identity(), sender, reply.data(), reply.size(), kTevModeRecvAny, inquiry) != 0)
      return false;
  }
  return true;
}

// The CPU time `server_pid` spends per request while `clients` processes
// send `each` requests at the same time, in µs.
double cpu_per_request(pid_t server_pid, std::string_view server, const std::vector<std::uint8_t>& request,
                       int clients, int each) {
  double before = cpu_of(server_pid);
  std::vector<pid_t> senders;
  for (int c = 0; c < clients; ++c) {
    pid_t pid = fork();
    if (pid == 0) _exit(round_trips_to(server, request, each) ? 0 : 1);
    senders.push_back(pid);
  }
  for (pid_t pid : senders) waitpid(pid, nullptr, 0);
  return (cpu_of(server_pid) - before) * 1e6 / (clients * each);
}

// A server on the same transport that answers every message with
// `reply_size` bytes and does nothing else; its pid.
pid_t start_echo(std::size_t reply_size) {
  pid_t pid = fork();
  if (pid != 0) {
    for (int i = 0; i < 500 && !fs::exists(fs::path(std::getenv("TEV_DIR")) / "root/SCALEECHO"); ++i) usleep(10000);
    return pid;
  }
  TevIdentity id;
  id.set_app_name("SCALEECHO");
  TevFeedback fb;
  if (TevInit(fb, id, kTevModeNormal) != 0) _exit(5);
  id = fb.FB_Local_Id;
  std::vector<std::uint8_t> buf(kTevMaxPayload), reply(reply_size, 'r');
  for (;;) {
    TevIdentity from;
    TevInquiry inquiry;
    if (TevRecv(fb, id, from, buf.data(), buf.size(), kTevModeRecvAny, inquiry) != 0) continue;
    TevSend(fb, id, from, reply.data(), reply.size(), kTevModeNormal, fb.FB_InConversId);
  }
}

void write_config(const fs::path& root, bool login_required) {
  std::ofstream(root / "quor/etc/quor.config")
      << "LOGIN_REQUIRED: " << (login_required ? 1 : 0)
      << "\nDEFAULT_LOGIN_NAME: nobody\nTRANSACTION_TIMEOUT: 0\nLOGIN_TIMEOUT: 0\n";
}

void row(const char* what, const Figures& f, double ratio, const char* against, const char* goal) {
  std::printf("%-46s %10.1f %10.1f %8.2f  %-14s %s\n", what, f.mean_us, f.median_us, ratio, against, goal);
}

void run_other(const std::string& command) {
  std::fflush(stdout);
  if (std::system(command.c_str()) != 0) std::printf("(%s failed)\n", command.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  int rounds = argc > 1 ? std::atoi(argv[1]) : 5000;
  long table_mb = argc > 2 ? std::atol(argv[2]) : 100;
  std::string part = argc > 3 ? argv[3] : "";
  auto wanted = [&](const char* name) { return part.empty() || part == name; };
  if (geteuid() != 0) {
    std::fprintf(stderr, "scale_bench: skipped, needs root (the daemon starts programs as another account)\n");
    return 0;
  }
  fs::path root = bench::scratch_root("scale");
  std::ofstream(root / "quor/etc/quorobj.map") << "WAIT quornull\n";
  std::ofstream(root / "quor/etc/quorlang.map") << "DEFAULT english\n";
  fs::copy_file(QUORNULL_PATH, root / "quor/bin/quornull");
  fs::copy_file(QUORUSERPGM_PATH, root / "quor/bin/quoruserpgm");
  setenv("MOXGLBL0000", root.c_str(), 1);
  setenv("TEV_DIR", (root / "tev").c_str(), 1);
  setenv("TMPDIR", (root / "tmp").c_str(), 1);
  setenv("QUORNULL_WAIT", "1", 1);
  setenv("MOXQUORKEEPENV", "QUORNULL_WAIT", 1);
  unsetenv("MOXQUORDEBUG");
  unsetenv("MOXQUORSPIN");
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  rlimit files{65536, 65536};
  setrlimit(RLIMIT_NOFILE, &files);

  std::printf("brief status round trips, pinned to one CPU, %d per figure\n", rounds);
  std::printf("%-46s %10s %10s %8s  %-14s %s\n", "", "mean µs", "median µs", "ratio", "against", "goal");

  // Start-up with many saved users, each of which gets a login program:
  // the median of three.
  if (wanted("startup")) {
    write_config(root, true);
    std::vector<double> startups;
    for (int run = 0; run < 3; ++run) {
      save_users(10000);
      Daemon daemon;
      startups.push_back(daemon.startup_seconds);
      daemon.stop("T");
    }
    std::sort(startups.begin(), startups.end());
    std::printf("start-up with 10000 saved users until the first answer: median %.3f s [%.3f-%.3f] (goal <= 1 s)\n",
                startups[1], startups[0], startups[2]);
  }

  // Logged-in users: restored from a save file at start-up.
  write_config(root, true);
  Figures no_users, plain;
  for (int users : {0, 100, 1000, 10000}) {
    if (!wanted("users") && !(wanted("agents") && users == 0)) continue;
    save_users(users);
    Daemon daemon;
    long seen = count_before(daemon.status(), "users logged");
    Figures f = daemon.briefs(rounds);
    char what[96];
    std::snprintf(what, sizeof what, "%d users (%ld in the report)", users, seen);
    std::size_t reply = 0;
    if (users == 0) {
      daemon.round_trips(request_of("B"), 1, &reply);
      plain = ping_pong(root, daemon.brief_size() + 190, reply + 190, rounds, true);
      row("plain datagram ping-pong", plain, 1.0, "", "");
      no_users = f;
      row(what, f, f.median_us / plain.median_us, "ping-pong", "<= 1.2");
      // The daemon's CPU per request with four clients at once, against an
      // echo server on the same transport.
      int each = std::max(2000, rounds * 2);
      double daemon_cpu = cpu_per_request(daemon.pid, kServerName, request_of("B"), 4, each);
      pid_t echo = start_echo(reply);
      double echo_cpu = cpu_per_request(echo, "SCALEECHO", request_of("B"), 4, each);
      kill(echo, SIGKILL);
      waitpid(echo, nullptr, 0);
      std::printf("%-46s %10.1f %10s %8.2f  %-14s %s\n", "daemon CPU per brief status, 4 clients", daemon_cpu, "",
                  daemon_cpu / echo_cpu, "echo server", "<= 1.2");
      std::printf("%-46s %10.1f\n", "echo server CPU per message, 4 clients", echo_cpu);
    } else {
      row(what, f, f.median_us / no_users.median_us, "0 users", "<= 1.2");
    }
    if (users == 1000) {
      TevCallResult full = daemon.client().call(kServerName, request_of("F"), 5000);
      std::size_t bytes = 0;
      daemon.round_trips(request_of("F"), 1, &bytes);
      Figures f_full = daemon.round_trips(request_of("F"), std::max(50, rounds / 20));
      std::snprintf(what, sizeof what, "full status, 1000 users (%zu buffers, %zu KB)", full.replies.size(),
                    bytes / 1024);
      row(what, f_full, f_full.median_us / 200.0, "200 µs", "<= 1.0");
    }
    daemon.stop("T");
  }

  // Running agents: started by service requests under the default login.
  write_config(root, false);
  save_users(0);
  for (int agents : {0, 100, 1000, 10000}) {
    if (!wanted("agents")) break;
    Daemon daemon;
    std::vector<std::uint8_t> start = request_of("S", "WAIT");
    for (int i = 0; i < agents; ++i)
      if (daemon.client().call(kServerName, start, 0, false).rc != 0) return 6;
    long running = 0;
    for (int wait = 0; wait < 6000 && running < agents; ++wait) {
      running = count_before(daemon.status(), "transactions in progress");
      if (running < agents) usleep(10000);
    }
    Figures f = daemon.briefs(rounds);
    char what[96];
    std::snprintf(what, sizeof what, "%d agents (%ld running)", agents, running);
    if (agents == 0) {
      no_users = f;
      row(what, f, f.median_us / plain.median_us, "ping-pong", "<= 1.2");
    } else {
      row(what, f, f.median_us / no_users.median_us, "0 agents", "<= 1.2");
    }
    daemon.stop("K");
  }

  fs::remove_all(root);
  if (!wanted("tables")) return 0;

  std::printf("\ntable to an agent, end to end:\n");
  run_other(std::string(TABLE_RUN_BENCH_PATH) + " " + std::to_string(table_mb) + " 3");
  std::printf("\ntable upload and download inside the daemon:\n");
  run_other(TABLE_BENCH_PATH);
  return 0;
}
