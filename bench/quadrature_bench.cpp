// Adaptive quadrature on made Bernoulli data, and how it fares from starts that are far off.
//
//   quadrature_bench speed [UNITS3 UNITS2 RECORDS Q POINTS THREADS]   seconds of the whole estimation and peak memory
//   quadrature_bench starts [SETS POINTS RIDGE]                       outcomes of runs from far-off starts
//   quadrature_bench prenatal FOLDER [POINTS ITERATIONS RIDGE]              the prenatal care data from their PQL
//   estimates
#include <sys/resource.h>
#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "estimate/likelihood/madestudy.h"
#include "estimate/likelihood/marks.h"

namespace {

using namespace kdr;
using namespace madestudy;
using marks::Marks;

double seconds() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }
double cpuseconds() {
  timespec spent{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &spent);
  return static_cast<double>(spent.tv_sec) + 1e-9 * static_cast<double>(spent.tv_nsec);
}
double megabytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

Parameters maketruth(int q, double tau2, double tau3) {
  std::vector<double> theta{tau2};
  if (q == 2) theta.insert(theta.end(), {0.2 * tau2, 0.5 * tau2});
  theta.insert(theta.end(), {tau3, -0.3, 0.5, 0.4, -0.6});
  return makeparameters(q, 1, theta);
}

QuadratureResult estimate(Study& study, const QuadratureSettings& settings, const Parameters& start,
                          const Adaptation& adaptation) {
  return adaptivequadrature(study.data(), settings, start, adaptation);
}

void speed(int units3, int units2, int records, int q, int points, int threads) {
  const Parameters truth = maketruth(q, 0.8, 0.5);
  Study study = makestudy(bernoulli, q, 1, drawrecords(1, units3, units2, records, truth));
  study.batchsize = 20;
  Parameters start = truth.copy();  // about where quasi-likelihood would arrive
  for (double& tau : start.taupi) tau *= 0.7;
  start.taubeta[0] *= 0.8;
  const Adaptation adaptation = posteriormodes(study, start);
  const double before = megabytes();
  QuadratureSettings settings;
  settings.points = points;
  settings.engine.iterations = 50;
  settings.engine.threads = threads;
  const double begin = seconds(), cpubegin = cpuseconds();
  const QuadratureResult result = estimate(study, settings, start, adaptation);
  const double taken = seconds() - begin, cpu = cpuseconds() - cpubegin;
  const double pairs = std::pow(points, q + 1) * units3 * units2 * records * result.fit.iteration;
  std::printf(
      "%d in %d in %d, q %d, %d points, %d threads: %.2f s (%.2f s of processor time), %d iterations (%s), %.1f ns of "
      "it per record and pair of nodes, peak memory %.0f MB (%.0f before)\n",
      units3 * units2 * records, units3 * units2, units3, q, points, threads, taken, cpu, result.fit.iteration,
      result.fit.converged ? "converged" : "not converged", 1e9 * cpu / pairs, megabytes(), before);
  std::printf("  log-likelihood %.4f, estimates", result.fit.marginal);
  for (const double value : elements(result.fit.estimates)) std::printf(" %.4f", value);
  std::printf("\n");
}

// Small units and large variances, from starts at a fifth of the variances, as quasi-likelihood leaves them at worst.
// The same maximum must be found from the values that made the data.
void starts(int sets, int points, double leastridge) {
  int same = 0, warned = 0, failed = 0, other = 0;
  for (int set = 0; set < sets; ++set) {
    const int units2 = 3 + set % 6, records = 2 + set % 5, q = 1 + (set % 10 == 9);
    const double sigma2 = 2.0 + 0.02 * set, sigma3 = 2.0 + 0.02 * (sets - set);
    const Parameters truth = maketruth(q, sigma2 * sigma2, sigma3 * sigma3);
    Study study =
        makestudy(bernoulli, q, 1, drawrecords(static_cast<unsigned>(1000 + set), 40, units2, records, truth));
    Parameters far = truth.copy();
    for (double& tau : far.taupi) tau *= 0.2;
    far.taubeta[0] *= 0.2;
    for (double& gamma : far.gamma) gamma *= 0.5;
    QuadratureSettings settings;
    settings.points = points;
    settings.engine.iterations = 100;
    settings.engine.threads = 2;
    settings.ascent.leastridge = leastridge;
    Marks told;
    told.listen(settings.engine);
    const QuadratureResult near = estimate(study, settings, truth, posteriormodes(study, truth));
    told.clear();
    const QuadratureResult result = estimate(study, settings, far, posteriormodes(study, far));
    double apart = 0.0;  // in standard errors
    const std::vector<double> a = elements(result.fit.estimates), b = elements(near.fit.estimates);
    if (result.fit.end == EngineEnd::estimated && near.fit.end == EngineEnd::estimated)
      for (std::size_t i = 0; i < a.size(); ++i)
        apart = std::max(apart, std::fabs(a[i] - b[i]) / std::sqrt(std::fabs(near.fit.covariance[i * a.size() + i])));
    const char* outcome = "same maximum";
    if (result.fit.end != EngineEnd::estimated) {
      outcome = "failed";
      ++failed;
    } else if (!result.fit.warnings.empty()) {
      outcome = "warned";
      ++warned;
    } else if (!near.fit.converged || apart > 0.02) {
      outcome = "elsewhere";
      ++other;
    } else {
      ++same;
    }
    std::printf(
        "%2d  q %d, %d units of %d, sigma %.2f %.2f: %-14s %3d iterations, log-likelihood %.4f (%.4f), %.4f se "
        "apart, taus %.3f %.3f, fall %.5f, marks %s\n",
        set, q, units2, records, sigma2, sigma3, outcome, result.fit.iteration, result.fit.marginal, near.fit.marginal,
        apart, result.fit.estimates.taupi[0], result.fit.estimates.taubeta[0], result.highest - result.fit.loglik,
        told.steps().c_str());
    for (const std::string& warning : result.fit.warnings) std::printf("    %s\n", warning.c_str());
  }
  std::printf("%d sets: %d the same maximum, %d warned, %d failed with a message, %d elsewhere\n", sets, same, warned,
              failed, other);
}

