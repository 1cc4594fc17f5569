#include "report/residual/columns.h"

#include <algorithm>
#include <cctype>
#include <set>

#include "core/formatted.h"
#include "driver/runrecord.h"
#include "estimate/likelihood/engines.h"
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
struct WantedName {
  ColumnGroup group;
  int place, level;  // as in ResidualColumn
  std::string text;
  std::string shortname;
  std::string full;  // empty: the short name is the full one
  std::string label;
};
using WantedList = std::vector<WantedName>;

std::string number(int n) { return std::to_string(n); }

// The first blank-delimited word, at most 8 characters of it.
std::string firstword(const std::string& text) {
  const std::size_t first = text.find_first_not_of(' ');
  if (first == std::string::npos) return {};
  return text.substr(first, std::min(text.find(' ', first) - first, shortwidth));
}
std::string word(int level, int variable) {
  const Array<Name>& names = level == 1 ? run.mdm.names1 : level == 2 ? run.mdm.names2 : run.mdm.names3;
  return firstword(names[static_cast<std::size_t>(variable)].text);
}

// What the source says of a variable, or nothing.
std::string labelof(int level, int variable) {
  const VariableText* text = run.mdm.texts.of(level, variable);
  if (text == nullptr) return {};
  return text->label.empty() ? text->name : text->name + ": " + text->label;
}

std::string wholename(int level, int variable) {
  const VariableText* text = run.mdm.texts.of(level, variable);
  return text == nullptr ? std::string() : text->name;
}

// Prefix of the names of a random effect of equation set `set`: its category, where sets stand side by side.
std::string categoryprefix(int set) {
  std::string prefix = multinomialrun() ? firstword(categorylabel(set)) : std::string();
  for (char& c : prefix)
    if (std::isalnum(static_cast<unsigned char>(c)) == 0) c = '_';  // a sign or a point is no letter of a name
  return prefix;
}
std::string setprefix(int set) { return multinomialrun() ? number(set + 1) : std::string(); }

// Whether the level-1 file has what only runs with engines have: on the scale of the outcome, with categories on that
// of the link, and Pearson residuals.
bool withresponse() { return !run.model.outcome.linear() && residualsofengine(); }

void addfit(WantedList& list) {
  const auto add = [&](const std::string& text, const std::string& shortname) {
    list.push_back({ColumnGroup::fit, static_cast<int>(list.size()), 0, text, shortname, {}, {}});
  };
  const auto each = [&](const std::string& text, const std::string& shortname) {
    for (int c = 1; c < run.model.outcome.categories; ++c) add(text + number(c), shortname + number(c));
  };
  const bool categorical = run.model.outcome.categorical();
  if (!categorical) {
    add("L1RESID", "L1RESID");
    add("FITVAL", "FITVAL");
  } else {
    each("L1RES_", "L1RES_");
    each("FITVAL_", "FITVAL");
  }
  add("SIGMA", "SIGMA");
  if (!withresponse()) return;
  if (!categorical) {
    for (const char* name : {"FITMU", "RAWRES", "PEARSON"}) add(name, name);
  } else {
    each("ETA_", "ETA_");
    each("PEARS_", "PEARS_");
  }
}

void addchosen(WantedList& list, int level, const Array<int>& variables, int n) {
  for (int i = 0; i < n; ++i) {
    const int variable = variables[static_cast<std::size_t>(i)];
    const std::string name = word(level, variable);
    list.push_back({ColumnGroup::chosen, variable - 1, level, name, name, {}, labelof(level, variable)});
  }
}

// The name of a random effect or of a coefficient: for the text forms and in full.
struct Effect {
  int set;
  int place;                  // among all of the model, as its fitted value stands
  std::string text, full;     // with what tells the categories apart
  std::string indices;        // its numbers in the name of a posterior variance
  std::string joinedindices;  // the same with "_" between
  std::string variables;      // whole names, where the source has them
};

std::string labelwith(const char* prefix, const Effect& effect) {
  return effect.variables.empty() ? std::string() : std::string(prefix) + " " + effect.variables;
}

// EB and OL: prefix and name, in SPSS the number of the column.
void addresiduals(WantedList& list, ColumnGroup group, const char* prefix, const std::vector<Effect>& effects) {
  for (std::size_t i = 0; i < effects.size(); ++i)
    list.push_back({group, static_cast<int>(i), 0, prefix + effects[i].text, prefix + std::to_string(i),
                    prefix + effects[i].full, labelwith(prefix, effects[i])});
}

void addcoefficients(WantedList& list, ColumnGroup group, const char* prefix, const std::vector<Effect>& coefficients) {
  for (const Effect& coefficient : coefficients) {
    const std::string full = prefix + coefficient.full;
    list.push_back({group, coefficient.place, 0, full.substr(0, shortwidth), full.substr(0, shortwidth), full,
                    labelwith(prefix, coefficient)});
  }
}

