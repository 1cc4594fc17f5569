# Profile likelihood intervals by lme4's confint, of studies that restrictedstudies.py makes: maximum likelihood.
#   Rscript profiles.R FOLDER > profiles.out
# A line: study, name (sd_... and cor_... as lme4 has them, else the fixed effect), lower, upper; with curve: before the name a value
# and zeta there.
suppressMessages(library(lme4))
folder <- commandArgs(TRUE)[1]
forms <- list(intercepts = Y ~ Q + Z + X + Q:X + (1 | school) + (1 | school:pupil),
              slope2 = Y ~ Q + Z + X + Q:X + (1 | school) + (X | school:pupil))
for (study in c(2, 15, 61, 64)) {
  models <- read.table(file.path(folder, "models.txt"), col.names = c("study", "model"))
  model <- models$model[models$study == study]
  if (is.null(forms[[model]])) next
  data <- read.csv(file.path(folder, sprintf("study%d.csv", study)))
  m <- suppressMessages(lmer(forms[[model]], data, REML = FALSE,
                             control = lmerControl(optimizer = "bobyqa", optCtrl = list(rhoend = 1e-9, maxfun = 1e5))))
  pr <- suppressWarnings(suppressMessages(profile(m, signames = FALSE)))
  ci <- suppressWarnings(suppressMessages(confint(pr, oldNames = FALSE)))
  for (row in rownames(ci)) cat(sprintf("%d %s %.8g %.8g\n", study, gsub(" ", "", row), ci[row, 1], ci[row, 2]))
  # Of one study, between the bounds and beyond them: the value and zeta, by lme4's splines.
  if (study == 2) for (row in rownames(ci)) for (part in c(.1, .3, .7, .9, 1.1)) {
    x <- ci[row, 1] + part * (ci[row, 2] - ci[row, 1])
    zeta <- predict(attr(pr, "forward")[[row]], x)$y
    cat(sprintf("%d curve:%s %.8g %.8g\n", study, gsub(" ", "", row), x, zeta))
  }
}

# The same of standard deviations by the deviance itself, of both likelihoods, where confint's splines are too coarse (a
# bound near 0) or have no form (the restricted one). Names begin with ml or reml.
#   deviance = log|L|^2 (+ log|RX|^2) + (n (- p)) log(2 pi s^2) + pwrss / s^2
direct <- function(study, reml) {
  data <- read.csv(file.path(folder, sprintf("study%d.csv", study)))
  f <- lmer(forms$intercepts, data, REML = reml, devFunOnly = TRUE)
  e <- environment(f)
  n <- nrow(data) - if (reml) 5 else 0
  crit <- function(theta, s2) {
    f(theta)
    e$pp$ldL2() + (if (reml) e$pp$ldRX2() else 0) + n * log(2 * pi * s2) + (e$resp$wrss() + e$pp$sqrL(1)) / s2
  }
  # x: sd of pupils, of schools, of records
  at <- function(x) crit(c(x[1], x[2]) / x[3], x[3]^2)
  settings <- list(reltol = 1e-14, maxit = 5000)
  free <- optim(c(.5, .8, 1), function(x) if (any(x < 0)) 1e9 else at(x), control = settings)
  free <- optim(free$par, function(x) if (any(x < 0)) 1e9 else at(x), control = settings)
  beside <- function(i, value) {
    best <- optim(free$par[-i], function(x) if (any(x < 0)) 1e9 else at(append(x, value, i - 1)), control = settings)
    optim(best$par, function(x) if (any(x < 0)) 1e9 else at(append(x, value, i - 1)), control = settings)$value
  }
  names <- c("sd_(Intercept)|school:pupil", "sd_(Intercept)|school", "sigma")
  for (i in 1:3) {
    rise <- function(value) beside(i, value) - free$value - qchisq(.95, 1)
    low <- if (i < 3 && rise(0) < 0) 0 else uniroot(rise, c(if (i < 3) 0 else .5, free$par[i]), tol = 1e-8)$root
    high <- uniroot(rise, c(free$par[i], 4 * free$par[i]), tol = 1e-8)$root
    cat(sprintf("%d %s:%s %.8g %.8g\n", study, if (reml) "reml" else "ml", names[i], low, high))
  }
}
# Correlations of two records of a school, of a pupil's: variances a, b, s, of which the other two are free.
shares <- function(study) {
  data <- read.csv(file.path(folder, sprintf("study%d.csv", study)))
  f <- lmer(forms$intercepts, data, REML = FALSE, devFunOnly = TRUE)
  e <- environment(f)
  crit <- function(a, b, s) {
    f(sqrt(c(a, b) / s))
    e$pp$ldL2() + nrow(data) * log(2 * pi * s) + (e$resp$wrss() + e$pp$sqrL(1)) / s
  }
  settings <- list(reltol = 1e-14, maxit = 5000)
  best <- function(fun) {
    first <- optim(c(0, 0), fun, control = settings)
    optim(first$par, fun, control = settings)$value
  }
  top <- optim(c(0, 0, 0), function(x) crit(exp(x[1]), exp(x[2]), exp(x[3])), control = settings)
  top <- optim(top$par, function(x) crit(exp(x[1]), exp(x[2]), exp(x[3])), control = settings)
  v <- exp(top$par)
  school <- function(r) best(function(x) crit(exp(x[1]), r * (exp(x[1]) + exp(x[2])) / (1 - r), exp(x[2])))
  pupil <- function(r) best(function(x) {
    both <- r * exp(x[2]) / (1 - r)
    crit(both * plogis(x[1]), both * (1 - plogis(x[1])), exp(x[2]))
  })
  for (which in list(list("same_level3_unit", school, v[2] / sum(v)), list("same_level2_unit", pupil, (v[1] + v[2]) / sum(v)))) {
    rise <- function(r) which[[2]](r) - top$value - qchisq(.95, 1)
    cat(sprintf("%d ml:%s %.8g %.8g\n", study, which[[1]], uniroot(rise, c(.001, which[[3]]), tol = 1e-8)$root,
                uniroot(rise, c(which[[3]], .98), tol = 1e-8)$root))
  }
}
direct(2, FALSE)
direct(2, TRUE)
shares(2)
