// The values that the estimation takes, from a model of the C interface.
#pragma once

#include <string>

#include "core/control.h"
#include "core/estimates.h"
#include "core/model.h"
#include "core/observer.h"
#include "data/mdmdata.h"
#include "library/handles.h"

namespace kdr::library {

// The values of one fit. They stay where they are while it runs.
struct Values {
  MdmData mdm;
  Model model;
  Control control;
  DesignWeights weights;
  Observer observer;
};

// Fills all but the weights and the observer. Words: why the model cannot be fitted.
[[nodiscard]] std::string makevalues(const kdr3_model& model, Values& values);

}  // namespace kdr::library
