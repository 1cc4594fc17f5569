// A formula and a table become data and a model of the C interface.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <numeric>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "core/constants.h"
#include "core/formatted.h"
#include "formula/plan.h"
#include "formula/ranks.h"
#include "library/cells.h"
#include "library/handles.h"

// The plan keeps the values of the variables, for kdr3_formula_matrix.
struct kdr3_formula {
  kdr::FormulaPlan plan;
  kdr::EngineChoice engine;
  std::unique_ptr<kdr3_data> data;
  std::unique_ptr<kdr3_model> model;
  std::vector<std::string> words[KDR3_VARIABLES3 + 1];
  std::vector<std::size_t> unit2, unit3;  // of the records in their order
};

namespace kdr::library {

namespace {

std::string given(const char* text) { return text != nullptr ? text : ""; }

// Runs `work`; what the formula is refused with is an error.
template <class Work>
kdr3_status refusable(Work&& work) {
  return guarded([&]() -> kdr3_status {
    try {
      return work();
    } catch (const Refusal& refusal) {
      return error(refusal.words);
    }
  });
}

// The fields of an array whose structs have the size that the first one tells.
struct Fields {
  const kdr3_field* first;
  std::size_t count;
  [[nodiscard]] const kdr3_field& operator[](std::size_t i) const {
    return *reinterpret_cast<const kdr3_field*>(reinterpret_cast<const char*>(first) + i * first->size);
  }
};

bool named(const kdr3_field& field) { return field.labels != nullptr || field.type == KDR3_TEXT; }

std::string checkfields(const Fields& fields) {
  if (fields.first == nullptr || fields.count == 0) return "The table has no columns.";
  if (fields.first->size < sizeof(kdr3_field)) return "The size of a field is not set.";
  for (std::size_t c = 0; c < fields.count; ++c) {
    const kdr3_field& field = fields[c];
    if (field.name == nullptr || *field.name == '\0') return "Column " + std::to_string(c + 1) + " has no name.";
    if (field.values == nullptr) return "The column " + std::string(field.name) + " has no values.";
    if (field.type < KDR3_DOUBLE || field.type > KDR3_TEXT)
      return "The column " + std::string(field.name) + " is of no known type.";
  }
  return "";
}

kdr3_column columnof(const kdr3_field& field) {
  return {field.name, 1, field.type, field.values, field.stride, field.missing};
}

void takelabels(const kdr3_field& field, std::size_t records, LongColumn& column) {
  const kdr3_column cells = columnof(field);
  column.ordered = field.ordered != 0;
  std::unordered_set<std::string> seen;
  for (std::size_t k = 0; k < field.labelcount; ++k) {
    column.texts.emplace_back(field.labels[k] != nullptr ? field.labels[k] : "");
    if (!seen.insert(column.texts.back()).second)
      refuse("The column " + column.name + " has two levels of the name " + column.texts.back() + ".");
  }
  column.codes.reserve(records);
  for (std::size_t i = 0; i < records; ++i) {
    const double code = valueof(cells, i) - field.first;
    const bool known = code >= 0.0 && code < static_cast<double>(field.labelcount);
    column.codes.push_back(known && !column.texts[static_cast<std::size_t>(code)].empty() ? static_cast<int>(code)
                                                                                          : -1);
  }
}

void taketexts(const kdr3_field& field, std::size_t records, LongColumn& column) {
  const kdr3_column cells = columnof(field);
  std::unordered_map<std::string_view, int> known;
  column.codes.reserve(records);
  for (std::size_t i = 0; i < records; ++i) {
    const char* text = marked(cells, i) ? nullptr : cell<const char*>(cells, i);
    if (text == nullptr || *text == '\0') {
      column.codes.push_back(-1);
      continue;
    }
    const auto [place, fresh] = known.try_emplace(text, static_cast<int>(column.texts.size()));
    if (fresh) column.texts.emplace_back(text);
    column.codes.push_back(place->second);
  }
}

LongColumn longcolumn(const kdr3_field& field, std::size_t records) {
  LongColumn column;
  column.name = field.name;
  column.text = named(field);
  if (field.labels != nullptr) {
    takelabels(field, records, column);
  } else if (field.type == KDR3_TEXT) {
    taketexts(field, records, column);
  } else {
    const kdr3_column cells = columnof(field);
    column.numbers.reserve(records);
    for (std::size_t i = 0; i < records; ++i) {
      const double value = valueof(cells, i);
      if (std::isinf(value)) refuse("The column " + column.name + formatted(" is infinite in record %zu.", i + 1));
      constexpr double exact = 9007199254740992.0;  // whole numbers up to it are doubles of their own
      if (field.type == KDR3_INT64 && !(std::fabs(value) < exact) && !std::isnan(value))
        refuse("The column " + column.name +
               formatted(" has a whole number above 2^53 in record %zu: hand it in as texts.", i + 1));
      if (value == missingcode)
        refuse("The column " + column.name + formatted(" has the value of missing data in record %zu.", i + 1));
      column.numbers.push_back(std::isnan(value) ? missingcode : value);
    }
  }
  return column;
}

void takecolumns(FormulaPlan& plan, std::size_t records, const Fields& fields) {
  std::vector<std::string> names;
  std::vector<bool> texts;
  for (std::size_t c = 0; c < fields.count; ++c) {
    names.emplace_back(fields[c].name);
    texts.push_back(named(fields[c]));
  }
  for (const int row : wantedcolumns(plan, names, texts).rows)
    plan.data.columns.push_back(longcolumn(fields[static_cast<std::size_t>(row)], records));
  plan.data.nrecords = records;
}

// Numbers the units of a column in the order of their IDs.
std::vector<int> numberunits(const LongColumn& column) {
  std::vector<int> units;
  if (column.text) {
    std::vector<int> order(column.texts.size()), rank(order.size());
    std::iota(order.begin(), order.end(), 0);
    if (!column.ordered)
      std::sort(order.begin(), order.end(), [&](int a, int b) {
        return column.texts[static_cast<std::size_t>(a)] < column.texts[static_cast<std::size_t>(b)];
      });
    for (std::size_t i = 0; i < order.size(); ++i) rank[static_cast<std::size_t>(order[i])] = static_cast<int>(i);
    for (const int code : column.codes) units.push_back(code < 0 ? -1 : rank[static_cast<std::size_t>(code)]);
    return units;
  }
  return ranksof(column.numbers).codes;
}

void makeunits(FormulaPlan& plan) {
  plan.units.level2.ofrecord = numberunits(idcolumn(plan.data, owncolumns(plan)));
  if (plan.outer) plan.units.level3.ofrecord = numberunits(idcolumn(plan.data, plan.data.groupings[*plan.outer].names));
}

// The number of the unit of each record in its order.
std::vector<std::size_t> unitsof(std::size_t records, const std::vector<std::size_t>& first) {
  std::vector<std::size_t> units(records);
  for (std::size_t u = 0; u < first.size(); ++u) {
    const std::size_t end = u + 1 < first.size() ? first[u + 1] : records;
    std::fill(units.begin() + static_cast<std::ptrdiff_t>(first[u]), units.begin() + static_cast<std::ptrdiff_t>(end),
              u);
  }
  return units;
}

// Columns of the data, made one by one.
struct MadeColumns {
  const FormulaPlan& plan;
  std::vector<std::string> names;
  std::vector<std::vector<double>> values;
  std::vector<int> levels;

