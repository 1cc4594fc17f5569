# Models of two levels by general software: lmer(REML = FALSE), glmer by adaptive quadrature of 11 and 25 points and by the
# Laplace approximation, lmer(REML = TRUE) with the degrees of freedom of lmerTest and pbkrtest, and cluster-robust errors by
# clubSandwich. The data are those of formulas.R, and two of lme4. Run in this directory, after formulas.R:
#   Rscript twolevel.R > twolevel.out
suppressMessages({library(lme4); library(lmerTest); library(pbkrtest); library(clubSandwich)})
options(warn = 1, digits = 15)
plain <- function(d) { d <- as.data.frame(d); for (v in names(d)) if (is.factor(d[[v]])) d[[v]] <- as.character(d[[v]]); d }
for (name in c("sleepstudy", "cbpp"))
  write.csv(plain(get(name)), file.path("formulas", paste0(name, ".csv")), row.names = FALSE, quote = FALSE)
datasets <- sapply(c("growth", "pixel", "oats", "sleepstudy", "cbpp"), simplify = FALSE, function(name)
  read.csv(file.path("formulas", paste0(name, ".csv")), na.strings = c("", "NA")))

show <- function(...) cat(..., "\n", sep = "")
number <- function(x) paste(sprintf("%.12g", x), collapse = " ")
head <- function(kind, name, formula, options) show(kind, " ", name, "\t", deparse1(formula), "\t", options)
variances <- function(m) {
  v <- VarCorr(m)
  for (i in seq_along(v)) {
    show("  variances ", names(m@cnms)[i], "\t", paste(colnames(v[[i]]), collapse = ","), "\t", number(diag(v[[i]])))
    if (nrow(v[[i]]) > 1) show("  covariances\t", number(v[[i]][lower.tri(v[[i]])]))
  }
}
best <- function(formula, d, REML) {
  tries <- lapply(c("nloptwrap", "bobyqa"), function(optimizer) suppressMessages(
    lmerTest::lmer(formula, d, REML = REML, control = lmerControl(optimizer = optimizer, check.conv.singular = "ignore",
      check.conv.grad = "ignore", optCtrl = if (optimizer == "nloptwrap") list(xtol_abs = 1e-12, ftol_abs = 1e-12) else list(maxfun = 1e5)))))
  tries[[which.max(sapply(tries, logLik))]]
}

linear <- function(name, formula) {
  m <- best(formula, datasets[[name]], FALSE)
  head("fit", name, formula, "")
  b <- fixef(m); s <- sqrt(diag(as.matrix(vcov(m))))
  for (i in seq_along(b)) show("  ", names(b)[i], "\t", number(c(b[i], s[i])))
  variances(m)
  show("  residual\t", number(sigma(m)^2))
  show("  deviance\t", number(c(-2 * as.numeric(logLik(m)), nobs(m))))
}

# The log-likelihood of glmer by quadrature leaves out that of the saturated model, where each observation has a mean of its
# own: what it leaves out is added.
saturated <- function(m) {
  y <- model.response(model.frame(m))
  if (family(m)$family == "poisson") return(sum(dpois(y, y, log = TRUE)))
  if (!is.matrix(y)) return(0)
  sum(dbinom(y[, 1], rowSums(y), y[, 1] / rowSums(y), log = TRUE))
}
other <- function(name, formula, family, points, options) {
  m <- suppressMessages(glmer(formula, datasets[[name]], family = family, nAGQ = points, control = glmerControl(
    optimizer = "bobyqa", tolPwrss = 1e-11, check.conv.grad = "ignore", check.conv.singular = "ignore", optCtrl = list(maxfun = 1e5, rhoend = 1e-9))))
  head("fit", name, formula, options)
  b <- fixef(m); s <- sqrt(diag(as.matrix(vcov(m))))
  for (i in seq_along(b)) show("  ", names(b)[i], "\t", number(c(b[i], s[i])))
  variances(m)
  show("  deviance\t", number(c(-2 * (as.numeric(logLik(m)) + if (points > 1) saturated(m) else 0), nobs(m))))
}

# What the residual files hold: effects with their covariances, residuals and fitted values.
residuals2 <- function(name, formula) {
  m <- best(formula, datasets[[name]], FALSE)
  head("residuals", name, formula, "")
  r <- ranef(m, condVar = TRUE)[[1]]; v <- attr(r, "postVar")
  for (j in seq_len(nrow(r))) show("  ", rownames(r)[j], "\t", number(c(unlist(r[j, ]), v[1, 1, j], v[2, 1, j], v[2, 2, j])))
  show("  records\t", number(c(rbind(resid(m), fitted(m)))))
}

