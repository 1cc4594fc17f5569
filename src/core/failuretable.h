// The table of numbered failures: the words that a program, or another caller, tells each by.
#pragma once

namespace kdr {

// One row of the failure table. `lines` are printed in order; a console line carries its own newlines, a report line
// is led by a reportbreak. The one "%s" of a row takes the text argument, or the module name where `namesmodule` is set
// and the line is the first.
struct FailureRow {
  int code;
  enum class Target { console, report } target;
  bool namesmodule;
  const char* lines[12];
};

inline constexpr FailureRow failures[] = {
    {1, FailureRow::Target::console, false, {" %s is an empty file\n"}},
    {2, FailureRow::Target::report, false, {" No more level-%s groups left for analysis"}},
    {3, FailureRow::Target::console, false, {" Out of memory. Please run a smaller problem\n"}},
    {4, FailureRow::Target::console, false, {" Unexpected end of file on read: %s\n"}},
    {5, FailureRow::Target::console, false, {" Unable to write. Full disk?\n"}},
    {6, FailureRow::Target::console, false, {" Unable to open temp file\n"}},
    {7, FailureRow::Target::console, false, {" Data do not match format at:\n%s\n"}},
    {8, FailureRow::Target::console, false, {" Error in batch file at line %s\n"}},
    {9, FailureRow::Target::console, false, {"%s does not exist\n"}},
    {10,
     FailureRow::Target::console,
     false,
     {"Level 1 variables must be specified in the order given in the mdm file\n"}},
    {11,
     FailureRow::Target::report,
     false,
     {"There is a problem in the fixed portion of the model.  A near singularity is",
      "likely.  Possible sources are a collinearity or multicollinearity among the",
      "predictors.  We suggest that you examine a correlation matrix among the fixed", "effect predictors.\n"}},
    {12, FailureRow::Target::report, false, {"Matrix %s is not invertible. Unable to continue"}},
    {13,
     FailureRow::Target::report,
     true,
     {"%s is unable to compute starting values based on the specified model.",
      "Every level-%s predictor matrix is near singular.", "1) Center one or more level-%s predictors.",
      "2) One (or more) of the random effects should be either deleted from the model", "   or treated as fixed."}},
    {14, FailureRow::Target::console, false, {"Unable to get a proper response\n"}},
    {15,
     FailureRow::Target::report,
     true,
     {"%s is unable to estimate covariance components for the model specified. It is", "likely that either:", "",
      "    1. one or more of the variance components is very close to zero and the",
      "       reliability of the associated random effect is also close to zero, or",
      "    2. there is a collinearity or multicollinearity among the random effects. In",
      "       this case, the estimated correlations among the random effects would", "       be close to 1.0, or", "",
      "The model should be respecified.  One (or more) of the random effects must be",
      "either deleted from the model or treated as fixed."}},
    {16,
     FailureRow::Target::report,
     false,
     {"There are no degrees of freedom to estimate sigma_squared. Set sigma_squared",
      "to a constant, or delete one or more of the random effects from the model."}},
    {17, FailureRow::Target::console, false, {"There are no fixed effects!!\n"}},
    {18,
     FailureRow::Target::report,
     false,
     {"The level-1 weight matrix is near singular.  You may wish to simplify the model by:",
      "a) reducing the number of categories;", "b) reducing the number of random effects."}},
};

}  // namespace kdr
