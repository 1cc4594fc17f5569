d <- madestudy()

test_that("a bad call is one clear error of its own class, and the session goes on", {
  bad <- function(text, ..., class) expect_error(kdr3(...), text, class = class)
  bad("no column yy. Is y meant", yy ~ x + (1 | school), d, class = "kdr3_data")
  bad("no column schol", y ~ x + (1 | schol), d, class = "kdr3_data")
  bad("All values of y are missing", y ~ x + (1 | school), transform(d, y = NA_real_), class = "kdr3_data")
  bad("no number but a character", y ~ x + (1 | school), transform(d, y = as.character(y)), class = "kdr3_data")
  bad("not finite, in row 7", y ~ x + (1 | school), transform(d, x = replace(x, 7, Inf)), class = "kdr3_data")
  bad("not finite, in row 7", y ~ x + (1 | school), transform(d, y = replace(y, 7, Inf)), class = "kdr3_data")
  bad("are crossed: .* write \\(effects \\| school/pupil\\)", y ~ x + (1 | school) + (1 | pupil), d, class = "kdr3_crossed")
  bad("has 3 groupings", y ~ x + (1 | school / pupil / f), d, class = "kdr3_groupings")
  bad("can't vary over units of school: z", y ~ z + (z | school), d, class = "kdr3_formula")
  bad("no random part", y ~ x, d, class = "kdr3_formula")
  bad("no argument wieghts", y ~ x + (1 | school), d, wieghts = x, class = "kdr3_refused")
  bad("Gamma", y ~ x + (1 | school), d, family = Gamma(), class = "kdr3_family")
  bad("no counts", y ~ x + (1 | school), d, family = poisson(), class = "kdr3_data")
  bad("offset of a binomial", I(y > 1) ~ x + offset(x) + (1 | school), d, family = binomial(), class = "kdr3_refused")
  bad("told by points|told by engine = .quadrature", y ~ x + (1 | school), d, control = list(AGQ = 7), class = "kdr3_refused")
  bad("told by reml", y ~ x + (1 | school), d, control = list(reml = 1), class = "kdr3_refused")
  bad("reml is TRUE or FALSE", y ~ x + (1 | school), d, reml = "yes", class = "kdr3_refused")
  bad("outcomes that are not normal", y ~ x + (1 | school), d, points = 7, class = "kdr3_refused")
  bad("goes with engine = \"quadrature\"", I(y > 1) ~ x + (1 | school), d, family = binomial(), engine = "pql", points = 7, class = "kdr3_refused")
  bad("1, or 3 to 198", I(y > 1) ~ x + (1 | school), d, family = binomial(), points = 500, class = "kdr3_refused")
  bad("engine is one of .*, not \"agq\"", I(y > 1) ~ x + (1 | school), d, family = binomial(), engine = "agq", class = "kdr3_refused")
  bad("not \"probit\"", I(y > 1) ~ x + (1 | school), d, family = "probit", class = "kdr3_family")
  expect_error(kdr3(y ~ x + (1 | school), d, weights = f), "Weights must be numbers", class = "kdr3_data")
  expect_error(kdr3(y ~ x + (1 | school), d, offset = as.character(x)), "An offset must be a number", class = "kdr3_data")
  bad("has a dot", y ~ . + (1 | school), d, class = "kdr3_formula")
  bad("not finite, in row 7", y ~ 1 + (x | school), transform(d, x = replace(x, 7, Inf)), class = "kdr3_data")
  # Rows have the names that the data give them, though those in front of them are left out.
  lost <- transform(d, school = 1 + (seq_along(x) > 9), x = replace(x, 1, NA), w2 = seq_along(x))
  expect_error(kdr3(y ~ x + (1 | school), lost, weights2 = w2), "row 2 and row 3", class = "kdr3_refused")
  lost <- transform(d, school = replace(school, 3, NA), x = replace(x, 4, NA), o = replace(factor(school %% 3), 5, NA))
  bad("grouping school is missing in row 3", y ~ 1 + (1 | school), lost, na.action = na.pass, class = "kdr3_data")
  bad("not finite, in row 4", y ~ 1 + (x | pupil), lost, na.action = na.pass, class = "kdr3_data")
  bad("missing in row 5", o ~ 1 + (1 | pupil), lost, family = "ordinal", na.action = na.pass, class = "kdr3_data")
  bad("data is an empty list", y ~ x + (1 | school), list(), class = "kdr3_data")
  bad("no setting NUMITT", y ~ x + (1 | school), d, control = list(NUMITT = 2), class = "kdr3_refused")
  expect_warning(kdr3(y ~ x + (1 | school), d, control = list(NUMIT = 1)), "limit before they had converged", class = "kdr3_fitwarning")
  expect_error(predict(kdr3(y ~ x + (1 | school), d), data.frame(x = 1, school = 77)), "doesn't know \\(77\\)", class = "kdr3_data")
  expect_error(anova(kdr3(y ~ x + (1 | school), d), kdr3(y ~ x + (1 | school), d[-1, ])), "different numbers", class = "kdr3_comparison")
  m <- kdr3(y ~ x + (1 | school), d)
  for (level in list(95, NaN, "a", c(.5, .9))) expect_error(confint(m, level = level), "between 0 and 1", class = "kdr3_refused")
  expect_error(confint(m, "z"), "no interval of z", class = "kdr3_refused")
  expect_warning(predict(m, d, interval = "confidence"), "no argument interval", class = "kdr3_unused")
  expect_error(predict(m, 3), "is a data frame", class = "kdr3_data")
  expect_error(predict(kdr3(y ~ x + (1 | school), d, offset = w), d[1:2, c("x", "school")]), "don't give the offset", class = "kdr3_data")
  expect_error(predict(m, transform(d, x = as.character(x))), "x was fitted as numbers, and is a factor", class = "kdr3_data")
  expect_error(predict(m, re.form = ~ (x | school)), "effect that the model hasn't: x over school", class = "kdr3_refused")
  expect_error(predict(m, re.form = ~ (1 | pupil)), "hasn't: \\(Intercept\\) over pupil", class = "kdr3_refused")
  expect_error(drop1(m, "z"), "no term z", class = "kdr3_refused")
  expect_error(bootstrap(m, 0), "whole number", class = "kdr3_refused")
})

