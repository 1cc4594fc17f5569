# Oracles by dense matrices: the mixed model equations at the estimates.

dense <- function(m, d, T2, T3, s2) {
  X <- model.matrix(m)
  unit2 <- factor(paste(d$school, d$pupil))
  unit3 <- factor(d$school)
  block <- function(Z, f) do.call(cbind, lapply(levels(f), function(l) Z * (f == l)))
  Z <- cbind(block(matrix(1, nrow(d)), unit2), block(cbind(1, d$x), unit3))
  G <- matrix(0, ncol(Z), ncol(Z))
  n2 <- nlevels(unit2)
  G[seq_len(n2), seq_len(n2)] <- diag(T2, n2)
  G[-seq_len(n2), -seq_len(n2)] <- kronecker(diag(nlevels(unit3)), T3)
  V <- Z %*% G %*% t(Z) + diag(s2, nrow(d))
  W <- cbind(X, Z)
  P <- matrix(0, ncol(W), ncol(W))
  P[-seq_len(ncol(X)), -seq_len(ncol(X))] <- solve(G)
  list(X = X, Z = Z, V = V, C = solve(crossprod(W) / s2 + P), W = W, unit2 = unit2, unit3 = unit3, n2 = n2)
}

d <- madestudy()
tight <- list(STOPVAL = 1e-10, NUMIT = 1000)
m <- kdr3(y ~ x + w * z + (x | school) + (1 | school:pupil), d, control = tight)
o <- dense(m, d, m$taus[[1]][1], m$taus[[2]], sigma(m)^2)

test_that("likelihood, covariances, effects and errors of predictions are those of dense matrices", {
  b <- solve(t(o$X) %*% solve(o$V, o$X), t(o$X) %*% solve(o$V, d$y))
  expect_equal(unname(fixef(m)), drop(unname(b)), tolerance = 1e-5)
  expect_equal(unname(vcov(m)), unname(solve(t(o$X) %*% solve(o$V, o$X))), tolerance = 1e-5)
  r <- d$y - o$X %*% fixef(m)
  expect_equal(as.numeric(logLik(m)), -(nrow(d) * log(2 * pi) + determinant(o$V)$modulus + sum(r * solve(o$V, r))) / 2, tolerance = 1e-8, ignore_attr = TRUE)
  expect_equal(unname(fitted(m)), drop(unname(d$y - sigma(m)^2 * solve(o$V, r))), tolerance = 1e-6)
  expect_equal(unname(predict(m, se.fit = TRUE)$se.fit), sqrt(rowSums((o$W %*% o$C) * o$W)), tolerance = 1e-5, ignore_attr = TRUE)
  schoolonly <- o$W
  schoolonly[, ncol(o$X) + seq_len(o$n2)] <- 0
  found <- predict(m, d, re.form = ~ (x | school), se.fit = TRUE)
  expect_equal(unname(found$se.fit), sqrt(rowSums((schoolonly %*% o$C) * schoolonly)), tolerance = 1e-5, ignore_attr = TRUE)
  intercepts <- o$X %*% fixef(m) + ranef(m)$school[as.character(d$school), 1]
  expect_equal(unname(predict(m, d, re.form = ~ (1 | school))), drop(unname(intercepts)))
  fresh <- predict(m, transform(d[1:3, ], pupil = 99), allow.new.levels = TRUE, se.fit = TRUE)$se.fit
  expect_equal(unname(fresh^2), found$se.fit[1:3]^2 + m$taus[[1]][1], tolerance = 1e-6, ignore_attr = TRUE)
})

test_that("each column stands at its level", {
  expect_equal(m$df[["z"]], 12 - 2)          # of schools, with two effects of level 3 on the intercept
  expect_equal(m$df[["w"]], m$df[["w:z"]])   # both on the level-2 slope of w
})

test_that("rows in another order and other units of a predictor are the same model", {
  again <- kdr3(y ~ x + w * z + (x | school) + (1 | school:pupil), d[order(d$x), ], control = tight)
  expect_equal(fixef(again), fixef(m), tolerance = 1e-6)
  big <- kdr3(y ~ I(x * 1e5) + w * z + (I(x * 1e5) | school) + (1 | school:pupil), d)
  expect_equal(as.numeric(logLik(big)), as.numeric(logLik(m)), tolerance = 1e-9)
})

