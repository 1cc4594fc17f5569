#include "formula/design.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace kdr {

namespace {

// The parts that one variable brings into a term.
std::vector<ColumnPart> partsof(const Variable& variable, bool indicators) {
  std::vector<ColumnPart> parts;
  if (variable.factor) {
    for (std::size_t k = indicators ? 0 : 1; k < variable.names.levels.size(); ++k)
      parts.push_back({&variable, static_cast<int>(k), variable.name + variable.names.levels[k]});
    return parts;
  }
  for (std::size_t k = 0; k < variable.columns.size(); ++k)
    parts.push_back(
        {&variable, static_cast<int>(k), variable.name + (variable.columns.size() > 1 ? std::to_string(k + 1) : "")});
  return parts;
}

// Puts a piece into the list of its level, unless it is there.
int pieceof(std::vector<Piece>& pieces, const std::vector<ColumnPart>& parts) {
  if (parts.empty()) return interceptpiece;
  std::string name, shown;
  for (const ColumnPart& part : parts) {
    if (!name.empty()) name += ':';
    if (!shown.empty()) shown += ':';
    name += part.name;
    shown += part.variable->shown + part.name.substr(part.variable->name.size());
  }
  for (std::size_t i = 0; i < pieces.size(); ++i)
    if (pieces[i].name == name) return static_cast<int>(i);
  pieces.push_back({std::move(name), std::move(shown), parts});
  return static_cast<int>(pieces.size()) - 1;
}

struct Split {
  std::vector<ColumnPart> parts[3];
};

Split splitof(const ModelColumn& column) {
  Split split;
  for (const ColumnPart& part : column.parts) split.parts[part.variable->level].push_back(part);
  return split;
}

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

// Values of columns over the records of an order, a block of them at a time: [column][record of the block]. Records
// that lie far apart in memory are fetched column by column, many at once.
struct Blocks {
  static constexpr std::size_t length = 1024;
  const std::vector<ModelColumn>& columns;
  const std::vector<std::uint32_t>& order;
  std::vector<double> values = std::vector<double>(columns.size() * length);
  std::size_t first = 0, count = 0;  // places of the order that the block has

  [[nodiscard]] bool next() {
    first += count;
    count = std::min(length, order.size() - first);
    for (std::size_t j = 0; j < columns.size(); ++j) fill(columns[j].parts, values.data() + j * length);
    return count > 0;
  }
  void fill(const std::vector<ColumnPart>& parts, double* column) const {
    std::fill_n(column, count, 1.0);
    for (const ColumnPart& part : parts)
      for (std::size_t i = 0; i < count; ++i) column[i] *= part.at(order[first + i]);
  }
  [[nodiscard]] double at(std::size_t column, std::size_t i) const { return values[column * length + i]; }
};

}  // namespace

double valueat(const std::vector<ColumnPart>& parts, std::size_t record) {
  double value = 1.0;
  for (const ColumnPart& part : parts) value *= part.at(record);
  return value;
}

std::vector<ModelColumn> modelmatrix(FormulaData& data, const Terms& terms) {
  std::vector<const Variable*> variables;
  std::vector<bool> factors;
  for (const Expression* e : terms.variables) {
    variables.push_back(&variableof(data, *e));
    factors.push_back(variables.back()->factor);
  }
  const std::vector<std::vector<bool>> coded = indicatorcoded(terms, factors);
  std::vector<ModelColumn> columns;
  if (terms.intercept) columns.push_back({"(Intercept)", "(Intercept)", {}});
  for (std::size_t t = 0; t < terms.terms.size(); ++t) {
    std::vector<ModelColumn> product(1);
    for (std::size_t v = 0; v < variables.size(); ++v) {
      if ((terms.terms[t] >> v & 1) == 0) continue;
      std::vector<ModelColumn> longer;
      for (const ColumnPart& part : partsof(*variables[v], coded[t][v]))
        for (const ModelColumn& column : product) {
          longer.push_back(column);
          longer.back().name += (column.parts.empty() ? "" : ":") + part.name;
          longer.back().term = column.term + (column.parts.empty() ? "" : ":") + variables[v]->name;
          longer.back().parts.push_back(part);
        }
      product = std::move(longer);
    }
    columns.insert(columns.end(), product.begin(), product.end());
  }
  return columns;
}

