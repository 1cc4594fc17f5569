# The Bernoulli model of bench/nonlinear.py, two random intercepts, by other programs, fit only:
# usage Rscript glmm.R OUT pql|nagq0|laplace, OUT as in simulate.py. Prints elapsed and CPU seconds.
a <- commandArgs(TRUE)
n <- file.size(paste0(a[1], ".y")) / 8
d <- data.frame(y = readBin(paste0(a[1], ".y"), "double", n), x = readBin(paste0(a[1], ".x"), "double", n),
                j = factor(readBin(paste0(a[1], ".j"), "integer", n)), k = factor(readBin(paste0(a[1], ".k"), "integer", n)))
suppressMessages({library(lme4); library(MASS); library(nlme)})
t <- system.time(m <- switch(a[2],
  pql = glmmPQL(y ~ x, random = ~ 1 | k/j, family = binomial, data = d, verbose = FALSE),
  nagq0 = glmer(y ~ x + (1 | j) + (1 | k), d, family = binomial, nAGQ = 0),
  laplace = glmer(y ~ x + (1 | j) + (1 | k), d, family = binomial)))
cat(sprintf("%s %.2f %.2f\n", a[2], t[["elapsed"]], t[["user.self"]] + t[["sys.self"]]))
