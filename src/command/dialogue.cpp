// Questions about constraints, hypotheses and output.
#include "command/dialogue.h"

#include <cstdio>
#include <string>
#include <vector>

#include "command/asking.h"
#include "command/complete.h"
#include "command/defaults.h"
#include "command/settle.h"
#include "command/text.h"
#include "core/formatted.h"
#include "core/modelwalk.h"
#include "driver/failures.h"
#include "driver/questions.h"
#include "driver/runrecord.h"
#include "estimate/likelihood/engines.h"

namespace kdr {

namespace {

// Numbers the groups anew in the order of their first gammas, as settleconstraints expects them.
void ordergroups(int groups) {
  std::vector<int> number(static_cast<std::size_t>(groups) + 1, 0);
  int next = 0;
  for (int& group : run.model.constraints) {
    if (group == 0) continue;
    int& mine = number[static_cast<std::size_t>(group)];
    if (mine == 0) mine = ++next;
    group = mine;
  }
}

// The symbol of a fixed effect, which in data of two levels is a level-2 coefficient.
std::string symbolof(const ModelRows& rows, std::size_t g) {
  if (run.mdm.twolevel()) return formatted("B%s", termdigits(rows, rows.termof(rows.effects[g])).c_str());
  return formatted("G%s", run.model.coef.gammasubs[g].text);
}

// Its variables and its symbol.
std::string effectname(const ModelRows& rows, std::size_t g) {
  const EffectRow& effect = rows.effects[g];
  std::string name =
      formatted("%8.8s/%8.8s", run.mdm.names1[static_cast<std::size_t>(rows.owner(effect).variable)].text,
                run.mdm.names2[static_cast<std::size_t>(rows.termof(effect).variable)].text);
  if (!run.mdm.twolevel()) name += formatted("/%8.8s", run.mdm.names3[static_cast<std::size_t>(effect.variable)].text);
  return name + ", " + symbolof(rows, g);
}

// A contrast row of hypothesis h behind the rows that stand.
void askcontrast(int h) {
  Model& model = run.model;
  const std::size_t start = model.contrasts.size();
  model.contrasts.resize(start + static_cast<std::size_t>(run.model.coef.ngamma));
  ++model.hypothesisrows[static_cast<std::size_t>(h)];
  const ModelRows rows = modelrows(run.model);
  for (std::size_t g = 0; g < rows.effects.size(); ++g) {
    const EffectRow& effect = rows.effects[g];
    if (effect.removed || rows.owner(effect).threshold) continue;
    const std::string prompt = formatted(" Enter contrast value for %s (0 to ignore)", effectname(rows, g).c_str());
    model.contrasts[start + g] = askreal(prompt.c_str(), -1000000.0, 1000000.0);
  }
}

void askhypotheses() {
  if (run.answered.gammas) return;
  if (!askyesno(" Do you wish to specify a multivariate hypothesis for the fixed effects?")) return;
  run.model.nhypotheses = true;
  for (int h = 0; h < maxhypotheses; ++h) {
    do {
      askcontrast(h);
    } while (askyesno("Do you wish to specify another contrast as part of this hypothesis?"));
    if (h + 1 == maxhypotheses || !askyesno(" Do you wish to specify another hypothesis?")) return;
  }
}

void askdeviance() {
  if (run.answered.deviance) return;
  if (!askyesno(" Do you wish to test the specification for the variance-covariance components\n"
                "against an alternative model?\n (Note: the same fixed effects,"
                "must be specified in both models)"))
    return;
  run.out.deviance = askreal("Enter the deviance statistic value", 1.0, 10000000.0);
  run.out.df = asknumber("Enter the number of variance-covariance and fixed effect parameters", 1, 10000);
}

// The part of each random coefficient in the regression.
void asklvrroles() {
  std::printf("Enter o for outcome, p for predictor, or i to ignore\n\n");
  run.out.lvrroles.reset(static_cast<std::size_t>(randomlevel2()));
  run.out.lvr = false;
  std::size_t n = 0;
  int wrong = 0;
  const ModelRows rows = modelrows(run.model);
  for (const TermRow& term : rows.terms) {
    if (!term.random) continue;
    const std::string prompt = formatted("How do you want to handle %8.8s/%8.8s?",
                                         run.mdm.names1[static_cast<std::size_t>(rows.owner(term).variable)].text,
                                         run.mdm.names2[static_cast<std::size_t>(term.variable)].text);
    std::string line;
    const CodeWord<LatentRole>* role = nullptr;
    for (;;) {
      readanswer(prompt + " ", line, Question::role);
      role = rownamed(roleletters, line.substr(0, 1));
      if (role != nullptr) break;
      std::printf("Invalid response");
      if (++wrong > maxtries) fail(14);
    }
    run.out.lvrroles[n++] = role->code;
    run.out.lvr = run.out.lvr || role->code != LatentRole::ignore;
  }
}

// What cannot be done is told here and asked again, before the answers that follow would be in vain.
void asklvr() {
  if (run.answered.lvr || (run.model.outcome.family == Family::multinomial)) return;
  for (int tries = 0; tries < maxtries; ++tries) {
    if (!askyesno("Do you want to do a latent variable regression on tau(beta)?")) return;
    if (randomlevel2() == 0) {
      std::printf("There is no tau, so lvr cannot be used!\n");
    } else if (run.control.fishertype == FisherType::none) {
      std::printf("You cannot do LVR and set fishertype:0!\n");
    } else {
      asklvrroles();
      if (!run.out.lvr || hasoutcomeandpredictor()) return;
      std::printf("%s", incompletelvr);
      run.out.lvr = false;
    }
  }
  noproperresponse();
}

// One residual file: whether it is wanted, and which variables of its level it is to carry.
bool askresidualfile(int level, int nvar, const Array<Name>& names, Array<int>& flags) {
  if (!askyesno(formatted("Do you want a level-%d residual file?", level).c_str())) return false;
  showchoices(formatted("Which level-%d variables do you wish to use?", level).c_str(), nvar, names, 0);
  const std::string prompt = formatted(" Level-%d variable? (Enter 0 to end)", level);
  for (int n = 0; n < nvar; ++n) {
    const int v = askvariable(prompt.c_str(), 0, nvar, names);
    if (v == 0) break;
    flags[static_cast<std::size_t>(v)] = 1;
  }
  return true;
}

void askresiduals() {
  bool wanted = false;
  if (!run.answered.resfil2)
    wanted = run.out.resfil2 = askresidualfile(2, run.mdm.nvar2, run.mdm.names2, run.out.wanted2vars2);
  if (!run.answered.resfil3) {
    run.out.resfil3 = askresidualfile(3, run.mdm.nvar3, run.mdm.names3, run.out.wanted3vars3);
    wanted = wanted || run.out.resfil3;
  }
  if (wanted && lastengine(run.control) && run.out.resfilof == ResidualsOf::engine &&
      !askyesno("Are they to have the random effects of the engine (no: those of PQL)?"))
    run.out.resfilof = ResidualsOf::pql;
  // A residual file of the command file has its type from there, or the usual one.
  if (!wanted || run.answered.resfiltype) return;
  std::printf(
      "Enter type of stat package you will use:\n   for SYSTAT      enter 1\n   for SAS         enter 2\n"
      "   for SPSS        enter 3\n   for Stata       enter 4\n   for Free Format enter 5\n");
  constexpr ResidualForm types[] = {ResidualForm::systat, ResidualForm::sas, ResidualForm::spss, ResidualForm::stata,
                                    ResidualForm::freeformat};
  changeresfiltype(types[asknumber("Type?", 1, 5) - 1]);
}

void asktitle() {
  if (run.answered.title) return;
  readanswer("Enter a problem title: ", run.files.title, Question::title);
  run.files.title = titlefrom(run.files.title);
}

}  // namespace

void constraintquestions() {
  if (run.answered.constrain) return;
  Array<int>& constraints = run.model.constraints;
  constraints.reset(static_cast<std::size_t>(run.model.coef.ngamma));
  const ModelRows rows = modelrows(run.model);
  int groups = 0;
  while (askyesno("Do you want to constrain any (more) of the gammas?")) {
    bool chosen = false;
    for (std::size_t g = 0; g < constraints.size(); ++g) {
      if (constraints[g] != 0 || rows.owner(rows.effects[g]).threshold) continue;
      if (!askyesno(formatted(" Do you want to constrain %s?", symbolof(rows, g).c_str()).c_str())) continue;
      constraints[g] = groups + 1;
      chosen = true;
    }
    if (chosen) ++groups;
  }
  ordergroups(groups);
}

void featurequestions() {
  if (!run.answered.hypoth && askyesno(" Do you wish to use any of the optional hypothesis testing procedures?")) {
    askhypotheses();
    askdeviance();
  }
  asklvr();
}

void outputquestions() {
  const AnsweredMarks& read = run.answered;
  if (!(read.resfil2 && read.resfil3 && read.title && read.output && read.iterations))
    centertitle("OUTPUT SPECIFICATION\n");
  askresiduals();
  if (!read.iterations) {
    run.control.numit = asknumber("How many iterations do you want to do?", 0, 10000);
    run.answered.iterations = true;
  }
  asktitle();
  settlerecord();
}

}  // namespace kdr
