// Formulas by the C header: kinds of columns, new data by the coding of the old, refits, refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "kdr3/kdr3.h"

namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

kdr3_field field(const char* name, kdr3_type type, const void* values) {
  kdr3_field made{};
  made.size = sizeof made;
  made.name = name;
  made.type = type;
  made.values = values;
  return made;
}

// 20 schools of 6 records. Arms are codes that count from 1, as R holds a factor, and one of them is missing.
struct Records {
  std::vector<double> y, x, school;
  std::vector<std::int32_t> arm;
  const char* labels[3] = {"none", "tutor", "book"};
  std::vector<kdr3_field> fields;

  Records() {
    unsigned state = 7;
    const auto noise = [&] {
      return static_cast<double>((state = state * 1664525U + 1013904223U) >> 8) / 8388608.0 - 1;
    };
    for (int k = 0; k < 20; ++k) {
      const double v = 2 * noise();
      for (int i = 0; i < 6; ++i) {
        school.push_back(100 - k);
        x.push_back(noise() + i);
        arm.push_back(1 + (k + i) % 3);
        y.push_back(2 + v + x.back() + 0.5 * arm.back() + noise());
      }
    }
    arm[4] = std::numeric_limits<std::int32_t>::min();
    fields = {field("y", KDR3_DOUBLE, y.data()), field("x", KDR3_DOUBLE, x.data()),
              field("school", KDR3_DOUBLE, school.data()), field("arm", KDR3_INT32, arm.data())};
    fields[3].labels = labels;
    fields[3].labelcount = 3;
    fields[3].first = fields[3].ordered = 1;
  }
  [[nodiscard]] kdr3_formula* make(const char* text, kdr3_status wanted = KDR3_OK) const {
    kdr3_formula* formula = nullptr;
    EXPECT_EQ(kdr3_formula_make(text, nullptr, y.size(), fields.size(), fields.data(), &formula), wanted)
        << text << kdr3_message();
    return formula;
  }
};

std::vector<double> estimates(kdr3_model* model, const kdr3_observer* observer = nullptr) {
  kdr3_result* result = nullptr;
  if (kdr3_fit(model, observer, &result) == KDR3_ERROR) return {};
  kdr3_summary summary{};
  summary.size = sizeof summary;
  EXPECT_EQ(kdr3_result_summary(result, &summary), KDR3_OK);
  std::vector<double> values(summary.fixedeffects);
  EXPECT_EQ(kdr3_result_fixed(result, values.data(), nullptr, nullptr, nullptr), KDR3_OK);
  values.push_back(summary.iterations);
  kdr3_result_free(result);
  return values;
}

TEST(Library, FormulasCodeNewDataAsTheOld) {
  const Records records;
  kdr3_formula* formula = records.make("y ~ scale(x) + arm + (x | school)", KDR3_WARNING);
  EXPECT_STREQ(kdr3_formula_text(formula, KDR3_WARNINGS, 0),
               "1 of 120 records of the table are left out, 119 remain: arm is missing in 1.");
  const char* names[] = {"(Intercept)", "scale(x)", "armtutor", "armbook"};
  for (std::size_t i = 0; i < 4; ++i) EXPECT_STREQ(kdr3_formula_text(formula, KDR3_EFFECTS, i), names[i]);
  EXPECT_EQ(kdr3_formula_text(formula, KDR3_EFFECTS, 4), nullptr);
  std::size_t count = 0;
  EXPECT_EQ(kdr3_formula_records(formula, &count, nullptr, nullptr, nullptr), KDR3_OK);
  std::vector<std::size_t> rows(count), units(count);
  EXPECT_EQ(kdr3_formula_records(formula, nullptr, rows.data(), units.data(), nullptr), KDR3_OK);
  EXPECT_EQ(rows[0], 114U);  // of the school with the lowest number
  EXPECT_EQ(units.back(), 19U);
  std::vector<double> own(count * 4), x{records.x[rows[3]], 1.0, nan};
  EXPECT_EQ(kdr3_formula_matrix(formula, KDR3_EFFECTS, count, 0, nullptr, own.data()), KDR3_OK);
  const char* arms[] = {records.labels[records.arm[rows[3]] - 1], "magic", "none"};
  const kdr3_field other[] = {field("x", KDR3_DOUBLE, x.data()),
                              field("arm", KDR3_TEXT, static_cast<const void*>(arms))};
  double made[12];
  EXPECT_EQ(kdr3_formula_matrix(formula, KDR3_EFFECTS, 3, 2, other, made), KDR3_OK) << kdr3_message();
  for (int c = 0; c < 4; ++c) EXPECT_DOUBLE_EQ(made[c], own[3 * 4 + static_cast<std::size_t>(c)]);
  EXPECT_TRUE(std::isnan(made[4 + 2]) && std::isnan(made[8 + 1]));
  EXPECT_FALSE(std::isnan(made[4 + 1]) || std::isnan(made[8 + 2]));
  EXPECT_EQ(kdr3_formula_matrix(formula, KDR3_EFFECTS, 3, 1, other, made), KDR3_ERROR);
  EXPECT_STREQ(kdr3_message(), "The new data have no column arm.");
  kdr3_formula_free(formula);
}

