#include "quorkids.h"

#include <signal.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

ChildTable& quor_children() {
  static ChildTable table;
  return table;
}

ChildEntry& quor_child_new() {
  ChildEntry& entry = quor_children().emplace_front();
  entry.created = std::time(nullptr);
  return entry;
}

int quor_child_remove(ChildEntry* entry) {
  if (entry == nullptr) return 3;
  if (entry->agent_pid < 1 && entry->shm_id != -1) shmctl(entry->shm_id, IPC_RMID, nullptr);
  quor_children().remove_if([entry](const ChildEntry& e) { return &e == entry; });
  return 0;
}

int quor_child_count() { return static_cast<int>(quor_children().size()); }

void quor_children_drop_idle() {
  ChildTable& table = quor_children();
  for (auto it = table.begin(); it != table.end();) {
    ChildEntry& entry = *it++;
    if (entry.agent_pid < 1) quor_child_remove(&entry);
  }
}

void quor_terminate_pid(pid_t pid) {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  sleep(1);
  waitpid(pid, nullptr, WNOHANG);
}

void quor_children_kill_all() {
  for (const ChildEntry& entry : quor_children()) {
    if (entry.agent_pid <= 0) continue;
    kill(entry.agent_pid, SIGTERM);
    sleep(1);
    kill(entry.agent_pid, SIGKILL);
    sleep(1);
    waitpid(entry.agent_pid, nullptr, WNOHANG);
  }
}
