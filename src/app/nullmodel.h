// The model without predictors that NULLMODEL: names.
#pragma once

namespace kdr {

// Takes its variances from its results document; stops the run where the file is none of a linear model.
void readnullmodel();

}  // namespace kdr