test_that("what would be fitted or left out in silence is told", {
  # Names of the user, not the eight capitals of the library, and categories by their labels.
  d$rather_long_name <- d$x
  expect_warning(suppressWarnings(kdr3(I(x > 0) ~ rather_long_name + (1 | school), d, family = binomial(), engine = "pql"), class = "other"),
                 "separation by rather_long_name: .*The coefficient of rather_long_name has no finite")
  d$o <- cut(d$x, c(-Inf, -.5, .5, Inf), labels = c("low", "mid", "high"))
  said <- testthat::capture_warnings(kdr3(o ~ rather_long_name + (1 | school), d, family = "multinomial", engine = "pql", control = list(NUMIT = 20)))
  expect_match(said, "have category .low.\\.\nThe coefficient of rather_long_name \\(category .low.\\)", all = FALSE)
  d$o <- as.character(cut(d$y, c(-Inf, 0, 1, Inf), labels = c("low", "mid", "high")))
  expect_warning(kdr3(o ~ x + (1 | school), d, family = "ordinal", engine = "laplace"), "order of the alphabet: high < low < mid")
  d$w2 <- rep(c(1, 2, 3), 4)[d$school]
  w <- kdr3(I(y > 1) ~ x + (1 | school), d, family = binomial(), weights2 = w2, points = 5)
  expect_output(print(w), "Weights: weights2 = w2\nStandard errors are those of the weighted sandwich")
  expect_true(is.na(AIC(w)) && is.na(BIC(w)) && !is.na(logLik(w)))
  expect_message(kdr3(I(y > 1) ~ x + (0 + f + x + w | school), d, family = binomial()), "More than four random effects")
  expect_equal(attr(logLik(kdr3(y ~ x + (1 | school), d, control = list(FIXSIGMA2 = 1.5))), "df"), 3L)
  # A row that doesn't say its unit has no prediction, one of a new unit has the population's.
  m <- kdr3(y ~ x + (1 | school), d)
  new <- transform(d[1:3, ], school = c(school[1], NA, 99))
  found <- predict(m, new, allow.new.levels = TRUE)
  expect_equal(is.na(found), c(FALSE, TRUE, FALSE), ignore_attr = TRUE)
  expect_equal(found[3], predict(m, new, re.form = NA)[3])
})