restricted <- function(name, formula) {
  m <- best(formula, datasets[[name]], TRUE)
  head("restricted", name, formula, "")
  s <- coef(summary(m, ddf = "Satterthwaite")); k <- coef(summary(m, ddf = "Kenward-Roger"))
  for (i in seq_len(nrow(s))) show("  ", rownames(s)[i], "\t", number(c(s[i, 1:3], k[i, 2:3])))
  variances(m)
  show("  residual\t", number(sigma(m)^2))
  show("  criterion\t", number(c(REMLcrit(m), nobs(m))))
}

robust <- function(name, formula) {
  d <- datasets[[name]]
  m <- best(formula, d, FALSE)
  class(m) <- "lmerMod"
  for (type in c("CR0", "CR2")) {
    head("robust", name, formula, type)
    r <- coef_test(m, vcov = vcovCR(m, type = type), test = "Satterthwaite")
    for (i in seq_len(nrow(r))) show("  ", rownames(r)[i], "\t", number(c(r$beta[i], r$SE[i], r$df_Satt[i])))
  }
}

for (f in c(
  score ~ 1 + (1 | school), score ~ year + (year | pupil), score ~ year * arm + ses + (year | school), score ~ year + ses + (year || pupil),
  score ~ year + (1 | school:pupil), score ~ poly(year, 2) + sex + (1 | pupil), score ~ center(hours, pupil) + mean(hours, pupil) + (1 | pupil),
  score ~ year + ses + (1 + year | school) + (0 + ses | school), score ~ 0 + arm + year + (1 | school), score ~ paper + (year + ses | school))) {
  center <- function(x, g) x - ave(x, g, FUN = function(v) base::mean(v, na.rm = TRUE))
  mean <- function(x, g, ...) if (missing(g)) base::mean(x, ...) else ave(x, g, FUN = function(v) base::mean(v, na.rm = TRUE))
  linear("growth", f)
}
linear("pixel", pixel ~ day + I(day^2) + (day | Dog))
linear("oats", yield ~ nitro + Variety + (1 | Block))
linear("sleepstudy", Reaction ~ Days + (Days | Subject))
linear("sleepstudy", Reaction ~ 1 + (1 | Subject))

for (points in c(11, 25)) {
  engine <- paste("-engine quadrature -points", points)
  other("growth", I(passed == "yes") ~ year + sex + (1 | school), binomial, points, paste("-family binomial", engine))
  other("growth", I(passed == "yes") ~ year + arm + (1 | pupil), binomial, points, paste("-family binomial", engine))
  other("growth", cbind(right, tries - right) ~ year * arm + (1 | pupil), binomial, points, paste("-family binomial", engine))
  other("cbpp", cbind(incidence, size - incidence) ~ period + (1 | herd), binomial, points, paste("-family binomial", engine))
  other("growth", books ~ year + ses + offset(log(weeks)) + (1 | pupil), poisson, points, paste("-family poisson", engine))
  other("growth", books ~ year + paper + (1 | school), poisson, points, paste("-family poisson", engine))
}
laplace <- "-engine laplace"
other("growth", I(passed == "yes") ~ year + sex + (year | school), binomial, 1, paste("-family binomial", laplace))
other("growth", cbind(right, tries - right) ~ year + (year || pupil), binomial, 1, paste("-family binomial", laplace))
other("growth", books ~ year + ses + offset(log(weeks)) + (1 + ses | school), poisson, 1, paste("-family poisson", laplace))
other("cbpp", cbind(incidence, size - incidence) ~ period + (1 | herd), binomial, 1, paste("-family binomial", laplace))

residuals2("sleepstudy", Reaction ~ Days + (Days | Subject))

restricted("growth", score ~ year * arm + (1 | school))
restricted("growth", score ~ year + ses + (1 | pupil))
restricted("sleepstudy", Reaction ~ Days + (Days | Subject))
restricted("oats", yield ~ nitro + Variety + (1 | Block))
for (f in c(score ~ year * arm + (1 | school), score ~ year + ses + (year | school))) robust("growth", f)
robust("sleepstudy", Reaction ~ Days + (Days | Subject))

profiles <- function(name, formula) {
  m <- best(formula, datasets[[name]], FALSE)
  head("profile", name, formula, "")
  interval <- suppressMessages(confint(as(m, "lmerMod"), quiet = TRUE))
  for (row in rownames(interval)) show("  ", row, "\t", number(interval[row, ]))
}
profiles("growth", score ~ year + ses + (1 | school))
