#include "app/predictionjob.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <initializer_list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/predictiondata.h"
#include "command/text.h"
#include "core/formatted.h"
#include "document/resultstable.h"
#include "driver/failures.h"
#include "driver/files.h"
#include "driver/reportstream.h"
#include "driver/resultfile.h"
#include "driver/runrecord.h"
#include "estimate/inference/predictions.h"
#include "estimate/inference/unitmodes.h"
#include "estimate/linear/uniteffects.h"
#include "kernel/sizes.h"
#include "report/resultsdocument.h"
#include "report/stream.h"

namespace kdr {

namespace {

const PreparedFit* formulafit = nullptr;
std::set<std::string> said;  // sentences, each said once

void sayprediction(const std::string& words) {
  if (!said.insert(words).second) return;
  const std::string whole = "Predictions: " + words;
  std::printf("%s\n", printable(whole).c_str());
  documentwarning(whole);
}

// What the last pass knows of the units of the rows.
struct Kept {
  std::vector<KnownEffects> effects;
  std::map<std::pair<int, long long>, std::size_t> places;  // by level-3 and level-2 unit
};
std::optional<Kept> kept;

// -margins.

struct MarginTerm {
  std::string name;
  std::vector<std::string> values;  // none: an average marginal effect
};

std::vector<MarginTerm> marginterms() {
  std::vector<MarginTerm> terms;
  for (const std::string& part : split(run.files.margins, ';')) {
    if (part.empty()) continue;
    const std::size_t sign = part.find('=');
    MarginTerm term{std::string(trimmed(std::string_view(part).substr(0, sign))), {}};
    if (sign != std::string::npos) term.values = split(part.substr(sign + 1), ',');
    if (term.name.empty() ||
        std::any_of(term.values.begin(), term.values.end(), [](const std::string& value) { return value.empty(); }))
      stopwith("-margins takes names and values, as in -margins 'year=0,1,2; female'. It cannot be %s\n",
               printable(run.files.margins).c_str());
    terms.push_back(std::move(term));
  }
  if (terms.empty()) stopwith("-margins takes names and values, as in -margins 'year=0,1,2; female'.\n");
  return terms;
}

// Tables.

constexpr char predictionshead[] = "row,level3,level2,units,category,linear,";
constexpr char marginshead[] = "quantity,variable,contrast,";

std::string stem() {
  if (formulafit != nullptr) return stemof(*formulafit);
  if (reportisstdout()) return "kdr3";
  return run.files.outfile.substr(0, extensionplace(run.files.outfile));
}

void refuseforeign(const std::string& path, std::string_view head) {
  std::error_code none;
  if (path.empty() || !std::filesystem::exists(path, none)) return;
  std::string start(head.size(), '\0');
  std::FILE* old = openfile(path, "rb");
  start.resize(readupto(start.data(), start.size(), old, path));
  std::fclose(old);
  if (!start.empty() && start != head)
    stopwith("The file %s holds no predictions of this program. It would be lost: give the report another name\n",
             path.c_str());
}

std::string number(double value) { return std::isfinite(value) ? formatted("%.15g", value) : ""; }

// Each behind a comma.
std::string joined(std::initializer_list<std::string> texts) {
  std::string line;
  for (const std::string& text : texts) line.append(1, ',').append(text);
  return line;
}

// Value, standard error and interval; four empty fields for none.
std::string fields(const std::optional<Prediction>& made) {
  if (!made) return ",,,,";
  const Interval& interval = made->interval;
  return joined({number(made->value), number(made->se), interval.known ? number(interval.low) : "",
                 interval.known ? number(interval.high) : ""});
}

std::string heads(const char* name) { return formatted(",%s,%s_se,%s_low,%s_high", name, name, name, name); }

std::string categoryname(int k) {
  if (!run.model.outcome.categorical()) return "";
  return at(k) < run.model.categorylabel.size() ? leftname(run.model.categorylabel[at(k)]) : std::to_string(k + 1);
}

// One record of a table.
bool rowsof(const PredictorPlan& plan, const PredictionTable& table, std::size_t i, PredictorRows& rows) {
  std::vector<double> values[3];
  for (int level = 0; level < 3; ++level)
    for (const std::vector<double>& variable : table.values[level])
      values[level].push_back(variable.empty() ? missingcode : variable[i]);
  for (std::vector<double>& level : values)
    if (level.empty()) level.push_back(1.0);
  if (!makerows(plan, values[0].data(), values[1].data(), values[2].data(), rows)) return false;
  const auto beside = [&](const std::vector<double>& list, double& to, double without) {
    to = list.empty() ? without : list[i];
    return to != missingcode;
  };
  double exposure = 1.0;
  rows.count = 1.0;
  if (!beside(table.offset, rows.offset, 0.0) || !beside(table.counts, exposure, 1.0) || !(exposure > 0.0))
    return false;
  if (!table.counts.empty()) rows.offset += std::log(exposure);
  return true;
}

// Rows of a file.

// The units of each row.
struct RowUnits {
  std::vector<int> level3;  // -1: not among the data
  std::vector<long long> level2;
};

RowUnits unitsof(const PredictionData& data, const PredictionTable& table) {
  const bool two = run.mdm.twolevel();
  RowUnits units{std::vector<int>(table.n, -1), std::vector<long long>(table.n, -1)};
  const std::vector<long long> places2 = unitplaces(data.units, table, 2);
  const std::vector<long long> places3 = two ? places2 : unitplaces(data.units, table, 3);
  for (std::size_t i = 0; i < table.n; ++i) {
    units.level2[i] = places2[i];
    units.level3[i] = static_cast<int>(two && places2[i] >= 0
                                           ? static_cast<long long>(data.units.parent[at(static_cast<int>(places2[i]))])
                                           : places3[i]);
  }
  return units;
}

const char* knownunits(const PredictionTable& table, const RowUnits& units, std::size_t i) {
  const bool two = run.mdm.twolevel();
  const std::vector<std::string>& outer = two ? table.level2 : table.level3;
  if (outer.empty() || outer[i].empty()) return "";
  if (units.level3[i] < 0) return "new";
  return two || units.level2[i] >= 0 ? "known" : "level3";
}

std::string unitfields(const FittedModel& fitted, const PredictorRows& rows, const KnownEffects* of, int m, int k) {
  if (of == nullptr) return fields({}) + fields({});
  std::optional<Prediction> linear;
  if (m >= 0) linear = predictionof(fitted, unitpredictors(fitted, rows, *of), m, IntervalScale::value);
  return fields(linear) + fields(predictionof(fitted, unitresponses(fitted, rows, *of), k, scaleof(fitted.outcome)));
}

void writerows(const FittedModel& fitted, const PredictionData& data, const PredictionTable& table,
               const std::optional<Kept>& known) {
  const RowUnits units = unitsof(data, table);
  const KnownEffects none = unknowneffects(fitted);
  const int K = fitted.outcome.categorical() ? fitted.plan.M + 1 : 1;
  ResultFile file;
  openresult(file, predictionsname());
  writeresult(file, std::string(predictionshead) + "linear_se,linear_low,linear_high" + heads("response") +
                        heads("average") + heads("unit_linear") + heads("unit_response") + ",df\n");
  std::size_t empty = 0;
  bool unknown = false;
  PredictorRows rows;
  for (std::size_t i = 0; i < table.n; ++i) {
    const bool whole = rowsof(fitted.plan, table, i, rows);
    empty += whole ? 0 : 1;
    const std::string told = knownunits(table, units, i);
    const KnownEffects* of = told.empty() ? nullptr : &none;
    if (told == "known" || told == "level3") {
      of = nullptr;
      if (known) {
        const auto place = known->places.find({units.level3[i], units.level2[i]});
        if (place != known->places.end()) of = &known->effects[place->second];
      }
      unknown = unknown || of == nullptr;
    }
    Responses linear, response, average;
    if (whole) {
      linear = linearpredictors(fitted, rows);
      response = fixedresponses(fitted, rows);
      average = meanresponses(fitted, rows);
    }
    for (int k = 0; k < K; ++k) {
      const auto id = [&](const std::vector<std::string>& ids) { return ids.empty() ? "" : csvfield(ids[i]); };
      std::string line =
          std::to_string(i + 1) + joined({id(table.level3), id(table.level2), told, csvfield(categoryname(k))});
      const int m = k < fitted.plan.M ? k : -1;
      if (whole) {
        std::optional<Prediction> own;
        if (m >= 0) own = predictionof(fitted, linear, m, IntervalScale::value);
        const IntervalScale scale = scaleof(fitted.outcome);
        const Prediction fixed = predictionof(fitted, response, k, scale);
        line += fields(own) + fields(fixed) + fields(predictionof(fitted, average, k, scale)) +
                unitfields(fitted, rows, of, m, k) + joined({number(fixed.df)});
      } else {
        line += std::string(21, ',');
      }
      writeresult(file, line + "\n");
    }
  }
  finishresult(file);
  if (empty > 0)
    sayprediction(formatted("%zu of %zu rows lack a value that the model needs, and have no results.", empty, table.n));
  const Outcome& outcome = run.model.outcome;
  if (outcome.family == Family::poisson && outcome.counted && table.counts.empty())
    sayprediction("The file does not tell the exposure: responses are for one of 1.");
  if (unknown)
    sayprediction("The random effects of some units are not known: their unit_linear and unit_response are empty.");
}

// What an engine says of the units of the rows. How its means go with the fixed effects is told by the modes, which are
// found from the records of their level-3 units and stand where it has left no means.
std::optional<Kept> unitsofengine(const FittedModel& fitted, const PredictionData& data, const PredictionTable& table,
                                  const Posteriors* random) {
  const RowUnits units = unitsof(data, table);
  std::set<int> wanted;
  for (const int k : units.level3)
    if (k >= 0) wanted.insert(k);
  std::map<int, UnitOutcomes> all;
  std::map<int, std::vector<std::size_t>> members;
  std::set<double> values;
  walkunits(*data.analysis, wanted, values, [&](const WalkedRecord& record) {
    UnitOutcomes& of = all[record.level3];
    std::vector<std::size_t>& inside = members[record.level3];
    if (inside.empty() || inside.back() != record.level2) inside.push_back(record.level2);
    PredictorRows rows;
    if (!makerows(fitted.plan, record.level1.data(), record.row2.data(), record.row3.data(), rows)) return;
    rows.count = record.count;
    of.rows.push_back(std::move(rows));
    of.unit.push_back(static_cast<int>(inside.size()) - 1);
    of.units = static_cast<int>(inside.size());
    of.outcome.push_back(record.outcome);
    if (!run.model.weighted) return;
    of.weight1.push_back(data.analysis->weights.own1[record.record]);
    of.weight2.resize(inside.size(), data.analysis->weights.own2[record.level2]);
  });
  Kept made;
  for (auto& [k, of] : all) {
    if (fitted.outcome.categorical())
      for (double& y : of.outcome) y = static_cast<double>(std::distance(values.begin(), values.find(y)));
    UnitModes modes = unitmodes(fitted, of);
    if (!modes.settled) {
      sayprediction(
          formatted("The modes of the random effects of unit %s have not settled.", data.units.level3[at(k)].c_str()));
      continue;
    }
    for (std::size_t j = 0; random != nullptr && j < modes.ofunit.size(); ++j)
      takeposteriors(fitted, *random, static_cast<long long>(members[k][j]), at(k), modes.ofunit[j]);
    if (random != nullptr) takeposteriors(fitted, *random, -1, at(k), modes.fresh);
    for (std::size_t j = 0; j < modes.ofunit.size(); ++j) {
      made.places[{k, static_cast<long long>(members[k][j])}] = made.effects.size();
      made.effects.push_back(std::move(modes.ofunit[j]));
    }
    made.places[{k, -1}] = made.effects.size();
    made.effects.push_back(std::move(modes.fresh));
  }
  return made;
}

// Margins.

// The average over the records of responses with random effects of 0, and of their means.
struct Averages {
  Responses fixed, mean;
  std::size_t records = 0;
};

Averages averagesof(const FittedModel& fitted, const PredictionTable& table) {
  Averages made;
  PredictorRows rows;
  for (std::size_t i = 0; i < table.n; ++i) {
    if (!rowsof(fitted.plan, table, i, rows)) continue;
    addresponses(made.fixed, fixedresponses(fitted, rows), 1.0);
    addresponses(made.mean, meanresponses(fitted, rows), 1.0);
    ++made.records;
  }
  const double n = static_cast<double>(std::max<std::size_t>(made.records, 1));
  for (Responses* sum : {&made.fixed, &made.mean})
    for (Array<double>* values : {&sum->value, &sum->gradient})
      for (double& value : *values) value /= n;
  return made;
}

Averages difference(Averages a, const Averages& b) {
  addresponses(a.fixed, b.fixed, -1.0);
  addresponses(a.mean, b.mean, -1.0);
  a.records = std::min(a.records, b.records);
  return a;
}

// The average slope by a column of numbers, by differences of each record over steps in the column's own spread.
Averages slopeof(const FittedModel& fitted, const AnalysedRecords& records, const ColumnFacts& facts,
                 std::vector<ColumnChange> changes) {
  constexpr double share = 1.0e-4;
  double mean = 0.0, squares = 0.0, n = 0.0;
  for (const double x : facts.numbers)
    if (x != missingcode) {
      ++n;
      const double step = x - mean;
      mean += step / n;
      squares += step * (x - mean);
    }
  const double h = share * std::sqrt(squares / std::max(n - 1.0, 1.0));
  const auto moved = [&](double by) {
    std::vector<ColumnChange> all = changes;
    all.push_back({facts.name, "", std::vector<double>(facts.numbers.size(), by)});
    return averagesof(fitted, records.table(all));
  };
  Averages made = difference(moved(h), moved(-h));
  for (Responses* sum : {&made.fixed, &made.mean})
    for (Array<double>* values : {&sum->value, &sum->gradient})
      for (double& value : *values) value /= 2.0 * h;
  return made;
}

// A point of the grid: values of the columns that have some.
using GridPoint = std::vector<ColumnChange>;

std::vector<GridPoint> gridof(const std::vector<MarginTerm>& terms, const std::vector<ColumnFacts>& facts) {
  std::vector<GridPoint> grid(1);
  for (std::size_t t = 0; t < terms.size(); ++t) {
    if (terms[t].values.empty()) continue;
    std::vector<GridPoint> longer;
    for (const GridPoint& point : grid)
      for (const std::string& value : terms[t].values) {
        longer.push_back(point);
        longer.back().push_back({facts[t].name, value, {}});
      }
    grid = std::move(longer);
  }
  return grid;
}

struct MarginsWriter {
  const FittedModel& fitted;
  ResultFile file;
  std::size_t columns = 0;  // of the grid

