// Arbitrary list segments written as a list file: no crash, no read
// outside the buffers, and a failed transfer ends closed.
#include "quorlsfl.h"
#include "segment_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FileTransfer transfer;
  transfer.path = "/dev/null";
  for (const std::vector<char>& buf : segment_requests("ZZZLST", data, size)) {
    int rc = buffer_to_list(transfer, "ZZZLST", buf);
    if (rc != 0 && rc != 3 && rc != 4) __builtin_trap();
    if (rc == 3 && transfer.stream) __builtin_trap();
  }
  return 0;
}
