// KDR3 as a C++ library: handles that free themselves and errors as values, over kdr3.h, whose comments hold here too.
//
//   kdr3::Data data = kdr3::Data::make(n, columns, school, pupil);        // or kdr3::Data::open("growth.mdm")
//   kdr3::Model model(data, "score", KDR3_NORMAL);
//   model.term(nullptr, {.random2 = true, .random3 = true});              // an intercept that varies at both levels
//   model.term("year", {.random2 = true});
//   const kdr3::Result result = model.fit();
//   if (!result) std::puts(result.error().c_str());
//
// Each object holds a handle or an error; the first error of a chain stays the one that is told.
#ifndef KDR3_KDR3_HPP
#define KDR3_KDR3_HPP

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kdr3/kdr3.h"

namespace kdr3 {

namespace detail {

template <auto release>
struct Release {
  template <class T>
  void operator()(T* handle) const {
    release(handle);
  }
};

template <class T, auto release>
class Handle {
 public:
  explicit operator bool() const { return handle != nullptr && sentence.empty(); }
  // What went wrong, "" when nothing did.
  [[nodiscard]] const std::string& error() const { return sentence; }
  [[nodiscard]] T* get() const { return handle.get(); }

 protected:
  // Keeps the sentence of a call that failed.
  bool hold(kdr3_status status) {
    if (status == KDR3_ERROR && sentence.empty()) sentence = kdr3_message();
    return status != KDR3_ERROR;
  }
  std::unique_ptr<T, Release<release>> handle;
  std::string sentence;
};

}  // namespace detail

class Data : public detail::Handle<kdr3_data, kdr3_data_free> {
 public:
  [[nodiscard]] static Data make(std::size_t records, const std::vector<kdr3_column>& columns,
                                 const kdr3_column& level2id, const kdr3_column& level3id) {
    Data data;
    kdr3_data* made = nullptr;
    data.hold(kdr3_data_make(records, columns.size(), columns.data(), &level2id, &level3id, &made));
    data.handle.reset(made);
    return data;
  }
  // Of two levels.
  [[nodiscard]] static Data make(std::size_t records, const std::vector<kdr3_column>& columns,
                                 const kdr3_column& level2id) {
    Data data;
    kdr3_data* made = nullptr;
    data.hold(kdr3_data_make(records, columns.size(), columns.data(), &level2id, nullptr, &made));
    data.handle.reset(made);
    return data;
  }
  [[nodiscard]] static Data open(const std::string& path) {
    Data data;
    kdr3_data* made = nullptr;
    data.hold(kdr3_data_open(path.c_str(), &made));
    data.handle.reset(made);
    return data;
  }
};

// A column of doubles that stand side by side.
[[nodiscard]] inline kdr3_column column(const char* name, int level, const std::vector<double>& values) {
  return {name, level, KDR3_DOUBLE, values.data(), 0, nullptr};
}
[[nodiscard]] inline kdr3_column column(const char* name, int level, const std::vector<std::int64_t>& values) {
  return {name, level, KDR3_INT64, values.data(), 0, nullptr};
}

class Result : public detail::Handle<kdr3_result, kdr3_result_free> {
 public:
  [[nodiscard]] kdr3_summary summary() const {
    kdr3_summary summary{};
    summary.size = sizeof summary;
    if (*this) kdr3_result_summary(get(), &summary);
    return summary;
  }
  // Estimates of the fixed effects and their covariance, row by row.
  [[nodiscard]] std::vector<double> fixed() const {
    std::vector<double> values(summary().fixedeffects);
    if (*this) kdr3_result_fixed(get(), values.data(), nullptr, nullptr, nullptr);
    return values;
  }
  [[nodiscard]] std::vector<double> covariance() const {
    const std::size_t g = summary().fixedeffects;
    std::vector<double> values(g * g);
    if (*this) kdr3_result_fixed(get(), nullptr, values.data(), nullptr, nullptr);
    return values;
  }
  [[nodiscard]] std::string name(std::size_t effect) const { return *this ? kdr3_result_name(get(), effect) : ""; }
  [[nodiscard]] std::vector<double> taupi() const {
    const std::size_t p = summary().random2;
    std::vector<double> values(p * p);
    if (*this) kdr3_result_variances(get(), values.data(), nullptr, nullptr, nullptr, nullptr);
    return values;
  }
  [[nodiscard]] std::vector<double> taubeta() const {
    const std::size_t b = summary().random3;
    std::vector<double> values(b * b);
    if (*this) kdr3_result_variances(get(), nullptr, values.data(), nullptr, nullptr, nullptr);
    return values;
  }
  // Posterior means of the random effects, unit by unit, and their covariances.
  struct Effects {
    std::vector<double> level2, level3, covariance2, covariance3;
  };
  [[nodiscard]] Effects effects() const {
    const kdr3_summary s = summary();
    const std::size_t n2 = s.units2 * s.random2, n3 = s.units3 * s.random3;
    Effects made{std::vector<double>(n2), std::vector<double>(n3), std::vector<double>(n2 * s.random2),
                 std::vector<double>(n3 * s.random3)};
    if (!*this) return made;
    kdr3_result_effects(get(), made.level2.data(), made.level3.data());
    kdr3_result_effectvariances(get(), made.covariance2.data(), made.covariance3.data());
    return made;
  }
  [[nodiscard]] kdr3_test test(std::size_t hypothesis, bool robust = false) const {
    kdr3_test test{};
    test.size = sizeof test;
    if (*this) kdr3_result_test(get(), hypothesis, robust, &test);
    return test;
  }
  [[nodiscard]] std::string document(kdr3_form form = KDR3_JSON) const {
    return *this ? kdr3_result_document(get(), form) : "";
  }
  [[nodiscard]] std::vector<std::string> warnings() const {
    std::vector<std::string> list;
    for (const char* text = nullptr; *this && (text = kdr3_result_warning(get(), list.size())) != nullptr;)
      list.emplace_back(text);
    return list;
  }

