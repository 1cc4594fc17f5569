// The constraints among the fixed effects that a run was given (core/constraints.h).
#pragma once

namespace kdr {

// Stops with code 100 when run.model.constraints holds a negative number, or when its groups are not numbered from 1
// upward without gaps in the order of their first members.
void checkconstraints();

// Makes the constraints of run.model, and tells of groups that constrain nothing. Raises checkconstraints' stop.
void settleconstraints();

}  // namespace kdr
