// The table of keywords.
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "command/reader.h"
#include "command/text.h"
#include "core/formatted.h"
#include "data/scratch.h"
#include "driver/failures.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

struct Keyword {
  const char* word;
  std::size_t compared;  // characters that are compared; 0: all of them
  KeywordHandler handler;
};

// The text behind the first comma; empty without one.
std::string behindcomma(const std::string& value) {
  const std::size_t comma = value.find(',');
  const std::size_t first = comma == std::string::npos ? comma : value.find_first_not_of(' ', comma + 1);
  return first == std::string::npos ? "" : value.substr(first);
}

// The value is a Y. Anything that is no N either is told, since what it asks for is not done.
bool isyes(const char* keyword, const std::string& value) {
  const char letter = firstletter(value);
  if (letter != 'N' && letter != 'Y')
    std::printf(" %s:%s is neither Y nor N: ignored\n", keyword, printable(value).c_str());
  return letter == 'Y';
}

// N and Y set a flag, anything else leaves it.
void setflag(bool& flag, const char* keyword, const std::string& value) {
  const bool yes = isyes(keyword, value);
  if (yes || firstletter(value) == 'N') flag = yes;
}

void setcontinue(const std::string& value) {
  const char letter = firstletter(behindcomma(value));
  if (const auto* row = rownamed(limitletters, std::string(1, letter))) run.control.numitcontinue = row->code;
}

void setpath(std::string& path, const std::string& value) {
  if (overlong(value)) stopwith("The path is too long: %s\n", value.c_str());
  path = value;
}

// The value begins with a number. A word would else be taken for 0, which some keywords have a use for.
void beginswithnumber(const char* keyword, const std::string& value) {
  if (!isreal(value)) stopwith("%s: wants a number, not %s\n", keyword, value.c_str());
}

// The same for keywords without a list: a decimal comma would cut the number off.
void wantnumber(const char* keyword, const std::string& value) {
  beginswithnumber(keyword, value);
  if (value.find(',') != std::string::npos)
    stopwith("%s: wants one number, with a decimal point, not %s\n", keyword, value.c_str());
}

void setwhole(int& field, const char* keyword, const std::string& value) {
  wantnumber(keyword, value);
  field = wholenumber(value);
}

void setrepair(FixTau& repair, const char* keyword, const std::string& value) {
  int code = 0;
  setwhole(code, keyword, value);
  repair = static_cast<FixTau>(code);
}

void readnumit(CommandReader&, const std::string& value) {
  run.control.numit = wholenumber(value);
  run.answered.iterations = run.answered.numit = true;
  if (run.control.numit < 1) stopwith("numit must be greater than 0!\n");
  setcontinue(value);
}

void readmacroit(CommandReader&, const std::string& value) {
  beginswithnumber("MACROIT", value);
  run.control.macroit = wholenumber(value);
  if (run.control.macroit < 0) stopwith("macroit must be greater than 0!\n");
  setcontinue(value);
}

void readmicroit(CommandReader&, const std::string& value) {
  run.control.numit = wholenumber(value);
  run.answered.iterations = true;
  if (run.control.numit < 1) stopwith("microit must be greater than 0!\n");
}

void readtaylor(CommandReader&, const std::string& value) {
  run.control.taylor = static_cast<Taylor>(wholenumber(value));
  if (run.control.taylor != Taylor::second && run.control.taylor != Taylor::fourth)
    stopwith("taylor must be set to 2 or 4!\n");
}

void readprintvc(CommandReader&, const std::string& value) {
  const char letter = firstletter(value);
  if (const auto* row = rownamed(varianceletters, std::string(1, letter))) run.out.printvc = row->code;
}

void readgraph(CommandReader&, const std::string& value) {
  setpath(run.files.graphgammas, value);
  run.out.graph = true;
}

void readresults(CommandReader&, const std::string& value) {
  if (!run.files.resultsgiven) setpath(run.files.results, value);
}

void readpopavit(CommandReader&, const std::string& value) {
  const char letter = firstletter(value);
  if (letter == 'N') return;
  if (letter != 'Y') wantnumber("POPAVIT", value);
  run.control.popavit = letter == 'Y' ? 1 : wholenumber(value);
}

void readlaplace(CommandReader&, const std::string& value) {
  if (!isyes("LAPLACE", value)) return;
  run.control.laplace = true;
  if (value.find(',') == std::string::npos) return;
  const std::string iterations = behindcomma(value);
  run.control.laplaceit = wholenumber(iterations);
  if (!isreal(iterations) || run.control.laplaceit < 0)
    stopwith("The number of Laplace iterations must be 0 or more!\n");
}

