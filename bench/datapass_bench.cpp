// The data pass beside what it cannot do without: a plain read of the file's bytes into memory, and the multiply-adds
// of the records' cross-products over bytes that are in memory already.
//
// The study has 50,000 level-2 units in 500 level-3 units, about 1,000,000 records of four variables, three level-1
// coefficients of which two are random (p = 2), and four level-2 coefficients. Multiply-adds, counted by hand: 10 a
// record, the lower triangle of the products of (1, X1, X2, Y); the pass itself has 45 more a unit, for B'B, B'Y, B'Z1
// and the inverse of Z1'Z1.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "estimate/linear/study.h"

namespace {

using namespace kdr;

study::Study& made() {
  static study::Study study(1, 500, 198, 38);
  return study;
}

std::size_t filebytes() { return static_cast<std::size_t>(lseek(fileno(run.mdm.stream), 0, SEEK_END)); }

void report(benchmark::State& state) {
  const double passes = static_cast<double>(state.iterations());
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(filebytes()));
  state.counters["ns/record"] =
      benchmark::Counter(passes * run.mdm.numl1rec * 1e-9, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void readfile(benchmark::State& state) {
  const char* path = made().path.c_str();
  std::vector<char> bytes(filebytes());
  for (auto _ : state) {
    const int file = open(path, O_RDONLY);
    for (std::size_t at = 0; at < bytes.size();)
      at += static_cast<std::size_t>(read(file, &bytes[at], bytes.size() - at));
    close(file);
    benchmark::ClobberMemory();
  }
  report(state);
}

// The products of every unit, from the file's bytes in memory.
void multiplyadds(benchmark::State& state) {
  made();
  std::vector<char> bytes(filebytes());
  std::fseek(run.mdm.stream, 0, SEEK_SET);
  if (std::fread(bytes.data(), 1, bytes.size(), run.mdm.stream) != bytes.size()) state.SkipWithError("read");
  const int width = run.mdm.nvar1;
  const std::size_t tail = 2 * 13 + static_cast<std::size_t>(run.mdm.nvar2) * 8;
  for (auto _ : state) {
    const char* at = bytes.data() + run.mdm.firstblock;
    for (int unit = 0; unit < run.mdm.nunits2; ++unit) {
      int nj = 0;
      std::memcpy(&nj, at, sizeof nj);
      at += sizeof nj + static_cast<std::size_t>(width) * 8;
      double x1 = 0, x2 = 0, y = 0, x11 = 0, x21 = 0, x22 = 0, y1 = 0, y2 = 0, yy = 0;
      for (int i = 0; i < nj; ++i, at += static_cast<std::size_t>(width) * 8) {
        double v[3];
        std::memcpy(v, at, sizeof v);
        y += v[0], x1 += v[1], x2 += v[2];
        yy += v[0] * v[0], y1 += v[0] * v[1], y2 += v[0] * v[2];
        x11 += v[1] * v[1], x21 += v[2] * v[1], x22 += v[2] * v[2];
      }
      benchmark::DoNotOptimize(x1 + x2 + y + x11 + x21 + x22 + y1 + y2 + yy);
      at += tail;
    }
  }
  report(state);
}

void thedatapass(benchmark::State& state) {
  made();
  for (auto _ : state) {
    Pass pass;
    study::prepare(pass, made());
  }
  report(state);
}

BENCHMARK(readfile)->Unit(benchmark::kMillisecond);
BENCHMARK(multiplyadds)->Unit(benchmark::kMillisecond);
BENCHMARK(thedatapass)->Name("datapass")->Unit(benchmark::kMillisecond);

}  // namespace
