// Fits the models of tests/reference/samecases.txt through the C header and prints them with 12 digits, as the packages
// for Python and R do.
//
//   library_cases <folder of references>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "kdr3/kdr3.h"

namespace {

std::vector<std::string> split(const std::string& line, char separator) {
  std::vector<std::string> words;
  std::istringstream text(line);
  for (std::string word; std::getline(text, word, separator);) words.push_back(word);
  return words;
}

void check(kdr3_status status) {
  if (status != KDR3_ERROR) return;
  std::printf("error: %s\n", kdr3_message());
  std::exit(1);
}

// The columns of a table without quotes: one of numbers where all of its fields are.
struct Table {
  std::vector<std::string> names;
  std::vector<std::vector<std::string>> texts;
  std::vector<std::vector<double>> numbers;
  std::vector<std::vector<const char*>> pointers;
  std::vector<kdr3_field> fields;
};

Table read(const std::string& path) {
  Table table;
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  table.names = split(line, ',');
  const std::size_t n = table.names.size();
  table.texts.resize(n);
  while (std::getline(file, line)) {
    std::vector<std::string> row = split(line, ',');
    row.resize(n);
    for (std::size_t c = 0; c < n; ++c) table.texts[c].push_back(row[c]);
  }
  table.numbers.resize(n);
  table.pointers.resize(n);
  for (std::size_t c = 0; c < n; ++c) {
    bool numeric = true;
    for (const std::string& text : table.texts[c]) {
      char* end = nullptr;
      const double value = std::strtod(text.c_str(), &end);
      numeric = numeric && *end == '\0';
      table.numbers[c].push_back(text.empty() ? std::numeric_limits<double>::quiet_NaN() : value);
      table.pointers[c].push_back(text.c_str());
    }
    kdr3_field field{};
    field.size = sizeof field;
    field.name = table.names[c].c_str();
    field.type = numeric ? KDR3_DOUBLE : KDR3_TEXT;
    field.values = numeric ? static_cast<const void*>(table.numbers[c].data()) : table.pointers[c].data();
    table.fields.push_back(field);
  }
  return table;
}

void setoption(kdr3_options& options, const std::string& name, const char* value) {
  const std::pair<const char*, const char**> places[] = {{"family", &options.family},     {"engine", &options.engine},
                                                         {"points", &options.points},     {"trials", &options.trials},
                                                         {"exposure", &options.exposure}, {"offset", &options.offset}};
  for (const auto& [option, place] : places)
    if (name == option) *place = value;
}

void printtau(const char* name, std::size_t n, const std::vector<double>& tau) {
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j <= i; ++j) std::printf("%s %zu %zu %.12g\n", name, i + 1, j + 1, tau[i * n + j]);
}

void print(const kdr3_formula* formula, const kdr3_result* result) {
  kdr3_summary summary{};
  summary.size = sizeof summary;
  check(kdr3_result_summary(result, &summary));
  const std::size_t g = summary.fixedeffects, p = summary.random2, b = summary.random3;
  std::vector<double> estimates(g), covariance(g * g), pi(p * p), beta(b * b);
  std::vector<std::size_t> places(g);
  std::size_t columns = 0;
  while (kdr3_formula_text(formula, KDR3_EFFECTS, columns) != nullptr) ++columns;
  check(kdr3_result_fixed(result, estimates.data(), covariance.data(), nullptr, nullptr));
  check(kdr3_result_variances(result, pi.data(), beta.data(), nullptr, nullptr, nullptr));
  check(kdr3_formula_order(formula, places.data()));
  std::printf("records %zu units %zu %zu\n", summary.records, summary.units2, summary.units3);
  if (summary.loglikelihood == summary.loglikelihood) std::printf("loglikelihood %.12g\n", summary.loglikelihood);
  // A multinomial outcome has the effects of each category, behind those of an ordinal one stand its thresholds.
  const bool sets = std::string(kdr3_formula_text(formula, KDR3_OUTCOME, 1)) == "multinomial";
  for (std::size_t i = 0; i < g; ++i) {
    const bool column = sets || i < columns;
    const std::size_t place = column ? i / columns * columns + places[i % columns] : i;
    std::printf("%s", column ? kdr3_formula_text(formula, KDR3_EFFECTS, i % columns) : kdr3_result_name(result, i));
    if (sets) std::printf("[%zu]", i / columns + 1);
    std::printf(" %.12g %.12g\n", estimates[place], covariance[place * (g + 1)]);
  }
  printtau("level2", p, pi);
  printtau("level3", b, beta);
  std::printf("sigma2 %.12g\n", summary.sigma2);
}

void runcase(const std::vector<std::string>& words, const std::string& folder) {
  const Table table = read(folder + "/formulas/" + words[1]);
  kdr3_options options{};
  options.size = sizeof options;
  std::vector<std::vector<std::string>> given;
  for (std::size_t i = 3; i < words.size(); ++i) given.push_back(split(words[i], '='));
  for (const std::vector<std::string>& pair : given) setoption(options, pair[0], pair[1].c_str());
  kdr3_formula* formula = nullptr;
  check(kdr3_formula_make(words[2].c_str(), &options, table.texts[0].size(), table.fields.size(), table.fields.data(),
                          &formula));
  for (const std::vector<std::string>& pair : given)
    if (pair[0] < "a") check(kdr3_model_set(kdr3_formula_model(formula), pair[0].c_str(), std::atof(pair[1].c_str())));
  kdr3_result* result = nullptr;
  check(kdr3_fit(kdr3_formula_model(formula), nullptr, &result));
  std::printf("%s\n", words[0].c_str());
  print(formula, result);
  kdr3_result_free(result);
  kdr3_formula_free(formula);
}

}  // namespace

int main(int, char** argv) {
  const std::string folder = argv[1];
  std::ifstream file(folder + "/samecases.txt");
  for (std::string line; std::getline(file, line);)
    if (!line.starts_with('#')) runcase(split(line, '\t'), folder);
  return 0;
}
