# The models of docs/start.md by lmer(REML = FALSE), on examples/growth. Run in this directory:
#   Rscript growthlme4.R > growthlme4.out
suppressMessages(library(lme4))
options(width = 120)
d <- read.csv("../../examples/growth/growth.csv")
pupils <- d[!duplicated(d$pupil), ]; schools <- d[!duplicated(d$school), ]
seen <- !is.na(d$score)
d$hours_g <- NA
d$hours_g[seen] <- d$hours[seen] - ave(d$hours[seen], d$pupil[seen])  # HOURS,1: over the records of the analysis
d$hours_m <- d$hours - mean(d$hours)                                    # HOURS,2: over all records
d$ses_g <- d$ses - ave(pupils$ses, pupils$school)[match(d$pupil, pupils$pupil)]  # SES,1
d$ses_m <- d$ses - mean(pupils$ses)                        # SES,2
d$tutoring_m <- d$tutoring - mean(schools$tutoring)        # TUTORING,2
ct <- lmerControl(optimizer = "nloptwrap", optCtrl = list(xtol_abs = 1e-10, ftol_abs = 1e-10))
show <- function(name, formula) {
  m <- lmer(formula, d, REML = FALSE, control = ct)
  cat("\n", name, ": ", deparse1(formula), "\n", sep = "")
  print(round(summary(m)$coefficients[, 1:2, drop = FALSE], 4))
  v <- as.data.frame(VarCorr(m))
  v$vcov <- round(v$vcov, 4); print(v[, 1:4], row.names = FALSE)
  cat(sprintf("deviance %.4f  AIC %.4f  BIC %.4f  records %d\n", -2 * logLik(m), AIC(m), BIC(m), nobs(m)))
}
show("null", score ~ 1 + (1 | school/pupil))
show("growth", score ~ year + (year | school/pupil))
show("cross", score ~ year * (ses_m + tutoring) + (year | school/pupil))
show("covariates", score ~ hours + ses + tutoring + (1 | school/pupil))
show("slope of pupils", score ~ year + (1 | school) + (year | school:pupil))
show("slope of schools", score ~ year + (year | school) + (1 | school:pupil))
show("no covariances", score ~ year + (year || school/pupil))
show("three factors", score ~ year * ses * tutoring + (year | school/pupil))
show("around the pupil's mean", score ~ hours_g + (1 | school/pupil))
show("around other means", score ~ hours_m + ses_g + tutoring_m + (1 | school/pupil))
show("no intercept", score ~ 0 + year + hours + (0 + year | school/pupil))

# The hypotheses and the model comparison of cross.kdr, and intervals with the degrees of freedom of its report.
growth <- lmer(score ~ year + (year | school/pupil), d, REML = FALSE, control = ct)
cross <- lmer(score ~ year * (ses_m + tutoring) + (year | school/pupil), d, REML = FALSE, control = ct)
wald <- function(...) {
  k <- rbind(...)
  e <- k %*% fixef(cross)
  cat("estimates", round(e, 4), " se", round(sqrt(diag(k %*% as.matrix(vcov(cross)) %*% t(k))), 4),
      sprintf(" chi-square %.3f\n", t(e) %*% solve(k %*% as.matrix(vcov(cross)) %*% t(k), e)))
}
cat("\nhypotheses; effects in the order", names(fixef(cross)), "\n")
wald(c(0, 0, 0, 1, 0, 0), c(0, 0, 0, 0, 0, 1))
wald(c(0, 1, 0, 0, 0, 1))
cat(sprintf("\ncomparison: chi-square %.4f\n", 2 * (logLik(cross) - logLik(growth))))