  template <class Value>
  std::string add(std::string name, int level, const Value& value) {
    while (std::find(names.begin(), names.end(), name) != names.end()) name += "'";
    std::vector<double> made;
    made.reserve(plan.units.order.size());
    for (const std::uint32_t record : plan.units.order) made.push_back(value(record));
    names.push_back(name);
    values.push_back(std::move(made));
    levels.push_back(level);
    return name;
  }
  std::string add(const Extra& extra, int level) {
    return add(extra.name, level, [&](std::size_t record) { return (*extra.values)[record]; });
  }
};

kdr3_column packed(const char* name, int level, kdr3_type type, const void* values) {
  return {name, level, type, values, 0, nullptr};
}

// Names of the data's columns for the parts of a model.
struct Parts {
  std::string outcome, counts, weights[3];
  std::vector<std::string> pieces[3];
};

kdr3_status makedata(kdr3_formula& formula, Parts& parts) {
  const FormulaPlan& plan = formula.plan;
  MadeColumns made{plan, {}, {}, {}};
  parts.outcome = made.add(plan.outcome, 1);
  for (int level = 0; level < 3; ++level)
    for (const Piece& piece : plan.design.pieces[level]) {
      const bool one = piece.parts.size() == 1;
      parts.pieces[level].push_back(made.add(piece.shown, level + 1, [&piece, one](std::size_t record) {
        return one ? piece.parts[0].at(record) : valueat(piece.parts, record);
      }));
    }
  if (plan.counts) parts.counts = made.add(*plan.counts, 1);
  for (int level = 0; level < 3; ++level)
    if (plan.weights[level]) parts.weights[level] = made.add(*plan.weights[level], level + 1);
  const std::size_t records = plan.units.order.size();
  formula.unit2 = unitsof(records, plan.units.first2);
  if (plan.outer) formula.unit3 = unitsof(records, plan.units.first3);
  std::vector<std::int64_t> id2(formula.unit2.begin(), formula.unit2.end()),
      id3(formula.unit3.begin(), formula.unit3.end());
  std::vector<kdr3_column> columns;
  for (std::size_t c = 0; c < made.names.size(); ++c)
    columns.push_back(packed(made.names[c].c_str(), made.levels[c], KDR3_DOUBLE, made.values[c].data()));
  const kdr3_column ids2 = packed("level-2 unit", 2, KDR3_INT64, id2.data());
  const kdr3_column ids3 = packed("level-3 unit", 3, KDR3_INT64, id3.data());
  kdr3_data* data = nullptr;
  const kdr3_status status =
      kdr3_data_make(records, columns.size(), columns.data(), &ids2, plan.outer ? &ids3 : nullptr, &data);
  formula.data.reset(data);
  return status;
}

kdr3_family familyof(const FormulaPlan& plan) {
  switch (plan.family) {
    case FitFamily::gaussian:
      return KDR3_NORMAL;
    case FitFamily::binomial:
      return plan.counts ? KDR3_BINOMIAL : KDR3_BERNOULLI;
    case FitFamily::poisson:
      return KDR3_POISSON;
    case FitFamily::ordinal:
      return KDR3_ORDINAL;
    case FitFamily::multinomial:
      break;
  }
  return KDR3_MULTINOMIAL;
}

const char* textornull(const std::string& text) { return text.empty() ? nullptr : text.c_str(); }

kdr3_status addequations(const FormulaPlan& plan, const Parts& parts, kdr3_model* model) {
  const auto nameof = [&](int level, int piece) {
    return piece == interceptpiece ? nullptr : parts.pieces[level][static_cast<std::size_t>(piece)].c_str();
  };
  for (const CoefficientTerms& coefficient : plan.design.tree()) {
    int c = 0;
    if (kdr3_model_level1(model, nameof(0, coefficient.piece), KDR3_RAW, coefficient.random ? 1 : 0, &c) != KDR3_OK)
      return KDR3_ERROR;
    for (const Level2Term& term : coefficient.terms) {
      int t = 0;
      if (kdr3_model_level2(model, c, nameof(1, term.piece), KDR3_RAW, term.random ? 1 : 0, &t) != KDR3_OK)
        return KDR3_ERROR;
      if (!plan.outer) continue;
      for (const int piece : term.terms)
        if (kdr3_model_level3(model, t, nameof(2, piece), KDR3_RAW) != KDR3_OK) return KDR3_ERROR;
    }
  }
  return KDR3_OK;
}

// Effects of different random parts have no covariance.
void restrict(const Design& design, kdr3_model& model) {
  model.diagtaupi = design.diagonal(2);
  model.diagtaubeta = design.diagonal(3);
  for (const int level : {2, 3}) {
    if (!design.partly(level)) continue;
    std::vector<double>& held = model.taus[level - 2].fixed;
    const std::vector<std::size_t> blocks = design.blocksof(level);
    for (const std::size_t a : blocks)
      for (const std::size_t b : blocks) held.push_back(a == b ? std::numeric_limits<double>::quiet_NaN() : 0.0);
  }
}

// The limits that -fit writes.
void control(const FormulaPlan& plan, const EngineChoice& engine, kdr3_model& model) {
  if (plan.family == FitFamily::gaussian) return;
  constexpr int limit = 100, enginelimit = 50, first = 5;
  model.control.macroit = model.control.numit = limit;
  if (!plan.categorical()) model.fixsigma2 = 1.0;
  if (engine.laplace6) {
    model.control.laplace = true;
    model.control.laplaceit = enginelimit;
  }
  if (!engine.quadrature) return;
  model.control.agqit = enginelimit;
  model.control.agqauto = engine.points == 0;
  model.control.agqpoints = engine.points > 0 ? engine.points : first;
}

kdr3_status makemodel(kdr3_formula& formula, const Parts& parts) {
  const FormulaPlan& plan = formula.plan;
  kdr3_model* model = nullptr;
  const kdr3_status status = kdr3_model_make(formula.data.get(), parts.outcome.c_str(), familyof(plan),
                                             textornull(parts.counts), plan.categories, &model);
  formula.model.reset(model);
  if (status != KDR3_OK || addequations(plan, parts, model) != KDR3_OK) return KDR3_ERROR;
  restrict(plan.design, *model);
  control(plan, formula.engine, *model);
  return kdr3_model_weights(model, textornull(parts.weights[0]), textornull(parts.weights[1]),
                            textornull(parts.weights[2]), nullptr);
}

std::string effectname(const Design& design, const CoefficientPieces& of) {
  std::string name;
  const auto add = [&](int level, int piece) {
    if (piece != interceptpiece)
      name += (name.empty() ? "" : ":") + design.pieces[level][static_cast<std::size_t>(piece)].name;
  };
  add(0, of.piece1);
  add(1, of.piece2);
  return name.empty() ? "(Intercept)" : name;
}

// What kdr3_formula_text hands out of a plan that stands.
void takewords(kdr3_formula& formula, const Parts& parts) {
  const FormulaPlan& plan = formula.plan;
  auto& words = formula.words;
  for (int level = 0; level < 3; ++level) words[KDR3_VARIABLES1 + level] = parts.pieces[level];
  for (const FixedEffect& effect : plan.design.fixed) {
    words[KDR3_EFFECTS].push_back(effect.name);
    words[KDR3_TERMS].push_back(effect.term);
  }
  for (const int level : {2, 3})
    for (const CoefficientPieces& of : plan.design.effectsof(level))
      words[level == 2 ? KDR3_RANDOM2 : KDR3_RANDOM3].push_back(effectname(plan.design, of));
  const Grouping& inner = plan.data.groupings[plan.inner];
  words[KDR3_GROUPINGS].push_back(inner.shown);
  words[KDR3_GROUPS2] = inner.names;
  if (plan.outer) {
    words[KDR3_GROUPINGS].push_back(plan.data.groupings[*plan.outer].shown);
    words[KDR3_GROUPS3] = plan.data.groupings[*plan.outer].names;
  }
  constexpr const char* families[] = {"gaussian", "binomial", "poisson", "ordinal", "multinomial"};
  words[KDR3_OUTCOME] = {plan.outcome.name, families[static_cast<int>(plan.family)],
                         formula.engine.quadrature            ? "quadrature"
                         : formula.engine.laplace6            ? "laplace6"
                         : plan.family == FitFamily::gaussian ? ""
                                                              : "pql"};
  if (plan.family != FitFamily::gaussian && plan.family != FitFamily::poisson)
    for (const auto& [value, label] : plan.outcome.labels) words[KDR3_LEVELS].push_back(label);
}

// The parts of each column of a matrix.
std::vector<std::vector<ColumnPart>> matrixparts(const FormulaPlan& plan, kdr3_words part) {
  std::vector<std::vector<ColumnPart>> all;
  if (part == KDR3_EFFECTS) {
    for (const ModelColumn& column : plan.fixed) all.push_back(column.parts);
    return all;
  }
  if (part >= KDR3_VARIABLES1) {
    for (const Piece& piece : plan.design.pieces[part - KDR3_VARIABLES1]) all.push_back(piece.parts);
    return all;
  }
  for (const CoefficientPieces& of : plan.design.effectsof(part == KDR3_RANDOM2 ? 2 : 3)) {
    std::vector<ColumnPart>& parts = all.emplace_back();
    for (const auto& [level, piece] : {std::pair{0, of.piece1}, std::pair{1, of.piece2}})
      if (piece != interceptpiece) {
        const std::vector<ColumnPart>& from = plan.design.pieces[level][static_cast<std::size_t>(piece)].parts;
        parts.insert(parts.end(), from.begin(), from.end());
      }
  }
  return all;
}

double valueormissing(const std::vector<ColumnPart>& parts, std::size_t record) {
  for (const ColumnPart& part : parts)
    if (part.variable->missing(record)) return std::numeric_limits<double>::quiet_NaN();
  return valueat(parts, record);
}

// Takes the column of this name from the fields, once; false where they lack it.
bool takenamed(const FormulaPlan& plan, const std::string& named, std::size_t records, const Fields& fields,
               FormulaData& data) {
  if (data.places.contains(named)) return true;
  const std::string& name = plan.data.column(named).name;
  for (std::size_t c = 0; c < fields.count; ++c)
    if (name == fields[c].name) {
      data.places[named] = data.columns.size();
      data.columns.push_back(longcolumn(fields[c], records));
      return true;
    }
  return false;
}

void takecolumnsof(const FormulaPlan& plan, const Expression& e, std::size_t records, const Fields& fields,
                   FormulaData& data) {
  std::vector<NamedPlace> names;
  columnnames(e, names);
  for (const NamedPlace& named : names)
    if (!takenamed(plan, named.name, records, fields, data))
      refuse("The new data have no column " + plan.data.column(named.name).name + ".");
}

// Whether a value of the expression hangs on the unit of its record.
bool takesmeans(const Expression& e) {
  if (iscall(e, "mean") || (iscall(e, "center") && e.operands.size() > 1)) return true;
  return std::any_of(e.operands.begin(), e.operands.end(), takesmeans);
}

void startother(const FormulaPlan& plan, std::size_t records, FormulaData& data) {
  data.formula = plan.model.text;
  data.nrecords = records;
  data.fitted = &plan.data;
  data.settings = plan.data.settings;
  data.lost = [](const std::string&) {};  // a row without a value shows by itself
}

void evaluateother(const FormulaPlan& plan, std::vector<std::vector<ColumnPart>>& columns, std::size_t records,
                   const Fields& fields, FormulaData& data) {
  startother(plan, records, data);
  std::map<std::string, const Expression*> expressions;
  const auto collect = [&](const Terms& terms) {
    for (std::size_t v = 0; v < terms.variables.size(); ++v) expressions[terms.names[v]] = terms.variables[v];
  };
  collect(plan.model.fixed);
  for (const RandomPart& part : plan.model.randoms) collect(part.terms);
  bool means = false;
  for (const std::vector<ColumnPart>& parts : columns)
    for (const ColumnPart& part : parts) {
      const Expression& e = *expressions.at(part.variable->name);
      takecolumnsof(plan, e, records, fields, data);
      means = means || takesmeans(e);
    }
  if (means) {
    for (const RandomPart& part : plan.model.randoms)
      for (const std::string& name : part.group) static_cast<void>(takenamed(plan, name, records, fields, data));
    findgroupings(data, plan.model);
  }
  for (std::vector<ColumnPart>& parts : columns)
    for (ColumnPart& part : parts) part.variable = &variableof(data, *expressions.at(part.variable->name));
}

// What is added to the linear predictor of other records.
void offsetsofother(const FormulaPlan& plan, std::size_t records, const Fields& fields, double* values) {
  std::fill_n(values, records, 0.0);
  FormulaData data;
  startother(plan, records, data);
  const auto add = [&](const std::vector<double>& of, bool logarithm) {
    for (std::size_t i = 0; i < records; ++i)
      values[i] += of[i] == missingcode ? std::numeric_limits<double>::quiet_NaN()
                   : logarithm          ? std::log(of[i])
                                        : of[i];
  };
  for (const Expression* e : plan.model.offsets) {
    takecolumnsof(plan, *e, records, fields, data);
    add(valuesof(data, e->operands[0]), false);
  }
  for (const auto& [name, logarithm] :
       {std::pair{plan.options.offset, false}, std::pair{plan.options.exposure, true}}) {
    if (name.empty()) continue;
    if (!takenamed(plan, name, records, fields, data)) refuse("The new data have no column " + name + ".");
    add(data.column(name).numbers, logarithm);
  }
}

// The same of the model's own records.
void ownoffsets(const FormulaPlan& plan, double* values) {
  const bool counts = plan.family == FitFamily::poisson && plan.counts;
  for (const std::uint32_t record : plan.units.order)
    *values++ = counts ? std::log((*plan.counts->values)[record]) : plan.offset ? (*plan.offset->values)[record] : 0.0;
}

void readoptions(const char* text, const kdr3_options* options, FormulaOptions& made) {
  made.formula = text;
  made.source = "the table";
  made.subject = "The table";
  if (options == nullptr) return;
  made.family = given(options->family);
  made.engine = given(options->engine);
  made.points = given(options->points);
  made.trials = given(options->trials);
  made.exposure = given(options->exposure);
  made.offset = given(options->offset);
  const char* weights[] = {options->weights1, options->weights2, options->weights3};
  for (std::size_t level = 0; level < 3; ++level) made.weights[level] = given(weights[level]);
}

void listen(kdr3_formula& formula) {
  const auto to = [&formula](kdr3_words list) {
    return [&formula, list](const std::string& words) { formula.words[list].push_back(words); };
  };
  formula.plan.listener = {to(KDR3_REMARKS), to(KDR3_WARNINGS), to(KDR3_REMARKS)};
}

}  // namespace

}  // namespace kdr::library