void readagq(CommandReader&, const std::string& value) {
  if (!isyes("AGQ", value)) return;
  const auto fields = split(value, ',');
  if (fields.size() < 3 || fields[1].empty() || fields[2].empty())
    stopwith("\nMaximum number of iterations and quadrature points must be specified.\n");
  run.control.agqit = wholenumber(fields[1]);
  run.control.agqit = std::max(run.control.agqit, 1);
  constexpr int mostpoints = 198;  // beyond, some nodes would share a place
  run.control.agqauto = strcasecmp(fields[2].c_str(), "AUTO") == 0;
  run.control.agqpoints = run.control.agqauto ? 1 : wholenumber(fields[2]);
  const int points = run.control.agqpoints;
  if (points < 1 || points == 2 || points > mostpoints || !(run.control.agqauto || isreal(fields[2])))
    stopwith("\nThe number of quadrature points must be 1, 3 to 198, or AUTO!\n");
}

void readagqnodes(CommandReader&, const std::string& value) {
  run.control.agqfixed = strcasecmp(value.c_str(), "FIXED") == 0;
  if (!run.control.agqfixed && strcasecmp(value.c_str(), "MOVING") != 0)
    stopwith("AGQNODES must be FIXED or MOVING!\n");
}

void readagqderivlevel(CommandReader&, const std::string& value) {
  run.control.agqderivlevel = wholenumber(value);
  if (run.control.agqderivlevel != 1 && run.control.agqderivlevel != 2)
    stopwith("agqderivlevel must be set to 1 or 2!\n");
}

void readfixsigma2(CommandReader&, const std::string& value) {
  if (firstletter(value) == 'N') return;
  const double held = realnumber(value);
  if (!isreal(value) || held < 0.0) stopwith("fixsigma2 must be N or a number of 0 or more!\n");
  wantnumber("FIXSIGMA2", value);
  run.model.restrictions.fixsigma2.reset();
  if (held != 0.0) run.model.restrictions.fixsigma2 = held;
}

void readstopval(CommandReader&, const std::string& value) {
  wantnumber("STOPVAL", value);
  run.control.stopval = realnumber(value);
  run.answered.stopval = true;
}

void readstopmicro(CommandReader&, const std::string& value) {
  wantnumber("STOPMICRO", value);
  run.control.stopval = realnumber(value);
  run.answered.stopmicro = true;
}

void readstopmacro(CommandReader&, const std::string& value) {
  wantnumber("STOPMACRO", value);
  run.control.stopmacro = realnumber(value);
}

void readstartvals(CommandReader&, const std::string& value) {
  const std::string suffix = "/writeonly";
  const bool marked = value.size() >= suffix.size() && sameword(value.substr(value.size() - suffix.size()), suffix);
  const std::string path = marked ? value.substr(0, value.size() - suffix.size()) : value;
  setpath(run.files.startvals, std::string(path.substr(0, path.find_last_not_of(' ') + 1)));
}

void readdeviance(CommandReader& reader, const std::string& value) {
  wantnumber("DEVIANCE", value);
  run.out.deviance = realnumber(value);
  run.answered.deviance = reader.deviance = true;
}

void readdf(CommandReader& reader, const std::string& value) {
  wantnumber("DF", value);
  run.out.df = wholenumber(value);
  run.answered.deviance = reader.df = true;
}

void readhypoth(CommandReader&, const std::string& value) {
  if (firstletter(value) == 'N') run.answered.hypoth = true;
}

void readdofisher(CommandReader&, const std::string& value) {
  if (isyes("DOFISHER", value)) run.control.fishertype = 2;
  if (firstletter(value) == 'N') run.control.fishertype = 0;
}

