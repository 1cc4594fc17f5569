// A client of the C header that does what its standard input says, a call a line, and prints the results document, and
// behind it, a line for each unit, posterior means and covariances, and the robust errors of tau(pi) and tau(beta). For
// tests/endtoend/library_test.py.
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "kdr3/kdr3.h"

namespace {

void check(kdr3_status status) {
  if (status != KDR3_ERROR) return;
  std::printf("error: %s\n", kdr3_message());
  std::exit(1);
}

// The rest of a line; "-" is a null name, "nan" an absent number.
struct Words {
  std::istringstream line;
  std::vector<std::string> kept = std::vector<std::string>(8);
  std::size_t used = 0;
  const char* name() {
    std::string& word = kept.at(used++);
    line >> word;
    return word == "-" ? nullptr : word.c_str();
  }
  double number() {
    std::string word;
    line >> word;
    return std::strtod(word.c_str(), nullptr);
  }
  int whole() { return static_cast<int>(number()); }
  template <class T>
  std::vector<T> list(std::size_t n) {
    std::vector<T> values;
    while (values.size() < n) values.push_back(static_cast<T>(number()));
    return values;
  }
};

void printunits(const char* name, std::size_t units, std::size_t n, const std::vector<double>& means,
                const std::vector<double>& variances) {
  for (std::size_t u = 0; u < units; ++u) {
    std::printf("%s", name);
    for (std::size_t i = 0; i < n; ++i) std::printf(" %.17g", means[u * n + i]);
    for (std::size_t i = 0; i < n * n; ++i) std::printf(" %.17g", variances[u * n * n + i]);
    std::printf("\n");
  }
}

void print(const kdr3_result* result) {
  std::printf("%s", kdr3_result_document(result, KDR3_JSON));
  kdr3_summary summary{};
  summary.size = sizeof summary;
  check(kdr3_result_summary(result, &summary));
  const std::size_t p = summary.random2, b = summary.random3;
  std::vector<double> u(summary.units2 * p), v(summary.units3 * b), uu(u.size() * p), vv(v.size() * b);
  check(kdr3_result_effects(result, u.data(), v.data()));
  check(kdr3_result_effectvariances(result, uu.data(), vv.data()));
  printunits("level2", summary.units2, p, u, uu);
  printunits("level3", summary.units3, b, v, vv);
  std::vector<double> pi(p * p), beta(b * b);
  check(kdr3_result_robustvariances(result, pi.data(), beta.data()));
  for (const auto& [name, errors] : {std::pair{"tau_pi", &pi}, {"tau_beta", &beta}}) {
    std::printf("%s", name);
    for (const double error : *errors) std::printf(" %.17g", error);
    std::printf("\n");
  }
}

}  // namespace

int main() {
  kdr3_data* data = nullptr;
  kdr3_model* model = nullptr;
  kdr3_result* result = nullptr;
  for (std::string text; std::getline(std::cin, text);) {
    Words words{std::istringstream(text)};
    const std::string call = words.name();
    if (call == "open") check(kdr3_data_open(words.name(), &data));
    if (call == "make") {
      const char *outcome = words.name(), *counts = words.name();
      const auto family = static_cast<kdr3_family>(words.whole());
      check(kdr3_model_make(data, outcome, family, counts, words.whole(), &model));
    }
    const auto centering = [&] { return static_cast<kdr3_centering>(words.whole()); };
    if (call == "level1" || call == "level2" || call == "level3") {
      const int owner = call == "level1" ? 0 : words.whole();
      const char* name = words.name();
      const kdr3_centering centered = centering();
      const int random = words.whole();
      check(call == "level1"   ? kdr3_model_level1(model, name, centered, random, nullptr)
            : call == "level2" ? kdr3_model_level2(model, owner, name, centered, random, nullptr)
                               : kdr3_model_level3(model, owner, name, centered));
    }
    if (call == "set") {
      const char* name = words.name();
      check(kdr3_model_set(model, name, words.number()));
    }
    if (call == "weights") {
      const char *one = words.name(), *two = words.name(), *three = words.name(), *known = words.name();
      check(kdr3_model_weights(model, one, two, three, known));
    }
    if (call == "latent") check(kdr3_model_latent(model, words.name()));
    if (call == "constrain") {
      const auto count = static_cast<std::size_t>(words.whole());
      check(kdr3_model_constrain(model, count, words.list<int>(count).data()));
    }
    if (call == "hypothesis") {
      const auto rows = static_cast<std::size_t>(words.whole()), count = static_cast<std::size_t>(words.whole());
      check(kdr3_model_hypothesis(model, rows, count, words.list<double>(rows * count).data()));
    }
    if (call == "restrict") {
      const int level = words.whole();
      const auto order = static_cast<std::size_t>(words.whole());
      const std::vector<double> fixed = words.list<double>(order * order);
      check(kdr3_model_restrict(model, level, order, fixed.data(), words.list<int>(order * order).data()));
    }
    if (call == "fit") {
      check(kdr3_fit(model, nullptr, &result));
      print(result);
    }
  }
  kdr3_result_free(result);
  kdr3_model_free(model);
  kdr3_data_free(data);
}
