#include "command/formula/equationlines.h"

#include <algorithm>

namespace kdr {

namespace {

std::string nameof(const EquationLines& lines, int level, int piece) {
  if (piece == interceptpiece) return "INTRCPT" + std::to_string(level);
  return lines.names[level - 1][static_cast<std::size_t>(piece)];
}

std::string side(const std::vector<std::string>& terms, bool random) {
  std::string text;
  for (const std::string& term : terms) text.append(text.empty() ? "" : "+").append(term);
  if (random) text += text.empty() ? "RANDOM" : "+RANDOM";
  return text;
}

void addset(const EquationLines& lines, const std::vector<CoefficientTerms>& tree, std::vector<std::string>& text) {
  std::vector<std::string> level1;
  for (const CoefficientTerms& coefficient : tree) level1.push_back(nameof(lines, 1, coefficient.piece));
  if (!lines.multinomial)
    for (int c = 2; c < lines.categories; ++c) level1.push_back("THOLD" + std::to_string(c));
  text.push_back("LEVEL1:" + lines.outcome + "=" + side(level1, true));
  for (const CoefficientTerms& coefficient : tree) {
    std::vector<std::string> level2;
    for (const Level2Term& term : coefficient.terms) level2.push_back(nameof(lines, 2, term.piece));
    text.push_back("LEVEL2:" + level1[static_cast<std::size_t>(&coefficient - tree.data())] + "=" +
                   side(level2, coefficient.random) + "/");
    if (lines.twolevel) continue;
    for (const Level2Term& term : coefficient.terms) {
      std::vector<std::string> level3;
      for (const int piece : term.terms) level3.push_back(nameof(lines, 3, piece));
      text.push_back("LEVEL3:" + nameof(lines, 2, term.piece) + "=" + side(level3, term.random) + "/");
    }
  }
}

// The elements of tau row by row: those of effects in different blocks are 0.
std::string heldelements(const std::vector<std::size_t>& blocks) {
  std::string text;
  for (std::size_t i = 0; i < blocks.size(); ++i)
    for (std::size_t j = 0; j <= i; ++j)
      text.append(text.empty() ? "" : ",").append(blocks[i] == blocks[j] ? "E" : "0");
  return text;
}

}  // namespace

std::vector<std::string> equationlines(const EquationLines& lines) {
  const std::vector<CoefficientTerms> tree = lines.design->tree();
  std::vector<std::string> text;
  const int sets = lines.multinomial ? lines.categories - 1 : 1;
  for (int set = 0; set < sets; ++set) addset(lines, tree, text);
  if (lines.design->diagonal(2)) text.emplace_back("DIAGONALIZETAUPI:Y");
  if (lines.design->diagonal(3)) text.emplace_back("DIAGONALIZETAUBETA:Y");
  for (const int level : {2, 3})
    if (lines.design->partly(level))
      text.push_back("ESTTAU" + std::to_string(level) + ":" + heldelements(lines.design->blocksof(level)));
  for (int level = 0; level < 3; ++level)
    if (!lines.weights[level].empty())
      text.push_back("LEVEL" + std::to_string(level + 1) + "WEIGHT:" + lines.weights[level]);
  return text;
}

}  // namespace kdr
