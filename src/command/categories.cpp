#include "command/categories.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "command/text.h"
#include "driver/failures.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

// Ints that all equation tables may hold together.
constexpr double mostcells = 1.0e8;
// From 1000 on the names of thresholds agree in their 8 significant characters.
constexpr int mostthresholds = 998;

void checkcategories(int thresholds) {
  const MdmData& mdm = run.mdm;
  const int ncat = run.model.outcome.categories;
  if (ncat < 2) stopwith("The number of categories must be 2 or more!\n");
  const double width1 = mdm.nvar1 + 1.0 + thresholds;
  const double cells = width1 * (mdm.ncol2 + maxextra + 4.0) + mdm.ncol2 * width1 * (mdm.ncol3 + maxextra + 3.0);
  const double sets = run.model.outcome.ordinal() ? 1.0 : ncat - 1.0;
  if (thresholds > mostthresholds || cells * sets > mostcells)
    stopwith("The model is too big for %d categories!\n", ncat);
  if (!run.model.outcome.ordinal()) return;
  for (int v = 1; v <= mdm.nvar1; ++v)
    if (beginswith(leftname(mdm.names1[static_cast<std::size_t>(v)]), "THOLD"))
      stopwith("Variable names starting with THOLD are reserved for ordinal runs\n");
}

void addthresholds(int thresholds) {
  MdmData& mdm = run.mdm;
  for (int k = 0; k < thresholds; ++k) {
    char name[20];
    std::snprintf(name, sizeof name, k + 2 < 10 ? "THOLD%1d" : "THOLD%2d", k + 2);
    const int v = mdm.nvar1 + 1 + k;
    mdm.names1[static_cast<std::size_t>(v)] = paddedname(name);
    run.model.use1.row(0)[v] = Use::predictor;
  }
}

}  // namespace

void makeequationsets() {
  MdmData& mdm = run.mdm;
  const bool multi = run.model.outcome.categorical();
  const int thresholds = multi && run.model.outcome.ordinal() ? std::max(0, run.model.outcome.categories - 2) : 0;
  if (multi) checkcategories(thresholds);
  run.model.neqsets = multi && !run.model.outcome.ordinal() ? run.model.outcome.categories - 1 : 1;
  mdm.ncol1 = mdm.nvar1 + 1 + thresholds;
  mdm.maxbeta = mdm.ncol2 * (mdm.ncol1 - 1);
  mdm.names1.resize(static_cast<std::size_t>(mdm.nvar1) + 1);
  mdm.names1.resize(static_cast<std::size_t>(mdm.ncol1));

  Array<Deletion> deletion = std::move(run.model.delete1);
  OutputControl& out = run.out;
  Array<int>* const wanted[] = {&out.wanted1vars1, &out.wanted1vars2, &out.wanted1vars3,
                                &out.wanted2vars2, &out.wanted2vars3, &out.wanted3vars3};
  std::vector<Array<int>> earlier;
  for (Array<int>* list : wanted) earlier.push_back(std::move(*list));
  allocatemodel();
  if (deletion.size() == run.model.delete1.size()) run.model.delete1 = std::move(deletion);
  for (std::size_t i = 0; i < earlier.size(); ++i)
    std::copy_n(earlier[i].begin(), std::min(earlier[i].size(), wanted[i]->size()), wanted[i]->begin());
  addthresholds(thresholds);
}

}  // namespace kdr
