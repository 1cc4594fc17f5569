#include "formula/variables.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <set>
#include <unordered_map>
#include <utility>

#include "core/formatted.h"
#include "kernel/places.h"

namespace kdr {

namespace {

// The functions, the numbers of their arguments, and the names that arguments can have.
struct Function {
  const char* word;
  std::size_t least, most;
  const char* form;
};
constexpr Function functions[] = {
    {"I", 1, 1, "I(x^2)"},
    {"log", 1, 1, "log(x)"},
    {"exp", 1, 1, "exp(x)"},
    {"sqrt", 1, 1, "sqrt(x)"},
    {"abs", 1, 1, "abs(x)"},
    {"poly", 2, 3, "poly(x, 2) or poly(x, 2, raw = TRUE)"},
    {"scale", 1, 3, "scale(x), scale(x, scale = FALSE)"},
    {"center", 1, 2, "center(x) or center(x, school)"},
    {"mean", 2, 2, "mean(x, school)"},
    {"factor", 1, 2, "factor(x) or factor(x, ref = \"b\")"},
    {"offset", 1, 1, "offset(log(t))"},
    {"cbind", 2, 2, "cbind(y, n - y)"},
};
constexpr const char* smoothers[] = {"s", "te", "ti", "t2", "bs", "ns", "lo", "cr", "smooth"};

bool istruth(const std::string& name) { return name == "TRUE" || name == "FALSE"; }

bool named(const Expression& call, std::size_t i, const char* name) { return call.named[i] == name; }

// The argument of that name, or null.
const Expression* argument(const Expression& call, const char* name) {
  for (std::size_t i = 0; i < call.operands.size(); ++i)
    if (named(call, i, name)) return &call.operands[i];
  return nullptr;
}

bool truthof(const FormulaData& data, const Expression& e) {
  if (e.part == Part::name && istruth(e.word)) return e.word == "TRUE";
  refuseformula(data.formula, e.place, "TRUE or FALSE is due here.");
}

bool optionalname(const std::string& function, const std::string& name) {
  static constexpr const char* pairs[][2] = {
      {"poly", "raw"}, {"poly", "degree"}, {"scale", "scale"}, {"scale", "center"}, {"factor", "ref"}};
  return std::any_of(std::begin(pairs), std::end(pairs),
                     [&](const auto& pair) { return function == pair[0] && name == pair[1]; });
}

// Values of an expression, and whether they are truths, which are 1 and 0.
struct Values {
  std::vector<double> numbers;
  bool truths = false;
};

Values evaluate(const FormulaData& data, const Expression& e);

// A record has no value. Among those of the fit that is refused, since the record would be lost.
void lose(const FormulaData& data, const Expression& e, const std::string& words) {
  if (data.fitted == nullptr) refuseformula(data.formula, e.place, words);
  data.lost(words);
}

// What a call takes from the records of the fit: `make` tells it there.
template <class Make>
const std::vector<double>& settingsof(const FormulaData& data, const Expression& e, Make make) {
  const std::string call = deparsed(e);
  const auto found = data.settings->numbers.find(call);
  return found != data.settings->numbers.end() ? found->second : data.settings->numbers[call] = make();
}

std::vector<double> transformed(const FormulaData& data, const Expression& e, const std::function<double(double)>& f) {
  std::vector<double> values = evaluate(data, e.operands[0]).numbers;
  bool told = false;
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (values[i] == missingcode) continue;
    const double value = f(values[i]);
    if (!std::isfinite(value) && !std::exchange(told, true))
      lose(data, e,
           formatted("%s has no value in record %zu, where it is %s of %.15g.", deparsed(e).c_str(), i + 1,
                     e.word.c_str(), values[i]));
    values[i] = std::isfinite(value) ? value : missingcode;
  }
  return values;
}

const Grouping& groupingof(const FormulaData& data, const Expression& e) {
  std::vector<std::string> names;
  const Expression* at = &e;
  for (; isoperation(*at, ":"); at = at->operands.data()) names.insert(names.begin(), at->operands[1].word);
  names.insert(names.begin(), at->word);
  const Grouping* found = nullptr;
  for (const Grouping& grouping : data.groupings) {
    const std::set<std::string> have(grouping.names.begin(), grouping.names.end());
    if (have == std::set<std::string>(names.begin(), names.end())) return grouping;
    if (names.size() == 1 && grouping.names.back() == names[0]) found = &grouping;
  }
  if (found != nullptr) return *found;
  std::string known;
  for (const Grouping& grouping : data.groupings) known += (known.empty() ? "" : ", ") + grouping.shown;
  refuseformula(
      data.formula, e.place,
      "A mean can be taken over the units of the random parts: " + (known.empty() ? "there are none" : known) + ".");
}

// The mean of the values of each unit, over the records that have one; missing where none has. A unit of the fit keeps
// the mean that it had there.
std::vector<double> unitmeans(const FormulaData& data, const Expression& call, const std::vector<double>& values,
                              const Grouping& grouping) {
  std::vector<double> sums(static_cast<std::size_t>(grouping.nunits)), counts(sums.size());
  for (std::size_t i = 0; i < values.size(); ++i)
    if (grouping.units[i] >= 0 && values[i] != missingcode) {
      sums[static_cast<std::size_t>(grouping.units[i])] += values[i];
      counts[static_cast<std::size_t>(grouping.units[i])] += 1.0;
    }
  std::vector<double> ofunit(sums.size(), missingcode), means(values.size(), missingcode);
  for (std::size_t unit = 0; unit < sums.size(); ++unit)
    if (counts[unit] > 0.0) ofunit[unit] = sums[unit] / counts[unit];
  std::unordered_map<std::string, double>& known = data.settings->means[deparsed(call)];
  std::vector<char> seen(sums.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (grouping.units[i] < 0) continue;
    const auto unit = static_cast<std::size_t>(grouping.units[i]);
    if (seen[unit]++ == 0) {
      const std::string shown = unitshown(data, grouping.names, i);
      if (data.fitted == nullptr) {
        known[shown] = ofunit[unit];
      } else if (const auto found = known.find(shown); found != known.end()) {
        ofunit[unit] = found->second;
      }
    }
    means[i] = ofunit[unit];
    seen[unit] = 1;
  }
  return means;
}

struct Moments {
  double mean = 0.0, sd = 0.0, count = 0.0;
};

Moments momentsof(const std::vector<double>& values) {
  Moments moments;
  for (const double value : values)
    if (value != missingcode) {
      moments.mean += value;
      moments.count += 1.0;
    }
  if (moments.count == 0.0) return moments;
  moments.mean /= moments.count;
  double squares = 0.0;
  for (const double value : values)
    if (value != missingcode) squares += (value - moments.mean) * (value - moments.mean);
  if (moments.count > 1.0) moments.sd = std::sqrt(squares / (moments.count - 1.0));
  return moments;
}

std::vector<double> scaled(const FormulaData& data, const Expression& e) {
  std::vector<double> values = evaluate(data, e.operands[0]).numbers;
  const Expression *center = argument(e, "center"), *scale = argument(e, "scale");
  const bool centers = center == nullptr || truthof(data, *center), scales = scale == nullptr || truthof(data, *scale);
  const std::vector<double>& taken = settingsof(data, e, [&] {
    const Moments moments = momentsof(values);
    double divisor = moments.sd;
    if (scales && !centers) {  // R then divides by the root mean square about zero, with n - 1
      double squares = 0.0;
      for (const double value : values)
        if (value != missingcode) squares += value * value;
      divisor = std::sqrt(squares / std::max(1.0, moments.count - 1.0));
    }
    if (scales && !(divisor > 0.0))
      refuseformula(data.formula, e.place, deparsed(e.operands[0]) + " has only one value, so it has no scale.");
    return std::vector<double>{centers ? moments.mean : 0.0, scales ? divisor : 1.0};
  });
  for (double& value : values)
    if (value != missingcode) value = (value - taken[0]) / taken[1];
  return values;
}

std::vector<double> centered(const FormulaData& data, const Expression& e) {
  std::vector<double> values = evaluate(data, e.operands[0]).numbers;
  std::vector<double> means;
  if (e.operands.size() > 1) {
    means = unitmeans(data, e, values, groupingof(data, e.operands[1]));
  } else {
    means.assign(values.size(), settingsof(data, e, [&] { return std::vector<double>{momentsof(values).mean}; })[0]);
  }
  for (std::size_t i = 0; i < values.size(); ++i)
    values[i] = values[i] == missingcode || means[i] == missingcode ? missingcode : values[i] - means[i];
  return values;
}

double operate(const std::string& word, double a, double b) {
  if (word == "+") return a + b;
  if (word == "-") return a - b;
  if (word == "*") return a * b;
  if (word == "/") return a / b;
  if (word == "^") return std::pow(a, b);
  if (word == "==") return a == b ? 1.0 : 0.0;
  if (word == "!=") return a != b ? 1.0 : 0.0;
  if (word == "<") return a < b ? 1.0 : 0.0;
  if (word == ">") return a > b ? 1.0 : 0.0;
  if (word == "<=") return a <= b ? 1.0 : 0.0;
  if (word == ">=") return a >= b ? 1.0 : 0.0;
  if (word == "&" || word == "&&") return a != 0.0 && b != 0.0 ? 1.0 : 0.0;
  return a != 0.0 || b != 0.0 ? 1.0 : 0.0;
}

bool comparison(const std::string& word) { return word.find_first_of("=<>&|") != std::string::npos; }

// name == "text" and its reverse, of a column of names.
bool namecomparison(const FormulaData& data, const Expression& e, Values& result) {
  if (e.word != "==" && e.word != "!=") return false;
  for (const int side : {0, 1}) {
    const Expression& text = bare(e.operands[static_cast<std::size_t>(side)]);
    const Expression& name = bare(e.operands[static_cast<std::size_t>(1 - side)]);
    if (text.part != Part::text || name.part != Part::name) continue;
    const Factor factor = factorof(data.column(name.word), {});
    const auto found = std::find(factor.levels.begin(), factor.levels.end(), text.word);
    if (found == factor.levels.end() && data.fitted == nullptr)
      refuseformula(data.formula, text.place, name.word + " has no value " + text.word + ".");
    const int code = static_cast<int>(found - factor.levels.begin());  // that of none, where no record has the value
    result.truths = true;
    for (const int at : factor.codes)
      result.numbers.push_back(at < 0 ? missingcode : (at == code) == (e.word == "==") ? 1.0 : 0.0);
    return true;
  }
  return false;
}

Values operation(const FormulaData& data, const Expression& e) {
  Values result;
  if (namecomparison(data, e, result)) return result;
  if (e.word == ":" || e.word == "~") refuseformula(data.formula, e.place, "Within a function this is no arithmetic.");
  result = evaluate(data, e.operands[0]);
  const Values right = evaluate(data, e.operands[1]);
  bool told = false;
  for (std::size_t i = 0; i < result.numbers.size(); ++i) {
    double& a = result.numbers[i];
    const double b = right.numbers[i];
    if (a == missingcode || b == missingcode) {
      a = missingcode;
      continue;
    }
    const double value = operate(e.word, a, b);
    if (!std::isfinite(value) && !std::exchange(told, true))
      lose(data, e,
           formatted("%s has no value in record %zu, where it is %.15g %s %.15g.", deparsed(e).c_str(), i + 1, a,
                     e.word.c_str(), b));
    a = std::isfinite(value) ? value : missingcode;
  }
  result.truths = comparison(e.word);
  return result;
}

std::vector<double> columnvalues(const FormulaData& data, const Expression& e) {
  const LongColumn& column = data.column(e.word);
  if (!column.text) return column.numbers;
  const std::string why = column.why.empty() ? "" : " (" + column.why + ")";
  refuseformula(data.formula, e.place, column.name + " is a column of texts" + why + ": it has no numbers.");
}

Values call(const FormulaData& data, const Expression& e) {
  if (e.word == "I") return evaluate(data, e.operands[0]);
  if (e.word == "log") return {transformed(data, e, [](double x) { return std::log(x); })};
  if (e.word == "exp") return {transformed(data, e, [](double x) { return std::exp(x); })};
  if (e.word == "sqrt") return {transformed(data, e, [](double x) { return std::sqrt(x); })};
  if (e.word == "abs") return {transformed(data, e, [](double x) { return std::fabs(x); })};
  if (e.word == "scale") return {scaled(data, e)};
  if (e.word == "center") return {centered(data, e)};
  if (e.word == "mean")
    return {unitmeans(data, e, evaluate(data, e.operands[0]).numbers, groupingof(data, e.operands[1]))};
  refuseformula(data.formula, e.place, e.word + "() cannot stand within another function.");
}

Values evaluate(const FormulaData& data, const Expression& e) {
  switch (e.part) {
    case Part::number:
      return {std::vector<double>(data.nrecords, e.value)};
    case Part::text:
      refuseformula(data.formula, e.place, "A text can only be compared with a column of names, by == or !=.");
    case Part::name:
      if (istruth(e.word)) return {std::vector<double>(data.nrecords, e.word == "TRUE" ? 1.0 : 0.0), true};
      return {columnvalues(data, e)};
    case Part::parentheses:
      return evaluate(data, e.operands[0]);
    case Part::sign: {
      Values values = evaluate(data, e.operands[0]);
      for (double& value : values.numbers)
        if (value != missingcode) value = e.word == "!" ? (value == 0.0 ? 1.0 : 0.0) : e.word == "-" ? -value : value;
      values.truths = e.word == "!";
      return values;
    }
    case Part::operation:
      return operation(data, e);
    case Part::call:
      break;
  }
  return call(data, e);
}

// Polynomials of degree 1 to n that are orthogonal over the records and have length 1, by the recurrence
//   p_{k+1}(x) = (x - a_k) p_k(x) - (c_k / c_{k-1}) p_{k-1}(x),  c_k = sum p_k^2,  a_k = sum x p_k^2 / c_k.
// x is taken from its mean on, so that a large one costs no digits. `taken` has the mean, then a_k and c_k from k = 0
// on: those of the fit when `known`, else they join it.
std::vector<std::vector<double>> orthogonal(const std::vector<double>& x, std::size_t n, std::vector<double>& taken,
                                            bool known) {
  std::vector<std::vector<double>> all;
  std::vector<double> before(x.size(), 0.0), now(x.size(), 1.0);
  double lengthbefore = 1.0;
  for (std::size_t k = 0; k <= n; ++k) {
    double length = 0.0, shift = 0.0;
    for (std::size_t i = 0; i < x.size() && !known; ++i)
      if (x[i] != missingcode) {
        length += now[i] * now[i];
        shift += x[i] * now[i] * now[i];
      }
    if (!known) taken.insert(taken.end(), {shift / length, length});
    shift = taken[2 * k + 1];
    length = taken[2 * k + 2];
    if (k > 0) {
      all.push_back(now);
      for (std::size_t i = 0; i < x.size(); ++i)
        all.back()[i] = x[i] == missingcode ? missingcode : now[i] / std::sqrt(length);
    }
    for (std::size_t i = 0; i < x.size(); ++i) {
      const double next = (x[i] - shift) * now[i] - (k > 0 ? length / lengthbefore * before[i] : 0.0);
      before[i] = now[i];
      now[i] = next;
    }
    lengthbefore = length;
  }
  return all;
}

std::vector<std::vector<double>> polynomial(const FormulaData& data, const Expression& e) {
  const Expression* stated = argument(e, "degree");
  const Expression& degree = stated != nullptr ? *stated : e.operands[1];
  const double n = degree.part == Part::number ? degree.value : 0.0;
  constexpr double highest = 12.0;
  if (n < 1.0 || n > highest || n != std::floor(n))
    refuseformula(data.formula, degree.place, "The degree of a polynomial is a whole number from 1 to 12.");
  const Expression* raw = argument(e, "raw");
  const std::vector<double> x = evaluate(data, e.operands[0]).numbers;
  std::set<double> different;
  for (std::size_t i = 0; i < x.size() && different.size() <= static_cast<std::size_t>(n) + 1; ++i)
    if (x[i] != missingcode) different.insert(x[i]);
  if (different.size() <= static_cast<std::size_t>(n) && data.fitted == nullptr)
    refuseformula(data.formula, e.place,
                  formatted("The degree must be below the number of different values of %s, which is %zu.",
                            deparsed(e.operands[0]).c_str(), different.size()));
  const auto count = static_cast<std::size_t>(n);
  if (raw == nullptr || !truthof(data, *raw)) {
    std::vector<double>& taken = data.settings->numbers[deparsed(e)];
    const bool known = !taken.empty();
    if (!known) taken.push_back(momentsof(x).mean);
    std::vector<double> from = x;
    for (double& value : from)
      if (value != missingcode) value -= taken[0];
    return orthogonal(from, count, taken, known);
  }
  std::vector<std::vector<double>> powers(1, x);
  while (powers.size() < count) {
    powers.push_back(powers.back());
    for (std::size_t i = 0; i < x.size(); ++i)
      if (x[i] != missingcode) powers.back()[i] *= x[i];
  }
  return powers;
}

// A factor with the level that `ref` names in front.
void setreference(const FormulaData& data, const Expression& ref, Factor& factor) {
  const std::string wanted = levelargument(ref);
  const auto found = std::find(factor.levels.begin(), factor.levels.end(), wanted);
  if (found == factor.levels.end()) {
    std::string levels;
    for (const std::string& level : factor.levels)
      if (levels.size() < 200) levels += (levels.empty() ? "" : ", ") + level;
    refuseformula(data.formula, ref.place, "There is no level " + wanted + ". The levels are " + levels + ".");
  }
  const int at = static_cast<int>(found - factor.levels.begin());
  std::rotate(factor.levels.begin(), found, found + 1);
  for (int& code : factor.codes) code = code < 0 || code > at ? code : code == at ? 0 : code + 1;
}

void makefactor(const FormulaData& data, const Expression& e, Variable& variable) {
  const Expression& of = e.part == Part::call ? e.operands[0] : e;
  variable.factor = true;
  if (const Expression& inner = bare(of); inner.part == Part::name) {
    const LongColumn& column = data.column(inner.word);
    if (const std::string words = e.part == Part::call ? "" : strayrefusal(column);
        !words.empty() && data.fitted == nullptr)
      refuseformula(data.formula, e.place, words);
    variable.names = factorof(column, {});
    variable.source = &column;
    variable.label = column.label;
  } else {
    LongColumn column;
    column.numbers = evaluate(data, of).numbers;
    variable.names = factorof(column, {});
  }
  if (e.part == Part::call && e.operands.size() > 1 && data.fitted == nullptr)
    setreference(data, e.operands[1], variable.names);
}

// The levels of the fit in the place of those of these records. A record with another one has no value.
void takelevels(const FormulaData& data, const Variable& fitted, Variable& variable) {
  std::vector<int> places;
  for (const std::string& level : variable.names.levels) {
    const auto found = std::find(fitted.names.levels.begin(), fitted.names.levels.end(), level);
    places.push_back(found == fitted.names.levels.end() ? -1 : static_cast<int>(found - fitted.names.levels.begin()));
  }
  std::vector<char> told(places.size());
  for (std::size_t i = 0; i < variable.names.codes.size(); ++i) {
    int& code = variable.names.codes[i];
    if (code < 0) continue;
    const auto own = static_cast<std::size_t>(code);
    code = places[own];
    if (code >= 0 || told[own]++ != 0) continue;
    told[own] = 1;
    data.lost(formatted("%s: the level %s, as in record %zu, was not in the data of the fit.", variable.name.c_str(),
                        variable.names.levels[own].c_str(), i + 1));
  }
  variable.names.levels = fitted.names.levels;
}

Variable makevariable(const FormulaData& data, const Expression& e) {
  Variable variable;
  variable.name = deparsed(e);
  variable.shown = e.part == Part::name ? e.word : variable.name;
  variable.place = e.place;
  if (e.part == Part::name && istruth(e.word)) refuseformula(data.formula, e.place, "A truth cannot be a variable.");
  const Variable* fitted = data.fitted == nullptr ? nullptr : &data.fitted->variables.at(variable.name);
  const bool names = e.part == Part::name && (fitted != nullptr ? fitted->factor : holdsnames(data.column(e.word)));
  if (iscall(e, "factor") || names) {
    makefactor(data, e, variable);
    if (fitted != nullptr) takelevels(data, *fitted, variable);
    return variable;
  }
  if (iscall(e, "cbind")) refuseformula(data.formula, e.place, "cbind() can only be the outcome.");
  if (iscall(e, "poly")) {
    for (std::vector<double>& column : polynomial(data, e))
      variable.columns.push_back(std::make_shared<std::vector<double>>(std::move(column)));
    return variable;
  }
  if (e.part == Part::name) variable.label = data.column(e.word).label;
  Values values = evaluate(data, e);
  if (values.truths) {
    LongColumn column;
    column.numbers = std::move(values.numbers);
    variable.factor = variable.indicator = true;
    variable.names = factorof(column, {});
    for (std::string& level : variable.names.levels) level = level == "0" ? "FALSE" : "TRUE";
    if (fitted != nullptr) takelevels(data, *fitted, variable);
  } else {
    variable.columns.push_back(std::make_shared<std::vector<double>>(std::move(values.numbers)));
  }
  return variable;
}

}  // namespace

