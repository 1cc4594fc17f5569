# Every method of the R package beside lme4's, on lme4's own examples.
#   Rscript rlme4.R LIBRARY            prints the table; the package kdr3 is in the folder LIBRARY
#   Rscript rlme4.R LIBRARY --store    writes data and lme4's numbers to r/tests/testthat/lme4
# lme4's optimiser is set to tight criteria, since its defaults leave variances right to four digits.
suppressMessages({library(lme4)})
arguments <- commandArgs(TRUE)
here <- dirname(normalizePath(sub("--file=", "", grep("--file=", commandArgs(), value = TRUE))))
tests <- file.path(here, "..", "..", "r", "tests", "testthat")
source(file.path(tests, "helper-quantities.R"))
library(kdr3, lib.loc = arguments[1], exclude = c("ngrps", "getME", "refit", "isSingular"))

set.seed(34)
sleepstudy$shift <- round(rnorm(180, 0, 20), 1)
sleepstudy$heft <- round(runif(180, .5, 2), 2)
options(width = 150)
optimiser <- list(rhoend = 1e-9, maxfun = 1e5)
linear <- lmerControl(optimizer = "bobyqa", optCtrl = optimiser)
other <- glmerControl(optimizer = "bobyqa", tolPwrss = 1e-12, optCtrl = optimiser)
sets <- list(sleepstudy = sleepstudy, Pastes = Pastes, cbpp = cbpp, grouseticks = grouseticks)

fitlme4 <- function(case, data) {
  if (!is.null(case$family))
    return(eval(bquote(glmer(.(case$formula), data, family = .(case$family), control = other))))
  w <- if (!is.null(case$weights)) as.name(case$weights)
  eval(bquote(lmer(.(case$formula), data, REML = .(isTRUE(case$reml)), weights = .(w),
                   control = linear)))
}
fitkdr3 <- function(case, data) {
  w <- if (!is.null(case$weights)) as.name(case$weights)
  eval(bquote(kdr3::kdr3(.(case$formula), data, family = .(if (is.null(case$family)) gaussian() else case$family), reml = .(isTRUE(case$reml)),
                         engine = "laplace", weights = .(w), control = list(STOPVAL = 1e-10))))
}

number <- function(x) ifelse(x == round(x), format(x), formatC(x, digits = 7, format = "g"))
all <- NULL
for (name in names(cases)) {
  case <- cases[[name]]
  data <- sets[[case$data]]
  theirs <- suppressMessages(quantities(fitlme4(case, data), case, data, ngrps = lme4::ngrps, isSingular = lme4::isSingular, getME = lme4::getME,
                                        refit = function(m, y) lme4::refit(m, y, control = if (is.null(case$family)) linear else other)))
  ours <- suppressMessages(quantities(fitkdr3(case, data), case, data, ngrps = kdr3::ngrps, isSingular = kdr3::isSingular, getME = kdr3::getME,
                                      refit = kdr3::refit))
  stopifnot(length(ours) == length(theirs))
  table <- data.frame(case = name, quantity = names(theirs), lme4 = unname(theirs), kdr3 = unname(ours))
  all <- rbind(all, table)
  cat("\n==", name, "\n")
  print(data.frame(quantity = table$quantity, lme4 = number(table$lme4), kdr3 = number(table$kdr3),
                   difference = formatC(table$kdr3 - table$lme4, digits = 1, format = "e")), right = FALSE, row.names = FALSE)
}

cat("\n== InstEval, (1 | dept/d): 73,421 records\n")
seconds <- c(lme4 = system.time(l <- lmer(y ~ service + lectage + (1 | dept/d), InstEval, REML = FALSE))[["elapsed"]],
             kdr3 = system.time(k <- kdr3::kdr3(y ~ service + lectage + (1 | dept/d), InstEval))[["elapsed"]])
print(seconds)
print(c(logLik = logLik(k) - logLik(l), fixef = max(abs(fixef(k) - fixef(l))), vcov = max(abs(vcov(k) - as.matrix(vcov(l)))),
        sd = max(abs(as.data.frame(VarCorr(k))$sdcor - as.data.frame(VarCorr(l))$sdcor)), ranef = max(abs(ranef(k)[[1]] - ranef(l)[[1]])),
        fitted = max(abs(fitted(k) - fitted(l)))))

if ("--store" %in% arguments) {
  folder <- file.path(tests, "lme4")
  for (name in names(sets)) write.csv(sets[[name]], file.path(folder, paste0(name, ".csv")), row.names = FALSE, quote = FALSE)
  write.csv(data.frame(all[1:2], lme4 = sprintf("%.9g", all$lme4)), file.path(folder, "numbers.csv"), row.names = FALSE, quote = c(1, 2))
}