using namespace kdr;
using namespace kdr::library;

kdr3_status kdr3_formula_read(const char* text, kdr3_formula** made) {
  return refusable([&]() -> kdr3_status {
    if (text == nullptr || made == nullptr) return error("A formula needs its text and a place for the handle.");
    *made = nullptr;
    auto formula = std::make_unique<kdr3_formula>();
    readoptions(text, nullptr, formula->plan.options);
    readplan(formula->plan);
    std::vector<NamedPlace> names;
    columnnames(formula->plan.model.root, names);
    std::vector<std::string>& columns = formula->words[KDR3_COLUMNS];
    for (const NamedPlace& name : names)
      if (std::find(columns.begin(), columns.end(), name.name) == columns.end()) columns.push_back(name.name);
    *made = formula.release();
    return KDR3_OK;
  });
}

kdr3_status kdr3_formula_make(const char* text, const kdr3_options* options, size_t records, size_t count,
                              const kdr3_field* first, kdr3_formula** made) {
  return refusable([&]() -> kdr3_status {
    if (text == nullptr || made == nullptr) return error("A formula needs its text and a place for the handle.");
    *made = nullptr;
    if (options != nullptr && options->size < sizeof(kdr3_options)) return error("The size of the options is not set.");
    const Fields fields{first, count};
    if (std::string words = checkfields(fields); !words.empty()) return error(words);
    if (records == 0) return error("The table has no rows.");
    if (records > static_cast<std::size_t>(std::numeric_limits<int>::max()))
      return error("The table has too many rows.");
    auto formula = std::make_unique<kdr3_formula>();
    FormulaPlan& plan = formula->plan;
    readoptions(text, options, plan.options);
    listen(*formula);
    readplan(plan);
    takecolumns(plan, records, fields);
    const std::vector<char> kept = evaluateplan(plan);
    makeunits(plan);
    designplan(plan, kept);
    formula->engine = enginechoice(plan);
    Parts parts;
    if (makedata(*formula, parts) != KDR3_OK || makemodel(*formula, parts) != KDR3_OK) return KDR3_ERROR;
    takewords(*formula, parts);
    for (LongColumn& column : plan.data.columns) column.numbers = {}, column.codes = {};  // the variables have them
    *made = formula.release();
    return (*made)->words[KDR3_WARNINGS].empty() ? KDR3_OK : KDR3_WARNING;
  });
}

