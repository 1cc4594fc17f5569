// Micro-benchmarks of the kernel at the orders of the estimators: nanoseconds per call.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "kernel/decompositions.h"
#include "kernel/products.h"

namespace {

std::vector<double> randommatrix(int rows, int cols) {
  std::mt19937_64 engine(7);
  std::normal_distribution<double> normal;
  std::vector<double> m(static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols));
  for (double& x : m) x = normal(engine);
  return m;
}

// X'X of a 2n by n matrix.
std::vector<double> covariance(int n) {
  const std::vector<double> X = randommatrix(2 * n, n);
  std::vector<double> S(static_cast<std::size_t>(n * n));
  kdr::mulAtB(S.data(), X.data(), X.data(), n, n, 2 * n);
  return S;
}

void orders(benchmark::internal::Benchmark* b) {
  for (const int n : {1, 2, 3, 4, 5, 10}) b->Arg(n);
}

void syminverse(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  std::vector<double> S = covariance(n), inverse(S), work(S.size() + 3);
  for (auto _ : state) {
    benchmark::DoNotOptimize(S.data());
    benchmark::DoNotOptimize(kdr::syminverse(n, S.data(), n, inverse.data(), n, work.data()));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(syminverse)->Apply(orders);

// Square products.
void square(benchmark::State& state, decltype(&kdr::mulAB) product) {
  const int n = static_cast<int>(state.range(0));
  const std::vector<double> A = randommatrix(n, n);
  std::vector<double> C(A);
  for (auto _ : state) {
    product(C.data(), A.data(), A.data(), n, n, n);
    benchmark::ClobberMemory();
  }
}
BENCHMARK_CAPTURE(square, mulAB, kdr::mulAB)->Apply(orders);
BENCHMARK_CAPTURE(square, mulAtB, kdr::mulAtB)->Apply(orders);
BENCHMARK_CAPTURE(square, mulABt, kdr::mulABt)->Apply(orders);
BENCHMARK_CAPTURE(square, subABt, kdr::subABt)->Apply(orders);

// Matrix by vector, n by n.
void vector(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const std::vector<double> A = randommatrix(n, n), x = randommatrix(n, 1);
  std::vector<double> c(x);
  for (auto _ : state) {
    kdr::mulAB(c.data(), A.data(), x.data(), n, 1, n);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(vector)->Apply(orders);

// The cross-product X'X of 40 records.
void crossproduct(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const std::vector<double> X = randommatrix(40, n);
  std::vector<double> S(static_cast<std::size_t>(n * n));
  for (auto _ : state) {
    kdr::addAtB(S.data(), X.data(), X.data(), n, n, 40);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(crossproduct)->Apply(orders);

}  // namespace
