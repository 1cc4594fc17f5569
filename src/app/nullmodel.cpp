#include "app/nullmodel.h"

#include <fstream>
#include <string>

#include "core/formatted.h"
#include "core/names.h"
#include "document/json.h"
#include "driver/failures.h"
#include "driver/runrecord.h"
#include "kernel/sizes.h"

namespace kdr {

namespace {

using Place = Json::json_pointer;

bool takenumber(const Json& from, const char* place, double& value) {
  if (!from.contains(Place(place)) || !from[Place(place)].is_number()) return false;
  value = from[Place(place)].get<double>();
  return true;
}

// The variances of the phase `final`; why there are none, in words that go on from "... is".
std::string takevariances(const Json& document, Shares::NullModel& null) {
  const MdmData& mdm = run.mdm;
  std::string another = formatted("not that of a linear model of %s levels", mdm.twolevel() ? "two" : "three");
  double records = 0.0, units2 = 0.0, units3 = 0.0;
  if (!document.is_object() || !takenumber(document, "/dimensions/records", records) ||
      !takenumber(document, "/dimensions/level2_units", units2) || !document.contains("phases") ||
      takenumber(document, "/dimensions/level3_units", units3) == mdm.twolevel())
    return another;
  if (units2 != mdm.nunits2 || (!mdm.twolevel() && units3 != mdm.nunits3))
    return "of other units than those of this data set";
  const std::string outcome = leftname(mdm.names1[at(run.model.outvar)]);
  if (!document.contains(Place("/model/outcome")) || document[Place("/model/outcome")] != outcome)
    return "of another outcome than " + outcome;
  null.records = static_cast<long long>(records);
  for (const Json& phase : document["phases"]) {
    if (!phase.is_object() || phase.value("phase", "") != "final") continue;
    if (phase.contains("likelihood") != run.control.restricted) return "of another likelihood (LIKELIHOOD:)";
    if (!phase.contains("fixed_effects") || phase["fixed_effects"].size() != 1) return "of a model with predictors";
    if (!takenumber(phase, "/sigma2/estimate", null.sigma2) || !takenumber(phase, "/tau_pi/estimate/0/0", null.taupi) ||
        (!mdm.twolevel() && !takenumber(phase, "/tau_beta/estimate/0/0", null.taubeta)))
      return another;
    const bool positive = null.sigma2 > 0.0 && null.taupi > 0.0 && (mdm.twolevel() || null.taubeta > 0.0);
    return positive ? "" : "of a model with a variance of 0";
  }
  return another;
}

}  // namespace

void readnullmodel() {
  const std::string& path = run.files.nullmodel;
  if (path.empty()) return;
  std::ifstream file(path);
  const bool readable = file && file.peek() != std::ifstream::traits_type::eof();  // a folder is not
  const Json document = readable ? Json::parse(file, nullptr, false) : Json();
  Shares::NullModel null;
  if (const std::string words = takevariances(document, null); !words.empty())
    stopwith("NULLMODEL: takes the results document (.json) of the model without predictors. %s is %s.\n", path.c_str(),
             words.c_str());
  run.control.shares.asked = true;
  run.control.shares.null = null;
}

}  // namespace kdr