test_that("models are compared where their likelihoods can be", {
  m <- kdr3(y ~ x + (1 | school), d)
  no <- function(text, ...) expect_error(anova(...), text, class = "kdr3_comparison")
  d$w2 <- rep(c(1, 2, 3), 4)[d$school]
  no("different weights", m, kdr3(y ~ x + w + (1 | school), d, weights = w2))
  no("is weighted", kdr3(y ~ 1 + (1 | school), d, weights2 = w2), kdr3(y ~ x + (1 | school), d, weights2 = w2))
  no("x is not the same", m, kdr3(y ~ x + w + (1 | school), transform(d, x = rev(x))))
  no("different offsets", m, kdr3(y ~ x + w + offset(z) + (1 | school), d))
  no("not an object of class lm", m, lm(y ~ x, d))
  no("did not converge", m, suppressWarnings(kdr3(y ~ x + (x | school / pupil), d, control = list(NUMIT = 1))))
  b <- function(formula, ...) kdr3(formula, d, family = binomial(), ...)
  no("of two kinds", b(I(y > 1) ~ 1 + (1 | school), engine = "laplace"), b(I(y > 1) ~ x + (1 | school), points = 5))
  no("Quasi-likelihood", b(I(y > 1) ~ 1 + (1 | school), engine = "pql"), b(I(y > 1) ~ x + (1 | school), points = 5))
  expect_equal(anova(b(I(y > 1) ~ 1 + (1 | school), points = 1), b(I(y > 1) ~ x + (1 | school), engine = "laplace"))$Df[2], 1)
  nested <- function(a, b) anova(kdr3(a, d), kdr3(b, d))
  tested <- function(a, b) !is.na(nested(a, b)[2, "Pr(>Chisq)"])
  expect_false(tested(y ~ w + (1 | school), y ~ x + f + (1 | school)))
  expect_false(tested(y ~ x + (x | school), y ~ x + (x + w || school)))    # a covariance that the larger one hasn't
  expect_true(tested(y ~ x + (1 | school), y ~ poly(x, 2) + (1 | school)))  # the line is in the columns of the curve
  d$class <- d$school + 100
  expect_true(tested(y ~ x + (1 | class), y ~ x + (1 | school / pupil)))    # the same units by another name
  expect_match(attr(nested(y ~ x + (1 | school), y ~ x + (x | school / pupil)), "heading"), "3 random effects more.*P is too large", all = FALSE)
})

test_that("nested groupings by name and by / are one model; levels that no record has are left out", {
  d$unit <- factor(paste(d$school, d$pupil), levels = c("nobody", unique(paste(d$school, d$pupil))))
  a <- kdr3(y ~ x + (1 | school / pupil), d)
  for (formula in c(y ~ x + (1 | school) + (1 | school:pupil), y ~ x + (1 | unit) + (1 | school)))
    expect_equal(as.numeric(logLik(kdr3(formula, d))), as.numeric(logLik(a)))
  expect_equal(ngrps(kdr3(y ~ x + (1 | unit), d))[["unit"]], length(unique(d$unit)))
})

test_that("a fit is updated where its data are, also behind the function that made it", {
  made <- (function(inner) kdr3(y ~ x + (1 | school), inner))(d)
  expect_equal(fixef(update(made, . ~ . + w)), fixef(kdr3(y ~ x + w + (1 | school), d)))
  expect_error(update(made, data = gone), "'gone' not found")
})

