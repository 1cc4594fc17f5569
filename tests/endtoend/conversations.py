"""Conversations with the program: the questions in their order, as (question, answer), on the data of chem97."""

IMPROPER = "Unable to get a proper response!\n\n"  # with code 100
NORESPONSE = "Unable to get a proper response\n"  # with code 14

RAW = ("\nWill you be starting with raw data? ", "y")
TYPES = [RAW, ("Type? ", "1")]


def fixedfile(level, count, layout, name):
    second = ", the second, the level-2 id" if level < 3 else ""
    return [
        (f"\nInput number of level-{level} variables (not including the character ID): ", str(count)),
        (f"The first A field must be a character level-3 id{second}\n Input format of level-{level} file: ", layout),
        (f"\nInput name of level-{level} file: ", name),
    ]


def names(level, given):
    question = f"Enter 8 character name for level-{level} variable number %d: "
    return [(("\n" if i == 0 else "") + question % (i + 1), name) for i, name in enumerate(given)]


FILES = (fixedfile(1, 5, "(A4,1X,A5,F5.0,F3.0,F4.0,F7.3,F8.4)", "chem97-1.dat")
         + fixedfile(2, 2, "(A4,1X,A5,F8.4,F5.0)", "chem97-2.dat") + fixedfile(3, 2, "(A4,F8.4,F5.0)", "chem97-3.dat"))
NAMES = (names(1, ["SCORE", "female", "AGE", "GCSE", "GCSECNT"]) + names(2, ["SCHGCSE", "SCHSIZE"])
         + names(3, ["LEAGCSE", "LEANSCH"]))
ANYMISSING = "Are there missing data in the level-1 file? "
SAMEVALUE = "Is the missing value the same for all variables? "
MDMNAME = "\nEnter name of MDM file: "
WHEN = ("Do you want to delete the missing data now, or at analysis time?\n (Enter \"now\" or \"analysis\")\n",
        "Analysis")
CREATION = TYPES + FILES + NAMES + [(ANYMISSING, "n"), (MDMNAME, "chem97.mdm")]
ONECODE = TYPES + FILES + NAMES + [
    (ANYMISSING, "Yes"), (SAMEVALUE, "y"), ("Enter the number that represents missing data ", "-9"), WHEN,
    (MDMNAME, "one.mdm")]
CODES = TYPES + FILES + NAMES + [(ANYMISSING, "y"), (SAMEVALUE, "no")] + [
    (f"Enter the value for missing data for {name:>8} ", code)
    for name, code in (("SCORE", "-9"), ("FEMALE", "-8"), ("AGE", "-7"), ("GCSE", "1e9"), ("GCSECNT", "-5.5"))
] + [WHEN, (MDMNAME, "codes.mdm")]

LEVEL2 = " Level-2 predictor? (Enter 0 to end) "
LEVEL3 = " Level-3 predictor? (Enter 0 to end) "
CONTRASTS = [f" Enter contrast value for {name} (0 to ignore) " for name in (
    "INTRCPT1/INTRCPT2/INTRCPT3, G000", "INTRCPT1/INTRCPT2/ LEAGCSE, G001", "INTRCPT1/ SCHGCSE/INTRCPT3, G010",
    "  FEMALE/INTRCPT2/INTRCPT3, G100", "    GCSE/INTRCPT2/INTRCPT3, G200")]

