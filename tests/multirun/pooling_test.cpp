#include "multirun/pooling.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "driver/constants.h"
#include "records.h"

namespace kdr {
namespace {

constexpr SubrunShape shape{2, 2, 3, true, true};

using Numbers = std::map<std::string, std::vector<double>>;

// tests/reference/pooling.txt.
struct Reference {
  std::vector<int> dfgamma;
  std::vector<SubrunRecord> records;
  std::map<std::size_t, Numbers> pooled;  // by the number of sub-runs
};

void assign(Array<double>& to, const std::vector<double>& from) {
  ASSERT_EQ(to.size(), from.size());
  for (std::size_t i = 0; i < from.size(); ++i) to[i] = from[i];
}

void fillrecord(SubrunRecord& record, const std::string& name, const std::vector<double>& values) {
  const std::map<std::string, Array<double>*> arrays = {{"taupi", &record.taupi},
                                                        {"taubeta", &record.taubeta},
                                                        {"taucovariance", &record.taucovariance},
                                                        {"reliability2", &record.reliability2},
                                                        {"reliability3", &record.reliability3},
                                                        {"chisq2", &record.chisq2},
                                                        {"chisq3", &record.chisq3},
                                                        {"effectsgamma", &record.effects.gammahat},
                                                        {"effectsvgamma", &record.effects.vgamma},
                                                        {"effectsrobust", &record.effects.robust},
                                                        {"popaveragegamma", &record.popaverage.gammahat},
                                                        {"popaveragevgamma", &record.popaverage.vgamma},
                                                        {"popaveragerobust", &record.popaverage.robust}};
  if (const auto found = arrays.find(name); found != arrays.end()) {
    assign(*found->second, values);
  } else if (name == "units" || name == "testunits") {
    (name == "units" ? record.units2 : record.testunits2) = static_cast<int>(values[0]);
    (name == "units" ? record.units3 : record.testunits3) = static_cast<int>(values[1]);
  } else {
    (name == "sigma2" ? record.sigma2 : name == "loglik" ? record.loglik : record.sigma2variance) = values[0];
  }
}

Reference readreference() {
  Reference reference;
  std::ifstream file(TESTDATA "/tests/reference/pooling.txt");
  Numbers* pooled = nullptr;
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string name;
    words >> name;
    std::vector<double> values;
    for (double x = 0.0; words >> x;) values.push_back(x);
    if (name == "dfgamma") {
      for (const double x : values) reference.dfgamma.push_back(static_cast<int>(x));
    } else if (name == "record") {
      reference.records.push_back(emptyrecord(shape));
    } else if (name == "pooled") {
      pooled = &reference.pooled[static_cast<std::size_t>(values[0])];
    } else if (pooled != nullptr) {
      (*pooled)[name] = values;
    } else {
      fillrecord(reference.records.back(), name, values);
    }
  }
  return reference;
}

template <class Values>
void expectnear(const std::string& what, const Values& got, const std::vector<double>& expected) {
  ASSERT_EQ(got.size(), expected.size()) << what;
  for (std::size_t i = 0; i < expected.size(); ++i)
    EXPECT_NEAR(static_cast<double>(got[i]), expected[i], 1e-12 * (1.0 + std::abs(expected[i]))) << what << " " << i;
}

void expecteffects(const std::string& what, const PooledEffects& got, Numbers expected) {
  expectnear(what, got.gamma, expected[what + "gamma"]);
  ASSERT_TRUE(got.model.known && got.robust.known);
  expectnear(what + " model", got.model.covariance, expected[what + "modelcovariance"]);
  expectnear(what + " model df", got.model.df, expected[what + "modeldf"]);
  expectnear(what + " robust", got.robust.covariance, expected[what + "robustcovariance"]);
  expectnear(what + " robust df", got.robust.df, expected[what + "robustdf"]);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(got.model.variance[i], got.model.covariance[4 * i]);
    EXPECT_EQ(got.robust.variance[i], got.robust.covariance[4 * i]);
  }
}

