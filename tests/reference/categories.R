# Coefficients of the categorical outcomes in nonlinear/ without random effects, by nnet::multinom and MASS::polr, in the
# form of this program. Writes categories.out:   Rscript categories.R > categories.out
#
# multinom sets every category against the first level of the factor; here it is the last one, so the factor is
# releveled. polr has logit P(y <= c) = zeta_c - x'b without an intercept; here it is g + x'd + delta_c with
# delta_1 = 0, so g = zeta_1, d = -b and delta_c = zeta_c - zeta_1.
library(nnet)
library(MASS)
level <- function(n, ids, names) {
  x <- read.fwf(sprintf("nonlinear/level%d.dat", n), c(ids, rep(10, length(names))), strip.white = TRUE)
  names(x) <- c("k", if (n < 3) c("blank", "j"), names)
  x
}
one <- level(1, c(4, 1, 6), c("YBERN", "YBIN", "NTRIAL", "YPOIS", "YEXP", "EXPOS", "YMUL3", "YORD3", "YMUL5", "YORD5",
                              "X1", "X2", "W1"))
two <- level(2, c(4, 1, 6), c("Z1", "Z2", "W2"))
three <- level(3, 4, c("Q1", "Q2", "W3"))
one$x1 <- one$X1 - ave(one$X1, one$j)
one$x2 <- one$X2 - mean(one$X2)
one$z1 <- (two$Z1 - mean(two$Z1))[match(one$j, two$j)]
one$q1 <- (three$Q1 - mean(three$Q1))[match(one$k, three$k)]
show <- function(model, b, se) {
  for (i in seq_along(b)) cat(sprintf("%s %2d %12.6f %10.6f\n", model, i, b[i], se[i]))
}

# terms in the order of the program: intercept, q1, z1, x1, x1 z1, x2
m <- multinom(relevel(factor(YMUL3), ref = "3") ~ q1 + z1 + x1 + I(x1 * z1) + x2, one, reltol = 1e-14, abstol = 1e-12,
              maxit = 500, trace = FALSE, Hess = TRUE)
s <- summary(m)
show("M3FLAT", as.vector(t(coef(m))), as.vector(t(s$standard.errors)))

o <- polr(factor(YORD3) ~ q1 + z1 + x1 + I(x1 * z1) + x2, one, Hess = TRUE, control = list(reltol = 1e-14, maxit = 1000))
V <- vcov(o)
p <- length(coef(o))
A <- matrix(0, p + 2, p + 2)
A[1, p + 1] <- 1
for (i in 1:p) A[1 + i, i] <- -1
A[p + 2, c(p + 1, p + 2)] <- c(-1, 1)
show("O3FLAT", as.vector(A %*% c(coef(o), o$zeta)), sqrt(diag(A %*% V %*% t(A))))
