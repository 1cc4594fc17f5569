#include "command/defaults.h"

#include <string>

#include "command/categories.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

struct DefaultNames {
  ResidualForm resfiltype;
  const char* names[3];
};

constexpr DefaultNames defaultnames[] = {
    {ResidualForm::freeformat, {"resfil1.dat", "resfil2.dat", "resfil3.dat"}},
    {ResidualForm::systat, {"RESFIL1.CMD", "RESFIL2.CMD", "RESFIL3.CMD"}},
    {ResidualForm::sas, {"resfil1.sas", "resfil2.sas", "resfil3.sas"}},
    {ResidualForm::spss, {"resfil1.sav", "resfil2.sav", "resfil3.sav"}},
    {ResidualForm::stata, {"resfil1.dta", "resfil2.dta", "resfil3.dta"}},
};

std::string* residualname(int level) {
  std::string* names[] = {&run.files.resfil1name, &run.files.resfil2name, &run.files.resfil3name};
  return names[level];
}

}  // namespace

void setresfilnames() {
  for (const DefaultNames& row : defaultnames)
    for (int level = 0; level < 3; ++level)
      if (row.resfiltype == run.out.resfiltype && residualname(level)->empty()) *residualname(level) = row.names[level];
}

void changeresfiltype(ResidualForm resfiltype) {
  for (const DefaultNames& row : defaultnames)
    for (int level = 0; level < 3; ++level)
      if (row.resfiltype == run.out.resfiltype && *residualname(level) == row.names[level])
        residualname(level)->clear();
  run.out.resfiltype = resfiltype;
  setresfilnames();
}

void resetkeywords() {
  RunFiles& files = run.files;
  for (std::string* text : {&files.outfile, &files.title, &files.startvals, &files.graphgammas, &files.resfil1name,
                            &files.resfil2name, &files.resfil3name})
    text->clear();
  run.control = Control{};
  const bool effects = run.out.effects;  // of an option
  run.out = OutputControl{};
  run.out.effects = effects;
  run.answered = AnsweredMarks{};
  run.model = Model{};
  makeequationsets();
  if (run.mdm.twolevel())  // nothing is asked about a level that is not there
    run.answered.level3 = run.answered.extra3 = run.answered.resfil3 = run.answered.lvr = true;
}

}  // namespace kdr
