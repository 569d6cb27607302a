// Arbitrary "ZZZCAL" segments written as a calendar: no crash, no read or
// write outside the buffers and the 404-byte header, and a failed transfer
// ends closed with its header released.
#include "quorcal.h"
#include "segment_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FileTransfer transfer;
  transfer.path = "/dev/null";
  for (const std::vector<char>& buf : segment_requests(kCalTag, data, size)) {
    int rc = buffer_to_cal(transfer, buf);
    if (rc != 0 && rc != 3 && rc != 4) __builtin_trap();
    if (rc == 3 && (transfer.stream || transfer.calendar_header)) __builtin_trap();
  }
  return 0;
}
