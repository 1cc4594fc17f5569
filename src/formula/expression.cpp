#include "formula/expression.h"

#include <algorithm>
#include <cctype>
#include <optional>
#include <utility>

#include "core/formatted.h"
#include "core/names.h"
#include "core/numbers.h"

namespace kdr {

namespace {

constexpr std::size_t longest = 8000;  // bytes of a formula
constexpr int deepest = 200;           // expressions within each other

// The operators between two operands: a higher rank binds more. Those of one rank go from the left, but ^ from the
// right. A sign before an operand has the rank of `signrank`, ! that of `notrank`.
struct Operator {
  const char* word;
  int rank;
  bool blanks;  // R writes blanks around it
};
constexpr Operator operators[] = {
    {"~", 1, true},  {"||", 2, true}, {"|", 2, true},  {"&&", 3, true}, {"&", 3, true},    {"==", 5, true},
    {"!=", 5, true}, {"<=", 5, true}, {">=", 5, true}, {"<", 5, true},  {">", 5, true},    {"+", 6, true},
    {"-", 6, true},  {"*", 7, true},  {"/", 7, false}, {":", 9, false}, {"**", 11, false}, {"^", 11, false},
};
constexpr int notrank = 4, signrank = 10, powerrank = 11;

const Operator* operatorat(std::string_view text) {
  for (const Operator& op : operators)
    if (text.starts_with(op.word)) return &op;
  return nullptr;
}

bool beginsname(char c) {
  return std::isalpha(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '_' || static_cast<signed char>(c) < 0;
}
bool goeson(char c) { return beginsname(c) || std::isdigit(static_cast<unsigned char>(c)) != 0; }
bool isdigitat(std::string_view text, std::size_t at) {
  return at < text.size() && std::isdigit(static_cast<unsigned char>(text[at])) != 0;
}

struct Parser {
  const std::string& formula;
  std::size_t at = 0;
  int depth = 0;

  [[noreturn]] void refuse(const Place& place, const std::string& words) const { refuseformula(formula, place, words); }
  [[noreturn]] void refusehere(const std::string& words) const {
    refuse({at, std::min(at + 1, formula.size())}, words);
  }
  void skipblanks() {
    while (at < formula.size() && std::isspace(static_cast<unsigned char>(formula[at])) != 0) ++at;
  }
  [[nodiscard]] std::string_view rest() const { return std::string_view(formula).substr(at); }
  bool take(char c) {
    skipblanks();
    if (at >= formula.size() || formula[at] != c) return false;
    ++at;
    return true;
  }
};

Expression expression(Parser& parser, int lowest);

// Text between quotes, or a name between backticks; a backslash makes the next character one of the text.
std::string quotedtext(Parser& parser, std::size_t begin) {
  const char quote = parser.formula[begin];
  std::string text;
  for (parser.at = begin + 1; parser.at < parser.formula.size(); ++parser.at) {
    char c = parser.formula[parser.at];
    if (c == quote) {
      ++parser.at;
      return text;
    }
    if (c == '\\' && parser.at + 1 < parser.formula.size()) c = parser.formula[++parser.at];
    text += c;
  }
  parser.refuse({begin, begin + 1}, "This quote is never closed.");
}

Expression number(Parser& parser) {
  Expression e;
  const std::size_t begin = parser.at;
  const std::string& text = parser.formula;
  std::size_t& at = parser.at;
  while (isdigitat(text, at) || (at < text.size() && text[at] == '.')) ++at;
  if (at < text.size() && (text[at] == 'e' || text[at] == 'E')) {
    const std::size_t sign = at + 1 < text.size() && (text[at + 1] == '-' || text[at + 1] == '+') ? 2 : 1;
    if (isdigitat(text, at + sign))
      for (at += sign; isdigitat(text, at);) ++at;
  }
  e.place = {begin, at};
  const std::optional<double> value = realof(std::string_view(text).substr(begin, at - begin));
  if (!value || (at < text.size() && goeson(text[at]))) {
    while (at < text.size() && goeson(text[at])) ++at;
    parser.refuse({begin, at},
                  "This is neither a number nor a name. A name that begins with a digit stands between "
                  "backticks: `2nd`.");
  }
  e.value = *value;
  return e;
}

void arguments(Parser& parser, Expression& call) {
  const std::size_t open = parser.at - 1;
  if (parser.take(')')) return;
  do {
    parser.skipblanks();
    const std::size_t begin = parser.at;
    std::string name;
    if (begin < parser.formula.size() && beginsname(parser.formula[begin])) {
      std::size_t end = begin;
      while (end < parser.formula.size() && goeson(parser.formula[end])) ++end;
      parser.at = end;
      if (parser.take('=') && !parser.rest().starts_with("=")) {
        name = parser.formula.substr(begin, end - begin);
      } else {
        parser.at = begin;
      }
    }
    call.named.push_back(std::move(name));
    call.operands.push_back(expression(parser, 1));
  } while (parser.take(','));
  if (!parser.take(')')) {
    if (parser.at < parser.formula.size()) parser.refusehere("A comma, an operator or ) is due here.");
    parser.refuse({open, open + 1}, "This parenthesis is never closed.");
  }
}

Expression nameorcall(Parser& parser) {
  Expression e;
  e.part = Part::name;
  const std::size_t begin = parser.at;
  if (parser.formula[begin] == '`') {
    e.word = quotedtext(parser, begin);
    if (e.word.empty()) parser.refuse({begin, parser.at}, "There is no name between these backticks.");
  } else {
    while (parser.at < parser.formula.size() && goeson(parser.formula[parser.at])) ++parser.at;
    e.word = parser.formula.substr(begin, parser.at - begin);
  }
  e.place = {begin, parser.at};
  if (!parser.take('(')) {
    parser.at = e.place.end;
    return e;
  }
  e.part = Part::call;
  arguments(parser, e);
  e.place.end = parser.at;
  return e;
}

Expression operand(Parser& parser) {
  parser.skipblanks();
  const std::size_t begin = parser.at;
  if (begin == parser.formula.size()) parser.refuse({begin, begin}, "The formula ends here, where something is due.");
  const char c = parser.formula[begin];
  Expression e;
  if (isdigitat(parser.formula, begin) || (c == '.' && isdigitat(parser.formula, begin + 1))) return number(parser);
  if (c == '`' || beginsname(c)) return nameorcall(parser);
  if (c == '"' || c == '\'') {
    e.part = Part::text;
    e.word = quotedtext(parser, begin);
  } else if (c == '(') {
    ++parser.at;
    e.part = Part::parentheses;
    e.operands.push_back(expression(parser, 1));
    if (!parser.take(')')) {
      if (parser.at < parser.formula.size()) parser.refusehere("An operator or ) is due here.");
      parser.refuse({begin, begin + 1}, "This parenthesis is never closed.");
    }
  } else if (c == '+' || c == '-' || c == '!') {
    ++parser.at;
    e.part = Part::sign;
    e.word = c;
    e.operands.push_back(expression(parser, c == '!' ? notrank : signrank));
  } else {
    parser.refusehere(c == ')' ? "Something is due before this parenthesis."
                               : "A name, a number or a parenthesis is due here.");
  }
  e.place = {begin, parser.at};
  return e;
}

// An operand, and the operators of this rank or higher behind it.
Expression expression(Parser& parser, int lowest) {
  if (++parser.depth > deepest) parser.refusehere("There are too many parentheses within each other.");
  Expression left = operand(parser);
  for (;;) {
    parser.skipblanks();
    const Operator* op = operatorat(parser.rest());
    if (op == nullptr || op->rank < lowest) break;
    const Place at{parser.at, parser.at + std::string_view(op->word).size()};
    if (op->rank == 1 && left.part == Part::operation && left.word == "~") parser.refuse(at, "A formula has one ~.");
    parser.at = at.end;
    Expression both;
    both.part = Part::operation;
    both.word = op->rank == powerrank ? "^" : op->word;
    Expression right = expression(parser, op->rank == powerrank ? op->rank : op->rank + 1);
    both.place = {left.place.begin, right.place.end};
    both.operands.push_back(std::move(left));
    both.operands.push_back(std::move(right));
    left = std::move(both);
  }
  --parser.depth;
  return left;
}

std::string numbertext(double value) { return formatted("%.15g", value); }

std::string nametext(const std::string& name) {
  const bool plain = !name.empty() && beginsname(name[0]) && std::all_of(name.begin(), name.end(), goeson);
  return plain ? name : std::string(1, '`') + name + "`";
}

std::string texttext(const std::string& text) {
  std::string shown = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') shown += '\\';
    shown += c;
  }
  return shown + "\"";
}

}  // namespace

const Expression& bare(const Expression& e) {
  const Expression* inner = &e;
  while (inner->part == Part::parentheses) inner = inner->operands.data();
  return *inner;
}

Expression parseformula(const std::string& formula) {
  Parser parser{formula};
  if (formula.size() > longest) refuse(formatted("A formula has at most %zu characters.", longest));
  if (formula.find_first_not_of(" \t\r\n") == std::string::npos)
    refuse("The formula is empty. It looks like 'score ~ year + (1 | school/pupil)'.");
  Expression root = expression(parser, 1);
  if (parser.at < formula.size()) {
    const char c = formula[parser.at];
    parser.refusehere(c == ')'   ? "This parenthesis was never opened."
                      : c == '=' ? "A formula has ~ where this = stands; a comparison has ==."
                                 : "An operator (+ - * : ^ /) is due here. A name with blanks or signs stands between "
                                   "backticks: `my name`.");
  }
  if (!isoperation(root, "~"))
    refuseformula(formula, root.place,
                  "There is no ~ in the formula. It looks like 'score ~ year + (1 | school/pupil)'.");
  return root;
}

std::string deparsed(const Expression& e) {
  switch (e.part) {
    case Part::number:
      return numbertext(e.value);
    case Part::text:
      return texttext(e.word);
    case Part::name:
      return nametext(e.word);
    case Part::parentheses:
      return std::string(1, '(') + deparsed(e.operands[0]) + ")";
    case Part::sign:
      return e.word + deparsed(e.operands[0]);
    case Part::operation: {
      const Operator* op = operatorat(e.word);
      const char* blank = op->blanks ? " " : "";
      return deparsed(e.operands[0]) + blank + e.word + blank + deparsed(e.operands[1]);
    }
    case Part::call:
      break;
  }
  std::string text = nametext(e.word) + "(";
  for (std::size_t i = 0; i < e.operands.size(); ++i)
    text += (i > 0 ? ", " : "") + (e.named[i].empty() ? "" : e.named[i] + " = ") + deparsed(e.operands[i]);
  return text + ")";
}

void refuse(std::string words) { throw Refusal{std::move(words)}; }

void refuseformula(const std::string& formula, const Place& place, const std::string& words) {
  constexpr std::size_t before = 60, behind = 60;  // bytes that are shown around the place
  const auto within = [&](std::size_t at) {        // no part of a character
    while (at > 0 && at < formula.size() && (static_cast<unsigned char>(formula[at]) & 0xC0U) == 0x80U) --at;
    return std::min(at, formula.size());
  };
  const std::size_t from = within(place.begin > before ? place.begin - before : 0);
  const std::size_t end = std::max(place.end, place.begin);
  const std::size_t to = within(end + behind < formula.size() ? end + behind : formula.size());
  const std::string lead = from > 0 ? "... " : "";
  const std::string_view text(formula);
  const std::size_t carets = charactersof(text.substr(place.begin, std::min(end, to) - place.begin));
  refuse(formatted("%s\n  %s%s%s\n  %s%s", printable(words).c_str(), lead.c_str(),
                   printable(text.substr(from, to - from)).c_str(), to < formula.size() ? " ..." : "",
                   std::string(lead.size() + charactersof(text.substr(from, place.begin - from)), ' ').c_str(),
                   std::string(std::max<std::size_t>(carets, 1), '^').c_str()));
}

}  // namespace kdr
