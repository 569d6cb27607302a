// quordaemon: registers with the transport and serves requests until told
// to stop.
#include <cstdlib>
#include <memory>

#include "momsg.h"
#include "quordaemon.h"
#include "quordebug.h"
#include "quorderr.h"

int main(int /*argc*/, char** argv) {
  quor_set_program_name(argv[0] != nullptr ? argv[0] : "quordaemon");
  mo_set_program("quordaemon");
  quor_set_debug(std::getenv("MOXQUORDEBUG") != nullptr || std::getenv("MOXQUORSPIN") != nullptr);

  Registration& reg = quor_registration();
  if (int rc = quor_tev_register(reg.id, reg.fb, kServerName); rc != 0) {
    MOmsgf(2, __LINE__, "../src/quordaemon", mo_identifier(20, 4), MO_LOG | 1,
           {std::to_string(rc)});
    if (quor_debug()) tev_dump_feedback("    TevInit failed", reg.fb);
    return 1;
  }

  auto loop = std::make_unique<DaemonLoop>();
  loop->conn.local = reg.id;
  quor_msg_log(400, 1, reg.id.system_id());

  quor_receive_loop(*loop, LoopHooks{});

  quor_tev_deregister(reg.id, reg.fb);
  quor_msg_log(401, 1, reg.id.system_id());
  return 0;
}
