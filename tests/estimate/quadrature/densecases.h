// Made studies whose log-likelihoods and maxima densequadrature.py has found.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "estimate/likelihood/madestudy.h"

namespace densecases {

using namespace kdr;
using namespace madestudy;

inline const std::string folder = std::string(TESTDATA) + "/tests/reference/quadrature/";

struct Case {
  const char* name;
  Outcome outcome;
  int q, r;
  int points;  // that nodes need which stand still: a level-2 integrand wanders with v, and is narrower than they are
               // spread
};
inline const Case cases[] = {{"bernoulli11", bernoulli, 1, 1, 7}, {"bernoulli21", bernoulli, 2, 1, 7},
                             {"bernoulli22", bernoulli, 2, 2, 7}, {"binomial12", binomial, 1, 2, 9},
                             {"poisson11", poisson, 1, 1, 11},    {"exposure21", exposure, 2, 1, 9}};

// What densequadrature.py found, by name of the line.
inline std::vector<double> reference(const std::string& name, const std::string& wanted) {
  std::ifstream file(folder + name + ".ref");
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string word;
    words >> word;
    std::vector<double> values;
    for (double value = 0.0; words >> value;) values.push_back(value);
    if (word == wanted) return values;
  }
  ADD_FAILURE() << name << " has no " << wanted;
  return std::vector<double>(20);
}

inline Study readcase(const Case& c) { return makestudy(c.outcome, c.q, c.r, readrecords(folder + c.name + ".dat")); }

}  // namespace densecases