void readfishertype(CommandReader&, const std::string& value) {
  if (value[0] < '0' || value[0] > '2') stopwith("\nInvalid type of Fisher acceleration.\n Valid are 0, 1 and 2\n");
  run.control.fishertype = value[0] - '0';
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
int weightvariable(const char* what, const std::string& value, const Array<Name>& names, int nvar) {
  const std::string name = split(value, ',')[0];
  return sameword(name, "NONE") ? 0 : variable(what, name, names, nvar);
}

void readweight1(CommandReader&, const std::string& value) {
  run.model.wgtvar1 = weightvariable("wgtvar1", value, run.mdm.names1, run.mdm.nvar1);
}
void readweight2(CommandReader&, const std::string& value) {
  run.model.wgtvar2 = weightvariable("wgtvar2", value, run.mdm.names2, run.mdm.nvar2);
}
void readweight3(CommandReader&, const std::string& value) {
  run.model.wgtvar3 = weightvariable("wgtvar3", value, run.mdm.names3, run.mdm.nvar3);
}
void readvarianceknown(CommandReader&, const std::string& value) {
  run.model.autovknown = weightvariable("autovknown", value, run.mdm.names1, run.mdm.nvar1);
}

void readresfiltype(CommandReader&, const std::string& value) {
  const auto* form = rownamed(residualforms, value);
  if (form == nullptr) stopwith("Invalid resfiltype.\n Valid are FREEFORMAT, SYSTAT, SAS, SPSS and STATA\n");
  run.out.resfiltype = form->code;
  run.answered.resfiltype = true;
}

// In the order of comparison: the first match wins.
constexpr Keyword keywords[] = {
    {"ACCEL:", 0, [](CommandReader&, const std::string& value) { setwhole(run.control.accel, "ACCEL", value); }},
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
    {"HETIT:", 0, [](CommandReader&, const std::string& value) { setwhole(run.control.hetit, "HETIT", value); }},
    {"NOBASE:", 0, [](CommandReader&, const std::string&) { run.answered.nobase = true; }},
    {"FIXSIGMA2:", 0, readfixsigma2},
    {"STOPVAL:", 0, readstopval},
    {"STOPMICRO:", 8, readstopmicro},
    {"STOPMACRO:", 8, readstopmacro},
    {"STARTVALS:", 0, readstartvals},
    {"ESTTAU2:", 0, readesttau2},
    {"ESTTAU3:", 0, readesttau3},
    {"CONTAU2:", 0, readcontau2},
    {"CONTAU3:", 0, readcontau3},
    {"GAMMA", 0, readcontrast},
    {"CONSTRAIN", 0, readconstrain},
    {"DEVIANCE:", 0, readdeviance},
    {"DF:", 0, readdf},
    {"HYPOTH:", 0, readhypoth},
    {"DOFISHER:", 0, readdofisher},
    {"FISHERTYPE:", 0, readfishertype},
    {"TITLE:", 0, readtitle},
    {"OUTPUT:", 0, readoutput},
    {"FULLOUTPUT:", 0,
     [](CommandReader&, const std::string& value) { setflag(run.out.fulloutput, "FULLOUTPUT", value); }},
    {"DIAGONALIZETAUPI:", 0,
     [](CommandReader&, const std::string& value) {
       setflag(run.model.restrictions.diagtaupi, "DIAGONALIZETAUPI", value);
     }},
    {"DIAGONALIZETAUBETA:", 0,
     [](CommandReader&, const std::string& value) {
       setflag(run.model.restrictions.diagtaubeta, "DIAGONALIZETAUBETA", value);
     }},
    {"LEVEL1WEIGHT:", 0, readweight1},
    {"LEVEL2WEIGHT:", 0, readweight2},
    {"LEVEL3WEIGHT:", 0, readweight3},
    {"VARIANCEKNOWN:", 0, readvarianceknown},
    {"FIXTAU2:", 0, [](CommandReader&, const std::string& value) { setrepair(run.control.fixtau2, "FIXTAU2", value); }},
    {"FIXTAU3:", 0, [](CommandReader&, const std::string& value) { setrepair(run.control.fixtau3, "FIXTAU3", value); }},
    {"LEVEL1:", 0, readlevel1},
    {"RESFIL1:", 0, readresfil1},
    {"RESFIL2:", 0, readresfil2},
    {"RESFIL3:", 0, readresfil3},
    {"RESFIL1NAME:", 0, [](CommandReader&, const std::string& value) { setpath(run.files.resfil1name, value); }},
    {"RESFIL2NAME:", 0, [](CommandReader&, const std::string& value) { setpath(run.files.resfil2name, value); }},
    {"RESFIL3NAME:", 0, [](CommandReader&, const std::string& value) { setpath(run.files.resfil3name, value); }},
    {"RESFILTYPE:", 0, readresfiltype},
    {"RESFILRECNUM:", 0,
     [](CommandReader&, const std::string& value) { setflag(run.out.resfilrecnum, "RESFILRECNUM", value); }},
    {"RESULTS:", 0, readresults},
    {"DEBUG:", 0, [](CommandReader&, const std::string& value) { setwhole(run.control.debug, "DEBUG", value); }},
};

}  // namespace

KeywordHandler findkeyword(const std::string& line) {
  for (const Keyword& keyword : keywords) {
    const std::string_view word(keyword.word);
    if (beginswith(line, keyword.compared > 0 ? word.substr(0, keyword.compared) : word)) return keyword.handler;
  }
  return nullptr;
}

}  // namespace kdr
