// The level at which a column varies.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "glue.h"

namespace {

using Vector = std::vector<double>;
using std::size_t;

// Whether a column has one value in each unit; `first` has room for one of each.
bool constant(const double* values, size_t n, const int* unit, Vector& first) {
  std::fill(first.begin(), first.end(), std::nan(""));
  for (size_t i = 0; i < n; ++i) {
    double& seen = first[static_cast<size_t>(unit[i] - 1)];
    if (std::isnan(seen)) seen = values[i];
    if (seen != values[i]) return false;
  }
  return true;
}

}  // namespace

// 1 where a column varies within units of level 2, 2 where within those of level 3 only, else 3; of two levels 1 or 2.
SEXP kdr3r_levels(SEXP columns, SEXP unit2, SEXP unit3) {
  const R_xlen_t count = Rf_xlength(columns);
  SEXP made = PROTECT(Rf_allocVector(INTSXP, count));
  const auto n = static_cast<size_t>(Rf_xlength(unit2));
  const std::string words = sentenceof([&] {
    const auto sizeofcodes = [&](SEXP codes) {
      return n == 0 ? 0 : static_cast<size_t>(*std::max_element(INTEGER(codes), INTEGER(codes) + n));
    };
    Vector first2(sizeofcodes(unit2)), first3(unit3 == R_NilValue ? 0 : sizeofcodes(unit3));
    for (R_xlen_t c = 0; c < count; ++c) {
      const double* values = REAL(VECTOR_ELT(columns, c));
      int level = 1;
      if (constant(values, n, INTEGER(unit2), first2)) level = 2;
      if (level == 2 && unit3 != R_NilValue && constant(values, n, INTEGER(unit3), first3)) level = 3;
      INTEGER(made)[c] = level;
    }
  });
  UNPROTECT(1);
  if (!words.empty()) return R_NilValue;
  return made;
}
