// Questions about the model itself.
#include <algorithm>
#include <cstdio>
#include <string>

#include "command/asking.h"
#include "command/categories.h"
#include "command/complete.h"
#include "command/dialogue.h"
#include "command/text.h"
#include "core/formatted.h"
#include "core/modelcounts.h"
#include "core/modelwalk.h"
#include "core/settling.h"
#include "driver/questions.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

constexpr const char* alreadychosen = "You have already chosen that variable!\n";
constexpr const char* isoutcome = " That is the outcome variable!\n";

const char* name1(int v) { return run.mdm.names1[static_cast<std::size_t>(v)].text; }
const char* name2(int v) { return run.mdm.names2[static_cast<std::size_t>(v)].text; }

// The two digits of a level-2 coefficient.
std::string subscripts(const CoefficientRow& owner, const TermRow& term) {
  return formatted("%1.1d%1.1d", owner.subscript, term.subscript);
}

bool multinomial() { return run.model.outcome.family == Family::multinomial; }

void askquadrature() {
  Control& iter = run.control;
  if (iter.agqpoints != 0) return;
  if (!askyesno("Do you want to do adaptive quadrature?")) return;
  iter.agqit = asknumber("Enter maximum number of quadrature iterations", 1, 100000);
  std::printf(
      "Enter number of points for each random effect:\n   as many as the data need         enter 0\n"
      "   first-order Laplace              enter 1\n   any other number                 3 to 198\n");
  do {
    iter.agqpoints = asknumber("Points?", 0, 198);
  } while (iter.agqpoints == 2);
  iter.agqauto = iter.agqpoints == 0;
  if (iter.agqauto) iter.agqpoints = 1;
}

// Design weights, of a run that takes them.
void askweights() {
  Model& model = run.model;
  if (model.wgtvar1 != 0 || model.wgtvar2 != 0 || model.wgtvar3 != 0) return;
  if (run.control.laplace || run.control.agqfixed) return;
  if (!askyesno("Do you want to use design weights?")) return;
  const struct {
    int& weight;
    int nvar;
    const Array<Name>& names;
  } levels[] = {{model.wgtvar1, run.mdm.nvar1, run.mdm.names1},
                {model.wgtvar2, run.mdm.nvar2, run.mdm.names2},
                {model.wgtvar3, run.mdm.nvar3, run.mdm.names3}};
  int number = 0;
  for (const auto& level : levels) {
    ++number;
    if (level.nvar == 0) continue;
    showchoices(formatted("Which level-%d variable is a weight?", number).c_str(), level.nvar, level.names, 0);
    level.weight =
        askvariable(formatted("Level-%d weight? (Enter 0 for none)", number).c_str(), 0, level.nvar, level.names);
  }
  const bool one = model.wgtvar1 != 0, two = model.wgtvar2 != 0, three = model.wgtvar3 != 0;
  if (model.rawweights || !(one || two || three)) return;
  model.rawweights = one && three && !two;
  if (model.rawweights)
    std::printf("Weights of levels 1 and 3 without those of level 2 are taken as they stand.\n");
  else
    model.rawweights = !askyesno("Are they to be brought to means of 1 (no: taken as they stand)?");
}

void asknonlinear() {
  if (run.answered.nonlin || run.answered.level1) return;
  if (!askyesno("Do you want to do a non-linear analysis?")) return;
  std::printf(
      "Enter type of non-linear analysis:\n\n\t1) Bernoulli (0 or 1)\n\t2) Binomial (count)\n"
      "\t3) Poisson  (constant exposure)\n\t4) Poisson  (variable exposure)\n\t5) Multinomial\n\t6) Ordinal\n\n");
  const int type = asknumber("type of analysis:", 1, 6);
  Model& kind = run.model;
  Control& iter = run.control;
  constexpr Outcome outcomes[] = {{Family::bernoulli},        {Family::binomial, 0, true}, {Family::poisson},
                                  {Family::poisson, 0, true}, {Family::multinomial},       {Family::ordinal}};
  kind.outcome = outcomes[type - 1];
  iter.macroit = asknumber("Enter maximum number of macro iterations:", 1, 100000);
  iter.numit = asknumber("Enter maximum number of micro iterations:", 1, 100000);
  // The file's keywords of a linear run: its iterations are asked for anew, its criterion is that of the micro ones.
  AnsweredMarks& read = run.answered;
  read.iterations = true;
  read.numit = false;
  read.stopmicro = read.stopmicro || read.stopval;
  read.stopval = false;
  if (!kind.outcome.categorical()) {
    if (!askyesno("Do you wish to allow over-dispersion at level 1?")) kind.restrictions.fixsigma2 = 1.0;
    iter.popavit = 1;
  }
  if (type == 1 && askyesno("Do you want to do the Laplace-6 iterations?")) {
    iter.laplace = true;
    iter.laplaceit = asknumber("Enter maximum number of Laplace macro iterations", 1, 100000);
  }
  askquadrature();
  askweights();
  if (variancekeeper(kind, iter) != nullptr) kind.restrictions.fixsigma2 = 1.0;
}

