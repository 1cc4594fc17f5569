# Bootstrap quantiles by lme4: bootMer (parametric) and level-3 units with replacement, each with R's own random numbers.
#   Rscript bootstraps.R FOLDER > bootstraps.out
# A line: kind, name, replicates, standard deviation of the replicates, quantiles .025 and .975.
suppressMessages(library(lme4))
folder <- commandArgs(TRUE)[1]
set.seed(7)
show <- function(kind, draws) for (name in colnames(draws)) {
  x <- draws[is.finite(draws[, name]), name]
  cat(kind, name, length(x), sprintf("%.6g", c(sd(x), quantile(x, c(.025, .975), type = 6))), "\n")
}
what <- function(m) {
  v <- as.data.frame(VarCorr(m))
  v <- v[is.na(v$var2), ]
  sds <- v$sdcor
  names(sds) <- ifelse(v$grp == "Residual", "sigma", paste0("sd_", v$var1, "|", v$grp))
  names(sds) <- gsub("[()]", "", names(sds))
  c(setNames(fixef(m), gsub("[()]", "", names(fixef(m)))), sds)
}
study <- read.csv(file.path(folder, "study61.csv"))
form <- Y ~ Q + Z + X + Q:X + (1 | school) + (X | school:pupil)
m <- suppressMessages(lmer(form, study, REML = FALSE))
show("parametric", suppressWarnings(suppressMessages(bootMer(m, what, nsim = 1000)))$t)
schools <- split(study, study$school)
cases <- t(sapply(1:1000, function(i) {
  drawn <- sample(schools, replace = TRUE)
  for (k in seq_along(drawn)) drawn[[k]]$school <- k
  suppressWarnings(suppressMessages(what(lmer(form, do.call(rbind, drawn), REML = FALSE))))
}))
show("cases", cases)
binary <- transform(study, B = as.integer(Y > .2))
g <- suppressMessages(glmer(B ~ Z + X + (1 | school) + (1 | school:pupil), binary, family = binomial))
whatg <- function(m) c(setNames(fixef(m), gsub("[()]", "", names(fixef(m)))), unlist(lapply(VarCorr(m), function(v) sqrt(v[1]))))
show("binary", suppressWarnings(suppressMessages(bootMer(g, whatg, nsim = 300)))$t)