void columnnames(const Expression& e, std::vector<NamedPlace>& names) {
  if (e.part == Part::name && !istruth(e.word)) names.push_back({e.word, e.place});
  const bool ref = iscall(e, "factor");
  for (std::size_t i = 0; i < e.operands.size() && !(ref && i > 0); ++i) columnnames(e.operands[i], names);
}

void checkfunctions(const std::string& formula, const Expression& e) {
  if (e.part == Part::call) {
    const auto* known = std::find_if(std::begin(functions), std::end(functions),
                                     [&](const Function& function) { return e.word == function.word; });
    if (std::find(std::begin(smoothers), std::end(smoothers), e.word) != std::end(smoothers))
      refuseformula(formula, e.place, "There are no smooth terms here. A curve can be poly(x, 2), log(x) or I(x > 2).");
    if (known == std::end(functions)) {
      std::string words;
      for (const Function& function : functions) words += (words.empty() ? "" : ", ") + std::string(function.word);
      refuseformula(formula, {e.place.begin, e.place.begin + e.word.size()},
                    "There is no function " + e.word + "(). Those that there are: " + words + ".");
    }
    if (e.operands.size() < known->least || e.operands.size() > known->most)
      refuseformula(formula, e.place, std::string("Its form is ") + known->form + ".");
    for (std::size_t i = 0; i < e.operands.size(); ++i) {
      const bool has = !e.named[i].empty();
      if (has && (i == 0 || !optionalname(e.word, e.named[i])))
        refuseformula(formula, e.operands[i].place,
                      "There is no argument " + e.named[i] + " here. The form is " + known->form + ".");
      const bool needs = i > 0 && (e.word == "scale" || (e.word == "poly" && i > 1));
      if (!has && needs)
        refuseformula(formula, e.operands[i].place, std::string("This argument needs its name: ") + known->form + ".");
    }
    if (e.word == "mean" || e.word == "center")
      for (std::size_t i = 1; i < e.operands.size(); ++i) {
        const Expression* at = &e.operands[i];
        while (isoperation(*at, ":") && at->operands[1].part == Part::name) at = at->operands.data();
        if (at->part != Part::name)
          refuseformula(formula, e.operands[i].place,
                        "The units over which means are taken are due here: the name of a "
                        "grouping of the random parts.");
      }
  }
  for (const Expression& operand : e.operands) checkfunctions(formula, operand);
}

