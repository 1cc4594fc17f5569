# The same model by lmer, fit only: usage Rscript lmer.R OUT slope|intercept
a <- commandArgs(TRUE)
n <- file.size(paste0(a[1], ".y")) / 8
d <- data.frame(y = readBin(paste0(a[1], ".y"), "double", n), x = readBin(paste0(a[1], ".x"), "double", n),
                j = factor(readBin(paste0(a[1], ".j"), "integer", n)), k = factor(readBin(paste0(a[1], ".k"), "integer", n)))
suppressMessages(library(lme4))
f <- if (a[2] == "slope") y ~ x + (1 + x | j) + (1 + x | k) else y ~ x + (1 | j) + (1 | k)
t <- system.time(m <- lmer(f, d, REML = FALSE, control = lmerControl(calc.derivs = FALSE)))
cat(sprintf("%.2f %.5f\n", t[["elapsed"]], deviance(m, REML = FALSE)))
