#include "command/formula/fit.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "command/formula/coding.h"
#include "command/formula/equationlines.h"
#include "command/text.h"
#include "construct/buildlog.h"
#include "construct/construction.h"
#include "construct/fileclashes.h"
#include "construct/levelsource.h"
#include "construct/longfile.h"
#include "construct/rawvariables.h"
#include "core/formatted.h"
#include "core/numbers.h"
#include "driver/failures.h"
#include "driver/resultfile.h"
#include "driver/runrecord.h"
#include "driver/warnings.h"
#include "formula/plan.h"

namespace kdr {

namespace {

struct Fit {
  FitRequest request;
  FormulaPlan plan;
  std::vector<char> kept;  // [record] it has all that the model needs
  std::vector<std::string> remarks;
};

// What the formula made of the data: for console and log, and as a comment for the command file.
void remark(Fit& fit, const std::string& words) {
  logahead(words);
  fit.remarks.push_back(words);
}

void listen(Fit& fit) {
  fit.plan.listener.remark = [&fit](const std::string& words) { remark(fit, words); };
  fit.plan.listener.warning = [](const std::string& words) { keepwarning(words, false); };
  fit.plan.listener.level = [](const std::string& words) { std::printf("%s\n", words.c_str()); };
}

FormulaOptions optionsof(const FitRequest& request) {
  FormulaOptions options{
      request.formula, request.family, request.engine, request.points, request.trials, request.exposure, "", {},
      request.file,    request.file};
  for (int level = 0; level < 3; ++level) options.weights[level] = request.weights[level];
  return options;
}

void readcolumns(Fit& fit) {
  openlong(fit.request.file);
  std::vector<std::string> names;
  std::vector<bool> texts;
  for (const RawVariable& variable : raw.level[0].vartable) {
    names.push_back(variable.hidden ? "" : variable.fullname);
    texts.push_back(variable.text);
  }
  const WantedColumns wanted = wantedcolumns(fit.plan, names, texts);
  FormulaData& data = fit.plan.data;
  data.columns = readlong(wanted.rows, fit.request.missing, wanted.ids);
  data.nrecords = data.columns[0].text ? data.columns[0].codes.size() : data.columns[0].numbers.size();
  for (const LongColumn& column : data.columns)
    if (column.codedmissing > 0)
      remark(fit, column.name + formatted(": %lld values count as missing.", column.codedmissing));
}

// The units.

// Whether the IDs can stand as numbers in the MDM file.
bool wholenumbers(const LongColumn& column) {
  constexpr double largest = 999999999999.0;
  return !column.text && std::all_of(column.numbers.begin(), column.numbers.end(), [](double value) {
    return value == missingcode || (value == std::floor(value) && value >= 0.0 && value <= largest);
  });
}

void makeunits(Fit& fit) {
  FormulaPlan& plan = fit.plan;
  struct Ids {
    LongColumn column;
    std::string shown;
    UnitKeys& keys;
  };
  std::vector<Ids> levels;
  const auto add = [&](const std::vector<std::string>& names, std::size_t grouping, UnitKeys& keys) {
    for (const std::string& name : names) tellstrayid(plan.data.column(name));
    levels.push_back({idcolumn(plan.data, names), plan.data.groupings[grouping].shown, keys});
  };
  if (plan.outer) add(plan.data.groupings[*plan.outer].names, *plan.outer, plan.units.level3);
  add(owncolumns(plan), plan.inner, plan.units.level2);
  const bool numbers =
      std::all_of(levels.begin(), levels.end(), [](const Ids& ids) { return wholenumbers(ids.column); });
  run.mdm.numericids = numbers;
  for (Ids& ids : levels) {
    if (!numbers) ids.column = astexts(ids.column);
    ids.keys = unitkeys(ids.column, numbers, false);
    if (ids.keys.numbered)
      remark(fit, formatted("IDs of %s that are long, or differ by case alone: the units are numbered from 1 to %zu.",
                            ids.shown.c_str(), ids.keys.ids.size()));
  }
}

// The MDM file.

std::function<double(std::size_t)> valueof(const std::vector<ColumnPart>& parts) {
  if (parts.size() == 1) return [part = parts[0]](std::size_t record) { return part.at(record); };
  return [parts](std::size_t record) { return valueat(parts, record); };
}

// A name of up to 8 letters that still tells what the column is.
std::string shortof(const Piece& piece) {
  const auto letters = [](const std::string& text) {
    std::string left;
    for (const char c : text)
      if (std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '.' || static_cast<signed char>(c) < 0)
        left += c;
    return left;
  };
  const auto cut = [](const std::string& text, std::size_t bytes) {
    while (bytes > 0 && bytes < text.size() && (static_cast<unsigned char>(text[bytes]) & 0xC0U) == 0x80U) --bytes;
    return text.substr(0, bytes);
  };
  std::string name = piece.name;
  if (piece.parts.size() == 1 && piece.parts[0].variable->factor) {
    const Variable& variable = *piece.parts[0].variable;
    std::string of = letters(variable.name);
    if (of.starts_with("factor")) of.erase(0, std::string_view("factor").size());
    const std::string level = cut(letters(variable.names.levels[static_cast<std::size_t>(piece.parts[0].column)]), 4);
    name = cut(of, 8 - level.size()) + level;
  }
  name = letters(name);
  if (name.starts_with("I") && piece.name.starts_with("I(")) name.erase(0, 1);
  return name.empty() ? "X" : name;
}

// The columns of each level for the construction; the names that they have in the MDM file go into `lines`.
void servedesign(FormulaPlan& plan, EquationLines& lines) {
  std::vector<std::string> taken{"RANDOM"};
  std::vector<MadeColumn> made[3];
  const auto addextra = [&](const Extra& extra, int level) {
    const Name name = newname(shortof({extra.name, extra.name, {}}), taken);
    made[level].push_back({name, extra.name, extra.label, extra.labels,
                           [values = extra.values](std::size_t record) { return (*values)[record]; }});
    return leftname(name);
  };
  lines.outcome = addextra(plan.outcome, 0);
  for (int level = 0; level < 3; ++level)
    for (const Piece& piece : plan.design.pieces[level]) {
      const Name name = newname(shortof(piece), taken);
      const std::string label = piece.parts.size() == 1 ? piece.parts[0].variable->label : "";
      made[level].push_back({name, piece.shown, label, {}, valueof(piece.parts)});
      lines.names[level].push_back(leftname(name));
      if (!sameword(leftname(name), piece.shown)) lines.legend.push_back(leftname(name) + " is " + piece.shown);
    }
  if (plan.counts) lines.counts = addextra(*plan.counts, 0);
  for (int level = 0; level < 3; ++level)
    if (plan.weights[level]) lines.weights[level] = addextra(*plan.weights[level], level);
  servecolumns(std::move(plan.units), made, true);
}

// The engine.

// The keyword lines of the outcome type and its engine.
void outcomelines(const FormulaPlan& plan, EquationLines& lines) {
  const EngineChoice engine = enginechoice(plan);
  if (plan.family == FitFamily::gaussian) {
    lines.head = {"NONLIN:N", "NUMIT:500,N"};
    if (run.id.restricted) lines.head.emplace_back("LIKELIHOOD:REML");
    return;
  }
  std::string type = plan.family == FitFamily::poisson       ? "POISSON"
                     : plan.family == FitFamily::ordinal     ? "ORDINAL," + std::to_string(plan.categories)
                     : plan.family == FitFamily::multinomial ? "MULTINOMIAL," + std::to_string(plan.categories)
                     : plan.counts                           ? "BINOMIAL"
                                                             : "BERNOULLI";
  if (plan.counts) type += "," + lines.counts;
  lines.head = {"NONLIN:" + type, "MACROIT:100,N", "MICROIT:100"};
  lines.categories = plan.categorical() ? plan.categories : 0;
  lines.multinomial = plan.family == FitFamily::multinomial;
  if (!plan.categorical()) lines.head.emplace_back("FIXSIGMA2:1.0");
  if (engine.laplace6) lines.head.emplace_back("LAPLACE:Y,50");
  if (!engine.quadrature) return;
  const std::string points = engine.points > 0 ? std::to_string(engine.points) : "AUTO";
  lines.head.push_back("AGQ:Y,50," + points);
}

// The files.

constexpr const char* commandhead = "#Made by kdr3 -fit of ";

void checkcommandfile(const std::string& path) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> old(std::fopen(path.c_str(), "rb"), std::fclose);
  if (old == nullptr) return;
  char head[std::string_view(commandhead).size()];
  const std::size_t got = std::fread(head, 1, sizeof head, old.get());
  if (std::string_view(head, got) != commandhead)
    stopwith(
        "The file %s is no command file that -fit made, and would be lost. Give another stem by -o, or rename it.\n",
        path.c_str());
}

void checkfiles(const FitRequest& request) {
  const std::string& stem = request.stem;
  std::vector<std::string> outputs;
  for (const char* extension : {".mdm", ".kdr", ".txt", ".json"}) outputs.push_back(stem + extension);
  if (!request.page.empty()) outputs.push_back(stem + ".html");
  for (const std::string& path : outputs)
    if (path.size() >= maxpath) stopwith("The path is too long: %s\n", path.c_str());
  for (const std::string& path : outputs)
    if (leadtoone(path, request.file))
      stopwith("%s would take the place of the data. Give another stem by -o.\n", path.c_str());
  refuseclashes({request.file}, outputs);
  refuseinput(outputs[0], InputKind::mdmfile);
  for (std::size_t i = 2; i < outputs.size(); ++i) refuseinput(outputs[i]);
  for (const std::string& path : outputs) refuseunwritable(path);
  checkcommandfile(outputs[1]);
}

// The keyword of a line "NAME:value" in capitals.
std::string wordof(const std::string& line) { return uppercase(line.substr(0, line.find(':'))); }

void checkkeywords(const FitRequest& request) {
  for (const std::string& line : request.keywords) {
    const std::string word = wordof(line);
    if (line.find(':') == std::string::npos || word.empty())
      stopwith("-keyword takes NAME:value. It cannot be %s\n", printable(line).c_str());
    if (word == "LIKELIHOOD" && run.id.restricted) stopwith("-keyword LIKELIHOOD: -reml says that already.\n");
    for (const char* own : {"LEVEL1", "LEVEL2", "LEVEL3", "NONLIN", "OUTPUT", "RESULTS"})
      if (word == own) stopwith("-keyword %s: the formula and -fit say that already.\n", own);
  }
}

void writecommands(const Fit& fit, const EquationLines& lines) {
  std::vector<std::string> text{commandhead + printable(fit.request.file)};
  std::string formula = printable(fit.plan.model.text);
  text.push_back("#" + formula);
  for (const std::vector<std::string>* list : {&lines.legend, &fit.remarks})
    for (const std::string& words : *list) text.push_back(formatted("#%s", printable(words).c_str()));
  const std::vector<std::string>& settings = lines.head;
  const std::vector<std::string> model = equationlines(lines);
  std::vector<std::string> rest = {"RESFIL1:N", "RESFIL2:N",  "RESFIL3:N",    "CONSTRAIN:N",
                                   "HYPOTH:N",  "LVR-BETA:N", "FULLOUTPUT:N", "TITLE:" + titlefrom(formula)};
  if (lines.twolevel)
    std::erase_if(rest, [](const std::string& line) { return line == "RESFIL3:N" || line == "LVR-BETA:N"; });
  rest.push_back("OUTPUT:" + fit.request.stem + ".txt");
  rest.push_back("RESULTS:" + fit.request.stem + ".json");
  std::set<std::string> given;
  for (const std::string& line : fit.request.keywords) given.insert(wordof(line));
  for (const std::vector<std::string>* part :
       std::initializer_list<const std::vector<std::string>*>{&settings, &model, &rest})
    for (const std::string& line : *part)
      if (!given.contains(wordof(line))) text.push_back(line);
  text.insert(text.end(), fit.request.keywords.begin(), fit.request.keywords.end());
  for (const std::string& line : text)
    if (line.size() >= maxline - 1)
      stopwith("A line of the command file would be longer than %d characters: the model has too many effects.\n",
               maxline - 1);
  ResultFile file;
  opentext(file, fit.request.stem + ".kdr");
  for (const std::string& line : text) std::fprintf(file.stream, "%s\n", line.c_str());
  finishresult(file);
}

void defaultstem(FitRequest& request) {
  if (!request.stem.empty()) return;
  const std::size_t base = request.file.rfind('/') + 1;
  request.stem = request.file.substr(base, request.file.rfind('.') - base);
}

std::vector<FitNames> effectnames(const Design& design, const EquationLines& lines) {
  std::vector<FitNames> names;
  const auto nameof = [&](int level, int piece) {
    return piece == interceptpiece ? "INTRCPT" + std::to_string(level)
                                   : lines.names[level - 1][static_cast<std::size_t>(piece)];
  };
  for (const FixedEffect& effect : design.fixed)
    names.push_back({effect.name, nameof(1, effect.of.piece1), nameof(2, effect.of.piece2), nameof(3, effect.piece3)});
  return names;
}

// What goes into the files.
EquationLines plan(FitRequest request, Fit& fit) {
  defaultstem(request);
  fit.request = std::move(request);
  FormulaPlan& plan = fit.plan;
  plan.options = optionsof(fit.request);
  listen(fit);
  readplan(plan);
  checkkeywords(fit.request);
  checkfiles(fit.request);
  readcolumns(fit);
  fit.kept = evaluateplan(plan);
  makeunits(fit);
  designplan(plan, fit.kept);
  EquationLines lines;
  lines.design = &plan.design;
  lines.twolevel = !plan.outer;
  servedesign(plan, lines);
  outcomelines(plan, lines);
  return lines;
}

// The same; a refusal ends the run.
EquationLines planorstop(FitRequest request, Fit& fit) {
  try {
    return plan(std::move(request), fit);
  } catch (const Refusal& refusal) {
    stopwith("%s\n", refusal.words.c_str());
  }
}

}  // namespace

