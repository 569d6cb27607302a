// Throughput of the body transform and of building and parsing a full
// 32767-byte message. Run: build/bench/buffer_bench
#include <benchmark/benchmark.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "mocrypt.h"
#include "quortev.h"
#include "quortran.h"
#include "quortrl.h"
#include "quorutl.h"

namespace {

void BM_BodyEncode(benchmark::State& state) {
  std::vector<std::uint8_t> data(static_cast<std::size_t>(state.range(0)), 0x5A);
  for (auto _ : state) {
    body_encode(0x25, data);
    benchmark::DoNotOptimize(data.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_BodyEncode)->Arg(64)->Arg(BUFFER_MAX - LENGTH_PREFIX);

void BM_BodyDecode(benchmark::State& state) {
  std::vector<std::uint8_t> data(static_cast<std::size_t>(state.range(0)), 0x5A);
  for (auto _ : state) {
    body_decode(0x25, data);
    benchmark::DoNotOptimize(data.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_BodyDecode)->Arg(64)->Arg(BUFFER_MAX - LENGTH_PREFIX);

void BM_Memcpy(benchmark::State& state) {
  std::vector<std::uint8_t> a(BUFFER_MAX - LENGTH_PREFIX, 1), b(a.size());
  for (auto _ : state) {
    std::memcpy(b.data(), a.data(), a.size());
    benchmark::DoNotOptimize(b.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * a.size()));
}
BENCHMARK(BM_Memcpy);

// A status-report-like message: header, one segment of report lines up to
// the buffer's end, trailer. Returns the total length.
std::size_t build_full(std::array<char, BUFFER_MAX>& buf) {
  OutBuf out(buf);
  tran_header_put("F", "N", out);
  std::size_t lf = buf_begin_segment(out, "ZZZSTS");
  static const std::string line = "    User someone from node host17 logged in as someone.\n";
  while (out.pos + line.size() + 1 + kSplitMargin < BUFFER_MAX) buf_add_item(out, line);
  buf_end_segment(out, lf);
  quor_trl_put("N", out);
  return out.pos;
}

void BM_BuildFullBuffer(benchmark::State& state) {
  std::array<char, BUFFER_MAX> buf{};
  std::size_t total = 0;
  for (auto _ : state) {
    total = build_full(buf);
    benchmark::DoNotOptimize(buf.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * total));
}
BENCHMARK(BM_BuildFullBuffer);

void BM_ParseFullBuffer(benchmark::State& state) {
  std::array<char, BUFFER_MAX> buf{};
  std::size_t total = build_full(buf);
  std::size_t items = 0;
  for (auto _ : state) {
    TransactionHeader tran;
    tran_header_read(buf, tran);
    auto at = buf_find_segment(buf, "ZZZSTS");
    items = 0;
    for (auto s = buf_string(buf, *at); s && *s != kEndOfSegment; s = buf_string(buf, *at)) {
      *at += s->size() + 1;
      ++items;
    }
    Trailer trl;
    quor_trl_read(buf, trl);
    benchmark::DoNotOptimize(items);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * total));
}
BENCHMARK(BM_ParseFullBuffer);

// Both ends of the wire: seal (prefix and encode) then open (decode).
void BM_SealAndOpenFullBuffer(benchmark::State& state) {
  std::array<char, BUFFER_MAX> buf{};
  std::size_t total = build_full(buf);
  for (auto _ : state) {
    quor_wire_seal(buf, total);
    benchmark::DoNotOptimize(quor_wire_open(buf, total));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * total));
}
BENCHMARK(BM_SealAndOpenFullBuffer);

}  // namespace
