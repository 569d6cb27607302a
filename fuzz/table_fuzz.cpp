// Arbitrary "ZZZRDW" segments written as a table: no crash, no read or
// write outside the buffers, and every transfer ends closed.
#include "quorRDW.h"
#include "segment_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FileTransfer transfer;
  transfer.path = "/dev/null";
  for (const std::vector<char>& buf : segment_requests(kRdwTag, data, size)) {
    int rc = buffer_to_RDW(transfer, buf);
    if (rc != 0 && rc != 3 && rc != 4) __builtin_trap();
    if (rc == 3 && transfer.stream) __builtin_trap();  // a failed transfer is closed
  }
  return 0;
}
