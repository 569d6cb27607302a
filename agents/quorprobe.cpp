// quorprobe: an agent for tests that records everything it was given.
//
//   quorprobe SEGMENT-ID
//
// Writes, into the directory named by QUORPROBE_DIR (which it inherits from
// the daemon), for its own pid P:
//
//   P.segment  the whole shared-memory segment, as it found it
//   P.data     the request's data file (record fileName), when there is one
//   P.info     lines "name=value": argc, argv0, argv1, uid, euid, gid, egid,
//              groups (comma-separated), MOX_DATEFMT, MO_MOXMESSAGE, env (the
//              names of its environment, comma-separated), fds (its open
//              descriptors), stderr (what standard error is: its path, and
//              "w" or "rw")
//
// P.info is written last (under a temporary name, then renamed), so a test
// that sees it finds the others complete. The segment and the data file are
// removed afterwards, as every agent must.
//
// The request record's command says what to do then:
//   EXIT<n>     exit with status n
//   SLEEP<n>    sleep n seconds, then exit 0
//   STDERR      write a line to standard error, then exit 0
//   LOGININFO   report a login (LOGININFO) for the record's user name (or,
//               as LOGININFO:NAME, for NAME) to the daemon, then wait for
//               SIGTERM as the user's login process
//   ANSWER      answer the client with the P.info lines (RC 0)
//   anything else: exit 0
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "agentlib.h"

namespace {

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

bool write_file(const std::string& path, const std::string& bytes) {
  std::string temporary = path + ".tmp";
  std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
  out << bytes;
  out.close();
  return out && std::rename(temporary.c_str(), path.c_str()) == 0;
}

std::string groups() {
  std::vector<gid_t> list(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
  int n = getgroups(static_cast<int>(list.size()), list.data());
  std::string text;
  for (int i = 0; i < n; ++i) text += (i > 0 ? "," : "") + std::to_string(list[static_cast<std::size_t>(i)]);
  return text;
}

std::string environment_names() {
  std::string names;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string_view entry(*e);
    names += (names.empty() ? "" : ",") + std::string(entry.substr(0, entry.find('=')));
  }
  return names;
}

std::string descriptors() {
  std::string fds;
  for (int fd = 0; fd < 1024; ++fd)
    if (fcntl(fd, F_GETFD) != -1) fds += (fds.empty() ? "" : ",") + std::to_string(fd);
  return fds;
}

std::string standard_error() {
  char target[512] = {};
  ssize_t n = readlink("/proc/self/fd/2", target, sizeof target - 1);
  int mode = fcntl(2, F_GETFL) & O_ACCMODE;
  return std::string(target, n > 0 ? static_cast<std::size_t>(n) : 0) + " " +
         (mode == O_WRONLY ? "w" : mode == O_RDWR ? "rw" : "r");
}

}  // namespace

int main(int argc, char** argv) {
  const char* dir = std::getenv("QUORPROBE_DIR");
  if (dir == nullptr || argc < 2) return 2;
  const std::string base = std::string(dir) + "/" + std::to_string(getpid());
  AgentRequest request;
  agent_take_request(std::atoi(argv[1]), request);
  const std::string& segment = request.segment;
  std::span<const char> record;
  if (segment.size() == kShmSize) record = std::span<const char>(segment).subspan(kRecordOffset);
  std::string data_file = record.empty() ? "" : std::string(smc_get(record, smc::fileName));
  std::string command = record.empty() ? "" : std::string(smc_get(record, smc::command));

  write_file(base + ".segment", segment);
  if (!data_file.empty()) {
    write_file(base + ".data", read_file(data_file));
    std::remove(data_file.c_str());
  }
  std::ostringstream info;
  info << "argc=" << argc << "\nargv0=" << argv[0] << "\nargv1=" << argv[1] << "\nuid=" << getuid()
       << "\neuid=" << geteuid() << "\ngid=" << getgid() << "\negid=" << getegid() << "\ngroups=" << groups()
       << "\nMOX_DATEFMT=" << (std::getenv("MOX_DATEFMT") ? std::getenv("MOX_DATEFMT") : "")
       << "\nMO_MOXMESSAGE=" << (std::getenv("MO_MOXMESSAGE") ? std::getenv("MO_MOXMESSAGE") : "")
       << "\nenv=" << environment_names() << "\nfds=" << descriptors() << "\nstderr=" << standard_error() << "\n";
  write_file(base + ".info", info.str());

  if (command == "ANSWER") {
    AgentAnswer answer;
    return answer.open(request, "QUORPROBE") && answer.send(info.str(), 0, "probe") == 0 ? 0 : 3;
  }
  if (command.starts_with("EXIT")) return std::atoi(command.c_str() + 4);
  if (command == "STDERR") {
    std::fprintf(stderr, "quorprobe wrote this\n");
    return 0;
  }
  if (command.starts_with("SLEEP")) {
    sleep(static_cast<unsigned>(std::atoi(command.c_str() + 5)));
    return 0;
  }
  if (command.starts_with("LOGININFO")) {
    std::string account = command.size() > 10 ? command.substr(10) : std::string(smc_get(record, smc::username));
    if (agent_report_login(account, std::to_string(getgid())) != 0) return 3;
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    sigprocmask(SIG_BLOCK, &term, nullptr);
    int signo = 0;
    sigwait(&term, &signo);
  }
  return 0;
}
