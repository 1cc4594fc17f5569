# The model of enginesdata.py by glmer, the Laplace approximation of first order:   Rscript enginesglmer.R DIR
library(lme4)
a <- read.table(file.path(commandArgs(TRUE)[1], "y1.dat"), col.names = c("k", "j", "y", "x"))
m <- glmer(y ~ x + (1 + x | j) + (1 | k), a, family = binomial)
print(as.data.frame(VarCorr(m)))
print(coef(summary(m)))
cat(sprintf("logLik %.4f\n", as.numeric(logLik(m))))
