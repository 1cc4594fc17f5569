// The table of keywords.
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "command/reader.h"
#include "command/text.h"
#include "core/formatted.h"
#include "core/numbers.h"
#include "data/scratch.h"
#include "driver/failures.h"
#include "driver/oddities.h"
#include "driver/runrecord.h"
#include "driver/warnings.h"

namespace kdr {

namespace {

constexpr const char* onenumber = "one number, with a decimal point";

// Y or N.
bool flagof(const char* keyword, const std::string& value) {
  if (!isyes(value) && !isno(value)) refusevalue(keyword, "Y or N", value);
  return isyes(value);
}

double realvalue(const char* keyword, const std::string& value, const char* wanted = "a number") {
  const std::optional<double> number = realof(value);
  // A decimal comma is not to cut the number off.
  if (!number) refusevalue(keyword, value.find(',') == std::string::npos ? wanted : onenumber, value);
  return *number;
}

double criterion(const char* keyword, const std::string& value) {
  const double number = realvalue(keyword, value);
  if (number < 0.0) refusevalue(keyword, "a number of 0 or more", value);
  return number;
}

int wholevalue(const char* keyword, const std::string& value) {
  const std::optional<int> number = wholeof(value);
  if (!number) refusevalue(keyword, "a whole number", value);
  return *number;
}

// A limit of iterations, and behind a comma whether to go on there.
int limitvalue(const char* keyword, const std::string& value) {
  const std::vector<std::string> fields = split(value, ',');
  const std::optional<int> number = wholeof(fields[0]);
  const auto* letter = fields.size() == 2 ? rownamed(limitletters, fields[1].substr(0, 1)) : nullptr;
  const bool wrong = fields.size() > 1 && (letter == nullptr || (!isyes(fields[1]) && !isno(fields[1])));
  if (!number || fields.size() > 2 || wrong)
    refusevalue(keyword, "a whole number, and ,Y or ,N behind it or nothing", value);
  if (letter != nullptr) run.control.numitcontinue = letter->code;
  return *number;
}

void setpath(std::string& path, const std::string& value) {
  if (overlong(value)) stopwith("The path is too long: %s\n", value.c_str());
  path = value;
}

void setrepair(FixTau& repair, const char* keyword, const std::string& value) {
  const std::optional<int> code = wholeof(value);
  if (!code || *code < 0 || *code > static_cast<int>(FixTau::always)) refusevalue(keyword, "1 to 5", value);
  repair = static_cast<FixTau>(*code);
}

void readnumit(CommandReader&, const std::string& value) {
  run.control.numit = limitvalue("NUMIT", value);
  run.answered.iterations = run.answered.numit = true;
  if (run.control.numit < 1)
    refusevalue("NUMIT", "a whole number of 1 or more", value, "numit must be greater than 0!\n");
}

void readmacroit(CommandReader&, const std::string& value) {
  run.control.macroit = limitvalue("MACROIT", value);
  if (run.control.macroit < 0)
    refusevalue("MACROIT", "a whole number of 0 or more", value, "macroit must be greater than 0!\n");
}

void readmicroit(CommandReader&, const std::string& value) {
  run.control.numit = wholevalue("MICROIT", value);
  run.answered.iterations = true;
  if (run.control.numit < 1)
    refusevalue("MICROIT", "a whole number of 1 or more", value, "microit must be greater than 0!\n");
}

void readtaylor(CommandReader&, const std::string& value) {
  run.control.taylor = static_cast<Taylor>(wholevalue("TAYLOR", value));
  if (run.control.taylor != Taylor::second && run.control.taylor != Taylor::fourth)
    refusevalue("TAYLOR", "2 or 4", value, "taylor must be set to 2 or 4!\n");
}

void readprintvc(CommandReader&, const std::string& value) {
  if (!isyes(value) && !isno(value) && !sameword(value, "A") && !sameword(value, "ALL"))
    refusevalue("PRINTVARIANCE-COVARIANCE", "Y, A or N", value);
  const auto* row = rownamed(varianceletters, value.substr(0, 1));
  if (row != nullptr) run.out.printvc = row->code;
}

void readhetit(CommandReader&, const std::string& value) {
  run.control.hetit = wholevalue("HETIT", value);
  if (run.control.hetit < 0) refusevalue("HETIT", "a whole number of 0 or more", value);
}

void readgraph(CommandReader&, const std::string& value) {
  setpath(run.files.graphgammas, value);
  run.out.graph = true;
}

void readresults(CommandReader&, const std::string& value) {
  if (!run.files.resultsgiven) {
    setpath(run.files.results, value);
  } else if (!value.empty() && value != run.files.results) {
    warn("RESULTS:" + value + " has no effect: -results names " + run.files.results + ".");
  }
}

void readpopavit(CommandReader&, const std::string& value) {
  const std::optional<int> number = wholeof(value);
  if (!isyes(value) && !isno(value) && (!number || *number < 0))
    refusevalue("POPAVIT", "Y, N or a whole number of 0 or more", value);
  if (!isno(value)) run.control.popavit = number.value_or(1);
}

void readlaplace(CommandReader&, const std::string& value) {
  const std::vector<std::string> fields = split(value, ',');
  const int iterations = fields.size() == 2 ? wholeof(fields[1]).value_or(-1) : -1;
  if ((!isyes(fields[0]) && !isno(fields[0])) || (fields.size() > 1 && iterations < 0))
    refusevalue("LAPLACE", "N, or Y and behind a comma a whole number of iterations of 0 or more", value);
  run.control.laplace = isyes(fields[0]);
  if (!run.control.laplace) return;
  if (iterations >= 0) run.control.laplaceit = iterations;
}

void readagq(CommandReader&, const std::string& value) {
  const auto fields = split(value, ',');
  if (isno(fields[0])) {
    run.control.agqpoints = 0;
    run.control.agqauto = false;
    return;
  }
  constexpr const char* wanted =
      "N, or Y, a number of iterations and a number of points (or AUTO) with commas between them";
  if (!isyes(fields[0])) refusevalue("AGQ", wanted, value);
  if (fields.size() < 3 || fields[1].empty() || fields[2].empty())
    refusevalue("AGQ", wanted, value, "\nMaximum number of iterations and quadrature points must be specified.\n");
  const std::optional<int> iterations = wholeof(fields[1]), points = wholeof(fields[2]);
  run.control.agqauto = strcasecmp(fields[2].c_str(), "AUTO") == 0;
  if (fields.size() > 3 || !iterations || *iterations < 0 || !(points || run.control.agqauto))
    refusevalue("AGQ", wanted, value);
  run.control.agqit = std::max(*iterations, 1);
  run.control.agqpoints = run.control.agqauto ? 1 : *points;
  constexpr int mostpoints = 198;  // beyond, some nodes would share a place
  if (run.control.agqpoints < 1 || run.control.agqpoints == 2 || run.control.agqpoints > mostpoints)
    refusevalue("AGQ", "1, 3 to 198, or AUTO points", value,
                "\nThe number of quadrature points must be 1, 3 to 198, or AUTO!\n");
}

void readagqnodes(CommandReader&, const std::string& value) {
  run.control.agqfixed = sameword(value, "FIXED");
  if (!run.control.agqfixed && !sameword(value, "MOVING")) refusevalue("AGQNODES", "FIXED or MOVING", value);
}

void readagqderivlevel(CommandReader&, const std::string& value) {
  run.control.agqderivlevel = wholevalue("AGQDERIVLEVEL", value);
  if (run.control.agqderivlevel != 1 && run.control.agqderivlevel != 2)
    refusevalue("AGQDERIVLEVEL", "1 or 2", value, "agqderivlevel must be set to 1 or 2!\n");
}

void readfixsigma2(CommandReader&, const std::string& value) {
  if (isno(value)) return run.model.restrictions.fixsigma2.reset();
  if (value.find(',') != std::string::npos) refusevalue("FIXSIGMA2", onenumber, value);
  const std::optional<double> held = realof(value);
  if (!held || *held < 0.0) refusevalue("FIXSIGMA2", "N or a number of 0 or more", value);
  run.model.restrictions.fixsigma2.reset();
  if (*held != 0.0) run.model.restrictions.fixsigma2 = held;
}

void readstopval(CommandReader&, const std::string& value) {
  run.control.stopval = criterion("STOPVAL", value);
  run.answered.stopval = true;
}

void readstopmicro(CommandReader&, const std::string& value) {
  run.control.stopval = criterion("STOPMICRO", value);
  run.answered.stopmicro = true;
}

void readstopmacro(CommandReader&, const std::string& value) { run.control.stopmacro = criterion("STOPMACRO", value); }

void readstartvals(CommandReader&, const std::string& value) {
  const std::string suffix = "/writeonly";
  const bool marked = value.size() >= suffix.size() && sameword(value.substr(value.size() - suffix.size()), suffix);
  const std::string path = marked ? value.substr(0, value.size() - suffix.size()) : value;
  setpath(run.files.startvals, std::string(path.substr(0, path.find_last_not_of(' ') + 1)));
}

void readdeviance(CommandReader& reader, const std::string& value) {
  run.out.deviance = realvalue("DEVIANCE", value);
  run.answered.deviance = reader.deviance = true;
}

void readdf(CommandReader& reader, const std::string& value) {
  run.out.df = wholevalue("DF", value);
  run.answered.deviance = reader.df = true;
}

void readhypoth(CommandReader&, const std::string& value) {
  if (!flagof("HYPOTH", value)) run.answered.hypoth = true;
}

void readdofisher(CommandReader&, const std::string& value) {
  run.control.fishertype = flagof("DOFISHER", value) ? FisherType::expected : FisherType::none;
}

void readfishertype(CommandReader&, const std::string& value) {
  const std::optional<int> type = wholeof(value);
  if (!type || *type < 0 || *type > 2)
    refusevalue("FISHERTYPE", "0, 1 or 2", value, "\nInvalid type of Fisher acceleration.\n");
  run.control.fishertype = static_cast<FisherType>(*type);
}

void readlikelihood(CommandReader&, const std::string& value) {
  run.control.restricted = sameword(value, "REML");
  if (!run.control.restricted && !sameword(value, "ML")) refusevalue("LIKELIHOOD", "ML or REML", value);
  if (!run.control.restricted && run.id.restricted)
    oddcommand(" LIKELIHOOD:ML has no effect: -reml stands on the command line.\n");
}

void readddf(CommandReader&, const std::string& value) {
  const std::vector<std::string> fields = split(value, ',');
  const auto* row = rownamed(degreeswords, fields[0]);
  const bool observed = fields.size() == 2 && sameword(fields[1], "OBSERVED");
  if (row == nullptr || fields.size() > 2 || (fields.size() == 2 && !observed) ||
      (observed && row->code != DegreesMethod::satterthwaite))
    refusevalue("DDF", "COUNTS, SATTERTHWAITE, SATTERTHWAITE,OBSERVED or KENWARDROGER", value);
  run.control.ddf = row->code;
  run.control.ddfobserved = observed;
}

void readedgecov(CommandReader&, const std::string& value) {
  run.control.edgefull = sameword(value, "FULL");
  if (!run.control.edgefull && !sameword(value, "REDUCED")) refusevalue("EDGECOV", "REDUCED or FULL", value);
}

void readrobust(CommandReader&, const std::string& value) {
  run.control.clusterrobust = sameword(value, "CR2");
  if (!run.control.clusterrobust && !sameword(value, "CR0")) refusevalue("ROBUST", "CR0 or CR2", value);
}

void readprofile(CommandReader&, const std::string& value) { run.control.profile = flagof("PROFILE", value); }

// SHARES:Y, N, or variables with the values at which random slopes are taken: SHARES:X=1.5,Z=0.
void readshares(CommandReader& reader, const std::string& value) {
  Shares& shares = run.control.shares;
  shares.at.clear();
  if (value.find('=') == std::string::npos) {
    shares.asked = flagof("SHARES", value);
    return;
  }
  shares.asked = true;
  for (const std::string& field : split(value, ',')) {
    const std::size_t sign = field.find('=');
    const std::string name = field.substr(0, sign);
    const std::optional<double> number = sign == std::string::npos ? std::nullopt : realof(field.substr(sign + 1));
    if (!number) refusevalue("SHARES", "Y, N, or variables with values, as in X=1.5,Z=0", value);
    const bool level1 = findvariable(name, run.mdm.names1, run.mdm.nvar1).index > 0;
    const int index = level1 ? variable(reader.lines.number, "SHARES", name, run.mdm.names1, run.mdm.nvar1)
                             : variable(reader.lines.number, "SHARES", name, run.mdm.names2, run.mdm.nvar2);
    const int level = level1 ? 1 : 2;
    for (const Shares::Value& before : shares.at)
      if (before.level == level && before.variable == index) refusevalue("SHARES", "each variable once", value);
    shares.at.push_back({level, index, *number});
  }
}

void readtitle(CommandReader&, const std::string& value) {
  run.files.title = titlefrom(value);
  run.answered.title = true;
}

void readoutput(CommandReader&, const std::string& value) {
  setpath(run.files.outfile, value);
  run.answered.output = true;
}

// The index of a weight variable; what stands behind a comma is no part of the name.
int weightvariable(const CommandReader& reader, const char* what, const std::string& value, const Array<Name>& names,
                   int nvar) {
  const std::vector<std::string> fields = split(value, ',');
  if (fields.size() > 1)
    oddcommand(formatted(" Of %s the first name counts alone (%s).\n", printable(value).c_str(), what));
  return sameword(fields[0], "NONE") ? 0 : variable(reader.lines.number, what, fields[0], names, nvar);
}

void readweight1(CommandReader& reader, const std::string& value) {
  run.model.wgtvar1 = weightvariable(reader, "wgtvar1", value, run.mdm.names1, run.mdm.nvar1);
}
void readweight2(CommandReader& reader, const std::string& value) {
  run.model.wgtvar2 = weightvariable(reader, "wgtvar2", value, run.mdm.names2, run.mdm.nvar2);
}
void readweight3(CommandReader& reader, const std::string& value) {
  run.model.wgtvar3 = weightvariable(reader, "wgtvar3", value, run.mdm.names3, run.mdm.nvar3);
}
void readweightscale(CommandReader&, const std::string& value) {
  run.model.rawweights = sameword(value, "NONE");
  if (!run.model.rawweights && !sameword(value, "MEAN")) refusevalue("WEIGHTSCALE", "MEAN or NONE", value);
}
void readvarianceknown(CommandReader& reader, const std::string& value) {
  run.model.autovknown = weightvariable(reader, "autovknown", value, run.mdm.names1, run.mdm.nvar1);
}

void readresfiltype(CommandReader&, const std::string& value) {
  const auto* form = rownamed(residualforms, value);
  if (form == nullptr)
    refusevalue("RESFILTYPE", "FREEFORMAT, SYSTAT, SAS, SPSS or STATA", value, "Invalid resfiltype.\n");
  run.out.resfiltype = form->code;
  run.answered.resfiltype = true;
}

void readresfilof(CommandReader&, const std::string& value) {
  const auto* whose = rownamed(residualsofwords, value);
  if (whose == nullptr) refusevalue("RESFILOF", "ENGINE or PQL", value);
  run.out.resfilof = whose->code;
}

// In the order of comparison: the first match wins.
constexpr Keyword keywords[] = {
    {"ACCEL:", 0, [](CommandReader&, const std::string& value) { run.control.accel = wholevalue("ACCEL", value); }},
    {"TAYLOR:", 0, readtaylor},
    {"PRINTVARIANCE-COVARIANCE:", 0, readprintvc},
    {"GRAPHGAMMAS:", 0, readgraph},
    {"NUMIT:", 0, readnumit},
    {"MACROIT:", 0, readmacroit},
    {"MICROIT:", 0, readmicroit},
    {"NONLIN:", 0, readnonlin},
    {"LEVEL1DELETION:", 0, readdeletion},
    {"POPAVIT:", 0, readpopavit},
    {"LAPLACE:", 0, readlaplace},
    {"AGQ:", 0, readagq},
    {"AGQDERIVLEVEL:", 0, readagqderivlevel},
    {"AGQNODES:", 0, readagqnodes},
    {"PLAUSVALS:", 0, readplausvals},
    {"LVR-BETA:", 0, readlvr},
    {"HETIT:", 0, readhetit},
    {"NOBASE:", 0, [](CommandReader&, const std::string&) { run.answered.nobase = true; }},
    {"FIXSIGMA2:", 0, readfixsigma2},
    {"STOPVAL:", 0, readstopval},
    {"STOPMICRO:", 8, readstopmicro},
    {"STOPMACRO:", 8, readstopmacro},
    {"STARTVALS:", 0, readstartvals},
    {"ESTTAU2:", 0, readesttau2},
    {"ESTTAU3:", 0, readesttau3},
    {"CONTAU2:", 0, readcontau2, true},
    {"CONTAU3:", 0, readcontau3, true},
    {"GAMMA", 0, readcontrast, true},
    {"CONSTRAIN", 0, readconstrain},
    {"DEVIANCE:", 0, readdeviance},
    {"DF:", 0, readdf},
    {"HYPOTH:", 0, readhypoth},
    {"DOFISHER:", 0, readdofisher},
    {"FISHERTYPE:", 0, readfishertype},
    {"LIKELIHOOD:", 0, readlikelihood},
    {"DDF:", 0, readddf},
    {"EDGECOV:", 0, readedgecov},
    {"ROBUST:", 0, readrobust},
    {"PROFILE:", 0, readprofile},
    {"SHARES:", 0, readshares},
    {"NULLMODEL:", 0, [](CommandReader&, const std::string& value) { setpath(run.files.nullmodel, value); }},
    {"TITLE:", 0, readtitle},
    {"OUTPUT:", 0, readoutput},
    {"FULLOUTPUT:", 0,
     [](CommandReader&, const std::string& value) { run.out.fulloutput = flagof("FULLOUTPUT", value); }},
    {"DIAGONALIZETAUPI:", 0,
     [](CommandReader&, const std::string& value) {
       run.model.restrictions.diagtaupi = flagof("DIAGONALIZETAUPI", value);
     }},
    {"DIAGONALIZETAUBETA:", 0,
     [](CommandReader&, const std::string& value) {
       run.model.restrictions.diagtaubeta = flagof("DIAGONALIZETAUBETA", value);
     }},
    {"LEVEL1WEIGHT:", 0, readweight1},
    {"LEVEL2WEIGHT:", 0, readweight2},
    {"LEVEL3WEIGHT:", 0, readweight3},
    {"WEIGHTSCALE:", 0, readweightscale},
    {"VARIANCEKNOWN:", 0, readvarianceknown},
    {"FIXTAU2:", 0, [](CommandReader&, const std::string& value) { setrepair(run.control.fixtau2, "FIXTAU2", value); }},
    {"FIXTAU3:", 0, [](CommandReader&, const std::string& value) { setrepair(run.control.fixtau3, "FIXTAU3", value); }},
    {"LEVEL1:", 0, readlevel1, true},
    {"RESFIL1:", 0, readresfil1},
    {"RESFIL2:", 0, readresfil2},
    {"RESFIL3:", 0, readresfil3},
    {"RESFIL1NAME:", 0, [](CommandReader&, const std::string& value) { setpath(run.files.resfil1name, value); }},
    {"RESFIL2NAME:", 0, [](CommandReader&, const std::string& value) { setpath(run.files.resfil2name, value); }},
    {"RESFIL3NAME:", 0, [](CommandReader&, const std::string& value) { setpath(run.files.resfil3name, value); }},
    {"RESFILTYPE:", 0, readresfiltype},
    {"RESFILRECNUM:", 0,
     [](CommandReader&, const std::string& value) { run.out.resfilrecnum = flagof("RESFILRECNUM", value); }},
    {"RESFILOF:", 0, readresfilof},
    {"RESULTS:", 0, readresults},
    {"DEBUG:", 0, [](CommandReader&, const std::string& value) { run.control.debug = wholevalue("DEBUG", value); }},
};

}  // namespace

const Keyword* findkeyword(const std::string& line) {
  for (const Keyword& keyword : keywords) {
    const std::string_view word(keyword.word);
    if (beginswith(line, keyword.compared > 0 ? word.substr(0, keyword.compared) : word)) return &keyword;
  }
  return nullptr;
}

}  // namespace kdr