void askoutcome() {
  Model& kind = run.model;
  if (kind.outvar != 0) return;
  centertitle("SPECIFYING A LEVEL-1 OUTCOME VARIABLE");
  showchoices("Please specify a level-1 outcome variable", run.mdm.nvar1, run.mdm.names1, 0);
  const int outcome = askvariable("What is the outcome variable:", 1, run.mdm.nvar1, run.mdm.names1);
  if (kind.outcome.categorical() && kind.outcome.categories == 0) {
    const std::string name = leftname(run.mdm.names1[static_cast<std::size_t>(outcome)]);
    kind.outcome.categories =
        asknumber(formatted("How many categories does %s have?", name.c_str()).c_str(), 2, 1000000);
    makeequationsets();
  }
  kind.outvar = outcome;
  for (int e = 0; e < kind.neqsets; ++e) {
    run.model.use1.row(e)[outcome] = Use::outcome;
    run.model.use1.row(e)[0] = Use::predictor;
  }
  run.out.wanted1vars1[static_cast<std::size_t>(outcome)] = 1;
}

void asklevel1() {
  if (run.answered.level1) return;
  std::printf("Level-1 predictor variable specification\n");
  showchoices("Which level-1 predictors do you wish to use?", run.mdm.nvar1, run.mdm.names1, run.model.outvar);
  Use* use = run.model.use1.row(0);
  for (int n = 0; n < run.mdm.nvar1;) {
    const int v = askvariable("level-1 predictor? (Enter 0 to end)", 0, run.mdm.nvar1, run.mdm.names1);
    if (v == 0) break;
    if (use[v] != Use::none) {
      std::printf("%s", v == run.model.outvar ? isoutcome : alreadychosen);
      continue;
    }
    use[v] = Use::predictor;
    ++n;
  }
  for (int e = 1; e < run.model.neqsets; ++e)
    for (int v = 0; v < run.mdm.ncol1; ++v) run.model.use1.row(e)[v] = use[v];
}

// Once the level-1 coefficients are known.
void fixthresholds() {
  for (const CoefficientRow& coefficient : modelrows(run.model).coefficients)
    if (coefficient.threshold) run.model.fixed1.row(coefficient.set)[coefficient.place] = 1;
}

void askcountvariable() {
  if (!run.model.outcome.counted || run.answered.nonlin) return;
  const std::string prompt = formatted("\nFor the non-linear analysis, which variable indicates the %s",
                                       run.model.outcome.link() == Link::logit ? "number of trials?" : "exposure?");
  int v = askvariable(prompt.c_str(), 1, run.mdm.nvar1, run.mdm.names1);
  for (int tries = 1; run.model.use1.row(0)[v] != Use::none; ++tries) {
    std::printf("%s", alreadychosen);
    if (tries == maxtries) noproperresponse();
    v = askvariable(prompt.c_str(), 1, run.mdm.nvar1, run.mdm.names1);
  }
  run.model.outcome.countvariable = v;
  run.out.wanted1vars1[static_cast<std::size_t>(v)] = 1;
}