TEST(Library, RefitsStartWhereAnotherEndedAndReplicatesAreOfTheSeed) {
  const Records records;
  kdr3_formula* formula = records.make("y ~ x + (1 | school)");
  kdr3_model* model = kdr3_formula_model(formula);
  kdr3_result* result = nullptr;
  ASSERT_NE(kdr3_fit(model, nullptr, &result), KDR3_ERROR);
  kdr3_summary summary{};
  summary.size = sizeof summary;
  double gamma[2], tau = 0;
  EXPECT_EQ(kdr3_result_summary(result, &summary), KDR3_OK);
  EXPECT_EQ(kdr3_result_fixed(result, gamma, nullptr, nullptr, nullptr), KDR3_OK);
  EXPECT_EQ(kdr3_result_variances(result, &tau, nullptr, nullptr, nullptr, nullptr), KDR3_OK);
  kdr3_result_free(result);
  EXPECT_EQ(kdr3_model_start(model, 2, gamma, 1, &tau, 0, nullptr, summary.sigma2), KDR3_OK);
  const std::vector<double> again = estimates(model);
  EXPECT_NEAR(again[0], gamma[0], 1e-5 * std::fabs(gamma[0]));
  EXPECT_LE(again[2], summary.iterations);
  EXPECT_EQ(kdr3_model_start(model, 2, gamma, 0, nullptr, 0, nullptr, 1.0), KDR3_OK);
  EXPECT_TRUE(estimates(model).empty());
  EXPECT_STREQ(kdr3_message(), "The starting values are not those of 2 fixed effects and of 1 and 0 random ones.");
  EXPECT_EQ(kdr3_model_start(model, 2, gamma, 1, &tau, 0, nullptr, summary.sigma2), KDR3_OK);
  std::vector<double> rows[2];
  for (const int threads : {1, 2}) {
    EXPECT_EQ(kdr3_model_set(model, "THREADS", threads), KDR3_OK);
    EXPECT_EQ(kdr3_model_bootstrap(model, 30, 5, 0), KDR3_OK);
    ASSERT_NE(kdr3_fit(model, nullptr, &result), KDR3_ERROR) << kdr3_message();
    std::size_t asked = 0, tried = 0;
    EXPECT_EQ(kdr3_result_replicates(result, &asked, &tried, nullptr), KDR3_OK);
    EXPECT_EQ(asked + tried, 60U);
    rows[threads - 1].resize(30 * 4);
    EXPECT_EQ(kdr3_result_replicates(result, nullptr, nullptr, rows[threads - 1].data()), KDR3_OK);
    EXPECT_NE(std::string(kdr3_result_document(result, KDR3_JSON)).find("\"bootstrap\": {"), std::string::npos);
    kdr3_result_free(result);
  }
  EXPECT_EQ(rows[0], rows[1]);
  int flag = 1;
  kdr3_observer observer{sizeof observer, &flag, nullptr, nullptr, kdr3_raised};
  EXPECT_TRUE(estimates(model, &observer).empty());
  EXPECT_STREQ(kdr3_message(), "The fit was stopped.");
  flag = 0;
  EXPECT_EQ(estimates(model, &observer).size(), 3U);
  kdr3_formula_free(formula);
}

