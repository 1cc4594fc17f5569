// What centering takes off a value: nothing, the mean of its group, or the grand mean.
#pragma once

#include "core/model.h"
#include "data/mdmdata.h"

namespace kdr {

inline double centre(Centering mark, double groupmean, double grandmean) {
  return mark == Centering::groupmean ? groupmean : mark == Centering::grandmean ? grandmean : 0.0;
}

// Takes the grand means off the level-3 variables with a mark, which are held in memory. Once for a run.
void centerlevel3(const Model& model, MdmData& mdm);

// n values of a variable, less what `mark` asks for with the grand mean in the place of any group's.
void centeraround(Centering mark, double grandmean, double* values, std::size_t n);

}  // namespace kdr
