# Ordinal models with two intercepts on nonlinear/ by ordinal::clmm (Laplace), in the form of this program:
#   Rscript ordinalclmm.R > ordinalclmm.out
# clmm has logit P(y <= c) = theta_c - x'b; here it is g + x'd + t_c: g = theta_1, d = -b, t_c = theta_c - theta_1.
suppressMessages(library(ordinal))
level <- function(n, ids, names) {
  x <- read.fwf(sprintf("nonlinear/level%d.dat", n), c(ids, rep(10, length(names))), strip.white = TRUE)
  names(x) <- c("k", if (n < 3) c("blank", "j"), names)
  x
}
one <- level(1, c(4, 1, 6), c("YBERN", "YBIN", "NTRIAL", "YPOIS", "YEXP", "EXPOS", "YMUL3", "YORD3", "YMUL5", "YORD5",
                              "X1", "X2", "W1"))
one$k <- factor(one$k)
one$j <- factor(one$j)
for (y in c("YORD3", "YORD5")) {
  one$y <- factor(one[[y]])
  m <- clmm(y ~ X1 + X2 + (1 | k) + (1 | j), one, control = clmm.control(method = "nlminb", maxIter = 500, gradTol = 1e-6))
  C <- nlevels(one$y)
  A <- matrix(0, C + 1, C + 1)
  A[1, 1] <- 1
  A[2, C] <- A[3, C + 1] <- -1
  for (c in 2:(C - 1)) A[2 + c, c(1, c)] <- c(-1, 1)
  b <- A %*% coef(m)
  se <- sqrt(diag(A %*% vcov(m)[1:(C + 1), 1:(C + 1)] %*% t(A)))
  for (i in seq_along(b)) cat(sprintf("%s gamma %.6f %.6f\n", y, b[i], se[i]))
  cat(sprintf("%s taus %.6f %.6f\n%s loglik %.6f\n", y, VarCorr(m)$j[1], VarCorr(m)$k[1], y, logLik(m)))
}