// What a fit is asked by: it is given up half a second behind the last iteration that it has told.
struct Impatient {
  std::thread::id caller = std::this_thread::get_id();
  std::chrono::steady_clock::time_point told{}, asked{};
  bool elsewhere = false, gaveup = false;

  static Impatient& of(void* state) { return *static_cast<Impatient*>(state); }
  static void progress(void* state, const char*) { of(state).told = std::chrono::steady_clock::now(); }
  static int abandon(void* state) {
    Impatient& own = of(state);
    own.asked = std::chrono::steady_clock::now();
    own.elsewhere = own.elsewhere || std::this_thread::get_id() != own.caller;
    own.gaveup = own.gaveup ||
                 (own.told.time_since_epoch().count() != 0 && own.asked - own.told > std::chrono::milliseconds(500));
    return own.gaveup ? 1 : 0;
  }
};

// An evaluation of 31 points and slopes at both levels takes seconds: the observer is asked within it, by the thread
// of the call alone.
TEST(Library, AnEvaluationIsGivenUpWithinASecond) {
  unsigned state = 5;
  const auto uniform = [&] { return static_cast<double>((state = state * 1664525U + 1013904223U) >> 8) / 16777216.0; };
  std::vector<double> y, x, school, pupil;
  for (int k = 0; k < 10; ++k)
    for (int j = 0; j < 8; ++j)
      for (int i = 0; i < 30; ++i) {
        school.push_back(k);
        pupil.push_back(j);
        x.push_back(2 * uniform() - 1);
        y.push_back(uniform() < 1 / (1 + std::exp(0.3 * (k - 5) + 0.3 * (j - 4) + x.back())) ? 1 : 0);
      }
  const kdr3_field fields[] = {field("y", KDR3_DOUBLE, y.data()), field("x", KDR3_DOUBLE, x.data()),
                               field("school", KDR3_DOUBLE, school.data()), field("pupil", KDR3_DOUBLE, pupil.data())};
  for (const char* points : {"31", "3"}) {
    kdr3_options options{};
    options.size = sizeof options;
    options.family = "binomial";
    options.points = points;
    kdr3_formula* formula = nullptr;
    ASSERT_EQ(kdr3_formula_make("y ~ x + (x | school/pupil)", &options, y.size(), 4, fields, &formula), KDR3_OK);
    kdr3_model* model = kdr3_formula_model(formula);
    EXPECT_EQ(kdr3_model_set(model, "THREADS", 2), KDR3_OK);
    Impatient impatient;
    const bool heavy = points[1] != 0;
    kdr3_observer observer{sizeof observer, &impatient, nullptr, heavy ? Impatient::progress : nullptr,
                           Impatient::abandon};
    const std::vector<double> found = estimates(model, &observer);
    EXPECT_FALSE(impatient.elsewhere);
    EXPECT_EQ(impatient.gaveup, heavy);
    if (heavy) {
      EXPECT_TRUE(found.empty());
      EXPECT_STREQ(kdr3_message(), "The fit was stopped.");
      EXPECT_LT(std::chrono::steady_clock::now() - impatient.asked, std::chrono::seconds(2));
      EXPECT_LT(impatient.asked - impatient.told, std::chrono::milliseconds(2500));
    } else {
      EXPECT_EQ(found, estimates(model));
    }
    kdr3_formula_free(formula);
  }
}

