// The written command file: its lines, and that a run of it restores the record.
#include "command/writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "command/complete.h"
#include "command/constraints.h"
#include "command/dialogue.h"
#include "command/smallmdm.h"
#include "core/constraints.h"

using namespace kdr;

namespace {

// Of the dialogue and of command files. Once in a while 1000 of each are worth the time.
constexpr unsigned sessions = 60, files = 150;

// What the run sequence does between reading and writing.
void finishrun() {
  compactlists();
  run.model.outname = run.mdm.names1[static_cast<std::size_t>(run.model.outvar)];
  applyconstraints(run.model);
  run.files.sourcename = "s.mdm";
}

void preparerun() {
  completemodel();
  settleconstraints();
  finishrun();
}

std::string written(const std::string& text) {
  readtext(text);
  preparerun();
  writecommandfile("new.kdr");
  return contents("new.kdr");
}

template <class T>
void put(std::ostream& out, const char* name, const Array<T>& array) {
  out << name;
  for (const T& value : array) {
    if constexpr (std::is_enum_v<T>) {
      out << ' ' << static_cast<int>(value);
    } else {
      out << ' ' << value;
    }
  }
  out << '\n';
}

// Everything of the record that a written command file is to restore, as text.
std::string recordtext() {
  std::ostringstream out;
  out.precision(17);
  const Model& m = run.model;
  put(out, "use1", m.use1.cells);
  put(out, "center1", m.center1);
  put(out, "fixed1", m.fixed1.cells);
  put(out, "terms2", m.terms2.cells);
  put(out, "extra2", m.extra2.cells);
  put(out, "center2", m.center2);
  put(out, "fixed2", m.fixed2.cells);
  put(out, "terms3", m.terms3.cells);
  put(out, "extra3", m.extra3.cells);
  put(out, "center3", m.center3);
  put(out, "delete1", m.delete1);
  if (run.out.resfil1) {
    put(out, "res1vars1", run.out.res1vars1);
    put(out, "res1vars2", run.out.res1vars2);
    put(out, "res1vars3", run.out.res1vars3);
  }
  put(out, "res2vars2", run.out.res2vars2);
  put(out, "res2vars3", run.out.res2vars3);
  put(out, "res3vars3", run.out.res3vars3);
  if (m.nconstrained > 0) put(out, "constraints", m.constraints);  // a group of one constrains nothing
  put(out, "rows", m.hypothesisrows);
  put(out, "contrasts", m.contrasts);
  put(out, "uncut", m.uncutcontrasts);
  const Control& i = run.control;
  put(out, "est2", run.model.restrictions.esttau2);
  put(out, "est3", run.model.restrictions.esttau3);
  put(out, "con2", run.model.restrictions.contau2);
  put(out, "con3", run.model.restrictions.contau3);
  out << i.numit << ' ' << static_cast<int>(i.numitcontinue) << ' ' << i.macroit << ' ' << i.stopval << ' '
      << i.stopmacro << ' ' << i.accel << ' ' << static_cast<int>(i.fishertype) << ' '
      << run.model.restrictions.fixsigma2.value_or(0.0) << ' ' << static_cast<int>(i.fixtau2) << ' '
      << static_cast<int>(i.fixtau3) << ' ' << i.laplace << ' ' << i.laplaceit << ' ' << i.agqpoints << i.agqauto
      << i.agqfixed << ' ' << i.agqit << ' ' << i.agqderivlevel << ' ' << i.popavit << ' ' << static_cast<int>(i.taylor)
      << ' ' << i.debug << '\n';
  const OutputControl& o = run.out;
  if (o.lvr) put(out, "lvr", o.lvrroles);
  out << o.fulloutput << static_cast<int>(o.printvc) << run.model.restrictions.diagtaupi
      << run.model.restrictions.diagtaubeta << o.resfil1 << o.resfil2 << o.resfil3 << ' ' << o.graph << ' '
      << run.model.wgtvar1 << ' ' << run.model.wgtvar2 << ' ' << run.model.wgtvar3 << ' ' << run.model.autovknown << ' '
      << o.deviance.value_or(missingcode) << ' ' << o.df << ' ' << o.lvr << '\n';
  if (o.resfil1 || o.resfil2 || o.resfil3) out << static_cast<int>(o.resfiltype) << '\n';
  const RunFiles& f = run.files;
  out << f.outfile << '|' << f.title << '|' << f.startvals << '|' << f.graphgammas << '|' << f.results << '\n';
  const Model& k = run.model;
  out << static_cast<int>(k.outcome.family) << k.outcome.categories << k.neqsets << k.outcome.counted
      << k.outcome.countvariable.value_or(0) << k.outvar << k.nointercept1 << ' ' << run.model.coef.npi << ' '
      << run.model.coef.nbeta << ' ' << run.model.coef.ngamma << '\n';
  put(out, "pv", run.series.pvlist);
  return out.str();
}

// Random command files that the reader takes as they stand.
struct Author {
  std::mt19937 random;
  std::ostringstream out;
  int nrandom1 = 0, nrandom2 = 0, ngamma = 0, nthresholds = 0;

