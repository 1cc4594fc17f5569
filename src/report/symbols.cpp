#include "report/symbols.h"

#include <algorithm>
#include <cstring>

#include "driver/runrecord.h"
#include "report/stream.h"

namespace kdr {

namespace {

// One set of letters, of an ordinary or growth model or of a measurement model, in one mode.
struct Letters {
  const char *sym1, *sym2, *sym3, *syme, *symr2, *symr3, *symvar1, *symvar2, *symvar3;
};

constexpr Letters ordinary[2] = {{"P", "B", "G", "e", "r", "u", "sigma^2", "tau(pi)", "tau(beta)"},
                                 {"<i>&pi;</i>", "<i>&beta;</i>", "<i>&gamma;</i>", "<i>e</i>", "<i>r</i>", "<i>u</i>",
                                  "&sigma;<sup><small>2</small></sup>", "&tau;<sub><small>&pi;</small></sub>",
                                  "&tau;<sub><small>&beta;</small></sub>"}};
constexpr Letters measurement[2] = {
    {"Psi", "P", "B", "eps", "e", "r", "sigma^2(epsilon)", "sigma^2(e)", "tau(pi)"},
    {"<i>&psi;</i>", "<i>&pi;</i>", "<i>&beta;</i>", "<i>&epsilon;</i>", "<i>e</i>", "<i>r</i>",
     "&sigma;<sup><small>2</small></sup><sub><small>&epsilon;</small></sub>",
     "&sigma;<sup><small>2</small></sup><sub><small>e</small></sub>", "&tau;<sub><small>&pi;</small></sub>"}};

struct TypeLetters {
  bool measured;  // level 1 is a measurement model
  const char* subscripts;
};
// By MdmType. Records of data of two levels have no k.
constexpr TypeLetters typeletters[] = {{false, "ijk"}, {true, "mij"}, {false, "tij"}, {true, "mti"}, {false, "ij"}};

// Digits as they follow a symbol.
std::string subscripted(const std::string& digits) {
  return run.report.html ? "<sub><small><i>" + digits + "</i></small></sub>" : digits;
}

Label blanklabel() {
  Label label;
  std::memset(label.text, ' ', sizeof label.text - 1);
  label.text[sizeof label.text - 1] = '\0';
  return label;
}

void setlabel(Label& label, const std::string& text) {
  const std::size_t length = std::min(text.size(), sizeof label.text - 1);
  std::memcpy(label.text, text.data(), length);
  label.text[length] = '\0';
}

std::string thresholdcategory(const CoefficientRow& coefficient) {
  return categoryof(coefficient.variable - run.mdm.nvar1);
}

}  // namespace

void setsymbols() {
  const TypeLetters& type = typeletters[static_cast<int>(run.mdm.mdmtype)];
  const Letters& letters = (type.measured ? measurement : ordinary)[run.report.html ? 1 : 0];
  const std::string sub = type.subscripts;
  run.sym = {letters.sym1,    letters.sym2,    letters.sym3,    letters.syme, letters.symr2, letters.symr3,
             letters.symvar1, letters.symvar2, letters.symvar3, sub,          sub.substr(1), sub.substr(2)};
}

std::string coefficientlabel(const CoefficientRow& coefficient) {
  const std::string name = eightcolumns(run.mdm.names1[coefficient.variable]);
  const std::string indent = run.report.html ? "" : "      ";
  if (coefficient.threshold) return indent + name + (run.report.html ? "," : ",   ");
  const std::string symbol = ", " + run.sym.sym1 + subscripted(std::to_string(coefficient.subscript));
  return coefficient.variable == 0 ? indent + name + symbol : name + " slope" + symbol;
}

std::string termlabel(const ModelRows& rows, const TermRow& term) {
  return eightcolumns(run.mdm.names2[term.variable]) + ", " + run.sym.sym2 + subscripted(termdigits(rows, term));
}

std::string effectlabel(const ModelRows& rows, const EffectRow& effect) {
  if (const CoefficientRow& coefficient = rows.owner(effect); coefficient.threshold) {
    const std::string category = thresholdcategory(coefficient);
    return run.report.html ? "&delta;" + subscripted(category) : "          d(" + category + ")";
  }
  if (run.mdm.twolevel()) return termlabel(rows, rows.termof(effect)) + (run.report.html ? "" : " ");
  return eightcolumns(run.mdm.names3[effect.variable]) + ", " + run.sym.sym3 + subscripted(effectdigits(rows, effect));
}

void makerowlabels() {
  const ModelRows rows = modelrows(run.model);
  Coefficients& coef = run.model.coef;
  const auto kept =
      std::count_if(rows.effects.begin(), rows.effects.end(), [](const EffectRow& e) { return !e.removed; });
  for (Array<Label>* table : {&coef.gammanames1, &coef.gammanames2, &coef.gammanames3}) {
    table->reset(static_cast<std::size_t>(kept));
    table->fill(blanklabel());
  }
  int lastcoefficient = -1, lastterm = -1;
  std::size_t g = 0;
  for (const EffectRow& effect : rows.effects) {
    const CoefficientRow& coefficient = rows.owner(effect);
    if (!effect.removed) {
      if (effect.coefficient != lastcoefficient) setlabel(coef.gammanames1[g], coefficientlabel(coefficient));
      if (effect.term != lastterm && !coefficient.threshold && !run.mdm.twolevel())
        setlabel(coef.gammanames2[g], termlabel(rows, rows.termof(effect)));
      setlabel(coef.gammanames3[g++], effectlabel(rows, effect));
      lastcoefficient = effect.coefficient;
      lastterm = effect.term;
    }
  }
}

bool isblank(const Label& label) { return label.text[std::strspn(label.text, " ")] == '\0'; }

Name labelof(const Array<Name>& names, int i) {
  return static_cast<std::size_t>(i) < names.size() ? names[i] : paddedname("");
}

int subscriptof(const Array<int>& subscripts, int i) {
  return static_cast<std::size_t>(i) < subscripts.size() ? subscripts[i] : i;
}

}  // namespace kdr
