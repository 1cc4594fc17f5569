// One EM sweep and one scoring step per level-2 unit, on a store of random units. Counters: nanoseconds and
// multiply-adds per level-2 unit, the latter counted by hand from the formulas in linear/posterior.h and
// linear/fisher.cpp.
#include <benchmark/benchmark.h>

#include <random>

#include "driver/runrecord.h"
#include "estimate/linear/fisher.h"
#include "estimate/linear/posterior.h"

namespace {

using namespace kdr;

constexpr int units3 = 500, perunit = 100;

// A pass over a made store: p random level-1 and b random level-2 coefficients, one fixed effect for each of the b.
const Observer observer;
const Analysis analysis{run.model, run.mdm, run.weights, run.control, observer, {}, {}, 1, nullptr};
void makepass(Pass& pass, int p, int b) {
  run = RunRecord{};
  pass.analysis = &analysis;
  run.mdm.nunits3 = units3;
  run.mdm.nunits2 = units3 * perunit;
  pass.nunits1 = run.mdm.nunits2 * 20;
  run.mdm.nvar3 = 1;
  run.mdm.level3.reset(units3);
  run.model.coef.npi = run.model.coef.ntaupi = p;
  run.model.coef.nbeta = run.model.coef.ntaubeta = run.model.coef.ngamma = b;
  pass.p = p;
  pass.npi = p;
  pass.b = pass.nbeta = pass.g = b;
  for (Array<int>* list : {&pass.design.owner3, &pass.design.reduced, &pass.design.variable3})
    list->reset(static_cast<std::size_t>(b));
  for (int i = 0; i < b; ++i) pass.design.owner3[i] = pass.design.reduced[i] = i;
  const auto size = [](int n, int m) { return static_cast<std::size_t>(n) * static_cast<std::size_t>(m); };
  pass.n1of.reset(units3);
  pass.n2of.reset(units3);
  pass.n2of.fill(perunit);
  pass.scale3.reset(units3);
  pass.scale3.fill(1.0);
  pass.sumYY.reset(units3);
  for (UnitTable<double>* table : {&pass.sumBB, &pass.dinv}) table->reset(units3, size(b, b));
  for (UnitTable<double>* table : {&pass.sumBY, &pass.vstar, &pass.vright}) table->reset(units3, size(b, 1));

  std::mt19937 rng(1);
  std::normal_distribution<double> normal;
  StoreLayout layout;
  layout.p = p;
  layout.nb = b;
  layout.nunits = static_cast<std::size_t>(run.mdm.nunits2);
  openstore(pass.store, layout);
  const int columns = std::max(p, b);
  std::vector<double> A(size(20, columns)), Y(20);
  for (int k = 0; k < units3; ++k)
    for (int j = 0; j < perunit; ++j) {
      for (double& a : A) a = normal(rng);
      for (double& y : Y) y = normal(rng);
      double* hot = pass.store.hot.append();
      pass.store.cold.append()[0] = 20;
      const auto dot = [&](int c, int d) {
        double sum = 0;
        for (int i = 0; i < 20; ++i)
          sum += A[size(i, columns) + static_cast<std::size_t>(c)] * A[size(i, columns) + static_cast<std::size_t>(d)];
        return sum;
      };
      for (int i = 0, at = 0; i < p; ++i) {
        for (int l = 0; l <= i; ++l) hot[at++] = dot(i, l);
        for (int m = 0; m < b; ++m) hot[pass.store.atBZ1 + size(m, p) + static_cast<std::size_t>(i)] = dot(m, i);
        hot[pass.store.atZ1Y + static_cast<std::size_t>(i)] = Y[static_cast<std::size_t>(i)];
      }
      for (int m = 0; m < b; ++m)
        for (int n = 0; n < b; ++n) pass.sumBB.row(k)[m * b + n] += dot(m, n);
      pass.sumYY[k] += 20;
      pass.n1of[k] += 20;
    }
  finishstore(pass.store);

  pass.est.sigma2 = 1.0;
  pass.est.gammahat.reset(static_cast<std::size_t>(b));
  pass.est.vgamma.reset(size(b, b));
  pass.est.taupi.reset(size(p, p));
  pass.est.taubeta.reset(size(b, b));
  for (int i = 0; i < p; ++i) pass.est.taupi[i * p + i] = 0.5;
  for (int i = 0; i < b; ++i) pass.est.taubeta[i * b + i] = 0.3;
}

// C^-1 by bordering, H, H Z1'B and H Z1'Y, Y'Z1 C^-1 Z1'Y, the moments of R; then a, u, u'a and u u'.
double sweepproducts(int p, int b) {
  const double inverse = p * p * p / 2.0 + p, moments = b * p * (b * p + 1) / 2.0;
  const double first = inverse + b * p * p + b * (b + 1) / 2.0 * p + b * p + p * (p + 1) + moments;
  return first + b * p + p * p + p + p * (p + 1) / 2.0;
}

// The sweep, and R, E R, G, four products and two of T^-1, two Kronecker products, two products for tr(W W).
double scoringproducts(int p, int b) {
  return sweepproducts(p, b) + b * p * p + b * b * p + p * p * b + 6.0 * p * p * p + 3.0 * p * p * p * p;
}

void counters(benchmark::State& state, double products) {
  const double units = static_cast<double>(state.iterations()) * units3 * perunit;
  state.counters["ns/unit"] =
      benchmark::Counter(units * 1e-9, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.counters["madds/unit"] = products;
}

void emsweep(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0)), b = static_cast<int>(state.range(1));
  Pass pass;
  makepass(pass, p, b);
  Array<double> S, Sb;
  double logdet = 0;
  if (scaleinverse(pass.est.taupi.data(), p, 1.0, S, logdet) +
      scaleinverse(pass.est.taubeta.data(), b, 1.0, Sb, logdet))
    return state.SkipWithError("no inverse");
  const PosteriorInput input{1.0, pass.est.gammahat.data(), S.data(), Sb.data(), nullptr, true};
  PosteriorSums sums;
  for (auto _ : state)
    if (posteriorsweep(pass, input, sums) != PosteriorResult::ok) state.SkipWithError("sweep");
  counters(state, sweepproducts(p, b));
}