  int below(int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); }
  bool maybe() { return below(2) == 0; }
  const char* pick(std::initializer_list<const char*> words) {
    return words.begin()[below(static_cast<int>(words.size()))];
  }

  void level3(const std::string& owner) {
    const bool intercept = maybe();
    std::string terms = intercept ? "+INTRCPT3" : "";
    for (const char* name : {"P", "Q"})
      if (maybe()) terms.append("+").append(name).append(maybe() && name[0] == 'P' ? ",2" : "");
    ngamma += static_cast<int>(std::count(terms.begin(), terms.end(), '+'));
    if (below(3) == 0) terms += "+RANDOM";
    if (terms.ends_with("RANDOM")) ++nrandom2;
    if (terms.empty()) {
      out << "LEVEL3:" << owner << "=\n";
    } else {
      out << "LEVEL3:" << owner << "=" << terms.substr(1) << (terms == "+RANDOM" ? "" : maybe() ? "/" : "/Q,P") << "\n";
    }
  }

  void level2(const std::string& owner) {
    std::vector<std::string> owners;
    std::string terms;
    for (const char* name : {"INTRCPT2", "W", "V"})
      if (maybe()) {
        owners.emplace_back(name);
        terms.append("+").append(name).append(name[0] == 'V' ? ",1" : name[0] == 'W' ? ",2" : "");
      }
    if (maybe()) {
      terms += "+RANDOM";
      ++nrandom1;
    }
    out << "LEVEL2:" << owner << "=" << (terms.empty() ? "" : terms.substr(1));
    out << (owners.empty() ? "" : maybe() ? "/" : "/W2") << "\n";
    for (const std::string& name : owners) level3(name);
  }

  void set(bool ordinal) {
    const bool intercept = maybe();
    std::string terms = intercept ? "INTRCPT1+" : "";
    std::vector<std::string> owners;
    if (intercept) owners.emplace_back("INTRCPT1");
    for (const char* name : {"A", "B", "X"})
      if (maybe()) {
        terms.append(name).append(name[0] == 'A' ? ",1+" : name[0] == 'B' ? ",2+" : "+");
        owners.emplace_back(name);
      }
    if (owners.empty()) {
      terms = "X+";
      owners.emplace_back("X");
    }
    // The first term's LEVEL2: line stands before the others are looked at, so thresholds come last.
    out << "LEVEL1:Y=" << terms << (ordinal ? "THOLD2+" : "") << "RANDOM\n";
    nthresholds += ordinal ? 1 : 0;
    for (const std::string& owner : owners) level2(owner);
  }

  std::string list(int n, const std::function<std::string()>& element) {
    std::string text;
    for (int i = 0; i < n; ++i) text.append(i > 0 ? "," : "").append(element());
    return text;
  }

  std::string real() {
    const double scales[] = {1.0, 1e-7, 12345.678, 1e20, 1.0 / 3.0};
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", (below(2001) - 1000) * scales[below(5)]);
    return text;
  }

  void lists() {
    const auto estimate = [this] { return maybe() ? "E" : real(); };
    if (nrandom1 > 0 && maybe()) out << "ESTTAU2:" << list(nrandom1 * (nrandom1 + 1) / 2, estimate) << "\n";
    if (nrandom2 > 0 && maybe()) out << "ESTTAU3:" << list(nrandom2 * (nrandom2 + 1) / 2, estimate) << "\n";
    if (nrandom1 > 1 && maybe()) out << "CONTAU2:3,1\n" << (nrandom1 > 2 ? "CONTAU2:2,6,4\n" : "");
    if (nrandom2 > 1 && maybe()) out << "CONTAU3:2,3\n";
    for (int h = 1, n = below(3); h <= n; ++h)
      for (int row = 0, rows = 1 + below(2); row < rows; ++row)
        out << "GAMMA" << h << ":" << list(ngamma + nthresholds, [this] { return real(); }) << "\n";
    if (ngamma > 3 && maybe()) out << "CONSTRAIN:1,0,1,2" << (ngamma > 4 ? ",2" : "") << "\n";
  }

