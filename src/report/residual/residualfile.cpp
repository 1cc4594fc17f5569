#include "report/residual/residualfile.h"

#include <algorithm>

#include "driver/runrecord.h"
#include "report/residual/forms.h"

namespace kdr {

namespace {

struct Form {
  ResidualForm form;
  void (*head)(ResidualFile& file, int cases);
  void (*row)(ResidualFile& file, const ResidualRow& row);
  const char* end;
};

constexpr Form forms[] = {
    {ResidualForm::freeformat, writeheadfree, writerowfree, ""},
    {ResidualForm::systat, writeheadsystat, writerowcards, "~\n"},
    {ResidualForm::sas, writeheadsas, writerowcards, ";\n"},
    {ResidualForm::spss, writeheadspss, writerowspss, ""},
    {ResidualForm::stata, writeheadstata, writerowstata, ""},
};

const Form& formof(const ResidualFile& file) {
  return *std::find_if(std::begin(forms), std::end(forms), [&](const Form& form) { return form.form == file.form; });
}

}  // namespace

void openresidualfile(ResidualFile& file, int level, const std::string& path, int cases, int largestcount) {
  file.form = run.out.resfiltype;
  file.columns = residualcolumns(level);
  file.countwidth = std::max(file.countwidth, static_cast<int>(std::to_string(largestcount).size()));
  openresult(file.out, path);
  formof(file).head(file, cases);
}

void writeresidualrow(ResidualFile& file, const ResidualRow& row) { formof(file).row(file, row); }

void closeresidualfile(ResidualFile& file) {
  writeresult(file.out, formof(file).end);
  finishresult(file.out);
}

}  // namespace kdr