TEST(Pooling, AgreesWithTheDefinition) {
  const Reference reference = readreference();
  ASSERT_EQ(reference.records.size(), 4U);
  ASSERT_EQ(reference.pooled.size(), 3U);
  for (const auto& [M, numbers] : reference.pooled) {
    SCOPED_TRACE(M);
    Numbers expected = numbers;
    const Pooled pooled = pool(shape, std::span(reference.records).first(M), reference.dfgamma);
    EXPECT_EQ(pooled.M, static_cast<int>(M));
    EXPECT_TRUE(pooled.errorsknown);
    expectnear("sigma2", std::vector{pooled.sigma2}, expected["sigma2"]);
    expectnear("sigma2error", std::vector{pooled.sigma2error}, expected["sigma2error"]);
    expectnear("taupi", pooled.taupi, expected["taupi"]);
    expectnear("taubeta", pooled.taubeta, expected["taubeta"]);
    expectnear("taucovariance", pooled.taucovariance, expected["taucovariance"]);
    const Array<double>&pi = pooled.taupierrors, &beta = pooled.taubetaerrors;
    expectnear("tauerrors", std::vector{pi[0], pi[2], pi[3], beta[0], beta[2], beta[3]}, expected["tauerrors"]);
    EXPECT_EQ(pi[1], pi[2]);
    EXPECT_EQ(beta[1], beta[2]);
    expectnear("reliability2", pooled.reliability2, expected["reliability2"]);
    expectnear("reliability3", pooled.reliability3, expected["reliability3"]);
    expectnear("chisq2", pooled.chisq2, expected["chisq2"]);
    expectnear("chisq3", pooled.chisq3, expected["chisq3"]);
    expectnear("units3", std::vector{pooled.units3}, expected["units3"]);
    expectnear("testunits", std::vector{pooled.testunits2, pooled.testunits3}, expected["testunits"]);
    expecteffects("effects", pooled.effects, expected);
    expecteffects("popaverage", pooled.popaverage, expected);
  }
}

// What one sub-run lacks, no average has.
TEST(Pooling, OneSubrunWithoutErrorsOrRobustMatrix) {
  Reference reference = readreference();
  reference.records[1].effects.robust[0] = missingcode;
  reference.records[2].sigma2variance = 0.0;
  const Pooled pooled = pool(shape, reference.records, reference.dfgamma);
  EXPECT_FALSE(pooled.errorsknown);
  EXPECT_EQ(pooled.zerovar, 1);
  EXPECT_FALSE(pooled.effects.robust.known);
  EXPECT_TRUE(pooled.effects.model.known);
  EXPECT_TRUE(pooled.popaverage.robust.known);

  const Pooled first = pool(shape, std::span(reference.records).first(1), reference.dfgamma);
  EXPECT_TRUE(first.errorsknown && first.effects.robust.known);
}

// Nothing between the sub-runs, or next to nothing: no finite nu, or one beyond every int.
TEST(Pooling, EqualGammasKeepTheCompleteDegreesOfFreedom) {
  Reference reference = readreference();
  reference.records.resize(2);
  reference.records[1].effects.gammahat = reference.records[0].effects.gammahat.copy();
  reference.records[1].effects.gammahat[1] += 1e-7;
  const Pooled pooled = pool(shape, reference.records, reference.dfgamma);
  for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(pooled.effects.model.df[i], reference.dfgamma[i]) << i;
}

TEST(Pooling, WithoutScoringNoErrors) {
  const SubrunShape plain{1, 1, 1, false, false};
  std::vector<SubrunRecord> records;
  for (int seed : {1, 2}) records.push_back(numberedrecord(plain, seed));
  const int dfgamma[] = {10};
  const Pooled pooled = pool(plain, records, dfgamma);
  EXPECT_FALSE(pooled.errorsknown);
  EXPECT_EQ(pooled.zerovar, 0);
  EXPECT_TRUE(pooled.popaverage.gamma.empty());
}

}  // namespace
}  // namespace kdr