 private:
  friend class Model;
};

// What sees a fit; each may be empty.
struct Observer {
  std::function<bool()> stop{};  // true ends the fit between two iterations
  std::function<void(const std::string& sentence)> progress{};
  std::function<bool()> abandon{};  // true gives the fit up, an error
};

// How a level-1 coefficient enters: random2 varies between level-2 units, random3 its mean between level-3 units.
struct Term {
  kdr3_centering centering = KDR3_RAW;
  bool random2 = false, random3 = false;
};

class Model : public detail::Handle<kdr3_model, kdr3_model_free> {
 public:
  Model(const Data& data, const char* outcome, kdr3_family family = KDR3_NORMAL, const char* counts = nullptr,
        int categories = 0) {
    sentence = data.error();
    kdr3_model* made = nullptr;
    std::size_t sizes[3] = {};
    if (sentence.empty()) kdr3_data_sizes(data.get(), sizes);
    twolevel = sizes[2] == 0;
    if (sentence.empty()) hold(kdr3_model_make(data.get(), outcome, family, counts, categories, &made));
    handle.reset(made);
  }
  // A level-1 coefficient, null for the intercept, with a level-2 and a level-3 intercept (the latter in data of three
  // levels); its term of level 2 is
  // handed back for others.
  int term(const char* variable, const Term& settings = {}) {
    int coefficient = 0, term = 0;
    if (*this && hold(kdr3_model_level1(get(), variable, settings.centering, settings.random2, &coefficient)) &&
        hold(kdr3_model_level2(get(), coefficient, nullptr, KDR3_RAW, twolevel ? 0 : settings.random3, &term)) &&
        !twolevel)
      hold(kdr3_model_level3(get(), term, nullptr, KDR3_RAW));
    return term;
  }
  Model& set(const char* name, double value) {
    if (*this) hold(kdr3_model_set(get(), name, value));
    return *this;
  }
  Model& weights(const char* level1, const char* level2 = nullptr, const char* level3 = nullptr,
                 const char* knownvariance = nullptr) {
    if (*this) hold(kdr3_model_weights(get(), level1, level2, level3, knownvariance));
    return *this;
  }
  Model& constrain(const std::vector<int>& groups) {
    if (*this) hold(kdr3_model_constrain(get(), groups.size(), groups.data()));
    return *this;
  }
  // A hypothesis of one or more contrasts, row behind row.
  Model& hypothesis(std::size_t rows, const std::vector<double>& contrasts) {
    if (*this) hold(kdr3_model_hypothesis(get(), rows, rows == 0 ? 0 : contrasts.size() / rows, contrasts.data()));
    return *this;
  }
  // A square matrix of held values, NaN where an element is free.
  Model& restrict(int level, std::size_t order, const std::vector<double>& fixed) {
    if (*this) hold(kdr3_model_restrict(get(), level, order, fixed.data(), nullptr));
    return *this;
  }
  [[nodiscard]] Result fit(const Observer& observer = {}) const {
    Result result;
    result.sentence = sentence;
    if (!*this) return result;
    kdr3_observer plain{sizeof(kdr3_observer), const_cast<Observer*>(&observer), nullptr, nullptr, nullptr};
    if (observer.stop) plain.stop = [](void* state) { return static_cast<Observer*>(state)->stop() ? 1 : 0; };
    if (observer.abandon) plain.abandon = [](void* state) { return static_cast<Observer*>(state)->abandon() ? 1 : 0; };
    if (observer.progress)
      plain.progress = [](void* state, const char* text) { static_cast<Observer*>(state)->progress(text); };
    kdr3_result* made = nullptr;
    result.hold(kdr3_fit(get(), &plain, &made));
    result.handle.reset(made);
    return result;
  }

 private:
  bool twolevel = false;
};

}  // namespace kdr3

#endif
