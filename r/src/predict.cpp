// Predictions of a fitted model: what R holds of the fit and rows of its matrices go to the C interface.
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "glue.h"
#include "kdr3/kdr3.h"

namespace {

using Units = std::vector<std::ptrdiff_t>;

const double* numbersof(SEXP list, const char* name) {
  SEXP value = element(list, name);
  return value == R_NilValue ? nullptr : REAL(value);
}

// R counts units from 1, and a new one is NA.
Units unitsof(SEXP list, const char* name) {
  SEXP codes = element(list, name);
  Units units;
  for (R_xlen_t i = 0; codes != R_NilValue && i < Rf_xlength(codes); ++i)
    units.push_back(INTEGER(codes)[i] == NA_INTEGER ? -1 : INTEGER(codes)[i] - 1);
  return units;
}

// Rows with what they point to.
struct Rows {
  Units unit2, unit3;
  kdr3_rows rows{};
};

void take(SEXP given, Rows& made) {
  made.unit2 = unitsof(given, "unit2");
  made.unit3 = unitsof(given, "unit3");
  made.rows = {sizeof made.rows,
               static_cast<std::size_t>(Rf_asInteger(element(given, "records"))),
               numbersof(given, "fixed"),
               numbersof(given, "random2"),
               numbersof(given, "random3"),
               numbersof(given, "offset"),
               made.unit2.empty() ? nullptr : made.unit2.data(),
               made.unit3.empty() ? nullptr : made.unit3.data(),
               numbersof(given, "outcome"),
               numbersof(given, "counts")};
}

std::size_t countof(SEXP list, const char* name) { return static_cast<std::size_t>(Rf_asInteger(element(list, name))); }

kdr3_fitted fittedof(SEXP given) {
  kdr3_fitted fitted{};
  fitted.size = sizeof fitted;
  fitted.family = static_cast<kdr3_family>(Rf_asInteger(element(given, "family")));
  fitted.categories = Rf_asInteger(element(given, "categories"));
  fitted.fixedeffects = static_cast<std::size_t>(Rf_xlength(element(given, "fixed")));
  fitted.random2 = countof(given, "random2");
  fitted.random3 = countof(given, "random3");
  fitted.fixed = numbersof(given, "fixed");
  fitted.taupi = numbersof(given, "taupi");
  fitted.taubeta = numbersof(given, "taubeta");
  fitted.sigma2 = Rf_asReal(element(given, "sigma2"));
  fitted.covariance = numbersof(given, "covariance");
  fitted.joint = numbersof(given, "joint");
  fitted.units2 = countof(given, "units2");
  fitted.units3 = countof(given, "units3");
  fitted.level2 = numbersof(given, "level2");
  fitted.level3 = numbersof(given, "level3");
  fitted.variances2 = numbersof(given, "variances2");
  fitted.variances3 = numbersof(given, "variances3");
  fitted.covariances = numbersof(given, "covariances");
  fitted.weights1 = numbersof(given, "weights1");
  fitted.weights2 = numbersof(given, "weights2");
  fitted.weights3 = numbersof(given, "weights3");
  return fitted;
}

struct Prediction {
  std::string error;
  Rows own, rows;
  std::vector<double> values, errors;
};

SEXP numbers(const std::vector<double>& values) {
  SEXP made = Rf_allocVector(REALSXP, static_cast<R_xlen_t>(values.size()));
  for (std::size_t i = 0; i < values.size(); ++i) REAL(made)[i] = values[i];
  return made;
}

}  // namespace

// `columns`: how many values a row has.
SEXP kdr3r_predict(SEXP fitted, SEXP own, SEXP rows, SEXP what, SEXP columns) {
  SEXP holder = nullptr;
  Prediction* made = owned<Prediction>(holder);
  made->error = sentenceof([&] {
    const kdr3_fitted model = fittedof(fitted);
    take(rows, made->rows);
    if (own != R_NilValue) take(own, made->own);
    made->values.resize(made->rows.rows.records * static_cast<std::size_t>(Rf_asInteger(columns)));
    made->errors.resize(made->values.size());
    if (kdr3_predict(&model, own == R_NilValue ? nullptr : &made->own.rows, &made->rows.rows,
                     static_cast<kdr3_predicted>(Rf_asInteger(what)), made->values.data(),
                     made->errors.data()) == KDR3_ERROR)
      throw std::runtime_error(kdr3_message());
  });
  const char* names[] = {"error", "values", "errors", ""};
  SEXP list = PROTECT(Rf_mkNamed(VECSXP, names));
  if (made->error.empty()) {
    SET_VECTOR_ELT(list, 1, numbers(made->values));
    SET_VECTOR_ELT(list, 2, numbers(made->errors));
  } else {
    SET_VECTOR_ELT(list, 0, Rf_mkString(made->error.c_str()));
  }
  UNPROTECT(2);
  return list;
}
