#include "command/formula/equationlines.h"

#include <algorithm>

namespace kdr {

namespace {

// A level-2 coefficient: its level-3 line.
struct Term2 {
  int piece = interceptpiece;
  std::vector<int> terms;  // level-3 pieces
  bool random = false;
};
// A level-1 coefficient: its level-2 line.
struct Coefficient {
  int piece = interceptpiece;
  std::vector<Term2> terms;
  bool random = false;
};

// Intercept first, then in the order of the pieces.
template <class Row>
Row& rowof(std::vector<Row>& rows, int piece) {
  auto at = std::lower_bound(rows.begin(), rows.end(), piece, [](const Row& row, int p) { return row.piece < p; });
  if (at == rows.end() || at->piece != piece) {
    at = rows.insert(at, Row{});
    at->piece = piece;
  }
  return *at;
}

std::vector<Coefficient> treeof(const Design& design) {
  std::vector<Coefficient> tree;
  for (const FixedEffect& effect : design.fixed) {
    std::vector<int>& terms = rowof(rowof(tree, effect.of.piece1).terms, effect.of.piece2).terms;
    terms.insert(std::upper_bound(terms.begin(), terms.end(), effect.piece3), effect.piece3);
  }
  for (const RandomBlock& block : design.blocks[0])
    for (const CoefficientPieces& of : block) rowof(tree, of.piece1).random = true;
  for (const RandomBlock& block : design.blocks[1])
    for (const CoefficientPieces& of : block) rowof(rowof(tree, of.piece1).terms, of.piece2).random = true;
  return tree;
}

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

void addset(const EquationLines& lines, const std::vector<Coefficient>& tree, std::vector<std::string>& text) {
  std::vector<std::string> level1;
  for (const Coefficient& coefficient : tree) level1.push_back(nameof(lines, 1, coefficient.piece));
  if (!lines.multinomial)
    for (int c = 2; c < lines.categories; ++c) level1.push_back("THOLD" + std::to_string(c));
  text.push_back("LEVEL1:" + lines.outcome + "=" + side(level1, true));
  for (const Coefficient& coefficient : tree) {
    std::vector<std::string> level2;
    for (const Term2& term : coefficient.terms) level2.push_back(nameof(lines, 2, term.piece));
    text.push_back("LEVEL2:" + level1[static_cast<std::size_t>(&coefficient - tree.data())] + "=" +
                   side(level2, coefficient.random) + "/");
    if (lines.twolevel) continue;
    for (const Term2& term : coefficient.terms) {
      std::vector<std::string> level3;
      for (const int piece : term.terms) level3.push_back(nameof(lines, 3, piece));
      text.push_back("LEVEL3:" + nameof(lines, 2, term.piece) + "=" + side(level3, term.random) + "/");
    }
  }
}

std::size_t sizeof2(const std::vector<RandomBlock>& blocks) {
  std::size_t n = 0;
  for (const RandomBlock& block : blocks) n += block.size();
  return n;
}

bool partly(const std::vector<RandomBlock>& blocks) { return blocks.size() > 1 && sizeof2(blocks) > blocks.size(); }

// The elements of tau row by row: those of effects in different blocks are 0.
std::string heldelements(const std::vector<RandomBlock>& blocks) {
  std::vector<std::pair<CoefficientPieces, std::size_t>> effects;
  for (std::size_t b = 0; b < blocks.size(); ++b)
    for (const CoefficientPieces& of : blocks[b]) effects.emplace_back(of, b);
  std::sort(effects.begin(), effects.end(), [](const auto& a, const auto& b) {
    return a.first.piece1 != b.first.piece1 ? a.first.piece1 < b.first.piece1 : a.first.piece2 < b.first.piece2;
  });
  std::string text;
  for (std::size_t i = 0; i < effects.size(); ++i)
    for (std::size_t j = 0; j <= i; ++j)
      text.append(text.empty() ? "" : ",").append(effects[i].second == effects[j].second ? "E" : "0");
  return text;
}

}  // namespace

std::size_t EquationLines::effects(int level) const { return sizeof2(design->blocks[level - 2]); }

bool EquationLines::diagonal(int level) const {
  const std::vector<RandomBlock>& blocks = design->blocks[level - 2];
  return blocks.size() > 1 && !partly(blocks);
}

bool EquationLines::restricted() const { return partly(design->blocks[0]) || partly(design->blocks[1]); }

std::vector<std::string> equationlines(const EquationLines& lines) {
  const std::vector<Coefficient> tree = treeof(*lines.design);
  std::vector<std::string> text;
  const int sets = lines.multinomial ? lines.categories - 1 : 1;
  for (int set = 0; set < sets; ++set) addset(lines, tree, text);
  if (lines.diagonal(2)) text.emplace_back("DIAGONALIZETAUPI:Y");
  if (lines.diagonal(3)) text.emplace_back("DIAGONALIZETAUBETA:Y");
  for (const int level : {2, 3})
    if (partly(lines.design->blocks[level - 2]))
      text.push_back("ESTTAU" + std::to_string(level) + ":" + heldelements(lines.design->blocks[level - 2]));
  for (int level = 0; level < 3; ++level)
    if (!lines.weights[level].empty())
      text.push_back("LEVEL" + std::to_string(level + 1) + "WEIGHT:" + lines.weights[level]);
  return text;
}

}  // namespace kdr
