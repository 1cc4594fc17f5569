# Predictions, predicted margins and average marginal effects of five models of examples/growth, by lme4 (predict, vcov),
# emmeans, and by hand: endtoend/predictions_test.py compares the program's tables. Run in the tree's root:
#   Rscript tests/reference/predictions.R > tests/reference/predictions.out
suppressMessages({library(lme4); library(emmeans)})
d <- read.csv("examples/growth/growth.csv")
d$high <- as.integer(d$score > 58); d$right <- floor(d$score / 10); d$trials <- 10; d$visits <- floor(d$hours)
d$weeks <- 1 + d$pupil %% 3; d$band <- c("low", "mid", "top")[1 + (d$pupil %% 3)]
d <- d[complete.cases(d[c("score", "hours", "ses")]), ]
new <- data.frame(year = c(0, 1, 3, 2), ses = c(-0.65, 0, 1.5, 0.3), tutoring = c(1, 0, 1, 0), band = c("low", "mid", "top", "mid"),
                  weeks = c(1, 2, 3, 1), school = c("S01", "S02", "S03", "S99"))
inverse <- list(gaussian = identity, binomial = plogis, poisson = exp)
tell <- function(what, values) cat(what, formatC(values, digits = 10, width = 1), "\n")
model <- function(name, fit, kind, formula, offset = function(x) 0) {
  b <- fixef(fit); V <- as.matrix(vcov(fit)); mu <- inverse[[kind]]
  eta <- function(data, b) drop(model.matrix(formula, data, xlev = list(band = c("low", "mid", "top"))) %*% b) + offset(data)
  X <- model.matrix(formula, new, xlev = list(band = c("low", "mid", "top")))
  tell(paste(name, "linear"), eta(new, b))
  tell(paste(name, "linear_se"), sqrt(diag(X %*% V %*% t(X))))
  tell(paste(name, "response"), mu(eta(new, b)))
  known <- predict(fit, newdata = new, allow.new.levels = TRUE, type = "response")
  tell(paste(name, "unit_response"), known)
  # A function of the fixed effects with its error by differences.
  delta <- function(what, f) {
    g <- sapply(seq_along(b), function(i) { h <- 1e-5 * sqrt(V[i, i]); e <- replace(b * 0, i, h); (f(b + e) - f(b - e)) / (2 * h) })
    tell(paste(name, what), c(f(b), sqrt(drop(t(g) %*% V %*% g))))
  }
  for (y in 0:2) delta(paste0("margin_year", y), function(b) mean(mu(eta(transform(d, year = y), b))))
  delta("effect_tutoring", function(b) mean(mu(eta(transform(d, tutoring = 1), b)) - mu(eta(transform(d, tutoring = 0), b))))
  delta("effect_ses", function(b) mean(mu(eta(transform(d, ses = ses + 1e-4), b)) - mu(eta(transform(d, ses = ses - 1e-4), b))) / 2e-4)
}
fit <- lmer(score ~ year * ses + tutoring + (year | school), d, REML = FALSE)
model("linear", fit, "gaussian", ~ year * ses + tutoring)
effects <- ranef(fit, condVar = TRUE)$school
tell("linear ranef", c(unlist(effects["S02", ]), attr(effects, "postVar")[, , match("S02", rownames(effects))]))
means <- as.data.frame(emmeans(fit, ~ year, at = list(year = 0:2, ses = 0, tutoring = 0), lmer.df = "asymptotic"))
tell("linear emmeans", c(means$emmean, means$SE))
model("factor", lmer(score ~ year * band + ses + tutoring + (1 | school), d, REML = FALSE), "gaussian", ~ year * band + ses + tutoring)
model("binary", glmer(high ~ year * ses + tutoring + (1 | school), d, binomial, nAGQ = 15), "binomial", ~ year * ses + tutoring)
model("binomial", glmer(cbind(right, trials - right) ~ year + ses + tutoring + (1 | school), d, binomial, nAGQ = 15), "binomial",
      ~ year + ses + tutoring)
model("counts", glmer(visits ~ year + ses + tutoring + offset(log(weeks)) + (1 | school), d, poisson, nAGQ = 15), "poisson",
      ~ year + ses + tutoring, function(x) log(x$weeks))
