// The questions about what the command file left open, and the counting and labelling of the model on the way.
//
// Each question stands behind a mark of run.answered or behind the field that it fills, so a full command file makes
// all four steps silent. A question with ten bad tries stops the run with code 100.
#pragma once

namespace kdr {

// Kind of outcome, outcome, the equations of the three levels, centering, random effects, basis for deletion and
// exploratory variables. Fills run.model and run.model, and counts and labels as completemodel does.
void modelquestions();
// Groups of gammas that are to be equal, into run.model.constraints. Before settleconstraints.
void constraintquestions();
// Hypotheses, the alternative model's deviance, latent variable regression. After settleconstraints.
void featurequestions();
// Residual files and their type, iterations, title. The report's name is asked for when it is opened.
void outputquestions();

}  // namespace kdr