void scoringstep(benchmark::State& state) {
  const int p = static_cast<int>(state.range(0)), b = static_cast<int>(state.range(1));
  Pass pass;
  makepass(pass, p, b);
  FisherWork fisher;
  makefisher(pass, fisher);
  Likelihood likelihood{0, 0};
  for (auto _ : state)
    if (!fisherfull(pass, fisher, likelihood, Scoring::asks)) state.SkipWithError("information");
  counters(state, scoringproducts(p, b));
}

// The arithmetic limit of one core: independent multiplications and additions, one double or four at a time, unfused as
// in the loops of the engine. Counter: nanoseconds per multiply-add.
using Four = double __attribute__((vector_size(32)));
template <class Real>
[[gnu::target("avx2"), gnu::optimize("fp-contract=off")]] void limit(benchmark::State& state) {
  Real sums[8] = {}, x = Real{} + 0.5;
  for (auto _ : state) {
    for (int i = 0; i < 1000; ++i)
      for (Real& sum : sums) sum = sum * x + x;
    benchmark::DoNotOptimize(sums);
  }
  const double products = static_cast<double>(state.iterations()) * 8000 * (sizeof(Real) / sizeof(double));
  state.counters["ns/madd"] =
      benchmark::Counter(products * 1e-9, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

BENCHMARK(emsweep)->Args({1, 1})->Args({2, 2})->Args({3, 3})->Args({2, 5})->Unit(benchmark::kMillisecond);
BENCHMARK(scoringstep)->Args({1, 1})->Args({2, 2})->Args({3, 3})->Args({2, 5})->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(limit, double);
BENCHMARK_TEMPLATE(limit, Four);

}  // namespace