void askintercept1() {
  if (run.answered.level1 || run.answered.nobase) return;
  if (!askyesno("\nDo you want to set the level-1 intercept to zero in this analysis?")) return;
  run.model.nointercept1 = true;
  for (int e = 0; e < run.model.neqsets; ++e) run.model.use1.row(e)[0] = Use::none;
}

// How each variable of a level that `used` marks is to be centered. `choices` are the digits that are answers; `asked`
// says whether there is anything to ask about.
void askcentering(bool asked, const char* question, const char* explanation, const char* choices,
                  const Array<int>& used, const Array<Name>& names, Array<Centering>& marks) {
  if (!asked || !askyesno(question)) return;
  std::printf("%s", explanation);
  for (std::size_t v = 1; v < used.size(); ++v)
    if (used[v] != 0)
      marks[v] = centeringof(askletter(formatted("How do you want to center %8.8s?", names[v].text), choices));
}

// True when a variable besides the intercept is used.
bool anyvariable(const Array<int>& used) {
  return std::any_of(used.begin() + 1, used.end(), [](int mark) { return mark != 0; });
}

constexpr const char* threechoices = " Enter 0 for no centering, enter 1 for group-mean, 2 for grand-mean\n";
constexpr const char* twochoices = " Enter 0 for no centering, 2 for grand-mean\n";

void askcentering1() {
  if (run.answered.level1) return;
  Array<int> used(static_cast<std::size_t>(run.mdm.nvar1) + 1);
  for (int v = 1; v <= run.mdm.nvar1; ++v)
    used[static_cast<std::size_t>(v)] = run.model.use1.row(0)[v] == Use::predictor;
  askcentering(run.model.coef.npi > 0, "\nDo you want to center any level-1 predictors?", threechoices, "012", used,
               run.mdm.names1, run.model.center1);
}

void askcentering2() {
  if (run.answered.level2) return;
  Array<int> used(static_cast<std::size_t>(run.mdm.ncol2));
  for (const TermRow& term : modelrows(run.model).terms) used[static_cast<std::size_t>(term.variable)] = 1;
  const bool groups = !run.mdm.twolevel();
  askcentering(anyvariable(used), "\nDo you want to center any level-2 predictors?", groups ? threechoices : twochoices,
               groups ? "012" : "02", used, run.mdm.names2, run.model.center2);
}

void askcentering3() {
  if (run.answered.level3 || run.mdm.twolevel()) return;
  Array<int> used(static_cast<std::size_t>(run.mdm.ncol3));
  for (const EffectRow& effect : modelrows(run.model).effects) used[static_cast<std::size_t>(effect.variable)] = 1;
  askcentering(anyvariable(used), "Do you want to center any level-3 predictors?", twochoices, "02", used,
               run.mdm.names3, run.model.center3);
}

// Variables for a row of `width` slots, from slot `first` on; -1 copies the row `before`, if there is one. `taken` is
// a further row whose variables are no choices. Returns through `row`; noslot fills what stays free.
void askrow(const char* prompt, int nvar, const Array<Name>& names, int first, int width, const int* before,
            const int* taken, int takenwidth, int* row) {
  const auto stands = [](const int* list, int n, int v) {
    for (int s = 0; s < n && list[s] != noslot; ++s)
      if (list[s] == v) return true;
    return false;
  };
  for (int s = first; s < width;) {
    const int v = askvariable(prompt, before != nullptr ? -1 : 0, nvar, names);
    if (v == 0) return;
    if (v == -1) {
      int n = 0;
      for (int i = 0; i < width; ++i)
        if (before[i] != noslot && !stands(taken, takenwidth, before[i])) row[n++] = before[i];
      for (; n < width; ++n) row[n] = noslot;
      return;
    }
    if (stands(row, width, v) || stands(taken, takenwidth, v)) {
      std::printf("%s", alreadychosen);
      continue;
    }
    row[s++] = v;
  }
}

void saycategory(int& set, int e) {
  if (multinomial() && e != set) std::printf("For category %d:\n", e + 1);
  set = e;
}

