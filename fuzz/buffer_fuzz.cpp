// Arbitrary bytes as a received request: the framing, the segment and item
// readers and the header readers must stay inside the bytes they are given.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "momsg.h"
#include "quorenvd.h"
#include "quorkids.h"
#include "quortev.h"
#include "quortran.h"
#include "quortrl.h"
#include "quorutl.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Exactly the input, so any read past it is caught by AddressSanitizer.
  std::vector<char> buf(data, data + size);
  InBuf in(buf.data(), buf.size());

  TransactionHeader tran;
  (void)tran_header_read(in, tran);
  ObjectHeader hdr;
  (void)quor_hdr_read(in, hdr);
  Trailer trl;
  (void)quor_trl_read(in, trl);
  for (std::string_view tag : {"ZZZRET", "ZZZFIL", "ZZZPND", "ZZZRDW", "ZZZENV"}) {
    if (auto at = buf_find_segment(in, tag)) {
      std::string_view values[4];
      static constexpr std::string_view names[4] = {"RC", "RM", "DAT", "LAN"};
      (void)buf_get_items(in, *at, values, names);
    }
  }

  // A login report names its agent by a pid in text: only agent 123 of this
  // host may match, and only by a "PID" that reads as 123.
  static ChildEntry& agent = [] () -> ChildEntry& {
    ChildEntry& e = quor_child_new();
    e.agent_pid = 123;
    e.flags = kChildRunning;
    return e;
  }();
  if (quor_child_find_agent(tran, kChildRunning | kChildKept) == &agent &&
      (tran.node != mo_nodename() || tran.pid.find("123") == std::string::npos))
    __builtin_trap();

  // The client's date format and language become environment entries.
  if (auto env = quor_env_read(in)) {
    if (env->date_format.rfind("MOX_DATEFMT=", 0) != 0 || env->message.rfind("MO_MOXMESSAGE=", 0) != 0)
      __builtin_trap();
  }

  // The same bytes as they come off the wire.
  std::vector<char> wire(data, data + size);
  std::size_t total = quor_wire_open(wire, wire.size());
  if (total != 0 && (total < 7 || total > wire.size())) __builtin_trap();
  return 0;
}