void checkfit(FitRequest request) {
  Fit fit;
  static_cast<void>(planorstop(std::move(request), fit));
}

PreparedFit preparefit(FitRequest request) {
  const auto held = std::make_shared<Fit>();
  Fit& fit = *held;
  const EquationLines lines = planorstop(std::move(request), fit);
  if (fit.request.planned) fit.request.planned(fit.plan);
  run.mdm.mdmtype = lines.twolevel ? MdmType::twolevel : MdmType::ordinary;
  run.mdm.deletednow = false;
  run.mdm.l1missing = false;
  run.files.mdmfile = fit.request.stem + ".mdm";
  raw.silent = true;
  for (int level : {1, 2}) raw.level[level].filename = raw.level[0].filename;
  mkmdm();
  forgetcolumns();
  forgetraw();
  run.mdm = MdmData{};
  writecommands(fit, lines);
  run.files.cmdshown = run.files.cmdfile = fit.request.stem + ".kdr";
  PreparedFit prepared;
  prepared.fixed = effectnames(fit.plan.design, lines);
  for (int level = 0; level < 3; ++level)
    for (std::size_t i = 0; i < lines.names[level].size(); ++i)
      prepared.names[lines.names[level][i]] = fit.plan.design.pieces[level][i].name;
  prepared.grouping2 = fit.plan.data.groupings[fit.plan.inner].shown;
  if (fit.plan.outer) prepared.grouping3 = fit.plan.data.groupings[*fit.plan.outer].shown;
  prepared.coding = codingof(fit.plan, lines);
  prepared.request = std::move(fit.request);
  if (!prepared.request.keepdata && run.files.predict.empty() && run.files.margins.empty()) return prepared;
  fit.plan.listener = {};
  prepared.plan = {held, &fit.plan};
  for (int level = 0; level < 3; ++level) prepared.pieces[level] = lines.names[level];
  prepared.kept = std::move(fit.kept);
  return prepared;
}

}  // namespace kdr