void asklevel2() {
  if (run.answered.level2) return;
  std::printf("\n\nLevel-2 predictor variable specification\n");
  showchoices("Which level-2 variables do you wish to use?\n", run.mdm.nvar2, run.mdm.names2, 0);
  int set = -1;
  const ModelRows rows = modelrows(run.model);
  for (const CoefficientRow& coefficient : rows.coefficients) {
    if (coefficient.threshold) continue;
    saycategory(set, coefficient.set);
    int* row = run.model.terms2.row(coefficient.set, coefficient.place);
    row[0] = 0;
    std::printf("Which level-2 predictor to model %8.8s, P%d%s", name1(coefficient.variable), coefficient.subscript,
                coefficient.place == 0 ? "?\n" : " slope?\n");
    const int* before = coefficient.place > 0 ? run.model.terms2.row(coefficient.set, coefficient.place - 1) : nullptr;
    askrow(" Level-2 predictor? (Enter 0 to end)", run.mdm.nvar2, run.mdm.names2, 1, run.mdm.ncol2, before, nullptr, 0,
           row);
    for (int s = 1; s < run.mdm.ncol2 && row[s] != noslot; ++s) {
      const auto v = static_cast<std::size_t>(row[s]);
      run.out.wanted1vars2[v] = run.out.wanted2vars2[v] = 1;
    }
  }

  for (const CoefficientRow& coefficient : rows.coefficients) {
    if (coefficient.threshold) continue;
    if (!askyesno(formatted("Do you want to set the level-2 intercept to zero for %8.8s, P%d?",
                            name1(coefficient.variable), coefficient.subscript)
                      .c_str()))
      continue;
    int* row = run.model.terms2.row(coefficient.set, coefficient.place);
    for (int s = 0; s + 1 < run.mdm.ncol2; ++s) row[s] = row[s + 1];
    row[run.mdm.ncol2 - 1] = noslot;
  }
}

void askrandom2() {
  if (run.answered.level1) return;
  if (!askyesno("\n\nDo you want to constrain the variances in any of the level-2 random\n effect to zero?")) return;
  for (const CoefficientRow& coefficient : modelrows(run.model).coefficients) {
    if (coefficient.threshold) continue;
    const std::string prompt = formatted("Do you want to fix %8.8s,P%d%s", name1(coefficient.variable),
                                         coefficient.subscript, coefficient.place == 0 ? "?" : " slope?");
    run.model.fixed1.row(coefficient.set)[coefficient.place] = askyesno(prompt.c_str());
  }
}

void asklevel3() {
  if (run.mdm.twolevel()) {
    const ModelRows rows = modelrows(run.model);
    for (const TermRow& term : rows.terms)
      if (!rows.owner(term).threshold) fixatlevel3(run.model, rows.owner(term).set, term.place);
    return;
  }
  if (run.answered.level3) return;
  std::printf("\n\nLevel-3 predictor variable specification\n");
  showchoices("Which level-3 predictors do you wish to use?\n", run.mdm.nvar3, run.mdm.names3, 0);
  int set = -1;
  const ModelRows rows = modelrows(run.model);
  for (const TermRow& term : rows.terms) {
    const CoefficientRow& owner = rows.owner(term);
    if (owner.threshold) continue;
    saycategory(set, owner.set);
    int* row = run.model.terms3.row(owner.set, term.place);
    row[0] = 0;
    std::printf("Which level-3 predictors to model %8.8s/%8.8s, B%s%s", name1(owner.variable), name2(term.variable),
                subscripts(owner, term).c_str(), term.number == 0 ? "?\n" : " slope?\n");
    const int* before = term.place > 0 ? run.model.terms3.row(owner.set, term.place - 1) : nullptr;
    askrow(" Level-3 predictor? (Enter 0 to end)", run.mdm.nvar3, run.mdm.names3, 1, run.mdm.ncol3, before, nullptr, 0,
           row);
    for (int s = 1; s < run.mdm.ncol3 && row[s] != noslot; ++s) {
      const auto v = static_cast<std::size_t>(row[s]);
      run.out.wanted1vars3[v] = run.out.wanted2vars3[v] = run.out.wanted3vars3[v] = 1;
    }
  }
}