// 400 records in 7 schools and at most 5 classes of each, in random order. Schools and classes have IDs of any kind;
// the order that is due is that of the IDs, and within a class that of the table.
TEST(Library, RecordsInAnyOrderStandInThatOfTheirUnits) {
  constexpr std::size_t n = 400;
  const double wide[] = {-7.5e8, -1.5, -0.0, 0.25, 123456789.0, 123456790.0, 9e14};
  const char* texts[] = {"b", "B", "a10", "a9", "\xc3\xa9", "Z", "z"};
  unsigned state = 3;
  const auto any = [&](unsigned of) { return ((state = state * 1664525U + 1013904223U) >> 8) % of; };
  std::vector<double> y, school;
  std::vector<std::int64_t> pupil;
  std::vector<const char*> names;
  for (std::size_t i = 0; i < n; ++i) {
    const std::size_t k = any(7);
    school.push_back(k == 2 && any(2) == 0 ? 0.0 : wide[k]);
    names.push_back(i == 11 ? nullptr : texts[k]);
    pupil.push_back(static_cast<std::int64_t>(any(5)) * 1000000007 - 9);
    y.push_back(static_cast<double>(k) + any(1000) * 0.001);
  }
  school[11] = nan;
  for (const bool text : {false, true}) {
    const kdr3_field fields[] = {
        field("y", KDR3_DOUBLE, y.data()),
        text ? field("school", KDR3_TEXT, names.data()) : field("school", KDR3_DOUBLE, school.data()),
        field("class", KDR3_INT64, pupil.data())};
    kdr3_formula* formula = nullptr;
    ASSERT_EQ(kdr3_formula_make("y ~ 1 + (1 | school/class)", nullptr, n, 3, fields, &formula), KDR3_WARNING)
        << kdr3_message();
    std::vector<std::size_t> due, rows(n - 1), unit2(n - 1), unit3(n - 1);
    for (std::size_t i = 0; i < n; ++i)
      if (i != 11) due.push_back(i);
    const auto before3 = [&](std::size_t a, std::size_t b) {
      return text ? std::string(names[a]) < names[b] : school[a] < school[b];
    };
    const auto before = [&](std::size_t a, std::size_t b) {
      return before3(a, b) || (!before3(b, a) && pupil[a] < pupil[b]);
    };
    std::stable_sort(due.begin(), due.end(), before);
    std::size_t count = 0;
    ASSERT_EQ(kdr3_formula_records(formula, &count, rows.data(), unit2.data(), unit3.data()), KDR3_OK);
    ASSERT_EQ(count, n - 1);
    EXPECT_EQ(rows, due);
    for (std::size_t i = 1; i < count; ++i) {
      EXPECT_EQ(unit2[i] - unit2[i - 1], before(due[i - 1], due[i]) ? 1U : 0U) << i;
      EXPECT_EQ(unit3[i] - unit3[i - 1], before3(due[i - 1], due[i]) ? 1U : 0U) << i;
    }
    kdr3_formula_free(formula);
  }
}