  void residuals() {
    if (maybe()) out << "RESFILTYPE:" << pick({"FREEFORMAT", "SYSTAT", "SAS", "SPSS", "STATA"}) << "\n";
    out << "RESFIL1:" << pick({"N", "Y", "Y/A,T", "Y//W2", "Y/B/V/Q", "Y/INTRCPT1"}) << "\n";
    out << "RESFIL2:" << pick({"N", "Y", "Y/W2", "Y//P"}) << "\n";
    out << "RESFIL3:" << pick({"N", "Y", "Y/Q"}) << "\n";
    if (maybe()) out << "RESFIL2NAME:mine.dat\n";
  }

  void control() {
    if (maybe()) out << "FISHERTYPE:" << below(3) << "\n";
    if (maybe()) out << "ACCEL:" << below(9) << "\n";
    if (maybe()) out << "PRINTVARIANCE-COVARIANCE:" << pick({"Y", "A", "N"}) << "\n";
    if (maybe()) out << "FIXSIGMA2:" << pick({"N", "0", "1", "0.33333333333333331", "1e-7", "12345.678e17"}) << "\n";
    if (maybe()) out << "DEVIANCE:" << real() << "\nDF:" << below(50) << "\n";
    if (maybe()) out << "FIXTAU2:" << below(6) << "\nFIXTAU3:" << below(6) << "\n";
    if (maybe()) out << "DIAGONALIZETAUPI:Y\n";
    if (maybe()) out << "DIAGONALIZETAUBETA:Y\n";
    if (maybe()) out << "DEBUG:" << below(4) << "\n";
    if (maybe()) out << "RESULTS:r.json\n";
    if (maybe()) out << "GRAPHGAMMAS:g.grk\n";
    if (maybe()) out << "FULLOUTPUT:N\n";
    if (maybe()) out << "STARTVALS:start.val/writeonly\n";
    if (maybe()) out << "LEVEL1WEIGHT:T\nLEVEL2WEIGHT:W2\nLEVEL3WEIGHT:Q\n";
    if (maybe()) out << "VARIANCEKNOWN:T\n";
    if (maybe()) out << "LEVEL1DELETION:A,T\n";
    out << "OUTPUT:out.txt\nTITLE:" << pick({"", "a title: with colon", " led by a blank"}) << "\n";
  }

  std::string write(unsigned seed) {
    random.seed(seed);
    const int kind = below(6);
    const char* kinds[] = {"N", "BERNOULLI", "BINOMIAL,Z", "POISSON,Z", "MULTINOMIAL,3", "ORDINAL,3"};
    out << "NONLIN:" << kinds[kind] << "\n";
    const char* suffix = pick({"", ",N", ",Y"});
    const bool linear = kind == 0;
    out << (linear ? "NUMIT:" : "MACROIT:") << 1 + below(500) << suffix << "\n";
    if (!linear) out << "MICROIT:" << 1 + below(50) << "\n";
    if (maybe()) out << (linear ? "STOPVAL:" : "STOPMICRO:") << pick({"1e-12", "0.25", "1e-7", "3e-5"}) << "\n";
    if (!linear && maybe()) out << "STOPMACRO:" << pick({"1e-12", "0.001"}) << "\n";
    if (kind == 1 && maybe()) out << "LAPLACE:Y,30\n";
    if (kind != 0 && kind < 4 && maybe()) out << (maybe() ? "AGQ:Y,20,7\nAGQNODES:FIXED\n" : "AGQ:Y,20,AUTO\n");
    if (kind != 0 && kind < 4 && maybe()) out << "AGQDERIVLEVEL:1\n";
    if (kind != 0 && kind < 4 && maybe()) out << "POPAVIT:" << pick({"N", "Y", "5"}) << "\n";
    if (!linear && maybe()) out << "TAYLOR:4\n";
    for (int e = 0; e < (kind == 4 ? 2 : 1); ++e) set(kind == 5);
    residuals();
    lists();
    if (linear && maybe()) out << "PLAUSVALS:Y,Z,T\n";
    control();
    return out.str();
  }
};

// Answers at random whatever the dialogue asks, by the words on the console.
struct Answers {
  std::mt19937 random;
  char* words = nullptr;
  std::size_t nwords = 0, heard = 0;  // all that was printed, and up to the answer before
  std::FILE* console = nullptr;
  std::string line;  // what of an answer was not taken yet

