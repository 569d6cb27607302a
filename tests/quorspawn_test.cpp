// Starting agent programs: what they get, and what a failed start leaves.
#include <gtest/gtest.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include "core_util.h"
#include "quorspawn.h"

namespace {

namespace fs = std::filesystem;

int exit_status(pid_t pid) {
  int status = 0;
  return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A segment removed at scope exit unless something else removed it first.
struct Segment {
  int id = shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
  ~Segment() {
    if (id >= 0) shmctl(id, IPC_RMID, nullptr);
  }
};

SpawnRequest shell(const std::string& script) {
  return SpawnRequest{"/bin/sh", {"sh", "-c", script}, {}, nullptr, -1, {}, -1};
}

// The program gets the daemon's own mask (signals are blocked while the
// child shares its memory), and the daemon keeps it.
TEST(Spawn, TheProgramAndTheDaemonKeepTheDaemonsSignalMask) {
  testutil::TempDir dir;
  std::string out = (dir.path() / "out").string();
  sigset_t usr1, before, after;
  sigemptyset(&usr1);
  sigaddset(&usr1, SIGUSR1);
  sigprocmask(SIG_BLOCK, &usr1, &before);
  // dd itself, not a shell (which may clear its mask), copies its status.
  SpawnResult result = quor_spawn(SpawnRequest{"/bin/dd", {"dd", "if=/proc/self/status", "of=" + out, "status=none"},
                                               {}, nullptr, -1, {}, -1});
  sigprocmask(SIG_SETMASK, &before, &after);
  ASSERT_GT(result.pid, 0);
  EXPECT_EQ(exit_status(result.pid), 0);
  EXPECT_TRUE(sigismember(&after, SIGUSR1));
  EXPECT_FALSE(sigismember(&after, SIGTERM)) << "the start left signals blocked in the daemon";
  EXPECT_NE(testutil::read_file(out).find("\nSigBlk:\t0000000000000200\n"), std::string::npos);
}

// Under an account the program has all its ids and groups and owns the
// segment and data file; a failed start runs nothing, ends with 99, removes the segment.
TEST(Spawn, UnderAnAccountOrNotAtAll) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to change identity";
  std::optional<Account> nobody = quor_account("nobody");
  if (!nobody) GTEST_SKIP() << "no account 'nobody'";
  testutil::TempDir dir;
  fs::permissions(dir.path(), fs::perms::all);
  std::string data = (dir.path() / "data").string(), out = (dir.path() / "out").string(),
              ran = (dir.path() / "ran").string();
  std::ofstream(data) << "rows";
  Segment segment;
  ASSERT_GE(segment.id, 0);
  // Real, effective, saved and file-system ids: the program cannot take root back.
  SpawnRequest request = shell("grep -E '^[UG]id:' /proc/self/status > " + out + "; id -G | wc -w >> " + out);
  request.account = &*nobody;
  request.shm_id = segment.id;
  request.data_file = data;
  SpawnResult result = quor_spawn(request);
  ASSERT_GT(result.pid, 0);
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

  // Not started: no program; too many groups; a segment gone; a data file that cannot be handed over.
  Account crowded{"x", 65534, 65534, std::vector<gid_t>(70000, 65534), "/", "/bin/sh"};
  int gone = shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
  shmctl(gone, IPC_RMID, nullptr);
  const std::tuple<const char*, const char*, const Account*, bool, const char*, SpawnResult::Failure> cases[] = {
      {"no program", "/nonexistent/agent", nullptr, false, "", SpawnResult::kExec},
      {"too many groups", "/bin/sh", &crowded, false, "", SpawnResult::kIdentity},
      {"segment gone", "/bin/sh", &*nobody, true, "", SpawnResult::kIdentity},
      {"data file", "/bin/sh", &*nobody, false, "/dev/null/data", SpawnResult::kIdentity}};
  for (const auto& [name, program, account, segment_gone, data_file, failure] : cases) {
    SCOPED_TRACE(name);
    Segment fresh;
    ASSERT_GE(fresh.id, 0);
    SpawnRequest refused = shell("touch " + ran);
    refused.program = program;
    refused.account = account;
    refused.shm_id = segment_gone ? gone : fresh.id;
    refused.data_file = data_file;
    SpawnResult r = quor_spawn(refused);
    ASSERT_GT(r.pid, 0);
    EXPECT_EQ(r.failure, failure);
    EXPECT_NE(r.err, 0);
    EXPECT_EQ(exit_status(r.pid), kSpawnFailedStatus);
    EXPECT_FALSE(fs::exists(ran));
    EXPECT_NE(shmctl(refused.shm_id, IPC_STAT, &ds), 0) << "the segment was left behind";
  }
}

}  // namespace