std::string unitshown(const FormulaData& data, const std::vector<std::string>& names, std::size_t record) {
  std::string text;
  for (const std::string& name : names) {
    if (!text.empty()) text += ':';
    const LongColumn& column = data.column(name);
    if (!column.text) {
      text += formatted("%.15g", column.numbers[record]);
    } else if (const int code = column.codes[record]; code >= 0) {
      text += column.texts[static_cast<std::size_t>(code)];
    }
  }
  return text;
}

namespace {

// IDs that are numbers have to be told apart by them: a longer one is not kept whole.
void checkids(const LongColumn& column) {
  constexpr double largest = 1.0e15;
  const bool fine = column.text || std::all_of(column.numbers.begin(), column.numbers.end(), [](double value) {
                      return value == missingcode || std::fabs(value) < largest;
                    });
  if (!fine)
    refuse("The IDs in " + column.name +
           " are numbers of more than 15 digits, which cannot be told apart. Put a letter in front of them.");
}

}  // namespace

void findgroupings(FormulaData& data, const FormulaModel& model) {
  std::map<std::string, std::vector<int>> codesof;  // of the columns
  for (const RandomPart& part : model.randoms) {
    if (std::any_of(part.group.begin(), part.group.end(),
                    [&](const std::string& name) { return !data.places.contains(name); }))
      continue;  // of other records, which need not tell their units
    const std::set<std::string> names(part.group.begin(), part.group.end());
    const bool known = std::any_of(data.groupings.begin(), data.groupings.end(), [&](const Grouping& other) {
      return std::set<std::string>(other.names.begin(), other.names.end()) == names;
    });
    if (known) continue;
    Grouping grouping{part.group, "", part.grouping, std::vector<int>(data.nrecords, 0), 1};
    for (const std::string& name : part.group) {
      grouping.shown += (grouping.shown.empty() ? "" : ":") + name;
      if (data.fitted == nullptr) checkids(data.column(name));
      std::vector<int>& codes = codesof[name];
      if (codes.empty()) codes = namecodes(data.column(name));
      Places pairs;
      for (std::size_t i = 0; i < data.nrecords; ++i) {
        int& unit = grouping.units[i];
        unit = unit < 0 || codes[i] < 0 ? -1
                                        : static_cast<int>(pairs.of(keyof(static_cast<std::uint32_t>(unit),
                                                                          static_cast<std::uint32_t>(codes[i]))));
      }
      grouping.nunits = static_cast<int>(pairs.size());
    }
    data.groupings.push_back(std::move(grouping));
  }
}

Variable& variableof(FormulaData& data, const Expression& e) {
  const std::string name = deparsed(e);
  const auto found = data.variables.find(name);
  if (found != data.variables.end()) return found->second;
  return data.variables.emplace(name, makevariable(data, e)).first->second;
}

std::vector<double> valuesof(const FormulaData& data, const Expression& e) { return evaluate(data, e).numbers; }

std::string levelargument(const Expression& e) { return e.part == Part::number ? formatted("%.15g", e.value) : e.word; }

}  // namespace kdr