test_that("missing values are left out, or padded", {
  d$x[c(3, 9)] <- NA
  expect_equal(c(nobs(kdr3(y ~ x + (1 | school), d)), length(fitted(kdr3(y ~ x + (1 | school), d)))), rep(nrow(d) - 2, 2))
  m <- kdr3(y ~ x + (1 | school), d, na.action = na.exclude)
  expect_equal(which(is.na(residuals(m))), c(3, 9), ignore_attr = TRUE)
})

test_that("the object holds itself: another session predicts, prints and simulates from it", {
  skip_if_not(nzchar(system.file(package = "kdr3")))
  file <- tempfile(fileext = ".rds")
  on.exit(unlink(file))
  m <- kdr3(y ~ x + (x | school / pupil), d)
  saveRDS(m, file)
  said <- rscript("library(kdr3, lib.loc = '", dirname(system.file(package = "kdr3")), "'); m <- readRDS('", file, "'); ",
                  "cat(format(sum(predict(m, se.fit = TRUE)$se.fit), digits = 12)); invisible(capture.output(print(summary(m)))); ",
                  "invisible(update(m, data = m$frame)); invisible(simulate(m))", sep = "")
  expect_equal(said[length(said)], format(sum(predict(m, se.fit = TRUE)$se.fit), digits = 12))
})

test_that("an interrupt ends a fit and a bootstrap, and the session goes on", {
  skip_on_os("windows")
  m <- kdr3(y ~ x + (x | school / pupil), d)
  interruptin <- function(seconds) system(paste0("sh -c 'sleep ", seconds, "; kill -INT ", Sys.getpid(), "' >/dev/null 2>&1 &"))
  interruptin(1)
  expect_equal(tryCatch(bootstrap(m, 1e6, seed = 1), interrupt = function(e) "interrupted"), "interrupted")
  # R's own error of a time limit, which must not end a session without a user.
  expect_error({
    setTimeLimit(elapsed = 1, transient = TRUE)
    bootstrap(m, 1e6, seed = 1)
  }, "reached elapsed time limit")
  setTimeLimit()
  # In the midst of a quadrature, of which one evaluation takes a second or two.
  many <- d[rep(seq_len(nrow(d)), 100), ]
  many$school <- many$school + 100 * rep(1:100, each = nrow(d))
  slow <- quote(kdr3(I(y > 1) ~ x + (x | school / pupil), many, family = binomial(), points = 7))
  began <- proc.time()[["elapsed"]]
  interruptin(4)
  expect_equal(tryCatch(eval(slow), interrupt = function(e) "interrupted"), "interrupted")
  expect_lt(proc.time()[["elapsed"]] - began, 4 + 10)
  expect_equal(nobs(kdr3(y ~ x + (1 | school), d)), nrow(d))
})

test_that("memory comes back after each fit", {
  pages <- function() as.numeric(strsplit(readLines("/proc/self/statm"), " ")[[1]][2])
  skip_if_not(file.exists("/proc/self/statm"))
  # R's own heap grows by steps now and then; what a fit kept would grow in every round.
  growth <- vapply(1:5, function(round) {
    before <- pages()
    for (i in 1:60) m <- kdr3(y ~ x + (1 | school / pupil), d)
    gc()
    pages() - before
  }, 0)
  expect_lt(stats::median(growth), 100)  # of 4 KB
})

test_that("imputed data and plausible values are pooled by Rubin's rules", {
  many <- lapply(1:4, function(i) transform(d, y = y + round(sin(seq_along(y) * i) / 2, 3)))
  p <- kdr3(y ~ x + f + (1 | school), many)
  fits <- lapply(many, function(data) kdr3(y ~ x + f + (1 | school), data))
  b <- sapply(fits, fixef)
  U <- rowMeans(sapply(fits, function(m) diag(vcov(m))))
  T <- apply(b, 1, var) * 1.25
  expect_equal(coef(p), rowMeans(b))
  expect_equal(diag(vcov(p)), U + T)
  expect_equal(p$df, pmin(floor(3 * (U / T + 1)^2), fits[[1]]$df))
  for (i in 1:4) d[[paste0("pv", i)]] <- many[[i]]$y
  v <- kdr3(pv1 ~ x + f + (1 | school), d, plausible = paste0("pv", 1:4))
  expect_equal(vcov(v), vcov(p))
  expect_equal(ranef(p)$school[["3", 1]], mean(vapply(fits, function(m) ranef(m)$school[["3", 1]], 0)))
  new <- data.frame(x = 1, f = "b", school = 4)
  each <- lapply(fits, predict, new, se.fit = TRUE)
  expect_equal(predict(p, new, se.fit = TRUE)$se.fit^2,
               mean(vapply(each, function(e) e$se.fit^2, 0)) + 1.25 * var(vapply(each, `[[`, 0, "fit")), ignore_attr = TRUE)
  expect_error(AIC(p), "no likelihood", class = "kdr3_refused")
  # The pooled test of one contrast is the square of its t with the within variance in it.
  expect_equal(anova(p)["x", "F value"], coef(p)[["x"]]^2 / (U[["x"]] + T[["x"]]), tolerance = 1e-8)
})

