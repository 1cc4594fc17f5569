# The example for R in docs/residuals.md, run in a folder that `../endtoend/joining_test.py PROGRAM DIRECTORY` has filled:
#   cd DIRECTORY && Rscript joined.R > joined.txt
# Prints outcome and residual of each raw record, in the order of the raw file.
source("join.R")
joined <- joined[order(match(paste(joined$L3ID, joined$L2ID), unique(paste(raw$L3ID, raw$L2ID))), joined$RECNUM), ]
stopifnot(all(joined$y == raw$y), all(joined$x == raw$x))
cat(sprintf("%s %s\n", format(joined$y, trim = TRUE), ifelse(is.na(joined$L1RESID), "NA", sprintf("%.4f", joined$L1RESID))), sep = "")
