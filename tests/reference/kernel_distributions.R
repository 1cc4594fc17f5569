# Writes kernel_distributions.txt: quantiles of the exact t and chi-square distributions (R, qt and qchisq).
# A line is: df p |t| x, with P(|T| > |t|) = p and P(X > x) = p. Run as: Rscript kernel_distributions.R, in this folder.
dfs <- c(1:30, seq(35, 200, 5))
ps <- c(0.001, 0.002, 0.005, 0.01, 0.02, 0.03, 0.05, 0.075, 0.1, 0.15, 0.2, 0.25, 0.3, 0.35, 0.4, 0.45, 0.5)
grid <- expand.grid(p = ps, df = dfs)
writeLines(sprintf("%d %g %.15g %.15g", grid$df, grid$p, qt(grid$p / 2, grid$df, lower.tail = FALSE),
                   qchisq(grid$p, grid$df, lower.tail = FALSE)), "kernel_distributions.txt")