OPENING = [(RAW[0], "n"), (MDMNAME, "chem97.mdm")]
LEVEL1LINES = [
    ("Do you want to do a non-linear analysis? ", "n"),
    ("What is the outcome variable: ", "1"),
    ("level-1 predictor? (Enter 0 to end) ", "2"),
    ("level-1 predictor? (Enter 0 to end) ", "4"),
    ("level-1 predictor? (Enter 0 to end) ", "0"),
    ("\nDo you want to set the level-1 intercept to zero in this analysis? ", "n"),
    ("\nDo you want to center any level-1 predictors? ", "y"),
    ("How do you want to center   FEMALE? ", "0"),
    ("How do you want to center     GCSE? ", "1"),
]
LEVEL2LINES = [
    (LEVEL2, "1"), (LEVEL2, "0"), (LEVEL2, "0"), (LEVEL2, "1"), (LEVEL2, "0"),
    ("Do you want to set the level-2 intercept to zero for INTRCPT1, P0? ", "n"),
    ("Do you want to set the level-2 intercept to zero for   FEMALE, P1? ", "n"),
    ("Do you want to set the level-2 intercept to zero for     GCSE, P2? ", "n"),
]
RANDOM2 = [
    ("\n\nDo you want to constrain the variances in any of the level-2 random\n effect to zero? ", "y"),
    ("Do you want to fix INTRCPT1,P0? ", "n"),
    ("Do you want to fix   FEMALE,P1 slope? ", "y"),
    ("Do you want to fix     GCSE,P2 slope? ", "n"),
]
CENTER2 = [
    ("\nDo you want to center any level-2 predictors? ", "y"),
    ("How do you want to center  SCHGCSE? ", "2"),
]
LEVEL3LINES = [(LEVEL3, answer) for answer in "100000"] + [
    ("Do you want to center any level-3 predictors? ", "y"),
    ("How do you want to center  LEAGCSE? ", "2"),
]
RANDOM3 = [
    ("\nDo you want to constrain the variances in any of the level-3 random\n effect to zero? ", "y"),
    ("Do you want to fix INTRCPT1/INTRCPT2,B00? ", "n"),
    ("Do you want to fix INTRCPT1/ SCHGCSE,B01 slope? ", "y"),
    ("Do you want to fix   FEMALE/INTRCPT2,B10? ", "y"),
    ("Do you want to fix     GCSE/INTRCPT2,B20? ", "y"),
    ("Do you want to fix     GCSE/ SCHGCSE,B21 slope? ", "y"),
]
EXTRA = [(LEVEL2, "2"), (LEVEL2, "0"), (LEVEL2, "-1"), (LEVEL3, "2"), (LEVEL3, "0")]
CONSTRAINTS = [("Do you want to constrain any (more) of the gammas? ", "y")] + [
    (f" Do you want to constrain {gamma}? ", answer)
    for gamma, answer in (("G000", "n"), ("G001", "n"), ("G010", "y"), ("G100", "n"), ("G200", "n"), ("G210", "y"))
] + [("Do you want to constrain any (more) of the gammas? ", "n")]
HYPOTHESES = [
    (" Do you wish to use any of the optional hypothesis testing procedures? ", "y"),
    (" Do you wish to specify a multivariate hypothesis for the fixed effects? ", "y"),
    *zip(CONTRASTS, ("0", "1", "0", "0", "0")),
    ("Do you wish to specify another contrast as part of this hypothesis? ", "y"),
    *zip(CONTRASTS, ("0", "0", "0", "1", "0")),
    ("Do you wish to specify another contrast as part of this hypothesis? ", "n"),
    (" Do you wish to specify another hypothesis? ", "n"),
    (" Do you wish to test the specification for the variance-covariance components\nagainst an alternative model?\n"
     " (Note: the same fixed effects,must be specified in both models) ", "y"),
    ("Enter the deviance statistic value ", "140700"),
    ("Enter the number of variance-covariance and fixed effect parameters ", "9"),
]
REGRESSION = [("Do you want to do a latent variable regression on tau(beta)? ", "n")]
RESIDUALS = [("Do you want a level-2 residual file? ", "n"), ("Do you want a level-3 residual file? ", "n")]
ITERATIONS = [("How many iterations do you want to do? ", "500")]
TITLE = [("Enter a problem title: ", "By dialogue")]
OUTPUT = [("Enter name of output file: ", "dialogue.txt")]
MODEL = (OPENING + LEVEL1LINES + LEVEL2LINES + RANDOM2 + CENTER2 + LEVEL3LINES + RANDOM3 + EXTRA + CONSTRAINTS
         + HYPOTHESES + REGRESSION + RESIDUALS + ITERATIONS + TITLE + OUTPUT)

