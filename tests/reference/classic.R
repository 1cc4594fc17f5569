# Restricted fits of three-level data sets that come with lme4 and nlme: Pastes, Oxide, Pixel.
#   Rscript classic.R FOLDER > classic.out       writes pastes.csv, oxide.csv and pixel.csv there
# A line: set, what, values. tau2 and tau3 by columns of the lower triangle.
suppressMessages({library(lme4); library(lmerTest); library(pbkrtest)})
folder <- commandArgs(TRUE)[1]
settings <- lmerControl(optimizer = "bobyqa", optCtrl = list(rhoend = 1e-10, maxfun = 1e5))
fit <- function(set, form, data, names) {
  write.csv(data, file.path(folder, paste0(set, ".csv")), row.names = FALSE, quote = FALSE)
  m <- lmerTest::lmer(form, data, REML = TRUE, control = settings)
  v <- VarCorr(m)
  show <- function(what, x) cat(set, what, sprintf("%.10g", x), "\n")
  show("criterion", REMLcrit(m))
  show("gamma", fixef(m))
  show("se", sqrt(diag(as.matrix(vcov(m)))))
  show("sigma2", sigma(m)^2)
  show("tau2", v[[names[1]]][lower.tri(v[[names[1]]], TRUE)])
  show("tau3", v[[names[2]]][lower.tri(v[[names[2]]], TRUE)])
  show("krdf", sapply(seq_along(fixef(m)), function(j) Lb_ddf(replace(0 * fixef(m), j, 1), vcov(m), vcovAdj(m))))
  show("krse", sqrt(diag(as.matrix(vcovAdj(m)))))
}
p <- with(lme4::Pastes, data.frame(unit3 = as.integer(batch), unit2 = as.integer(sample), Y = strength))
fit("pastes", Y ~ 1 + (1 | unit3) + (1 | unit2), p[order(p$unit3, p$unit2), ], c("unit2", "unit3"))
o <- with(as.data.frame(nlme::Oxide), data.frame(unit3 = as.integer(as.character(Lot)), W = as.integer(as.character(Wafer)), Y = Thickness))
o$unit2 <- 3 * (o$unit3 - 1) + o$W
fit("oxide", Y ~ 1 + (1 | unit3) + (1 | unit2), o[order(o$unit3, o$unit2), c("unit3", "unit2", "Y")], c("unit2", "unit3"))
x <- with(as.data.frame(nlme::Pixel), data.frame(unit3 = as.integer(as.character(Dog)), side = as.character(Side), Y = pixel, DAY = day, DAYSQ = day^2))
x$unit2 <- 2 * (x$unit3 - 1) + ifelse(x$side == "L", 1, 2)
fit("pixel", Y ~ DAY + DAYSQ + (DAY | unit3) + (1 | unit2), x[order(x$unit3, x$unit2), c("unit3", "unit2", "Y", "DAY", "DAYSQ")], c("unit2", "unit3"))
