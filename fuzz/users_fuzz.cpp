// Arbitrary bytes as a save file or owners file: the daemon reads both back
// at start-up, and a damaged one must stop the load cleanly, never read past
// a record. Every owner that parses is written back as the same owner.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "quoraccess.h"
#include "quorusers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // A file in memory, named through /proc so the reader opens it by path;
  // nothing is left behind in the file system.
  static int fd = memfd_create("users_fuzz", 0);
  static std::string path = "/proc/self/fd/" + std::to_string(fd);
  if (fd < 0 || ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) return 0;
  for (std::size_t count : {3u, 5u}) {
    int rc = quor_records_read(path, count, [count](const std::vector<std::string>& strings) {
      if (strings.size() != count) __builtin_trap();
      if (std::optional<ClientId> owner = quor_client_parse(strings.back())) {
        std::optional<ClientId> again = quor_client_parse(quor_client_text(*owner));
        if (!again || *again != *owner) __builtin_trap();
      }
    });
    if (rc != 0 && rc != 1 && rc != 5) __builtin_trap();
  }
  return 0;
}
