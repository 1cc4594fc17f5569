#include "document/resultstable.h"

#include <nlohmann/json.hpp>

namespace kdr {

std::string csvfield(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  return quoted + "\"";
}

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* columns[] = {"phase",
                                   "part",
                                   "category",
                                   "level1",
                                   "level2",
                                   "level3",
                                   "subscript",
                                   "with_category",
                                   "with_level1",
                                   "with_level2",
                                   "with_subscript",
                                   "estimate",
                                   "standard_error",
                                   "t",
                                   "df",
                                   "p",
                                   "low",
                                   "high",
                                   "robust_standard_error",
                                   "robust_t",
                                   "robust_df",
                                   "robust_p",
                                   "robust_low",
                                   "robust_high",
                                   "ratio",
                                   "ratio_low",
                                   "ratio_high",
                                   "robust_ratio_low",
                                   "robust_ratio_high",
                                   "correlation",
                                   "reliability",
                                   "chi_square",
                                   "chi_square_df",
                                   "chi_square_p"};

// A value as a field.
std::string field(const Json& value) {
  if (value.is_null()) return {};
  return value.is_string() ? csvfield(value.get_ref<const std::string&>()) : value.dump();
}

// A row by the names of its columns; the others stay empty.
std::string line(const Json& row) {
  std::string text;
  for (const char* column : columns) {
    if (!text.empty()) text += ",";
    text += row.contains(column) ? field(row[column]) : "";
  }
  return text + "\n";
}

void addbounds(Json& row, const std::string& prefix, const Json& bounds) {
  if (!bounds.is_array()) return;
  row[prefix + "low"] = bounds[0];
  row[prefix + "high"] = bounds[1];
}

// The columns of the model-based or the robust standard error.
void addtest(Json& row, const std::string& prefix, const Json& test) {
  if (test.is_null()) return;
  for (const char* name : {"standard_error", "t", "df", "p"}) row[prefix + name] = test[name];
  addbounds(row, prefix, test["interval"]);
  if (test.contains("ratio_interval")) addbounds(row, prefix + "ratio_", test["ratio_interval"]);
}

std::string effectline(const Json& phase, const Json& effect) {
  Json row{{"phase", phase["phase"]}, {"part", "fixed"}};
  for (const char* name : {"category", "level1", "level2", "level3", "subscript", "estimate"}) row[name] = effect[name];
  if (effect.contains("ratio")) row["ratio"] = effect["ratio"];
  addtest(row, "", effect["model_based"]);
  addtest(row, "robust_", effect["robust"]);
  return line(row);
}

Json testof(const Json& phase, const char* part, std::size_t i) {
  const Json& tests = phase["variance_tests"];
  if (tests.is_null()) return {};
  return tests[std::string(part) == "tau_pi" ? "level2" : "level3"][i];
}

std::string taulines(const Json& phase, const char* part) {
  const Json& tau = phase[part];
  std::string text;
  if (tau.is_null()) return text;
  const Json& rows = tau["rows"];
  for (std::size_t i = 0; i < rows.size(); ++i)
    for (std::size_t j = 0; j <= i; ++j) {
      Json row{{"phase", phase["phase"]}, {"part", part}, {"estimate", tau["estimate"][i][j]}};
      for (const char* name : {"category", "level1", "level2", "subscript"}) {
        row[name] = rows[i][name];
        row[std::string("with_") + name] = rows[j][name];
      }
      if (!tau["standard_error"].is_null()) row["standard_error"] = tau["standard_error"][i][j];
      row["correlation"] = tau["correlation"][i][j];
      if (i == j && !tau["reliability"].is_null()) row["reliability"] = tau["reliability"][i];
      if (const Json test = i == j ? testof(phase, part, i) : Json(); !test.is_null()) {
        row["chi_square"] = test["chi_square"];
        row["chi_square_df"] = test["df"];
        row["chi_square_p"] = test["p"];
      }
      text += line(row);
    }
  return text;
}

std::string sigma2line(const Json& phase) {
  const Json& sigma2 = phase["sigma2"];
  if (sigma2.is_null()) return {};
  return line({{"phase", phase["phase"]},
               {"part", "sigma2"},
               {"estimate", sigma2["estimate"]},
               {"standard_error", sigma2["standard_error"]}});
}

}  // namespace

std::string resultstable(const Json& document) {
  Json heads;
  for (const char* column : columns) heads[column] = column;
  std::string text = line(heads);
  for (const Json& phase : document["phases"]) {
    for (const Json& effect : phase["fixed_effects"]) text += effectline(phase, effect);
    text += sigma2line(phase) + taulines(phase, "tau_pi") + taulines(phase, "tau_beta");
  }
  return text;
}

}  // namespace kdr