// The rows of a known unit, of a new one, and one that lacks a value, of a model of intercepts.
TEST(Library, PredictsRowsOfKnownAndOfNewUnits) {
  const Records records;
  kdr3_formula* formula = records.make("y ~ x + (1 | school)");
  kdr3_result* result = nullptr;
  ASSERT_NE(kdr3_fit(kdr3_formula_model(formula), nullptr, &result), KDR3_ERROR);
  constexpr std::size_t n = 120, units = 20;
  double gamma[2], covariance[4], tau = 0, u[units], joint[9];
  std::vector<double> X(n * 2), Z(n), y(n);
  std::vector<std::size_t> unit(n);
  kdr3_summary summary{};
  summary.size = sizeof summary;
  kdr3_result_summary(result, &summary);
  kdr3_result_fixed(result, gamma, covariance, nullptr, nullptr);
  kdr3_result_variances(result, &tau, nullptr, nullptr, nullptr, nullptr);
  kdr3_result_effects(result, u, nullptr);
  EXPECT_EQ(kdr3_result_joint(result, joint), KDR3_OK);
  EXPECT_TRUE(std::isnan(joint[0]));  // of engines alone
  kdr3_result_free(result);
  kdr3_formula_matrix(formula, KDR3_EFFECTS, n, 0, nullptr, X.data());
  kdr3_formula_matrix(formula, KDR3_RANDOM2, n, 0, nullptr, Z.data());
  kdr3_formula_records(formula, nullptr, nullptr, unit.data(), nullptr);
  kdr3_formula_outcome(formula, y.data(), nullptr, nullptr);
  kdr3_formula_free(formula);

  kdr3_fitted fitted{};
  fitted.size = sizeof fitted;
  fitted.family = KDR3_NORMAL;
  fitted.fixedeffects = 2;
  fitted.random2 = 1;
  fitted.fixed = gamma;
  fitted.taupi = &tau;
  fitted.sigma2 = summary.sigma2;
  fitted.covariance = covariance;
  fitted.units2 = units;
  fitted.level2 = u;
  const std::vector<std::ptrdiff_t> of(unit.begin(), unit.end());
  kdr3_rows own{sizeof own, n, X.data(), Z.data(), nullptr, nullptr, of.data(), nullptr, y.data(), nullptr};
  const double fixed[] = {1, 2, 1, 2, 1, nan}, ones[] = {1, 1, 1};
  std::ptrdiff_t places[] = {3, -1, 3};
  kdr3_rows rows{sizeof rows, 3, fixed, ones, nullptr, nullptr, places, nullptr, nullptr, nullptr};
  double values[3], errors[3];
  ASSERT_EQ(kdr3_predict(&fitted, &own, &rows, KDR3_UNITRESPONSE, values, errors), KDR3_OK) << kdr3_message();
  const double at = gamma[0] + 2 * gamma[1], variance = covariance[0] + 4 * covariance[1] + 4 * covariance[3];
  EXPECT_NEAR(values[0], at + u[3], 1e-12);
  EXPECT_NEAR(values[1], at, 1e-12);
  EXPECT_NEAR(errors[1], std::sqrt(variance + tau), 1e-12);
  EXPECT_LT(errors[0], std::sqrt(summary.sigma2 / 6 + variance));
  EXPECT_TRUE(std::isnan(values[2]) && std::isnan(errors[2]));

  const auto refused = [&](const kdr3_rows* mine, kdr3_predicted what) {
    EXPECT_EQ(kdr3_predict(&fitted, mine, &rows, what, values, errors), KDR3_ERROR);
    return std::string(kdr3_message());
  };
  EXPECT_EQ(refused(nullptr, KDR3_UNITLINEAR), "Errors of known units need the records of the fit.");
  fitted.family = KDR3_ORDINAL;
  fitted.categories = 2;
  EXPECT_EQ(refused(&own, KDR3_UNITLINEAR), "An outcome of the fit is no place of a category.");
  fitted.level2 = nullptr;
  EXPECT_EQ(refused(&own, KDR3_UNITLINEAR), "The fit has no posteriors of the random effects.");
  places[0] = units;
  EXPECT_EQ(refused(&own, KDR3_LINEAR), "A row has a unit that the fit does not have.");
  rows.random2 = nullptr;
  EXPECT_EQ(refused(&own, KDR3_LINEAR), "Rows need the columns of the fixed and of the random effects.");
  fitted.family = KDR3_MULTINOMIAL;
  fitted.categories = 4;
  EXPECT_EQ(refused(&own, KDR3_LINEAR), "The fixed effects are not those of so many categories.");
  rows.size = 0;
  EXPECT_NE(refused(&own, KDR3_LINEAR).find("sizes"), std::string::npos);
}

TEST(Library, FormulasAreRefusedInWords) {
  Records records;
  const auto refused = [&](const char* text) {
    kdr3_formula_free(records.make(text, KDR3_ERROR));
    return std::string(kdr3_message());
  };
  EXPECT_EQ(
      refused("y ~ X + xx + (1 | school)"),
      "The table has no column xx. The columns are y, x, school, arm.\n  y ~ X + xx + (1 | school)\n          ^^");
  EXPECT_NE(refused("y ~ x +").find("^"), std::string::npos);
  EXPECT_NE(refused("arm ~ x + (1 | school)").find("holds texts"), std::string::npos);
  records.x[8] = HUGE_VAL;
  EXPECT_EQ(refused("y ~ x + (1 | school)"), "The column x is infinite in record 9.");
  kdr3_formula* formula = nullptr;
  EXPECT_EQ(kdr3_formula_read("log(y) ~ x*z + (x | a/b)", &formula), KDR3_OK);
  std::string names;
  for (std::size_t i = 0; kdr3_formula_text(formula, KDR3_COLUMNS, i) != nullptr; ++i)
    names += kdr3_formula_text(formula, KDR3_COLUMNS, i);
  EXPECT_EQ(names, "yxzab");
  EXPECT_EQ(kdr3_formula_model(formula), nullptr);
  EXPECT_EQ(kdr3_formula_matrix(formula, KDR3_EFFECTS, 0, 0, nullptr, nullptr), KDR3_ERROR);
  kdr3_formula_free(formula);
}

}  // namespace
