// A small made study: three levels, unequal unit sizes, random intercept and slope at both levels, one fixed slope. It
// is written to an MDM file for the program and kept as full matrices for the oracle.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "construct/mdmwriter.h"
#include "data/mdm.h"
#include "data/unitreader.h"
#include "dense.h"
#include "driver/resultfile.h"
#include "driver/runrecord.h"
#include "estimate/linear/datapass.h"
#include "estimate/linear/recordunits.h"
#include "estimate/linear/runpass.h"
#include "runmdm.h"

namespace study {

using namespace kdr;

// Level-1 variables Y X1 X2 W1 (a weight), level-2 Z W2, level-3 Q W3. Model:
//   Y = P0 + P1 X1 + P2 X2 + e;  P0 = B00 + B01 Z + r0, P1 = B10 + r1, P2 = B20;
//   B00 = G000 + G001 Q + u00, B01 = G010, B10 = G100 + G101 Q + u10, B20 = G200
// so that a fixed level-2 coefficient stands between two random ones.
struct Study {
  std::vector<dense::Unit> units;
  std::string path;
  Observer observer;
  Analysis analysis{run.model, run.mdm, run.weights, run.control, observer, {}, {}, 1, nullptr};

  // With `binary` the outcome is 1 where Y is above 1, else 0; the oracle is of Y all the same.
  explicit Study(unsigned seed, int units3 = 6, int mostunits2 = 5, int mostrecords = 7, bool binary = false) {
    run = RunRecord{};
    run.id.waitseconds = -1;
    run.files.outfile = "report.txt";
    std::mt19937 rng(seed);
    std::normal_distribution<double> normal;
    const auto among = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    MdmData& mdm = run.mdm;
    mdm.nvar1 = 4;
    mdm.nvar2 = mdm.nvar3 = 2;
    mdm.deletednow = true;
    mdm.rawdattype = RawType::ascii;
    names(mdm.names1, {"INTRCPT1", "Y", "X1", "X2", "W1"});
    names(mdm.names2, {"INTRCPT2", "Z", "W2"});
    names(mdm.names3, {"INTRCPT3", "Q", "W3"});
    mdm.mean1.reset(4);
    mdm.mean2.reset(2);
    mdm.mean3.reset(2);
    mdm.nunits3 = units3;
    mdm.textid3.reset(static_cast<std::size_t>(units3));
    mdm.level3.reset(static_cast<std::size_t>(2 * units3));

    std::vector<UnitBlock> blocks;
    for (int k = 0; k < units3; ++k) {
      const double q = normal(rng), v0 = 1.3 * normal(rng), v1 = 1.0 * normal(rng);
      mdm.textid3[static_cast<std::size_t>(k)] = paddedname(std::to_string(k), 12);
      mdm.level3[static_cast<std::size_t>(2 * k)] = q;
      mdm.level3[static_cast<std::size_t>(2 * k + 1)] = among(1, 4);
      const int n2 = k == 1 ? 1 : among(2, mostunits2);
      std::vector<std::vector<double>> rows;  // y, M (6), x1, unit
      for (int j = 0; j < n2; ++j) {
        UnitBlock block;
        block.nj = j == 1 ? 1 : among(2, mostrecords);
        mdm.maxnj = std::max(mdm.maxnj, block.nj);
        block.means.reset(4);
        block.records.reset(static_cast<std::size_t>(4 * block.nj));
        block.level2.reset(2);
        const double z = normal(rng), r0 = normal(rng), r1 = 0.9 * normal(rng);
        block.level2[0] = z;
        block.level2[1] = among(1, 3);
        block.id3.text = paddedname(std::to_string(k), 12);
        block.id2.text = paddedname(std::to_string(j), 12);
        for (int i = 0; i < block.nj; ++i) {
          const double x1 = normal(rng), x2 = normal(rng);
          const double y = 1 + 0.5 * z + 0.3 * q + v0 + r0 + (2 + 0.2 * q + v1 + r1) * x1 - x2 + 1.2 * normal(rng);
          double* record = block.records.data() + 4 * i;
          record[0] = binary ? (y > 1 ? 1.0 : 0.0) : y;
          record[1] = x1;
          record[2] = x2;
          record[3] = among(1, 3);
          rows.push_back({y, 1, q, z, x1, x1 * q, x2, static_cast<double>(j)});
        }
        mdm.numl1rec += block.nj;
        blocks.push_back(std::move(block));
      }
      units.push_back(denseunit(rows, n2));
    }
    mdm.nunits1 = mdm.numl1rec;
    mdm.nunits2 = static_cast<int>(blocks.size());
    writefile(blocks);
    makemodel();
    analysis.wanted.unitrows = true;
  }
  ~Study() {
    if (run.mdm.stream != nullptr) std::fclose(run.mdm.stream);
    std::remove(path.c_str());
  }
  Study(const Study&) = delete;
  Study& operator=(const Study&) = delete;

