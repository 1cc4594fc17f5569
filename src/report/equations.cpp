#include "report/equations.h"

#include <string>
#include <vector>

#include "core/formatted.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "report/modelrows.h"
#include "report/stream.h"

namespace kdr {

namespace {

void linelead() { report2("\t", "&nbsp;&nbsp;&nbsp;&nbsp;"); }

// An equation goes on to a new line before its terms 5, 9 and 13, and never after that.
void breakbefore(int number, const char* textindent) {
  if (number != 5 && number != 9 && number != 13) return;
  reporttext("\n%s", textindent);
  if (run.report.html) {
    reportbreak();
    reportblank(8);
  }
}

// A symbol with its subscript: the digits, and in HTML the letters of the level behind them.
std::string quantity(const std::string& symbol, const std::string& digits, const std::string& letters) {
  if (!run.report.html) return symbol + digits;
  return symbol + "<sub><small><i>" + digits + letters + "</i></small></sub>";
}

// A variable, in HTML with the letters of its level.
std::string variable(const Name& name, const std::string& letters) {
  if (!run.report.html) return bareword(name);
  return "<i>" + bareword(name) + "</i><sub><small><i>" + letters + "</i></small></sub>";
}

std::string variable1(int v) { return variable(run.mdm.names1[v], run.sym.symsub); }
std::string variable2(int v) { return variable(run.mdm.names2[v], run.sym.symsub2); }
std::string variable3(int v) { return variable(run.mdm.names3[v], run.sym.symsub3); }

std::string coefficient1(int subscript) { return quantity(run.sym.sym1, std::to_string(subscript), run.sym.symsub2); }

// "(category)" behind the subscripts of a multinomial run.
std::string categorymark(int set) {
  std::string mark;
  if (run.model.outcome.categorical() && multinomialrun()) mark.append("(").append(categoryof(set)).append(")");
  return mark;
}

// A fixed effect, which in data of two levels is a level-2 coefficient.
std::string fixedeffect(const ModelRows& rows, std::size_t g) {
  if (!run.mdm.twolevel()) return quantity(run.sym.sym3, run.model.coef.gammasubs[g].text, "");
  const EffectRow& effect = rows.effects[g];
  return quantity(run.sym.sym2, termdigits(rows, rows.termof(effect)) + categorymark(rows.owner(effect).set), "");
}

// Level 1.

// The level-1 quantities of a non-linear model in HTML: Y, phi, lambda and eta of a record.
std::string ofrecord(const char* symbol) { return quantity(symbol, "", run.sym.symsub); }

void bernoullifamily() {
  const std::string y = ofrecord("<i>Y</i>"), p = ofrecord("<i>&#981;</i>"), eta = ofrecord("&eta;");
  const std::string b = quantity(run.sym.sym1, "", run.sym.symsub2);
  if (!run.model.outcome.counted) {
    reporttext("\tProb(Y=1|B) = P\n\n");
    reporthtml("&nbsp;&nbsp;&nbsp;&nbsp;Prob(%s=1|%s) = %s<br>\n", y.c_str(), b.c_str(), p.c_str());
  } else {
    const Name& trials = run.mdm.names1[run.model.outcome.countvariable.value_or(0)];
    reporttext("\tE(Y|B) = %s*P\n\tV(Y|B) = %s*P(1-P)\n\n", bareword(trials).c_str(), bareword(trials).c_str());
    const std::string n = variable(trials, run.sym.symsub);
    reporthtml("&nbsp;&nbsp;&nbsp;&nbsp;E(%s|%s) = %s*%s<br>\n", y.c_str(), b.c_str(), n.c_str(), p.c_str());
    reporthtml("&nbsp;&nbsp;&nbsp;&nbsp;V(%s|%s) = %s*%s(1-%s)<br>\n", y.c_str(), b.c_str(), n.c_str(), p.c_str(),
               p.c_str());
  }
  reporttext("\tlog[P/(1-P)] = ");
  reporthtml("&nbsp;&nbsp;&nbsp;&nbsp;log[%s/(1-%s)] = %s<br>\n&nbsp;&nbsp;&nbsp;&nbsp;%s = ", p.c_str(), p.c_str(),
             eta.c_str(), eta.c_str());
}

void poissonfamily() {
  const std::string y = ofrecord("<i>Y</i>"), l = ofrecord("&lambda;"), eta = ofrecord("&eta;");
  const std::string b = quantity(run.sym.sym1, "", run.sym.symsub2);
  std::string exposure;  // with its product sign, or nothing where it is constant
  if (run.model.outcome.counted) {
    const Name& name = run.mdm.names1[run.model.outcome.countvariable.value_or(0)];
    exposure = (run.report.html ? variable(name, run.sym.symsub) : bareword(name)) + "*";
  }
  reporttext("\tE(Y|B) = %sL\n\tV(Y|B) = %sL\n\n", exposure.c_str(), exposure.c_str());
  reporttext("\tlog[L] = ");
  for (const char* moment : {"E", "V"})
    reporthtml("&nbsp;&nbsp;&nbsp;&nbsp;%s(%s|%s) = %s%s<br>\n", moment, y.c_str(), b.c_str(), exposure.c_str(),
               l.c_str());
  reporthtml("&nbsp;&nbsp;&nbsp;&nbsp;log[%s] = %s<br>\n&nbsp;&nbsp;&nbsp;&nbsp;%s = ", l.c_str(), eta.c_str(),
             eta.c_str());
}

void singlelevel1(const ModelRows& rows) {
  if (run.model.outcome.family == Family::poisson) {
    poissonfamily();
  } else if (run.model.outcome.single()) {
    bernoullifamily();
  } else {
    linelead();
    report("%s = ", variable(run.model.outname, run.sym.symsub).c_str());
  }
  const char* indent = run.model.nointercept1 ? "\t    " : "\t       ";
  bool first = true;
  for (const CoefficientRow& coefficient : rows.coefficients) {
    breakbefore(coefficient.subscript, indent);
    if (!first) report("+ ");
    report("%s", coefficient1(coefficient.subscript).c_str());
    if (coefficient.variable != 0) report("*(%s)", variable1(coefficient.variable).c_str());
    report(" ");
    first = false;
  }
  if (run.model.outcome.linear() && !run.model.outcome.counted) report("+ %s", ofrecord(run.sym.syme.c_str()).c_str());
  reportbreak();
}

// Greek letters of the models with several categories, in the report's mode.
std::string probability(int k, bool cumulative) {
  const std::string category = categoryof(k);
  std::string text = run.report.html ? "<i>&#981;</i>" : "P";
  if (cumulative) text += "'";
  text += run.report.html ? "<sub><small><i>" : "(";
  text += categoryof(k);
  text += run.report.html ? "</i></small></sub>" : ")";
  return text;
}

void multinomiallevel1(const ModelRows& rows) {
  const int last = run.model.outcome.categories - 1;
  const char* given = run.report.html ? run.sym.sym1.c_str() : "B";
  const char* y = run.report.html ? "<i>Y</i>" : "Y";
  for (int k = 0; k <= last; ++k) {
    linelead();
    report("Prob[%s(%s) = 1|%s] = %s", y, categoryof(k).c_str(), given, probability(k, false).c_str());
    if (k == last) {
      report(" = 1");
      for (int other = 0; other < last; ++other) report(" - %s", probability(other, false).c_str());
    }
    reportbreak();
  }
  for (int set = 0; set < run.model.neqsets; ++set) {
    const std::string category = categoryof(set);
    reportbreak();
    linelead();
    report("log[%s/%s] = ", probability(set, false).c_str(), probability(last, false).c_str());
    bool first = true;
    for (const CoefficientRow& coefficient : rows.coefficients) {
      if (coefficient.set != set) continue;
      breakbefore(coefficient.subscript, run.model.nointercept1 ? "\t    " : "\t       ");
      if (!first) report("+ ");
      const std::string digits = std::to_string(coefficient.subscript) + "(" + category + ")";
      report("%s", quantity(given, digits, run.sym.symsub2).c_str());
      if (coefficient.variable != 0) report("*(%s)", variable1(coefficient.variable).c_str());
      report(" ");
      first = false;
    }
  }
  reportbreak();
}

void ordinallevel1(const ModelRows& rows) {
  const int last = run.model.outcome.categories - 1;
  const char* given = run.report.html ? run.sym.sym1.c_str() : "B";
  const char* r = run.report.html ? "<i>R</i>" : "R";
  for (int k = 0; k < last; ++k) {
    linelead();
    report("Prob[%s %s %s|%s]%s = %s = %s", r, k == 0 ? "=" : (run.report.html ? "&le;" : "<="), categoryof(k).c_str(),
           given, k == 0 ? " " : "", probability(k, true).c_str(), probability(0, false).c_str());
    for (int other = 1; other <= k; ++other) report(" + %s", probability(other, false).c_str());
    reportbreak();
  }
  linelead();
  report2("Prob[%s <= %s|%s] = 1.0\n\n\twhere\n\n",
          "Prob[%s &le; %s|%s] = 1.0<br>\n<br>\n&nbsp;&nbsp;&nbsp;&nbsp;where<br>\n<br>\n", r, categoryof(last).c_str(),
          given);
  for (int k = 0; k < last; ++k) {
    linelead();
    report2("%s = Prob[Y(%s) = 1|%s]\n", "%s = Prob[<i>Y</i>(%s) = 1|%s]<br>\n", probability(k, false).c_str(),
            categoryof(k).c_str(), given);
  }
  reportbreak();
  for (int k = 0; k < last; ++k) {
    linelead();
    report("log[%s/(1 - %s)] = ", probability(k, true).c_str(), probability(k, true).c_str());
    bool first = true;
    for (const CoefficientRow& coefficient : rows.coefficients) {
      if (coefficient.threshold) continue;
      breakbefore(coefficient.subscript, run.model.nointercept1 ? "\t    " : "\t       ");
      if (!first) report("+ ");
      report("%s", quantity(given, std::to_string(coefficient.subscript), run.sym.symsub2).c_str());
      if (coefficient.variable != 0) report("*(%s)", variable1(coefficient.variable).c_str());
      report(" ");
      first = false;
    }
    if (k > 0) report2("+ d(%s) ", "+ &delta;<sub><small><i>%s</i></small></sub> ", categoryof(k).c_str());
    reportbreak();
  }
}

void level1model(const ModelRows& rows) {
  report2("\nLevel-1 Model\n\n", "<h4>Level-1 Model</h4>\n");
  if (!run.model.outcome.categorical()) {
    singlelevel1(rows);
  } else if (run.model.outcome.ordinal()) {
    ordinallevel1(rows);
  } else {
    multinomiallevel1(rows);
  }
}

// Levels 2 and 3.

void level2equation(const ModelRows& rows, const CoefficientRow& coefficient, const char* indent) {
  const std::string category = categorymark(coefficient.set);
  const std::string digits = std::to_string(coefficient.subscript) + category;
  linelead();
  report("%s = ", quantity(run.sym.sym1, digits, run.sym.symsub2).c_str());
  for (int t = 0; t < coefficient.nterms; ++t) {
    const TermRow& term = rows.terms[static_cast<std::size_t>(coefficient.firstterm + t)];
    breakbefore(t, indent);
    if (t > 0) report("+ ");
    report("%s", quantity(run.sym.sym2, termdigits(rows, term) + category, run.sym.symsub3).c_str());
    if (term.variable != 0) report("*(%s)", variable2(term.variable).c_str());
    report(" ");
  }
  // An equation without terms is nothing but its random effect.
  if (coefficient.nterms == 0 || coefficient.random)
    report("%s%s", coefficient.nterms > 0 ? "+ " : "", quantity(run.sym.symr2, digits, run.sym.symsub2).c_str());
  reportbreak();
}

void level2model(const ModelRows& rows) {
  report2("\nLevel-2 Model\n\n", "<h4>Level-2 Model</h4>\n");
  const char* indent = run.model.outcome.categorical() ? "         "
                       : run.model.nointercept1        ? "\t     "
                                                       : "\t         ";
  int set = 0;
  for (const CoefficientRow& coefficient : rows.coefficients) {
    if (coefficient.threshold) continue;
    if (coefficient.set != set) reportbreak();
    set = coefficient.set;
    level2equation(rows, coefficient, indent);
  }
}

void level3equation(const ModelRows& rows, const TermRow& term) {
  const std::string category = categorymark(rows.owner(term).set);
  const std::string digits = termdigits(rows, term) + category;
  linelead();
  report("%s = ", quantity(run.sym.sym2, digits, run.sym.symsub3).c_str());
  for (int u = 0; u < term.neffects; ++u) {
    const auto g = static_cast<std::size_t>(term.firsteffect + u);
    breakbefore(u, "\t     ");
    if (u > 0) report("+ ");
    report("%s", fixedeffect(rows, g).c_str());
    if (rows.effects[g].variable != 0) report("(%s)", variable3(rows.effects[g].variable).c_str());
    report(" ");
  }
  if (term.neffects == 0 || term.random)
    report("%s%s", term.neffects > 0 ? "+ " : "", quantity(run.sym.symr3, digits, run.sym.symsub3).c_str());
  reportbreak();
}

void level3model(const ModelRows& rows) {
  report2("\n\nLevel-3 Model\n\n", "\n<h4>Level-3 Model</h4>\n");
  for (const TermRow& term : rows.terms)
    if (!rows.owner(term).threshold) level3equation(rows, term);
}

void constraintlines(const ModelRows& rows) {
  if (run.model.nconstrained == 0) return;
  reportbreak();
  for (std::size_t g = 0; g < rows.effects.size(); ++g) {
    const int group = rows.effects[g].group;
    if (group == 0 || rows.effects[g].removed) continue;
    linelead();
    report("%s", fixedeffect(rows, g).c_str());
    for (std::size_t other = g + 1; other < rows.effects.size(); ++other)
      if (rows.effects[other].group == group) report(" = %s", fixedeffect(rows, other).c_str());
    reportbreak();
  }
}

void level1variance() {
  if (!run.model.outcome.single()) return;
  const std::string scale =
      run.model.restrictions.fixsigma2 ? formatted("%g", *run.model.restrictions.fixsigma2) : run.sym.symvar1;
  const std::string p = run.report.html ? ofrecord("<i>&#981;</i>") : "P";
  const std::string l = run.report.html ? ofrecord("&lambda;") : "L";
  const std::string count =
      run.model.outcome.counted ? variable1(run.model.outcome.countvariable.value_or(0)) : std::string();
  reportbreak();
  report("Level-1 variance = ");
  if (run.model.outcome.family == Family::bernoulli) {
    report2("%s/[%s(1-%s)]\n", "%s/[%s(1-%s)]<br>\n", scale.c_str(), p.c_str(), p.c_str());
  } else if (run.model.outcome.link() == Link::logit) {
    report2("%s/[%s*%s(1-%s)]\n", "%s/[%s*%s(1-%s)]<br>\n", scale.c_str(), count.c_str(), p.c_str(), p.c_str());
  } else if (!run.model.outcome.counted) {
    report2("%s/%s\n", "%s/%s<br>\n", scale.c_str(), l.c_str());
  } else {
    report2("%s/(%s*%s)\n", "%s/(%s*%s)<br>\n", scale.c_str(), count.c_str(), l.c_str());
  }
}

}  // namespace

void setrandomsubscripts() {
  const ModelRows rows = modelrows(run.model);
  std::vector<int> pi, beta1, beta2;
  for (const CoefficientRow& coefficient : rows.coefficients)
    if (coefficient.random) pi.push_back(coefficient.subscript);
  for (const TermRow& term : rows.terms)
    if (term.random) {
      beta1.push_back(rows.owner(term).subscript);
      beta2.push_back(term.subscript);
    }
  const auto store = [](Array<int>& to, const std::vector<int>& from) {
    to.reset(from.size());
    for (std::size_t i = 0; i < from.size(); ++i) to[i] = from[i];
  };
  store(run.model.coef.pisubs, pi);
  store(run.model.coef.betasubs1, beta1);
  store(run.model.coef.betasubs2, beta2);
}

void centernotes(int n, const Array<Centering>& marks, const Array<Name>& names) {
  for (const Centering mark : {Centering::groupmean, Centering::grandmean}) {
    int found = 0;
    for (int v = 1; v <= n; ++v) found += marks[v] == mark ? 1 : 0;
    if (found == 0) continue;
    reportbreak();
    for (int v = 1; v <= n; ++v)
      if (marks[v] == mark) report("%s ", bareword(names[v]).c_str());
    report("%s been centered around the %s mean.", found == 1 ? "has" : "have",
           mark == Centering::groupmean ? "group" : "grand");
    reportbreak();
  }
}

void writeequations() {
  const ModelRows rows = modelrows(run.model);
  report2("\n\n Summary of the model specified (in equation format)\n", "<h3>Summary of the model specified</h3>\n");
  reportrule(51);
  level1model(rows);
  level2model(rows);
  if (!run.mdm.twolevel()) level3model(rows);
  setrandomsubscripts();
  centernotes(run.mdm.nvar1, run.model.center1, run.mdm.names1);
  centernotes(run.mdm.nvar2, run.model.center2, run.mdm.names2);
  centernotes(run.mdm.nvar3, run.model.center3, run.mdm.names3);
  constraintlines(rows);
  level1variance();
}

// The mixed equation.

namespace {

void mixedbreak(int blanks) {
  reportbreak();
  reportblank(blanks);
}

// "*name" for a variable that is not an intercept.
void factor1(int v) {
  if (v != 0) report("*%s", variable1(v).c_str());
}
void factor2(int v) {
  if (v != 0) report("*%s", variable2(v).c_str());
}
void factor3(int v) {
  if (v != 0) report("*%s", variable3(v).c_str());
}

// The fixed part, four records to a line. A level-2 coefficient without fixed effects takes a record's place too.
void mixedfixed(const ModelRows& rows) {
  int record = 0;
  bool first = true;
  for (const TermRow& term : rows.terms) {
    for (int u = 0; u < term.neffects; ++u, ++record) {
      const auto g = static_cast<std::size_t>(term.firsteffect + u);
      if (record != 0 && record % 4 == 0) mixedbreak(3);
      if (!first) report("+ ");
      report("%s", fixedeffect(rows, g).c_str());
      factor1(rows.owner(term).variable);
      factor2(term.variable);
      factor3(rows.effects[g].variable);
      first = false;
    }
    if (term.neffects == 0) ++record;
  }
}

// The random part of level 2; returns how many terms were written.
int mixedrandom2(const ModelRows& rows) {
  int written = 0;
  for (std::size_t i = 0; i < rows.coefficients.size(); ++i) {
    const CoefficientRow& coefficient = rows.coefficients[i];
    if (!coefficient.random) continue;
    if (i != 0 && i % 4 == 0) mixedbreak(4);
    report("+ %s", quantity(run.sym.symr2, std::to_string(coefficient.subscript), run.sym.symsub2).c_str());
    if (coefficient.variable == 0) report(" ");
    factor1(coefficient.variable);
    ++written;
  }
  return written;
}

void mixedrandom3(const ModelRows& rows) {
  for (std::size_t i = 0; i < rows.terms.size(); ++i) {
    const TermRow& term = rows.terms[i];
    if (!term.random) continue;
    if (i != 0 && i % 4 == 0) mixedbreak(4);
    report("+ %s", quantity(run.sym.symr3, termdigits(rows, term), run.sym.symsub3).c_str());
    factor1(rows.owner(term).variable);
    factor2(term.variable);
    report(" ");
  }
}

}  // namespace

void writemixedmodel() {
  if (run.model.outcome.categorical()) return;
  const ModelRows rows = modelrows(run.model);
  report2("\n\nMixed Model\n", "<h4>Mixed Model</h4>\n");
  reportblank(4);
  report("%s = ", (!run.model.outcome.single() ? variable(run.model.outname, run.sym.symsub)
                   : run.report.html           ? ofrecord("&eta;")
                                               : std::string("eta"))
                      .c_str());
  mixedfixed(rows);
  if (rows.effects.size() > 4) mixedbreak(4);
  if (mixedrandom2(rows) > 3) mixedbreak(4);
  mixedrandom3(rows);
  if (run.model.outcome.linear() && !run.model.restrictions.fixsigma2 && !run.model.outcome.counted)
    report("+ %s", ofrecord(run.sym.syme.c_str()).c_str());
  reportbreak();
}

}  // namespace kdr
