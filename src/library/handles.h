// What stands behind the handles of include/kdr3/kdr3.h.
#pragma once

#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "core/codes.h"
#include "core/control.h"
#include "core/estimates.h"
#include "core/outcome.h"
#include "data/mdmdata.h"
#include "kdr3/kdr3.h"

// The data set as an MDM file would hold it, its level-2 blocks in an unnamed file, which fits read by positions of
// their own. The names inside are cut to eight letters; the whole ones are here.
struct kdr3_data {
  kdr::MdmData mdm;
  std::vector<std::string> names[3];  // of each level, [0] the intercept

  kdr3_data() = default;
  kdr3_data(const kdr3_data&) = delete;
  kdr3_data& operator=(const kdr3_data&) = delete;
  ~kdr3_data();
};

// The terms of a model in the order of the calls.
struct kdr3_model {
  struct Term {
    int owner;     // the coefficient that it is a term of: of level 2 its level-1, of level 3 its level-2 coefficient
    int variable;  // of its own level, 0 the intercept
    kdr3_centering centering;
    bool random;
  };
  const kdr3_data* data = nullptr;
  int outcome = 0;
  kdr::Outcome kind;
  std::vector<Term> level1, level2, level3;
  kdr::Control control;
  int threads = 0;
  double fixsigma2 = 0.0;
  bool diagtaupi = false, diagtaubeta = false;
  bool stopgiven = false;  // the criterion of the passes is not the default
  int weights[3] = {}, knownvariance = 0;
  bool rawweights = false;
  std::vector<int> groups;  // of equal fixed effects; empty: all are free
  struct Hypothesis {
    std::size_t rows;
    std::vector<double> contrasts;  // rows of one number for each fixed effect
  };
  std::vector<Hypothesis> hypotheses;
  // Of tau(pi) and tau(beta): elements that are held (NaN is free) and groups of equal ones (0 is free), square; empty
  // without either.
  struct TauRestriction {
    std::vector<double> fixed;
    std::vector<int> groups;
  };
  TauRestriction taus[2];
  struct Bootstrap {
    int replicates = 0;
    std::uint64_t seed = 1;
    bool cases = false;
  };
  Bootstrap bootstrap;
  std::vector<kdr::LatentRole> latent;  // one for each coefficient that is random at level 3; empty: no regression
  std::optional<kdr::Estimates> start;  // starting values from outside
};

namespace kdr::library {

// Keeps the sentence that kdr3_message hands out, and returns KDR3_ERROR.
kdr3_status error(std::string sentence);
// Runs `work` (a function that returns a status); exhausted memory is an error as well. What ends a thread passes
// through.
template <class Work>
kdr3_status guarded(Work&& work);

// The number of a variable of a level (1 to 3) of the data, 0 for a null name, -1 where there is none of that name.
[[nodiscard]] int variable(const kdr3_data& data, int level, const char* name);

}  // namespace kdr::library

#include <new>

template <class Work>
kdr3_status kdr::library::guarded(Work&& work) {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    return error("Out of memory.");
  } catch (const std::exception& failure) {
    return error(failure.what());
  }
}
