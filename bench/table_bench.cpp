// Table upload and download throughput against plain file I/O of the same
// bytes on this machine. Run: build/bench/table_bench [rows]
//
// Upload: request buffers full of "ZZZRDW" rows written to a table file
// (buffer_to_RDW), against fwrite of the finished file's bytes in chunks of
// the same size. Download: the table file turned back into "ZZZRDW" items
// (RDWto_buffer into one large buffer, so the transport is not measured),
// against fread of the same file into memory of its size, in pieces of a
// request buffer's size (and into a string, as before). Both sides stay in the page cache; neither
// is synced. Figures are the best of seven runs, taken in turn.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "quorRDW.h"
#include "quorconfig.h"
#include "quortrl.h"
#include "quorutl.h"

namespace {

using Clock = std::chrono::steady_clock;

// Request buffers carrying `rows` rows of four columns (ids, names, a
// varying text, a short flag), about 40 bytes of values per row.
std::vector<std::vector<char>> requests(int rows) {
  std::vector<std::vector<char>> buffers;
  int next = 0;
  while (next < rows) {
    std::vector<char> buf(BUFFER_MAX);
    OutBuf out(buf);
    tran_header_put("S", buffers.empty() ? "N" : "Y", out);
    std::size_t field = buf_begin_segment(out, kRdwTag);
    buf_add_item(out, "4");
    for (; next < rows && out.pos + 400 < BUFFER_MAX; ++next) {
      buf_add_item(out, std::to_string(next));
      buf_add_item(out, "customer " + std::to_string(next * 7919 % 100000));
      buf_add_item(out, std::string(static_cast<std::size_t>(5 + next % 23), 'a' + static_cast<char>(next % 26)));
      buf_add_item(out, next % 3 == 0 ? "Y" : "N");
    }
    buf_end_segment(out, field);
    quor_trl_put(next < rows ? "Y" : "N", out);
    buf.resize(out.pos);
    buffers.push_back(std::move(buf));
  }
  return buffers;
}

template <class F>
double seconds(F run) {
  auto start = Clock::now();
  run();
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// The best of seven runs of each, taken in turn, so that both see the
// same machine even when its load changes.
template <class... F>
std::array<double, sizeof...(F)> best_in_turn(F... runs) {
  std::array<double, sizeof...(F)> best;
  best.fill(1e30);
  for (int i = 0; i < 7; ++i) {
    std::size_t k = 0;
    ((best[k] = std::min(best[k], seconds(runs)), ++k), ...);
  }
  return best;
}

std::string slurp(const std::string& path) {
  std::string bytes;
  FilePtr f(std::fopen(path.c_str(), "rb"));
  char chunk[65536];
  for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, f.get())) > 0;) bytes.append(chunk, n);
  return bytes;
}

void report(const char* what, int rows, double bytes, double seconds, double plain_seconds, double goal) {
  std::printf("%-10s %10.0f rows/s %8.1f MB/s   plain %8.1f MB/s   ratio %.2f (goal >= %.1f)\n", what,
              rows / seconds, bytes / seconds / 1e6, bytes / plain_seconds / 1e6, plain_seconds / seconds, goal);
}

}  // namespace

int main(int argc, char** argv) {
  int rows = argc > 1 ? std::atoi(argv[1]) : 500000;
  std::vector<std::vector<char>> buffers = requests(rows);
  std::string table = quor_temp_dir() + "/table_bench." + std::to_string(getpid());
  std::string plain = table + ".plain";

  auto upload_run = [&] {
    FileTransfer t;
    t.path = table;
    for (const auto& b : buffers)
      if (buffer_to_RDW(t, b) != 0) std::abort();
  };
  upload_run();
  std::string bytes = slurp(table);
  auto [upload, plain_write] = best_in_turn(upload_run, [&] {
    FilePtr f(std::fopen(plain.c_str(), "wb"));
    for (std::size_t at = 0; at < bytes.size(); at += BUFFER_MAX)
      std::fwrite(bytes.data() + at, 1, std::min(BUFFER_MAX, bytes.size() - at), f.get());
  });

  std::vector<char> reply(bytes.size() * 2 + BUFFER_MAX);
  ConnRecord unused;  // the reply buffer is large enough never to be sent
  std::size_t reply_bytes = 0;
  // The download is measured against a read into memory that is already
  // there, as the reply buffer is; and against a read into new memory, as a
  // program reading a file into a string does (where taking fresh pages is
  // slow, as in some virtual machines, that mostly times the taking).
  std::vector<char> again(bytes.size() + BUFFER_MAX);
  auto [download, plain_read, plain_read_new] = best_in_turn(
      [&] {
        OutBuf out(reply);
        std::size_t pos = RDWto_buffer(table, out, reply.size(), unused);
        if (pos <= 8) std::abort();
        reply_bytes = pos;
      },
      [&] {
        FilePtr f(std::fopen(plain.c_str(), "rb"));
        std::size_t got = 0;
        for (std::size_t n;
             (n = std::fread(again.data() + got, 1, std::min<std::size_t>(BUFFER_MAX, again.size() - got), f.get())) > 0;)
          got += n;
        if (got != bytes.size()) std::abort();
      },
      [&] {
        std::string copy = slurp(plain);
        if (copy.size() != bytes.size()) std::abort();
      });

  std::printf("table of %d rows, 4 columns: %zu request buffers, file %zu bytes, reply %zu bytes\n", rows,
              buffers.size(), bytes.size(), reply_bytes);
  report("upload", rows, static_cast<double>(bytes.size()), upload, plain_write, 0.7);
  report("download", rows, static_cast<double>(bytes.size()), download, plain_read, 0.9);
  std::printf("download against a read into new memory: plain %.1f MB/s, ratio %.2f\n",
              static_cast<double>(bytes.size()) / plain_read_new / 1e6, plain_read_new / download);
  std::remove(table.c_str());
  std::remove(plain.c_str());
  return 0;
}