// 2,449 births of 1,558 mothers in 161 communities; ten level-1 predictors, two of the communities, intercepts random.
void prenatal(const std::string& folder, int points, int iterations, double leastridge) {
  Study study;
  study.npi = study.nbeta = 11;
  study.design.owner2.reset(11);
  study.design.owner3.reset(13);
  study.design.reduced.reset(13);
  study.design.random1.reset(1);
  for (int i = 0; i < 11; ++i) study.design.owner2[at(i)] = study.design.owner3[at(i)] = i;
  for (int i = 0; i < 13; ++i) study.design.reduced[at(i)] = i;
  std::ifstream births(folder + "/prenatal-1.dat"), communities(folder + "/prenatal-3.dat");
  std::size_t records = 0;
  int community = 0, mother = 0;
  std::vector<double> y, x;
  std::vector<int> owner;  // mother, within the community
  int birthcommunity = 0;
  bool more = static_cast<bool>(births >> birthcommunity);
  double pcind81 = 0.0, ssdist = 0.0;
  while (communities >> community >> pcind81 >> ssdist) {
    Level3Records unit;
    y.clear();
    x.clear();
    owner.clear();
    int last = -1;
    while (more && birthcommunity == community) {
      births >> mother;
      if (mother != last) owner.push_back(static_cast<int>(y.size()));
      last = mother;
      double value = 0.0;
      births >> value;
      y.push_back(value);
      x.push_back(1.0);
      for (int i = 0; i < 10; ++i) {
        births >> value;
        x.push_back(value);
      }
      more = static_cast<bool>(births >> birthcommunity);
    }
    unit.k = static_cast<int>(study.units.size());
    unit.firstunit = at(study.units2);
    unit.units = static_cast<int>(owner.size());
    unit.start.reset(owner.size() + 1);
    for (std::size_t j = 0; j < owner.size(); ++j) unit.start[j] = at(owner[j]);
    unit.start[owner.size()] = y.size();
    unit.x.reset(x.size());
    std::copy(x.begin(), x.end(), unit.x.begin());
    unit.y.reset(y.size());
    std::copy(y.begin(), y.end(), unit.y.begin());
    unit.w2.reset(owner.size() * 11);
    unit.w2.fill(1.0);
    unit.w3.reset(13);
    unit.w3.fill(1.0);
    unit.w3[11] = pcind81;
    unit.w3[12] = ssdist;
    records += y.size();
    study.units2 += unit.units;
    study.units.push_back(std::move(unit));
  }
  for (std::size_t f = 11; f < 13; ++f) study.design.owner3[f] = 0;
  const Parameters start =
      makeparameters(1, 1,
                     {1.536006, 0.806352, 1.441312, -0.210094, 0.362351, -0.114839, -0.303300, -0.382229, -1.395071,
                      -0.734717, 0.521075, 1.536147, -0.712886, -1.116331, -0.016384});
  QuadratureSettings settings;
  settings.points = points;
  settings.engine.iterations = iterations;
  settings.engine.threads = 2;
  settings.ascent.leastridge = leastridge;
  settings.engine.tell = [](const EngineEvent& event) {
    if (event.kind == EngineEvent::Kind::iteration) std::printf("%d %E\n", event.number, event.loglik);
  };
  const double begin = cpuseconds();
  const QuadratureResult result = estimate(study, settings, start, posteriormodes(study, start));
  std::printf("%zu births, %d mothers, %zu communities, %d points: %d iterations, %.2f s of processor time\n", records,
              study.units2, study.units.size(), points, result.fit.iteration, cpuseconds() - begin);
  for (const std::string& warning : result.fit.warnings) std::printf("%s\n", warning.c_str());
  const std::vector<double> found = elements(result.fit.estimates);
  std::printf("marginal log-likelihood %.4f\n", result.fit.marginal);
  for (std::size_t i = 0; i < found.size(); ++i)
    std::printf("%.4f (%.4f) ", found[i],
                result.fit.end == EngineEnd::estimated ? std::sqrt(result.fit.covariance[i * found.size() + i]) : 0.0);
  std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  const auto number = [&](int i, int otherwise) { return argc > i ? std::atoi(argv[i]) : otherwise; };
  if (argc > 1 && std::strcmp(argv[1], "starts") == 0) {
    starts(number(2, 50), number(3, 11), argc > 4 ? std::atof(argv[4]) : 1.0);
  } else if (argc > 2 && std::strcmp(argv[1], "prenatal") == 0) {
    prenatal(argv[2], number(3, 15), number(4, 200), argc > 5 ? std::atof(argv[5]) : 1.0);
  } else {
    speed(number(2, 200), number(3, 50), number(4, 10), number(5, 1), number(6, 5), number(7, 2));
  }
}
