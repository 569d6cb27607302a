// A real daemon whose agents can be watched: the probe agent (quorprobe)
// records what it was given into a directory the test reads. Shared by the
// integration tests of command requests and of the security model.
#pragma once

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>

#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "ctl_files.h"
#include "daemon_util.h"
#include "quorsmc.h"

namespace testutil {

namespace fs = std::filesystem;

#define REQUIRE_ROOT() \
  if (geteuid() != 0) GTEST_SKIP() << "needs root: agents are started under other accounts"

// What one run of the probe agent recorded.
struct Probe {
  pid_t pid = 0;
  std::map<std::string, std::string> info;
  std::string segment;
  std::string data;
  std::span<const char> record() const { return std::span<const char>(segment).subspan(kRecordOffset); }
  std::string field(SmcField f) const { return std::string(smc_get(record(), f)); }
};

// A daemon whose agents can be watched: quorprobe writes into probe_dir().
class AgentDaemonTest : public ::testing::Test {
 protected:
  // Starts the daemon with `config` and `objects`; `prepare` may add to the
  // installation root first, `env` to the daemon's environment.
  void start(std::string config, std::string objects = "PROBE quorprobe\nLOGON quorprobe\n",
             std::function<void(const fs::path&)> prepare = {}, std::map<std::string, std::string> env = {}) {
    env.emplace("QUORPROBE_DIR", probe_dir());
    env.emplace("MOXQUORKEEPENV", "QUORPROBE_DIR");
    daemon_ = std::make_unique<Daemon>(
        [&](const fs::path& root) {
          std::ofstream(root / "quor/etc/quor.config") << config;
          std::ofstream(root / "quor/etc/quorobj.map") << objects;
          // Agents run as other accounts: they must reach their files.
          fs::permissions(root, fs::perms::others_exec, fs::perm_options::add);
          if (prepare) prepare(root);
        },
        std::vector<std::string>{}, true, env);
    ASSERT_TRUE(daemon_->wait_ready()) << daemon_->output();
  }
  void SetUp() override { fs::permissions(probes_.path(), fs::perms::all); }
  std::string probe_dir() const { return probes_.str(); }

  // Sends the buffers of `spec` in order; the replies to the last one.
  TevCallResult send(const CtlBuild& spec, bool expect_reply) {
    CtlBuilt built = ctl_build_transaction(spec);
    EXPECT_EQ(built.error, "");
    TevClient client;
    TevCallResult last;
    for (std::size_t i = 0; i < built.buffers.size(); ++i) {
      std::vector<char>& b = built.buffers[i];
      EXPECT_EQ(quor_wire_seal(b, b.size()), 0);
      bool final = i + 1 == built.buffers.size();
      last = client.call(kServerName, std::vector<std::uint8_t>(b.begin(), b.end()), final && expect_reply ? 5000 : 0,
                         final && expect_reply);
    }
    return last;
  }

  // The next probe run to finish, or nothing within `steps` times 20 ms.
  std::optional<Probe> next_probe(int steps = 250) {
    for (int i = 0; i < steps; ++i) {
      for (const auto& e : fs::directory_iterator(probe_dir())) {
        if (e.path().extension() != ".info" || seen_.count(e.path().stem().string())) continue;
        std::string pid = e.path().stem().string();
        seen_.insert(pid);
        Probe p;
        p.pid = static_cast<pid_t>(std::stol(pid));
        std::istringstream lines(read_file(e.path()));
        for (std::string line; std::getline(lines, line);)
          if (std::size_t eq = line.find('='); eq != std::string::npos) p.info[line.substr(0, eq)] = line.substr(eq + 1);
        p.segment = read_file(fs::path(probe_dir()) / (pid + ".segment"));
        p.data = read_file(fs::path(probe_dir()) / (pid + ".data"));
        return p;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return std::nullopt;
  }

  // A request of `type` for `object` with `command`, as this process.
  TevCallResult request(std::string type, std::string object, std::string command, bool expect_reply) {
    CtlBuild spec;
    spec.type = std::move(type);
    spec.object = std::move(object);
    spec.command = std::move(command);
    return send(spec, expect_reply);
  }

  // The status report's count lines, after the sweep of that request.
  std::string counts() {
    std::vector<std::string> s = daemon_->status("B");
    return s.size() >= 6 ? s[4] + s[5] : "";
  }
  static std::string users(int n) {
    return "    " + std::to_string(n) + " users logged into quor\n    0 transactions in progress.\n";
  }
  // Waits until the count lines read `want`; the lines last read.
  std::string settle(const std::string& want) {
    std::string now;
    eventually([&] { return (now = counts()) == want; });
    return now;
  }
  // The daemon's temporary files but its pid file.
  std::string files_left() const {
    std::string left;
    for (const auto& e : fs::directory_iterator(daemon_->root().path() / "tmp"))
      if (e.path().filename() != "quordaemon.pid") left += e.path().filename().string() + " ";
    return left;
  }
  bool logged(std::string_view text) {
    return eventually([&] { return daemon_->log().find(text) != std::string::npos; });
  }

  static std::string error_text(const TevCallResult& r) {
    if (r.replies.empty()) return "(no reply)";
    std::vector<std::string> items = Daemon::reply_items(r.replies.back().payload, "ZZZRET");
    return items.size() >= 4 ? items[1] + " " + items[3] : "(no return code)";
  }

  testutil::TempDir probes_;  // where the agents write, whatever their account
  std::unique_ptr<Daemon> daemon_;
  std::set<std::string> seen_;
};

}  // namespace testutil
