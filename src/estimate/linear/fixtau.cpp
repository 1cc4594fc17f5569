#include "estimate/linear/fixtau.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "data/scratch.h"
#include "driver/failures.h"
#include "driver/questions.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "estimate/linear/usable.h"
#include "kernel/decompositions.h"
#include "kernel/matrix.h"
#include "kernel/sizes.h"
#include "report/matrixtables.h"
#include "report/startvaluesfile.h"

namespace kdr {

namespace {

bool negativediagonal(const double* t, int n) {
  for (int i = 0; i < n; ++i)
    if (t[i * n + i] < 0.0) return true;
  return false;
}

// The tau at hand and what constrains it.
struct Repair {
  double* t;
  int n;
  const Array<double>& moments;
  Tau which;
  const Array<double>* est;  // null without fixed elements
  const Array<int>* codes;   // null without equality groups
  int rounds = 0;            // failed tests of choice 1

  [[nodiscard]] bool pi() const { return which == Tau::pi; }
  [[nodiscard]] bool fixedat(int i, int j) const { return est != nullptr && (*est)[i * n + j] != missingcode; }
  [[nodiscard]] bool equalat(int i, int j) const {
    return codes != nullptr && (*codes)[i >= j ? packedsize(i) + at(j) : packedsize(j) + at(i)] != 0;
  }
  [[nodiscard]] bool freeat(int i, int j) const { return !fixedat(i, j) && !equalat(i, j); }
  void set(int i, int j, double value) const { t[i * n + j] = t[j * n + i] = value; }
};

void showtau(const Repair& repair) {
  if (!reportisstdout()) std::printf(repair.pi() ? "\n Tau(pi)(0)\n" : "\n Tau(beta)(0)\n");
  for (int i = 0; i < repair.n; ++i) {
    const Name& label = repair.pi() ? run.model.coef.pinames[i] : run.model.coef.betanames1[i];
    std::printf(" %.9s ", label.text);
    for (int j = 0; j < repair.n; ++j) std::printf("%12.5f ", repair.t[i * repair.n + j]);
    std::printf("\n");
  }
  std::printf("\n");
}

int askchoice() {
  return asknumber(
      "Do you wish to:\n   Set all off diagonal elements to 0?  Enter 1.\n   Manually reset values?               "
      "Enter "
      "2.\n   Automatic fixup?                     Enter 3.\n   Quit?                                Enter 4.\n   Your "
      "choice = ",
      1, 4);
}

// Reads a new value into `value`: an empty line leaves it, a line that does not start a number is asked again.
bool askvalue(const char* prompt, double& value) {
  std::string line;
  for (int tries = 0; tries < maxtries; ++tries) {
    if (!readanswer(prompt, line, Question::unchanged)) continue;  // the end of input is no answer
    if (line.find_first_not_of(" \t") == std::string::npos) return false;
    char* end = nullptr;
    const double number = std::strtod(line.c_str(), &end);
    if (end != line.c_str() && std::isfinite(number)) {
      value = number;
      return true;
    }
  }
  noproperresponse();
}

void resetelements(const Repair& repair) {
  for (int i = 0; i < repair.n; ++i)
    for (int j = 0; j <= i; ++j) {
      if (repair.fixedat(i, j)) {
        std::printf("Tau(%d,%d) fixed by esttau\n", i, j);
      } else if (repair.equalat(i, j)) {
        std::printf("Tau(%d,%d) constrained by contau\n", i, j);
      } else {
        double value = repair.t[i * repair.n + j];
        std::printf("The current value of Tau(%d,%d) is %f\n", i, j, value);
        char prompt[80];
        std::snprintf(prompt, sizeof prompt, "Reset Tau(%d,%d) to (hit return to leave unchanged) ", i, j);
        if (askvalue(prompt, value)) repair.set(i, j, value);
      }
    }
}

void resetgammas(double& sigma2) {
  if (askyesno("Do you want to change the gammas?")) {
    for (int i = 0; i < run.model.coef.ngamma; ++i) {
      const auto show = [](const char* format, const Label& label) {
        std::string text = label.text;
        text.erase(text.find_last_not_of(' ') + 1);
        if (!text.empty()) std::printf("%s%s\n", format, text.c_str());
        return text;
      };
      show(" For ", run.model.coef.gammanames1[i]);
      show("    For ", run.model.coef.gammanames2[i]);
      std::printf("The current value of %s is %f\n", run.model.coef.gammanames3[i].text, run.est.gammahat[i]);
      askvalue("Reset gamma to (hit return to leave unchanged) ", run.est.gammahat[i]);
    }
  }
  std::printf("Sigma(0)_squared = %f\n", sigma2);
  if (askyesno("Would you like to change it? ") && askvalue("Enter new value for sigma ", sigma2))
    std::printf("New sigma(0)_squared = %f\n", sigma2);
}

void clearfreeoffdiagonals(const Repair& repair) {
  for (int i = 0; i < repair.n; ++i)
    for (int j = 0; j < i; ++j)
      if (repair.freeat(i, j)) repair.set(i, j, 0.0);
}

void diagonalise(const Repair& repair) {
  if (run.model.restrictions.diagtaupi || run.model.restrictions.diagtaubeta) cleardiagonaloff(repair.t, repair.n);
}

// The automatic fix-up: lifts non-positive variances, shrinks unit correlations, and as a last resort takes a fifth of
// the moments as variances.
bool automaticfixup(const Repair& repair) {
  constexpr double share = 0.2, shrink = 0.7;
  constexpr int maxshrinks = 50;
  double* t = repair.t;
  const int n = repair.n;
  if (negativediagonal(t, n))
    for (int i = 0; i < n; ++i)
      if (repair.freeat(i, i) && t[i * n + i] <= 0.0) t[i * n + i] = share * repair.moments[i * n + i];
  for (int round = 0; round < maxshrinks && hasunitcorrelation(n, t, n); ++round)
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < i; ++j)
        if (repair.freeat(i, j) && std::fabs(t[i * n + j]) / std::sqrt(t[i * n + i] * t[j * n + j]) >= 1.0)
          repair.set(i, j, t[i * n + j] * shrink);
  diagonalise(repair);
  if (usablecovariance(t, n)) return true;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j)
      if (repair.freeat(i, j)) repair.set(i, j, i == j ? share * repair.moments[i * n + i] : 0.0);
  diagonalise(repair);
  if (usablecovariance(t, n)) return true;
  if (repair.codes == nullptr) return false;
  // Elements held equal are left alone so far; now they start from their moments too, at their common value.
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j)
      if (!repair.fixedat(i, j)) repair.set(i, j, i == j ? share * repair.moments[i * n + i] : 0.0);
  applyequal(n, t, *repair.codes);
  diagonalise(repair);
  return usablecovariance(t, n);
}

