#include "command/complete.h"

#include <cstdio>
#include <vector>

#include "core/modelcounts.h"
#include "core/modelwalk.h"
#include "driver/runrecord.h"

namespace kdr {

void countlevel1() { countlevel1(run.model); }
void countlevel2() { countlevel2(run.model); }
void countlevel3() { countlevel3(run.model); }
void completemodel() { completemodel(run.model); }

int randomlevel1() { return randomatlevel2(modelrows(run.model)); }

int randomlevel2() { return randomatlevel3(modelrows(run.model)); }

int countfixedeffects() { return static_cast<int>(modelrows(run.model).effects.size()); }

void labelrandomeffects() { labelrandomeffects(run.model, run.mdm.names1, run.mdm.names2); }

void compactlists() {
  const auto compact = [](const Array<int>& marks, Array<int>& list, int& count) {
    list.reset(marks.size());
    count = 0;
    for (std::size_t v = 1; v < marks.size(); ++v)
      if (marks[v] != 0) list[static_cast<std::size_t>(count++)] = static_cast<int>(v);
  };
  compact(run.out.wanted1vars1, run.out.res1vars1, run.out.nres1vars1);
  compact(run.out.wanted1vars2, run.out.res1vars2, run.out.nres1vars2);
  compact(run.out.wanted1vars3, run.out.res1vars3, run.out.nres1vars3);
  compact(run.out.wanted2vars2, run.out.res2vars2, run.out.nres2vars2);
  compact(run.out.wanted2vars3, run.out.res2vars3, run.out.nres2vars3);
  compact(run.out.wanted3vars3, run.out.res3vars3, run.out.nres3vars3);
}

}  // namespace kdr
