// How an estimation runs: limits, criteria, which methods.
#pragma once

namespace kdr {

// How the iterations run. The field of a keyword bears the keyword's name.
struct Control {
  int numit = 0;                 // NUMIT:, MICROIT:. Most iterations; 0: the dialogue asks
  int numitcontinue = 2;         // at the limit: 2 ask, 0 stop, 1 go on until converged
  int macroit = 0;               // MACROIT:
  double stopval = 1.0e-6;       // STOPVAL:, STOPMICRO:. Percentage of the log-likelihood
  double stopmacro = 1.0e-4;     // STOPMACRO:
  int accel = 5;                 // ACCEL:. Iterations between accelerations
  int fishertype = 2;            // FISHERTYPE:, DOFISHER:. 0 none, 1 outer products, 2 expected information
  int fixtau2 = 3, fixtau3 = 3;  // FIXTAU2:, FIXTAU3:. 1 off-diagonals 0, 2 by hand, 3 automatic, 4 quit, 5 always ask
  int hetit = 0;                 // HETIT:. Iterations of the stage with a taupi per level-3 unit
  bool laplace = false;          // LAPLACE:
  int laplaceit = 50;
  int agqpoints = 0;      // AGQ:. Quadrature points; 0 is off
  bool agqauto = false;   // AGQ:Y,n,AUTO. As many points as the data need; agqpoints is then not 0
  bool agqfixed = false;  // AGQNODES:. Nodes stand still when the level-3 effects move, and steps have a ridge
  int agqit = 0;          // 1 at least; 0: stopped from the keyboard before quadrature began
  int agqderivlevel = 2;  // AGQDERIVLEVEL:
  int taylor = 0;         // TAYLOR:. 0, 2 or 4
  int popavit = 0;        // POPAVIT:
  int debug = 0;          // DEBUG:
};

}  // namespace kdr
