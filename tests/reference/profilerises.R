# What twice the log-likelihood falls by where one standard deviation or correlation of level 3 is held: lme4's deviance function,
# minimised beside a penalty. Of slopes at both levels, where the splines of confint() go astray. The study is that of slopes() in
# tests/endtoend/intervals_test.py, as a file.  Rscript profilerises.R slopes.csv >> profilerises.out
suppressMessages(library(lme4))
d <- read.csv(commandArgs(TRUE)[1])
form <- y ~ x + (x | k/j)
dev <- do.call(mkLmerDevfun, lFormula(form, d, REML = FALSE))
e <- environment(dev)
full <- function(th) {
  v <- tryCatch(dev(th), error = function(err) 1e10)
  list(dev = v, s2 = (e$pp$sqrL(1) + e$resp$wrss()) / nrow(d))
}
m <- lmer(form, d, REML = FALSE, control = lmerControl(optimizer = "bobyqa", check.conv.singular = "ignore"))
best <- getME(m, "theta")
k <- grep("^k\\.", names(best))
rise <- function(fun, target) {
  least <- Inf
  for (start in 1:4) {
    x <- best * exp(rnorm(length(best), 0, .3)) + rnorm(length(best), 0, .03)
    for (mu in c(1e2, 1e4, 1e6)) for (method in c("Nelder-Mead", "BFGS"))
      x <- optim(x, function(th) { z <- full(th); z$dev + mu * (fun(th, z$s2) - target)^2 }, method = method,
                 control = list(maxit = 4000, reltol = 1e-14))$par
    z <- full(x)
    least <- min(least, z$dev + 1e6 * (fun(x, z$s2) - target)^2)
  }
  least - deviance(m)
}
set.seed(1)
deviation <- function(th, s2) sqrt(s2) * abs(th[k[1]])
slope <- function(th, s2) sqrt(s2 * (th[k[2]]^2 + th[k[3]]^2))
correlation <- function(th, s2) th[k[2]] * sign(th[k[1]]) / sqrt(th[k[2]]^2 + th[k[3]]^2)
for (held in list(list("sd_(Intercept)", deviation, c(.0749780, .643120)), list("sd_x", slope, c(.0207400, .421180)),
                  list("cor", correlation, .0879)))
  for (bound in held[[3]]) cat(sprintf("%s %.6f %.4f\n", held[[1]], bound, rise(held[[2]], bound)))