test_that("fits of different models have no average", {
  no <- function(text, ...) expect_error(kdr3(..., engine = "laplace"), text, class = "kdr3_comparison")
  yes <- transform(d, b = factor(ifelse(y > 1, "yes", "no")))
  no("categories of the outcome", b ~ x + (1 | school), list(yes, transform(yes, b = factor(b, c("yes", "no")))), family = binomial())
  expect_error(kdr3(y ~ f + (1 | school), list(d, transform(d, f = relevel(f, "b")))), "fixed effects differ", class = "kdr3_comparison")
  sums <- function(d) kdr3(y ~ f + (1 | school), d, contrasts = list(f = "contr.sum"))
  expect_error(sums(list(d, transform(d, f = relevel(f, "b")))), "levels of f are a, b, c and b, a, c", class = "kdr3_comparison")
  expect_warning(kdr3(y ~ x + (1 | school), list(d, d[-1, ])), "different records: 190, 189")
  expect_warning(kdr3(y ~ poly(x, 2) + (1 | school), list(d, transform(d, x = x + w))), "made of each data set by itself")
  expect_error(kdr3(y ~ x + (1 | school), list(d, transform(d, x = NA_real_))), "^Data set 2: All values of x are missing")
  for (package in c("mice", "lme4", "broom.mixed")) skip_if_not_installed(package)
  gaps <- d[c("school", "x", "y")]
  gaps$x[seq(1, 190, 7)] <- NA
  imputed <- mice::mice(gaps, m = 3, seed = 1, printFlag = FALSE)
  theirs <- mice::pool(with(imputed, lme4::lmer(y ~ x + (1 | school), REML = FALSE)))$pooled
  ours <- kdr3(y ~ x + (1 | school), imputed)
  expect_equal(unname(coef(ours)), theirs$estimate, tolerance = 1e-6)
  expect_equal(unname(diag(vcov(ours))), theirs$t, tolerance = 1e-5)
  expect_equal(mice::pool(with(imputed, kdr3(y ~ x + (1 | school))))$pooled$t, theirs$t, tolerance = 1e-5)
})

test_that("half and half mixtures for a variance, chi-square otherwise", {
  small <- kdr3(y ~ x + (1 | school), d)
  large <- kdr3(y ~ x + (x | school), d)
  a <- anova(small, large)
  gain <- a$Chisq[2]
  expect_equal(a[2, "Pr(>Chisq)"], (pchisq(gain, 1, lower.tail = FALSE) + pchisq(gain, 2, lower.tail = FALSE)) / 2)
  expect_equal(anova(small, large, test = "chisq")[2, "Pr(>Chisq)"], pchisq(gain, 2, lower.tail = FALSE))
  expect_message(anova(kdr3(y ~ 1 + (1 | school), d, reml = TRUE), kdr3(y ~ x + (1 | school), d, reml = TRUE)), "refitting")
})

