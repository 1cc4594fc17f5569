# An ordinal model of bands of scores by ordinal::clmm (Laplace): fitted probabilities of the band that was seen, and the
# modes of the schools, beside the package for Python. Run in this folder: Rscript categoryfits.R > categoryfits.out
suppressMessages(library(ordinal))
d <- read.csv("formulas/growth.csv", na.strings = c("", "NA"))
d <- d[!is.na(d$score), ]
d$band <- factor(1 + (d$score > 50) + (d$score > 60))
m <- clmm(band ~ year + ses + (1 | school), data = d, nAGQ = 1, control = clmm.control(gradTol = 1e-8))
tell <- function(what, values) cat(what, formatC(values, digits = 10, width = 1), "\n")
tell("loglikelihood", as.numeric(logLik(m)))
tell("coefficients", coef(m))
tell("sd", sqrt(VarCorr(m)$school[1]))
tell("fitted", fitted(m)[c(1:8, 700, 1500)])
tell("modes", ranef(m)$school[1:6, 1])
tell("variances", condVar(m)$school[1:6, 1])
