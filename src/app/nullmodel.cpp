#include "app/nullmodel.h"

#include <fstream>

#include "document/json.h"
#include "driver/failures.h"
#include "driver/runrecord.h"

namespace kdr {

namespace {

// The variances of the phase `final`: false when the document has none.
bool takevariances(const Json& document, Shares::NullModel& null) {
  if (!document.is_object() || !document.contains("phases") || !document["phases"].is_array()) return false;
  for (const Json& phase : document["phases"]) {
    if (!phase.is_object() || phase.value("phase", "") != "final") continue;
    const auto number = [&](const char* pointer, double& value) {
      const Json::json_pointer place(pointer);
      if (!phase.contains(place) || !phase[place].is_number()) return false;
      value = phase[place].get<double>();
      return value > 0.0;
    };
    return number("/sigma2/estimate", null.sigma2) && number("/tau_pi/estimate/0/0", null.taupi) &&
           (run.mdm.twolevel() || number("/tau_beta/estimate/0/0", null.taubeta));
  }
  return false;
}

}  // namespace

void readnullmodel() {
  const std::string& path = run.files.nullmodel;
  if (path.empty()) return;
  std::ifstream file(path);
  const Json document = file ? Json::parse(file, nullptr, false) : Json();
  Shares::NullModel null;
  if (!takevariances(document, null))
    stopwith(
        "NULLMODEL: takes the results document (.json) of a linear model with variances above 0 of %s levels. %s is "
        "none.\n",
        run.mdm.twolevel() ? "two" : "three", path.c_str());
  null.records = document.value(Json::json_pointer("/dimensions/records"), 0LL);
  run.control.shares.asked = true;
  run.control.shares.null = null;
}

}  // namespace kdr
