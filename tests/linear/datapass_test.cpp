// A data pass means the same however often it is made, and whoever makes the units.
#include <gtest/gtest.h>

#include "linear/weights.h"
#include "study.h"

namespace {

using namespace kdr;

// Everything that a data pass leaves, as bytes.
std::vector<double> sums(Pass& pass) {
  std::vector<double> all{pass.totalYY, static_cast<double>(run.mdm.nunits1), pass.likeconstant};
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
  return all;
}

TEST(DataPass, IsTheSameEachTimeFromBothFiles) {
  struct Case {
    const char* name;
    bool weighted, known, deleting;
    int center1, center2;
  };
  const Case cases[] = {{"plain", false, false, false, 0, 0},
                        {"centered on group means", false, false, false, 1, 1},
                        {"centered on grand means, weighted", true, false, false, 2, 2},
                        {"weighted and with known variances", true, true, false, 1, 2},
                        {"known variances, deletion at analysis time", false, true, true, 1, 1}};
  for (const Case& one : cases) {
    SCOPED_TRACE(one.name);
    study::Study made(4, 8);
    run.model.center1[2] = one.center1;
    run.model.center2[1] = one.center2;
    run.mdm.mean1[1] = 0.3;
    run.mdm.mean2[0] = -0.2;
    run.out.autovknown = one.known ? 4 : 0;
    run.mdm.deletednow = !one.deleting;
    if (one.weighted) {
      run.out.wgtvar1 = 4;
      run.out.wgtvar2 = run.out.wgtvar3 = 2;
      run.kind.weighted = true;
      normaliseweights();
    }
    Pass pass;
    study::prepare(pass);
    const std::vector<double> first = sums(pass);
    std::FILE* working = std::tmpfile();
    study::fold(pass, working, true);
    EXPECT_EQ(sums(pass), first) << "second pass over the MDM file";
    for (int i = 0; i < 2; ++i) {
      study::fold(pass, working);
      EXPECT_EQ(sums(pass), first) << "pass over the working data file";
    }
    std::fclose(working);
  }
}

}  // namespace
