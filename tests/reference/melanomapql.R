# The melanoma example by MASS::glmmPQL, its level-1 variance estimated:   Rscript melanomapql.R > melanomapql.out
library(MASS)
library(nlme)
d <- read.fwf("../../examples/melanoma/melanoma-1.dat", c(2, 3, 5, 10, 9), strip.white = TRUE)
names(d) <- c("nation", "region", "deaths", "expected", "uvb")
m <- glmmPQL(deaths ~ uvb + offset(log(expected)), random = list(nation = ~1, region = ~1), family = poisson, data = d,
             niter = 200, verbose = FALSE, control = lmeControl(msTol = 1e-12, tolerance = 1e-12, msMaxIter = 500))
s <- summary(m)$tTable
v <- as.numeric(VarCorr(m)[c(2, 4, 5), 1])
scale <- sqrt((nrow(d) - nrow(s)) / nrow(d))  # its standard errors carry a correction for the degrees of freedom
for (i in 1:2) cat(sprintf("gamma %s %.6f se %.6f\n", rownames(s)[i], s[i, 1], s[i, 2] * scale))
cat(sprintf("tau nation %.6f\ntau region %.6f\nsigma2 %.6f\n", v[1], v[2], v[3]))
