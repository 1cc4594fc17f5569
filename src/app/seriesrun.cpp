#include "app/seriesrun.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "driver/failures.h"
#include "driver/reportstream.h"
#include "driver/runrecord.h"
#include "estimate/inference/degreesoffreedom.h"
#include "kernel/sizes.h"
#include "report/averagedreport.h"
#include "report/passtables.h"
#include "report/resultsdocument.h"
#include "report/stream.h"
#include "series/pooling.h"
#include "series/resultstore.h"

namespace kdr {

namespace {

struct Series {
  bool begun = false;  // the store was created or joined
  bool pooled = false;
  bool whole = false;  // the record of this sub-run has all its fields,
  bool ended = false;  // and its estimation came to its end
  SubrunShape shape;
  std::vector<SubrunRecord> records;  // of this process: one of a data set, all of plausible values
  PoolFrame frame;
  Pooled averages;
  std::vector<int> unconverged;         // plausible values whose passes did not converge
  std::vector<std::string> categories;  // of the first plausible value
};
Series series;

bool inseries() { return run.series.mimode || run.series.pvmode; }

// Why the store isn't usable, on the console; a system that refuses it stops the run.
void sayunusable(const Failure& failure) {
  if (!unusable(failure)) tell(failure);
  std::printf("%s", failure.consolewords.c_str());
}

// Indices of sub-runs.
struct Subruns {
  std::vector<int> failed, unconverged;
};

// All usable sub-runs, and which are not or have not converged. False, with the sentence on the console, when the store
// isn't usable.
bool gather(std::vector<SubrunRecord>& records, Subruns& subruns) {
  if (run.series.pvmode) {
    records = std::move(series.records);
    subruns.unconverged = series.unconverged;
    return true;
  }
  StoreHead head;
  if (const Failure failure = readstore(series.shape, head, &records)) {
    sayunusable(failure);
    return false;
  }
  if (series.whole) {
    head.mistatus[run.series.miindex] = run.id.unconverged ? setunconverged : setconverged;
    records.push_back(std::move(series.records[0]));
  }
  for (int i = 0; i < head.nsets; ++i) {
    if (head.mistatus[i] == 0) subruns.failed.push_back(i);
    if (head.mistatus[i] == setunconverged) subruns.unconverged.push_back(i);
  }
  return true;
}

// The averages into the open report.
bool writeaverages() {
  std::vector<SubrunRecord> records;
  Subruns subruns;
  if (!gather(records, subruns)) return false;
  openaveragedreport();
  if (!records.empty()) series.averages = pool(series.shape, records, series.frame, run.model);
  averagedreport(records.empty() ? nullptr : &series.averages, subruns.failed, subruns.unconverged);
  series.pooled = true;
  return true;
}

void takeshape(const ModelRows& rows, const SubrunShape& shape) {
  series.shape = shape;
  run.model.coef.ntaupi = shape.q;  // a pass finds the same; a last data set may fail before it has one
  run.model.coef.ntaubeta = shape.r;
  series.frame = poolframe(rows, shape, degreesoffreedom(rows, countsof(run.mdm)));
  series.begun = true;
}

// Effects of categories are averaged where these are the same.
void checkcategories() {
  std::vector<std::string> categories;
  for (const Name& label : run.model.categorylabel) categories.push_back(leftname(label));
  if (run.series.pvfirst)
    series.categories = std::move(categories);
  else if (categories != series.categories)
    stopwith("The plausible value %s has other categories than the first one.\n",
             leftname(run.mdm.names1[at(run.series.pvcurrent)]).c_str());
}

[[noreturn]] void stopunusable(const Failure& failure) {
  series.pooled = true;  // the stop has nothing to add
  tell(failure);
}

}  // namespace

void clearseries() {
  if (run.series.mimode && run.series.mifirst) removestore();
}

void beginseries() {
  if (!inseries()) return;
  if (run.series.mimode && run.series.pvmode)
    stopwith("A run cannot be a data set of a multiple imputation and a series of plausible values at once.\n");
  if (run.series.pvmode) checkcategories();
  const ModelRows rows = modelrows(run.model);
  const SubrunShape shape = seriesshape(run.model, rows, run.mdm, run.control);
  SeriesMode& mode = run.series;
  if (mode.mimode && !mode.mifirst) {
    StoreHead head;
    if (const Failure failure = joinstore(shape, mode.miindex, head)) stopunusable(failure);
    mode.nsets = head.nsets;
    std::memcpy(mode.mistatus, head.mistatus, sizeof mode.mistatus);
  } else if (mode.mimode || mode.pvfirst) {
    startaveragedreport();
    if (mode.mimode) {
      if (const Failure failure = createstore(shape)) tell(failure);
      mode.nsets = 1;
      mode.mifirst = false;
    }
  }
  takeshape(rows, shape);
}

void resumeseries() {
  const ModelRows rows = modelrows(run.model);
  const SubrunShape shape = seriesshape(run.model, rows, run.mdm, run.control);
  StoreHead head;
  if (const Failure failure = readstore(shape, head, nullptr)) stopunusable(failure);
  run.series.nsets = head.nsets;
  takeshape(rows, shape);
}

void storesubrun(const PassResults& results) {
  if (!inseries() || results.heterogeneous || !results.loglik) return;
  const std::optional<PassKind> engine = series.shape.engine;
  if (engine && results.kind != *engine && results.kind != PassKind::populationaverage) return;
  const std::size_t place = run.series.mimode ? 0 : at(run.series.pvindex);
  if (results.kind == PassKind::populationaverage) {
    if (place >= series.records.size()) return;
    series.records[place].popaverage = subruneffects(results, series.records[place].sigma2);
    series.whole = true;
    return;
  }
  if (!results.robustdegrees.df.empty()) series.frame.degrees = results.robustdegrees.copy();
  series.records.resize(place);
  series.records.push_back(subrunrecord(series.shape, results));
  series.whole = !series.shape.popaverage;
}

void enginemissing() {
  if (!inseries() || !series.shape.engine) return;
  if (run.series.pvmode) stopwith("The engine has no results for this plausible value, so that nothing is averaged.\n");
  constexpr const char* words =
      "WARNING: the engine has no results: the averages of the series, which are those of the engine, count this data "
      "set "
      "as failed.";
  notconverged(std::string(words) + "\n");
  reportwarning(words);
  markreport();
  documentwarning(words);
}

bool lastsubrun() {
  const SeriesMode& mode = run.series;
  if (mode.mimode) return mode.milast;
  return mode.pvmode && mode.pvindex == mode.nsets - 1;
}

const Pooled* poolseries() {
  series.ended = series.whole;
  if (run.series.pvmode && run.id.passunconverged) series.unconverged.push_back(run.series.pvindex);
  if (!inseries() || !lastsubrun()) return nullptr;
  closereport();
  if (!writeaverages()) {
    series.pooled = true;  // the stop has nothing to add
    stoprun(100);
  }
  // The store goes only once what it held stands in the report.
  if (std::fflush(run.report.stream) != 0 || std::ferror(run.report.stream) != 0) fail(5);
  if (run.series.mimode) removestore();
  return series.averages.M > 0 ? &series.averages : nullptr;
}

void closeseries(int code) {
  if (!run.series.mimode) return;
  if (run.series.closing && !series.begun) return;
  if (!series.begun && run.series.mifirst && code != 0) {
    std::printf("The first data set of the series failed before its model was known, so the series has not begun.\n");
    return;
  }
  if (!run.series.milast) {
    if (!series.begun || (code != 0 && code != unconvergedcode) || !series.ended) return;
    if (const Failure failure =
            appendrecord(series.shape, run.series.miindex, series.records[0], !run.id.unconverged)) {
      sayunusable(failure);
      stoprun(100);
    }
    return;
  }
  if (series.pooled) return;
  if (!series.begun) {
    std::printf("The last data set of the series failed before its model was known, so nothing was averaged.");
    if (access(storename, F_OK) == 0) std::printf(" The other results are kept in %s.", storename);
    std::printf("\n");
    return;
  }
  series.whole = false;
  if (!writeaverages()) return;
  closereport();
  removestore();
  writeaveragedresults();
}

}  // namespace kdr
