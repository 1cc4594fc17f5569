# Tests of nested models by anova() of lmer and glmer, on examples/growth; the last part of numbers is read by
# tests/endtoend/compare_test.py. Run in this directory: Rscript comparisons.R > comparisons.out
suppressMessages(library(lme4))
options(width = 120, digits = 10)
d <- read.csv("../../examples/growth/growth.csv")
ct <- lmerControl(optimizer = "nloptwrap", optCtrl = list(xtol_abs = 1e-10, ftol_abs = 1e-10))
formulas <- c(one = score ~ year + (1 | school/pupil), two = score ~ year + ses + tutoring + (1 | school/pupil),
              three = score ~ year + ses + tutoring + (1 | school) + (year | school:pupil))
ml <- lapply(formulas, lmer, data = d, REML = FALSE, control = ct)
reml <- lapply(formulas[2:3], lmer, data = d, REML = TRUE, control = ct)
d$good <- as.integer(d$score > 60)
glmm <- lapply(c(one = good ~ year + (1 | pupil), two = good ~ year + ses + (1 | pupil)), glmer, data = d, family = binomial,
               nAGQ = 25, control = glmerControl(optCtrl = list(maxfun = 1e5), tolPwrss = 1e-10))
row <- function(...) cat(..., "\n", sep = "\t")
fit <- function(kind, ms) for (n in names(ms)) {
  m <- ms[[n]]
  row(kind, n, "fit", logLik(m), attr(logLik(m), "df"), AIC(m), BIC(m))
  s <- summary(m)$coefficients
  for (e in rownames(s)) row(kind, n, e, s[e, 1], s[e, 2])
}
test <- function(kind, ms) for (i in seq_along(ms)[-1]) {
  a <- anova(ms[[i - 1]], ms[[i]], refit = FALSE)
  row(kind, names(ms)[i], "anova", a$Chisq[2], a$Df[2], a[["Pr(>Chisq)"]][2])
}
for (kind in c("ml", "reml", "glmm")) { fit(kind, get(kind)); test(kind, get(kind)) }