test_that("splines, factors, products and random effects without a fixed one", {
  s <- kdr3(y ~ poly(x, 2) * f + (1 | school / pupil), d)
  expect_equal(unname(predict(s, d[5:9, ])), unname(fitted(s)[5:9]), tolerance = 1e-10)
  a <- kdr3(y ~ f + (1 | school / pupil), d, contrasts = list(f = "contr.sum"))
  b <- kdr3(y ~ 0 + f + (1 | school / pupil), d)
  c <- kdr3(y ~ f + (1 | school / pupil), d)
  expect_equal(as.numeric(logLik(a)), as.numeric(logLik(c)), tolerance = 1e-9)
  expect_equal(as.numeric(logLik(b)), as.numeric(logLik(c)), tolerance = 1e-9)
  expect_equal(anova(a)$Chisq, anova(c)$Chisq, tolerance = 1e-5)
})

test_that("simulated outcomes have the model's means and covariances", {
  y <- as.matrix(simulate(m, 2000, seed = 4))
  error <- sqrt(diag(o$V) / 2000)
  expect_lt(max(abs(rowMeans(y) - drop(o$X %*% fixef(m))) / error), 5)
  same <- which(o$unit2 == o$unit2[1])[1:2]
  expect_equal(stats::cov(y[same[1], ], y[same[2], ]), o$V[same[1], same[2]], tolerance = 0.25)
  expect_identical(simulate(m, 2, seed = 4), simulate(m, 2, seed = 4))
})

test_that("replicates of the bootstrap scatter about the fit, each estimate in its place, in any number of threads", {
  # Columns and effects whose order in the library is another one than the formula's.
  b <- kdr3(y ~ x * w + z + (1 | school:pupil) + (x | school), d)
  one <- bootstrap(b, 150, seed = 2, threads = 1)
  expect_identical(one$t, bootstrap(b, 150, seed = 2, threads = 2)$t)
  wald <- sqrt(diag(vcov(b)))
  expect_true(all(abs(colMeans(one$t)[names(wald)] - fixef(b)) < wald / 2))
  expect_equal(apply(one$t, 2, sd)[names(wald)], wald, tolerance = 0.2)
  expect_true(all(abs(colMeans(one$t) - one$t0) < apply(one$t, 2, sd)))
  d$o <- cut(d$y, c(-Inf, 0, 1, Inf), labels = c("low", "mid", "high"))
  units <- bootstrap(kdr3(o ~ x + w + (1 | school), d, family = "multinomial", engine = "laplace"), 60, seed = 1, cases = TRUE)
  expect_true(all(abs(apply(units$t, 2, median) - units$t0) < apply(units$t, 2, sd) + 1e-3))
})

test_that("degrees of freedom by Kenward and Roger go into tests of terms and of contrasts", {
  k <- kdr3(strength ~ cask + (1 | batch), dataof("Pastes"), reml = TRUE, ddf = "kenward-roger")
  expect_equal(anova(k)[["DenDF"]], 48, tolerance = 1e-6)  # balanced: those of the analysis of variance
  expect_equal(unname(k$df[2:3]), c(48, 48), tolerance = 1e-6)
})

test_that("modes of counts solve their equations, and quadrature takes an exposure", {
  g <- dataof("grouseticks")
  g$t <- rep(c(1, 2.5), length.out = nrow(g))
  p <- kdr3(TICKS ~ YEAR + offset(log(t)) + (1 | LOCATION / BROOD), g, family = poisson(), engine = "laplace")
  u <- ranef(p)[["BROOD:LOCATION"]]
  score <- tapply(g$TICKS - fitted(p), paste(g$BROOD, g$LOCATION, sep = ":"), sum)
  expect_equal(u[[1]] / p$taus[[1]][1], as.numeric(score[rownames(u)]), tolerance = 1e-6)
})
