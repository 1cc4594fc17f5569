// A small model set up by hand, and what the report writes about it.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "command/complete.h"
#include "core/modelcounts.h"
#include "core/names.h"
#include "driver/runrecord.h"
#include "report/equations.h"
#include "report/stream.h"
#include "report/symbols.h"

namespace kdr {

inline Array<double> arrayof(const std::vector<double>& values) {
  Array<double> array(values.size());
  for (std::size_t i = 0; i < values.size(); ++i) array[i] = values[i];
  return array;
}

// A level-2 term: its variable, its level-3 terms, whether it has a level-3 random effect.
struct TestTerm {
  int variable;
  std::vector<int> effects;
  bool random = true;
};

// A level-1 coefficient: its variable, whether it has a level-2 random effect, its terms.
struct TestCoefficient {
  int variable;
  bool random;
  std::vector<TestTerm> terms;
};

inline void setnames(Array<Name>& table, const char* intercept, const std::vector<std::string>& names) {
  table.reset(names.size() + 1);
  table[0] = paddedname(intercept);
  for (std::size_t i = 0; i < names.size(); ++i) table[i + 1] = paddedname(names[i]);
}

// A fresh run with these variables; variable 1 of level 1 is the outcome. Counts of units: 1000, 100, 20.
inline void startmodel(const std::vector<std::string>& names1, const std::vector<std::string>& names2,
                       const std::vector<std::string>& names3) {
  run = RunRecord{};
  MdmData& mdm = run.mdm;
  setnames(mdm.names1, "INTRCPT1", names1);
  setnames(mdm.names2, "INTRCPT2", names2);
  setnames(mdm.names3, "INTRCPT3", names3);
  mdm.nvar1 = static_cast<int>(names1.size());
  mdm.nvar2 = static_cast<int>(names2.size());
  mdm.nvar3 = static_cast<int>(names3.size());
  mdm.ncol1 = mdm.nvar1 + 1;
  mdm.ncol2 = mdm.nvar2 + 1;
  mdm.ncol3 = mdm.nvar3 + 1;
  mdm.maxbeta = mdm.ncol2 * mdm.ncol1;
  mdm.nunits1 = mdm.numl1rec = 1000;
  mdm.nunits2 = 100;
  mdm.nunits3 = 20;
  run.model.outvar = 1;
  run.model.outname = mdm.names1[1];
}

// Fills the equations, the same in every equation set, and the counts and labels that go with them.
inline void setmodel(const std::vector<TestCoefficient>& coefficients) {
  allocatemodel();
  Model& model = run.model;
  Coefficients& coef = run.model.coef;
  run.model.nointercept1 = coefficients.empty() || coefficients[0].variable != 0;
  int nbeta = 0;
  for (int set = 0; set < run.model.neqsets; ++set) {
    model.use1.row(set)[run.model.outvar] = Use::outcome;
    int c = 0, b = 0;
    for (const TestCoefficient& coefficient : coefficients) {
      model.use1.row(set)[coefficient.variable] = Use::predictor;
      model.fixed1.row(set)[c] = coefficient.random ? 0 : 1;
      model.nterms2.row(set)[c] = static_cast<int>(coefficient.terms.size());
      int t = 0;
      for (const TestTerm& term : coefficient.terms) {
        model.terms2.row(set, c)[t++] = term.variable;
        model.fixed2.row(set)[b] = term.random ? 0 : 1;
        model.nterms3.row(set)[b] = static_cast<int>(term.effects.size());
        for (std::size_t u = 0; u < term.effects.size(); ++u) model.terms3.row(set, b)[u] = term.effects[u];
        nbeta += term.random ? 1 : 0;
        coef.ngamma += static_cast<int>(term.effects.size());
        ++b;
      }
      coef.ntaupi += coefficient.random ? 1 : 0;
      ++c;
    }
  }
  coef.ntaubeta = nbeta;
  countextras(run.model);
  labelrandomeffects();
}

// Constraints as prepared: +k the first of group k, -k the others, which are removed. The reduced gammas' columns
// of the matrix are the first ones.
inline void setconstraints(const std::vector<int>& entries) {
  Model& model = run.model;
  const std::size_t n = entries.size();
  model.constraints.reset(n);
  model.removed.reset(n);
  model.constrainmatrix.reset(n * n);
  std::vector<std::size_t> columnofgroup(n + 1);
  std::size_t column = 0;
  for (std::size_t i = 0; i < n; ++i) {
    model.constraints[i] = std::abs(entries[i]);
    if (entries[i] < 0) {
      model.removed[i] = 1;
      ++model.nconstrained;
      model.constrainmatrix[i * n + columnofgroup[static_cast<std::size_t>(-entries[i])]] = 1.0;
    } else {
      columnofgroup[static_cast<std::size_t>(entries[i])] = column;
      model.constrainmatrix[i * n + column++] = 1.0;
    }
  }
  run.model.coef.ngamma -= model.nconstrained;
}

// A rule of the text mode.
inline std::string ruleof(std::size_t hyphens) {
  std::string rule(hyphens + 2, '-');
  rule.front() = ' ';
  rule.back() = '\n';
  return rule;
}

// What `write` puts into a report of this mode.
template <class Writer>
std::string captured(bool html, Writer write) {
  std::FILE* stream = std::tmpfile();
  run.report = ReportStream{};
  run.report.stream = stream;
  run.report.html = html;
  write();
  run.report.stream = nullptr;
  std::string text(static_cast<std::size_t>(std::ftell(stream)), '\0');
  std::rewind(stream);
  text.resize(std::fread(text.data(), 1, text.size(), stream));
  std::fclose(stream);
  return text;
}

// The same with the run's labels made for that mode first, in the state in which the result tables find them.
template <class Writer>
std::string capturedtable(bool html, Writer write) {
  return captured(html, [&] {
    setsymbols();
    makerowlabels();
    setrandomsubscripts();
    write();
  });
}

}  // namespace kdr