  int below(int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); }

  std::string answer() {
    std::fflush(console);
    const std::string_view prompt = std::string_view(words, nwords).substr(std::exchange(heard, nwords));
    const auto asks = [&](const char* part) { return prompt.find(part) != std::string_view::npos; };
    if (asks("type of analysis:")) return std::to_string(1 + below(6));
    if (asks("categories does")) return std::to_string(2 + below(3));
    if (asks("outcome variable:")) return "4";
    if (asks("iterations") && !asks("Laplace-6")) return std::to_string(1 + below(90));
    if (asks("which variable indicates")) return std::to_string(1 + below(6));
    if (asks("level-1 predictor? (Enter")) return std::to_string(below(4));
    if (asks("predictor? (Enter")) return std::to_string(below(5) - 1);
    if (asks("variable? (Enter")) return std::to_string(below(4));
    if (asks("How do you want to center")) return std::to_string(below(3));
    if (asks("How do you want to handle")) return std::string(1, "oopPi"[below(5)]);
    if (asks("contrast value") || asks("deviance")) return std::to_string(below(9) + 1) + ".0625";
    if (asks("number of variance") || asks("Type?")) return std::to_string(1 + below(5));
    if (asks("title:")) return "a title";
    // What repeats as long as it is answered with yes is answered so seldom.
    return below(asks("constrain any") || asks("another") || asks("non-linear") ? 4 : 3) == 0 ? "y" : "n";
  }
};

ssize_t readanswers(void* cookie, char* buffer, std::size_t size) {
  Answers& answers = *static_cast<Answers*>(cookie);
  if (answers.line.empty()) answers.line = answers.answer() + "\n";
  const std::size_t n = answers.line.copy(buffer, size);
  answers.line.erase(0, n);
  return static_cast<ssize_t>(n);
}

// Holds the dialogue with random answers; the written file, run again, restores the record.
void randomsession(unsigned seed) {
  Answers answers;
  answers.random.seed(seed);
  std::FILE* const console = std::exchange(stdout, open_memstream(&answers.words, &answers.nwords));
  answers.console = stdout;
  stdin = fopencookie(&answers, "r", {readanswers, nullptr, nullptr, nullptr});
  std::setvbuf(stdin, nullptr, _IONBF, 0);
  readtext(answers.below(2) == 0 ? "OUTPUT:o\nRESFIL1:Y/T\n" : "OUTPUT:o\nSTOPVAL:1e-9\nAGQDERIVLEVEL:1\n");
  modelquestions();
  constraintquestions();
  settleconstraints();
  featurequestions();
  outputquestions();
  finishrun();
  writecommandfile("new.kdr");
  const std::string first = recordtext(), once = contents("new.kdr");
  const bool same = written(once) == once && recordtext() == first;
  stdout = console;
  if (!same)
    std::printf("%s\n-----\n%s\n-----\n%s\n%s", answers.words, once.c_str(), first.c_str(), recordtext().c_str());
  std::fflush(stdout);
  _exit(same ? 0 : 99);
}

}  // namespace

TEST(Writer, RestoresTheRecordOfADialogue) {
  const Workplace workplace;
  int complete = 0;
  for (unsigned seed = 1; seed <= sessions; ++seed) {
    const ChildEnd outcome = runchild([&] { randomsession(seed); });
    ASSERT_NE(outcome.code, 99) << seed << outcome.words;
    complete += outcome.code == 0 ? 1 : 0;
  }
  EXPECT_GT(complete, static_cast<int>(sessions) / 2);
}

TEST(Writer, RestoresTheRecord) {
  const Workplace workplace;
  int complete = 0;
  for (unsigned seed = 1; seed <= files; ++seed) {
    Author author;
    const std::string text = author.write(seed);
    if (author.ngamma == 0) continue;  // no model at all: lists about the model are refused
    ++complete;
    const std::string once = written(text);
    const std::string first = recordtext();
    const std::string twice = written(once);
    ASSERT_EQ(first, recordtext()) << text << "\n-----\n" << once;
    ASSERT_EQ(once, twice);
  }
  EXPECT_GT(complete, static_cast<int>(files) / 2);
}