test_that("design weights and robust errors", {
  d$w3 <- rep(c(1, 2, 3), 4)[d$school]
  a <- kdr3(y ~ x + (1 | school), d, weights2 = w3)
  expect_false(isTRUE(all.equal(fixef(a), fixef(kdr3(y ~ x + (1 | school), d)))))
  b <- kdr3(y ~ x + (1 | school), transform(d, w3 = 10 * w3), weights2 = w3)
  expect_equal(fixef(a), fixef(b), tolerance = 1e-6)
  expect_false(anyNA(vcov(a, "robust")))
  expect_false(anyNA(vcov(kdr3(y ~ x + (1 | school), d), "CR2")))
  # By quadrature: weights of 2 for every unit of the highest level, unscaled, are each unit twice.
  g <- function(d, ...) kdr3(I(y > 1) ~ x + (1 | school), d, family = binomial(), points = 9, ...)
  two <- kdr3(I(y > 1) ~ x + (1 | school), transform(d, w3 = 2), family = binomial(), points = 9, weights2 = w3, control = list(WEIGHTSCALE = 0))
  twice <- g(rbind(d, transform(d, school = school + 100)))
  expect_equal(two$engine, "quadrature")
  expect_equal(fixef(two), fixef(twice), tolerance = 1e-6)
  expect_equal(as.numeric(logLik(two)), as.numeric(logLik(twice)), tolerance = 1e-8)
  expect_equal(vcov(two, "robust"), vcov(g(d), "robust"), tolerance = 1e-5)
  expect_error(kdr3(y ~ x + (1 | school), d, weights2 = x), "positive numbers", class = "kdr3_data")
})

test_that("errors of units of weighted models are the posterior's, and those of -predict", {
  d <- transform(madestudy(), b = as.integer(y > 1), w1 = rep_len(c(1, 2.5, 0.5), length(y)), w2 = c(1, 3, 2)[(pupil + school) %% 3 + 1], w3 = c(1, 2, 4)[school %% 3 + 1])
  m <- kdr3(y ~ x + (1 | school), d, weights1 = w1, control = list(WEIGHTSCALE = 0))
  X <- model.matrix(m)
  w <- d$w1 / mean(d$w1)
  A <- 1 / VarCorr(m)$school[1] + rowsum(w, d$school)[d$school] / sigma(m)^2
  away <- X - (rowsum(X * w, d$school)[d$school, ] / sigma(m)^2) / A
  expect_equal(unname(predict(m, se.fit = TRUE)$se.fit), sqrt(1 / A + rowSums((away %*% vcov(m)) * away)), tolerance = 1e-9, ignore_attr = TRUE)
  a <- kdr3(y ~ x + (x | school) + (1 | school:pupil), d, weights1 = w1, weights2 = w2, weights3 = w3)
  b <- kdr3(b ~ x + (1 | school / pupil), d, family = binomial(), weights1 = w1, weights2 = w2, weights3 = w3)
  expect_equal(unname(predict(a, se.fit = TRUE)$se.fit[1:3]), c(0.392583017, 0.855037069, 0.770977687), tolerance = 1e-7)
  expect_equal(unname(predict(b, type = "response", se.fit = TRUE)$se.fit[1:3]), c(0.189426243, 0.129695019, 0.151720415), tolerance = 1e-7)
})

test_that("effects of a quadrature fit are means of the posterior", {
  m <- kdr3(I(y > 1) ~ x + (1 | school), d, family = binomial(), points = 15)
  u <- seq(-8, 8, length.out = 4001) * sqrt(VarCorr(m)$school[1])
  for (unit in c("3", "8")) {
    rows <- d$school == as.integer(unit)
    eta <- drop(model.matrix(m)[rows, ] %*% fixef(m))
    posterior <- vapply(u, function(v) exp(sum(plogis((eta + v) * ifelse(d$y[rows] > 1, 1, -1), log.p = TRUE))), 0) * dnorm(u, 0, sqrt(VarCorr(m)$school[1]))
    posterior <- posterior / sum(posterior)
    mean <- sum(u * posterior)
    expect_equal(ranef(m)$school[unit, 1], mean, tolerance = 1e-5)
    expect_equal(c(attr(ranef(m, condVar = TRUE)$school, "postVar")[1, 1, match(unit, rownames(ranef(m)$school))]), sum((u - mean)^2 * posterior), tolerance = 1e-4)
  }
})

