// quorutil: the utility agent (object "MOUTIL"), started for 'U' requests.
//
//   quorutil SEGMENT-ID
//
// The daemon starts it as root. It reads its request record and the command
// file it names (one shell command a line; only a regular file of root's,
// as the daemon makes it, is read), removes both, takes on the
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
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "agentlib.h"

namespace {

constexpr std::size_t kMostOutput = 16 * 1024 * 1024;

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

}  // namespace

int main(int argc, char** argv) {
  AgentRequest request;
  if (argc < 2) return 2;
  if (!agent_take_request(std::atoi(argv[1]), request)) return 1;
  std::string account = request.field(smc::username);
  std::string command_file = request.field(smc::slot(smc::csl_value, 0));
  std::string data_file = request.field(smc::fileName);

  // As root, before the account's identity is taken on: the command file is
  // read, and the registration for the answer made. Only files the daemon
  // made are read or removed, whatever the record names.
  std::string commands, unused;
  bool have_commands = agent_take_file(command_file, commands);
  if (!data_file.empty()) agent_take_file(data_file, unused);
  AgentAnswer answer;
  if (!answer.open(request, "QUORUTIL")) return 1;
  if (!have_commands) {
    answer.send("", 1, "the request's command file cannot be used");
    return 1;
  }

  if (!agent_become(account)) {
    answer.send("", 1, "cannot run commands as " + account);
    return 1;
  }
  std::string output;
  int status = run(commands, output);
  answer.send(output, status, status == 0 ? "" : "the commands ended with status " + std::to_string(status));
  return status;
}