  void write(const char* quantity, const std::string& variable, const std::string& contrast, const GridPoint& point,
             const Averages& made) {
    const bool effect = !variable.empty();
    const IntervalScale scale = effect ? IntervalScale::value : scaleof(fitted.outcome);
    for (int k = 0; at(k) < made.fixed.value.size(); ++k) {
      std::string line = quantity + joined({csvfield(variable), csvfield(contrast)});
      for (std::size_t c = 0; c < columns; ++c) line += joined({c < point.size() ? csvfield(point[c].value) : ""});
      const Prediction fixed = predictionof(fitted, made.fixed, k, scale);
      line += joined({csvfield(categoryname(k)), std::to_string(made.records)}) + fields(fixed) +
              fields(predictionof(fitted, made.mean, k, scale)) + joined({number(fixed.df)});
      writeresult(file, line + "\n");
    }
  }
};

void writeeffects(MarginsWriter& writer, const AnalysedRecords& records, const ColumnFacts& facts,
                  const GridPoint& point) {
  if (!facts.discrete) {
    writer.write("effect", facts.name, "slope", point, slopeof(writer.fitted, records, facts, point));
    return;
  }
  const auto setto = [&](const std::string& value) {
    GridPoint all = point;
    all.push_back({facts.name, value, {}});
    return averagesof(writer.fitted, records.table(all));
  };
  const Averages reference = setto(facts.values[0]);
  for (std::size_t v = 1; v < facts.values.size(); ++v)
    writer.write("effect", facts.name, facts.values[v] + " - " + facts.values[0], point,
                 difference(setto(facts.values[v]), reference));
}

void writemargins(const FittedModel& fitted, const PredictionData& data) {
  const std::vector<MarginTerm> terms = marginterms();
  const AnalysedRecords records = analysedrecords(data);
  std::vector<ColumnFacts> facts;
  for (const MarginTerm& term : terms) facts.push_back(*records.column(term.name));
  const std::vector<GridPoint> grid = gridof(terms, facts);
  MarginsWriter writer{fitted, {}, grid[0].size()};
  openresult(writer.file, marginsname());
  std::string head = "quantity,variable,contrast";
  for (const ColumnChange& column : grid[0]) head += joined({csvfield(column.name)});
  writeresult(writer.file, head + ",category,records" + heads("response") + heads("average") + ",df\n");
  writer.write("margin", "", "", {}, averagesof(fitted, records.table({})));
  if (writer.columns > 0)
    for (const GridPoint& point : grid) writer.write("margin", "", "", point, averagesof(fitted, records.table(point)));
  for (std::size_t t = 0; t < terms.size(); ++t) {
    if (!terms[t].values.empty()) continue;
    writeeffects(writer, records, facts[t], {});
    const bool ofgrid = std::any_of(grid[0].begin(), grid[0].end(),
                                    [&](const ColumnChange& column) { return column.name == facts[t].name; });
    if (writer.columns > 0 && !ofgrid)
      for (const GridPoint& point : grid) writeeffects(writer, records, facts[t], point);
  }
  finishresult(writer.file);
  if (run.model.weighted) sayprediction("Margins count each record once, whatever its weight.");
}

void checkmargins(const Analysis& analysis) {
  if (run.files.margins.empty()) return;
  const PredictionData data = predictiondata(formulafit, analysis, sayprediction);
  const AnalysedRecords records = analysedrecords(data);
  for (const MarginTerm& term : marginterms()) {
    const std::optional<ColumnFacts> facts = records.column(term.name);
    if (!facts) stopwith("-margins: the model has no variable %s.\n", printable(term.name).c_str());
    for (const std::string& value : term.values)
      if (!records.holds(*facts, value))
        stopwith("-margins: %s has no value %s.\n", printable(facts->name).c_str(), printable(value).c_str());
  }
}

bool asked() { return !run.files.predict.empty() || !run.files.margins.empty(); }

}  // namespace

std::string predictionsname() { return run.files.predict.empty() ? "" : stem() + "_predictions.csv"; }
std::string marginsname() { return run.files.margins.empty() ? "" : stem() + "_margins.csv"; }

void startpredictions(const PreparedFit* fit) { formulafit = fit; }

void refuseforeignpredictions() {
  refuseforeign(predictionsname(), predictionshead);
  refuseforeign(marginsname(), marginshead);
}

void checkpredictions(const Analysis& analysis) {
  if (!asked()) return;
  if (run.series.mimode || run.series.pvmode) stopwith("-predict and -margins are for single runs, not for series.\n");
  if (run.control.hetit != 0) stopwith("-predict and -margins cannot be had with HETIT:.\n");
  checkmargins(analysis);
}

void keepuniteffects(Pass& pass) {
  if (run.files.predict.empty()) return;
  const PredictionData data = predictiondata(formulafit, *pass.analysis, sayprediction);
  const PredictionTable table = newtable(data);
  const RowUnits units = unitsof(data, table);
  Kept made;
  std::vector<UnitPair> pairs;
  for (std::size_t i = 0; i < table.n; ++i)
    if (units.level3[i] >= 0 && made.places.try_emplace({units.level3[i], units.level2[i]}, pairs.size()).second)
      pairs.push_back({units.level3[i], units.level2[i]});
  made.effects = uniteffects(pass, pairs);
  stopif(storefailure(pass.store));
  kept = std::move(made);
}

void writepredictions(const Analysis& analysis, const PassResults& results, bool haskept, const Posteriors* random) {
  if (!asked()) return;
  const PredictorPlan plan = predictorplan(run.model);
  const FittedModel fitted{plan, run.model.outcome, results};
  if (results.covariance.empty()) {
    sayprediction("There is no covariance of the fixed effects, and so there are no predictions.");
    return;
  }
  const PredictionData data = predictiondata(formulafit, analysis, sayprediction);
  if (!run.files.predict.empty()) {
    const PredictionTable table = newtable(data);
    writerows(fitted, data, table, haskept ? std::move(kept) : unitsofengine(fitted, data, table, random));
  }
  if (!run.files.margins.empty()) writemargins(fitted, data);
}

}  // namespace kdr
