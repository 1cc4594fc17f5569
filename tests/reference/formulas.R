# What R makes of formulas: the columns of its model matrices, and the models by lmer(REML = FALSE) and glmer. Writes the
# data to formulas/*.csv as well. Run in this directory:
#   Rscript formulas.R > formulas.out
suppressMessages({library(lme4); library(nlme)})
options(warn = 1, digits = 15)
RNGversion("4.0.0")
set.seed(31)

# What the program has besides R's functions: means over units, and a factor's reference.
center <- function(x, g) if (missing(g)) x - base::mean(x, na.rm = TRUE) else x - mean(x, g)
mean <- function(x, g, ...) if (missing(g)) base::mean(x, ...) else
  ave(x, g, FUN = function(v) base::mean(v, na.rm = TRUE))
factor <- function(x, ref) if (missing(ref)) base::factor(x) else relevel(base::factor(x), ref = as.character(ref))

# The growth example with factors of each level: sex of pupils, arm of schools (one of its values has no score at all),
# the paper that a score was made with.
growth <- read.csv("../../examples/growth/growth.csv")
pupil <- match(growth$pupil, unique(growth$pupil)); school <- match(growth$school, unique(growth$school))
growth$sex <- c("male", "female")[sample(1:2, max(pupil), TRUE)][pupil]
growth$arm <- c("none", "books", "tutor")[sample(1:3, max(school), TRUE)][school]
growth$paper <- sample(c("p1", "p2", "p3"), nrow(growth), TRUE)
growth$paper[growth$year == 3 & growth$paper == "p3"] <- NA
growth$score[growth$paper %in% "p2"] <- growth$score[growth$paper %in% "p2"] + 2
growth$books <- rpois(nrow(growth), exp(0.3 + 0.1 * growth$year + 0.2 * growth$ses))
growth$weeks <- sample(c(10, 20, 30), nrow(growth), TRUE)
growth$tries <- sample(3:8, nrow(growth), TRUE)
growth$right <- rbinom(nrow(growth), growth$tries, plogis((ifelse(is.na(growth$score), 55, growth$score) - 55) / 10))
growth$passed <- ifelse(growth$right >= growth$tries / 2, "yes", "no")

plain <- function(d) { d <- as.data.frame(d); for (v in names(d)) if (is.factor(d[[v]])) d[[v]] <- as.character(d[[v]]); d }
datasets <- list(growth = growth, pixel = plain(nlme::Pixel), wafer = plain(nlme::Wafer), alfalfa = plain(nlme::Alfalfa),
                 oxide = plain(nlme::Oxide), pastes = plain(lme4::Pastes), oats = plain(nlme::Oats))
names(datasets$alfalfa)[1] <- "variety"
for (name in names(datasets)) {
  file <- file.path("formulas", paste0(name, ".csv"))
  write.csv(datasets[[name]], file, row.names = FALSE, quote = FALSE, na = "")
  datasets[[name]] <- read.csv(file, na.strings = c("", "NA"))
}

show <- function(...) cat(..., "\n", sep = "")
number <- function(x) paste(sprintf("%.12g", x), collapse = " ")

columns <- function(name, formula) {
  d <- datasets[[name]]
  frame <- model.frame(formula, d, drop.unused.levels = TRUE)
  X <- model.matrix(formula, frame)
  show("columns ", name, "\t", deparse1(formula))
  for (j in seq_len(ncol(X))) show("  ", colnames(X)[j], "\t", number(c(sum(X[, j]), sum(X[, j]^2), sum(X[, j] * seq_len(nrow(X))))))
}

fit <- function(name, formula, family = NULL, options = "", ...) {
  d <- datasets[[name]]
  # Near the edge of the variances the optimizers end at different places: the best one counts.
  m <- suppressMessages(if (is.null(family)) {
    tries <- lapply(c("nloptwrap", "bobyqa", "Nelder_Mead"), function(optimizer)
      lmer(formula, d, REML = FALSE, control = lmerControl(optimizer = optimizer, check.conv.singular = "ignore", check.conv.grad = "ignore",
           optCtrl = if (optimizer == "nloptwrap") list(xtol_abs = 1e-12, ftol_abs = 1e-12) else list(maxfun = 1e5))))
    tries[[which.max(sapply(tries, logLik))]]
  } else glmer(formula, d, family = family, control = glmerControl(optimizer = "bobyqa", tolPwrss = 1e-11, check.conv.grad = "ignore",
         check.conv.singular = "ignore", optCtrl = list(maxfun = 1e5, rhoend = 1e-9)), ...))
  show("fit ", name, "\t", deparse1(formula), "\t", options)
  b <- fixef(m); s <- sqrt(diag(as.matrix(vcov(m))))
  for (i in seq_along(b)) show("  ", names(b)[i], "\t", number(c(b[i], s[i])))
  v <- VarCorr(m)
  for (i in seq_along(v)) show("  variances ", names(m@cnms)[i], "\t", paste(colnames(v[[i]]), collapse = ","), "\t", number(diag(v[[i]])))
  if (is.null(family)) show("  residual\t", number(sigma(m)^2))
  show("  deviance\t", number(c(-2 * as.numeric(logLik(m)), nobs(m))))
}

