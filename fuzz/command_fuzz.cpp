// Arbitrary bytes as a command request: the request record filled from its
// headers keeps every text field inside its slot and NUL-terminated, and the
// command file and file-version rewrite read only the bytes they are given.
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "quorkids.h"
#include "quorproc.h"
#include "quorsmc.h"
#include "quortran.h"
#include "quortrl.h"

namespace fs = std::filesystem;

namespace {

// A scratch directory for the command and data files, also the temporary
// directory the record's data file is made in; removed when the run ends.
struct Scratch {
  fs::path dir;
  Scratch() {
    char pattern[] = "/tmp/command_fuzz.XXXXXX";
    dir = mkdtemp(pattern);
    setenv("TMPDIR", dir.c_str(), 1);
  }
  ~Scratch() {
    std::error_code ignored;
    fs::remove_all(dir, ignored);
  }
};

const fs::path& scratch() {
  static const Scratch made;
  return made.dir;
}

constexpr SmcField kTextFields[] = {smc::row_count, smc::fileName, smc::command, smc::verbLabel, smc::object,
                                    smc::username,  smc::gid,      smc::pid,     smc::source,    smc::node};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fs::path& dir = scratch();
  // Exactly the input, so any read past it is caught by AddressSanitizer.
  std::vector<char> buf(data, data + size);
  InBuf in(buf.data(), buf.size());
  TransactionHeader tran;
  (void)tran_header_read(in, tran);
  ObjectHeader hdr;
  (void)quor_hdr_read(in, hdr);

  std::vector<char> record(kRecordSize);
  std::string data_file = quor_smc_fill(record, tran, hdr);
  for (SmcField f : kTextFields)
    if (record[f.offset + f.size - 1] != '\0') __builtin_trap();
  if (smc_get(record, smc::fileName) != data_file) __builtin_trap();

  // The 'U' command file, written as a file-version rewrite or as it stands.
  ChildEntry entry;
  entry.transfer.path = (dir / "commands").string();
  if (quor_fileversion_rewrite(record, in, entry, "ZZZCMD") == 4) {
    FileTransfer plain;
    plain.path = entry.transfer.path;
    (void)quor_write_list_items(plain, in, "ZZZCMD");
  }
  entry.transfer.reset();
  if (!data_file.empty()) fs::remove(data_file);
  return 0;
}