// The columns are swept one after the other out of those behind them, S_jk - S_ji S_ik / S_ii; what is left of S_jj
// tells whether column j has something of its own. With an intercept each is taken from its mean on, which keeps the
// digits of those with a large one. S is scaled by its diagonal, so that no unit of measurement matters.
std::vector<bool> redundant(const std::vector<ModelColumn>& columns, const std::vector<std::uint32_t>& order) {
  const std::size_t n = columns.size();
  const bool intercept = n > 0 && columns[0].parts.empty();
  std::vector<double> row(n), mean(n), largest(n), S(n * n);
  for (Blocks block{columns, order}; block.next();)
    for (std::size_t j = 0; j < n; ++j)
      for (std::size_t i = 0; i < block.count; ++i) {
        mean[j] += block.at(j, i);
        largest[j] = std::max(largest[j], std::fabs(block.at(j, i)));
      }
  for (std::size_t j = 0; j < n; ++j) {
    const bool indicators = std::all_of(columns[j].parts.begin(), columns[j].parts.end(),
                                        [](const ColumnPart& part) { return part.variable->factor; });
    // An empty row of indicators stays empty.
    mean[j] = intercept && j > 0 && !indicators ? mean[j] / static_cast<double>(order.size()) : 0.0;
  }
  std::vector<std::size_t> filled;
  for (Blocks block{columns, order}; block.next();)
    for (std::size_t i = 0; i < block.count; ++i) {
      filled.clear();
      for (std::size_t j = 0; j < n; ++j) {
        row[j] = block.at(j, i) - mean[j];
        if (row[j] != 0.0) filled.push_back(j);
      }
      for (std::size_t a = 0; a < filled.size(); ++a)
        for (std::size_t b = a; b < filled.size(); ++b) S[filled[a] * n + filled[b]] += row[filled[a]] * row[filled[b]];
    }
  constexpr double nothing = 1e-11, rounding = 1e-24;
  std::vector<double> scale(n);
  std::vector<bool> without(n);
  for (std::size_t j = 0; j < n; ++j) {
    const double diagonal = S[j * n + j];
    const double floor = rounding * largest[j] * largest[j] * static_cast<double>(order.size());
    without[j] = !(diagonal > floor);
    scale[j] = without[j] ? 0.0 : 1.0 / std::sqrt(diagonal);
  }
  for (std::size_t j = 0; j < n; ++j)
    for (std::size_t k = j; k < n; ++k) S[j * n + k] *= scale[j] * scale[k];
  for (std::size_t i = 0; i < n; ++i) {
    without[i] = without[i] || !(S[i * n + i] > nothing);
    if (without[i]) continue;
    for (std::size_t j = i + 1; j < n; ++j) {
      const double factor = S[i * n + j] / S[i * n + i];
      if (factor == 0.0) continue;
      for (std::size_t k = j; k < n; ++k) S[j * n + k] -= factor * S[i * n + k];
    }
  }
  return without;
}

Design designof(FormulaData& data, const FormulaModel& model, const std::vector<ModelColumn>& fixed, std::size_t inner,
                std::optional<std::size_t> outer) {
  Design design;
  for (const ModelColumn& column : fixed) {
    const Split split = splitof(column);
    FixedEffect effect;
    effect.name = column.name;
    effect.term = column.term;
    effect.of = {pieceof(design.pieces[0], split.parts[0]), pieceof(design.pieces[1], split.parts[1])};
    effect.piece3 = pieceof(design.pieces[2], split.parts[2]);
    design.fixed.push_back(std::move(effect));
  }
  for (const RandomPart& part : model.randoms) {
    const std::vector<std::string>& names = data.groupings[inner].names;
    const bool ofinner = std::set<std::string>(part.group.begin(), part.group.end()) ==
                         std::set<std::string>(names.begin(), names.end());
    const int level = ofinner || !outer ? 2 : 3;
    RandomBlock block;
    for (const ModelColumn& column : modelmatrix(data, part.terms)) {
      const Split split = splitof(column);
      for (int at = level - 1; at < 3; ++at)
        if (!split.parts[at].empty())
          refuseformula(model.text, part.place,
                        split.parts[at][0].name + " does not vary within the units of " +
                            data.groupings[ofinner ? inner : *outer].shown +
                            ", so that its effect cannot vary between them.");
      const CoefficientPieces of{pieceof(design.pieces[0], split.parts[0]), pieceof(design.pieces[1], split.parts[1])};
      for (const RandomBlock& other : design.blocks[level - 2])
        if (std::find(other.begin(), other.end(), of) != other.end())
          refuseformula(model.text, part.place, column.name + " is random over these units in another part already.");
      block.push_back(of);
    }
    if (!block.empty()) design.blocks[level - 2].push_back(std::move(block));  // (0 | a:b) tells units alone
  }
  return design;
}

std::vector<CoefficientTerms> Design::tree() const {
  std::vector<CoefficientTerms> rows;
  for (const FixedEffect& effect : fixed) {
    std::vector<int>& terms = rowof(rowof(rows, effect.of.piece1).terms, effect.of.piece2).terms;
    terms.insert(std::upper_bound(terms.begin(), terms.end(), effect.piece3), effect.piece3);
  }
  for (const RandomBlock& block : blocks[0])
    for (const CoefficientPieces& of : block) rowof(rows, of.piece1).random = true;
  for (const RandomBlock& block : blocks[1])
    for (const CoefficientPieces& of : block) rowof(rowof(rows, of.piece1).terms, of.piece2).random = true;
  return rows;
}

std::size_t Design::effects(int level) const {
  std::size_t n = 0;
  for (const RandomBlock& block : blocks[level - 2]) n += block.size();
  return n;
}

RandomBlock Design::effectsof(int level) const {
  RandomBlock all;
  for (const RandomBlock& block : blocks[level - 2]) all.insert(all.end(), block.begin(), block.end());
  std::sort(all.begin(), all.end());
  return all;
}

std::vector<std::size_t> Design::blocksof(int level) const {
  std::vector<std::size_t> of;
  for (const CoefficientPieces& effect : effectsof(level))
    for (std::size_t b = 0; b < blocks[level - 2].size(); ++b)
      if (std::find(blocks[level - 2][b].begin(), blocks[level - 2][b].end(), effect) != blocks[level - 2][b].end())
        of.push_back(b);
  return of;
}

bool Design::diagonal(int level) const { return blocks[level - 2].size() > 1 && !partly(level); }

bool Design::partly(int level) const {
  return blocks[level - 2].size() > 1 && effects(level) > blocks[level - 2].size();
}

}  // namespace kdr
