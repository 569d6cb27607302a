// quorutil: the utility agent (object "MOUTIL"), started for 'U' requests.
//
//   quorutil SEGMENT-ID
//
// The daemon starts it as root. It reads its request record and the command
// file it names (one shell command a line), removes both, takes on the
// identity of the account named in the record (groups, group, user; it
// refuses to go on if any step fails or root could be taken back), runs the
// commands with /bin/sh, and answers the client with what they printed
// (standard output and standard error together) as "ZZZLST" lines, then a
// "ZZZRET" segment with the shell's exit status as RC. A long answer goes as
// several buffers, every one but the last a conversation the client answers.
//
// Exit status: the shell's, or 1 when the request could not be read or the
// account could not be taken on (the client is told why), 2 without an
// argument.
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "quorlsfl.h"
#include "quorsmc.h"
#include "quortev.h"
#include "quortrl.h"
#include "quorutl.h"

namespace {

constexpr std::size_t kMostOutput = 16 * 1024 * 1024;

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

bool become(const std::string& name) {
  const passwd* account = getpwnam(name.c_str());
  if (account == nullptr) return false;
  if (initgroups(account->pw_name, account->pw_gid) != 0 || setgid(account->pw_gid) != 0 ||
      setuid(account->pw_uid) != 0)
    return false;
  return account->pw_uid == 0 || setuid(0) != 0;
}

// Runs `commands` with /bin/sh reading them from its standard input; the
// output (standard output and error), at most kMostOutput bytes, and the
// exit status.
int run(const std::string& commands, std::string& output) {
  std::FILE* input = std::tmpfile();
  int out[2];
  if (input == nullptr || pipe(out) != 0) return 127;
  std::fwrite(commands.data(), 1, commands.size(), input);
  std::fflush(input);
  std::rewind(input);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fileno(input), 0);
    dup2(out[1], 1);
    dup2(out[1], 2);
    close(out[0]);
    close(out[1]);
    execl("/bin/sh", "sh", "-s", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  char chunk[65536];
  for (ssize_t n; (n = read(out[0], chunk, sizeof chunk)) > 0;)
    if (output.size() < kMostOutput) output.append(chunk, static_cast<std::size_t>(n));
  close(out[0]);
  std::fclose(input);
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return 127;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Answers the client whose identity is in the segment: the output as list
// lines, then the return code.
int answer(ConnRecord& conn, const std::string& output, int rc, const std::string& message) {
  // The output as a file the list writer can read: an anonymous one.
  int fd = memfd_create("quorutil-output", MFD_CLOEXEC);
  if (fd >= 0) (void)!write(fd, output.data(), output.size());
  std::string listing = "/proc/self/fd/" + std::to_string(fd);
  std::array<char, BUFFER_MAX> buf{};
  OutBuf out(buf);
  tran_header_put("U", "N", out);
  std::size_t pos = list_to_buffer(listing, out, buf.size(), conn, "ZZZLST");
  if (fd >= 0) close(fd);
  int sent = 1;
  if (pos > 8 || pos == 7) {
    std::size_t field = buf_begin_segment(out, "ZZZRET");
    for (const std::string& item : {std::string("RC"), std::to_string(rc), std::string("RM"), message})
      buf_add_item(out, item);
    buf_end_segment(out, field);
    quor_trl_put("N", out);
    sent = quor_tev_send(conn, buf, out.pos);
  }
  return sent;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  int id = std::atoi(argv[1]);
  void* at = shmat(id, nullptr, SHM_RDONLY);
  if (at == reinterpret_cast<void*>(-1)) return 1;
  std::string segment(static_cast<const char*>(at), kShmSize);
  shmdt(at);
  shmctl(id, IPC_RMID, nullptr);
  std::span<const char> record = std::span<const char>(segment).subspan(kRecordOffset);
  std::string account(smc_get(record, smc::username));
  std::string command_file(smc_get(record, smc::slot(smc::csl_value, 0)));
  std::string data_file(smc_get(record, smc::fileName));

  // As root, before the account's identity is taken on: the command file is
  // read, and the registration for the answer made.
  std::string commands = slurp(command_file);
  std::remove(command_file.c_str());
  if (!data_file.empty()) std::remove(data_file.c_str());
  ConnRecord conn;
  if (quor_tev_register(conn.local, conn.fb, "QUORUTIL." + std::to_string(getpid())) != 0) return 1;
  std::memcpy(conn.remote.bytes.data(), segment.data() + 87, kTevIdentitySize);
  conn.fb.FB_InConversId = 0;  // an answer of the agent's own, not a reply to a request

  int status = 1;
  if (!become(account)) {
    answer(conn, "", status, "cannot run commands as " + account);
  } else {
    std::string output;
    status = run(commands, output);
    answer(conn, output, status, status == 0 ? "" : "the commands ended with status " + std::to_string(status));
  }
  TevFeedback fb;
  quor_tev_deregister(conn.local, fb);
  return status;
}