void addvariances(WantedList& list, int level, const std::vector<Effect>& effects) {
  const std::string head = "PV" + number(level);
  int place = 0;
  for (std::size_t i = 0; i < effects.size(); ++i)
    for (std::size_t j = 0; j <= i; ++j, ++place) {
      std::string text = effects[i].indices + effects[j].indices;
      std::string full = effects[i].joinedindices + "_" + effects[j].joinedindices;
      if (multinomialrun()) {
        const std::string category = categoryprefix(effects[i].set), row = std::to_string(i), col = std::to_string(j);
        text = category + row + col;
        full = category + "_" + row + "_" + col;
      }
      list.push_back({ColumnGroup::PV, place, 0, head + text, "PV" + number(place), head + "_" + full, {}});
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
  int place = -1;
  for (const CoefficientRow& coefficient : modelrows(run.model).coefficients) {
    ++place;
    if (coefficient.threshold) continue;
    const std::string name = word(1, coefficient.variable), category = categoryprefix(coefficient.set);
    const std::size_t room = category.empty() ? 6 : 5;
    const std::string subscript = number(coefficient.subscript);
    const std::string whole = wholename(1, coefficient.variable);
    all.push_back({coefficient.set, place, {}, setprefix(coefficient.set) + name, {}, {}, whole});
    if (coefficient.random)
      random.push_back(
          {coefficient.set, place, category + name.substr(0, room), category + name, subscript, subscript, whole});
  }
  addunitgroups(list, 2, random, all);
}

void addlevel3(WantedList& list) {
  std::vector<Effect> random, all;
  const ModelRows rows = modelrows(run.model);
  int place = -1;
  for (const TermRow& term : rows.terms) {
    ++place;
    const CoefficientRow& owner = rows.owner(term);
    if (owner.threshold) continue;
    const std::string indices = termdigits(rows, term);
    std::string whole = wholename(1, owner.variable);
    if (const std::string second = wholename(2, term.variable); !second.empty())
      whole = whole.empty() ? second : whole + ":" + second;
    all.push_back({owner.set, place, {}, setprefix(owner.set) + indices, {}, {}, whole});
    if (!term.random) continue;
    const std::string name = categoryprefix(owner.set) + indices;
    random.push_back(
        {owner.set, place, name, name, indices, number(owner.subscript) + "_" + number(term.subscript), whole});
  }
  addunitgroups(list, 3, random, all);
}

}  // namespace

std::vector<const ResidualColumn*> ResidualColumns::of(ColumnGroup group) const {
  std::vector<const ResidualColumn*> members;
  for (const ResidualColumn& column : columns)
    if (column.group == group) members.push_back(&column);
  return members;
}

int ResidualColumns::number(ColumnGroup group) const { return static_cast<int>(of(group).size()); }

std::string ResidualColumns::idtext(int which, const Id& id) const {
  const std::string* whole = run.mdm.texts.wholeid(3 - which, id, run.mdm.numericids);
  return whole != nullptr ? *whole : run.mdm.numericids ? formatted("%.0f", id.number) : id.text.text;
}

bool residualsofengine() { return lastengine(run.control).has_value() && run.out.resfilof == ResidualsOf::engine; }

ResidualColumns residualcolumns(int level) {
  WantedList list;
  if (level == 1) {
    addfit(list);
    addchosen(list, 1, run.out.res1vars1, run.out.nres1vars1);
    addchosen(list, 2, run.out.res1vars2, run.out.nres1vars2);
    addchosen(list, 3, run.out.res1vars3, run.out.nres1vars3);
    if (run.out.resfilrecnum) list.push_back({ColumnGroup::record, 0, 0, "RECNUM", "RECNUM", {}, {}});
  } else if (level == 2) {
    addlevel2(list);
    addchosen(list, 2, run.out.res2vars2, run.out.nres2vars2);
    addchosen(list, 3, run.out.res2vars3, run.out.nres2vars3);
  } else {
    addlevel3(list);
    addchosen(list, 3, run.out.res3vars3, run.out.nres3vars3);
  }

  ResidualColumns columns;
  columns.level = level;
  columns.response = level == 1 && withresponse();
  columns.withid3 = !run.mdm.twolevel();
  for (const int which : {0, 1}) {
    const std::vector<std::string>& whole = run.mdm.texts.ids[1 - which];
    columns.textid[which] = !run.mdm.numericids || !whole.empty();
    for (const std::string& id : whole) columns.idwidth[which] = std::max(columns.idwidth[which], id.size());
  }
  Given text, stata, shorts;
  for (Given* given : {&text, &stata, &shorts}) {
    columns.eachid([&](int which) { given->take(ResidualColumns::idname(which), shortwidth); });
    if (level > 1) given->take(columns.countname(), shortwidth);
  }
  for (const WantedName& wanted : list) {
    ResidualColumn column{wanted.group,
                          wanted.place,
                          wanted.level,
                          text.take(wanted.text, std::max(shortwidth, wanted.text.size())),
                          stata.take(wanted.text, shortwidth),
                          shorts.take(wanted.shortname, shortwidth),
                          {},
                          wanted.label};
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
