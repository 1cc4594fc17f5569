#include "app/fitsummary.h"

#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "core/formatted.h"
#include "core/names.h"
#include "driver/failures.h"
#include "driver/runrecord.h"
#include "report/resultsphases.h"

extern char** environ;

namespace kdr {

namespace {

// The phase that the run is for: that of an engine, else the last estimates.
const Json* mainphase() {
  const Json* found = nullptr;
  for (const char* name : {"pql", "final", "laplace6", "quadrature"})
    for (const Json& phase : documentphases())
      if (phase["phase"] == name) found = &phase;
  return found;
}

std::string cell(const Json& value, const char* format) {
  return value.is_number() ? formatted(format, value.get<double>()) : "-";
}

// Those of DDF: and ROBUST:CR2 have a fraction.
std::string degrees(const Json& value) {
  return cell(value, value.is_number() && value != std::floor(value.get<double>()) ? "%.1f" : "%.0f");
}

std::string probability(const Json& value) {
  constexpr double least = 0.001;
  if (!value.is_number()) return "-";
  return value.get<double>() < least ? "<0.001" : formatted("%.3f", value.get<double>());
}

// A name in a column of `width` characters.
std::string padded(const std::string& name, std::size_t width) {
  const std::string shown = printable(name);
  return shown + std::string(std::max(charactersof(shown), width) - charactersof(shown), ' ');
}

constexpr std::size_t leastwidth = 24, mostwidth = 60;

std::string effectname(const PreparedFit& fit, const Json& row) {
  if (row["threshold"] == true) return row["level1"];
  for (const FitNames& names : fit.fixed)
    if (row["level1"] == names.variable1 && row["level2"] == names.variable2 &&
        (row["level3"].is_null() || row["level3"] == names.variable3))
      return names.name;
  return row["level1"];
}

// The effects in the order of the formula, category by category, and thresholds behind them.
std::vector<const Json*> ordered(const PreparedFit& fit, const Json& effects) {
  const auto place = [&](const Json& row) {
    std::size_t at = 0;
    while (at < fit.fixed.size() && (row["threshold"] == true || fit.fixed[at].name != effectname(fit, row))) ++at;
    return at;
  };
  std::vector<const Json*> rows;
  for (const Json& row : effects) rows.push_back(&row);
  for (auto from = rows.begin(); from != rows.end();) {
    const auto to =
        std::find_if(from, rows.end(), [&](const Json* row) { return (*row)["category"] != (**from)["category"]; });
    std::stable_sort(from, to, [&](const Json* a, const Json* b) { return place(*a) < place(*b); });
    from = to;
  }
  return rows;
}

void fixedeffects(const PreparedFit& fit, const Json& phase) {
  const char* side = fit.request.robust && std::all_of(phase["fixed_effects"].begin(), phase["fixed_effects"].end(),
                                                       [](const Json& row) { return !row["robust"].is_null(); })
                         ? "robust"
                         : "model_based";
  if (fit.request.robust && side != std::string("robust"))
    std::printf("\nThere are no robust standard errors of these estimates.\n");
  std::size_t width = leastwidth;
  for (const Json& row : phase["fixed_effects"]) width = std::max(width, charactersof(effectname(fit, row)));
  width = std::min(width, mostwidth);
  std::printf("\n%s  %12s  %12s  %9s  %7s  %7s\n", padded("Fixed effects", width).c_str(), "estimate",
              side == std::string("robust") ? "robust SE" : "SE", "t", "df", "p");
  std::string category;
  for (const Json* effect : ordered(fit, phase["fixed_effects"])) {
    const Json& row = *effect;
    if (row["category"].is_string() && row["category"] != category)
      std::printf("Category %s\n", printable(category = row["category"]).c_str());
    const Json& test = row[side];
    const Json none;
    const auto of = [&](const char* key) -> const Json& { return test.is_null() ? none : test[key]; };
    std::printf("%s  %12s  %12s  %9s  %7s  %7s\n", padded(effectname(fit, row), width).c_str(),
                cell(row["estimate"], "%.6g").c_str(), cell(of("standard_error"), "%.6g").c_str(),
                cell(of("t"), "%.3f").c_str(), degrees(of("df")).c_str(), probability(of("p")).c_str());
  }
}

std::string randomname(const PreparedFit& fit, const Json& row) {
  std::string name;
  for (const char* level : {"level1", "level2"}) {
    if (!row[level].is_string()) continue;
    const auto found = fit.names.find(row[level].get<std::string>());
    if (found != fit.names.end()) name += (name.empty() ? "" : ":") + found->second;
  }
  if (name.empty()) name = "(Intercept)";
  return row["category"].is_string() ? row["category"].get<std::string>() + " " + name : name;
}

void variances(const PreparedFit& fit, const Json& phase) {
  std::size_t width = leastwidth;
  const std::pair<const char*, const std::string*> taus[] = {{"tau_pi", &fit.grouping2}, {"tau_beta", &fit.grouping3}};
  for (const auto& [key, units] : taus)
    if (!phase[key].is_null())
      for (const Json& row : phase[key]["rows"])
        width = std::max(width, charactersof(*units) + 2 + charactersof(randomname(fit, row)));
  width = std::min(width, mostwidth);
  std::printf("\n%s  %12s  %12s  %s\n", padded("Random effects", width).c_str(), "variance", "SD", "correlations");
  for (const auto& [key, units] : taus) {
    if (phase[key].is_null()) continue;
    const Json& tau = phase[key];
    for (std::size_t i = 0; i < tau["rows"].size(); ++i) {
      const Json& variance = tau["estimate"][i][i];
      const double value = variance.is_number() ? variance.get<double>() : 0.0;
      std::printf("%s  %12s  %12s", padded(*units + "  " + randomname(fit, tau["rows"][i]), width).c_str(),
                  cell(variance, "%.6g").c_str(), formatted("%.6g", value > 0.0 ? std::sqrt(value) : 0.0).c_str());
      for (std::size_t j = 0; j < i; ++j) std::printf("  %6s", cell(tau["correlation"][i][j], "%.3f").c_str());
      std::printf("\n");
    }
  }
  if (const Json& sigma2 = phase["sigma2"]; !sigma2.is_null() && sigma2["held"] == false)
    std::printf("%s  %12s  %12s\n", padded("residual", width).c_str(), cell(sigma2["estimate"], "%.6g").c_str(),
                formatted("%.6g", std::sqrt(std::max(
                                      0.0, sigma2["estimate"].is_number() ? sigma2["estimate"].get<double>() : 0.0)))
                    .c_str());
}

// What casts doubt on the numbers above, which the console may have told far above them.
void tellwarnings(const Json& phase) {
  bool told = phase["converged"] != false;
  std::string lines;
  for (const std::string words : phase["warnings"]) {
    told = told || words.starts_with("WARNING: ");
    for (std::size_t from = 0, end = 0; end != std::string::npos; from = end + 1) {
      end = words.find('\n', from);
      lines += printable(words.substr(from, end == std::string::npos ? end : end - from)) + "\n";
    }
  }
  if (!told) lines += "WARNING: the iterations were stopped prior to convergence.\n";
  if (!lines.empty()) std::printf("\n%s", lines.c_str());
}

// False when there is none.
bool makepage(const PreparedFit& fit) {
  std::string words[] = {fit.request.page, "--page", fit.path(".json"), "-o", fit.path(".html")};
  char* arguments[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(), words[4].data(), nullptr};
  pid_t child = 0;
  int status = -1;
  std::fflush(stdout);
  const bool done = posix_spawn(&child, fit.request.page.c_str(), nullptr, nullptr, arguments, environ) == 0 &&
                    waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  if (!done) std::printf("The page %s could not be made.\n", printable(fit.path(".html")).c_str());
  return done;
}

}  // namespace

void fitsummary(const PreparedFit& fit) {
  if (const Json* phase = mainphase()) {
    fixedeffects(fit, *phase);
    variances(fit, *phase);
    // The deviance of an engine's tables leaves a constant out that AIC and BIC have.
    Json deviance = (*phase)["deviance"];
    const Json& marginal = (*phase)["marginal_log_likelihood"];
    if (marginal.is_number()) deviance = -2.0 * marginal.get<double>();
    const char* word = marginal.is_number()     ? "-2 log-likelihood"
                       : run.control.restricted ? "REML criterion"
                                                : "Deviance";
    if (deviance.is_number())
      std::printf("\n%s %s with %s parameters, AIC %s, BIC %s. %d records, %d level-2 units%s.\n", word,
                  cell(deviance, "%.4f").c_str(), cell((*phase)["parameters"], "%.0f").c_str(),
                  cell((*phase)["aic"], "%.4f").c_str(), cell((*phase)["bic"], "%.4f").c_str(), run.records(),
                  run.mdm.nunits2, run.mdm.twolevel() ? "" : formatted(", %d level-3 units", run.mdm.nunits3).c_str());
    tellwarnings(*phase);
  }
  const bool paged = !fit.request.page.empty() && makepage(fit);
  const std::string stem = printable(fit.request.stem);
  std::printf("\nThe report is %s.txt, the results are %s.json%s.\n", stem.c_str(), stem.c_str(),
              paged ? (", the page is " + stem + ".html").c_str() : "");
  std::printf("The model is %s.kdr, the data are %s.mdm: kdr3 %s.mdm %s.kdr runs it again.\n", stem.c_str(),
              stem.c_str(), stem.c_str(), stem.c_str());
  if (!fit.request.page.empty() && !paged) stoprun(100);
}

}  // namespace kdr