# The columns: margins, codings, orders, functions.
for (f in c(
  y ~ sex, y ~ 0 + sex, y ~ sex - 1 + year, y ~ year + arm, y ~ 0 + year + arm, y ~ sex * arm, y ~ sex:arm,
  y ~ 0 + sex:arm, y ~ sex + sex:arm, y ~ arm + sex:arm - 1, y ~ year:sex, y ~ year + year:sex, y ~ year * sex * arm,
  y ~ (year + sex + arm)^2, y ~ (year + sex + arm)^3 - year:sex:arm, y ~ year * (sex + arm) - arm, y ~ sex / year,
  y ~ sex / (year + hours), y ~ arm:year:sex, y ~ sex:year + year, y ~ arm:sex + sex, y ~ year + I(year^2) + log(hours + 1),
  y ~ poly(year, 2), y ~ poly(hours, 3) * sex, y ~ poly(year, 2, raw = TRUE), y ~ poly(year, 1), y ~ I(year > 1),
  y ~ I(year > 1) * sex, y ~ 0 + I(year > 1) + year, y ~ (year > 1), y ~ scale(hours) + scale(year, scale = FALSE),
  y ~ scale(hours, center = FALSE), y ~ center(hours) + center(hours, pupil) + mean(hours, pupil), y ~ factor(year),
  y ~ 0 + factor(year) + factor(year):ses, y ~ factor(arm, ref = "none"), y ~ factor(arm, ref = "none") * factor(year, ref = 2),
  y ~ exp(ses / 10) + sqrt(hours) + I(-ses) + I((year - 1) * ses), y ~ I(sex == "male"), y ~ year + 1, y ~ 1, y ~ year - year,
  y ~ sex + sex:year + arm:year, y ~ year:(sex + arm), y ~ I(year == 2 | ses > 1) + I(!(year > 1)), y ~ paper * arm, y ~ ses + paper:ses))
  {
  f[[2]] <- quote(score); columns("growth", f)
}
for (f in c(yield ~ nitro * Variety, yield ~ 0 + Variety:nitro, yield ~ poly(nitro, 3))) columns("oats", f)

# The models.
for (f in c(
  score ~ 1 + (1 | school/pupil), score ~ year + (year | school/pupil), score ~ year * sex + arm + (year | school/pupil),
  score ~ year * sex * arm + (year | school/pupil), score ~ year + (1 | school) + (year | school:pupil),
  score ~ year + (year | school) + (1 | school:pupil), score ~ year + (year || school/pupil),
  score ~ poly(year, 2) + (1 | school/pupil), score ~ year + I(year^2) + paper + (1 + year | school/pupil),
  score ~ 0 + arm + year + (1 | school/pupil), score ~ center(hours, pupil) + mean(hours, pupil) + (1 | school/pupil),
  score ~ center(ses) * year + tutoring + (year | school/pupil), score ~ year + (1 | school) + (0 + year | school) + (1 | school:pupil),
  score ~ factor(year) + sex + (1 | school/pupil), score ~ paper * sex + year + (1 | school) + (1 | pupil),
  score ~ year + ses + (ses | school) + (1 | school:pupil), score ~ year * ses + (year + ses || school) + (year | school:pupil),
  log(score) ~ I(year > 1) + scale(ses) + (1 | school/pupil), score ~ 0 + year + hours + (0 + year | school/pupil),
  score ~ factor(arm, ref = "none"):year + (1 | school/pupil),
  score ~ year + sex + (1 | school) + (year | pupil) + (0 + year | school)))
  fit("growth", f)
for (f in c(pixel ~ day + I(day^2) + (day | Dog) + (1 | Dog:Side), pixel ~ day + (1 | Dog/Side), pixel ~ poly(day, 2) + (1 | Dog/Side),
            pixel ~ day * Side + (1 | Dog/Side)))
  fit("pixel", f)
for (f in c(current ~ voltage + (voltage | Wafer/Site), current ~ voltage + I(voltage^2) + (1 | Wafer/Site),
            current ~ voltage + I(voltage^2) + (voltage || Wafer/Site)))
  fit("wafer", f)
for (f in c(Yield ~ Date + variety + (1 | Block/variety), Yield ~ Date * variety + (1 | Block/variety), Yield ~ 0 + Date + (1 | Block/variety)))
  fit("alfalfa", f)
for (f in c(Thickness ~ 1 + (1 | Lot/Wafer), Thickness ~ Source + (1 | Lot/Wafer), Thickness ~ Source + factor(Site) + (1 | Lot/Wafer)))
  fit("oxide", f)
fit("pastes", strength ~ 1 + (1 | batch/cask))
fit("pastes", strength ~ 1 + (1 | batch) + (1 | sample))
for (f in c(yield ~ nitro + (1 | Block/Variety), yield ~ nitro * Variety + (1 | Block/Variety), yield ~ factor(nitro) + Variety + (1 | Block/Variety),
            yield ~ factor(nitro, ref = 0.6) - 1 + (1 | Block) + (1 | Block:Variety)))
  fit("oats", f)
laplace <- "-engine laplace"
fit("growth", I(passed == "yes") ~ year + sex + (1 | school/pupil), binomial, paste("-family binomial", laplace))
fit("growth", cbind(right, tries - right) ~ year * arm + (1 | school/pupil), binomial, paste("-family binomial", laplace))
fit("growth", books ~ year + ses + offset(log(weeks)) + (1 | school/pupil), poisson, paste("-family poisson", laplace))
fit("growth", books ~ year + paper + (1 | school/pupil), poisson, paste("-family poisson", laplace))
