// quordaemon: the daemon's start-up, in the order the steps depend on each
// other: installation root, pid file, detaching, command line, signals,
// configuration, saved users, registration, error capture, then the receive
// loop until orderly shutdown.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "momsg.h"
#include "quorconfig.h"
#include "quordaemon.h"
#include "quordebug.h"
#include "quorderr.h"
#include "quorusers.h"

namespace {

volatile std::sig_atomic_t spin = 1;  // cleared from a debugger

[[noreturn]] void fail(int number, int severity, std::optional<std::string_view> text = std::nullopt) {
  quor_msg_log(number, severity, text);
  std::exit(1);
}

// The pid a previous daemon recorded, when that process is alive. A pid
// file holding 0, a negative number, text or this process's own pid (a
// restart that reused it) names nobody.
bool pid_file_names_live_daemon(const std::string& path) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return false;
  std::FILE* file = std::fopen(path.c_str(), "re");
  if (file == nullptr) return false;
  char text[32] = {};
  bool read = std::fgets(text, sizeof text, file) != nullptr;
  std::fclose(file);
  if (!read) return false;
  long pid = std::atol(text);
  return pid > 0 && pid != getpid() && kill(static_cast<pid_t>(pid), 0) == 0;
}

// Writes this process's pid. The file is replaced, never followed through a
// symbolic link.
bool write_pid_file(const std::string& path) {
  unlink(path.c_str());
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  std::string text = std::to_string(getpid()) + "\n";
  bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  return close(fd) == 0 && ok;
}

// The parent returns to its caller's shell after five seconds; the child
// goes on as the daemon in a session of its own, as root, with its standard
// input and output on /dev/null.
void detach() {
  pid_t pid = fork();
  if (pid < 0) fail(13, 4);
  if (pid > 0) {
    sleep(5);
    std::exit(0);
  }
  if (chdir("/") != 0) { /* "/" always exists; nothing depends on it */ }
  setsid();
  if (setuid(0) != 0) fail(14, 4);
  int null = open("/dev/null", O_RDWR);
  if (null >= 0) {
    dup2(null, 0);
    dup2(null, 1);
    if (null > 2) close(null);
  }
}

void read_arguments(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-c") == 0) {
      if (i + 1 >= argc) fail(19, 4);
      quor_run_state().config_path = argv[++i];
    } else {
      quor_msg_log(200, 0, argv[i]);
    }
  }
}

// Standard error goes to a new file that error replies read back. Agents
// inherit it. The name is unpredictable and the file created exclusively.
void capture_standard_error() {
  std::string name;
  int fd = quor_temp_file("DMN", O_APPEND, name);
  if (fd < 0) return;  // error replies then fall back to catalogue texts
  dup2(fd, 2);
  close(fd);
  quor_capture_set_file(name);
}

// The broker connection coming and going is logged once each way; the
// daemon goes on serving local clients meanwhile.
void log_broker_change(bool connected, const std::string& broker) {
  quor_msg_log(connected ? 403 : 404, connected ? 1 : 2, broker);
}

void register_server(Registration& reg) {
  TevSetBrokerNotice(log_broker_change);
  if (int rc = quor_tev_register_server(reg.id, reg.fb, kServerName); rc != 0) {
    MOmsgf(2, __LINE__, "../src/quordaemon", mo_identifier(20, 4), MO_LOG | 1, {std::to_string(rc)});
    if (quor_debug() && rc == 2) tev_dump_feedback("    TevInit failed", reg.fb);
    std::exit(1);
  }
}

}  // namespace

int main(int argc, char** argv) {
  quor_set_program_name(argc > 0 && argv[0] != nullptr ? argv[0] : "quordaemon");
  mo_set_program("quordaemon");

  const char* root = std::getenv("MOXGLBL0000");
  if (root == nullptr) fail(12, 4);
  RunState& state = quor_run_state();
  state.pid_file = std::string(root) + "/tmp/quordaemon.pid";
  if (pid_file_names_live_daemon(state.pid_file)) fail(21, 4);
  if (!write_pid_file(state.pid_file)) fail(106, 2, state.pid_file);

  quor_set_debug(std::getenv("MOXQUORDEBUG") != nullptr || std::getenv("MOXQUORSPIN") != nullptr);
  if (!quor_debug()) detach();
  state.start_time = std::time(nullptr);

  read_arguments(argc, argv);
  if (!quor_debug()) quor_install_signals();

  if (quor_config_load(quor_objmap(), quor_config(), state.config_path) != 0)
    fail(16, 4, state.config_path.value_or(quor_config().config_path));
  if (quor_users_load() != 0) fail(22, 4);

  Registration& reg = quor_registration();
  register_server(reg);
  auto loop = std::make_unique<DaemonLoop>();
  loop->conn.local = reg.id;
  quor_msg_log(400, 1, reg.id.system_id());

  if (!quor_debug()) capture_standard_error();
  if (std::getenv("MOXQUORSPIN") != nullptr) {
    std::printf("quordaemon waiting in spin loop, pid=%d\n", static_cast<int>(getpid()));
    std::fflush(stdout);
    while (spin != 0) sleep(1);
  }

  char last_type = quor_receive_loop(*loop, LoopHooks{});
  quor_orderly_shutdown(reg, last_type);
}