 private:
  static void names(Array<Name>& table, const std::vector<const char*>& list) {
    table.reset(list.size());
    for (std::size_t i = 0; i < list.size(); ++i) table[i] = paddedname(list[i]);
  }

  static dense::Unit denseunit(const std::vector<std::vector<double>>& rows, int n2) {
    const int n = static_cast<int>(rows.size());
    dense::Unit u{dense::Matrix(n, 1), dense::Matrix(n, 6), dense::Matrix(n, 2), dense::Matrix(n, 2), {}, n2};
    for (int i = 0; i < n; ++i) {
      const std::vector<double>& row = rows[static_cast<std::size_t>(i)];
      u.Y(i, 0) = row[0];
      for (int c = 0; c < 6; ++c) u.M(i, c) = row[static_cast<std::size_t>(c) + 1];
      u.Z1(i, 0) = u.Z2(i, 0) = 1;
      u.Z1(i, 1) = u.Z2(i, 1) = row[4];
      u.unit2.push_back(static_cast<int>(row[7]));
    }
    return u;
  }

  void writefile(const std::vector<UnitBlock>& blocks) {
    path = testing::TempDir() + "study.mdm";
    run.files.mdmfile = path;
    run.mdm.numl2rec = run.mdm.nunits2;
    run.mdm.numl3rec = run.mdm.nunits3;
    ResultFile file;
    openresult(file, path);
    writemdmtables(file.stream);
    for (const UnitBlock& block : blocks) writeunit(file.stream, block, 4, 2, true, false);
    finishmdm(file);
    run.mdm.stream = std::fopen(path.c_str(), "rb");
    readrunmdm();
  }

  static void makemodel() {
    allocatemodel();
    Model& model = run.model;
    run.model.outvar = 1;
    Use* use = model.use1.row(0);
    use[0] = use[2] = use[3] = Use::predictor;
    use[1] = Use::outcome;
    model.fixed1.row(0)[2] = 1;
    for (const auto& [c, n] : {std::pair{0, 2}, {1, 1}, {2, 1}}) {
      model.nterms2.row(0)[c] = n;
      for (int s = 0; s < n; ++s) model.terms2.row(0, c)[s] = s;
    }
    for (const auto& [b, n] : {std::pair{0, 2}, {1, 1}, {2, 2}, {3, 1}}) {
      model.nterms3.row(0)[b] = n;
      for (int s = 0; s < n; ++s) model.terms3.row(0, b)[s] = s;
      model.fixed2.row(0)[b] = b == 1 || b == 3;
    }
    run.model.coef.npi = 3;
    run.model.coef.ntaupi = run.model.coef.ntaubeta = 2;
    run.model.coef.nbeta = 4;
    run.model.coef.ngamma = 6;
    run.control.numit = 500;
    run.control.numitcontinue = AtLimit::stop;
  }
};

// The data pass of `pass` over the blocks of the MDM file, which go to `working` if that is not null.
inline void fold(Pass& pass, std::FILE* working = nullptr, Array<double>* factors = nullptr) {
  RecordUnits units;
  startrecords(units, *pass.analysis);
  units.working = working;
  units.factors = factors;
  EXPECT_FALSE(datapass(pass, [&](UnitProducts& unit) { return nextunit(units, unit); }));
  EXPECT_FALSE(units.failure);
}

// The pass over the study, ready to iterate.
inline void prepare(Pass& pass, const Study& made) {
  PassPlan plan;
  plan.limit = run.control.numit;
  plan.stopval = run.control.stopval;
  plan.restricted = run.control.restricted;
  plan.searching = Searching::atedge;
  ASSERT_FALSE(beginpass(pass, made.analysis, plan));
  fold(pass);
}

// Sets the estimates of the pass and returns them for the oracle.
inline dense::Parameters setparameters(Pass& pass, const std::vector<double>& T, const std::vector<double>& L, double s,
                                       const std::vector<double>& gamma) {
  std::copy(T.begin(), T.end(), pass.est.taupi.data());
  std::copy(L.begin(), L.end(), pass.est.taubeta.data());
  std::copy(gamma.begin(), gamma.end(), pass.est.gammahat.data());
  pass.est.sigma2 = s;
  dense::Parameters x{dense::Matrix(2, 2), dense::Matrix(2, 2), s};
  x.T.cells = T;
  x.L.cells = L;
  return x;
}

inline dense::Matrix gammamatrix(const Pass& pass) {
  dense::Matrix gamma(6, 1);
  std::copy(pass.est.gammahat.begin(), pass.est.gammahat.end(), gamma.cells.begin());
  return gamma;
}

inline dense::Parameters currentparameters(const Pass& pass) {
  const Estimates& est = pass.est;
  dense::Parameters x{dense::Matrix(2, 2), dense::Matrix(2, 2), est.sigma2};
  std::copy(est.taupi.begin(), est.taupi.end(), x.T.cells.begin());
  std::copy(est.taubeta.begin(), est.taubeta.end(), x.L.cells.begin());
  return x;
}

}  // namespace study