[[noreturn]] void nofixup(const Repair& repair) {
  std::printf(repair.pi() ? "Unable to compute Tau(pi)(0)\n" : "Unable to compute Tau(beta)(0)\n");
  tautable(repair.which, MatrixTitle::plain, true, repair.n, repair.t);
  if (havestartvalues()) std::printf("\nPlease check your starting value file!\n");
  stoprun(100);
}

}  // namespace

void applyfixed(double* t, int n, const Array<double>& est) {
  for (int i = 0; i < n * n; ++i)
    if (est[i] != missingcode) t[i] = est[i];
}

void applyequal(int n, double* t, const Array<int>& codes) {
  const std::size_t elements = packedsize(n);
  Array<double> packed(elements), level(elements);
  pack(n, t, packed.data());
  for (std::size_t e = 0; e < elements; ++e) {
    level[e] = packed[e];
    if (codes[e] == 0) continue;
    double sum = 0.0;
    int members = 0;
    for (std::size_t f = 0; f < elements; ++f)
      if (std::abs(codes[f]) == std::abs(codes[e])) {
        sum += packed[f];
        ++members;
      }
    level[e] = sum / members;
  }
  unpack(n, level.data(), t);
}

void applytaupi(double* taupi) {
  const int p = run.model.coef.ntaupi;
  if (run.model.restrictions.haveesttau2) applyfixed(taupi, p, run.model.restrictions.esttau2);
  if (run.model.restrictions.havecontau2) applyequal(p, taupi, run.model.restrictions.contau2);
  if (run.model.restrictions.diagtaupi) cleardiagonaloff(taupi, p);
}

void applytaubeta(double* taubeta) {
  const int b = run.model.coef.ntaubeta;
  if (run.model.restrictions.haveesttau3) applyfixed(taubeta, b, run.model.restrictions.esttau3);
  if (run.model.restrictions.havecontau3) applyequal(b, taubeta, run.model.restrictions.contau3);
  if (run.model.restrictions.diagtaubeta) cleardiagonaloff(taubeta, b);
}

void fixtau(double* t, int n, const Array<double>& moments, int code, double& sigma2, Tau which) {
  const bool pi = which == Tau::pi;
  const Restrictions& held = run.model.restrictions;
  Repair repair{t, n, moments, which, nullptr, nullptr};
  if (pi ? held.haveesttau2 : held.haveesttau3) repair.est = pi ? &held.esttau2 : &held.esttau3;
  if (pi ? held.havecontau2 : held.havecontau3) repair.codes = pi ? &held.contau2 : &held.contau3;

  const bool standing = code == 1 || code == 3 || code == 4;
  if (!standing) showtau(repair);
  int choice = standing ? code : askchoice();
  for (;;) {
    switch (choice) {
      case 1:
        clearfreeoffdiagonals(repair);
        if (usablecovariance(t, n)) return;
        ++repair.rounds;
        break;
      case 2:
        resetelements(repair);
        if (usablecovariance(t, n)) return resetgammas(sigma2);
        break;
      case 3:
        if (constexpr int maxrounds = 100; repair.rounds >= maxrounds) {
          report("Unable to generate a good tau(%s", pi ? "pi)\n" : "beta)\n");
          stoprun(100);
        }
        if (automaticfixup(repair)) return;
        nofixup(repair);
      default:
        report("fixtau set to 4, so no correction to tau made. Unable to continue.\n");
        stoprun(100);
    }
    choice = askchoice();
  }
}

}  // namespace kdr
