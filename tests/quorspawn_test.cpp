// Starting agent programs: what the started program gets, and what is left
// behind when it cannot be started.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <fcntl.h>

#include <cerrno>

#include "core_util.h"
#include "quorspawn.h"

namespace {

namespace fs = std::filesystem;

int exit_status(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool segment_exists(int id) {
  shmid_ds ds{};
  return shmctl(id, IPC_STAT, &ds) == 0;
}

// A segment removed at scope exit unless something else removed it first.
struct Segment {
  int id = shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
  ~Segment() {
    if (id >= 0) shmctl(id, IPC_RMID, nullptr);
  }
};

SpawnRequest shell(const std::string& script) { return SpawnRequest{"/bin/sh", {"sh", "-c", script}, {}, nullptr, -1, {}, -1}; }

// The program sees its arguments, the environment it was given and
// nothing else of the daemon's, standard error where it was sent, and no
// descriptor of the daemon's beyond the standard three.
TEST(Spawn, TheProgramGetsItsArgumentsACleanEnvironmentAndNoDescriptors) {
  testutil::TempDir dir;
  testutil::EnvGuard secret("QUORSPAWN_SECRET", "1"), tev("TEV_DIR", "/t"), keep("MOXQUORKEEPENV", " KEEPME  LC_X"),
      kept("KEEPME", "yes");
  std::string out = (dir.path() / "out").string(), fds = (dir.path() / "fds").string(),
              err = (dir.path() / "err").string();
  SpawnRequest request = shell("echo \"$0|$1|$QUORSPAWN_TEST|${QUORSPAWN_SECRET-unset}|$TEV_DIR|$KEEPME|$PATH\" > " +
                               out + "; ls /proc/self/fd > " + fds + "; echo oops >&2");
  request.args.insert(request.args.end(), {"zero", "one"});
  request.env = quor_spawn_environment(nullptr);
  request.env.push_back("QUORSPAWN_TEST=set here");
  int leaked = open(out.c_str(), O_WRONLY | O_CREAT, 0600);  // no close-on-exec
  request.stderr_fd = open(err.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  SpawnResult result = quor_spawn(request);
  close(leaked);
  close(request.stderr_fd);
  ASSERT_GT(result.pid, 0);
  EXPECT_EQ(result.failure, SpawnResult::kNone);
  EXPECT_EQ(exit_status(result.pid), 0);
  EXPECT_EQ(testutil::read_file(out), "zero|one|set here|unset|/t|yes|/usr/local/bin:/usr/bin:/bin\n");
  EXPECT_EQ(testutil::read_file(fds), "0\n1\n2\n3\n") << "only ls's own directory besides 0-2";
  EXPECT_EQ(testutil::read_file(err), "oops\n");
}

// Signals are blocked only while the child shares the daemon's memory: the
// program gets the daemon's own mask, and the daemon keeps it.
TEST(Spawn, TheProgramAndTheDaemonKeepTheDaemonsSignalMask) {
  testutil::TempDir dir;
  std::string out = (dir.path() / "out").string();
  sigset_t usr1, before, after;
  sigemptyset(&usr1);
  sigaddset(&usr1, SIGUSR1);
  sigprocmask(SIG_BLOCK, &usr1, &before);
  // grep itself, not a shell (which may clear its mask), reads its status;
  // its standard output is the file.
  int saved = dup(1);
  int file = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  dup2(file, 1);
  SpawnResult result = quor_spawn(SpawnRequest{"/bin/grep", {"grep", "SigBlk", "/proc/self/status"}, {}, nullptr, -1, {}, -1});
  dup2(saved, 1);
  close(saved);
  close(file);
  sigprocmask(SIG_SETMASK, &before, &after);
  ASSERT_GT(result.pid, 0);
  EXPECT_EQ(exit_status(result.pid), 0);
  EXPECT_TRUE(sigismember(&after, SIGUSR1));
  EXPECT_FALSE(sigismember(&after, SIGTERM)) << "the start left signals blocked in the daemon";
  EXPECT_EQ(testutil::read_file(out), "SigBlk:\t0000000000000200\n");
}

TEST(Spawn, AProgramThatCannotBeExecutedEndsWith99AndRemovesTheSegment) {
  Segment segment;
  ASSERT_GE(segment.id, 0);
  SpawnRequest request{"/nonexistent/agent", {"agent", "1"}, {}, nullptr, segment.id, {}, -1};
  SpawnResult result = quor_spawn(request);
  ASSERT_GT(result.pid, 0);
  EXPECT_EQ(result.failure, SpawnResult::kExec);
  EXPECT_EQ(result.err, ENOENT);
  EXPECT_EQ(exit_status(result.pid), kSpawnFailedStatus);
  EXPECT_FALSE(segment_exists(segment.id));
}

// An identity that cannot be taken on (too many groups, even for root; any
// change at all without root) runs nothing and removes the segment.
TEST(Spawn, AnAccountThatCannotBeTakenOnRunsNothing) {
  testutil::TempDir dir;
  Segment segment;
  ASSERT_GE(segment.id, 0);
  Account account{"x", 65534, 65534, std::vector<gid_t>(70000, 65534), "/", "/bin/sh"};
  SpawnRequest request = shell("touch " + (dir.path() / "ran").string());
  request.account = &account;
  request.shm_id = segment.id;
  SpawnResult result = quor_spawn(request);
  ASSERT_GT(result.pid, 0);
  EXPECT_EQ(result.failure, SpawnResult::kIdentity);
  EXPECT_NE(result.err, 0);
  EXPECT_EQ(exit_status(result.pid), kSpawnFailedStatus);
  EXPECT_FALSE(fs::exists(dir.path() / "ran"));
  EXPECT_FALSE(segment_exists(segment.id));
}

// Under an account, the program runs with its uid, group and supplementary
// groups, and owns the segment (mode 0600, the daemon's group) and the data
// file.
TEST(Spawn, TheProgramRunsAsTheAccountAndOwnsSegmentAndDataFile) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to change identity";
  std::optional<Account> nobody = quor_account("nobody");
  if (!nobody) GTEST_SKIP() << "no account 'nobody'";
  testutil::TempDir dir;
  fs::permissions(dir.path(), fs::perms::all);
  std::string data = (dir.path() / "data").string();
  std::ofstream(data) << "rows";
  Segment segment;
  ASSERT_GE(segment.id, 0);
  std::string out = (dir.path() / "out").string();
  // Real, effective, saved and file-system ids all the account's: the
  // program cannot take root back.
  SpawnRequest request = shell("grep -E '^[UG]id:' /proc/self/status > " + out + "; id -G | wc -w >> " + out);
  request.account = &*nobody;
  request.shm_id = segment.id;
  request.data_file = data;
  SpawnResult result = quor_spawn(request);
  ASSERT_GT(result.pid, 0);
  EXPECT_EQ(result.failure, SpawnResult::kNone);
  EXPECT_EQ(exit_status(result.pid), 0);
  auto four = [](auto id) { return "\t" + std::to_string(id) + "\t" + std::to_string(id) + "\t" +
                                  std::to_string(id) + "\t" + std::to_string(id) + "\n"; };
  EXPECT_EQ(testutil::read_file(out),
            "Uid:" + four(nobody->uid) + "Gid:" + four(nobody->gid) + std::to_string(nobody->groups.size()) + "\n");
  shmid_ds ds{};
  ASSERT_EQ(shmctl(segment.id, IPC_STAT, &ds), 0);
  EXPECT_EQ(ds.shm_perm.uid, nobody->uid);
  EXPECT_EQ(ds.shm_perm.gid, getgid());
  EXPECT_EQ(ds.shm_perm.mode & 0777, 0600);
  struct stat st {};
  ASSERT_EQ(stat(data.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, nobody->uid);
  EXPECT_EQ(st.st_gid, nobody->gid);

  // A segment that is gone, or a data file that cannot be handed over (a
  // missing one can), and the program does not run.
  std::string ran = (dir.path() / "ran").string();
  for (auto [shm, file] : {std::pair{shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600), std::string()},
                           {-1, std::string("/dev/null/data")}}) {
    if (shm >= 0) shmctl(shm, IPC_RMID, nullptr);
    SpawnRequest refused = shell("touch " + ran);
    refused.account = &*nobody;
    refused.shm_id = shm;
    refused.data_file = file;
    SpawnResult r = quor_spawn(refused);
    ASSERT_GT(r.pid, 0);
    EXPECT_EQ(r.failure, SpawnResult::kIdentity) << file;
    EXPECT_EQ(exit_status(r.pid), kSpawnFailedStatus);
    EXPECT_FALSE(fs::exists(ran)) << file;
  }
}

}  // namespace