# The same model as a command file.
COMMANDS = """NUMIT:500
NONLIN:N
LEVEL1:SCORE=INTRCPT1+FEMALE+GCSE,1+RANDOM
LEVEL2:INTRCPT1=INTRCPT2+SCHGCSE,2+RANDOM/SCHSIZE
LEVEL3:INTRCPT2=INTRCPT3+LEAGCSE,2+RANDOM/LEANSCH
LEVEL3:SCHGCSE=INTRCPT3/
LEVEL2:FEMALE=INTRCPT2/
LEVEL3:INTRCPT2=INTRCPT3/
LEVEL2:GCSE=INTRCPT2+SCHGCSE,2+RANDOM/SCHSIZE
LEVEL3:INTRCPT2=INTRCPT3/
LEVEL3:SCHGCSE=INTRCPT3/
CONSTRAIN:0,0,1,0,0,1
GAMMA1:0,1,0,0,0,0
GAMMA1:0,0,0,1,0,0
HYPOTH:N
DEVIANCE:140700
DF:9
LVR-BETA:N
RESFIL2:N
RESFIL3:N
TITLE:By dialogue
OUTPUT:dialogue.txt
"""

# Further questions, each reached by a conversation of its own that opens the same way.
NONLINEAR = OPENING + [
    ("Do you want to do a non-linear analysis? ", "y"),
    ("type of analysis: ", "1"),
    ("Enter maximum number of macro iterations: ", "50"),
    ("Enter maximum number of micro iterations: ", "20"),
    ("Do you wish to allow over-dispersion at level 1? ", "n"),
    ("Do you want to do the Laplace-6 iterations? ", "y"),
    ("Enter maximum number of Laplace macro iterations ", "9"),
    ("Do you want to do adaptive quadrature? ", "y"), ("Enter maximum number of quadrature iterations ", "30"), ("Points? ", "2"),
    ("Points? ", "0"),
]
COUNTED = OPENING + [
    ("Do you want to do a non-linear analysis? ", "y"), ("type of analysis: ", "2"),
    ("Enter maximum number of macro iterations: ", "50"), ("Enter maximum number of micro iterations: ", "20"),
    ("Do you wish to allow over-dispersion at level 1? ", "n"), ("Do you want to do adaptive quadrature? ", "n"),
    ("Do you want to use design weights? ", "y"), ("Level-1 weight? (Enter 0 for none) ", "0"),
    ("Level-2 weight? (Enter 0 for none) ", "schsize"), ("Level-3 weight? (Enter 0 for none) ", "0"),
    ("Are they to be brought to means of 1 (no: taken as they stand)? ", "y"),
    ("What is the outcome variable: ", "1"), ("level-1 predictor? (Enter 0 to end) ", "0"),
    ("\nFor the non-linear analysis, which variable indicates the number of trials? ", "3"),
]
CATEGORIES = OPENING + [
    ("Do you want to do a non-linear analysis? ", "y"), ("type of analysis: ", "6"),
    ("Enter maximum number of macro iterations: ", "50"), ("Enter maximum number of micro iterations: ", "20"),
    ("Do you want to do adaptive quadrature? ", "y"), ("Enter maximum number of quadrature iterations ", "30"), ("Points? ", "1"),
    ("Do you want to use design weights? ", "n"),
    ("What is the outcome variable: ", "1"), ("How many categories does SCORE have? ", "11"),
]
RESIDUALFILES = MODEL[:MODEL.index(RESIDUALS[0])] + [
    ("Do you want a level-2 residual file? ", "y"), (" Level-2 variable? (Enter 0 to end) ", "0"),
    ("Do you want a level-3 residual file? ", "y"), (" Level-3 variable? (Enter 0 to end) ", "1"),
    (" Level-3 variable? (Enter 0 to end) ", "0"), ("Type? ", "5"),
]
