// Every message of the command file reader, with the code that the process ends with.
#include <gtest/gtest.h>

#include "command/smallmdm.h"

using namespace kdr;

namespace {

const std::string agqpoints = "\nThe number of quadrature points must be 1, 3 to 198, or AUTO!\n";

struct Case {
  std::string text;
  int code;
  std::string words;
};

const std::string agqwanted =
    "AGQ: wants N, or Y, a number of iterations and a number of points (or AUTO) with commas between them, not ";
const std::string bernoulli = "NONLIN:BERNOULLI\nMACROIT:10\nMICROIT:10\n";
const std::string ordinal = "NONLIN:ORDINAL,3\nMACROIT:3\n";
// Failure 9: what is said of the name, and of its line.
std::string invalid(const char* what, const std::string& words, int line, const char* near = "") {
  const std::string nearest = *near == '\0' ? "" : "The nearest names: " + std::string(near) + "\n";
  return "Batch file " + std::string(what) + " specification invalid\n" + words + "\nIt stands on line " +
         std::to_string(line) + " of the command file.\n" + nearest;
}

std::vector<Case> cases() {
  const std::string hint = "A line is a keyword, a colon and directly behind it a value, or it begins with #.\n";
  const std::string name256(256, 'x'), path260 = std::string(100, 'x') + "/" + std::string(159, 'x');
  const std::string twosets = "NONLIN:MULTINOMIAL,3\nMACROIT:3\n" + samplemodel;
  const std::string late = " must be specified after complete model\n";
  return {
      // The line.
      {"\n# c\n\nNUMIT 5\n", 8, hint + " Error in batch file at line   4\n"},
      {"NUMIT:\n", 8, hint + " Error in batch file at line   1\n"},
      {"NUMIT: 5\n", 8, hint + " Error in batch file at line   1\n"},
      {"NUMIT:   \n", 8, hint + " Error in batch file at line   1\n"},
      {" NUMIT 5\n# x\n\r\n", 0, ""},
      {"title: x\n", 0, ""},
      {"TITLES\x1b\n", 0, "Unrecognized control word, ignored: TITLES?\nHit return to continue "},
      {"FOO:1\nNUMIT:0\n", 100,
       "Unrecognized control word, ignored: FOO:1\nHit return to continue numit must be greater than 0!\nNUMIT: wants "
       "a whole number of 1 or more, not 0\n"},
      {"LEVEL2:X=INTRCPT2\n", 0, "Unrecognized control word, ignored: LEVEL2:X=INTRCPT2\nHit return to continue "},
      // Single values.
      {"TAYLOR:3\n", 100, "taylor must be set to 2 or 4!\nTAYLOR: wants 2 or 4, not 3\n"},
      {"TAYLOR:4\n", 0, ""},
      {"NUMIT:-1\n", 100, "numit must be greater than 0!\nNUMIT: wants a whole number of 1 or more, not -1\n"},
      {"MICROIT:x\n", 100, "MICROIT: wants a whole number, not x\n"},
      {"MACROIT:-5,N\n", 100,
       "macroit must be greater than 0!\nMACROIT: wants a whole number of 0 or more, not -5,N\n"},
      {"STOPMACRO:abc\n", 100, "STOPMACRO: wants a number, not abc\n"},
      {"ACCEL:N\n", 100, "ACCEL: wants a whole number, not N\n"},
      {"FIXSIGMA2:-1\n", 100, "FIXSIGMA2: wants N or a number of 0 or more, not -1\n"},
      {"FIXSIGMA2:Y\n", 100, "FIXSIGMA2: wants N or a number of 0 or more, not Y\n"},
      {"FIXSIGMA2:n\nFIXSIGMA2:0.5\n", 0, " FIXSIGMA2: stands on line 1 and again on line 2.\n"},
      {"FIXSIGMA2:0,5\n", 100, "FIXSIGMA2: wants one number, with a decimal point, not 0,5\n"},
      {"STOPVAL:0,001\n", 100, "STOPVAL: wants one number, with a decimal point, not 0,001\n"},
      {"AGQ:N\n", 0, ""},
      {"AGQ:20,7\n", 100, agqwanted + "20,7\n"},
      {"DIAGONALIZETAUPI:1\n", 100, "DIAGONALIZETAUPI: wants Y or N, not 1\n"},
      {"AGQ:Y,20\n", 100,
       "\nMaximum number of iterations and quadrature points must be specified.\n" + agqwanted + "Y,20\n"},
      {"FISHERTYPE:3\n", 100, "\nInvalid type of Fisher acceleration.\nFISHERTYPE: wants 0, 1 or 2, not 3\n"},
      {"RESFILTYPE:EXCEL\n", 100,
       "Invalid resfiltype.\nRESFILTYPE: wants FREEFORMAT, SYSTAT, SAS, SPSS or STATA, not EXCEL\n"},
      {"OUTPUT:" + path260 + "\n", 100, "The path is too long: " + path260 + "\n"},
      {"RESFIL1NAME:a/" + name256 + "\n", 100, "The path is too long: a/" + name256 + "\n"},
      // A number is one to its end, a flag is Y or N.
      {"MICROIT:1e400\n", 100, "MICROIT: wants a whole number, not 1e400\n"},
      {"NUMIT:20,Q\n", 100, "NUMIT: wants a whole number, and ,Y or ,N behind it or nothing, not 20,Q\n"},
      {"NUMIT:20,N,5\n", 100, "NUMIT: wants a whole number, and ,Y or ,N behind it or nothing, not 20,N,5\n"},
      {"FIXSIGMA2:nan\n", 100, "FIXSIGMA2: wants N or a number of 0 or more, not nan\n"},
      {"STOPMACRO:-1\n", 100, "STOPMACRO: wants a number of 0 or more, not -1\n"},
      {"STOPVAL:0x10\n", 100, "STOPVAL: wants a number, not 0x10\n"},
      {"STOPVAL:1e-3junk\n", 100, "STOPVAL: wants a number, not 1e-3junk\n"},
      {"STOPVAL:1e999\n", 100, "STOPVAL: wants a number, not 1e999\n"},
      {"STOPVAL:1.5.2\n", 100, "STOPVAL: wants a number, not 1.5.2\n"},
      {"FIXTAU2:6\n", 100, "FIXTAU2: wants 1 to 5, not 6\n"},
      {"AGQ:Y,abc,5\n", 100, agqwanted + "Y,abc,5\n"},
      {"AGQ:Y,10,5.9\n", 100, agqwanted + "Y,10,5.9\n"},
      {"PRINTVARIANCE-COVARIANCE:Q\n", 100, "PRINTVARIANCE-COVARIANCE: wants Y, A or N, not Q\n"},
      {"POPAVIT:many\n", 100, "POPAVIT: wants Y, N or a whole number of 0 or more, not many\n"},
      {"RESFIL1:Q\n", 100, "RESFIL1: wants N, or Y and behind it up to 3 lists with a / before each, not Q\n"},
      {"RESFIL3:Y/P/Q\n", 100, "RESFIL3: wants N, or Y and behind it up to 1 lists with a / before each, not Y/P/Q\n"},
      {"NONLIN:POISSON,T,X\n", 100,
       "NONLIN: wants a type, and behind a comma its categories or a variable, not POISSON,T,X\n"},
      {"NUMIT:5\nNUMIT:7\n", 0, " NUMIT: stands on line 1 and again on line 2.\n"},
      {" NUMIT:5\n", 0, " Line 1 begins with a blank, and is passed over: NUMIT:5\n"},
      // Names.
      {"LEVEL1:Y=INTRCPT1+AC\n", 9, invalid("level1", "AC does not exist", 1, "A")},
      {"LEVEL1:Y=INTRCPT1\nLEVEL2:INTRCPT1=INTRCPT2+RANDOMW\n", 9,
       invalid("level2", "RANDOMW does not exist", 2) + "Is a + or a / missing between RANDOM and W?\n"},
      {"LEVEL1:Y=INTRCPT1\nLEVEL2:INTRCPT1=INTRCPT2W\n", 9,
       invalid("level2", "INTRCPT2W does not exist", 2) + "Is a + or a / missing between INTRCPT2 and W?\n"},
      {"LEVEL1:Y=INTRCPT1X+A\n", 9,
       invalid("level1", "INTRCPT1X does not exist", 1) + "Is a + or a / missing between INTRCPT1 and X?\n"},
      {"LEVEL1:Y=INTRCPT1\nLEVEL2:INTRCPT1=INTRCPT2\nLEVEL3:INTRCPT2R=INTRCPT3\n", 0,
       " INTRCPT2R on line 3 is taken for INTRCPT2: names count by their first 8 characters.\n"},
      {"LEVEL1:Y=INTRCPT1+A+NO\nLEVEL2:INTRCPT1=INTRCPT2\n", 9, invalid("level1", "NO does not exist", 1)},
      {"LEVEL1DELETION:A,NO\n", 9, invalid("level1deletion", "NO does not exist", 1)},
      {"LEVEL1DELETION:INTRCPT1\n", 9, invalid("level1deletion", "INTRCPT1 does not exist", 1)},
      {"LEVEL1WEIGHT:NO,x\n", 9,
       " Of NO,x the first name counts alone (wgtvar1).\n" + invalid("wgtvar1", "NO does not exist", 1)},
      {"LEVEL2WEIGHT:INTRCPT2\n", 9, invalid("wgtvar2", "INTRCPT2 does not exist", 1)},
      {"LEVEL3WEIGHT:V\n", 9, invalid("wgtvar3", "V is a variable of level 2.", 1)},
      {"VARIANCEKNOWN:V\n", 9, invalid("autovknown", "V is a variable of level 2.", 1)},
      {"RESFIL1:Y/A,NO\n", 9, invalid("resfil1", "NO does not exist", 1)},
      {"RESFIL2:Y/V,/P\n", 9, "Batch file resfil2 specification invalid\nRESFIL2:Y/V,/P does not exist\n"},
      {"RESFIL3:Y/V\n", 9, invalid("resfil3", "V is a variable of level 2.", 1)},
      {"RESFIL2:Y//INTRCPT3,P\nRESFIL1:Y///Q\nRESFIL3:Y\n", 0, ""},
      // Kinds of outcome.
      {"NONLIN:GAMMA\n", 100,
       "Incorrect non-linear type: GAMMA\n Valid are N, BERNOULLI, BINOMIAL, POISSON, MULTINOMIAL and ORDINAL\n"},
      {"NONLIN:BINOMIAL,NO\n", 9, invalid("nlcntvar", "NO does not exist", 1)},
      {"NONLIN:POISSON,INTRCPT1\n", 9, invalid("nlcntvar", "INTRCPT1 does not exist", 1)},
      {"RESFIL2:Y\nNONLIN:MULTINOMIAL,3\n", 100,
       "Nonlin:ordinal/multinomial must be specified before model or residual file\n"},
      {samplemodel + "NONLIN:ORDINAL,3\n", 100,
       "Nonlin:ordinal/multinomial must be specified before model or residual file\n"},
      {"NONLIN:ORDINAL\n", 100, "For multinomial/ordinal, you must specify the number of categories\n"},
      {"NONLIN:MULTINOMIAL,1\n", 100, "The number of categories must be 2 or more!\n"},
      {"NONLIN:ORDINAL,2000000000\n", 100, "The model is too big for 2000000000 categories!\n"},
      {"NONLIN:MULTINOMIAL,99999999999\n", 100,
       "NONLIN: wants a whole number of categories, not MULTINOMIAL,99999999999\n"},
      // The model.
      {"LEVEL1:Y\n", 8, "An equation has the form NAME=TERM+TERM.\n Error in batch file at line Y\n"},
      {"LEVEL1:NO=X\n", 9, invalid("outvar", "NO does not exist", 1)},
      {"LEVEL1:INTRCPT1=X\n", 9, invalid("outvar", "INTRCPT1 does not exist", 1)},
      {"LEVEL1:Y=INTRCPT1+V\n", 9, invalid("level1", "V is a variable of level 2: put it on a LEVEL2: line.", 1)},
      {"LEVEL1:Y=A+INTRCPT1\n", 9, invalid("level1", "INTRCPT1 does not exist", 1)},
      {"LEVEL1:Y=INTRCPT1+B+A\n", 10, "Level 1 variables must be specified in the order given in the mdm file\n"},
      {"LEVEL1:Y=INTRCPT1+A,3\n", 100, "invalid option on level-1 variable, 3\n"},
      {"LEVEL1:Y=A+A\n", 100, "Variable A stands more than once in an equation of level 1!\n"},
      {"LEVEL1:Y=A+Y\n", 100, "Variable Y stands more than once in an equation of level 1!\n"},
      {"LEVEL1:Y=A\nLEVEL1:Y=A\n", 100, "You have too many sets of equations!\n"},
      {"NONLIN:MULTINOMIAL,3\nLEVEL1:Y=A\nLEVEL1:X=A\n", 100, "All equations of level 1 must have the same outcome!\n"},
      {"NONLIN:ORDINAL,3\nLEVEL1:Y=THOLD2+THOLD3\n", 100,
       "You have specified more than 1 thresholds in the command file!\n"},
      {"LEVEL1:Y=INTRCPT1\n#c\nLEVEL2:INTRCPT1 INTRCPT2\n", 8,
       "An equation has the form NAME=TERM+TERM.\n Error in batch file at line   3\n"},
      {"LEVEL1:Y=INTRCPT1\nLEVEL2:=INTRCPT2\n", 8,
       "The equation of INTRCPT1 is due here.\n Error in batch file at line   2\n"},
      {"LEVEL1:Y=INTRCPT1\nLEVEL2:X=INTRCPT2\n", 8,
       "The equation of INTRCPT1 is due here.\n Error in batch file at line   2\n"},
      {"LEVEL1:Y=INTRCPT1\nLEVEL2:INTRCPT1=INTRCPT2+X\n", 9,
       invalid("level2", "X is a variable of level 1: put it on the LEVEL1: line.", 2)},
      {"LEVEL1:Y=INTRCPT1\nlevel2:INTRCPT1=INTRCPT2/v,no\n", 8,
       "bad level-2 extra variables\nLine 2: there is no NO at level 2.\n Error in batch file at line "
       "LEVEL2:INTRCPT1=INTRCPT2/V,NO\n"},
      {"LEVEL1:Y=INTRCPT1\nLEVEL2:INTRCPT1=V,3+INTRCPT2\n", 0,
       "Problem at this point: V,3\ninvalid option on level-2 variable, 3\n"},
      {"LEVEL1:Y=INTRCPT1\nLEVEL2:INTRCPT1=V+W+V\n", 100,
       "Variable V stands more than once in an equation of INTRCPT1!\n"},
      {"LEVEL1:Y=INTRCPT1\nLEVEL2:INTRCPT1=INTRCPT2\nLEVEL3:V=INTRCPT3\n", 8,
       "The equation of INTRCPT2 is due here.\n Error in batch file at line   3\n"},
      {"LEVEL1:Y=INTRCPT1\nLEVEL2:INTRCPT1=INTRCPT2\nLEVEL3:INTRCPT2=NO\n", 9,
       invalid("level3", "NO does not exist", 3)},
      {"LEVEL1:Y=INTRCPT1\nLEVEL2:INTRCPT1=INTRCPT2\nLEVEL3:INTRCPT2=INTRCPT3/P,W\n", 8,
       "bad level-3 extra variables\nLine 3: there is no W at level 3.\n Error in batch file at line "
       "LEVEL3:INTRCPT2=INTRCPT3/P,W\n"},
      {"LEVEL1:Y=INTRCPT1\nLEVEL2:INTRCPT1=INTRCPT2\nLEVEL3:INTRCPT2=P,1\n", 0,
       "Problem at this point: P,1\ninvlaid option on level-3 variable, 1\n"},
      // A line between the equations ends the model.
      {"LEVEL1:Y=INTRCPT1\n\nLEVEL2:INTRCPT1=INTRCPT2\n", 0,
       "Unrecognized control word, ignored: LEVEL2:INTRCPT1=INTRCPT2\nHit return to continue "},
      // A line that was lost would leave a coefficient without a fixed effect, but random.
      {"LEVEL1:Y=INTRCPT1\nLEVEL2:INTRCPT1=INTRCPT2+W\nLEVEL3:INTRCPT2=INTRCPT3\n", 0,
       "W of level 2 has no LEVEL3: line, while others have one: it is random without a fixed effect!\n"},
      {"LEVEL1:Y = INTRCPT1 + A\nLEVEL2:INTRCPT1 = INTRCPT2 + RANDOM\nLEVEL3:INTRCPT2=INTRCPT3\n", 0,
       "A of level 1 has no LEVEL2: line, while others have one: it is random without a fixed effect!\n"},
      // What needs the model.
      {"PLAUSVALS:Y,Z\n", 100, "plausvals must be specified after level-1 model\n"},
      {"PLAUSVALS:N\n", 0, ""},
      {samplemodel + "PLAUSVALS:T,Z\n", 100,
       "The first plausible value, T, must be the outcome or a predictor of the model!\n"},
      {samplemodel + "PLAUSVALS:Y,Z,X\n", 100, "The plausible value X stands in the model or in its list already!\n"},
      {samplemodel + "PLAUSVALS:Y,Z,Z\n", 100, "The plausible value Z stands in the model or in its list already!\n"},
      {"LEVEL1:Y=INTRCPT1+A+B\nPLAUSVALS:A,X\n", 100,
       "The predictor B stands between the plausible values A and X in the MDM file!\n"},
      {samplemodel + "PLAUSVALS:X,X\n", 100, "The plausible value X stands in the model or in its list already!\n"},
      {samplemodel + "PLAUSVALS:Y,NO\n", 9, invalid("plausvals", "NO does not exist", 7)},
      {"LVR-BETA:N\n", 0, ""},
      {"LVR-BETA:I\n", 100, "lvr must be specified after complete model\n"},
      {samplemodel + "LVR-BETA:O,X\n", 8,
       "lvr must be specifed as o, p or i\nLVR-BETA: wants 2 such letters with commas between them, not O,X\n"},
      {samplemodel + "LVR-BETA:O\n", 8,
       "lvr must be specifed as o, p or i\nLVR-BETA: wants 2 such letters with commas between them, not O\n"},
      {samplemodel + "LVR-BETA:O,P,P\n", 100, "lvr has letters for more than the 2 coefficients random at level 3!\n"},
      {"LEVEL1:Y=INTRCPT1\nLEVEL2:INTRCPT1=INTRCPT2\nLEVEL3:INTRCPT2=INTRCPT3\nLVR-BETA:I\n", 100,
       "There is no tau, so lvr cannot be used!\n"},
      {"ESTTAU2:1\n", 100, "Estimated tau(pi)" + late},
      {"ESTTAU3:1\n", 100, "Estimated tau(beta)" + late},
      {samplemodel + "ESTTAU2:1,x,E\n", 100, "Invalid number in esttau2 specification: x\n Valid are numbers and E\n"},
      {samplemodel + "ESTTAU3:1,,E\n", 100, "Invalid number in esttau3 specification: \n Valid are numbers and E\n"},
      {samplemodel + "ESTTAU2:1,nan,E\n", 100,
       "Invalid number in esttau2 specification: nan\n Valid are numbers and E\n"},
      {samplemodel + "ESTTAU2:1,E\n", 100, "There must be at least 3 elements of esttau1 specified\n"},
      {samplemodel + "ESTTAU3:1,E\n", 100, "There must be at least 3 elements of esttau2 specified\n"},
      {samplemodel + "ESTTAU2:E,0,E,1\n", 100, "The line ESTTAU2: has 4 numbers, and the model has 3 such elements!\n"},
      {"CONTAU2:1\n", 100, "Constrained tau(pi)" + late},
      {samplemodel + "CONTAU3:1,2\nCONTAU3:2,3\n", 100,
       "An element of tau(beta) has been constrained more than once\n"},
      {samplemodel + "CONTAU2:1,4\n", 100, "Element 4 of tau(pi) is outside its 3 elements\n"},
      {samplemodel + "CONTAU2:1,2,3,4\n", 100, "The line CONTAU2: has 4 numbers, and the model has 3 such elements!\n"},
      {samplemodel + "CONTAU2:0\n", 100, "Element 0 of tau(pi) is outside its 3 elements\n"},
      {"GAMMA1:1\n", 100, "Gammas must be specified after complete model\n"},
      {samplemodel + "GAMMA129:1\n", 0, " GAMMA129: hypotheses have the numbers 1 to 128: ignored\n"},
      {"CONSTRAIN:1,1\n", 100, "Constraints must be specified after complete model\n"},
      {samplemodel + "CONSTRAIN:1,1,3,3\n", 100,
       "Groups of constrained gammas must be numbered from 1 upward, in the order of their first gammas!\n"},
      {samplemodel + "CONSTRAIN:0,-1\n", 100,
       "Groups of constrained gammas must be numbered from 1 upward, in the order of their first gammas!\n"},
      {samplemodel + "CONSTRAIN:0,1,1,0,0,0\n", 100,
       "The line CONSTRAIN: has 6 numbers, and the model has 5 fixed effects!\n"},
      {samplemodel + "CONSTRAIN:0,x\n", 100,
       "Invalid number in a constraint: x\nCONSTRAIN: wants N, Y, or whole numbers with commas between them, not "
       "0,x\n"},
      // The whole file.
      {samplemodel + "VARIANCEKNOWN:A\nFIXSIGMA2:0.5\n", 0,
       " FIXSIGMA2:0.5 has no effect: with known variances sigma^2 is held at 1.\n"},
      {samplemodel + bernoulli + "LAPLACE:Y\nFIXSIGMA2:2\n", 0,
       " FIXSIGMA2:2 has no effect: with Laplace-6 sigma^2 is held at 1.\n"},
      {"MACROIT:5\n", 100, "If non-linear iterations desired, the type must be specified\n"},
      {"NONLIN:POISSON\n", 100, " macroit must be specified if nonlin is specified.\n"},
      {bernoulli + "NUMIT:5\n", 100,
       " The numit directive should not be used when specifying a non-linear model.\n"
       " Use the microit and macroit keywords.\n"},
      {bernoulli + "STOPVAL:0.1\n", 100,
       " The stopval directive should not be used when specifying a non-linear model.\n"
       " Use the stopmicro and stopmacro keywords.\n"},
      {"NUMIT:5\nAGQ:Y,20,7\n", 100, "Adaptive quadrature may only be done on non-linear analyses.\n"},
      {bernoulli + "AGQ:Y,20,2\n", 100, agqpoints + "AGQ: wants 1, 3 to 198, or AUTO points, not Y,20,2\n"},
      {bernoulli + "AGQ:Y,20,199\n", 100, agqpoints + "AGQ: wants 1, 3 to 198, or AUTO points, not Y,20,199\n"},
      {bernoulli + "AGQ:Y,20,many\n", 100, agqwanted + "Y,20,many\n"},
      {bernoulli + "AGQ:Y,20,1\nAGQNODES:FIXED\n", 100,
       "With AGQNODES:FIXED the number of quadrature points must be 3 to 198!\n"},
      {bernoulli + "AGQNODES:Y\n", 100, "AGQNODES: wants FIXED or MOVING, not Y\n"},
      {bernoulli + "LAPLACE:Y,many\n", 100,
       "LAPLACE: wants N, or Y and behind a comma a whole number of iterations of 0 or more, not Y,many\n"},
      {bernoulli + "LAPLACE:Y,-1\n", 100,
       "LAPLACE: wants N, or Y and behind a comma a whole number of iterations of 0 or more, not Y,-1\n"},
      {bernoulli + "AGQDERIVLEVEL:3\n", 100,
       "agqderivlevel must be set to 1 or 2!\nAGQDERIVLEVEL: wants 1 or 2, not 3\n"},
      {"NUMIT:5\nLAPLACE:Y\n", 100, "LaPlace iterations may only be done on Bernoulli analyses."},
      {"NONLIN:BINOMIAL,T\nMACROIT:3\nLAPLACE:Y,20\n", 100,
       "LaPlace iterations may only be done on Bernoulli analyses."},
      {samplemodel + "LVR-BETA:O,P\nFISHERTYPE:0\n", 100, "You cannot do LVR and set fishertype:0!\n"},
      {samplemodel + "LVR-BETA:O,I\n", 100,
       "A latent variable regression needs an outcome and a predictor among its coefficients!\n"},
      {"NONLIN:MULTINOMIAL,2\nMACROIT:3\n" + samplemodel + "LVR-BETA:O,P\n", 100,
       " The program cannot do latent variable regressions in a multinomial run.\n"},
      {samplemodel + "NONLIN:BINOMIAL,X\nMACROIT:3\n", 100,
       " The binomial count variable is also used in the model!\n"},
      {samplemodel + "NONLIN:POISSON,Y\nMACROIT:3\n", 100,
       " The poisson variable exposure variable is also used in the model!\n"},
      {"NONLIN:ORDINAL,4\nMACROIT:3\nLEVEL1:Y=INTRCPT1+THOLD2\n", 100,
       "There are not enough thresholds specified on the level-1 line.\n"},
      {"NONLIN:MULTINOMIAL,4\nMACROIT:3\n" + samplemodel + samplemodel, 100,
       "There are 2 sets of equations in the command file where 3 are needed!\n"},
      {ordinal + "LEVEL1:Y=INTRCPT1+THOLD2,2\n", 100, "The threshold THOLD2 cannot be centered!\n"},
      {ordinal + "LEVEL1:Y=THOLD2\nLEVEL2:THOLD2=\n", 0, ""},
      {ordinal + "LEVEL1:Y=THOLD2\nLEVEL2:THOLD2=RANDOM\n", 100,
       "The threshold THOLD2 can have no equation of its own!\n"},
      {ordinal + "LEVEL1:Y=THOLD2\nLEVEL2:THOLD2=INTRCPT2/\n", 100,
       "The threshold THOLD2 can have no equation of its own!\n"},
      {samplemodel + "GAMMA1:1,0,0,0,0\nGAMMA2:1,0,0,0,0\nGAMMA1:0,1,0,0,0\n", 100,
       "The lines GAMMA1: must stand together!\n"},
      {samplemodel + "GAMMA1:1,0,0,0,0\nGAMMA3:1,0,0,0,0\n", 100,
       "There is no line GAMMA2: before the line GAMMA3:!\n"},
      {samplemodel + "GAMMA1:0,nan,0,0,0\n", 100,
       "Invalid number in a contrast: nan\nGAMMA1: wants numbers with commas between them, not 0,nan,0,0,0\n"},
      {samplemodel + "GAMMA1:0,1\n", 0, " The line GAMMA1: has 2 numbers for 5 fixed effects: those behind are 0\n"},
      {samplemodel + "GAMMA1:0,1,0,0,0,0\n", 100,
       "The line GAMMA1: has 6 numbers, and the model has 5 fixed effects!\n"},
      {samplemodel + "GAMMA1:0,0,0,0,1x\n", 100,
       "Invalid number in a contrast: 1x\nGAMMA1: wants numbers with commas between them, not 0,0,0,0,1x\n"},
      // The line that the writer puts before the equation of a non-linear run, and that nobody else does.
      {bernoulli + "#KDR3 LEVEL1:Y=INTRCPT1+X,1+RANDOM\nLEVEL1:Z=INTRCPT1+A+RANDOM\n", 100,
       "The line #KDR3 LEVEL1: and the line LEVEL1: behind it have different terms!\n"},
      {"DEVIANCE:100\n", 0, " Deviance and df must be specified together\n"},
      {"DEVIANCE:100\nDF:5\n", 0, ""},
      // The second set of equations comes after a list whose length the model gives.
      {twosets + "GAMMA1:1,1,0,0,0,0,0,0,0,0\n" + samplemodel, 100, "Gammas" + late},
      {twosets + "CONSTRAIN:1,1\n" + samplemodel, 100, "Constraints" + late},
      {twosets + "ESTTAU2:1,E,E,E,E,E,E,E,E,E\n" + samplemodel, 100, "Estimated tau(pi)" + late},
      {twosets + "CONTAU3:1,2\n" + samplemodel, 100, "Constrained tau(beta)" + late},
      {twosets + samplemodel + "GAMMA1:1,1,0,0,0,0,0,0,0,0\nCONSTRAIN:1,1\nESTTAU2:1,E,E,E,E,E,E,E,E,E\nCONTAU3:1,2\n",
       0, ""},
  };
}

}  // namespace

TEST(Messages, WordsAndCode) {
  const Workplace workplace;
  for (const Case& c : cases()) {
    const ChildEnd outcome = readinchild(c.text);
    EXPECT_EQ(outcome.code, c.code) << c.text;
    EXPECT_EQ(outcome.words, c.words) << c.text;
  }
}

TEST(Messages, ThresholdNamesAreReserved) {
  const Workplace workplace;
  const ChildEnd outcome = runchild([] {
    smallmdm();
    run.mdm.names1[2] = paddedname("Thold");
    makefile("model.kdr", "NONLIN:ORDINAL,3\n");
    run.files.cmdfile = "model.kdr";
    readcommandfile();
  });
  EXPECT_EQ(outcome.code, 100);
  EXPECT_EQ(outcome.words, "Variable names starting with THOLD are reserved for ordinal runs\n");
}
