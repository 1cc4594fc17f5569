#include "report/residual/columns.h"

#include <algorithm>
#include <cctype>
#include <set>

#include "driver/runrecord.h"
#include "report/modelrows.h"

namespace kdr {

namespace {

constexpr std::size_t shortwidth = 8;
constexpr std::size_t longwidth = 64;  // of an SPSS name

std::string upper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

// Names already given in one form; the packages do not tell upper and lower case apart.
struct Given {
  std::set<std::string> names;
  std::string take(const std::string& wanted, std::size_t width) {
    std::string name = wanted.substr(0, width);
    for (int n = 1; !names.insert(upper(name)).second; ++n) {
      std::string suffix(1, '_');
    suffix += std::to_string(n);
      name = wanted.substr(0, width - suffix.size()) + suffix;
    }
    return name;
  }
};

// What a column would be called in the text forms and in the SPSS form if no other had the name.
struct Wanted {
  ColumnGroup group;
  std::string text;
  std::string shortname;
  std::string full;  // empty: the short name is the full one
};
using WantedList = std::vector<Wanted>;

std::string number(int n) { return std::to_string(n); }
std::string word(int level, int variable) {
  const auto at = static_cast<std::size_t>(variable);
  return wordof((level == 1 ? run.mdm.names1 : level == 2 ? run.mdm.names2 : run.mdm.names3)[at]);
}

// Prefix of the names of a random effect of equation set `set`: its category, where sets stand side by side.
std::string categoryprefix(int set) {
  const auto at = static_cast<std::size_t>(set);
  if (!multinomialrun() || at >= run.kind.categorylabel.size()) return {};
  return wordof(run.kind.categorylabel[at]);
}
std::string setprefix(int set) { return multinomialrun() ? number(set + 1) : std::string(); }

void addfit(WantedList& list) {
  if (run.kind.nonlin != 3) {
    list.push_back({ColumnGroup::fit, "L1RESID", "L1RESID", {}});
    list.push_back({ColumnGroup::fit, "FITVAL", "FITVAL", {}});
  } else {
    for (int c = 1; c < run.kind.ncat; ++c)
      list.push_back({ColumnGroup::fit, "L1RES_" + number(c), "L1RES_" + number(c), {}});
    for (int c = 1; c < run.kind.ncat; ++c)
      list.push_back({ColumnGroup::fit, "FITVAL_" + number(c), "FITVAL" + number(c), {}});
  }
  list.push_back({ColumnGroup::fit, "SIGMA", "SIGMA", {}});
}

void addchosen(WantedList& list, int level, const Array<int>& variables, int n) {
  for (int i = 0; i < n; ++i) {
    const std::string name = word(level, variables[static_cast<std::size_t>(i)]);
    list.push_back({ColumnGroup::chosen, name, name, {}});
  }
}

// The name of a random effect or of a coefficient: for the text forms and in full.
struct Effect {
  int set;
  std::string text, full;     // with what tells the categories apart
  std::string indices;        // its numbers in the name of a posterior variance
  std::string joinedindices;  // the same with "_" between
};

// EB and OL: prefix and name, in SPSS the number of the column.
void addresiduals(WantedList& list, ColumnGroup group, const char* prefix, const std::vector<Effect>& effects) {
  for (std::size_t i = 0; i < effects.size(); ++i)
    list.push_back({group, prefix + effects[i].text, prefix + std::to_string(i), prefix + effects[i].full});
}

void addcoefficients(WantedList& list, ColumnGroup group, const char* prefix, const std::vector<Effect>& coefficients) {
  for (const Effect& coefficient : coefficients) {
    const std::string full = prefix + coefficient.full;
    list.push_back({group, full.substr(0, shortwidth), full.substr(0, shortwidth), full});
  }
}

void addvariances(WantedList& list, int level, const std::vector<Effect>& effects) {
  const std::string head = "PV" + number(level);
  std::size_t place = 0;
  for (std::size_t i = 0; i < effects.size(); ++i)
    for (std::size_t j = 0; j <= i; ++j, ++place) {
      const std::string shortname = "PV" + std::to_string(place);
      if (multinomialrun()) {
        const std::string category = categoryprefix(effects[i].set), row = std::to_string(i), col = std::to_string(j);
        list.push_back(
            {ColumnGroup::PV, head + category + row + col, shortname, head + "_" + category + "_" + row + "_" + col});
      } else {
        list.push_back({ColumnGroup::PV, head + effects[i].indices + effects[j].indices, shortname,
                        head + "_" + effects[i].joinedindices + "_" + effects[j].joinedindices});
      }
    }
}

void addunitgroups(WantedList& list, int level, const std::vector<Effect>& random,
                   const std::vector<Effect>& coefficients) {
  addresiduals(list, ColumnGroup::EB, "EB", random);
  addresiduals(list, ColumnGroup::OL, "OL", random);
  addcoefficients(list, ColumnGroup::FV, "FV", coefficients);
  addcoefficients(list, ColumnGroup::EC, "EC", coefficients);
  addvariances(list, level, random);
}

void addlevel2(WantedList& list) {
  std::vector<Effect> random, all;
  for (const CoefficientRow& coefficient : modelrows().coefficients) {
    if (coefficient.threshold) continue;
    const std::string name = word(1, coefficient.variable), category = categoryprefix(coefficient.set);
    const std::size_t room = category.empty() ? 6 : 5;
    const std::string subscript = number(coefficient.subscript);
    all.push_back({coefficient.set, {}, setprefix(coefficient.set) + name, {}, {}});
    if (coefficient.random)
      random.push_back({coefficient.set, category + name.substr(0, room), category + name, subscript, subscript});
  }
  addunitgroups(list, 2, random, all);
}

void addlevel3(WantedList& list) {
  std::vector<Effect> random, all;
  const ModelRows rows = modelrows();
  for (const TermRow& term : rows.terms) {
    const CoefficientRow& owner = rows.coefficients[static_cast<std::size_t>(term.owner)];
    const std::string indices = termdigits(rows, term);
    all.push_back({owner.set, {}, setprefix(owner.set) + indices, {}, {}});
    if (!term.random) continue;
    const std::string name = categoryprefix(owner.set) + indices;
    random.push_back({owner.set, name, name, indices, number(owner.subscript) + "_" + number(term.subscript)});
  }
  addunitgroups(list, 3, random, all);
}

}  // namespace

std::string wordof(const Name& name) {
  const std::string text(name.text, std::find(name.text, name.text + sizeof name.text, '\0'));
  const std::size_t first = text.find_first_not_of(' ');
  if (first == std::string::npos) return {};
  return text.substr(first, std::min(text.find(' ', first) - first, shortwidth));
}

std::vector<const ResidualColumn*> ResidualColumns::of(ColumnGroup group) const {
  std::vector<const ResidualColumn*> members;
  for (const ResidualColumn& column : columns)
    if (column.group == group) members.push_back(&column);
  return members;
}

int ResidualColumns::number(ColumnGroup group) const { return static_cast<int>(of(group).size()); }

ResidualColumns residualcolumns(int level) {
  const ModelSpec& model = run.model;
  WantedList list;
  if (level == 1) {
    addfit(list);
    addchosen(list, 1, model.res1vars1, model.nres1vars1);
    addchosen(list, 2, model.res1vars2, model.nres1vars2);
    addchosen(list, 3, model.res1vars3, model.nres1vars3);
  } else if (level == 2) {
    addlevel2(list);
    addchosen(list, 2, model.res2vars2, model.nres2vars2);
    addchosen(list, 3, model.res2vars3, model.nres2vars3);
  } else {
    addlevel3(list);
    addchosen(list, 3, model.res3vars3, model.nres3vars3);
  }

  ResidualColumns columns;
  columns.level = level;
  columns.textids = !run.mdm.numericids;
  Given text, stata, shorts;
  for (Given* given : {&text, &stata, &shorts}) {
    given->take("L3ID", shortwidth);
    if (level < 3) given->take("L2ID", shortwidth);
    if (level > 1) given->take(columns.countname(), shortwidth);
  }
  for (const Wanted& wanted : list) {
    ResidualColumn column{wanted.group,
                          text.take(wanted.text, std::max(shortwidth, wanted.text.size())),
                          stata.take(wanted.text, shortwidth),
                          shorts.take(wanted.shortname, shortwidth),
                          {}};
    columns.columns.push_back(column);
  }
  // A reader of the SPSS form renames column by column, so a full name must not be the short one of another column.
  Given longs = shorts;
  for (std::size_t i = 0; i < list.size(); ++i) {
    ResidualColumn& column = columns.columns[i];
    if (!list[i].full.empty() && list[i].full != column.shortname)
      column.longname = longs.take(list[i].full, longwidth);
  }
  return columns;
}

}  // namespace kdr