void askrandom3() {
  if (run.answered.level2 || run.mdm.twolevel()) return;
  if (!askyesno("\nDo you want to constrain the variances in any of the level-3 random\n effect to zero?")) return;
  const ModelRows rows = modelrows(run.model);
  for (const TermRow& term : rows.terms) {
    const CoefficientRow& owner = rows.owner(term);
    if (owner.threshold) continue;
    const std::string prompt =
        formatted("Do you want to fix %8.8s/%8.8s,B%s%s", name1(owner.variable), name2(term.variable),
                  subscripts(owner, term).c_str(), term.number == 0 ? "?" : " slope?");
    run.model.fixed2.row(owner.set)[term.place] = askyesno(prompt.c_str());
  }
}

void askdeletion() {
  if (run.answered.deletion || run.mdm.deletednow) return;
  if (!askyesno("Do you want to specify a set of level-1 variables as the basis for deletion?")) return;
  showchoices("Which level-1 variables do you wish to use?", run.mdm.nvar1, run.mdm.names1, run.model.outvar);
  for (int n = 1; n < run.mdm.nvar1;) {
    const int v = askvariable(" level-1 predictor? (Enter 0 to end)", 0, run.mdm.nvar1, run.mdm.names1);
    if (v == 0) return;
    if (v == run.model.outvar) {
      std::printf("%s", isoutcome);
      continue;
    }
    run.model.delete1[static_cast<std::size_t>(v) - 1] = Deletion::named;
    ++n;
  }
}

void askextra2() {
  if (run.answered.extra2) return;
  showchoices("Select the level-2 variables that you might consider for\ninclusion as predictors in subsequent models.",
              run.mdm.nvar2, run.mdm.names2, 0);
  const int* before = nullptr;
  for (const CoefficientRow& coefficient : modelrows(run.model).coefficients) {
    if (!coefficient.random) continue;
    std::printf("Which level-2 variables to model %8.8s, P%d%s", name1(coefficient.variable), coefficient.subscript,
                coefficient.place == 0 ? "?\n" : " slope?\n");
    int* row = run.model.extra2.row(coefficient.set, coefficient.place);
    askrow(" Level-2 predictor? (Enter 0 to end)", run.mdm.nvar2, run.mdm.names2, 0, maxextra, before,
           run.model.terms2.row(coefficient.set, coefficient.place), run.mdm.ncol2, row);
    before = row;
  }
}

void askextra3() {
  if (run.answered.extra3 || run.mdm.twolevel()) return;
  showchoices(
      "Select the level-3 predictor variables that you might consider for\n"
      "inclusion as predictors in subsequent models.\n",
      run.mdm.nvar3, run.mdm.names3, 0);
  const int* before = nullptr;
  const ModelRows rows = modelrows(run.model);
  for (const TermRow& term : rows.terms) {
    if (!term.random) continue;
    const CoefficientRow& owner = rows.owner(term);
    std::printf("Which level-3 variables to model %8.8s/%8.8s, B%s%s", name1(owner.variable), name2(term.variable),
                subscripts(owner, term).c_str(), term.number == 0 ? "?\n" : " slope?\n");
    int* row = run.model.extra3.row(owner.set, term.place);
    askrow(" Level-3 predictor? (Enter 0 to end)", run.mdm.nvar3, run.mdm.names3, 0, maxextra, before,
           run.model.terms3.row(owner.set, term.place), run.mdm.ncol3, row);
    before = row;
  }
}

}  // namespace

void modelquestions() {
  const AnsweredMarks& read = run.answered;
  asknonlinear();
  askoutcome();
  if (!read.wholemodel() || !read.extra2 || !read.extra3)
    centertitle(formatted("SPECIFYING AN %s MODEL\n", module).c_str());
  asklevel1();
  askcountvariable();
  askintercept1();
  fixthresholds();
  countlevel1();
  askcentering1();
  asklevel2();
  countlevel2();
  askrandom2();
  askcentering2();
  asklevel3();
  countlevel3();
  askcentering3();
  askrandom3();
  const bool features = read.hypoth && read.extra2 && read.extra3 && read.constrain && (read.lvr || multinomial());
  if (!features) centertitle("ADDITIONAL PROGRAM FEATURES");
  askdeletion();
  askextra2();
  askextra3();
  countextras(run.model);
}

}  // namespace kdr
