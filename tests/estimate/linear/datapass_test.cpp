// A data pass means the same however often it is made, and whoever makes the units.
#include <gtest/gtest.h>

#include "estimate/linear/crossproducts.h"
#include "estimate/linear/weights.h"
#include "study.h"

namespace {

using namespace kdr;

// Everything that a data pass leaves, as bytes.
std::vector<double> sums(Pass& pass) {
  std::vector<double> all{pass.totalYY, static_cast<double>(pass.nunits1), pass.likeconstant};
  const auto add = [&](const Array<double>& values) { all.insert(all.end(), values.begin(), values.end()); };
  for (const Array<double>* values : {&pass.gramMM, &pass.gramMY, &pass.sumYY, &pass.scale3}) add(*values);
  for (const UnitTable<double>* table : {&pass.sumBB, &pass.sumBY, &pass.sumBB2}) add(table->cells);
  for (const int n : pass.n1of) all.push_back(n);
  const auto records = [&](RecordStream& stream) {
    if (!stream.isopen()) return;
    sweepunits(
        pass.n2of, [](int) {},
        [&](int, std::size_t, const double* record) { all.insert(all.end(), record, record + stream.stride()); },
        [](int) {}, reading(stream));
  };
  records(pass.store.hot);
  records(pass.store.cold);
  records(pass.store.weighted);
  for (double& value : all)
    if (isabsent(value)) value = missingcode;  // equal to itself
  return all;
}

// The data pass over the blocks of a working data file, whose records are taken as they stand.
void foldworking(Pass& pass, std::FILE* working, const Array<double>& factors) {
  const RecordLayout layout = mdmlayout(run.model, run.mdm);
  UnitReader reader;
  startunits(reader, run.mdm, working, 0, run.mdm.nvar1, run.mdm.nvar2, false);
  UnitBlock block;
  Id current{};
  std::size_t record = 0;
  Array<double> row(layout.column.size() + 1);
  bool first = true;
  const Failure failure = datapass(pass, [&](UnitProducts& unit) {
    if (!readunit(reader, block)) return false;
    unit.k += !first && !sameid(block.id3, current, false) ? 1 : 0;
    current = block.id3;
    first = false;
    unit.nj = block.nj;
    unit.id2 = block.id2;
    std::copy_n(block.level2.data(), unit.level2.size(), unit.level2.data());
    unit.AA2.fill(0.0);
    crossproducts(pass.npi + 1, block.nj, unit.AA.data(), row.data(), [&](auto n, int i, double* x) {
      const double* values = block.records.data() + i * layout.width;
      for (int c = 0; c + 1 < n; ++c) x[c] = layout.column[c] < 0 ? 1.0 : values[layout.column[c]];
      x[n - 1] = values[layout.outcome];
      if (havefactors(run.model)) applyfactor(n, factors[record++], run.model.weighted, x, unit.AA2);
    });
    return true;
  });
  EXPECT_FALSE(failure);
}

TEST(DataPass, IsTheSameEachTimeFromBothFiles) {
  struct Case {
    const char* name;
    bool weighted, known, deleting;
    Centering center1, center2;
  };
  const Case cases[] = {
      {"plain", false, false, false, Centering::none, Centering::none},
      {"centered on group means", false, false, false, Centering::groupmean, Centering::groupmean},
      {"centered on grand means, weighted", true, false, false, Centering::grandmean, Centering::grandmean},
      {"weighted and with known variances", true, true, false, Centering::groupmean, Centering::grandmean},
      {"known variances, deletion at analysis time", false, true, true, Centering::groupmean, Centering::groupmean}};
  for (const Case& one : cases) {
    SCOPED_TRACE(one.name);
    study::Study made(4, 8);
    run.model.center1[2] = one.center1;
    run.model.center2[1] = one.center2;
    run.mdm.mean1[1] = 0.3;
    run.mdm.mean2[0] = -0.2;
    run.model.autovknown = one.known ? 4 : 0;
    run.mdm.deletednow = !one.deleting;
    if (one.weighted) {
      run.model.wgtvar1 = 4;
      run.model.wgtvar2 = run.model.wgtvar3 = 2;
      run.model.weighted = true;
      ASSERT_FALSE(normaliseweights(run.model, run.mdm, made.observer, run.weights));
    }
    Pass pass;
    study::prepare(pass, made);
    const std::vector<double> first = sums(pass);
    std::FILE* working = std::tmpfile();
    Array<double> factors(static_cast<std::size_t>(run.mdm.numl1rec));
    study::fold(pass, working, &factors);
    EXPECT_EQ(sums(pass), first) << "second pass over the MDM file";
    foldworking(pass, working, factors);
    EXPECT_EQ(sums(pass), first) << "pass over the working data file";
    std::fclose(working);
  }
}

}  // namespace