test_that("effects of quasi-likelihood are modes, with over-dispersion too", {
  d$s <- rowSums(outer(d$y, c(-.5, .5, 1, 2), ">"))
  m <- kdr3(cbind(s, 4 - s) ~ x + (1 | school), d, family = binomial(), engine = "pql", control = list(FIXSIGMA2 = 0))
  expect_equal(drop(rowsum(d$s - 4 * fitted(m), d$school)) / sigma(m)^2, ranef(m)$school[, 1] / VarCorr(m)$school[1], tolerance = 1e-5, ignore_attr = TRUE)
})

test_that("outcomes with categories", {
  d$o <- cut(d$y, c(-Inf, 0, 1, 2, Inf), labels = c("low", "mid", "high", "top"))
  for (family in c("ordinal", "multinomial")) {
    m <- kdr3(o ~ x + (1 | school), d, family = family)
    expect_equal(rowSums(fitted(m)), rep(1, nrow(d)), ignore_attr = TRUE)
    expect_equal(colMeans(fitted(m)), c(table(d$o)) / nrow(d), tolerance = 0.1, ignore_attr = TRUE)
    expect_true(all(simulate(m, 1, seed = 1)[[1]] %in% levels(d$o)))
    expect_equal(dim(vcov(m)), rep(length(coef(summary(m))[, 1]), 2))
    expect_equal(m$engine, "quadrature")
    expect_true(all(diag(vcov(m, "robust")) > 0))
    expect_equal(rowSums(residuals(m)), rep(0, nrow(d)), ignore_attr = TRUE)
    expect_equal(residuals(m)[1, ], (levels(d$o) == d$o[1]) - fitted(m)[1, ])
    expect_equal(augment(m)$.prob.mid, unname(fitted(m)[, "mid"]))
    expect_false(anyNA(confint(m)[paste0("sd_", rownames(m$taus[[1]])[1], "|school"), ]))
    # Errors by the delta method, with derivatives by differences.
    new <- data.frame(x = c(-1, .5), school = 1)
    value <- function(b) {
      m$coefficients[] <- b
      as.numeric(predict(m, new, type = "response", re.form = NA))
    }
    b <- m$coefficients
    J <- sapply(seq_along(b), function(i) (value(replace(b, i, b[i] + 1e-5)) - value(replace(b, i, b[i] - 1e-5))) / 2e-5)
    expect_equal(as.numeric(predict(m, new, type = "response", re.form = NA, se.fit = TRUE)$se.fit), sqrt(diag(J %*% vcov(m) %*% t(J))), tolerance = 1e-6)
    expect_equal(dim(predict(m, new, type = "response", se.fit = TRUE)$se.fit), c(2L, 4L))
    # The likelihood by the trapezoidal rule, of one random effect; a multinomial one has several.
    if (family == "multinomial") next
    s <- sqrt(VarCorr(m)$school[1])
    u <- seq(-8, 8, length.out = 801)
    b <- fixef(m)
    cuts <- c(0, b[-(1:2)])
    given <- sapply(u, function(v) {
      upper <- c(plogis(outer(b[[1]] + b[[2]] * d$x + s * v, cuts, `+`)), rep(1, nrow(d)))
      lower <- c(rep(0, nrow(d)), upper[seq_len(3 * nrow(d))])
      at <- cbind(seq_len(nrow(d)), as.integer(d$o))
      rowsum(log((matrix(upper, nrow(d)) - matrix(lower, nrow(d)))[at]), d$school)
    })
    expect_equal(as.numeric(logLik(m)), sum(log(exp(given) %*% dnorm(u) * (u[2] - u[1]))), tolerance = 1e-7)
    below <- sapply(cuts[1:2], function(cut) sum(plogis(sum(b[1:2] * c(1, new$x[1])) + cut + s * u) * dnorm(u)) * (u[2] - u[1]))
    expect_equal(predict(m, new["x"], type = "average")[1, 1:2], c(below[1], diff(below)), tolerance = 1e-7, ignore_attr = TRUE)
  }
})
