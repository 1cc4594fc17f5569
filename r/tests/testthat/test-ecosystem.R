d <- madestudy()
m <- kdr3(y ~ x * f + (x | school / pupil), d)
b <- kdr3(I(y > 1) ~ x + (1 | school), d, family = binomial(), engine = "laplace")

test_that("tables of generics", {
  t <- tidy(m, conf.int = TRUE)
  expect_equal(t$term[t$effect == "fixed"], names(fixef(m)))
  expect_true(all(c("sd__(Intercept)", "cor__(Intercept).x", "sd__Observation") %in% t$term))
  expect_equal(t$estimate[t$group %in% "Residual"], sigma(m))
  expect_true(all(t$conf.low < t$estimate & t$estimate < t$conf.high, na.rm = TRUE))
  expect_equal(tidy(b, effects = "fixed", exponentiate = TRUE)$estimate, unname(exp(fixef(b))))
  expect_equal(glance(m)$AIC, AIC(m))
  a <- augment(m)
  expect_equal(a$.fitted + a$.resid, d$y)
  expect_equal(nrow(tidy(m, effects = "ran_vals")), 2 * sum(ngrps(m)))
})

test_that("emmeans", {
  skip_if_not_installed("emmeans")
  e <- summary(suppressMessages(emmeans::emmeans(m, ~f)))
  L <- cbind(1, mean(d$x), diag(3)[, -1], mean(d$x) * diag(3)[, -1])
  expect_equal(e$emmean, drop(L %*% fixef(m)))
  expect_equal(e$SE, sqrt(rowSums((L %*% vcov(m)) * L)))
  expect_true(all(is.finite(e$df)))
  prob <- summary(emmeans::emmeans(b, ~1, at = list(x = 0)), type = "response")
  expect_equal(prob[[2]], plogis(fixef(b)[[1]]))
  k <- kdr3(strength ~ cask + (1 | batch), dataof("Pastes"), reml = TRUE, ddf = "kenward-roger")
  expect_equal(summary(pairs(emmeans::emmeans(k, ~cask)))$df, rep(48, 3), tolerance = 1e-6)
})

test_that("emmeans of categories: linear predictors without thresholds, logits against the last one", {
  skip_if_not_installed("emmeans")
  d$o <- cut(d$y, c(-Inf, 0, 1, Inf), labels = c("low", "mid", "high"))
  for (family in c("ordinal", "multinomial")) {
    m <- kdr3(o ~ x + f + (1 | school), d, family = family, engine = "laplace")
    e <- summary(emmeans::emmeans(m, if (family == "ordinal") ~f else ~ f | category))
    p <- predict(m, data.frame(f = c("a", "b", "c"), x = mean(d$x)), re.form = NA, se.fit = TRUE)
    k <- if (family == "ordinal") 1 else 1:2
    expect_equal(e$emmean, as.numeric(p$fit[, k]))
    expect_equal(e$SE, as.numeric(p$se.fit[, k]), tolerance = 1e-7)
    grid <- getFromNamespace("get_predictions.kdr3", "kdr3")(m, data_grid = data.frame(f = c("a", "b", "c"), x = 0))
    expect_equal(as.numeric(tapply(grid$predicted, grid$f, sum)), rep(1, 3))
    expect_equal(unique(grid$response.level), levels(d$o))
    expect_true(all(grid$conf.low < grid$predicted & grid$predicted < grid$conf.high & grid$conf.high < 1))
  }
})

test_that("insight and what stands on it", {
  skip_if_not_installed("insight")
  expect_equal(insight::find_random(m, flatten = TRUE), c("pupil:school", "school"))
  v <- insight::get_variance(m)
  Z <- cbind(1, d$x)
  expect_equal(v$var.random, mean(rowSums((Z %*% (m$taus[[1]] + m$taus[[2]])) * Z)))
  expect_equal(unname(v$var.residual), sigma(m)^2)
  expect_equal(insight::get_varcov(m), vcov(m))
  expect_true(insight::model_info(b)$is_binomial)
  skip_if_not_installed("performance")
  expect_equal(performance::icc(m)$ICC_adjusted, v$var.random / (v$var.random + v$var.residual), ignore_attr = TRUE)
  skip_if_not_installed("parameters")
  expect_equal(suppressMessages(parameters::model_parameters(m, effects = "fixed"))$Coefficient, unname(fixef(m)))
  # By name of the class they would go by defaults: no singular fit ever, errors against the population's predictions.
  expect_equal(sort(suppressMessages(parameters::model_parameters(m, effects = "random"))$Coefficient), sort(as.data.frame(VarCorr(m))$sdcor))
  expect_equal(performance::mae(m), mean(abs(residuals(m))))
  small <- kdr3(y ~ x + (1 | school), d)
  expect_equal(performance::compare_performance(m, small)$AIC, c(AIC(m), AIC(small)))
  singular <- suppressWarnings(kdr3(y ~ x + (x | school), transform(madestudy(), y = rev(y)), reml = TRUE))
  expect_true(performance::check_singularity(singular))
  skip_if_not_installed("ggeffects")
  expect_equal(ggeffects::ggpredict(b, "x [0, 1]")$predicted, unname(plogis(cbind(1, 0:1) %*% fixef(b)))[, 1])
})

