// Maximum likelihood by quadrature on made Bernoulli data, and how it fares from starts that are far off.
//
//   quadrature_bench speed [UNITS3 UNITS2 RECORDS Q POINTS THREADS]   seconds without and with the check of the points,
//                                                                     of 0 points (AUTO) the search; peak memory
//   quadrature_bench starts [SETS POINTS]                             outcomes of runs from far-off starts
#include <sys/resource.h>
#include <time.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "estimate/likelihood/madestudy.h"
#include "estimate/quadrature/movingquadrature.h"

namespace {

using namespace kdr;
using namespace madestudy;

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

// All units at once, without a copy.
RecordSource sourceof(Study& study) {
  return {&study, [](void* state) { static_cast<Study*>(state)->position = 0; },
          [](void* state) -> const std::vector<Level3Records>& {
            Study& made = *static_cast<Study*>(state);
            return made.position++ == 0 ? made.units : made.batch;
          }};
}

MovingResult estimate(Study& study, int points, bool check, int threads, const Parameters& start) {
  RecordSource source = sourceof(study);
  MovingSettings settings;
  settings.outcome = study.outcome.family;
  settings.points = points;
  settings.check = check;
  settings.threads = threads;
  return movingquadrature(settings, study.npi, study.nbeta, study.design, source, start, {});
}

void speed(int units3, int units2, int records, int q, int points, int threads) {
  const Parameters truth = maketruth(q, 0.8, 0.5);
  Study study = makestudy(bernoulli, q, 1, drawrecords(1, units3, units2, records, truth));
  Parameters start = truth.copy();  // about where quasi-likelihood would arrive
  for (double& tau : start.taupi) tau *= 0.7;
  start.taubeta[0] *= 0.8;
  const double before = megabytes();
  for (const bool check : {false, true}) {
    if (check && points < 2) continue;
    const double begin = seconds(), cpubegin = cpuseconds();
    const MovingResult result = estimate(study, points, check, threads, start);
    const double taken = seconds() - begin, cpu = cpuseconds() - cpubegin;
    const double total = static_cast<double>(units3) * units2 * records;
    std::printf(
        "%.0f in %d in %d, q %d, %d points%s, %d threads: %.3f s (%.3f s of processor time), %d iterations, %d "
        "evaluations",
        total, units3 * units2, units3, q, result.points, check ? " and their check" : "", threads, taken, cpu,
        result.iterations, result.evaluations);
    if (!check && points > 1)
      std::printf(", %.2f ns of it per record and pair of nodes in an evaluation",
                  1e9 * cpu / (std::pow(points, q + 1) * total * result.evaluations));
    std::printf(", peak memory %.0f MB (%.0f before)\n  log-likelihood %.4f, estimates", megabytes(), before,
                result.loglikelihood);
    for (const double value : elements(result.parameters)) std::printf(" %.4f", value);
    std::printf("\n");
    for (const std::string& warning : result.warnings) std::printf("  %s\n", warning.c_str());
  }
}

// Small units and large variances, from starts at a fifth of the variances, as quasi-likelihood leaves them at worst.
// The same maximum must be found from the values that made the data.
void starts(int sets, int points) {
  int same = 0, told = 0, failed = 0, elsewhere = 0;
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
    const MovingResult near = estimate(study, points, false, 2, truth), result = estimate(study, points, false, 2, far);
    double apart = 0.0;  // in standard errors
    if (result.usable && near.usable) {
      const std::vector<double> a = elements(result.parameters), b = elements(near.parameters);
      for (std::size_t i = 0; i < a.size(); ++i)
        if (const double variance = near.covariance[i * a.size() + i]; variance > 0.0)
          apart = std::max(apart, std::fabs(a[i] - b[i]) / std::sqrt(variance));
    }
    const char* outcome = "same maximum";
    if (!result.usable) {
      outcome = "failed";
      ++failed;
    } else if (result.end != MovingEnd::converged) {
      outcome = "told";
      ++told;
    } else if (apart > 0.02 || near.end != MovingEnd::converged) {
      outcome = "elsewhere";
      ++elsewhere;
    } else {
      ++same;
    }
    std::printf(
        "%2d  q %d, %d units of %d, sigma %.2f %.2f: %-12s %3d iterations, log-likelihood %.4f (%.4f), %.4f se apart\n",
        set, q, units2, records, sigma2, sigma3, outcome, result.iterations, result.loglikelihood, near.loglikelihood,
        apart);
    for (const std::string& warning : result.warnings) std::printf("    %s\n", warning.c_str());
  }
  std::printf("%d sets: %d the same maximum, %d with a warning, %d failed with a message, %d elsewhere\n", sets, same,
              told, failed, elsewhere);
}

}  // namespace

int main(int argc, char** argv) {
  const auto number = [&](int i, int otherwise) { return argc > i ? std::atoi(argv[i]) : otherwise; };
  if (argc > 1 && std::strcmp(argv[1], "starts") == 0) {
    starts(number(2, 50), number(3, 11));
  } else {
    speed(number(2, 200), number(3, 50), number(4, 10), number(5, 1), number(6, 5), number(7, 2));
  }
}
