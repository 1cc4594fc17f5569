# The unconstrained models of models.py by lmer(REML = FALSE), centering done here. Run in this directory:
#   Rscript lme4.R > lme4.out
suppressMessages(library(lme4))
options(digits = 12, width = 120)
w <- function(n) c(4, 1, 6, rep(10, n))
rd <- function(f, widths, names) {
  d <- read.fwf(f, widths, stringsAsFactors = FALSE)
  names(d) <- names
  d
}
d1 <- rd("school/level1.dat", w(5), c("id3", "b", "id2", "Y", "X1", "X2", "V", "W1"))
d2 <- rd("school/level2.dat", w(3), c("id3", "b", "id2", "Z1", "Z2", "W2"))
d3 <- rd("school/level3.dat", c(4, 10, 10, 10), c("id3", "Q1", "Q2", "W3"))
d2$Z1c <- d2$Z1 - mean(d2$Z1)
d2$Z2g <- d2$Z2 - ave(d2$Z2, d2$id3)
d3$Q1c <- d3$Q1 - mean(d3$Q1)
d3$Q2c <- d3$Q2 - mean(d3$Q2)
d <- merge(merge(d1, d2[, c("id2", "Z1", "Z2", "Z1c", "Z2g")], by = "id2"), d3, by = "id3")
d$X1g <- d$X1 - ave(d$X1, d$id2)
d$X1c <- d$X1 - mean(d$X1)
d$X2c <- d$X2 - mean(d$X2)
models <- list(
  A = Y ~ Q1c + Z1c + Z2g + X1g + X1g:Q1c + X1g:Z1c + X2c + (1 + X1g | id2) + (1 + X1g | id3),
  B = Y ~ Q1 + Q2c + Z1 + X1 + X2c + (1 | id2) + (1 | id3),
  C = Y ~ Q1c + Z1c + Z2g + X1g + X1g:Q1c + X1g:Z1c + X2c + (1 + X1g | id2) + (1 | id3),
  D = Y ~ 0 + X1 + X1:Q2 + X1:Z1 + X2 + (0 + X1 | id2) + (0 + X1 | id3),
  E = Y ~ Z1c + Z2g + X1c + X2c + (1 + X1c | id2) + (1 + Z2g + X1c | id3),
  R3 = Y ~ Q1c + Z1c + Z2g + X1g + X1g:Q1c + X1g:Z1c + X2c + (1 + X1g || id2) + (1 + X1g || id3))
for (n in names(models)) {
  m <- lmer(models[[n]], data = d, REML = FALSE,
            control = lmerControl(optimizer = "bobyqa", optCtrl = list(rhoend = 1e-10, maxfun = 1e5),
                                  check.conv.grad = "ignore"))
  cat("model", n, "\n")
  cat("loglik", format(as.numeric(logLik(m)), digits = 14), "\n")
  cat("sigma2", format(sigma(m)^2, digits = 12), "\n")
  v <- as.matrix(vcov(m))
  for (g in names(fixef(m)))
    cat("gamma", g, format(fixef(m)[g], digits = 12), "se", format(sqrt(v[g, g]), digits = 10), "\n")
  vc <- as.data.frame(VarCorr(m))
  for (i in seq_len(nrow(vc)))
    cat("tau", vc$grp[i], vc$var1[i], vc$var2[i], format(vc$vcov[i], digits = 12), "\n")
}