test_that("what marginaleffects and DHARMa call", {
  at <- function(name) get(name, asNamespace("kdr3"))
  changed <- at("set_coef.kdr3")(b, fixef(b) + c(1, 0))
  expect_equal(at("get_predict.kdr3")(changed, d, type = "link", re.form = NA)$estimate,
               at("get_predict.kdr3")(b, d, type = "link", re.form = NA)$estimate + 1)
  expect_identical(names(at("get_coef.kdr3")(b)), rownames(at("get_vcov.kdr3")(b)))
  set.seed(1)
  drawn <- at("getSimulations.kdr3")(b, 50)
  expect_equal(dim(drawn), c(nrow(d), 50L))
  expect_true(all(drawn %in% 0:1))
  expect_equal(length(fixef(at("getRefit.kdr3")(b, drawn[, 1]))), 2L)
  expect_equal(at("getFitted.kdr3")(b), plogis(drop(unname(model.matrix(b) %*% fixef(b)))))
})

test_that("the methods are registered where the package of the generic is loaded later", {
  skip_if(nzchar(system.file(package = "marginaleffects")))
  place <- tempfile("standin")
  on.exit(unlink(place, recursive = TRUE))
  dir.create(file.path(place, "marginaleffects", "R"), recursive = TRUE)
  generics <- c("get_coef", "set_coef", "get_vcov", "get_predict")
  write.dcf(list(Package = "marginaleffects", Version = "0.1", Title = "Generics", Description = "Generics.", License = "none", Author = "none",
                 Maintainer = "none <root@localhost>"), file.path(place, "marginaleffects", "DESCRIPTION"))
  writeLines(paste0("export(", generics, ")"), file.path(place, "marginaleffects", "NAMESPACE"))
  writeLines(paste0(generics, " <- function(model, ...) UseMethod(\"", generics, "\")"), file.path(place, "marginaleffects", "R", "generics.R"))
  dir.create(file.path(place, "library"))
  utils::install.packages(file.path(place, "marginaleffects"), lib = file.path(place, "library"), repos = NULL, type = "source", quiet = TRUE)
  at <- loadNamespace("marginaleffects", lib.loc = file.path(place, "library"))
  on.exit(unloadNamespace("marginaleffects"), add = TRUE)
  expect_equal(at$get_coef(b), fixef(b))
  expect_equal(at$get_coef(at$set_coef(b, c(1, 2))), c(1, 2), ignore_attr = TRUE)
  # Slopes by differences of predictions, and their errors by differences over the coefficients: the delta method.
  new <- data.frame(x = c(-1, 0, 1), school = 1, rowid = c(7, 8, 9))
  slope <- function(m) {
    value <- function(shift) at$get_predict(m, transform(new, x = x + shift), type = "response", re.form = NA)
    expect_equal(value(0)$rowid, new$rowid)
    mean((value(1e-4)$estimate - value(-1e-4)$estimate) / 2e-4)
  }
  beta <- at$get_coef(b)
  J <- sapply(seq_along(beta), function(i) (slope(at$set_coef(b, replace(beta, i, beta[i] + 1e-4))) - slope(at$set_coef(b, replace(beta, i, beta[i] - 1e-4)))) / 2e-4)
  eta <- beta[1] + beta[2] * new$x
  by.hand <- c(mean(dlogis(eta) * (1 - 2 * plogis(eta)) * beta[2]), mean(dlogis(eta) + dlogis(eta) * (1 - 2 * plogis(eta)) * new$x * beta[2]))
  expect_equal(J, by.hand, tolerance = 1e-5, ignore_attr = TRUE)
})

test_that("generics of lme4 know the fits", {
  skip_if_not_installed("lme4")
  expect_equal(lme4::ngrps(m), ngrps(m))
  expect_equal(lme4::getME(m, "theta"), getME(m, "theta"))
  expect_false(lme4::isSingular(b))
})
