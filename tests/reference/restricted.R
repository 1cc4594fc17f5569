# The studies of restrictedstudies.py by lmer, lmerTest and pbkrtest:
#   Rscript restricted.R FOLDER > restricted.out
# A line is: study, quantity, values. Covariances of the taus and degrees of freedom at the edge are theirs (numerical).
suppressMessages({library(lme4); library(lmerTest); library(pbkrtest)})
folder <- commandArgs(TRUE)[1]
models <- read.table(file.path(folder, "models.txt"), stringsAsFactors = FALSE)
random <- c(intercepts = "(1 | pupil) + (1 | school)", slope2 = "(1 + X | pupil) + (1 | school)",
            slopes = "(1 + X | pupil) + (1 + X | school)")
show <- function(study, what, values) cat(study, what, sprintf("%.12g", as.numeric(values)), "\n")
two <- rbind(c(0, 1, 0, 0, 0), c(0, 0, 0, 0, 1))
three <- rbind(c(0, 1, 0, 0, 0), c(0, 0, 1, 0, 0), c(0, 0, 0, 1, 1))
for (i in seq_len(nrow(models))) {
  study <- models[i, 1]
  d <- read.csv(file.path(folder, sprintf("study%d.csv", study)))
  f <- as.formula(paste("Y ~ Q + Z + X + X:Q +", random[models[i, 2]]))
  best <- NULL
  for (optimizer in c("bobyqa", "nloptwrap", "Nelder_Mead")) {
    opt <- switch(optimizer, bobyqa = list(rhoend = 1e-10, maxfun = 1e5), nloptwrap = list(xtol_abs = 1e-10, ftol_abs = 1e-12, maxeval = 1e5),
                  list(FtolAbs = 1e-12, XtolRel = 1e-12, maxfun = 1e5))
    m <- suppressMessages(suppressWarnings(lmerTest::lmer(f, d, control = lmerControl(optimizer = optimizer, optCtrl = opt, calc.derivs = FALSE))))
    if (is.null(best) || REMLcrit(m) < REMLcrit(best)) best <- m
  }
  m <- best
  show(study, "criterion", REMLcrit(m))
  show(study, "aic", AIC(m))
  show(study, "edge", as.numeric(isSingular(m, tol = 1e-4)))
  show(study, "sigma2", sigma(m)^2)
  v <- VarCorr(m)
  for (unit in c("pupil", "school")) show(study, unit, v[[unit]][lower.tri(v[[unit]], diag = TRUE)])
  show(study, "gamma", fixef(m))
  show(study, "se", sqrt(diag(as.matrix(vcov(m)))))
  if (isSingular(m, tol = 1e-4)) next
  s <- suppressWarnings(suppressMessages(coef(summary(m, ddf = "Satterthwaite"))))
  show(study, "satterthwaite", s[, "df"])
  adjusted <- vcovAdj(m)
  show(study, "krse", sqrt(diag(as.matrix(adjusted))))
  show(study, "krdf", sapply(1:5, function(j) Lb_ddf(replace(rep(0, 5), j, 1), vcov(m), adjusted)))
  for (rows in list(two, three)) {
    k <- KRmodcomp(m, rows)
    show(study, sprintf("kr%d", nrow(rows)), sapply(c("ndf", "ddf", "Fstat", "F.scaling"), function(what) getKR(k, what)))
    s <- contestMD(m, rows, ddf = "Satterthwaite")
    show(study, sprintf("fai%d", nrow(rows)), c(s[["DenDF"]], s[["F value"]]))
  }
}
