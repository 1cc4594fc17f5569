#include "formula/terms.h"

#include <algorithm>
#include <bit>
#include <string_view>
#include <utility>

namespace kdr {

namespace {

constexpr std::size_t mostvariables = 64;
constexpr std::size_t mostterms = 2000;

bool isbar(const Expression& e) { return isoperation(e, "|") || isoperation(e, "||"); }

// The operators whose operands are terms; of others the whole is a variable.
bool combines(const Expression& e) {
  if (e.part != Part::operation) return false;
  constexpr std::string_view words[] = {"+", "-", "*", "/", ":", "^"};
  return std::find(std::begin(words), std::end(words), e.word) != std::end(words);
}

struct Encoder {
  FormulaModel& model;
  Terms& terms;
  bool random = false;  // of a random part, which has neither offsets nor parts
  bool adding = true;   // not behind a minus

  [[noreturn]] void refuse(const Expression& e, const std::string& words) const {
    refuseformula(model.text, e.place, words);
  }
};

std::size_t variableof(Encoder& encoder, const Expression& e) {
  Terms& terms = encoder.terms;
  std::string name = deparsed(e);
  const auto found = std::find(terms.names.begin(), terms.names.end(), name);
  if (found != terms.names.end()) return static_cast<std::size_t>(found - terms.names.begin());
  if (terms.names.size() == mostvariables) encoder.refuse(e, "A formula can have 64 variables.");
  terms.variables.push_back(&e);
  terms.names.push_back(std::move(name));
  return terms.names.size() - 1;
}

// Variables get their numbers in the order in which they stand.
void numbervariables(Encoder& encoder, const Expression& e) {
  if (isbar(bare(e)) || iscall(e, "offset") || e.part == Part::number) return;
  if (e.part == Part::parentheses || combines(e) || (e.part == Part::sign && e.word != "!")) {
    const bool power = isoperation(e, "^");
    numbervariables(encoder, e.operands[0]);
    if (e.operands.size() > 1 && !power) numbervariables(encoder, e.operands[1]);
  } else {
    static_cast<void>(variableof(encoder, e));
  }
}

void addterm(Encoder& encoder, const Expression& e, std::vector<Term>& list, Term term) {
  if (term == 0 || std::find(list.begin(), list.end(), term) != list.end()) return;
  if (list.size() == mostterms) encoder.refuse(e, "These are more terms than a model can have.");
  list.push_back(term);
}

std::vector<Term> interactions(Encoder& encoder, const Expression& e, const std::vector<Term>& left,
                               const std::vector<Term>& right) {
  std::vector<Term> list;
  for (const Term a : left)
    for (const Term b : right) addterm(encoder, e, list, a | b);
  return list;
}

std::vector<Term> encode(Encoder& encoder, const Expression& e, bool additive);

// An operand of a product, which must have terms.
std::vector<Term> factorsof(Encoder& encoder, const Expression& e) {
  const Expression& inner = bare(e);
  if (inner.part == Part::number)
    encoder.refuse(e, "A number cannot stand in a product of terms. Arithmetic stands within I(): I(2*x).");
  return encode(encoder, e, false);
}

std::vector<Term> power(Encoder& encoder, const Expression& e) {
  const std::vector<Term> base = factorsof(encoder, e.operands[0]);
  const Expression& exponent = e.operands[1];
  const double n = exponent.value;
  if (exponent.part != Part::number || n < 1 || n > 20 || n != static_cast<int>(n))
    encoder.refuse(exponent, "The power of terms is a whole number from 1 on. Arithmetic stands within I(): I(x^y).");
  if (base.size() == 1 && std::has_single_bit(base[0]) && n > 1)
    encoder.refuse(e, "Outside I() the power of one variable is the variable itself. The square is I(" +
                          deparsed(e.operands[0]) + "^" + deparsed(exponent) + ").");
  std::vector<Term> list = base;
  for (int i = 1; i < static_cast<int>(n); ++i) list = interactions(encoder, e, list, base);
  return list;
}

std::vector<Term> product(Encoder& encoder, const Expression& e) {
  if (e.word == "^") return power(encoder, e);
  const std::vector<Term> left = factorsof(encoder, e.operands[0]), right = factorsof(encoder, e.operands[1]);
  if (e.word == ":") return interactions(encoder, e, left, right);
  std::vector<Term> list = left;
  if (e.word == "*") {
    for (const Term term : right) addterm(encoder, e, list, term);
    for (const Term term : interactions(encoder, e, left, right)) addterm(encoder, e, list, term);
    return list;
  }
  Term all = 0;  // a / b: b within each combination of a
  for (const Term term : left) all |= term;
  for (const Term term : right) addterm(encoder, e, list, all | term);
  return list;
}

void takerandom(Encoder& encoder, const Expression& bar);

std::vector<Term> sum(Encoder& encoder, const Expression& e, bool additive) {
  std::vector<Term> list = encode(encoder, e.operands[0], additive);
  const bool minus = e.word == "-";
  if (minus) encoder.adding = !encoder.adding;
  const std::vector<Term> right = encode(encoder, e.operands[1], additive && !minus);
  if (minus) encoder.adding = !encoder.adding;
  for (const Term term : right) {
    if (minus) {
      std::erase(list, term);
    } else {
      addterm(encoder, e, list, term);
    }
  }
  return list;
}

std::vector<Term> encode(Encoder& encoder, const Expression& e, bool additive) {
  const Expression& inner = bare(e);
  if (isbar(inner)) {
    if (e.part != Part::parentheses) encoder.refuse(e, "A random part stands in parentheses: (1 | school/pupil).");
    if (!additive || encoder.random) encoder.refuse(e, "A random part can only be added to the terms.");
    takerandom(encoder, inner);
    return {};
  }
  switch (e.part) {
    case Part::parentheses:
      return encode(encoder, e.operands[0], additive);
    case Part::number:
      if (e.value != 0.0 && e.value != 1.0)
        encoder.refuse(e, "Of the numbers only 1 (with an intercept) and 0 (without) are terms.");
      encoder.terms.intercept = (e.value == 1.0) == encoder.adding;
      return {};
    case Part::text:
      encoder.refuse(e, "A text cannot be a term. A name with blanks stands between backticks: `my name`.");
    case Part::sign:
      if (e.word == "!") break;
      if (e.word == "+") return encode(encoder, e.operands[0], additive);
      encoder.adding = !encoder.adding;
      static_cast<void>(encode(encoder, e.operands[0], false));
      encoder.adding = !encoder.adding;
      return {};
    case Part::call:
      if (e.word != "offset") break;
      if (!additive || encoder.random) encoder.refuse(e, "An offset can only be added to the terms.");
      encoder.model.offsets.push_back(&e);
      return {};
    case Part::operation:
      if (e.word == "+" || e.word == "-") return sum(encoder, e, additive);
      if (combines(e)) return product(encoder, e);
      break;
    case Part::name:
      break;
  }
  return {Term{1} << variableof(encoder, e)};
}

void encodeterms(Encoder& encoder, const Expression& e) {
  numbervariables(encoder, e);
  encoder.terms.terms = encode(encoder, e, true);
  std::stable_sort(encoder.terms.terms.begin(), encoder.terms.terms.end(),
                   [](Term a, Term b) { return std::popcount(a) < std::popcount(b); });
}

// The groupings behind a bar: a/b is a and the b within each a.
std::vector<std::vector<std::string>> groupings(const FormulaModel& model, const Expression& e) {
  const Expression& inner = bare(e);
  if (inner.part == Part::name) return {{inner.word}};
  const bool nested = isoperation(inner, "/");
  if (!nested && !isoperation(inner, ":")) {
    const bool sum = isoperation(inner, "+") || isoperation(inner, "*");
    refuseformula(model.text, inner.place,
                  sum ? "Behind the bar stands one grouping: a, a:b, or a/b for b within a."
                      : "Behind the bar stands the name of a column, or two with / or : between them.");
  }
  std::vector<std::vector<std::string>> left = groupings(model, inner.operands[0]);
  const std::vector<std::vector<std::string>> right = groupings(model, inner.operands[1]);
  if (nested ? right.size() > 1 : left.size() + right.size() > 2)
    refuseformula(model.text, inner.place, "Behind the bar : goes between names, and / does too.");
  std::vector<std::string> both = left.back();
  for (const std::string& name : right[0])
    if (std::find(both.begin(), both.end(), name) == both.end()) both.push_back(name);
  if (!nested) return {both};
  left.push_back(both);
  return left;
}

// (x || g) is a part for each term of x.
std::vector<Terms> blocksof(const Terms& terms, bool split) {
  if (!split) return {terms};
  std::vector<Terms> blocks;
  for (std::size_t i = terms.intercept ? 0 : 1; i <= terms.terms.size(); ++i) {
    Terms block = terms;
    block.intercept = i == 0;
    block.terms.clear();
    if (i > 0) block.terms.push_back(terms.terms[i - 1]);
    blocks.push_back(std::move(block));
  }
  return blocks;
}

void takerandom(Encoder& encoder, const Expression& bar) {
  FormulaModel& model = encoder.model;
  const Expression &left = bar.operands[0], &right = bar.operands[1];
  if (isbar(bare(left)) || isbar(bare(right))) encoder.refuse(bar, "A random part has one bar.");
  Terms terms;
  Encoder inner{model, terms, true};
  encodeterms(inner, left);
  for (const std::vector<std::string>& group : groupings(model, right))
    for (Terms& block : blocksof(terms, bar.word == "||"))
      model.randoms.push_back({std::move(block), group, bar.place, right.place});
}

}  // namespace

void readformula(const std::string& text, FormulaModel& model) {
  model.text = text;
  model.root = parseformula(text);
  model.outcome = &model.root.operands[0];
  const Expression& right = model.root.operands[1];
  if (isbar(right)) refuseformula(text, right.place, "A random part stands in parentheses: (1 | school/pupil).");
  Encoder encoder{model, model.fixed};
  encodeterms(encoder, right);
  const auto empty = [](const RandomPart& part) { return !part.terms.intercept && part.terms.terms.empty(); };
  if (!model.randoms.empty() && std::all_of(model.randoms.begin(), model.randoms.end(), empty))
    refuseformula(text, model.randoms[0].place, "Nothing is random here.");
}

std::vector<std::vector<bool>> indicatorcoded(const Terms& terms, const std::vector<bool>& factors) {
  std::vector<std::vector<bool>> coded;
  for (std::size_t t = 0; t < terms.terms.size(); ++t) {
    coded.emplace_back(terms.variables.size(), false);
    for (std::size_t v = 0; v < terms.variables.size(); ++v) {
      const Term margin = terms.terms[t] & ~(Term{1} << v);
      if (margin == terms.terms[t] || margin == 0) continue;
      coded[t][v] = std::none_of(terms.terms.begin(), terms.terms.begin() + static_cast<std::ptrdiff_t>(t),
                                 [&](Term before) { return (margin & ~before) == 0; });
    }
  }
  if (terms.intercept) return coded;
  // Without an intercept the first factor of all takes its place.
  for (std::size_t t = 0; t < terms.terms.size(); ++t)
    for (std::size_t v = 0; v < terms.variables.size(); ++v)
      if (factors[v] && (terms.terms[t] >> v & 1) != 0) {
        coded[t][v] = true;
        return coded;
      }
  return coded;
}

}  // namespace kdr
