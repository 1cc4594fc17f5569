// The members of a results document from values.
#pragma once

#include <cmath>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "core/constants.h"
#include "core/results.h"
#include "kernel/array.h"
#include "kernel/sizes.h"

namespace kdr {

using Json = nlohmann::ordered_json;

// Null for a value that could not be computed.
inline Json number(double value) { return std::isfinite(value) ? Json(value) : Json(); }
inline Json number(std::optional<double> value) { return value ? number(*value) : Json(); }

inline Json whenever(bool known, Json value) { return known ? std::move(value) : Json(); }

inline Json textornull(const std::string& text) { return text.empty() ? Json() : Json(text); }

inline Json bounds(const Interval& interval) {
  return interval.known ? Json::array({number(interval.low), number(interval.high)}) : Json();
}

template <class Element>
Json square(int n, const Element& element) {
  Json rows = Json::array();
  for (int i = 0; i < n; ++i) {
    Json row = Json::array();
    for (int j = 0; j < n; ++j) row.push_back(number(element(i, j)));
    rows.push_back(std::move(row));
  }
  return rows;
}

inline Json square(int n, const Array<double>& matrix) {
  if (matrix.size() != at(n) * at(n)) return {};
  return square(n, [&](int i, int j) { return matrix[at(i) * at(n) + at(j)]; });
}

inline Json numbers(const Array<double>& values) {
  Json list = Json::array();
  for (const double value : values) list.push_back(number(value));
  return list;
}

// A chi-square test; of averages p is that of F, whose denominator has df2 degrees of freedom.
inline void addtest(Json& to, const ChiSquareTest& test) {
  to["chi_square"] = number(test.statistic);
  to["df"] = test.df;
  if (test.df2 > 0.0) to["df2"] = number(test.df2);
  to["p"] = number(test.p);
}

}  // namespace kdr