kdr3_model* kdr3_formula_model(kdr3_formula* formula) { return formula != nullptr ? formula->model.get() : nullptr; }

const char* kdr3_formula_text(const kdr3_formula* formula, kdr3_words words, size_t i) {
  if (formula == nullptr || words < KDR3_COLUMNS || words > KDR3_VARIABLES3) return nullptr;
  const std::vector<std::string>& list = formula->words[words];
  return i < list.size() ? list[i].c_str() : nullptr;
}

kdr3_status kdr3_formula_order(const kdr3_formula* formula, size_t* places) {
  return guarded([&]() -> kdr3_status {
    if (formula == nullptr || formula->model == nullptr || places == nullptr)
      return error("An order needs a formula with its model, and a place.");
    const std::vector<FixedEffect>& effects = formula->plan.design.fixed;
    const auto before = [&](std::size_t a, std::size_t b) {
      return effects[a].of != effects[b].of ? effects[a].of < effects[b].of : effects[a].piece3 < effects[b].piece3;
    };
    std::vector<std::size_t> order(effects.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::sort(order.begin(), order.end(), before);
    for (std::size_t i = 0; i < order.size(); ++i) places[order[i]] = i;
    return KDR3_OK;
  });
}

kdr3_status kdr3_formula_records(const kdr3_formula* formula, size_t* count, size_t* rows, size_t* unit2,
                                 size_t* unit3) {
  if (formula == nullptr || formula->model == nullptr) return error("The formula has no model.");
  const std::vector<std::uint32_t>& order = formula->plan.units.order;
  if (count != nullptr) *count = order.size();
  if (rows != nullptr) std::copy(order.begin(), order.end(), rows);
  if (unit2 != nullptr) std::copy(formula->unit2.begin(), formula->unit2.end(), unit2);
  if (unit3 != nullptr) std::copy(formula->unit3.begin(), formula->unit3.end(), unit3);
  return KDR3_OK;
}

kdr3_status kdr3_formula_matrix(const kdr3_formula* formula, kdr3_words part, size_t records, size_t count,
                                const kdr3_field* first, double* values) {
  return refusable([&]() -> kdr3_status {
    if (formula == nullptr || formula->model == nullptr || values == nullptr)
      return error("A matrix needs a formula with its model, and a place.");
    if (part != KDR3_EFFECTS && part != KDR3_RANDOM2 && part != KDR3_RANDOM3 &&
        (part < KDR3_OFFSETS || part > KDR3_VARIABLES3))
      return error(
          "A matrix is of the fixed effects, of the random ones of level 2 or 3, of the offsets or of variables.");
    const FormulaPlan& plan = formula->plan;
    FormulaData other;
    const bool own = first == nullptr;
    const Fields fields{first, count};
    if (!own)
      if (std::string words = checkfields(fields); !words.empty()) return error(words);
    if (part == KDR3_OFFSETS) {
      own ? ownoffsets(plan, values) : offsetsofother(plan, records, fields, values);
      return KDR3_OK;
    }
    std::vector<std::vector<ColumnPart>> columns = matrixparts(plan, part);
    if (!own) {
      evaluateother(plan, columns, records, fields, other);
    }
    const std::size_t n = own ? plan.units.order.size() : records;
    for (std::size_t i = 0; i < n; ++i)
      for (const std::vector<ColumnPart>& parts : columns)
        *values++ = valueormissing(parts, own ? plan.units.order[i] : i);
    return KDR3_OK;
  });
}

kdr3_status kdr3_formula_outcome(const kdr3_formula* formula, double* outcome, double* counts, double* offset) {
  if (formula == nullptr || formula->model == nullptr) return error("The formula has no model.");
  const FormulaPlan& plan = formula->plan;
  for (std::size_t i = 0; i < plan.units.order.size(); ++i) {
    const std::size_t record = plan.units.order[i];
    const double taken = plan.offset ? (*plan.offset->values)[record] : 0.0;
    if (outcome != nullptr) outcome[i] = (*plan.outcome.values)[record] + taken;
    if (counts != nullptr) counts[i] = plan.counts ? (*plan.counts->values)[record] : 1.0;
    if (offset != nullptr) offset[i] = taken;
  }
  return KDR3_OK;
}

void kdr3_formula_free(kdr3_formula* formula) { delete formula; }
