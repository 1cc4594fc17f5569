#include "command/constraints.h"

#include "core/constraints.h"
#include "core/formatted.h"
#include "driver/failures.h"
#include "driver/oddities.h"
#include "driver/runrecord.h"

namespace kdr {

void checkconstraints() {
  if (!groupsinorder(run.model))
    stopwith("Groups of constrained gammas must be numbered from 1 upward, in the order of their first gammas!\n");
}

void settleconstraints() {
  checkconstraints();
  makeconstraints(run.model);
  for (const int group : lonelygroups(run.model))
    oddcommand(formatted("CONSTRAIN: group %d has one member, and constrains nothing.\n", group));
}

}  // namespace kdr
