#include "report/intervaltables.h"

#include <cmath>
#include <utility>

#include "core/formatted.h"
#include "core/modelwalk.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "kernel/sizes.h"
#include "report/modelrows.h"
#include "report/modelstatistics.h"
#include "report/stream.h"
#include "report/symbols.h"

namespace kdr {

namespace {

constexpr int labelwidth = 34, columnwidth = 26;

std::string bound(double value) { return std::isfinite(value) ? fixedpoint(value, 12, 5) : "           ?"; }

// Both bounds with `between` between them.
std::string cell(const Interval& interval, const char* between) {
  return interval.known ? bound(interval.low) + between + bound(interval.high)
                        : formatted("%12s%s%12s", "-", between, "-");
}

// The head of an interval over its two cells in HTML: what stands before and behind its blanks.
void htmlhead(const std::string& column) {
  const std::size_t gap = column.find("  ");
  for (const std::string& part : {column.substr(0, gap), column.substr(column.find_last_of(' ') + 1)})
    report("<td align=right %s>%s</td>", stylerule, part.c_str());
}

// Names of variables as they stand in the data: all of an effect's, intercepts behind others left out.
std::string joined(int level1, int level2, int level3, int set) {
  std::string name;
  const auto add = [&](const Array<Name>& names, int variable) {
    if (variable != 0) name += formatted("%s%s", name.empty() ? "" : ":", bareword(names[variable]).c_str());
  };
  add(run.mdm.names1, level1);
  add(run.mdm.names2, level2);
  add(run.mdm.names3, level3);
  if (name.empty()) name.append("INTRCPT");
  return multinomialrun() ? formatted("%s(%s)", name.c_str(), categoryof(set).c_str()) : name;
}

}  // namespace

void intervaltable(const char* heading, const std::vector<std::string>& columns, const std::vector<IntervalRow>& rows) {
  reporttext("\n\n %s:\n", heading);
  reporthtml("\n<h4>%s</h4>\n", heading);
  const int width = labelwidth + columnwidth * static_cast<int>(columns.size());
  if (run.report.html) {
    opentable();
    report("<td %s>&nbsp;</td>", stylerule);
    for (const std::string& column : columns) htmlhead(column);
    report("</tr>\n<tbody>\n");
  } else {
    reportrule(width);
    report(" %-*s", labelwidth - 1, "");
    for (const std::string& column : columns) report("%*s", columnwidth, column.c_str());
    report("\n");
    reportrule(width);
  }
  for (const IntervalRow& row : rows) {
    reporttext(" %-*s", labelwidth - 1, row.label.c_str());
    reporthtml("<tr><td %s>%s</td>", styleplain, row.label.c_str());
    for (const Interval& interval : row.intervals) {
      reporttext(" %s", cell(interval, " ").c_str());
      const std::string between = formatted("</td><td align=right %s>", styleplain);
      reporthtml("<td align=right %s>%s</td>", styleplain, cell(interval, between.c_str()).c_str());
    }
    reporttext("\n");
    reporthtml("</tr>\n");
  }
  reportrule(width);
  reporthtml("</tbody></table>\n");
}

std::vector<std::string> effectlabels() {
  const ModelRows rows = modelrows(run.model);
  std::vector<std::string> labels;
  for (const EffectRow& effect : rows.effects)
    if (!effect.removed) {
      const CoefficientRow& owner = rows.owner(effect);
      labels.push_back(joined(owner.variable, rows.termof(effect).variable, effect.variable, owner.set));
    }
  return labels;
}

std::vector<std::string> taulabels(Tau which) {
  const ModelRows rows = modelrows(run.model);
  std::vector<std::string> labels;
  if (which == Tau::pi) {
    for (const CoefficientRow& row : rows.coefficients)
      if (row.random) labels.push_back(joined(row.variable, 0, 0, row.set));
  } else {
    for (const TermRow& row : rows.terms)
      if (row.random) labels.push_back(joined(rows.owner(row).variable, row.variable, 0, rows.owner(row).set));
  }
  return labels;
}

namespace {

Interval root(const Interval& variance) {
  return {variance.known, variance.low < 0.0 ? 0.0 : std::sqrt(variance.low), std::sqrt(variance.high)};
}

// A row with the interval that each part has.
using Parts = std::vector<const ProfileIntervals*>;
template <class Of>
IntervalRow rowof(std::string label, const Parts& parts, Of of) {
  IntervalRow row{std::move(label), {}};
  for (const ProfileIntervals* part : parts) row.intervals.push_back(of(*part));
  return row;
}

void taurows(const Parts& parts, Tau which, std::vector<IntervalRow>& rows) {
  const std::vector<std::string> labels = taulabels(which);
  const char* level = which == Tau::pi ? "Level 2" : "Level 3";
  std::size_t pair = 0;
  for (std::size_t i = 0; i < labels.size(); ++i) {
    const auto variance = [&](const ProfileIntervals& part) { return part.variances.variances(which)[i]; };
    rows.push_back(rowof(formatted("%s, variance: %s", level, labels[i].c_str()), parts, variance));
    rows.push_back(rowof(formatted("%s, std. dev.: %s", level, labels[i].c_str()), parts,
                         [&](const ProfileIntervals& part) { return root(variance(part)); }));
    for (std::size_t j = 0; j < i; ++j, ++pair)
      rows.push_back(rowof(formatted("%s, corr.: %s, %s", level, labels[i].c_str(), labels[j].c_str()), parts,
                           [&](const ProfileIntervals& part) { return part.variances.correlations(which)[pair]; }));
  }
}

std::vector<IntervalRow> rowsof(const Parts& parts, bool effects) {
  std::vector<IntervalRow> rows;
  const std::vector<std::string> labels = effectlabels();
  for (std::size_t i = 0; effects && i < labels.size(); ++i)
    rows.push_back(rowof(labels[i], parts, [i](const ProfileIntervals& part) {
      return i < part.effects.size() ? part.effects[i] : Interval{};
    }));
  const auto sigma2 = [](const ProfileIntervals& part) { return part.variances.sigma2; };
  if (sigma2(*parts[0]).known) {
    rows.push_back(rowof("Level 1, variance", parts, sigma2));
    rows.push_back(
        rowof("Level 1, std. dev.", parts, [&](const ProfileIntervals& part) { return root(sigma2(part)); }));
  }
  taurows(parts, Tau::pi, rows);
  taurows(parts, Tau::beta, rows);
  if (!parts[0]->intraclass) return rows;
  rows.push_back(
      rowof("Correlation in a level-2 unit", parts, [](const ProfileIntervals& part) { return part.samelevel2; }));
  if (run.mdm.twolevel()) return rows;
  rows.push_back(
      rowof("Correlation in a level-3 unit", parts, [](const ProfileIntervals& part) { return part.samelevel3; }));
  return rows;
}

}  // namespace

void profiletable(const ProfileIntervals& profile) {
  if (!profile.made) return;
  intervaltable("95% intervals by the profile of the likelihood", {"lower        upper"},
                rowsof({&profile}, !profile.effects.empty()));
}

void sharestable(const VarianceShares& shares) {
  if (!shares.made) return;
  reporttext("\n\n Shares of variance:\n");
  reporthtml("\n<h4>Shares of variance</h4>\n");
  reportrule(60);
  const auto line = [](const char* label, double value) {
    reportline(" %-40s %s", label, fixedpoint(value, 12, 5).c_str());
  };
  line("Variance of the fixed part", shares.fixed);
  line("Variance at level 1", shares.level1);
  line("Variance at level 2", shares.level2);
  const bool third = !run.mdm.twolevel();
  if (third) line("Variance at level 3", shares.level3);
  line("R squared, marginal", shares.marginal);
  line("R squared, conditional", shares.conditional);
  line("Correlation in a level-2 unit", shares.same2);
  if (third) line("Correlation in a level-3 unit", shares.same3);
  if (shares.response) line("... of outcomes, in a level-2 unit", shares.responsesame2);
  if (shares.response && third) line("... of outcomes, in a level-3 unit", shares.responsesame3);
  line("Design effect of a mean", shares.designeffect);
  line("Effective number of records", shares.effective);
  if (shares.against) {
    line("Less variance at level 1 than null model", shares.explained1);
    line("Less variance at level 2", shares.explained2);
    if (third) line("Less variance at level 3", shares.explained3);
  }
  reportrule(60);
}

std::string bootstrapwords(const BootstrapResults& results) {
  std::string words = formatted("%d bootstrap replicates %s (seed %llu).", results.tried,
                                !results.cases       ? "drawn from the fitted model"
                                : run.mdm.twolevel() ? "of level-2 units drawn with replacement"
                                                     : "of level-3 units drawn with replacement",
                                static_cast<unsigned long long>(results.seed));
  if (results.tried < results.asked) words += formatted(" It was stopped before the %d asked for.", results.asked);
  words += results.failed == 0 ? std::string(" All fits converged.")
                               : formatted(" %d fits (%.1f%%) have failed or not converged, and are left out.",
                                           results.failed, 100.0 * results.failed / results.tried);
  return words;
}

void bootstraptable(const BootstrapResults& results) {
  intervaltable("95% bootstrap intervals", {"percentile: lower   upper", "basic: lower        upper"},
                rowsof({&results.percentile, &results.basic}, true));
  sentences(bootstrapwords(results));
}

}  // namespace kdr