TEST(Writer, LinesOfALinearRun) {
  const Workplace workplace;
  const std::string text = written("NUMIT:50\nOUTPUT:o.txt\nTITLE:t\n" + samplemodel +
                                   "CONTAU2:1,3\nESTTAU3:E,0.5,E\nGAMMA1:0,1,-1,0,0\nCONSTRAIN:0,1,1\n");
  EXPECT_EQ(text,
            "#This command file was run with s.mdm\n"
            "NUMIT:50\n"
            "STOPVAL:0.0000010000\n"
            "NONLIN:n\n"
            "LEVEL1:Y=INTRCPT1+X,1+RANDOM\n"
            "LEVEL2:INTRCPT1=INTRCPT2+W,2+RANDOM/W2\n"
            "LEVEL3:INTRCPT2=INTRCPT3+P,2+Q+RANDOM/\n"
            "LEVEL3:W=INTRCPT3/Q\n"
            "LEVEL2:X=INTRCPT2+RANDOM/\n"
            "LEVEL3:INTRCPT2=INTRCPT3+RANDOM/\n"
            "LEVEL1WEIGHT:NONE\nLEVEL2WEIGHT:NONE\nLEVEL3WEIGHT:NONE\nVARIANCEKNOWN:NONE\n"
            "LEVEL1DELETION:NONE\n"
            "RESFIL1:N\nRESFIL2:N\nRESFIL3:N\n"
            "GAMMA1:0.0000,1.0000,-1.0000,0.0000,0.0000\n"
            "CONTAU2:1,3\n"
            "ESTTAU3:E,0.500000,E\n"
            "FISHERTYPE:2\n"
            "HYPOTH:n\n"
            "FIXTAU2:3\nFIXTAU3:3\n"
            "CONSTRAIN:0,1,1,0,0\n"
            "OUTPUT:o.txt\nFULLOUTPUT:Y\nTITLE:t\nACCEL:5\nLVR-BETA:N\n");
}

TEST(Writer, NonLinearRunHasOneLineForLevel1) {
  const Workplace workplace;
  const std::string head = "NONLIN:BERNOULLI\nMACROIT:20,N\nMICROIT:14\nLAPLACE:Y\n";
  const std::string text = written(head + samplemodel);
  EXPECT_NE(text.find("STOPMICRO:0.0000100000\nSTOPMACRO:0.0001000000\nMACROIT:20,N\nMICROIT:14\nNONLIN:BERNOULLI\n"
                      "LAPLACE:y,50\nLEVEL1:Y=INTRCPT1+X,1+RANDOM\nLEVEL2:"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("FIXSIGMA2:1.000000\n"), std::string::npos);

  // Earlier programs wrote a working outcome, behind a line that states the user's.
  // That line speaks for the one behind it, and for the working outcome only. A comment that anyone may write says
  // nothing, and nothing is taken from either in a linear run.
  const auto level1 = [&](const std::string& lines) {
    readtext(lines);
    return std::pair{run.model.outvar, static_cast<int>(run.model.center1[3])};
  };
  using Found = std::pair<int, int>;
  const std::string stated = "LEVEL1:Y=INTRCPT1+X,1+RANDOM\n", working = "LEVEL1:Z=INTRCPT1+X+RANDOM\n";
  EXPECT_EQ(level1(head + "#KDR3 " + stated + working), Found(4, 1));
  EXPECT_EQ(level1(head + "#KDR3 " + stated + "#\n" + working), Found(5, 0));
  EXPECT_EQ(level1(head + "#KDR3 " + stated + "LEVEL1:T=INTRCPT1+X+RANDOM\n"), Found(6, 0));
  EXPECT_EQ(level1(head + "#" + stated + working), Found(5, 0));
  EXPECT_EQ(level1("#KDR3 " + stated + working), Found(5, 0));
}

TEST(Writer, OutcomeOfTheNextPlausibleValue) {
  const Workplace workplace;
  readtext(samplemodel + "PLAUSVALS:Y,Z\n");
  preparerun();
  run.mdm.deletednow = true;
  run.model.outvar = 5;  // the report keeps the name Y
  std::FILE* next = std::fopen("NEXT", "w+");
  writenextcommands(next);
  std::fclose(next);
  EXPECT_NE(contents("NEXT").find("\nLEVEL1:Z=INTRCPT1+X,1+RANDOM\n"), std::string::npos);
  EXPECT_NE(contents("NEXT").find("\nLEVEL1DELETION:NONE\n"), std::string::npos);
  EXPECT_NE(contents("NEXT").find("\nPLAUSVALS:Y,Z\n"), std::string::npos);
  writecommandfile("other");
  EXPECT_NE(contents("other").find("\nLEVEL1:Y=INTRCPT1+X,1+RANDOM\n"), std::string::npos);
}
