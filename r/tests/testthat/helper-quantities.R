# What is compared with lme4, of one model: every number that a method gives, through the generics that both packages
# answer. tests/reference/rlme4.R runs it over fits of lme4 and stores what it finds in lme4/numbers.csv.

cases <- list(
  sleepstudy = list(data = "sleepstudy", formula = Reaction ~ Days + (Days | Subject), smaller = Reaction ~ Days + (1 | Subject)),
  sleepstudyREML = list(data = "sleepstudy", formula = Reaction ~ Days + offset(shift) + (Days || Subject), reml = TRUE, weights = "heft"),
  Pastes = list(data = "Pastes", formula = strength ~ cask + (1 | batch / cask), smaller = strength ~ cask + (1 | batch)),
  cbpp = list(data = "cbpp", formula = cbind(incidence, size - incidence) ~ period + (1 | herd), family = binomial()),
  grouseticks = list(data = "grouseticks", formula = TICKS ~ YEAR + scale(HEIGHT) + (1 | LOCATION / BROOD), family = poisson()))

flat <- function(name, values, labels = names(values)) {
  if (is.null(labels)) labels <- seq_along(values)
  stats::setNames(as.numeric(values), paste0(name, "[", labels, "]"))
}

quantities <- function(m, case, data, update = stats::update, ranef = nlme::ranef, VarCorr = nlme::VarCorr, ngrps, isSingular, getME, refit) {
  linear <- is.null(case$family)
  varcor <- as.data.frame(VarCorr(m))
  u <- ranef(m, condVar = TRUE)
  new <- data[c(2, 11, 23), ]
  unknown <- new
  for (g in intersect(names(new), c("Subject", "batch", "herd", "LOCATION"))) unknown[[g]] <- "none"
  rows <- c(
    flat("fixef", nlme::fixef(m)),
    flat("se", sqrt(diag(as.matrix(stats::vcov(m)))), names(nlme::fixef(m))),
    flat("summary t", stats::coef(summary(m))[, if (linear) "t value" else 3 + ("df" %in% colnames(stats::coef(summary(m))))], names(nlme::fixef(m))),
    flat("VarCorr", varcor$vcov, paste(varcor$grp, varcor$var1, varcor$var2)),
    flat("VarCorr sd", varcor$sdcor, paste(varcor$grp, varcor$var1, varcor$var2)),
    sigma = stats::sigma(m), logLik = as.numeric(stats::logLik(m)), "logLik df" = attr(stats::logLik(m), "df"),
    AIC = stats::AIC(m), BIC = stats::BIC(m), nobs = stats::nobs(m), df.residual = stats::df.residual(m), flat("ngrps", ngrps(m)),
    isSingular = isSingular(m), flat("theta", getME(m, "theta"), seq_along(getME(m, "theta"))),
    "model.frame columns" = ncol(stats::model.frame(m)), "terms" = length(attr(stats::terms(m), "term.labels")),
    "formula length" = length(all.vars(stats::formula(m))), "model.matrix" = sum(stats::model.matrix(m) ^ 2), "weights" = sum(stats::weights(m)))
  for (g in names(u)) {
    rows <- c(rows, flat(paste("ranef", g), unlist(u[[g]][1:3, ])))
    long <- as.data.frame(u)
    long <- long[long$grpvar == g & long$grp %in% rownames(u[[g]])[1:2], ]
    rows <- c(rows, flat(paste("conditional sd", g), long$condsd, paste(long$term, long$grp)))
    rows <- c(rows, flat(paste("coef", g), stats::coef(m)[[g]][2, ]))
  }
  for (type in c("response", "pearson", if (!linear) c("working", "deviance")))
    rows <- c(rows, flat(paste("residuals", type), stats::residuals(m, type = type)[c(1, 5, 40)], 1:3))
  rows <- c(rows, flat("fitted", stats::fitted(m)[c(1, 5, 40)], 1:3),
            flat("predict link", stats::predict(m, new, type = "link"), 1:3), flat("predict response", stats::predict(m, new, type = "response"), 1:3),
            flat("predict population", stats::predict(m, new, re.form = NA), 1:3),
            flat("predict new groups", stats::predict(m, unknown, allow.new.levels = TRUE), 1:3),
            flat("refit", nlme::fixef(refit(m, stats::model.response(stats::model.frame(m))))))
  wald <- stats::confint(m, parm = "beta_", method = "Wald")
  if (!is.null(case$smaller)) {
    smaller <- update(m, case$smaller)
    rows <- c(rows, "anova Chisq" = stats::anova(smaller, m)[2, "Chisq"], "anova Df" = stats::anova(smaller, m)[2, "Df"],
              flat("drop1 LRT", stats::drop1(m, test = "Chisq")[-1, if (inherits(m, "kdr3")) "LRT" else "LRT"]),
              flat("profile", stats::confint(m, method = "profile", oldNames = FALSE, quiet = TRUE), NULL))
  }
  rows
}
